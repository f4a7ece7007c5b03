// The service manager is a real datagram socket.
#include "example/service_manager.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "platform/testing/environment.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/scratch_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;
using vextest::ScratchFolder;

constexpr std::size_t kPathRoom = sizeof(sockaddr_un::sun_path);

// Listens at a path or, with a leading "@", at an abstract name.
class Manager {
 public:
  explicit Manager(const std::string& at) : file_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, at.data(), at.size());
    if (at.front() == '@') name.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + at.size());
    EXPECT_EQ(bind(file_, reinterpret_cast<const sockaddr*>(&name), size), 0) << at << ": " << std::strerror(errno);
    setenv("NOTIFY_SOCKET", at.c_str(), 1);
  }
  ~Manager() { close(file_); }

  // The next datagram, or "none" when there is none by now: a datagram that was sent is there at once.
  std::string Heard() const {
    std::array<char, 100> text;
    const ssize_t size = recv(file_, text.data(), text.size(), MSG_DONTWAIT);
    return size < 0 ? "none" : std::string(text.data(), static_cast<std::size_t>(size));
  }

 private:
  const int file_;
};

class ServiceManagerTest : public testing::Test {
 protected:
  ServiceManagerTest() { Forget(); }
  ~ServiceManagerTest() override { Forget(); }

  // Forgets the state that an earlier test reported.
  static void Forget() {
    unsetenv("NOTIFY_SOCKET");
    vextool::TellStopping();
  }

  static std::string AbstractName() { return "@" + vextest::UniqueName("vextool-notify"); }

  void ExpectOneRecord(const std::string& text) const {
    EXPECT_THAT(log_.RecordsOf("example/service_manager"),
                ElementsAre(LogRecord{40, "example/service_manager", "Tell", text}));
  }

  const ScratchFolder folder_;
  LogCapture log_;
};

TEST_F(ServiceManagerTest, HearsOfReadinessAndOfTheEndAtAPath) {
  const Manager manager(folder_ / "notify");
  vextool::TellReady();
  EXPECT_EQ(manager.Heard(), "READY=1");
  vextool::TellStopping();
  EXPECT_EQ(manager.Heard(), "STOPPING=1");
  EXPECT_THAT(log_.RecordsOf("example/service_manager"), IsEmpty());
}

TEST_F(ServiceManagerTest, HearsOfReadinessAtAnAbstractName) {
  const Manager manager(AbstractName());
  vextool::TellReady();
  EXPECT_EQ(manager.Heard(), "READY=1");
}

TEST_F(ServiceManagerTest, HearsOfTheEndOnceOnly) {
  const Manager manager(AbstractName());
  vextool::TellReady();
  vextool::TellStopping();
  vextool::TellStopping();
  EXPECT_EQ(manager.Heard(), "READY=1");
  EXPECT_EQ(manager.Heard(), "STOPPING=1");
  EXPECT_EQ(manager.Heard(), "none");
}

TEST_F(ServiceManagerTest, AnEndBeforeReadinessIsNotTold) {
  const Manager manager(AbstractName());
  vextool::TellStopping();
  EXPECT_EQ(manager.Heard(), "none");
}

TEST_F(ServiceManagerTest, AnAbstractNameMayFillTheAddress) {
  std::string name = AbstractName();
  name.resize(kPathRoom, 'n');
  const Manager manager(name);
  vextool::TellReady();
  EXPECT_EQ(manager.Heard(), "READY=1");
}

TEST_F(ServiceManagerTest, WithoutTheVariableNothingIsSaid) {
  vextool::TellReady();
  setenv("NOTIFY_SOCKET", "", 1);
  vextool::TellReady();
  EXPECT_THAT(log_.RecordsOf("example/service_manager"), IsEmpty());
}

TEST_F(ServiceManagerTest, ANameThatIsNoSocketAddressIsOneRecord) {
  const std::string too_long = "/" + std::string(kPathRoom - 1, 'n');
  for (const std::string& name : {std::string("relative/path"), std::string("/"), std::string("@"), too_long}) {
    log_.Clear();
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    vextool::TellReady();
    vextool::TellStopping();
    ExpectOneRecord("NOTIFY_SOCKET is \"" + name +
                    "\", neither a path nor \"@\" with a name; the service manager is told nothing\n");
  }
}

TEST_F(ServiceManagerTest, AManagerThatIsNotThereIsOneRecord) {
  const std::string path = folder_ / "nobody";
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  vextool::TellReady();
  vextool::TellStopping();
  ExpectOneRecord("the service manager at NOTIFY_SOCKET \"" + path +
                  "\" was not told \"READY=1\": No such file or directory\n");
}

TEST_F(ServiceManagerTest, AManagerThatReadsNothingHoldsNobodyUp) {
  const std::string name = AbstractName();
  const Manager manager(name);
  constexpr int kMoreThanItsQueueHolds = 100'000;
  int told = 0;
  while (log_.RecordsOf("example/service_manager").empty() && told < kMoreThanItsQueueHolds) {
    vextool::TellReady();
    ++told;
  }
  ExpectOneRecord("the service manager at NOTIFY_SOCKET \"" + name +
                  "\" was not told \"READY=1\": Resource temporarily unavailable\n");
}

}  // namespace
