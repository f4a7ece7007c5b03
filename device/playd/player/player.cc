#include "playd/player/player.h"

#include <absl/strings/escaping.h>
#include <absl/strings/str_format.h>

#include <cmath>
#include <exception>
#include <utility>

#include "playd/media/media_url.h"
#include "playd/player/effects.h"
#include "player/v1/player.pb.h"

namespace playd {
namespace {

constexpr std::int32_t kLastType = 3;  // of MediaType and of FileType
constexpr auto kFadePoll = std::chrono::milliseconds(20);

Outcome CheckRequest(const MediaRequest& request) {
  if (request.media_type < 0 || request.media_type > kLastType || request.file_type < 0 ||
      request.file_type > kLastType) {
    return Outcome::Error(ErrorCode::kInvalidArgument,
                          absl::StrFormat("media_type is %d and file_type %d; both must be 0 to %d", request.media_type,
                                          request.file_type, kLastType));
  }
  if (request.effect > kLastEffect) {
    return Outcome::Error(
        ErrorCode::kInvalidArgument,
        absl::StrFormat("unsupported se_type %u; it must be 0 (at once), 1 (fade) or 2 (cross-fade)", request.effect));
  }
  if (request.effect != 0 && request.effect_ms > kMaxEffectMs) {
    return Outcome::Error(ErrorCode::kInvalidArgument,
                          absl::StrFormat("se_time_ms is %u; it must be 0 to %u", request.effect_ms, kMaxEffectMs));
  }
  return CheckRectangle(request.rectangle);
}

// The enumerators of lp.v1.FileType and lp.v1.MediaType that a kind of medium goes by. There is no media type for
// sound: it goes by that of what plays on, video.
struct KindWords {
  const char* name;
  std::int32_t file_type;
  std::int32_t media_type;
};

KindWords WordsOf(MediaKind kind) {
  switch (kind) {
    case MediaKind::kVideo:
      return {"a video", lp::v1::VIDEO, lp::v1::VIDEO_TYPE};
    case MediaKind::kPicture:
      return {"a picture", lp::v1::PICTURE, lp::v1::PICTURE_TYPE};
    case MediaKind::kSound:
      break;
  }
  return {"sound alone", lp::v1::AUDIO, lp::v1::VIDEO_TYPE};
}

Outcome Contradiction(const MediaRequest& request, MediaKind kind, const char* field, const std::string& type) {
  return Outcome::Error(ErrorCode::kContradiction,
                        absl::StrFormat("%s is %s, but %s says %s", request.url, WordsOf(kind).name, field, type));
}

Outcome CheckKind(const MediaRequest& request, MediaKind kind) {
  const KindWords words = WordsOf(kind);
  if (request.file_type != lp::v1::UNSPECIFIED_FILETYPE && request.file_type != words.file_type) {
    return Contradiction(request, kind, "file_type", lp::v1::FileType_Name(request.file_type));
  }
  if (request.media_type != lp::v1::UNSPECIFIED_MEDIATYPE && request.media_type != lp::v1::VIDEO_PICTURE_TYPE &&
      request.media_type != words.media_type) {
    return Contradiction(request, kind, "media_type", lp::v1::MediaType_Name(request.media_type));
  }
  return Outcome::Ok();
}

// Refusals of what was asked for, not of the medium, which is fine.
bool IsRequestsFault(ErrorCode code) {
  return code == ErrorCode::kSeekBehindEnd || code == ErrorCode::kNotSeekable || code == ErrorCode::kContradiction;
}

}  // namespace

Player::Player(const std::string& id, Canvas& canvas, Mixer& mixer, PlayerListener& listener,
               const PlayerLimits& limits)
    : id_(id),
      canvas_(canvas),
      mixer_(mixer),
      listener_(listener),
      limits_(limits),
      worker_([this] { OnWake(); }, [this] { OnStop(); }) {}

Outcome Player::Run(std::function<Outcome(Media::Deadline)> operation) {
  return worker_.Run(
      [operation = std::move(operation), limit = limits_.media] {
        try {
          return operation(std::chrono::steady_clock::now() + limit);
        } catch (const std::exception& error) {
          return Outcome::Error(ErrorCode::kMediaFailed, error.what());
        }
      },
      limits_.reply);
}

Outcome Player::Open(const MediaRequest& request) {
  if (auto outcome = CheckRequest(request); !outcome.ok()) return outcome;
  return Run([this, request](Media::Deadline) {
    if (media_ == nullptr) return DoOpen(request);
    return Outcome::Error(ErrorCode::kMediaOpen, media_->Url() + " is open already; close it or switch the source");
  });
}

Outcome Player::Switch(const MediaRequest& request) {
  if (auto outcome = CheckRequest(request); !outcome.ok()) return outcome;
  return Run([this, request](Media::Deadline) {
    auto outcome = NeedMedia();
    return outcome.ok() ? DoOpen(request) : outcome;
  });
}

Outcome Player::Close(bool keep_picture) {
  return Run([this, keep_picture](Media::Deadline) {
    // A picture that an earlier call kept is taken away without an open medium.
    if (media_ == nullptr && !keep_picture && kept_layer_ != nullptr) {
      kept_layer_.reset();
      return Outcome::Ok();
    }
    if (auto outcome = NeedMedia(); !outcome.ok()) return outcome;
    if (keep_picture) kept_layer_ = media_->ReleaseLayer();
    CloseMedia();
    return Outcome::Ok();
  });
}

Outcome Player::SetPause(bool pause) {
  return Run([this, pause](Media::Deadline deadline) { return pause ? DoPause(deadline) : DoResume(deadline); });
}

Outcome Player::Seek(std::uint32_t position_ms) {
  return Run([this, position_ms](Media::Deadline deadline) { return DoSeek(position_ms, deadline); });
}

Outcome Player::SetSpeed(float speed) {
  // Compared as it is written, so that the float nearest to 0.03 passes. Not-a-number fails both comparisons.
  const float size = std::abs(speed);
  if (!(size >= static_cast<float>(kMinSpeed) && size <= static_cast<float>(kMaxSpeed))) {
    return Outcome::Error(ErrorCode::kBadSpeed,
                          absl::StrFormat("speed is %g; it must be %g to %g, or %g to %g backward", speed, kMinSpeed,
                                          kMaxSpeed, -kMinSpeed, -kMaxSpeed));
  }
  return Run([this, speed](Media::Deadline deadline) { return DoSetSpeed(speed, deadline); });
}

Outcome Player::SetVolume(std::uint32_t volume) {
  if (volume > kMaxVolume) {
    return Outcome::Error(ErrorCode::kBadVolume,
                          absl::StrFormat("volume is %u; it must be 0 to %u", volume, kMaxVolume));
  }
  return Run([this, volume](Media::Deadline) {
    volume_ = static_cast<double>(volume) / kMaxVolume;
    if (media_ != nullptr) media_->SetVolume(volume_);
    return Outcome::Ok();
  });
}

Outcome Player::SetUsbLink(std::uint32_t state) {
  if (state > 1) {
    return Outcome::Error(ErrorCode::kInvalidArgument,
                          absl::StrFormat("usb_state is %u; it must be 0 (unplugged) or 1 (plugged in)", state));
  }
  return Run([this, state](Media::Deadline) {
    usb_state_ = state;
    return Outcome::Ok();
  });
}

Outcome Player::GetPosition(Position& position) {
  // The task may outlive this call, so it writes to a place of its own.
  const auto found = std::make_shared<Position>();
  auto outcome = Run([this, found](Media::Deadline) {
    if (media_ != nullptr) *found = media_->GetPosition();
    return NeedMedia();
  });
  if (outcome.ok()) position = *found;
  return outcome;
}

Outcome Player::GetMediaInfo(MediaInfo& info) {
  const auto found = std::make_shared<MediaInfo>();
  auto outcome = Run([this, found](Media::Deadline) {
    if (media_ != nullptr) *found = media_->Info();
    return NeedMedia();
  });
  if (outcome.ok()) info = *found;
  return outcome;
}

Outcome Player::NeedMedia() const {
  if (media_ != nullptr) return Outcome::Ok();
  return Outcome::Error(ErrorCode::kNoMedia, "player " + id_ + " has no open media; open one first");
}

void Player::Report(PlayState state) const { listener_.OnPlayState(id_, media_->Url(), state); }

// A medium that goes while it plays, or stands paused, ends there, for those who follow the reports.
void Player::ReportEndBeforeItsEnd() const {
  if (media_ != nullptr && (state_ == State::kPlaying || state_ == State::kPaused)) Report(PlayState::kEnded);
}

void Player::CloseMedia() {
  ReportEndBeforeItsEnd();
  media_.reset();
  leaving_ = {};
  state_ = State::kClosed;
}

// A medium that can't be played is refused and also reported, for those who follow the reports. Not so while another
// one plays on: the player has not failed then.
Outcome Player::DoOpen(const MediaRequest& request) {
  const auto deadline = std::chrono::steady_clock::now() + limits_.media;
  std::unique_ptr<Media> media;
  auto outcome = Prepare(request, deadline, media);
  if (outcome.ok()) outcome = Adopt(std::move(media), request, deadline);
  if (!outcome.ok() && media_ == nullptr && !IsRequestsFault(outcome.code)) {
    listener_.OnPlayState(id_, request.url, PlayState::kFailed);
  }
  return outcome;
}

// The player's medium, if there is one, plays on meanwhile, in a pipeline of its own.
Outcome Player::Prepare(const MediaRequest& request, Media::Deadline deadline, std::unique_ptr<Media>& media) {
  std::string uri;
  if (auto outcome = ResolveUrl(request.url, uri); !outcome.ok()) return outcome;
  media = std::make_unique<Media>(
      request.url, uri, request.rectangle, request.priority, canvas_, mixer_, [this] { worker_.Wake(); }, stop_);
  if (auto outcome = media->Preroll(deadline); !outcome.ok()) return outcome;
  const auto kind = media->Kind();
  if (auto outcome = kind ? CheckKind(request, *kind) : Outcome::Ok(); !outcome.ok()) return outcome;
  media->SetVolume(volume_);
  const std::uint64_t start_ms = request.start_ms != 0 ? request.start_ms : BeginningOf(*media);
  const bool moved = start_ms != 0 || speed_ != 1.0;
  if (media->IsPicture() || !moved) return Outcome::Ok();
  // A medium without positions plays from where it is at its own speed, if nothing else was asked for.
  if (!media->IsSeekable() && request.start_ms == 0) return Outcome::Ok();
  return media->Seek(start_ms, speed_, deadline);
}

// Of play, at the player's speed: backward play begins at the end of the medium.
std::uint64_t Player::BeginningOf(const Media& media) const { return speed_ < 0 ? media.GetPosition().duration_ms : 0; }

Outcome Player::Adopt(std::unique_ptr<Media> media, const MediaRequest& request, Media::Deadline deadline) {
  const bool play = request.play_immediately;
  if (play || media->IsLive()) {
    if (auto outcome = play ? media->Play(deadline) : media->Pause(deadline); !outcome.ok()) return outcome;
  }
  if (!play) ReportEndBeforeItsEnd();  // no start tells of it
  ShowInPlaceOfTheOld(*media, request);
  media_ = std::move(media);
  state_ = play ? State::kPlaying : State::kOpened;
  if (play) Report(PlayState::kStarted);
  return Outcome::Ok();
}

// The new picture is shown before the old one goes, so that nothing else shows through between them.
void Player::ShowInPlaceOfTheOld(Media& media, const MediaRequest& request) {
  Leaving old{std::move(media_), std::move(kept_layer_)};
  Layer* const old_layer = old.media != nullptr ? &old.media->GetLayer() : old.layer.get();
  const auto length = std::chrono::milliseconds(request.effect_ms);
  const bool goes_on = Appear(static_cast<Effect>(request.effect), length, old_layer, media.GetLayer());
  leaving_ = {};
  if (!goes_on || old_layer == nullptr) return;
  if (old.media != nullptr) old.media->Mute();
  leaving_ = std::move(old);
  worker_.WakeAt(std::chrono::steady_clock::now() + length);
}

bool Player::Leaving::IsFading() const {
  return (media != nullptr && media->GetLayer().IsFading()) || (layer != nullptr && layer->IsFading());
}

// Again and again when the last picture of the effect is late.
void Player::ClearAwayLeaving() {
  if (leaving_.media == nullptr && leaving_.layer == nullptr) return;
  if (leaving_.IsFading() || (media_ != nullptr && media_->GetLayer().IsFading())) {
    worker_.WakeAt(std::chrono::steady_clock::now() + kFadePoll);
  } else {
    leaving_ = {};
  }
}

Outcome Player::DoPause(Media::Deadline deadline) {
  if (auto outcome = NeedMedia(); !outcome.ok()) return outcome;
  if (state_ == State::kEnded) {
    return Outcome::Error(ErrorCode::kEnded, media_->Url() + " is at its end; resume or seek to play it again");
  }
  if (state_ != State::kPlaying) return Outcome::Ok();
  if (auto outcome = media_->Pause(deadline); !outcome.ok()) return outcome;
  state_ = State::kPaused;
  Report(PlayState::kPaused);
  return Outcome::Ok();
}

Outcome Player::DoResume(Media::Deadline deadline) {
  if (auto outcome = NeedMedia(); !outcome.ok()) return outcome;
  if (state_ == State::kEnded) return Restart(deadline);
  if (state_ == State::kPlaying) return Outcome::Ok();
  if (auto outcome = media_->Play(deadline); !outcome.ok()) return outcome;
  // The first resume of a medium that was opened paused is its start.
  const PlayState report = state_ == State::kOpened ? PlayState::kStarted : PlayState::kResumed;
  state_ = State::kPlaying;
  Report(report);
  return Outcome::Ok();
}

// The pipeline plays still, if at its end: it goes on from the position that it is given.
Outcome Player::Restart(Media::Deadline deadline) {
  if (!media_->IsSeekable()) {
    return Outcome::Error(ErrorCode::kEnded, media_->Url() + " is at its end; open it again to play it again");
  }
  if (auto outcome = media_->Seek(BeginningOf(*media_), speed_, deadline); !outcome.ok()) return outcome;
  state_ = State::kPlaying;
  Report(PlayState::kStarted);
  return Outcome::Ok();
}

Outcome Player::DoSeek(std::uint32_t position_ms, Media::Deadline deadline) {
  if (auto outcome = NeedMedia(); !outcome.ok()) return outcome;
  auto outcome = media_->Seek(position_ms, speed_, deadline);
  // Refused before the seek was begun, so there is no result to report.
  if (outcome.code == ErrorCode::kNotSeekable || outcome.code == ErrorCode::kSeekBehindEnd) return outcome;
  if (outcome.ok() && state_ == State::kEnded) {
    state_ = State::kPlaying;
    Report(PlayState::kResumed);
  }
  listener_.OnSeekDone(id_, media_->GetPosition(), outcome);
  return outcome;
}

// GStreamer sets a speed by a seek. At the end it only counts for the seek that plays on from there.
Outcome Player::DoSetSpeed(double speed, Media::Deadline deadline) {
  if (media_ != nullptr && speed != speed_ && state_ != State::kEnded) {
    const Position now = media_->GetPosition();
    if (auto outcome = media_->Seek(now.position_ms, speed, deadline); !outcome.ok()) return outcome;
  }
  speed_ = speed;
  return Outcome::Ok();
}

// On the player's thread, where a medium may be destroyed: on GStreamer's, which told of the event, it would wait for
// itself.
void Player::OnWake() {
  ClearAwayLeaving();
  if (media_ == nullptr) return;
  std::string text;
  switch (media_->TakeEvent(text)) {
    case Media::Event::kNone:
      return;
    case Media::Event::kEnded:
      state_ = State::kEnded;
      Report(PlayState::kEnded);
      return;
    case Media::Event::kFailed:
      Report(PlayState::kFailed);  // with the address, which goes with the medium
      state_ = State::kClosed;
      CloseMedia();
      return;
  }
}

std::string Player::Describe(std::chrono::milliseconds limit) {
  const auto found = std::make_shared<std::string>();
  const auto outcome = worker_.Run(
      [this, found] {
        *found = DescribeNow();
        return Outcome::Ok();
      },
      limit);
  return absl::StrFormat("player \"%s\": %s", absl::Utf8SafeCEscape(id_), outcome.ok() ? *found : "busy");
}

std::string Player::DescribeNow() const {
  static constexpr const char* kStates[] = {"closed", "opened", "playing", "paused", "ended"};
  std::string text = kStates[static_cast<int>(state_)];
  if (media_ != nullptr) {
    const Position at = media_->GetPosition();
    text += absl::StrFormat(" %s at %u of %u ms", absl::Utf8SafeCEscape(media_->Url()), at.position_ms, at.duration_ms);
  }
  text += absl::StrFormat(", speed %g, volume %g", speed_, volume_ * kMaxVolume);
  if (usb_state_) text += *usb_state_ == 0 ? ", usb unplugged" : ", usb plugged in";
  return text;
}

void Player::OnStop() {
  CloseMedia();
  kept_layer_.reset();
}

}  // namespace playd
