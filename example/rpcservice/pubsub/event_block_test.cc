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

TEST(EventBlockTest, ABlockIsOneWrite) {
  CapturedOutput output;
  PrintEventBlock({{" a:", "1"}, {" b:", ""}});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks + " a:1\n b:\n"));
}

std::string BlockOf(const std::string& name) {
  std::string block = kAsterisks;
  for (const char* field : {" x:", " y:"}) block.append(field).append(name).append("\n");
  return block;
}

TEST(EventBlockTest, BlocksOfSeveralThreadsStayWhole) {
  constexpr std::size_t kBlocks = 200;
  const std::vector<std::string> names = {"one", "two", "three", "four"};
  CapturedOutput output;
  std::vector<std::thread> threads;
  threads.reserve(names.size());
  for (const std::string& name : names) {
    threads.emplace_back([&name] {
      for (std::size_t i = 0; i < kBlocks; ++i) PrintEventBlock({{" x:", name}, {" y:", name}});
    });
  }
  std::size_t bytes = 0;
  for (const std::string& name : names) bytes += kBlocks * BlockOf(name).size();
  EXPECT_TRUE(output.WaitForBytes(bytes));
  for (auto& thread : threads) thread.join();
  std::string text = output.Text();
  ASSERT_EQ(text.size(), bytes);
  for (const std::string& name : names) {
    const std::string block = BlockOf(name);
    std::size_t whole = 0;
    for (auto at = text.find(block); at != std::string::npos; at = text.find(block, at)) {
      text.erase(at, block.size());
      ++whole;
    }
    EXPECT_EQ(whole, kBlocks) << name;
  }
  EXPECT_EQ(text, "");
}

TEST(EventBlockTest, PrintsAgainAfterAWriteThatFailed) {
  CapturedOutput output;
  std::cout.setstate(std::ios::badbit);
  PrintEventBlock({{" a:", "1"}});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks + " a:1\n"));
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
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks + " layerId            :7\n"
                                                        " seek_ms            :4294967295\n"
                                                        " duration_ms        :60000\n"
                                                        " result.id          :8\n"
                                                        " result.result      :1\n"
                                                        " result.error_code  :-1\n"
                                                        " result.error_infor :text \"with\" %s\tblanks\n"));
}

TEST(GetSeekRespTest, EventWithoutResultPrintsDefaults) {
  CapturedOutput output;
  PrintGetSeekResp({});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks + " layerId            :\n"
                                                        " seek_ms            :0\n"
                                                        " duration_ms        :0\n"
                                                        " result.id          :\n"
                                                        " result.result      :0\n"
                                                        " result.error_code  :0\n"
                                                        " result.error_infor :\n"));
}

TEST(ResultReportTest, PrintsEveryFieldOnALineOfItsOwn) {
  lp::v1::ResultRepor event;
  event.set_unique_id("7");
  event.set_url("/a b.mp4");
  event.set_play_state(4294967295);
  CapturedOutput output;
  PrintResultRepor(event);
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks + " layerId            :7\n"
                                                        " url                :/a b.mp4\n"
                                                        " play_state         :4294967295\n"));
}

TEST(ResultReportTest, EmptyIdPrintsNothingAfterTheColon) {
  CapturedOutput output;
  PrintResultRepor({});
  EXPECT_THAT(output.Writes(), ElementsAre(kAsterisks + " layerId            :\n"
                                                        " url                :\n"
                                                        " play_state         :0\n"));
}

}  // namespace
