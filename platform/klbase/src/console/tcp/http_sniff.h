// Recognising a browser that was lured to the console's port: it must not drive the console.
#ifndef KLBASE_CONSOLE_TCP_HTTP_SNIFF_H_
#define KLBASE_CONSOLE_TCP_HTTP_SNIFF_H_

#include <string_view>

namespace cli::internal {

// A whole request line: "GET /path HTTP/1.1".
bool IsHttpRequestLine(std::string_view line);
// The beginning of a line, of which the rest is not known: a method and a blank.
bool BeginsLikeHttp(std::string_view bytes);
// Whether a client's first line is a browser's: `line` is the whole line, or else the beginning of a longer one.
bool SpeaksHttp(std::string_view line, bool whole);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_HTTP_SNIFF_H_
