#include "example/rpcservice/pubsub/event_block.h"

#include <gmock/gmock.h>

#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "example/rpcservice/pubsub/get_seek_resp.h"
#include "example/rpcservice/pubsub/result_report.h"
#include "platform/testing/captured_output.h"

namespace {

using testing::ElementsAre;
using vextest::CapturedOutput;

const std::string kAsterisks = std::string(39, '*') + "\n";

TEST(EventBlockTest, EachLineIsOneWrite) {
  CapturedOutput output;
  PrintEventBlock({{" a:", "1"}, {" b:", ""}});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks, " a:1\n", " b:\n"));
}

TEST(EventBlockTest, BlocksOfSeveralThreadsStayWhole) {
  constexpr std::size_t kBlocks = 200;
  CapturedOutput output;
  std::vector<std::thread> threads;
  for (const std::string name : {"one", "two", "three", "four"}) {
    threads.emplace_back([name] {
      for (std::size_t i = 0; i < kBlocks; ++i) PrintEventBlock({{" x:", name}, {" y:", name}});
    });
  }
  EXPECT_TRUE(output.WaitForWrites(4 * kBlocks * 3));
  for (auto& thread : threads) thread.join();
  const auto writes = output.Writes();
  ASSERT_EQ(writes.size(), 4 * kBlocks * 3);
  for (std::size_t line = 0; line < writes.size(); line += 3) {
    ASSERT_EQ(writes[line], kAsterisks);
    ASSERT_EQ(writes[line + 1].substr(3), writes[line + 2].substr(3));
  }
}

TEST(EventBlockTest, PrintsAgainAfterAWriteThatFailed) {
  CapturedOutput output;
  std::cout.setstate(std::ios::badbit);
  PrintEventBlock({{" a:", "1"}});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks, " a:1\n"));
}

TEST(GetSeekRespTest, PrintsEveryFieldOnALineOfItsOwn) {
  lp::v1::GetSeekOfUplayerResp event;
  event.set_unique_id("7");
  event.set_seek_ms(4294967295);
  event.set_duration_ms(60000);
  event.mutable_result()->set_unique_id("8");
  event.mutable_result()->set_result(true);
  event.mutable_result()->set_error_code(-1);
  event.mutable_result()->set_error_infor("text \"with\" %s\tblanks");
  CapturedOutput output;
  PrintGetSeekResp(event);
  EXPECT_THAT(output.Writes(),
              ElementsAre(kAsterisks, " layerId            :7\n", " seek_ms            :4294967295\n",
                          " duration_ms        :60000\n", " result.id          :8\n", " result.result      :1\n",
                          " result.error_code  :-1\n", " result.error_infor :text \"with\" %s\tblanks\n"));
}

TEST(GetSeekRespTest, EventWithoutResultPrintsDefaults) {
  CapturedOutput output;
  PrintGetSeekResp({});
  EXPECT_THAT(output.Writes(),
              ElementsAre(kAsterisks, " layerId            :\n", " seek_ms            :0\n", " duration_ms        :0\n",
                          " result.id          :\n", " result.result      :0\n", " result.error_code  :0\n",
                          " result.error_infor :\n"));
}

TEST(ResultReportTest, PrintsEveryFieldOnALineOfItsOwn) {
  lp::v1::ResultRepor event;
  event.set_unique_id("7");
  event.set_url("/a b.mp4");
  event.set_play_state(4294967295);
  CapturedOutput output;
  PrintResultRepor(event);
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks, " layerId            :7\n", " url                :/a b.mp4\n",
                                           " play_state         :4294967295\n"));
}

TEST(ResultReportTest, EmptyIdPrintsNothingAfterTheColon) {
  CapturedOutput output;
  PrintResultRepor({});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks, " layerId            :\n", " url                :\n",
                                           " play_state         :0\n"));
}

}  // namespace
