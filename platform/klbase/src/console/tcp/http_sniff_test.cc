#include "console/tcp/http_sniff.h"

#include "gtest/gtest.h"

namespace cli::internal {
namespace {

TEST(HttpSniffTest, RequestLinesAreRecognised) {
  EXPECT_TRUE(IsHttpRequestLine("GET / HTTP/1.1"));
  EXPECT_TRUE(IsHttpRequestLine("POST /x?y=z HTTP/1.0"));
  EXPECT_TRUE(IsHttpRequestLine("OPTIONS * HTTP/1.1"));
  EXPECT_TRUE(IsHttpRequestLine("PRI * HTTP/2.0"));
}

TEST(HttpSniffTest, CommandsAreNot) {
  EXPECT_FALSE(IsHttpRequestLine("show version"));
  EXPECT_FALSE(IsHttpRequestLine("GET the picture"));
  EXPECT_FALSE(IsHttpRequestLine("help HTTP/1.1"));
  EXPECT_FALSE(IsHttpRequestLine(""));
}

}  // namespace
}  // namespace cli::internal
