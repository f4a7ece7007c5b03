#include "console/control/protocol/reply.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>

namespace cli::internal {
namespace {

using Json = nlohmann::json;

TEST(ReplyTest, ARunsReplyHasItsKeysInThisOrder) {
  const Outcome outcome{Status::kRefused, 6, "can't open a.mp4", {{"id", "0"}, {"result", "0"}}};
  EXPECT_EQ(RunReply("7", outcome, "two\nlines\n", false, std::chrono::microseconds(312)),
            R"({"id":7,"status":"refused","code":6,"reason":"can't open a.mp4","output":"two\nlines\n",)"
            R"("fields":{"id":"0","result":"0"},"us":312})"
            "\n");
  EXPECT_EQ(RunReply("", {}, "", true, {}),
            R"({"status":"ok","code":0,"reason":"","output":"","fields":{},"us":0,"truncated":true})"
            "\n");
}

TEST(ReplyTest, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  const std::string line =
      RunReply("\"a\"", {Status::kOk, 0, "\xff", {{"n\xff", "\xc3"}}}, "a\xff\xfe z\xe6\x97", false, {});
  const Json reply = Json::parse(line);
  EXPECT_EQ(reply["output"], "a\uFFFD\uFFFD z\uFFFD");
  EXPECT_EQ(reply["reason"], "\uFFFD");
  EXPECT_EQ(reply["fields"], Json({{"n\uFFFD", "\uFFFD"}}));
}

TEST(ReplyTest, AFieldThatWasReportedTwiceHasItsLastValue) {
  const Json reply =
      Json::parse(RunReply("", {Status::kOk, 0, "", {{"a", "1"}, {"b", "2"}, {"a", "3"}}}, "", false, {}));
  EXPECT_EQ(reply["fields"], Json({{"a", "3"}, {"b", "2"}}));
}

TEST(ReplyTest, OtherReplies) {
  EXPECT_EQ(GreetingLine(5), "{\"vextool\":\"" VEX_VERSION_TAG "\",\"protocol\":1,\"session\":5}\n");
  EXPECT_EQ(StatusReply("1", Status::kOk), "{\"id\":1,\"status\":\"ok\"}\n");
  EXPECT_EQ(StatusReply("", Status::kUsage, "no"), "{\"status\":\"usage\",\"reason\":\"no\"}\n");
  EXPECT_EQ(CompletionReply("2", {6, {"a", "b"}}),
            "{\"id\":2,\"status\":\"ok\",\"start\":6,\"candidates\":[\"a\",\"b\"]}\n");
  EXPECT_EQ(MissedLine(12), "{\"missed\":12}\n");
}

std::string LineOf(std::string message) {
  Event event;
  event.number = 17;
  event.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1772373909250));
  event.topic = "layer/a";
  event.text = "***\n";
  event.make_message = [message = std::move(message)] { return message; };
  return EventLine(event);
}

TEST(ReplyTest, AnEventHasItsMessageAsAnObject) {
  EXPECT_EQ(
      LineOf("{\"id\":1}"),
      R"({"event":{"seq":17,"time":"2026-03-01T14:05:09.250Z","topic":"layer/a","message":{"id":1},"text":"***\n"}})"
      "\n");
}

TEST(ReplyTest, AMessageOfAnyOtherFormIsStillOneLineOfJson) {
  EXPECT_EQ(Json::parse(LineOf("{\n\"id\":1\r\n}"))["event"]["message"], Json({{"id", 1}}));
  EXPECT_EQ(LineOf("{\n\"id\":1}").find('\n'), LineOf("{\n\"id\":1}").size() - 1);
  EXPECT_EQ(Json::parse(LineOf("no\xff json"))["event"]["message"], "no\uFFFD json");
  EXPECT_EQ(Json::parse(LineOf("{\"a\":\"\xff\"}"))["event"]["message"], "{\"a\":\"\uFFFD\"}");
}

}  // namespace
}  // namespace cli::internal
