#include "link/runs/run_request.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>

namespace vexlink {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;
using testing::HasSubstr;

std::string ErrorOf(std::string_view payload) { return ReadRunRequest(payload).error; }

TEST(RunRequestTest, TextIsALine) {
  for (const char* payload : {"core show version", "core show version\n", "core show version\r\n"}) {
    const RunRequest request = ReadRunRequest(payload);
    EXPECT_EQ(request.error, "");
    EXPECT_EQ(request.line, "core show version");
    EXPECT_EQ(request.id, "");
    EXPECT_EQ(request.within, milliseconds(30'000));
  }
}

TEST(RunRequestTest, AnObjectHasALineAnIdAndALimit) {
  const RunRequest request = ReadRunRequest(R"({"id":"a\"b","run":"who","within_ms":500})");
  EXPECT_EQ(request.error, "");
  EXPECT_EQ(request.line, "who");
  EXPECT_EQ(request.id, R"("a\"b")");
  EXPECT_EQ(request.within, milliseconds(500));
}

TEST(RunRequestTest, WhatIsNoRequestIsExplained) {
  EXPECT_THAT(ErrorOf(""), HasSubstr("empty"));
  EXPECT_THAT(ErrorOf(" \n"), HasSubstr("empty"));
  EXPECT_THAT(ErrorOf("{"), HasSubstr("not JSON"));
  EXPECT_THAT(ErrorOf("{}"), HasSubstr("has no \"run\""));
  EXPECT_THAT(ErrorOf(R"({"run":1})"), HasSubstr("\"run\" is a text"));
  EXPECT_THAT(ErrorOf(R"({"run":"a","monitor":[]})"), HasSubstr("unknown key \"monitor\""));
  EXPECT_THAT(ErrorOf(R"({"run":"a","id":{}})"), HasSubstr("\"id\" is"));
  for (const char* within : {"0", "-1", "600001", "\"1\"", "null"}) {
    EXPECT_THAT(ErrorOf(R"({"run":"a","within_ms":)" + std::string(within) + "}"), HasSubstr("from 1 to 600000"))
        << within;
  }
  EXPECT_THAT(ErrorOf("a\xff"), HasSubstr("UTF-8"));
  EXPECT_THAT(ErrorOf(std::string(65537, 'a')), HasSubstr("65536 bytes"));
}

TEST(RunRequestTest, OneRequestIsOneLine) {
  EXPECT_THAT(ErrorOf("who\nshutdown"), HasSubstr("one line"));
  EXPECT_THAT(ErrorOf("who\rshutdown"), HasSubstr("one line"));
  EXPECT_THAT(ErrorOf(std::string_view("a\0b", 3)), HasSubstr("one line"));
  EXPECT_THAT(ErrorOf(R"({"run":"who\nshutdown"})"), HasSubstr("one line"));
}

TEST(RunRequestTest, ARefusedRequestStillHasItsId) {
  EXPECT_EQ(ReadRunRequest(R"({"what":1,"id":7,"run":"a"})").id, "7");
}

TEST(ToolRequestTest, TellsTheToolLineIdAndTimeLeft) {
  EXPECT_EQ(ToolRequest(ReadRunRequest("say \"hi\""), milliseconds(5)),
            "{\"run\":\"say \\\"hi\\\"\",\"within_ms\":5}\n");
  EXPECT_EQ(ToolRequest(ReadRunRequest(R"({"run":"a","id":7})"), milliseconds(-5)),
            "{\"id\":7,\"run\":\"a\",\"within_ms\":1}\n");
}

TEST(RunReplyTest, OfOurOwnHasTheToolsForm) {
  EXPECT_EQ(MadeReply("", "failed", "a \"b\""), R"({"status":"failed","reason":"a \"b\""})");
  EXPECT_EQ(MadeReply("\"x\"", "ok", ""), R"({"id":"x","status":"ok","reason":""})");
}

TEST(RunReplyTest, ANodesNameStandsInFront) { EXPECT_EQ(WithNode(R"({"id":1})", "n1"), R"({"node":"n1","id":1})"); }

TEST(RunReplyTest, WhatFitsStaysAsItIs) { EXPECT_EQ(CutToFit(R"({ "id":1 })", 10), R"({ "id":1 })"); }

TEST(RunReplyTest, OutputIsCutBetweenTwoCharacters) {
  std::string output;
  for (int i = 0; i < 300; ++i) output += "\n\"ä€";
  const std::string reply = Json{{"id", 1}, {"status", "ok"}, {"output", output}, {"us", 5}}.dump();
  for (std::size_t most = 100; most < 140; ++most) {
    const std::string cut = CutToFit(reply, most);
    EXPECT_LE(cut.size(), most);
    EXPECT_GE(cut.size(), most - 6);
    const Json json = Json::parse(cut);
    EXPECT_EQ(json["us"], 5);
    EXPECT_EQ(json["truncated"], true);
    const std::string left = json["output"];
    EXPECT_EQ(left, output.substr(0, left.size()));
  }
}

TEST(RunReplyTest, WhatCannotBeCutFails) {
  const std::string fields = Json{{"id", 1}, {"output", "x"}, {"fields", {{"a", std::string(200, 'a')}}}}.dump();
  EXPECT_THAT(CutToFit(fields, 150), HasSubstr(R"("id":1,"status":"failed")"));
  EXPECT_THAT(CutToFit(std::string(200, 'x'), 150), HasSubstr(R"("status":"failed")"));
}

}  // namespace
}  // namespace vexlink
