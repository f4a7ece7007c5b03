#include "example/apisdk/playd/playd_cil.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "apisdk/apisdk.h"
#include "cli/about_word.h"
#include "cli/command.h"
#include "cli/outcome.h"
#include "example/apisdk/playd/player_words.h"
#include "example/apisdk/playd/reply_block.h"
#include "example/apisdk/report.h"
#include "example/completed_command.h"
#include "klbase/log.h"

namespace {

using apis::ApiPlayer;
using Word = const std::string&;

// Throws std::invalid_argument for a word that is not a number and std::out_of_range for one that the type can't hold,
// each with the word in it, so that the console can name it.
template <typename Convert>
auto Converted(Word word, Convert convert) {
  try {
    return convert(word);
  } catch (const std::invalid_argument& error) {
    throw cli::word_error<std::invalid_argument>(word, error.what());
  } catch (const std::out_of_range& error) {
    throw cli::word_error<std::out_of_range>(word, error.what());
  }
}

float ToFloat(Word word) {
  return Converted(word, [](Word text) { return std::stof(text); });
}

// A negative number for an unsigned field wraps round.
template <typename Number = int>
Number ToInt(Word word) {
  return static_cast<Number>(Converted(word, [](Word text) { return std::stoi(text); }));
}

bool ToBool(Word word) { return ToInt(word) != 0; }

// Calls one operation of the player and shows its reply. A call that failed shows as well: in the reply's result.
template <typename Request, typename Reply>
Reply Call(std::ostream& out, std::string_view command, void (ApiPlayer::*operation)(const Request&, Reply&) const,
           const std::type_identity_t<Request>& request) {
  Reply reply;
  (apis::ApiSdk::instance_.Player()->*operation)(request, reply);
  PrintReply(out, command, reply);
  ReportLastCall(out, "playd");
  return reply;
}

void LiveSystemInit(std::ostream& out, Word id) {
  Call(out, "LiveSystemInit", &ApiPlayer::LiveSystemInit, {.unique_id = id});
}

void LiveSystemUnInit(std::ostream& out, Word id) {
  Call(out, "LiveSystemUnInit", &ApiPlayer::LiveSystemUnInit, {.unique_id = id});
}

struct TimingPreset {
  ApiPlayer::VideoTiming horizontal;
  ApiPlayer::VideoTiming vertical;
  int32_t freq;  // hundredths of a hertz
};

// By type: 1920x1080, 3840x1080 and 3840x2160, all at 60 Hz. Total, sync, active, front porch, polarity.
constexpr std::array<TimingPreset, 3> kTimingPresets = {{
    {{2200, 44, 1920, 88, 0}, {1125, 5, 1080, 4, 0}, 6000},
    {{4000, 32, 3840, 48, 0}, {1111, 10, 1080, 4, 0}, 6000},
    {{4400, 88, 3840, 176, 0}, {2250, 10, 2160, 8, 0}, 6000},
}};

// Timings belong to no player: the id is only shown again. Null, which is shown too, for an unknown type.
const TimingPreset* PresetOf(std::ostream& out, Word id, Word type) {
  out << "id         :" << id << std::endl;
  const int number = ToInt(type);
  if (number >= 0 && static_cast<std::size_t>(number) < kTimingPresets.size()) {
    return &kTimingPresets[static_cast<std::size_t>(number)];
  }
  out << "parameter failed." << std::endl;
  cli::Report(out, cli::Status::kUsage, 0, "the type is 0, 1 or 2");
  return nullptr;
}

void SetIntputTiming(std::ostream& out, Word id, Word type) {
  const TimingPreset* preset = PresetOf(out, id, type);
  if (preset == nullptr) return;
  Call(out, "SetIntputTiming", &ApiPlayer::SetIntputTiming, {preset->horizontal, preset->vertical, preset->freq});
}

void SetOutputTiming(std::ostream& out, Word id, Word type) {
  const TimingPreset* preset = PresetOf(out, id, type);
  if (preset == nullptr) return;
  Call(out, "SetOutputTiming", &ApiPlayer::SetOutputTiming, {preset->horizontal, preset->vertical, preset->freq});
}

void CreateUplayer(std::ostream& out, Word id) {
  const auto reply = Call(out, "CreateUplayer", &ApiPlayer::CreateUplayer, {.unique_id = id});
  if (reply.result) RememberPlayer(id);
}

void DeleteUplayer(std::ostream& out, Word id) {
  const auto reply = Call(out, "DeleteUplayer", &ApiPlayer::DeleteUplayer, {.unique_id = id});
  if (reply.result) ForgetPlayer(id);
}

// The two commands with a media source convert its words in their order, which is not that of the fields, so that the
// error is about the first word that is wrong.

ApiPlayer::MediaFileInfo ToMediaInfo(Word file_type, Word play_time_ms, Word se_time_ms, Word se_type, Word url) {
  ApiPlayer::MediaFileInfo info;
  info.file_type = ToInt(file_type);
  info.play_time_ms = ToInt<uint64_t>(play_time_ms);
  info.se_time_ms = ToInt<uint64_t>(se_time_ms);
  info.se_type = ToInt<uint32_t>(se_type);
  info.url = url;
  return info;
}

ApiPlayer::DisplayPosition ToPosition(Word position_x, Word position_y, Word width, Word heigh, Word video_priority) {
  return {ToInt(position_x), ToInt(position_y), ToInt<uint32_t>(width), ToInt<uint32_t>(heigh),
          ToInt<uint32_t>(video_priority)};
}

std::vector<std::string> MediaParameters() {
  return {"id",  "media_type", "play_immed", "file_type", "play_time_ms", "se_time_ms",    "se_type",
          "url", "position_x", "position_y", "width",     "heigh",        "video_priority"};
}

void OpenMediaOfUplayer(std::ostream& out, Word id, Word media_type, Word play_immed, Word file_type, Word play_time_ms,
                        Word se_time_ms, Word se_type, Word url, Word position_x, Word position_y, Word width,
                        Word heigh, Word video_priority) {
  ApiPlayer::OpenMediaOfUplayerReq request;
  request.unique_id = id;
  request.media_type = ToInt(media_type);
  request.play_immed = ToBool(play_immed);
  request.media_info = ToMediaInfo(file_type, play_time_ms, se_time_ms, se_type, url);
  request.dis_pos = ToPosition(position_x, position_y, width, heigh, video_priority);
  Call(out, "OpenMediaOfUplayer", &ApiPlayer::OpenMediaOfUplayer, request);
}

void CloseMediaOfUplayer(std::ostream& out, Word id, Word only_release_fd) {
  Call(out, "CloseMediaOfUplayer", &ApiPlayer::CloseMediaOfUplayer, {id, ToBool(only_release_fd)});
}

void SwitchSourceOfUplayer(std::ostream& out, Word id, Word media_type, Word play_immed, Word file_type,
                           Word play_time_ms, Word se_time_ms, Word se_type, Word url, Word position_x, Word position_y,
                           Word width, Word heigh, Word video_priority) {
  ApiPlayer::SwitchSourceOfUplayerReq request;
  request.unique_id = id;
  request.media_type = ToInt(media_type);
  request.play_immed = ToBool(play_immed);
  request.media_info = ToMediaInfo(file_type, play_time_ms, se_time_ms, se_type, url);
  request.next_dis_pos = ToPosition(position_x, position_y, width, heigh, video_priority);
  Call(out, "SwitchSourceOfUplayer", &ApiPlayer::SwitchSourceOfUplayer, request);
}

void GetMediaInfoOfUplayer(std::ostream& out, Word id) {
  Call(out, "GetMediaInfoOfUplayer", &ApiPlayer::GetMediaInfoOfUplayer, {.unique_id = id});
}

void GetSeekOfUplayer(std::ostream& out, Word id) {
  Call(out, "GetSeekOfUplayer", &ApiPlayer::GetSeekOfUplayer, {.unique_id = id});
}

void SetPauseOfUplayer(std::ostream& out, Word id, Word state) {
  Call(out, "SetPauseOfUplayer", &ApiPlayer::SetPauseOfUplayer, {id, ToBool(state)});
}

void SetSeekOfUplayer(std::ostream& out, Word id, Word seek_ms) {
  Call(out, "SetSeekOfUplayer", &ApiPlayer::SetSeekOfUplayer, {id, ToInt<uint32_t>(seek_ms)});
}

void SetSpeedOfUplayer(std::ostream& out, Word id, Word speed) {
  Call(out, "SetSpeedOfUplayer", &ApiPlayer::SetSpeedOfUplayer, {id, ToFloat(speed)});
}

void SetVolumeOfUplayer(std::ostream& out, Word id, Word volume) {
  Call(out, "SetVolumeOfUplayer", &ApiPlayer::SetVolumeOfUplayer, {id, ToInt<uint32_t>(volume)});
}

// Inserts a command whose example has the words `example`, or logs under the name of its factory that the menu is
// missing.
template <typename Handler>
void InsertCommand(cli::Menu* menu, const char* factory, const char* name, Handler handler, const char* usage,
                   std::vector<std::string> parameters, const char* example) {
  if (menu == nullptr) {
    constexpr std::string_view kFile = klbase_internal::SourceName(__FILE__);
    if (kOptionLogLevel <= 50) {
      KlLog(50, kFile.data(), kFile.size(), __LINE__, factory, std::strlen(factory), "pMenu is nullptr");
    }
    return;
  }
  menu->Insert(WithCompletion(cli::MakeCommand(name, handler, usage, std::move(parameters), example), PlayerWords()));
}

}  // namespace

PlaydCli::PlaydCli(cli::Menu* parent) : RegisteredPlugin(kPlaydCliName) {
  KL_LOG(30, "install rpc cli\n");
  auto menu = std::make_unique<cli::Menu>(kPlaydCliName);
  CreatLiveSystemInitAction(menu.get());
  CreatLiveSystemUnInitAction(menu.get());
  CreatSetIntputTimingAction(menu.get());
  CreatSetOutputTimingAction(menu.get());
  CreatCreateUplayerAction(menu.get());
  CreatDeleteUplayerAction(menu.get());
  CreatOpenMediaOfUplayerAction(menu.get());
  CreatCloseMediaOfUplayerAction(menu.get());
  CreatSwitchSourceOfUplayerAction(menu.get());
  CreatGetMediaInfoOfUplayerAction(menu.get());
  CreatGetSeekOfUplayerAction(menu.get());
  CreatSetPauseOfUplayerAction(menu.get());
  CreatSetSeekOfUplayerAction(menu.get());
  CreatSetSpeedOfUplayerAction(menu.get());
  CreatSetVolumeOfUplayerAction(menu.get());
  menu_ = parent->Insert(std::move(menu));
}

// The usage texts are as operators know them, blanks and missing words included. The examples behind the parameters
// work as they stand where there is a file build/demo/clip.mp4, some of them once a player 0 is there and has opened
// it.

void PlaydCli::CreatLiveSystemInitAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "LiveSystemInit", &LiveSystemInit, "LiveSystemInit xxx ", {"id"}, "0");
}

void PlaydCli::CreatLiveSystemUnInitAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "LiveSystemUnInit", &LiveSystemUnInit, "LiveSystemUnInit xxx ", {"id"}, "0");
}

void PlaydCli::CreatSetIntputTimingAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SetIntputTiming", &SetIntputTiming, "SetIntputTiming xxx 0 ", {"id", "type"}, "0 0");
}

void PlaydCli::CreatSetOutputTimingAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SetOutputTiming", &SetOutputTiming, "SetOutputTiming xxx 0", {"id", "type"}, "0 0");
}

void PlaydCli::CreatCreateUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "CreateUplayer", &CreateUplayer, "CreateUplayer xxx ", {"id"}, "0");
}

void PlaydCli::CreatDeleteUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "DeleteUplayer", &DeleteUplayer, "DeleteUplayer xxx ", {"id"}, "0");
}

void PlaydCli::CreatOpenMediaOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "OpenMediaOfUplayer", &OpenMediaOfUplayer,
                "OpenMediaOfUplayer 0 1 1 1 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0", MediaParameters(),
                "0 1 1 1 0 0 0 build/demo/clip.mp4 0 0 1280 720 0");
}

void PlaydCli::CreatCloseMediaOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "CloseMediaOfUplayer", &CloseMediaOfUplayer, "CloseMediaOfUplayer 0 0",
                {"id", "only_release_fd"}, "0 0");
}

void PlaydCli::CreatSwitchSourceOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SwitchSourceOfUplayer", &SwitchSourceOfUplayer,
                "SwitchSourceOfUplayer 0 1 0 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0", MediaParameters(),
                "0 1 1 1 0 0 0 build/demo/clip.mp4 640 360 640 360 0");
}

void PlaydCli::CreatGetMediaInfoOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "GetMediaInfoOfUplayer", &GetMediaInfoOfUplayer, "GetMediaInfoOfUplayer 0 ", {"id"},
                "0");
}

void PlaydCli::CreatGetSeekOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "GetSeekOfUplayer", &GetSeekOfUplayer, "GetSeekOfUplayer 0 ", {"id"}, "0");
}

void PlaydCli::CreatSetPauseOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SetPauseOfUplayer", &SetPauseOfUplayer, "SetPauseOfUplayer 0 0 ", {"id", "state"},
                "0 1");
}

void PlaydCli::CreatSetSeekOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SetSeekOfUplayer", &SetSeekOfUplayer, "SetSeekOfUplayer 0 1000", {"id", "seek_ms"},
                "0 5000");
}

void PlaydCli::CreatSetSpeedOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SetSpeedOfUplayer", &SetSpeedOfUplayer, "SetSpeedOfUplayer 0 0.3", {"id", "speed"},
                "0 2");
}

void PlaydCli::CreatSetVolumeOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand(pMenu, __func__, "SetVolumeOfUplayer", &SetVolumeOfUplayer, "SetVolumeOfUplayer 0 ", {"id", "volume"},
                "0 50");
}
