#include "platform/testing/network/private_network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vextest {
namespace {

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

void WriteFile(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) Fail(path);
  close(file);
}

bool Unshare() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0) return unshare(CLONE_NEWNET) == 0;
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  // Keep the own user id: servers let only their own user in.
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1");
  WriteFile("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1");
  return true;
}

void StartLoopback() {
  const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (control < 0 || ioctl(control, SIOCSIFFLAGS, &request) != 0) Fail("loopback interface");
  close(control);
}

// Never closed: the lock ends with the process. Shared with the whole-process tests. A test of a death runs the program
// again, as a child that has its parent's turn.
void TakeTurn() {
  constexpr char kHasTurn[] = "VEXTEST_HAS_TURN";
  if (getenv(kHasTurn) != nullptr) return;
  const std::string path = "/tmp/vextool-test-" + std::to_string(getuid()) + ".lock";
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || flock(file, LOCK_EX) != 0) Fail(path.c_str());
  setenv(kHasTurn, "1", 1);
}

}  // namespace

bool EnterPrivateNetwork() {
  if (!Unshare()) {
    TakeTurn();
    return false;
  }
  StartLoopback();
  return true;
}

}  // namespace vextest
