#include "example/apisdk/playd/playd_cil.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "apisdk/apisdk.h"
#include "cli/about_word.h"
#include "cli/command.h"
#include "example/apisdk/playd/reply_block.h"
#include "klbase/log.h"

namespace {

using apis::ApiPlayer;

template <std::size_t kCount>
using Words = std::array<const std::string*, kCount>;

// Both throw what std::stoi and std::stof throw, with the word in it: the operator reads which one it was.
template <typename Convert>
auto Converted(const std::string& word, Convert convert) {
  try {
    return convert(word);
  } catch (const std::invalid_argument& error) {
    throw cli::word_error<std::invalid_argument>(word, error.what());
  } catch (const std::out_of_range& error) {
    throw cli::word_error<std::out_of_range>(word, error.what());
  }
}
int ToInt(const std::string& word) {
  return Converted(word, [](const std::string& text) { return std::stoi(text); });
}
float ToFloat(const std::string& word) {
  return Converted(word, [](const std::string& text) { return std::stof(text); });
}

// Store() converts a word to the field's type; a word that is no number throws std::invalid_argument, one that is out
// of int's or float's range std::out_of_range. A negative number for an unsigned field wraps round.

void Store(const std::string& word, std::string& field) { field = word; }
void Store(const std::string& word, bool& field) { field = ToInt(word) != 0; }
void Store(const std::string& word, float& field) { field = ToFloat(word); }
template <std::integral Integer>
void Store(const std::string& word, Integer& field) {
  field = static_cast<Integer>(ToInt(word));
}

// One parameter of a command: how help shows it, and how its word gets into the request.
template <typename Request>
struct Parameter {
  const char* name;
  void (*store)(const std::string& word, Request& request);
};

template <typename Class, typename Type>
Class ClassOf(Type Class::*);

// The parameter for the field that the member pointers lead to, from the request inwards.
template <auto kFirst, auto... kRest>
constexpr auto Field(const char* name) {
  using Request = decltype(ClassOf(kFirst));
  return Parameter<Request>{
      name, [](const std::string& word, Request& request) { Store(word, ((request.*kFirst).*....*kRest)); }};
}

// A command that fills a request from its words, calls one operation of the player and shows the reply.
template <typename Request, typename Reply, std::size_t kCount>
struct PlayerCommand {
  static constexpr std::size_t kWords = kCount;

  std::string_view name;
  const char* usage;
  void (ApiPlayer::*operation)(const Request&, Reply&) const;
  std::array<Parameter<Request>, kCount> parameters;

  std::vector<std::string> ParameterNames() const {
    std::vector<std::string> names;
    for (const auto& parameter : parameters) names.emplace_back(parameter.name);
    return names;
  }

  void Run(std::ostream& out, const Words<kCount>& words) const {
    Request request;
    for (std::size_t i = 0; i < kCount; ++i) parameters[i].store(*words[i], request);
    Reply reply;
    (apis::ApiSdk::instance_.Player()->*operation)(request, reply);
    PrintReply(out, name, reply);
  }
};

template <typename Request, typename Reply, typename... Parameters>
constexpr auto Row(std::string_view name, const char* usage, void (ApiPlayer::*operation)(const Request&, Reply&) const,
                   const Parameters&... parameters) {
  return PlayerCommand<Request, Reply, sizeof...(Parameters)>{name, usage, operation, {parameters...}};
}

// The two commands that put a whole media source on a layer differ in where the position goes.
template <typename Request, auto kPosition>
constexpr auto MediaRow(std::string_view name, const char* usage,
                        void (ApiPlayer::*operation)(const Request&, ApiPlayer::UniversalResp&) const) {
  using Info = ApiPlayer::MediaFileInfo;
  using Position = ApiPlayer::DisplayPosition;
  return Row(name, usage, operation, Field<&Request::unique_id>("id"), Field<&Request::media_type>("media_type"),
             Field<&Request::play_immed>("play_immed"), Field<&Request::media_info, &Info::file_type>("file_type"),
             Field<&Request::media_info, &Info::play_time_ms>("play_time_ms"),
             Field<&Request::media_info, &Info::se_time_ms>("se_time_ms"),
             Field<&Request::media_info, &Info::se_type>("se_type"), Field<&Request::media_info, &Info::url>("url"),
             Field<kPosition, &Position::position_x>("position_x"),
             Field<kPosition, &Position::position_y>("position_y"), Field<kPosition, &Position::width>("width"),
             Field<kPosition, &Position::heigh>("heigh"),
             Field<kPosition, &Position::video_priority>("video_priority"));
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

// A command that sends one of the presets. Timings belong to no player: the id is only shown again.
template <typename Request>
struct TimingCommand {
  static constexpr std::size_t kWords = 2;

  std::string_view name;
  const char* usage;
  void (ApiPlayer::*operation)(const Request&, ApiPlayer::UniversalResp&) const;

  std::vector<std::string> ParameterNames() const { return {"id", "type"}; }

  void Run(std::ostream& out, const Words<kWords>& words) const {
    out << "id         :" << *words[0] << std::endl;
    const int type = ToInt(*words[1]);
    if (type < 0 || static_cast<std::size_t>(type) >= kTimingPresets.size()) {
      out << "parameter failed." << std::endl;
      return;
    }
    const TimingPreset& preset = kTimingPresets[static_cast<std::size_t>(type)];
    ApiPlayer::UniversalResp reply;
    (apis::ApiSdk::instance_.Player()->*operation)({preset.horizontal, preset.vertical, preset.freq}, reply);
    PrintReply(out, name, reply);
  }
};

// The menu, in its order. The usage examples are kept as operators know them, blanks included.
constexpr std::tuple kCommands = {
    Row("LiveSystemInit", "LiveSystemInit xxx ", &ApiPlayer::LiveSystemInit,
        Field<&ApiPlayer::LiveSystemInitReq::unique_id>("id")),
    Row("LiveSystemUnInit", "LiveSystemUnInit xxx ", &ApiPlayer::LiveSystemUnInit,
        Field<&ApiPlayer::LiveSystemUnInitReq::unique_id>("id")),
    TimingCommand<ApiPlayer::SetIntputTimingReq>{"SetIntputTiming", "SetIntputTiming xxx 0 ",
                                                 &ApiPlayer::SetIntputTiming},
    TimingCommand<ApiPlayer::SetOutputTimingReq>{"SetOutputTiming", "SetOutputTiming xxx 0",
                                                 &ApiPlayer::SetOutputTiming},
    Row("CreateUplayer", "CreateUplayer xxx ", &ApiPlayer::CreateUplayer,
        Field<&ApiPlayer::CreateUplayerReq::unique_id>("id")),
    Row("DeleteUplayer", "DeleteUplayer xxx ", &ApiPlayer::DeleteUplayer,
        Field<&ApiPlayer::DeleteUplayerReq::unique_id>("id")),
    MediaRow<ApiPlayer::OpenMediaOfUplayerReq, &ApiPlayer::OpenMediaOfUplayerReq::dis_pos>(
        "OpenMediaOfUplayer", "OpenMediaOfUplayer 0 1 1 1 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0",
        &ApiPlayer::OpenMediaOfUplayer),
    Row("CloseMediaOfUplayer", "CloseMediaOfUplayer 0 0", &ApiPlayer::CloseMediaOfUplayer,
        Field<&ApiPlayer::CloseMediaOfUplayerReq::unique_id>("id"),
        Field<&ApiPlayer::CloseMediaOfUplayerReq::only_release_fd>("only_release_fd")),
    MediaRow<ApiPlayer::SwitchSourceOfUplayerReq, &ApiPlayer::SwitchSourceOfUplayerReq::next_dis_pos>(
        "SwitchSourceOfUplayer", "SwitchSourceOfUplayer 0 1 0 100 100 0  /usr/kelo/bin/test.mp4 0 0 1920 1080 0",
        &ApiPlayer::SwitchSourceOfUplayer),
    Row("GetMediaInfoOfUplayer", "GetMediaInfoOfUplayer 0 ", &ApiPlayer::GetMediaInfoOfUplayer,
        Field<&ApiPlayer::GetMediaInfoOfUplayerReq::unique_id>("id")),
    Row("GetSeekOfUplayer", "GetSeekOfUplayer 0 ", &ApiPlayer::GetSeekOfUplayer,
        Field<&ApiPlayer::GetSeekOfUplayerReq::unique_id>("id")),
    Row("SetPauseOfUplayer", "SetPauseOfUplayer 0 0 ", &ApiPlayer::SetPauseOfUplayer,
        Field<&ApiPlayer::SetPauseOfUplayerReq::unique_id>("id"),
        Field<&ApiPlayer::SetPauseOfUplayerReq::state>("state")),
    Row("SetSeekOfUplayer", "SetSeekOfUplayer 0 1000", &ApiPlayer::SetSeekOfUplayer,
        Field<&ApiPlayer::SetSeekOfUplayerReq::unique_id>("id"),
        Field<&ApiPlayer::SetSeekOfUplayerReq::seek_ms>("seek_ms")),
    Row("SetSpeedOfUplayer", "SetSpeedOfUplayer 0 0.3", &ApiPlayer::SetSpeedOfUplayer,
        Field<&ApiPlayer::SetSpeedOfUplayerReq::unique_id>("id"),
        Field<&ApiPlayer::SetSpeedOfUplayerReq::speed>("speed")),
    Row("SetVolumeOfUplayer", "SetVolumeOfUplayer 0 ", &ApiPlayer::SetVolumeOfUplayer,
        Field<&ApiPlayer::SetVolumeOfUplayerReq::unique_id>("id"),
        Field<&ApiPlayer::SetVolumeOfUplayerReq::volume>("volume")),
};
constexpr std::size_t kCommandCount = std::tuple_size_v<decltype(kCommands)>;

// The row of a command; a name that has none doesn't compile.
consteval std::size_t RowOf(std::string_view name) {
  const auto names = std::apply([](const auto&... rows) { return std::array{rows.name...}; }, kCommands);
  for (std::size_t row = 0; row < names.size(); ++row) {
    if (names[row] == name) return row;
  }
  throw "no such command";
}

template <std::size_t>
using Word = std::string;

// The console converts one word for each parameter of a handler, so every row gets a handler with as many.
template <std::size_t kRow, std::size_t... kIndexes>
auto HandlerOf(std::index_sequence<kIndexes...>) {
  return [](std::ostream& out, const Word<kIndexes>&... words) { std::get<kRow>(kCommands).Run(out, {&words...}); };
}

// Inserts the command of row kRow; `factory` is the name that a missing menu is logged under.
template <std::size_t kRow>
void InsertCommand(cli::Menu* menu, const char* factory) {
  if (menu == nullptr) {
    constexpr std::string_view kFile = klbase_internal::SourceName(__FILE__);
    if (kOptionLogLevel <= 50) {
      KlLog(50, kFile.data(), kFile.size(), __LINE__, factory, std::strlen(factory), "pMenu is nullptr");
    }
    return;
  }
  constexpr auto& kCommand = std::get<kRow>(kCommands);
  using Indexes = std::make_index_sequence<std::remove_cvref_t<decltype(kCommand)>::kWords>;
  menu->Insert(cli::MakeCommand(std::string(kCommand.name), HandlerOf<kRow>(Indexes()), kCommand.usage,
                                kCommand.ParameterNames()));
}

}  // namespace

PlaydCli::PlaydCli(cli::Menu* parent) : RegisteredPlugin(kPlaydCliName) {
  KL_LOG(30, "install rpc cli\n");
  auto menu = std::make_unique<cli::Menu>(kPlaydCliName);
  constexpr std::array kFactories = {
      &CreatLiveSystemInitAction,        &CreatLiveSystemUnInitAction,    &CreatSetIntputTimingAction,
      &CreatSetOutputTimingAction,       &CreatCreateUplayerAction,       &CreatDeleteUplayerAction,
      &CreatOpenMediaOfUplayerAction,    &CreatCloseMediaOfUplayerAction, &CreatSwitchSourceOfUplayerAction,
      &CreatGetMediaInfoOfUplayerAction, &CreatGetSeekOfUplayerAction,    &CreatSetPauseOfUplayerAction,
      &CreatSetSeekOfUplayerAction,      &CreatSetSpeedOfUplayerAction,   &CreatSetVolumeOfUplayerAction};
  static_assert(kFactories.size() == kCommandCount);
  for (const auto factory : kFactories) factory(menu.get());
  menu_ = parent->Insert(std::move(menu));
}

void PlaydCli::CreatLiveSystemInitAction(cli::Menu* pMenu) { InsertCommand<RowOf("LiveSystemInit")>(pMenu, __func__); }

void PlaydCli::CreatLiveSystemUnInitAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("LiveSystemUnInit")>(pMenu, __func__);
}

void PlaydCli::CreatSetIntputTimingAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SetIntputTiming")>(pMenu, __func__);
}

void PlaydCli::CreatSetOutputTimingAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SetOutputTiming")>(pMenu, __func__);
}

void PlaydCli::CreatCreateUplayerAction(cli::Menu* pMenu) { InsertCommand<RowOf("CreateUplayer")>(pMenu, __func__); }

void PlaydCli::CreatDeleteUplayerAction(cli::Menu* pMenu) { InsertCommand<RowOf("DeleteUplayer")>(pMenu, __func__); }

void PlaydCli::CreatOpenMediaOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("OpenMediaOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatCloseMediaOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("CloseMediaOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatSwitchSourceOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SwitchSourceOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatGetMediaInfoOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("GetMediaInfoOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatGetSeekOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("GetSeekOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatSetPauseOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SetPauseOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatSetSeekOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SetSeekOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatSetSpeedOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SetSpeedOfUplayer")>(pMenu, __func__);
}

void PlaydCli::CreatSetVolumeOfUplayerAction(cli::Menu* pMenu) {
  InsertCommand<RowOf("SetVolumeOfUplayer")>(pMenu, __func__);
}
