// The page's table of requests, held against the daemon.
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"
#include "platform/testing/scratch_folder.h"
#include "playd/service.h"
#include "player/v1/player.pb.h"
#include "testing/player.h"

namespace playd {
namespace {

using google::protobuf::Any;
using google::protobuf::Message;

struct Row {
  std::string request;
  bool served;
  std::string text;  // the effect, or the text of the refusal
};

// "| `CreateRpsReq` | refused | `unsupported request lp.v1.CreateRpsReq` |"
Row ParseRow(const std::string& line) {
  const std::vector<std::string> cells = absl::StrSplit(line, " | ");
  EXPECT_EQ(cells.size(), 3u) << line;
  EXPECT_TRUE(cells.at(1) == "served" || cells.at(1) == "refused") << line;
  const auto plain = [](absl::string_view cell) {
    return std::string(absl::StripSuffix(absl::StripPrefix(cell, "`"), "`"));
  };
  return {plain(absl::StripPrefix(cells.at(0), "| ")), cells.at(1) == "served",
          plain(absl::StripSuffix(cells.at(2), " |"))};
}

std::vector<Row> Page() {
  std::istringstream page(vextest::ReadFile(PLAYD_PAGE));
  std::vector<Row> rows;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) inside = line == "## Requests";
    if (inside && line.starts_with("| `")) rows.push_back(ParseRow(line));
  }
  return rows;
}

std::set<std::string> RequestsOfTheSchema() {
  std::set<std::string> names;
  const auto* schema = lp::v1::UniversalResp::descriptor()->file();
  for (int i = 0; i < schema->message_type_count(); ++i) {
    const std::string& name = schema->message_type(i)->name();
    if (absl::EndsWith(name, "Req") || name == "SwitchRps") names.insert(name);
  }
  return names;
}

class RequestsPageTest : public testing::Test {
 protected:
  RequestsPageTest() { MakeSampleClip(folder_ / "clip.mp4", SmallClip(1)); }

  std::unique_ptr<Message> NewRequest(const std::string& name, const std::string& id) {
    const auto* type = lp::v1::UniversalResp::descriptor()->file()->FindMessageTypeByName(name);
    std::unique_ptr<Message> request(google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());
    const auto* field = type->FindFieldByName("unique_id");
    if (field != nullptr) request->GetReflection()->SetString(request.get(), field, id);
    return request;
  }

  lp::v1::UniversalResp Ask(const Message& request) {
    Any packed;
    Any reply;
    packed.PackFrom(request);
    service_.Handle(packed, reply);
    lp::v1::UniversalResp result;
    if (reply.UnpackTo(&result)) return result;
    return ResultIn(reply);
  }

  // Of a reply of another type.
  static lp::v1::UniversalResp ResultIn(const Any& packed) {
    const std::string name = packed.type_url().substr(packed.type_url().rfind('.') + 1);
    const auto* type = lp::v1::UniversalResp::descriptor()->file()->FindMessageTypeByName(name);
    std::unique_ptr<Message> reply(google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());
    EXPECT_TRUE(reply->ParseFromString(packed.value()));
    lp::v1::UniversalResp result;
    result.CopyFrom(reply->GetReflection()->GetMessage(*reply, type->FindFieldByName("result")));
    return result;
  }

  // A player of this name with an open clip.
  void Open(const std::string& id) {
    ASSERT_TRUE(Ask(*NewRequest("CreateUplayerReq", id)).result());
    lp::v1::OpenMediaOfUplayerReq open;
    open.set_unique_id(id);
    open.mutable_media_info()->set_url(folder_ / "clip.mp4");
    ASSERT_TRUE(Ask(open).result());
  }

  // The request with values that make sense, and the player that it needs.
  std::unique_ptr<Message> MakeServable(const std::string& name) {
    std::unique_ptr<Message> request = NewRequest(name, name);
    if (auto* open = dynamic_cast<lp::v1::OpenMediaOfUplayerReq*>(request.get())) {
      open->mutable_media_info()->set_url(folder_ / "clip.mp4");
    }
    if (auto* next = dynamic_cast<lp::v1::SwitchSourceOfUplayerReq*>(request.get())) {
      next->mutable_media_info()->set_url(folder_ / "clip.mp4");
    }
    if (auto* speed = dynamic_cast<lp::v1::SetSpeedOfUplayerReq*>(request.get())) speed->set_speed(2);
    if (auto* timing = dynamic_cast<lp::v1::SetIntputTimingReq*>(request.get())) SetTiming(*timing);
    if (auto* timing = dynamic_cast<lp::v1::SetOutputTimingReq*>(request.get())) SetTiming(*timing);
    if (name == "OpenMediaOfUplayerReq") {
      EXPECT_TRUE(Ask(*NewRequest("CreateUplayerReq", name)).result());
    } else if (name != "CreateUplayerReq" && !absl::EndsWith(name, "TimingReq")) {
      Open(name);
    }
    return request;
  }

  template <typename Request>
  static void SetTiming(Request& request) {
    for (auto* axis : {request.mutable_h_timing(), request.mutable_v_timing()}) {
      axis->set_active(640);
      axis->set_total(800);
    }
    request.set_freq(6000);
  }

  vextest::ScratchFolder folder_;
  Canvas canvas_{false};
  Mixer mixer_{false};
  Recorder events_;
  PlayerTable players_{canvas_, mixer_, events_, kPatient};
  Service service_{players_, canvas_};
};

TEST_F(RequestsPageTest, HasOneRowForEachRequestOfTheSchema) {
  std::multiset<std::string> named;
  for (const Row& row : Page()) named.insert(row.request);
  const auto requests = RequestsOfTheSchema();
  EXPECT_EQ(requests.size(), 42u);
  EXPECT_EQ(named, (std::multiset<std::string>{requests.begin(), requests.end()}));
}

TEST_F(RequestsPageTest, NamesAsServedWhatTheDaemonServes) {
  for (const Row& row : Page()) {
    if (!row.served) continue;
    SCOPED_TRACE(row.request);
    const auto result = Ask(*MakeServable(row.request));
    EXPECT_TRUE(result.result()) << result.error_infor();
    EXPECT_EQ(result.error_code(), 0);
  }
}

TEST_F(RequestsPageTest, GivesTheTextWithWhichTheDaemonRefuses) {
  for (const Row& row : Page()) {
    if (row.served) continue;
    SCOPED_TRACE(row.request);
    const auto result = Ask(*NewRequest(row.request, "0"));
    EXPECT_FALSE(result.result());
    EXPECT_EQ(result.error_code(), static_cast<int>(ErrorCode::kUnsupported));
    EXPECT_EQ(result.error_infor(), row.text);
  }
}

}  // namespace
}  // namespace playd
