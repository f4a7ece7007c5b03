#include "playd/daemon.h"

#include <gtest/gtest.h>
#include <klrpc/api_client.h>
#include <signal.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "absl/synchronization/mutex.h"
#include "encoder/v1/encoder.pb.h"
#include "platform/testing/child_process.h"
#include "platform/testing/environment.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"
#include "player/v1/player.pb.h"
#include "sigslot/sigslot.h"
#include "testing/player.h"
#include "testing/rtmp_server.h"

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vextest::ExitState;
using vextest::kLimit;
using vextest::ScratchFolder;

constexpr std::uint32_t kRed = 0xff0000;
constexpr std::uint32_t kBlue = 0x0000ff;
std::string OwnAddress() { return "unix-abstract:" + vextest::UniqueName("playd-test"); }

std::unique_ptr<klrpc::APIClient> Connect(const std::string& address) {
  return std::make_unique<klrpc::APIClient>(
      std::make_unique<klrpc::APIClientOptions>(address, klrpc::APIClientOptions::reconnect_default_max_backoff_ms_,
                                                klrpc::APIClientOptions::reconnect_default_min_backoff_ms_,
                                                klrpc::APIClientOptions::reconnect_default_initial_backoff_ms_, false));
}

// Keeps the daemon's events, one line each.
class Subscriber : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit Subscriber(klrpc::APIClient& client) {
    client.SignalSubscribeMessage.connect(this, &Subscriber::OnMessage);
    client.SignalSubscribeState.connect(this, &Subscriber::OnState);
    client.SubscribeTopics("playd-test", {"layer/result_repor", "layer/get_seek_of_uplayer"});
  }
  ~Subscriber() override { disconnect_all(); }

  bool WaitReady() {
    return vextest::WaitFor([this] {
      const absl::MutexLock lock(&mutex_);
      return ready_;
    });
  }

  std::vector<std::string> WaitFor(std::size_t count) {
    vextest::WaitFor([&] {
      const absl::MutexLock lock(&mutex_);
      return events_.size() >= count;
    });
    const absl::MutexLock lock(&mutex_);
    return events_;
  }

 private:
  void OnMessage(const klrpc::v1::PubsubMessage& message) {
    std::string line;
    if (message.topic() == "layer/result_repor") {
      lp::v1::ResultRepor event;
      line = event.ParseFromString(message.payload()) ? event.ShortDebugString() : "unparsable";
    } else {
      lp::v1::GetSeekOfUplayerResp event;
      line = event.ParseFromString(message.payload()) ? event.ShortDebugString() : "unparsable";
    }
    const absl::MutexLock lock(&mutex_);
    events_.push_back(message.topic() + " " + line);
  }
  void OnState(const klrpc::v1::SubscribeState& state) {
    const absl::MutexLock lock(&mutex_);
    ready_ = state.state() == 1;
  }

  absl::Mutex mutex_;
  bool ready_ ABSL_GUARDED_BY(mutex_) = false;
  std::vector<std::string> events_ ABSL_GUARDED_BY(mutex_);
};

class DaemonTest : public testing::Test {
 protected:
  DaemonTest() {
    Daemon::Options options;
    options.address = address_;
    options.limits = kPatient;
    daemon_ = std::make_unique<Daemon>(options);
    client_ = Connect(address_);
  }

  template <typename Reply = lp::v1::UniversalResp>
  Reply Ask(const google::protobuf::Message& request) {
    google::protobuf::Any packed;
    Reply reply;
    EXPECT_TRUE(client_->CallWithin(request, packed, kLimit));
    EXPECT_TRUE(packed.UnpackTo(&reply)) << packed.type_url();
    return reply;
  }

  // Asks with a request that has nothing but the id.
  template <typename Request>
  lp::v1::UniversalResp AskFor(const std::string& id) {
    Request request;
    request.set_unique_id(id);
    return Ask(request);
  }

  std::string ColorClip(std::uint32_t color, int length_s = 2) {
    SampleClip clip = SmallClip(length_s);
    clip.color = color;
    std::string path = folder_ / ("clip-" + std::to_string(color) + ".mp4");
    MakeSampleClip(path, clip);
    return path;
  }

  static lp::v1::OpenMediaOfUplayerReq OpenRequest(const std::string& id, const std::string& url) {
    lp::v1::OpenMediaOfUplayerReq request;
    request.set_unique_id(id);
    request.set_media_type(lp::v1::VIDEO_TYPE);
    request.set_play_immed(true);
    request.mutable_media_info()->set_url(url);
    request.mutable_media_info()->set_file_type(lp::v1::VIDEO);
    request.mutable_dis_pos()->set_width(400);
    request.mutable_dis_pos()->set_heigh(300);
    return request;
  }

  static void ExpectRefused(const lp::v1::UniversalResp& reply, ErrorCode code, const std::string& text) {
    EXPECT_FALSE(reply.result());
    EXPECT_EQ(reply.error_code(), static_cast<std::int32_t>(code));
    EXPECT_EQ(reply.error_infor(), text);
  }

  const std::string address_ = OwnAddress();
  ScratchFolder folder_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<klrpc::APIClient> client_;
};

TEST_F(DaemonTest, CreatesAndDeletesPlayersOncePerId) {
  const auto reply = AskFor<lp::v1::CreateUplayerReq>("0");
  EXPECT_TRUE(reply.result());
  EXPECT_EQ(reply.unique_id(), "0");
  EXPECT_EQ(reply.error_code(), 0);
  EXPECT_EQ(reply.error_infor(), "");
  ExpectRefused(AskFor<lp::v1::CreateUplayerReq>("0"), ErrorCode::kPlayerExists, "player 0 exists already");
  EXPECT_TRUE(AskFor<lp::v1::DeleteUplayerReq>("0").result());
  ExpectRefused(AskFor<lp::v1::DeleteUplayerReq>("0"), ErrorCode::kUnknownPlayer, "there is no player 0");
  ExpectRefused(AskFor<lp::v1::CreateUplayerReq>(""), ErrorCode::kInvalidArgument,
                "the unique_id must have 1 to 256 characters");
}

TEST_F(DaemonTest, CreatesNoMorePlayersThanItCanServe) {
  for (std::size_t i = 0; i < PlayerTable::kMaxPlayers; ++i) {
    ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>(std::to_string(i)).result());
  }
  ExpectRefused(AskFor<lp::v1::CreateUplayerReq>("one more"), ErrorCode::kTooManyPlayers,
                "there are 64 players already; delete one first");
}

TEST_F(DaemonTest, RefusesEveryPlayerOperationOnAnUnknownPlayer) {
  const std::string text = "there is no player \"7\"; create it first";
  ExpectRefused(Ask(OpenRequest("7", "/tmp/x.mp4")), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::CloseMediaOfUplayerReq>("7"), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::SwitchSourceOfUplayerReq>("7"), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::SetPauseOfUplayerReq>("7"), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::SetSeekOfUplayerReq>("7"), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::SetSpeedOfUplayerReq>("7"), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::SetVolumeOfUplayerReq>("7"), ErrorCode::kUnknownPlayer, text);
  ExpectRefused(AskFor<lp::v1::SetUsbLinkReq>("7"), ErrorCode::kUnknownPlayer, text);
  lp::v1::GetSeekOfUplayerReq seek;
  seek.set_unique_id("7");
  ExpectRefused(Ask<lp::v1::GetSeekOfUplayerResp>(seek).result(), ErrorCode::kUnknownPlayer, text);
  lp::v1::GetMediaInfoOfUplayerReq info;
  info.set_unique_id("7");
  ExpectRefused(Ask<lp::v1::GetMediaInfoOfUplayerResp>(info).result(), ErrorCode::kUnknownPlayer, text);
}

TEST_F(DaemonTest, HasNoLiveSystem) {
  for (const char* id : {"live", ""}) {
    const auto reply = AskFor<lp::v1::LiveSystemInitReq>(id);
    EXPECT_EQ(reply.unique_id(), id);
    ExpectRefused(reply, ErrorCode::kUnsupported, "unsupported request lp.v1.LiveSystemInitReq");
    ExpectRefused(AskFor<lp::v1::LiveSystemUnInitReq>(id), ErrorCode::kUnsupported,
                  "unsupported request lp.v1.LiveSystemUnInitReq");
  }
}

template <typename Request>
Request TimingRequest(int h_total, int h_active, int v_total, int v_active) {
  Request request;
  request.mutable_h_timing()->set_total(h_total);
  request.mutable_h_timing()->set_active(h_active);
  request.mutable_v_timing()->set_total(v_total);
  request.mutable_v_timing()->set_active(v_active);
  request.set_freq(6000);
  return request;
}

TEST_F(DaemonTest, MakesTheCanvasAsLargeAsTheOutputTimingSays) {
  EXPECT_TRUE(Ask(TimingRequest<lp::v1::SetOutputTimingReq>(4000, 3840, 1111, 1080)).result());
  EXPECT_TRUE(vextest::WaitFor([this] {
    Picture picture;
    return daemon_->GetCanvas().Snapshot(kLimit, picture) && picture.width == 3840 && picture.height == 1080;
  }));
}

TEST_F(DaemonTest, ChecksTimings) {
  EXPECT_TRUE(Ask(TimingRequest<lp::v1::SetIntputTimingReq>(2200, 1920, 1125, 1080)).result());
  const std::string text = "vertical active 1080 + sync 0 + front porch 0 exceeds its total of 100";
  ExpectRefused(Ask(TimingRequest<lp::v1::SetIntputTimingReq>(2200, 1920, 100, 1080)), ErrorCode::kBadTiming, text);
  ExpectRefused(Ask(TimingRequest<lp::v1::SetOutputTimingReq>(2200, 1920, 100, 1080)), ErrorCode::kBadTiming, text);
  EXPECT_EQ(daemon_->GetCanvas().Mode().width, 1920);
}

TEST_F(DaemonTest, AnswersUnservedMessagesOfTheSchemaWithUnsupported) {
  lp::v1::CreateLiveReq request;
  request.set_unique_id("live");
  const auto reply = Ask(request);
  EXPECT_EQ(reply.unique_id(), "live");
  ExpectRefused(reply, ErrorCode::kUnsupported, "unsupported request lp.v1.CreateLiveReq");
  ExpectRefused(Ask(lp::v1::VideoTiming()), ErrorCode::kUnsupported, "unsupported request lp.v1.VideoTiming");
}

TEST_F(DaemonTest, RefusesARequestInItsOwnReply) {
  lp::v1::GetStreamInforOfRpsReq stream;
  stream.set_unique_id("rps");
  const auto of_stream = Ask<lp::v1::GetStreamInforOfRpsResp>(stream);
  EXPECT_EQ(of_stream.unique_id(), "rps");
  EXPECT_EQ(of_stream.result().unique_id(), "rps");
  ExpectRefused(of_stream.result(), ErrorCode::kUnsupported, "unsupported request lp.v1.GetStreamInforOfRpsReq");
  lp::v1::GetUvccInforOfUvccReq camera;
  camera.set_unique_id("uvcc");
  const auto of_camera = Ask<lp::v1::GetUvccInforOfUvccResp>(camera);
  EXPECT_EQ(of_camera.unique_id(), "uvcc");
  ExpectRefused(of_camera.result(), ErrorCode::kUnsupported, "unsupported request lp.v1.GetUvccInforOfUvccReq");
}

TEST_F(DaemonTest, ReportsWhatRequestsHaveSet) {
  EXPECT_EQ(daemon_->Report(), "output timing: 1920x1080 at 60 Hz\ninput timing: none\n");
  ASSERT_TRUE(Ask(TimingRequest<lp::v1::SetIntputTimingReq>(4000, 3840, 1111, 1080)).result());
  ASSERT_TRUE(Ask(TimingRequest<lp::v1::SetOutputTimingReq>(4400, 3840, 2250, 2160)).result());
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("0").result());
  lp::v1::SetUsbLinkReq usb;
  usb.set_unique_id("0");
  usb.set_usb_state(1);
  ASSERT_TRUE(Ask(usb).result());
  EXPECT_EQ(daemon_->Report(),
            "output timing: 3840x2160 at 60 Hz\ninput timing: 3840x1080 at 60 Hz\n"
            "player \"0\": closed, speed 1, volume 100, usb plugged in\n");
}

TEST_F(DaemonTest, RefusesMessagesOfOtherSchemas) {
  google::protobuf::Any reply;
  EXPECT_FALSE(client_->CallWithin(encoder::v1::SetVideoQualityRequest(), reply, kLimit));
  EXPECT_FALSE(client_->CallWithin(google::protobuf::Any(), reply, kLimit));
}

TEST_F(DaemonTest, RefusesAMediumThatIsMissingOrNone) {
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("0").result());
  ExpectRefused(Ask(OpenRequest("0", "/nonexistent/a.mp4")), ErrorCode::kFileMissing,
                "can't open /nonexistent/a.mp4: No such file or directory");
  vextest::WriteFile(folder_ / "notes.txt", "no medium at all, only text\n");
  EXPECT_EQ(Ask(OpenRequest("0", folder_ / "notes.txt")).error_code(), static_cast<int>(ErrorCode::kNotMedia));
  auto request = OpenRequest("0", folder_ / "notes.txt");
  request.mutable_dis_pos()->set_heigh(0);
  ExpectRefused(Ask(request), ErrorCode::kBadRectangle, "the rectangle is 400x0; width and height must be 1 to 8192");
}

TEST_F(DaemonTest, TellsPositionAndMediaInformation) {
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("0").result());
  auto open = OpenRequest("0", ColorClip(kRed));
  open.set_play_immed(false);
  open.mutable_media_info()->set_play_time_ms(800);
  ASSERT_TRUE(Ask(open).result());
  lp::v1::GetMediaInfoOfUplayerReq info;
  info.set_unique_id("0");
  const auto facts = Ask<lp::v1::GetMediaInfoOfUplayerResp>(info);
  EXPECT_TRUE(facts.result().result());
  EXPECT_EQ(facts.result().unique_id(), "0");
  EXPECT_EQ(facts.unique_id(), "0");
  EXPECT_EQ(facts.url(), open.media_info().url());
  EXPECT_EQ(facts.width(), 320u);
  EXPECT_EQ(facts.heigh(), 240u);
  EXPECT_EQ(facts.duration_ms(), 2000u);
  lp::v1::GetSeekOfUplayerReq seek;
  seek.set_unique_id("0");
  const auto position = Ask<lp::v1::GetSeekOfUplayerResp>(seek);
  EXPECT_TRUE(position.result().result());
  EXPECT_EQ(position.seek_ms(), 800u);
  EXPECT_EQ(position.duration_ms(), 2000u);
}

TEST_F(DaemonTest, PublishesStatesAndOneResultForEachSeek) {
  Subscriber subscriber(*client_);
  ASSERT_TRUE(subscriber.WaitReady());
  const std::string clip = ColorClip(kRed);
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("0").result());
  ASSERT_TRUE(Ask(OpenRequest("0", clip)).result());
  lp::v1::SetPauseOfUplayerReq pause;
  pause.set_unique_id("0");
  pause.set_state(true);
  ASSERT_TRUE(Ask(pause).result());
  lp::v1::SetSeekOfUplayerReq seek;
  seek.set_unique_id("0");
  seek.set_seek_ms(1600);
  ASSERT_TRUE(Ask(seek).result());
  pause.set_state(false);
  ASSERT_TRUE(Ask(pause).result());
  const auto report = [&](int state) {
    return "layer/result_repor unique_id: \"0\" url: \"" + clip + "\" play_state: " + std::to_string(state);
  };
  const std::string sought =
      "layer/get_seek_of_uplayer unique_id: \"0\" seek_ms: 1600 duration_ms: 2000 "
      "result { unique_id: \"0\" result: true }";
  EXPECT_EQ(subscriber.WaitFor(5), (std::vector<std::string>{report(1), report(2), sought, report(3), report(4)}));
  ASSERT_TRUE(Ask(OpenRequest("0", "/nonexistent/a.mp4")).error_code() != 0);
  ASSERT_TRUE(AskFor<lp::v1::CloseMediaOfUplayerReq>("0").result());
  EXPECT_FALSE(Ask(OpenRequest("0", "/nonexistent/a.mp4")).result());
  EXPECT_EQ(subscriber.WaitFor(6).back(),
            "layer/result_repor unique_id: \"0\" url: \"/nonexistent/a.mp4\" play_state: 5");
}

TEST_F(DaemonTest, PlaysTwoPlayersAndDeletesOneWhileItPlays) {
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("red").result());
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("blue").result());
  auto red = OpenRequest("red", ColorClip(kRed, 20));
  red.mutable_dis_pos()->set_video_priority(2);
  ASSERT_TRUE(Ask(red).result());
  auto blue = OpenRequest("blue", ColorClip(kBlue, 20));
  blue.mutable_dis_pos()->set_position_x(200);
  blue.mutable_dis_pos()->set_video_priority(1);
  ASSERT_TRUE(Ask(blue).result());
  Canvas& canvas = daemon_->GetCanvas();
  EXPECT_TRUE(ShowsWithin(canvas, 100, 150, kRed));
  EXPECT_TRUE(ShowsWithin(canvas, 300, 150, kRed));
  EXPECT_TRUE(ShowsWithin(canvas, 500, 150, kBlue));
  Subscriber subscriber(*client_);
  ASSERT_TRUE(subscriber.WaitReady());
  ASSERT_TRUE(AskFor<lp::v1::DeleteUplayerReq>("red").result());
  EXPECT_EQ(subscriber.WaitFor(1), std::vector<std::string>{"layer/result_repor unique_id: \"red\" url: \"" +
                                                            red.media_info().url() + "\" play_state: 4"});
  EXPECT_TRUE(ShowsWithin(canvas, 300, 150, kBlue));
  EXPECT_TRUE(ShowsWithin(canvas, 100, 150, 0x000000));
}

TEST_F(DaemonTest, StopsWhilePlaying) {
  ASSERT_TRUE(AskFor<lp::v1::CreateUplayerReq>("0").result());
  ASSERT_TRUE(Ask(OpenRequest("0", ColorClip(kRed))).result());
  EXPECT_TRUE(daemon_->Stop(seconds(20)));
}

// A program with its errors between its output.
class ChildProcess : public vextest::ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& words, const std::vector<std::string>& environment = {})
      : vextest::ChildProcess(words, {environment, "", /*pty=*/false, /*errors_with_output=*/true}) {}
};

// The built program.
class PlaydProgramTest : public testing::Test {
 protected:
  std::vector<std::string> Environment() const { return {"KLBASE_LOG_FILE=" + folder_ / "playd.log"}; }
  std::vector<std::string> Words() const {
    return {PLAYD_PROGRAM, "--headless", "--address=" + address_, "--snapshot_dir=" + folder_.Path()};
  }
  const std::string address_ = OwnAddress();
  ScratchFolder folder_;
};

TEST_F(PlaydProgramTest, SaysWhereItListensAndEndsOnSignals) {
  for (const int number : {SIGTERM, SIGINT}) {
    ChildProcess playd(Words(), Environment());
    ASSERT_TRUE(playd.WaitFor("playd listens on " + address_ + "\n")) << playd.Output();
    playd.Signal(number);
    EXPECT_EQ(playd.WaitExit(), (ExitState{0, 0})) << playd.Output();
  }
}

TEST_F(PlaydProgramTest, EndsWhilePlayersPlay) {
  ChildProcess playd(Words(), Environment());
  ASSERT_TRUE(playd.WaitFor("playd listens on ")) << playd.Output();
  const auto client = Connect(address_);
  MakeSampleClip(folder_ / "clip.mp4", SmallClip(4));
  google::protobuf::Any reply;
  lp::v1::CreateUplayerReq create;
  create.set_unique_id("0");
  ASSERT_TRUE(client->CallWithin(create, reply, kLimit));
  lp::v1::OpenMediaOfUplayerReq open;
  open.set_unique_id("0");
  open.set_play_immed(true);
  open.mutable_media_info()->set_url(folder_ / "clip.mp4");
  open.mutable_dis_pos()->set_width(320);
  open.mutable_dis_pos()->set_heigh(240);
  ASSERT_TRUE(client->CallWithin(open, reply, kLimit));
  playd.Signal(SIGTERM);
  EXPECT_EQ(playd.WaitExit(), (ExitState{0, 0})) << playd.Output();
}

TEST_F(PlaydProgramTest, EndsWhileAMediumHangs) {
  const device::testing::SilentPort server(device::testing::SilentPort::Kind::kNeverAnswers);
  ChildProcess playd(Words(), Environment());
  ASSERT_TRUE(playd.WaitFor("playd listens on ")) << playd.Output();
  const auto client = Connect(address_);
  google::protobuf::Any reply;
  lp::v1::CreateUplayerReq create;
  create.set_unique_id("0");
  ASSERT_TRUE(client->CallWithin(create, reply, kLimit));
  lp::v1::OpenMediaOfUplayerReq open;
  open.set_unique_id("0");
  open.mutable_media_info()->set_url("http://127.0.0.1:" + std::to_string(server.port()) + "/clip.mp4");
  open.mutable_dis_pos()->set_width(320);
  open.mutable_dis_pos()->set_heigh(240);
  client->CallWithin(open, reply, milliseconds(100));
  playd.Signal(SIGTERM);
  EXPECT_EQ(playd.WaitExit(), (ExitState{0, 0})) << playd.Output();
}

TEST_F(PlaydProgramTest, RefusesToStartTwice) {
  ChildProcess first(Words(), Environment());
  ASSERT_TRUE(first.WaitFor("playd listens on ")) << first.Output();
  ChildProcess second(Words(), Environment());
  EXPECT_EQ(second.WaitExit(), (ExitState{1, 0}));
  EXPECT_TRUE(second.Output().starts_with("playd: ")) << second.Output();
  EXPECT_NE(second.Output().find("in use"), std::string::npos) << second.Output();
  first.Signal(SIGTERM);
  EXPECT_EQ(first.WaitExit(), (ExitState{0, 0}));
}

TEST_F(PlaydProgramTest, SavesTheComposedPictureAndAReportOnRequest) {
  ChildProcess playd(Words(), Environment());
  ASSERT_TRUE(playd.WaitFor("playd listens on ")) << playd.Output();
  playd.Signal(SIGUSR1);
  EXPECT_TRUE(vextest::WaitFor([&] { return std::filesystem::exists(folder_ / "canvas-0001.png"); }));
  EXPECT_EQ(vextest::ReadFile(folder_ / "canvas-0001.txt"), "output timing: 1920x1080 at 60 Hz\ninput timing: none\n");
  playd.Signal(SIGTERM);
  EXPECT_EQ(playd.WaitExit(), (ExitState{0, 0}));
}

TEST_F(PlaydProgramTest, RefusesWordsThatAreNoFlags) {
  ChildProcess playd({PLAYD_PROGRAM, "start"}, Environment());
  EXPECT_EQ(playd.WaitExit(), (ExitState{1, 0}));
  EXPECT_EQ(playd.Output(), "playd: 'start' is not a flag; see playd --help\n");
}

TEST_F(PlaydProgramTest, TheSampleClipProgramWritesAClipAndSaysWhyItCannot) {
  ChildProcess usage({SAMPLE_CLIP_PROGRAM});
  EXPECT_EQ(usage.WaitExit(), (ExitState{2, 0}));
  ChildProcess nowhere({SAMPLE_CLIP_PROGRAM, "/nonexistent/clip.mp4"});
  EXPECT_EQ(nowhere.WaitExit(), (ExitState{1, 0}));
  EXPECT_TRUE(nowhere.Output().starts_with("make_sample_clip: can't make /nonexistent/clip.mp4: ")) << nowhere.Output();
  ChildProcess clip({SAMPLE_CLIP_PROGRAM, folder_ / "clip.mp4"});
  EXPECT_EQ(clip.WaitExit(seconds(60)), (ExitState{0, 0})) << clip.Output();
  EXPECT_GT(std::filesystem::file_size(folder_ / "clip.mp4"), 100000u);
}

}  // namespace
}  // namespace playd
