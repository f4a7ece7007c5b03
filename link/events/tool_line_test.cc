#include "link/events/tool_line.h"

#include <gmock/gmock.h>

namespace vexlink {
namespace {

using Kind = ToolLine::Kind;

TEST(ToolLineTest, AnEventIsTakenAsItStands) {
  const ToolLine line = ReadToolLine(
      R"({"event":{"seq":17,"time":"2026-03-01T14:05:09.250Z","topic":"layer/a","message":{"seq":3,"topic":"no"},"text":"*\n"}})");
  EXPECT_EQ(line.kind, Kind::kEvent);
  EXPECT_EQ(line.seq, 17u);
  EXPECT_EQ(line.topic, "layer/a");
  EXPECT_EQ(
      line.event,
      R"({"seq":17,"time":"2026-03-01T14:05:09.250Z","topic":"layer/a","message":{"seq":3,"topic":"no"},"text":"*\n"})");
}

TEST(ToolLineTest, TheOrderOfAnEventsMembersDoesNotMatter) {
  const ToolLine line =
      ReadToolLine(R"({"event":{"message":{"seq":3,"topic":"no"},"list":[{"seq":4}],"topic":"a\/b","seq":5}})");
  EXPECT_EQ(line.kind, Kind::kEvent);
  EXPECT_EQ(line.seq, 5u);
  EXPECT_EQ(line.topic, "a/b");
}

TEST(ToolLineTest, MissedEventsAreCounted) {
  const ToolLine line = ReadToolLine(R"({"missed":12})");
  EXPECT_EQ(line.kind, Kind::kMissed);
  EXPECT_EQ(line.missed, 12u);
}

TEST(ToolLineTest, ARefusedReplyHasItsReason) {
  EXPECT_EQ(ReadToolLine(R"({"id":1,"status":"ok"})").kind, Kind::kReply);
  EXPECT_EQ(ReadToolLine(R"({"id":1,"status":"ok"})").error, "");
  EXPECT_EQ(ReadToolLine(R"({"id":1,"status":"usage","reason":"what?"})").error, "what?");
  EXPECT_EQ(ReadToolLine(R"({"id":1,"status":"usage"})").error, "usage");
}

TEST(ToolLineTest, AnythingElseIsNothing) {
  for (const char* text :
       {"", "{", "[]", "{}", "{\"event\":}}", "{\"event\":{}}", "{\"event\":{\"seq\":1}}", "{\"missed\":-1}",
        "{\"event\":{\"seq\":\"1\",\"topic\":\"a\"}}", "{\"missed\":\"many\"}", "{\"status\":3}"}) {
    EXPECT_EQ(ReadToolLine(text).kind, Kind::kOther) << text;
  }
}

}  // namespace
}  // namespace vexlink
