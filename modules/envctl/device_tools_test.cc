// Runs the reference sysconfig, and a boot-loader reader made on the spot, at the paths where a device has them: in a
// mount namespace of its own, so that nothing of it shows on this machine.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "envctl/sysconf.h"
#include "platform/testing/captured_output.h"

namespace {

namespace fs = std::filesystem;

std::string why_skipped;  // empty when the device's tools are there

void WriteFile(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

void WriteProgram(const fs::path& path, const std::string& text) {
  WriteFile(path, text);
  fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
}

// Throws std::string with the reason when the machine doesn't allow it.
void Check(int result, const std::string& what) {
  if (result != 0) throw what + ": " + std::strerror(errno);
}

void EnterMountNamespace() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0) {
    Check(unshare(CLONE_NEWNS), "a mount namespace");
  } else {
    Check(unshare(CLONE_NEWUSER | CLONE_NEWNS), "a user namespace");
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
  Check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
}

// A /usr like this machine's, with an empty /usr/kelo/bin and a /usr/sbin that can be written beside the real one.
void MountDeviceTree(const fs::path& stage) {
  Check(mount("tmpfs", stage.c_str(), "tmpfs", 0, "mode=755"), "a tmpfs");
  for (const auto& entry : fs::directory_iterator("/usr")) {
    const fs::path target = stage / entry.path().filename();
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), target);
    } else if (entry.is_directory()) {
      fs::create_directory(target);
      Check(mount(entry.path().c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "a bind mount");
    }
  }
  fs::create_directories(stage / "kelo/bin");
  Check(mount(stage.c_str(), "/usr", nullptr, MS_BIND | MS_REC, nullptr), "a bind mount over /usr");
}

// As u-boot's reader answers.
constexpr char kBootLoaderReader[] = R"(#!/bin/sh
case $1 in
  bootargs) echo 'bootargs=console=ttyS0 root=/dev/mmcblk0p2' ;;
  empty) echo 'empty=' ;;
  *) echo "## Error: \"$1\" not defined" >&2; exit 1 ;;
esac
)";

void SetUpDevice() try {
  if (access(VEX_SYSCONFIG, X_OK) != 0) throw std::string(VEX_SYSCONFIG " was not built");
  unsetenv("SYSCONFIG_FILE");  // the settings are where a device has them
  const int sysconfig = open(VEX_SYSCONFIG, O_RDONLY | O_CLOEXEC);
  // Not a ScratchFolder: that removes all that it finds, and this one has the machine's own folders mounted in it.
  char stage[] = "/tmp/vextool-device-XXXXXX";
  if (mkdtemp(stage) == nullptr) throw std::string("a folder in /tmp");
  try {
    EnterMountNamespace();
    MountDeviceTree(stage);
  } catch (...) {
    umount2(stage, MNT_DETACH);
    fs::remove(stage);
    throw;
  }
  fs::copy_file("/proc/self/fd/" + std::to_string(sysconfig), "/usr/kelo/bin/sysconfig");
  WriteProgram("/usr/kelo/bin/fw_printenv", kBootLoaderReader);
  const char* path = getenv("PATH");
  setenv("PATH", path == nullptr ? "/usr/kelo/bin" : ("/usr/kelo/bin:" + std::string(path)).c_str(), 1);
  umount2(stage, MNT_DETACH);
  fs::remove(stage);
} catch (const std::string& reason) {
  why_skipped = reason;
}

class DeviceToolsTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!why_skipped.empty()) GTEST_SKIP() << "cannot stand in for a device here: " << why_skipped;
  }

  char buffer_[128] = "";
};

TEST_F(DeviceToolsTest, SettingThatWasSetIsRead) {
  ASSERT_EQ(sysconf_setenv("test", "17"), 0);
  ASSERT_NE(sysconf_getenv_safe("test", buffer_), nullptr);
  EXPECT_STREQ(buffer_, "17");
  EXPECT_STREQ(sysconf_getenv("test"), "17");
}

TEST_F(DeviceToolsTest, LaterValueReplacesTheEarlierOne) {
  sysconf_setenv("test", "17");
  sysconf_setenv("test", "a=b=c");
  EXPECT_STREQ(sysconf_getenv_safe("test", buffer_), "a=b=c");
}

TEST_F(DeviceToolsTest, SettingThatIsNotThereIsNull) {
  EXPECT_EQ(sysconf_getenv_safe("no_such_setting", buffer_), nullptr);
  EXPECT_EQ(sysconf_getenv("no_such_setting"), nullptr);
}

TEST_F(DeviceToolsTest, PrintListsWhatWasSet) {
  sysconf_setenv("first", "1");
  sysconf_setenv("second", "2");
  vextest::CapturedOutput errors(STDERR_FILENO);
  EXPECT_EQ(sysconf_printenv(), 0);
  const std::string listed = errors.Text();
  EXPECT_THAT(listed, testing::HasSubstr("first=1\n"));
  EXPECT_THAT(listed, testing::HasSubstr("second=2\n"));
}

TEST_F(DeviceToolsTest, BootLoaderVariableIsRead) {
  EXPECT_STREQ(fw_getenv("bootargs", buffer_), "console=ttyS0 root=/dev/mmcblk0p2");
  EXPECT_STREQ(fw_getenv("empty", buffer_), "");
  EXPECT_EQ(fw_getenv("nothing", buffer_), nullptr);
}

// A tool in place of the real one, until the test ends.
class HangingToolTest : public DeviceToolsTest {
 protected:
  static constexpr char kTool[] = "/usr/kelo/bin/sysconfig";
  static constexpr auto kToolsLimit = std::chrono::seconds(10);

  void SetUp() override {
    DeviceToolsTest::SetUp();
    if (IsSkipped()) return;
    fs::rename(kTool, real_);
  }
  void TearDown() override {
    if (fs::exists(real_)) fs::rename(real_, kTool);
  }

  // Each of its processes holds the write end, so that the read end tells of the last one's end.
  void Install(const std::string& script) {
    ASSERT_EQ(pipe2(alive_, 0), 0);
    fcntl(alive_[0], F_SETFD, FD_CLOEXEC);
    WriteProgram(kTool, "#!/bin/sh\n" + script);
  }
  // Nothing of the tool runs any more. Also tells whether there was anything.
  bool ToolIsGone() {
    close(alive_[1]);
    pollfd end{alive_[0], POLLIN, 0};
    const bool gone = poll(&end, 1, 5000) == 1 && (end.revents & POLLHUP) != 0;
    close(alive_[0]);
    return gone && waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
  }
  static std::chrono::steady_clock::duration TimeOf(const std::function<void()>& call) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    return std::chrono::steady_clock::now() - begin;
  }

  const std::string real_ = std::string(kTool) + ".real";
  int alive_[2] = {-1, -1};
};

TEST_F(HangingToolTest, IsGivenUpAfterTenSecondsWithAllThatItStarted) {
  Install("sleep 600 &\n(sleep 600 >/dev/null &)\nsleep 600\n");
  const auto time = TimeOf([this] { EXPECT_EQ(sysconf_getenv_safe("test", buffer_), nullptr); });
  EXPECT_GE(time, kToolsLimit);
  EXPECT_LT(time, 2 * kToolsLimit);  // there is no second attempt
  EXPECT_TRUE(ToolIsGone());
}

TEST_F(HangingToolTest, IsNotHeardAlthoughItPrintedAnAnswer) {
  Install("echo test=17; trap '' TERM PIPE HUP; while :; do sleep 600; done\n");
  EXPECT_EQ(sysconf_getenv_safe("test", buffer_), nullptr);
  EXPECT_TRUE(ToolIsGone());
}

TEST_F(HangingToolTest, IsAToolThatFailedForTheSetterAndTheListing) {
  Install("printf 'a=1\\nb='; sleep 600\n");
  vextest::CapturedOutput errors(STDERR_FILENO);
  std::thread setter([] { EXPECT_EQ(sysconf_setenv("test", "1"), 0); });
  EXPECT_EQ(sysconf_printenv(), 0);
  setter.join();
  EXPECT_EQ(errors.Text(), "a=1\n");
  EXPECT_TRUE(ToolIsGone());
}

TEST_F(HangingToolTest, IsGivenUpWhenTheCallersDescriptorSaysSo) {
  const int stop = eventfd(0, EFD_CLOEXEC);
  sysconf_set_stop_fd(stop);
  for (const char* script :
       {"echo >&$STARTED; sleep 600 &\nsleep 600\n", "exec >/dev/null; echo >&$STARTED; sleep 600\n"}) {
    Install(script);
    setenv("STARTED", std::to_string(alive_[1]).c_str(), 1);
    const auto time = TimeOf([&] {
      std::thread gives_up([&] {
        char started = 0;
        EXPECT_EQ(read(alive_[0], &started, 1), 1);
        eventfd_write(stop, 1);
      });
      EXPECT_EQ(sysconf_getenv_safe("test", buffer_), nullptr);
      gives_up.join();
    });
    EXPECT_LT(time, kToolsLimit / 2);
    EXPECT_TRUE(ToolIsGone()) << script;
    eventfd_t drained = 0;
    eventfd_read(stop, &drained);
  }
  unsetenv("STARTED");
  sysconf_set_stop_fd(-1);
  close(stop);
}

TEST_F(HangingToolTest, IsKilledWhenTheProcessExits) {
  Install("echo started >&2; sleep 600 & sleep 600\n");
  int told[2];
  ASSERT_EQ(pipe2(told, O_CLOEXEC), 0);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    dup2(told[1], STDERR_FILENO);
    std::thread([] { sysconf_setenv("test", "1"); }).detach();
    char word = 0;
    (void)!read(told[0], &word, 1);
    std::exit(7);
  }
  int status = 0;
  const auto time = TimeOf([&] { EXPECT_EQ(waitpid(child, &status, 0), child); });
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_LT(time, kToolsLimit);
  EXPECT_TRUE(ToolIsGone());
  close(told[0]);
  close(told[1]);
}

TEST_F(DeviceToolsTest, NoChildIsLeft) {
  sysconf_setenv("test", "17");
  sysconf_getenv("test");
  fw_getenv("bootargs", buffer_);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace

int main(int argc, char* argv[]) {
  testing::InitGoogleMock(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) SetUpDevice();
  return RUN_ALL_TESTS();
}
