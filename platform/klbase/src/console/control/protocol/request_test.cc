#include "console/control/protocol/request.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

namespace cli::internal {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Lines = std::vector<std::pair<std::string, bool>>;

Request Parsed(std::string_view line) {
  const ParsedRequest parsed = ParseRequest(line);
  EXPECT_TRUE(parsed.request) << line << ": " << parsed.error;
  return parsed.request.value_or(Request());
}

std::string ErrorOf(std::string_view line) {
  const ParsedRequest parsed = ParseRequest(line);
  EXPECT_FALSE(parsed.request) << line;
  return parsed.error;
}

TEST(RequestTest, ARunHasItsLineAndItsTime) {
  const Request request = Parsed(R"({"id":1,"run":"playd GetSeekOfUplayer 0","within_ms":5000})");
  EXPECT_EQ(request.kind, Request::Kind::kRun);
  EXPECT_EQ(request.id, "1");
  EXPECT_EQ(request.text, "playd GetSeekOfUplayer 0");
  EXPECT_EQ(request.within, std::chrono::milliseconds(5000));
}

TEST(RequestTest, IdsComeBackAsTheyCame) {
  EXPECT_EQ(Parsed(R"({"run":"x","id":18446744073709551615})").id, "18446744073709551615");
  EXPECT_EQ(Parsed(R"({"run":"x","id":-9223372036854775808})").id, "-9223372036854775808");
  EXPECT_EQ(Parsed(R"({"run":"x","id":"1"})").id, "\"1\"");
  EXPECT_EQ(Parsed(R"({"run":"x","id":"a\"\nü"})").id, "\"a\\\"\\nü\"");
  EXPECT_EQ(Parsed(R"({"run":"x"})").id, "");
}

TEST(RequestTest, TheOtherKinds) {
  EXPECT_THAT(Parsed(R"({"monitor":["layer/*","a>=1"]})").words, ElementsAre("layer/*", "a>=1"));
  EXPECT_EQ(Parsed(R"({"monitor":[]})").kind, Request::Kind::kMonitor);
  EXPECT_EQ(Parsed(R"({"cancel":"1"})").text, "\"1\"");
  EXPECT_EQ(Parsed(R"({"complete":""})").kind, Request::Kind::kComplete);
  EXPECT_EQ(Parsed(R"({"reset":true})").kind, Request::Kind::kReset);
  const Request terminal = Parsed(R"({"terminal":{"columns":80,"rows":24,"term":"xterm"}})");
  EXPECT_EQ(terminal.columns, 80);
  EXPECT_EQ(terminal.rows, 24);
  EXPECT_EQ(terminal.term, "xterm");
}

TEST(RequestTest, WhatIsNotJsonIsExplained) {
  EXPECT_THAT(ErrorOf("help"), HasSubstr("this is not JSON (byte 1)"));
  EXPECT_THAT(ErrorOf(R"({"run":"x"}})"), HasSubstr("this is not JSON (byte 12)"));
  EXPECT_THAT(ErrorOf("{\"run\":\"\xff\"}"), HasSubstr("this is not JSON"));
  EXPECT_THAT(ErrorOf(R"({"id":1e999,"run":"x"})"), HasSubstr("too large"));
  EXPECT_THAT(ErrorOf("[1]"), HasSubstr("not an object"));
  EXPECT_THAT(ErrorOf(std::string_view("\0", 1)), HasSubstr("this is not JSON"));
}

TEST(RequestTest, DeepJsonCostsNothing) {
  const std::string deep(kMaxRequestBytes / 2, '[');
  EXPECT_THAT(ErrorOf(deep + std::string(deep.size(), ']')), HasSubstr("not an object"));
  EXPECT_THAT(ErrorOf(deep), HasSubstr("not JSON"));
  std::string objects;
  for (int i = 0; i < 8000; ++i) objects += "{\"id\":";
  EXPECT_THAT(ErrorOf(objects + "1" + std::string(8000, '}')), HasSubstr("id must be"));
}

TEST(RequestTest, WhatMakesNoSenseIsExplained) {
  EXPECT_EQ(ErrorOf("{}"), "send one of run, complete, monitor, cancel, reset and terminal at a time");
  EXPECT_EQ(ErrorOf(R"({"run":"x","cancel":1})"),
            "send one of run, complete, monitor, cancel, reset and terminal at a time");
  EXPECT_EQ(ErrorOf(R"({"run":"x","Within":1})"),
            "unknown key \"Within\"; there are id, run, within_ms, complete, monitor, cancel, reset and terminal");
  EXPECT_EQ(ErrorOf(R"({"run":"x","run":"y"})"), "the key \"run\" stands there twice");
  EXPECT_EQ(ErrorOf(R"({"run":1})"), "run must be a text: one line of the console");
  EXPECT_EQ(ErrorOf(R"({"run":"a\nb"})"), "run has a control character; it must be one line, without its end");
  EXPECT_EQ(ErrorOf(R"({"run":"a\u0000b"})"), "run has a control character; it must be one line, without its end");
  EXPECT_EQ(ErrorOf("{\"run\":\"" + std::string(4097, 'x') + "\"}"), "run is longer than 4096 bytes");
  EXPECT_EQ(ErrorOf(R"({"id":1.5,"run":"x"})"), "id must be a whole number or a text");
  EXPECT_EQ(ErrorOf(R"({"id":null,"run":"x"})"), "id must be a whole number or a text");
  EXPECT_EQ(ErrorOf(R"({"cancel":[1]})"), "cancel must be a whole number or a text");
  EXPECT_EQ(ErrorOf(R"({"monitor":["a",1]})"),
            "monitor must be a list of texts: topics and conditions, or none for all events");
  EXPECT_EQ(ErrorOf(R"({"monitor":[],"within_ms":1})"), "within_ms goes with run");
  EXPECT_EQ(ErrorOf(R"({"complete":"","within_ms":1})"), "within_ms goes with run");
  EXPECT_EQ(ErrorOf(R"({"reset":false})"), "reset must be true");
  for (const char* time : {"0", "-1", "1.5", "\"1\"", "86400001", "18446744073709551615"}) {
    EXPECT_THAT(ErrorOf(std::string(R"({"run":"x","within_ms":)") + time + "}"), HasSubstr("within_ms must be"))
        << time;
  }
  for (const char* terminal :
       {"{}", "{\"columns\":80}", "{\"columns\":0,\"rows\":1}", "{\"columns\":80,\"rows\":10001}",
        "{\"columns\":80,\"rows\":24,\"term\":1}", "{\"colour\":1}", "1"}) {
    EXPECT_THAT(ErrorOf(std::string(R"({"terminal":)") + terminal + "}"), HasSubstr("terminal")) << terminal;
  }
}

TEST(RequestTest, ARefusedRequestKeepsItsId) {
  EXPECT_EQ(ParseRequest(R"({"zzz":1,"id":"a"})").id, "\"a\"");
  EXPECT_EQ(ParseRequest(R"({"run":7,"id":7})").id, "7");
}

Lines Split(std::string_view bytes, std::size_t step) {
  RequestLines lines;
  Lines taken;
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    lines.Feed(bytes.substr(at, step),
               [&taken](std::string_view line, bool whole) { taken.emplace_back(line, whole); });
  }
  return taken;
}

TEST(RequestLinesTest, LinesAreTheSameWhereverTheyAreCut) {
  const std::string bytes = "one\n\n  \r\ntwo\r\n" + std::string(kMaxRequestBytes, 'x') + "\n" +
                            std::string(kMaxRequestBytes + 1, 'y') + "\nlast\nhalf";
  const Lines whole = Split(bytes, bytes.size());
  EXPECT_THAT(whole, ElementsAre(std::pair("one", true), std::pair("two\r", true),
                                 std::pair(std::string(kMaxRequestBytes, 'x'), true), std::pair("", false),
                                 std::pair("last", true)));
  for (const std::size_t step : {1, 2, 3, 7, 4096, 65536}) EXPECT_EQ(Split(bytes, step), whole) << step;
}

TEST(RequestLinesTest, TheRestGoesToWhoTakesOver) {
  RequestLines lines;
  Lines taken;
  std::string rest;
  lines.Feed("first\nraw\nbytes", [&](std::string_view line, bool whole) {
    taken.emplace_back(line, whole);
    rest = lines.TakeRest();
  });
  EXPECT_THAT(taken, ElementsAre(std::pair("first", true)));
  EXPECT_EQ(rest, "raw\nbytes");
}

}  // namespace
}  // namespace cli::internal
