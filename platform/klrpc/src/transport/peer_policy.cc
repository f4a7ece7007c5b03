#include "transport/peer_policy.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "klbase/log.h"

namespace klrpc {
namespace {

std::vector<uid_t> ListedUids() {
  std::vector<uid_t> uids;
  const char* text = std::getenv("KLRPC_ALLOW_UID");
  while (text != nullptr && *text != '\0') {
    char* end = nullptr;
    errno = 0;
    const unsigned long uid = std::strtoul(text, &end, 10);
    const std::string_view entry(text, std::strcspn(text, ","));
    if (*text >= '0' && *text <= '9' && end == text + entry.size() && errno == 0 && uid < 0xffffffffUL) {
      uids.push_back(static_cast<uid_t>(uid));
    } else {
      KL_LOG(40, "KLRPC_ALLOW_UID: \"%s\" is not a user id; write numbers separated by commas",
             std::string(entry).c_str());
    }
    text += entry.size();
    if (*text == ',') ++text;
  }
  return uids;
}

}  // namespace

std::optional<ucred> PeerOf(int fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return peer;
}

PeerPolicy::PeerPolicy() : listed_(ListedUids()) {}

bool PeerPolicy::Allows(uid_t uid) const {
  return uid == 0 || uid == geteuid() || std::find(listed_.begin(), listed_.end(), uid) != listed_.end();
}

}  // namespace klrpc
