// Runs in a network of its own: the player is reached at its fixed address.
#include "example/apisdk/playd/playd_cil.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "apisdk/apisdk.h"
#include "cli/outcome.h"
#include "core/rpc_url.h"
#include "example/apisdk/playd/player_words.h"
#include "klbase/cancellation.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"
#include "player/v1/player.pb.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vextest::FakeDaemon;
using vextest::LogCapture;
using vextest::LogRecord;

LogRecord MenuRecord(int level, const std::string& function, const std::string& text) {
  return {level, "example/apisdk/playd/playd_cil", function, text};
}

// A line as the console splits it; no quotes.
std::vector<std::string> Split(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

class PlaydCliTest : public testing::Test {
 protected:
  PlaydCliTest() : plugin_(&root_), menu_(std::dynamic_pointer_cast<cli::Menu>(root_.Commands().at(0))) {
    if (apis::ApiSdk::instance_.HasApiModule(apis::ApiSdk::kPlayd)) return;
    apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kPlayd, apis::ApiSdk::kEncd});
  }

  // Types a line into the menu; returns what was printed.
  std::string Type(const std::string& line) {
    vextest::FakeSession session(*menu_);
    EXPECT_TRUE(session.Run(Split(line))) << line;
    return session.TakeText();
  }
  bool Matches(const std::string& line) {
    vextest::FakeSession session(*menu_);
    const bool taken = session.Run(Split(line));
    EXPECT_EQ(session.TakeText().empty(), !taken);
    return taken;
  }

  // The one request that the daemon got, which must be of this type.
  template <typename Request>
  Request TheRequest() {
    EXPECT_THAT(daemon_.Requests(), SizeIs(1));
    const auto requests = daemon_.RequestsOf<Request>();
    EXPECT_THAT(requests, SizeIs(1));
    return requests.empty() ? Request() : requests.front();
  }

  // Has the daemon confirm requests of this type as "reply", and expects that `line` shows it.
  template <typename Request>
  Request ExpectBlock(const std::string& line) {
    lp::v1::UniversalResp reply;
    reply.set_unique_id("reply");
    reply.set_result(true);
    daemon_.Answer<Request>(reply);
    EXPECT_EQ(Type(line), Block(Split(line).front(), "reply", "1"));
    return TheRequest<Request>();
  }
  static std::string Block(const std::string& command, const std::string& id, const std::string& result) {
    return "**************" + command + "**********\nid         :" + id + "\nresult     :" + result +
           "\nerror_code :0\nerror_infor:\n";
  }

  FakeDaemon daemon_{core::RpcUnixSocketUrl::rpc_url_playd_};
  cli::Menu root_{"main"};
  PlaydCli plugin_;
  const std::shared_ptr<cli::Menu> menu_;
};

TEST_F(PlaydCliTest, TabOffersThePlayersThatWereCreatedHere) {
  const auto offered = [] { return PlayerWords().at("id").candidates("tab-"); };
  lp::v1::UniversalResp reply;
  reply.set_result(true);
  daemon_.Answer<lp::v1::CreateUplayerReq>(reply);
  daemon_.Answer<lp::v1::DeleteUplayerReq>(reply);
  Type("CreateUplayer tab-1");
  Type("CreateUplayer tab-2");
  ASSERT_THAT(offered(), SizeIs(2));
  EXPECT_EQ(offered()[0].word, "tab-1");
  Type("DeleteUplayer tab-1");
  reply.set_result(false);
  daemon_.Answer<lp::v1::CreateUplayerReq>(reply);
  daemon_.Answer<lp::v1::DeleteUplayerReq>(reply);
  Type("CreateUplayer tab-3");
  Type("DeleteUplayer tab-2");
  ASSERT_THAT(offered(), SizeIs(1)) << "refused";
  EXPECT_EQ(offered()[0].word, "tab-2");
  ForgetPlayer("tab-2");
}

TEST_F(PlaydCliTest, TabKnowsTheParametersOfItsCommands) {
  std::set<std::string> names;
  for (const auto& command : menu_->Commands()) {
    EXPECT_NE(dynamic_cast<const cli::ParameterCompleter*>(command.get()), nullptr) << command->Name();
    for (const std::string& name : command->ParameterNames()) names.insert(name);
  }
  for (const auto& [name, help] : PlayerWords()) EXPECT_TRUE(names.contains(name)) << name;
}

TEST_F(PlaydCliTest, RegistersItselfAsPlayd) {
  EXPECT_THAT(cli::Registration::Names(), testing::Contains("playd"));
  EXPECT_EQ(plugin_.PluginName(), "playd");
}

TEST_F(PlaydCliTest, MakingTheMenuIsLogged) {
  const LogCapture log(10);
  cli::Menu root("main");
  const PlaydCli plugin(&root);
  EXPECT_THAT(log.Records(), ElementsAre(MenuRecord(30, "PlaydCli", "install rpc cli\n")));
  EXPECT_THAT(root.Commands(), SizeIs(1));
}

TEST_F(PlaydCliTest, HelpListsTheFifteenCommands) {
  EXPECT_EQ(menu_->Name(), "playd");
  EXPECT_EQ(menu_->Description(), "(menu)");
  std::ostringstream help;
  for (const auto& command : menu_->Commands()) command->Help(help);
  EXPECT_EQ(help.str(),
            " - LiveSystemInit <id>\n\tLiveSystemInit xxx \n"
            " - LiveSystemUnInit <id>\n\tLiveSystemUnInit xxx \n"
            " - SetIntputTiming <id> <type>\n\tSetIntputTiming xxx 0 \n"
            " - SetOutputTiming <id> <type>\n\tSetOutputTiming xxx 0\n"
            " - CreateUplayer <id>\n\tCreateUplayer xxx \n"
            " - DeleteUplayer <id>\n\tDeleteUplayer xxx \n"
            " - OpenMediaOfUplayer <id> <media_type> <play_immed> <file_type> <play_time_ms> <se_time_ms> <se_type> "
            "<url> <position_x> <position_y> <width> <heigh> <video_priority>\n"
            "\tOpenMediaOfUplayer 0 1 1 1 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0\n"
            " - CloseMediaOfUplayer <id> <only_release_fd>\n\tCloseMediaOfUplayer 0 0\n"
            " - SwitchSourceOfUplayer <id> <media_type> <play_immed> <file_type> <play_time_ms> <se_time_ms> <se_type> "
            "<url> <position_x> <position_y> <width> <heigh> <video_priority>\n"
            "\tSwitchSourceOfUplayer 0 1 0 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0\n"
            " - GetMediaInfoOfUplayer <id>\n\tGetMediaInfoOfUplayer 0 \n"
            " - GetSeekOfUplayer <id>\n\tGetSeekOfUplayer 0 \n"
            " - SetPauseOfUplayer <id> <state>\n\tSetPauseOfUplayer 0 0 \n"
            " - SetSeekOfUplayer <id> <seek_ms>\n\tSetSeekOfUplayer 0 1000\n"
            " - SetSpeedOfUplayer <id> <speed>\n\tSetSpeedOfUplayer 0 0.3\n"
            " - SetVolumeOfUplayer <id> <volume>\n\tSetVolumeOfUplayer 0 \n");
}

TEST_F(PlaydCliTest, FactoryWithoutAMenuIsLoggedUnderItsName) {
  using Factory = void (*)(cli::Menu*);
  const std::vector<std::pair<Factory, std::string>> factories = {
      {&PlaydCli::CreatLiveSystemInitAction, "CreatLiveSystemInitAction"},
      {&PlaydCli::CreatLiveSystemUnInitAction, "CreatLiveSystemUnInitAction"},
      {&PlaydCli::CreatSetIntputTimingAction, "CreatSetIntputTimingAction"},
      {&PlaydCli::CreatSetOutputTimingAction, "CreatSetOutputTimingAction"},
      {&PlaydCli::CreatCreateUplayerAction, "CreatCreateUplayerAction"},
      {&PlaydCli::CreatDeleteUplayerAction, "CreatDeleteUplayerAction"},
      {&PlaydCli::CreatOpenMediaOfUplayerAction, "CreatOpenMediaOfUplayerAction"},
      {&PlaydCli::CreatCloseMediaOfUplayerAction, "CreatCloseMediaOfUplayerAction"},
      {&PlaydCli::CreatSwitchSourceOfUplayerAction, "CreatSwitchSourceOfUplayerAction"},
      {&PlaydCli::CreatGetMediaInfoOfUplayerAction, "CreatGetMediaInfoOfUplayerAction"},
      {&PlaydCli::CreatGetSeekOfUplayerAction, "CreatGetSeekOfUplayerAction"},
      {&PlaydCli::CreatSetPauseOfUplayerAction, "CreatSetPauseOfUplayerAction"},
      {&PlaydCli::CreatSetSeekOfUplayerAction, "CreatSetSeekOfUplayerAction"},
      {&PlaydCli::CreatSetSpeedOfUplayerAction, "CreatSetSpeedOfUplayerAction"},
      {&PlaydCli::CreatSetVolumeOfUplayerAction, "CreatSetVolumeOfUplayerAction"}};
  for (const auto& [factory, name] : factories) {
    const LogCapture log;
    factory(nullptr);
    EXPECT_THAT(log.Records(), ElementsAre(MenuRecord(50, name, "pMenu is nullptr")));
  }
}

TEST_F(PlaydCliTest, FactoryInsertsItsCommandOnly) {
  cli::Menu menu("any");
  PlaydCli::CreatSetSeekOfUplayerAction(&menu);
  ASSERT_THAT(menu.Commands(), SizeIs(1));
  EXPECT_EQ(menu.Commands().front()->Name(), "SetSeekOfUplayer");
}

TEST_F(PlaydCliTest, CommandsWithAnIdAloneSendIt) {
  EXPECT_EQ(ExpectBlock<lp::v1::LiveSystemInitReq>("LiveSystemInit 7").unique_id(), "7");
}
TEST_F(PlaydCliTest, LiveSystemUnInitSendsTheId) {
  EXPECT_EQ(ExpectBlock<lp::v1::LiveSystemUnInitReq>("LiveSystemUnInit 7").unique_id(), "7");
}
TEST_F(PlaydCliTest, CreateUplayerSendsTheId) {
  EXPECT_EQ(ExpectBlock<lp::v1::CreateUplayerReq>("CreateUplayer layer-7").unique_id(), "layer-7");
}
TEST_F(PlaydCliTest, DeleteUplayerSendsTheId) {
  EXPECT_EQ(ExpectBlock<lp::v1::DeleteUplayerReq>("DeleteUplayer 7").unique_id(), "7");
}

TEST_F(PlaydCliTest, OpenMediaFillsEveryField) {
  const auto request =
      ExpectBlock<lp::v1::OpenMediaOfUplayerReq>("OpenMediaOfUplayer 7 1 2 3 400 500 6 /a.mp4 -8 -9 1920 1080 12");
  EXPECT_EQ(request.DebugString(),
            "unique_id: \"7\"\nmedia_type: VIDEO_TYPE\nplay_immed: true\n"
            "media_info {\n  url: \"/a.mp4\"\n  se_type: 6\n  se_time_ms: 500\n  play_time_ms: 400\n"
            "  file_type: PICTURE\n}\n"
            "dis_pos {\n  position_x: -8\n  position_y: -9\n  width: 1920\n  heigh: 1080\n  video_priority: 12\n}\n");
}

TEST_F(PlaydCliTest, SwitchSourceFillsEveryField) {
  const auto request =
      ExpectBlock<lp::v1::SwitchSourceOfUplayerReq>("SwitchSourceOfUplayer 7 2 0 1 400 500 6 /a.mp4 8 9 1920 1080 12");
  EXPECT_EQ(
      request.DebugString(),
      "unique_id: \"7\"\nmedia_type: PICTURE_TYPE\n"
      "media_info {\n  url: \"/a.mp4\"\n  se_type: 6\n  se_time_ms: 500\n  play_time_ms: 400\n"
      "  file_type: VIDEO\n}\n"
      "next_dis_pos {\n  position_x: 8\n  position_y: 9\n  width: 1920\n  heigh: 1080\n  video_priority: 12\n}\n");
}

TEST_F(PlaydCliTest, OpenMediaExampleOfHelpIsALine) {
  const auto request = ExpectBlock<lp::v1::OpenMediaOfUplayerReq>(
      "OpenMediaOfUplayer 0 1 1 1 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0");
  EXPECT_EQ(request.media_info().url(), "/usr/kelo/bin/test.mp4");
  EXPECT_TRUE(request.has_dis_pos());
}

TEST_F(PlaydCliTest, TwelveValuesInsteadOfThirteenDoNotMatch) {
  EXPECT_FALSE(Matches("OpenMediaOfUplayer 0 1 1 1 100 100 0 0 0 1920 1080 0"));
  EXPECT_FALSE(Matches("SwitchSourceOfUplayer 0 1 0 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0"));
  EXPECT_FALSE(Matches("LiveSystemInit"));
  EXPECT_FALSE(Matches("livesysteminit 0"));
  EXPECT_THAT(daemon_.Requests(), IsEmpty());
}

TEST_F(PlaydCliTest, AnyNumberButZeroMeansTrue) {
  EXPECT_TRUE(ExpectBlock<lp::v1::SetPauseOfUplayerReq>("SetPauseOfUplayer 7 5").state());
}
TEST_F(PlaydCliTest, NegativeNumberMeansTrue) {
  EXPECT_TRUE(ExpectBlock<lp::v1::CloseMediaOfUplayerReq>("CloseMediaOfUplayer 7 -1").only_release_fd());
}
TEST_F(PlaydCliTest, ZeroMeansFalse) {
  const auto request = ExpectBlock<lp::v1::SetPauseOfUplayerReq>("SetPauseOfUplayer 7 0");
  EXPECT_EQ(request.unique_id(), "7");
  EXPECT_FALSE(request.state());
}
TEST_F(PlaydCliTest, CloseMediaSendsItsFlag) {
  const auto request = ExpectBlock<lp::v1::CloseMediaOfUplayerReq>("CloseMediaOfUplayer 7 0");
  EXPECT_EQ(request.unique_id(), "7");
  EXPECT_FALSE(request.only_release_fd());
}

TEST_F(PlaydCliTest, SetSeekSendsMilliseconds) {
  const auto request = ExpectBlock<lp::v1::SetSeekOfUplayerReq>("SetSeekOfUplayer 7 1000");
  EXPECT_EQ(request.unique_id(), "7");
  EXPECT_EQ(request.seek_ms(), 1000u);
}
TEST_F(PlaydCliTest, WhatFollowsANumberIsIgnored) {
  EXPECT_EQ(ExpectBlock<lp::v1::SetSeekOfUplayerReq>("SetSeekOfUplayer 7 12abc").seek_ms(), 12u);
}
TEST_F(PlaydCliTest, NegativeNumberForAnUnsignedFieldWrapsRound) {
  EXPECT_EQ(ExpectBlock<lp::v1::SetVolumeOfUplayerReq>("SetVolumeOfUplayer 7 -1").volume(), 4294967295u);
}
TEST_F(PlaydCliTest, NegativeTimeWrapsRound) {
  const auto request =
      ExpectBlock<lp::v1::OpenMediaOfUplayerReq>("OpenMediaOfUplayer 7 -1 1 -1 -1 -2 0 /a 0 0 -1 1080 0");
  EXPECT_EQ(request.media_info().play_time_ms(), 18446744073709551615u);
  EXPECT_EQ(request.media_info().se_time_ms(), 18446744073709551614u);
  EXPECT_EQ(request.dis_pos().width(), 4294967295u);
  EXPECT_EQ(static_cast<int>(request.media_type()), -1);
  EXPECT_EQ(static_cast<int>(request.media_info().file_type()), -1);
}

TEST_F(PlaydCliTest, SetSpeedSendsAFloat) {
  const auto request = ExpectBlock<lp::v1::SetSpeedOfUplayerReq>("SetSpeedOfUplayer 7 0.3");
  EXPECT_EQ(request.unique_id(), "7");
  EXPECT_EQ(request.speed(), 0.3f);
}

TEST_F(PlaydCliTest, SetVolumeSendsTheNumber) {
  const auto request = ExpectBlock<lp::v1::SetVolumeOfUplayerReq>("SetVolumeOfUplayer 7 80");
  EXPECT_EQ(request.unique_id(), "7");
  EXPECT_EQ(request.volume(), 80u);
}

// Runs `line`, which must throw Error; returns its message.
template <typename Error>
std::string ErrorOf(cli::Menu& menu, const std::string& line) {
  vextest::FakeSession session(menu);
  try {
    session.Run(Split(line));
  } catch (const Error& error) {
    return error.what();
  }
  return "(nothing was thrown)";
}

TEST_F(PlaydCliTest, WordThatIsNoNumberLeavesTheCommand) {
  EXPECT_EQ(ErrorOf<std::invalid_argument>(*menu_, "SetSeekOfUplayer 7 soon"), "stoi");
  EXPECT_EQ(ErrorOf<std::invalid_argument>(*menu_, "SetPauseOfUplayer 7 yes"), "stoi");
  EXPECT_EQ(ErrorOf<std::invalid_argument>(*menu_, "SetOutputTiming 7 full"), "stoi");
  EXPECT_EQ(ErrorOf<std::invalid_argument>(*menu_, "SetSpeedOfUplayer 7 fast"), "stof");
  EXPECT_EQ(ErrorOf<std::invalid_argument>(*menu_, "OpenMediaOfUplayer 0 1 1 1 1 1 0 /a 0 0 1920 1080 top"), "stoi");
  EXPECT_THAT(daemon_.Requests(), IsEmpty());
}

TEST_F(PlaydCliTest, TheErrorKnowsItsWord) {
  const std::pair<const char*, const char*> lines[] = {{"SetSeekOfUplayer 7 soon", "soon"},
                                                       {"SetOutputTiming 7 full", "full"},
                                                       {"SetSpeedOfUplayer 7 1e99", "1e99"},
                                                       {"SetSeekOfUplayer 7 99999999999", "99999999999"}};
  for (const auto& [line, word] : lines) {
    vextest::FakeSession session(*menu_);
    try {
      session.Run(Split(line));
      ADD_FAILURE() << line << " threw nothing";
    } catch (const cli::about_word& error) {
      EXPECT_EQ(*error.Word(), word);
    }
  }
}

TEST_F(PlaydCliTest, NumberOutOfRangeLeavesTheCommand) {
  EXPECT_EQ(ErrorOf<std::out_of_range>(*menu_, "SetSeekOfUplayer 7 99999999999"), "stoi");
  EXPECT_EQ(ErrorOf<std::out_of_range>(*menu_, "SetVolumeOfUplayer 7 4294967295"), "stoi");
  EXPECT_EQ(ErrorOf<std::out_of_range>(*menu_, "SetSpeedOfUplayer 7 1e99"), "stof");
  EXPECT_THAT(daemon_.Requests(), IsEmpty());
}

TEST_F(PlaydCliTest, GetSeekShowsPositionAndDuration) {
  lp::v1::GetSeekOfUplayerResp reply;
  reply.set_unique_id("7");
  reply.set_seek_ms(1500);
  reply.set_duration_ms(60000);
  reply.mutable_result()->set_unique_id("8");
  reply.mutable_result()->set_result(true);
  daemon_.Answer<lp::v1::GetSeekOfUplayerReq>(reply);
  EXPECT_EQ(Type("GetSeekOfUplayer 7"),
            "**************GetSeekOfUplayer**********\n"
            "id               :8\nresult           :1\nerror_code       :0\nerror_infor      :\n"
            "info_id          :7\ninfo_seek_ms     :1500\ninfo_duration_ms :60000\n");
  EXPECT_EQ(TheRequest<lp::v1::GetSeekOfUplayerReq>().unique_id(), "7");
}

TEST_F(PlaydCliTest, GetMediaInfoShowsTheMedia) {
  lp::v1::GetMediaInfoOfUplayerResp reply;
  reply.set_unique_id("7");
  reply.set_url("/a.mp4");
  reply.set_width(1920);
  reply.set_heigh(1080);
  reply.set_duration_ms(60000);
  reply.mutable_result()->set_unique_id("8");
  reply.mutable_result()->set_result(true);
  daemon_.Answer<lp::v1::GetMediaInfoOfUplayerReq>(reply);
  EXPECT_EQ(Type("GetMediaInfoOfUplayer 7"),
            "**************GetMediaInfoOfUplayer**********\n"
            "id               :8\nresult           :1\nerror_code       :0\nerror_infor      :\n"
            "info_id          :7\ninfo_url         :/a.mp4\ninfo_width       :1920\ninfo_heigh       :1080\n"
            "info_duration_ms :60000\n");
  EXPECT_EQ(TheRequest<lp::v1::GetMediaInfoOfUplayerReq>().unique_id(), "7");
}

template <typename Request>
std::string TimingsOf(const Request& request) {
  std::ostringstream text;
  for (const auto& timing : {request.h_timing(), request.v_timing()}) {
    text << timing.total() << "/" << timing.sync() << "/" << timing.active() << "/" << timing.front_porch() << "/"
         << timing.polarity() << " ";
  }
  text << request.freq();
  return text.str();
}

TEST_F(PlaydCliTest, TimingEchoesTheIdAndShowsTheReplyOfNoPlayer) {
  lp::v1::UniversalResp reply;
  reply.set_unique_id("ignored");
  reply.set_result(true);
  daemon_.Answer<lp::v1::SetIntputTimingReq>(reply);
  EXPECT_EQ(Type("SetIntputTiming 7 0"), "id         :7\n" + Block("SetIntputTiming", "xxx", "1"));
  EXPECT_EQ(TimingsOf(TheRequest<lp::v1::SetIntputTimingReq>()), "2200/44/1920/88/0 1125/5/1080/4/0 6000");
}

TEST_F(PlaydCliTest, TimingTypeOneIsDoubleWidth) {
  EXPECT_EQ(Type("SetIntputTiming xxx 1"), "id         :xxx\n" + Block("SetIntputTiming", "xxx", "0"));
  EXPECT_EQ(TimingsOf(TheRequest<lp::v1::SetIntputTimingReq>()), "4000/32/3840/48/0 1111/10/1080/4/0 6000");
}

TEST_F(PlaydCliTest, TimingTypeTwoIsUltraHighDefinition) {
  EXPECT_EQ(Type("SetOutputTiming xxx 2"), "id         :xxx\n" + Block("SetOutputTiming", "xxx", "0"));
  EXPECT_EQ(TimingsOf(TheRequest<lp::v1::SetOutputTimingReq>()), "4400/88/3840/176/0 2250/10/2160/8/0 6000");
}

TEST_F(PlaydCliTest, OtherTimingTypesAreRefusedWithoutACall) {
  EXPECT_EQ(Type("SetOutputTiming 7 3"), "id         :7\nparameter failed.\n");
  EXPECT_EQ(Type("SetOutputTiming 7 -1"), "id         :7\nparameter failed.\n");
  EXPECT_EQ(Type("SetIntputTiming 7 2147483647"), "id         :7\nparameter failed.\n");
  EXPECT_THAT(daemon_.Requests(), IsEmpty());
}

TEST_F(PlaydCliTest, TimingTypeThatIsNoNumberStillEchoesTheId) {
  vextest::FakeSession session(*menu_);
  EXPECT_THROW(session.Run({"SetIntputTiming", "7", "full"}), std::invalid_argument);
  EXPECT_EQ(session.TakeText(), "id         :7\n");
}

TEST_F(PlaydCliTest, RefusalOfTheDaemonShowsResultZero) {
  lp::v1::UniversalResp reply;
  reply.set_unique_id("7");
  reply.set_error_code(-1);
  reply.set_error_infor("no such player");
  daemon_.Answer<lp::v1::DeleteUplayerReq>(reply);
  EXPECT_EQ(Type("DeleteUplayer 7"), Block("DeleteUplayer", "7", "0"));
}

TEST_F(PlaydCliTest, ReplyOfAnotherTypeShowsTheDefaults) {
  daemon_.Answer<lp::v1::CreateUplayerReq>(lp::v1::ResultRepor());
  EXPECT_EQ(Type("CreateUplayer 7"), Block("CreateUplayer", "", "0"));
}

TEST_F(PlaydCliTest, CallThatFailsShowsTheSameBlockAndIsLogged) {
  daemon_.Stop();
  const LogCapture log;
  EXPECT_EQ(Type("CreateUplayer 7"), Block("CreateUplayer", "7", "0"));
  EXPECT_THAT(log.RecordsOf("modules/apisdk/player"),
              ElementsAre(LogRecord{50, "modules/apisdk/player/rpc_player", "CreateUplayer", "create uplayer  fail"}));
}

TEST_F(PlaydCliTest, SeekThatFailsSaysSoInTheBlock) {
  daemon_.Stop();
  const LogCapture log;
  EXPECT_EQ(Type("GetSeekOfUplayer 7"),
            "**************GetSeekOfUplayer**********\n"
            "id               :7\nresult           :0\nerror_code       :0\n"
            "error_infor      :get seek of uplayer fail\n"
            "info_id          :\ninfo_seek_ms     :0\ninfo_duration_ms :0\n");
  EXPECT_THAT(log.RecordsOf("modules/apisdk/player"), IsEmpty());
}

TEST_F(PlaydCliTest, MediaInfoThatFailsShowsTheIdAndDefaults) {
  daemon_.Stop();
  EXPECT_EQ(Type("GetMediaInfoOfUplayer 7"),
            "**************GetMediaInfoOfUplayer**********\n"
            "id               :7\nresult           :0\nerror_code       :0\nerror_infor      :\n"
            "info_id          :\ninfo_url         :\ninfo_width       :0\ninfo_heigh       :0\n"
            "info_duration_ms :0\n");
}

TEST_F(PlaydCliTest, DaemonThatCameBackAnswersTheNextCommand) {
  daemon_.Stop();
  EXPECT_EQ(Type("SetVolumeOfUplayer 7 1"), Block("SetVolumeOfUplayer", "7", "0"));
  daemon_.Start();
  EXPECT_EQ(ExpectBlock<lp::v1::SetVolumeOfUplayerReq>("SetVolumeOfUplayer 7 2").volume(), 2u);
}

// --- what the session is told

using Fields = std::vector<std::pair<std::string, std::string>>;

class PlaydOutcomeTest : public PlaydCliTest {
 protected:
  // How the line ended.
  cli::Outcome OutcomeOf(const std::string& line) {
    vextest::FakeSession session(*menu_);
    EXPECT_TRUE(session.Run(Split(line))) << line;
    return session.LastOutcome();
  }
  void Refuse(int code, const std::string& text) {
    lp::v1::UniversalResp reply;
    reply.set_unique_id("0");
    reply.set_error_code(code);
    reply.set_error_infor(text);
    daemon_.Answer<lp::v1::CreateUplayerReq>(reply);
  }
};

TEST_F(PlaydOutcomeTest, ASuccessHasTheFieldsOfItsBlock) {
  lp::v1::GetSeekOfUplayerResp reply;
  reply.set_unique_id("5");
  reply.set_seek_ms(5000);
  reply.set_duration_ms(60000);
  reply.mutable_result()->set_unique_id("0");
  reply.mutable_result()->set_result(true);
  daemon_.Answer<lp::v1::GetSeekOfUplayerReq>(reply);
  const cli::Outcome outcome = OutcomeOf("GetSeekOfUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kOk);
  EXPECT_EQ(outcome.reason, "");
  EXPECT_EQ(outcome.fields, (Fields{{"id", "0"},
                                    {"result", "1"},
                                    {"error_code", "0"},
                                    {"error_infor", ""},
                                    {"info_id", "5"},
                                    {"info_seek_ms", "5000"},
                                    {"info_duration_ms", "60000"}}));
}

TEST_F(PlaydOutcomeTest, ARefusalHasTheDaemonsCodeAndWords) {
  Refuse(6, "can't open missing.mp4");
  const cli::Outcome outcome = OutcomeOf("CreateUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kRefused);
  EXPECT_EQ(outcome.code, 6);
  EXPECT_EQ(outcome.reason, "can't open missing.mp4");
}

TEST_F(PlaydOutcomeTest, ARefusalWithoutWordsSaysThatThereAreNone) {
  Refuse(6, "");
  EXPECT_EQ(OutcomeOf("CreateUplayer 0").reason, "playd: it gives no reason");
}

TEST_F(PlaydOutcomeTest, AReplyOfAnotherTypeIsNamed) {
  daemon_.Answer<lp::v1::CreateUplayerReq>(lp::v1::GetSeekOfUplayerResp());
  const cli::Outcome outcome = OutcomeOf("CreateUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kRefused);
  EXPECT_EQ(outcome.reason,
            "the daemon answered with a message of another type, type.googleapis.com/lp.v1.GetSeekOfUplayerResp");
}

TEST_F(PlaydOutcomeTest, ADaemonThatIsNotThereIsUnreachable) {
  daemon_.Stop();
  const cli::Outcome outcome = OutcomeOf("CreateUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kUnreachable);
  EXPECT_EQ(outcome.code, 14);
  EXPECT_EQ(outcome.reason, "playd: can't connect: Connection refused; is it running?");
  EXPECT_EQ(outcome.fields.size(), 4u);
}

TEST_F(PlaydOutcomeTest, ARequestThatTheDaemonDoesNotKnowIsRefused) {
  const cli::Outcome outcome = OutcomeOf("CreateUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kRefused);
  EXPECT_EQ(outcome.code, 12);
}

TEST_F(PlaydOutcomeTest, AHungDaemonIsGivenUp) {
  std::stop_source operators;
  daemon_.Handle<lp::v1::CreateUplayerReq>([&](const google::protobuf::Any&, google::protobuf::Any&) {
    operators.request_stop();
    return vextest::WaitFor([] { return false; }, std::chrono::seconds(1));
  });
  const klbase::ScopedStopToken scope(operators.get_token());
  const cli::Outcome outcome = OutcomeOf("CreateUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kCancelled);
  EXPECT_EQ(outcome.reason, "playd: the caller gave it up");
}

TEST_F(PlaydOutcomeTest, ADaemonThatEndsBeforeItAnswersIsUnreachable) {
  std::atomic<bool> asked = false;
  daemon_.Handle<lp::v1::CreateUplayerReq>([&](const google::protobuf::Any&, google::protobuf::Any&) {
    asked = true;
    return vextest::WaitFor([] { return false; }, std::chrono::seconds(1));
  });
  const std::jthread ends([&] {
    EXPECT_TRUE(vextest::WaitFor([&asked] { return asked.load(); }));
    daemon_.Stop();
  });
  const cli::Outcome outcome = OutcomeOf("CreateUplayer 0");
  EXPECT_EQ(outcome.status, cli::Status::kUnreachable) << outcome.reason;
}

TEST_F(PlaydOutcomeTest, ATimingTypeThatDoesNotExistIsAUsageError) {
  const cli::Outcome outcome = OutcomeOf("SetOutputTiming 0 3");
  EXPECT_EQ(outcome.status, cli::Status::kUsage);
  EXPECT_EQ(outcome.reason, "the type is 0, 1 or 2");
}

}  // namespace
