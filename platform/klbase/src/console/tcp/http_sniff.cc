#include "console/tcp/http_sniff.h"

#include <algorithm>
#include <array>

namespace cli::internal {

bool BeginsLikeHttp(std::string_view bytes) {
  static constexpr std::array<std::string_view, 10> kMethods = {"GET ",    "POST ",  "HEAD ",  "OPTIONS ", "PUT ",
                                                                "DELETE ", "PATCH ", "TRACE ", "CONNECT ", "PRI "};
  return std::any_of(kMethods.begin(), kMethods.end(),
                     [bytes](std::string_view method) { return bytes.starts_with(method); });
}

bool IsHttpRequestLine(std::string_view line) {
  return BeginsLikeHttp(line) && line.find(" HTTP/") != std::string_view::npos;
}

bool SpeaksHttp(std::string_view line, bool whole) { return whole ? IsHttpRequestLine(line) : BeginsLikeHttp(line); }

}  // namespace cli::internal
