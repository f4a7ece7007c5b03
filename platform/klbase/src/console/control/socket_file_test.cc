#include "console/control/socket_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/klbase/testing/control_client.h"
#include "platform/testing/child_process.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

using testing::HasSubstr;
using vextest::ForkedChild;
using vextest::ScratchFolder;

std::string RefusalOf(const std::string& path) {
  try {
    const SocketFile file(path);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "not refused";
}

// A socket whose process is gone, or one that somebody listens on who knows nothing of the lock.
int BindAt(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

class SocketFileTest : public testing::Test {
 protected:
  const ScratchFolder folder_;
  const std::string path_ = folder_ / "console.sock";
};

TEST_F(SocketFileTest, ItCanBeConnectedToAndIsOpenToItsGroup) {
  const mode_t before = ::umask(0077);
  const SocketFile file(path_);
  ::umask(before);
  EXPECT_EQ(ControlClient(path_).Error(), 0);
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660U);
}

TEST_F(SocketFileTest, NothingIsLeftBehind) {
  { const SocketFile file(path_); }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.Path()));
}

TEST_F(SocketFileTest, AStaleFileIsReplaced) {
  ::close(BindAt(path_));
  const SocketFile file(path_);
  EXPECT_EQ(ControlClient(path_).Error(), 0);
}

TEST_F(SocketFileTest, WhatAKilledProcessLeavesIsReplaced) {
  vextest::Child* child = nullptr;
  ForkedChild holder([this] {
    const SocketFile file(path_);
    ::pause();
  });
  child = &holder;
  ASSERT_TRUE(vextest::WaitFor([this] { return ControlClient(path_).Error() == 0; }));
  EXPECT_THAT(RefusalOf(path_), HasSubstr("another process serves it"));
  child->Signal(SIGKILL);
  ASSERT_TRUE(child->WaitExit());
  EXPECT_TRUE(std::filesystem::exists(path_));
  const SocketFile file(path_);
  EXPECT_EQ(ControlClient(path_).Error(), 0);
}

TEST_F(SocketFileTest, ALiveOneIsNotReplaced) {
  const SocketFile file(path_);
  EXPECT_EQ(RefusalOf(path_), "console control socket " + path_ +
                                  ": another process serves it; end that one, or name another one in "
                                  "KLBASE_CONSOLE_SOCKET");
  EXPECT_EQ(ControlClient(path_).Error(), 0);
}

// As one is between its look at a stale file and the moment when it listens itself.
TEST_F(SocketFileTest, WhileAnotherProcessHasTheLockNothingIsReplaced) {
  ::close(BindAt(path_));
  const int lock = ::open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX | LOCK_NB), 0);
  EXPECT_THAT(RefusalOf(path_), HasSubstr("another process serves it"));
  EXPECT_TRUE(std::filesystem::exists(path_));
  ::close(lock);
  const SocketFile file(path_);
  EXPECT_EQ(ControlClient(path_).Error(), 0);
}

TEST_F(SocketFileTest, ALiveOneOfAStrangerIsNotReplaced) {
  const int fd = BindAt(path_);
  ASSERT_EQ(::listen(fd, 1), 0);
  EXPECT_THAT(RefusalOf(path_), HasSubstr("another process serves it"));
  EXPECT_EQ(ControlClient(path_).Error(), 0);
  ::close(fd);
}

TEST_F(SocketFileTest, AFileOfAnotherKindIsLeftAlone) {
  vextest::WriteFile(path_, "precious");
  EXPECT_THAT(RefusalOf(path_), HasSubstr("something else has this name; remove it"));
  EXPECT_EQ(vextest::ReadFile(path_), "precious");
  EXPECT_FALSE(std::filesystem::exists(path_ + ".lock"));
}

TEST_F(SocketFileTest, ALinkInItsPlaceIsLeftAlone) {
  std::filesystem::create_symlink(folder_ / "elsewhere", path_);
  EXPECT_THAT(RefusalOf(path_), HasSubstr("something else has this name"));
}

TEST_F(SocketFileTest, AMissingFolderIsExplained) {
  EXPECT_THAT(RefusalOf(folder_ / "no/console.sock"), HasSubstr("No such file or directory); make the folder"));
}

TEST_F(SocketFileTest, ALongNameIsExplained) {
  EXPECT_THAT(RefusalOf(folder_ / std::string(200, 'x')), HasSubstr("longer than 107 bytes"));
}

TEST_F(SocketFileTest, AnotherOnesFileIsNotRemoved) {
  auto file = std::make_unique<SocketFile>(path_);
  ::unlink(path_.c_str());
  const int other = BindAt(path_);
  file.reset();
  EXPECT_TRUE(std::filesystem::exists(path_));
  ::close(other);
}

// Each round all start at once; without the lock two would bind now and then, and one's file be gone.
TEST_F(SocketFileTest, OfManyThatStartAtOnceExactlyOneServes) {
  constexpr int kRounds = 50;
  constexpr int kStarters = 4;
  for (int round = 0; round < kRounds; ++round) {
    if (round % 2 == 0) ::close(BindAt(path_));  // the stale file is what they compete for
    std::vector<std::unique_ptr<SocketFile>> files(kStarters);
    std::vector<std::thread> starters;
    starters.reserve(kStarters);
    for (auto& file : files) {
      starters.emplace_back([this, &file] {
        try {
          file = std::make_unique<SocketFile>(path_);
        } catch (const std::runtime_error&) {
        }
      });
    }
    for (auto& starter : starters) starter.join();
    int served = 0;
    for (const auto& file : files) served += file != nullptr ? 1 : 0;
    EXPECT_EQ(served, 1) << "round " << round;
    EXPECT_EQ(ControlClient(path_).Error(), 0) << "round " << round;
    files.clear();
    EXPECT_TRUE(std::filesystem::is_empty(folder_.Path())) << "round " << round;
  }
}

}  // namespace
}  // namespace cli::internal
