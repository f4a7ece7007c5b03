#include "console/tcp/http_sniff.h"

#include <string>

#include "gtest/gtest.h"

namespace cli::internal {
namespace {

TEST(HttpSniffTest, ARequestLineIsKnownByItsShapeWhateverTheMethod) {
  for (const char* line :
       {"GET / HTTP/1.1", "POST /x?y=z HTTP/1.0", "OPTIONS * HTTP/1.1", "PRI * HTTP/2.0", "PROPFIND / HTTP/1.1",
        "FOO / HTTP/1.1", "get / http/1.1", "QUERY /a b c HTTP/1.1", " GET \t/  HTTP/1.1 "}) {
    EXPECT_TRUE(SpeaksHttp(line, true)) << line;
  }
}

TEST(HttpSniffTest, CommandsAreNot) {
  for (const char* line : {"show version", "GET the picture", "help HTTP/1.1", "HTTP/1.1", "open 0 xHTTP/1", ""}) {
    EXPECT_FALSE(SpeaksHttp(line, true)) << line;
  }
}

TEST(HttpSniffTest, ALineOfAnyLengthMayBeARequest) { EXPECT_TRUE(SpeaksHttp("", false)); }

TEST(HttpSniffTest, OnlyControlCharactersThatNobodyTypesAreForeign) {
  std::string foreign;
  for (int byte = 0; byte < 256; ++byte) {
    if (IsForeignFirstByte(static_cast<unsigned char>(byte))) foreign += static_cast<char>(byte);
  }
  EXPECT_EQ(foreign, std::string("\x00\x0f\x11\x16\x18\x1a\x1c\x1d\x1e", 9));
}

}  // namespace
}  // namespace cli::internal
