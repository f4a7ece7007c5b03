#include "transport/unix_address.h"

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace klrpc {
namespace {

constexpr std::string_view kAbstract = "unix-abstract:";
constexpr std::string_view kPathUrl = "unix://";
constexpr std::string_view kPath = "unix:";

bool StartsWith(std::string_view text, std::string_view start) { return text.substr(0, start.size()) == start; }

}  // namespace

bool IsUnixAddress(const std::string& address) { return StartsWith(address, kAbstract) || StartsWith(address, kPath); }

UnixName ToUnixName(const std::string& address) {
  const bool abstract = StartsWith(address, kAbstract);
  const std::size_t prefix = abstract                        ? kAbstract.size()
                             : StartsWith(address, kPathUrl) ? kPathUrl.size()
                                                             : kPath.size();
  const std::string_view text = std::string_view(address).substr(prefix);
  if (text.empty()) throw std::invalid_argument("it names no socket");
  UnixName result;
  // An abstract name begins with a zero byte, a path ends with one.
  const std::size_t limit = sizeof(result.name.sun_path) - 1;
  if (text.size() > limit) {
    throw std::invalid_argument("the name is longer than " + std::to_string(limit) + " bytes");
  }
  result.name.sun_family = AF_UNIX;
  std::memcpy(result.name.sun_path + (abstract ? 1 : 0), text.data(), text.size());
  result.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + 1);
  return result;
}

std::string ErrorText(int error) { return std::system_category().message(error); }

}  // namespace klrpc
