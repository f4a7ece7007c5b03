// Recognising a browser that was lured to the console's port: it must not drive the console.
#ifndef KLBASE_CONSOLE_TCP_HTTP_SNIFF_H_
#define KLBASE_CONSOLE_TCP_HTTP_SNIFF_H_

#include <string_view>

namespace cli::internal {

// Whether a client's first line is a browser's: "TOKEN TARGET HTTP/...", whatever the token, because a web page may
// choose it. A line of more than kMaxLineBytes (`whole` is false then) counts as one: the page may choose its length.
bool SpeaksHttp(std::string_view line, bool whole);

// Whether no operator and no program begins with `byte`: it is a control character that is neither a line end nor a key
// of the line editor. TLS begins with one, and so do other binary protocols.
bool IsForeignFirstByte(unsigned char byte);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_HTTP_SNIFF_H_
