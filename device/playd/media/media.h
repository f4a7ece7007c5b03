// One opened medium: decoded by a pipeline of its own, its pictures on a layer, its sound on a track.
#ifndef DEVICE_PLAYD_MEDIA_MEDIA_H_
#define DEVICE_PLAYD_MEDIA_MEDIA_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/gst.h"
#include "playd/canvas/canvas.h"
#include "playd/error_code.h"
#include "playd/media/branches.h"
#include "playd/media/mailbox.h"
#include "playd/sound/mixer.h"

namespace playd {

// The facts that a medium states of itself; 0 where it states none.
struct MediaInfo {
  std::string url;  // as it was opened
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t duration_ms = 0;
};

// What a medium is, as it turned out when it was opened.
enum class MediaKind { kVideo, kPicture, kSound };

// The place of play in a medium.
struct Position {
  std::uint32_t position_ms = 0;
  std::uint32_t duration_ms = 0;
};

// Used by one thread at a time. Every operation takes a limit; one that runs into it leaves the medium fit only for
// destruction. Destruction stops decoding and waits for its threads. Canvas and mixer must outlive it.
class Media {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  enum class Event { kNone, kEnded, kFailed };

  // Prepares to decode `uri` into `rectangle`; `wake` is called on GStreamer's threads, any number of times, when
  // TakeEvent() may have something new. Once `stop` is set, waits end within moments as if their time were up. Nothing
  // is shown until its layer is.
  Media(const std::string& url, const std::string& uri, const Rectangle& rectangle, std::uint32_t priority,
        Canvas& canvas, Mixer& mixer, std::function<void()> wake, const std::atomic<bool>& stop);
  Media(const Media&) = delete;
  Media& operator=(const Media&) = delete;
  ~Media();

  // Opens the medium and decodes its first picture. Afterwards it stands paused at its beginning; a live one runs,
  // unheard. A live one whose first picture is not there in time, because its sender sends a key picture now and then
  // only, is open all the same once it has sent something.
  Outcome Preroll(Deadline deadline);

  // A live medium that is paused is received on, unseen and unheard, and goes on from the present.
  Outcome Play(Deadline deadline);
  Outcome Pause(Deadline deadline);

  // Goes to a position (accurate to the picture) at a rate, and returns when the picture there was decoded. Refuses
  // positions behind the end and media without positions. Play goes on or stays paused, as before; at a negative rate
  // it goes back from there and ends at the medium's beginning. Above kDenseSpeed, either way, only key pictures are
  // shown, and there is no sound.
  Outcome Seek(std::uint64_t position_ms, double rate, Deadline deadline);

  static constexpr double kDenseSpeed = 8;

  // 0 is silence, 1 the medium's own loudness. After Preroll(); without sound it does nothing.
  void SetVolume(double factor);

  // On which the medium is shown; not after ReleaseLayer().
  Layer& GetLayer() { return branches_->GetLayer(); }
  // Without sound from now on.
  void Mute() { branches_->Mute(true); }

  // The event since the last call; kFailed comes with a text.
  Event TakeEvent(std::string& text);

  Position GetPosition() const;
  const MediaInfo& Info();
  const std::string& Url() const { return info_.url; }
  // Nothing while it is not known of a live medium: no stream was found in it, or sound alone so far.
  std::optional<MediaKind> Kind() const;
  bool IsLive() const { return live_; }
  bool IsPicture() const;
  bool IsSeekable() const;

  // Lets go of the file and leaves its last picture on the layer that is handed over. The medium can only be destroyed
  // afterwards.
  std::unique_ptr<Layer> ReleaseLayer();

 private:
  Outcome PrerollLive(Deadline deadline);
  Outcome HoldLive(bool hold);
  bool SendSeek(std::uint64_t position_ms, double rate);
  std::uint32_t BackwardPositionMs() const;
  Outcome WaitSettled(Deadline deadline, const char* what);
  Outcome ChangeState(GstState state, Deadline deadline, const char* what);
  void ReadInfo();

  const bool live_;
  MediaInfo info_;
  bool held_ = false;  // live and paused, there
  std::uint32_t held_at_ms_ = 0;
  double rate_ = 1;              // of the last seek
  std::uint64_t sought_ms_ = 0;  // where it went
  const std::atomic<bool>& stop_;
  const std::shared_ptr<Mailbox> mailbox_;
  const std::unique_ptr<Branches> branches_;
  // Last, so that it is stopped before the objects that its threads use go away.
  std::unique_ptr<device::Pipeline> pipeline_;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_MEDIA_MEDIA_H_
