#include "playd/canvas/canvas.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "base/hand_over.h"
#include "klbase/log.h"
#include "klbase/steady_cond_var.h"
#include "playd/canvas/whole_file.h"
#include "playd/canvas/window.h"

namespace playd {
namespace {

using std::chrono::steady_clock;

constexpr std::size_t kBytesPerPixel = 3;
constexpr double kHundredths = 100;  // of a hertz

// The compositor compares by signed subtraction.
constexpr std::uint32_t kTopPriority = INT_MAX;

// One colour space for layers and canvas, so that composing converts nothing.
constexpr char kFormat[] =
    "video/x-raw,format=I420,pixel-aspect-ratio=1/1,interlace-mode=progressive,colorimetry=bt709";

std::string ModeCaps(const CanvasMode& mode, int frequency) {
  return absl::StrCat(kFormat, ",width=", mode.width, ",height=", mode.height, ",framerate=", frequency, "/100");
}

// force-live: pictures come out on time without any layer, and without waiting for one that has nothing new.
std::string CanvasPipeline() {
  return "compositor name=compositor background=black force-live=true ignore-inactive-pads=true "
         "zero-size-is-unscaled=false ! capsfilter name=filter caps=" +
         ModeCaps(CanvasMode(), CanvasMode().frequency) + " ! fakesink sync=true enable-last-sample=false qos=false";
}

std::string FrameCapsOf(const Rectangle& place) {
  return absl::StrCat(kFormat, ",width=", place.width, ",height=", place.height);
}

// A source of a layer's frames. Leaky: when frames come faster than they are composed, older ones go.
device::ElementPtr MakeSource() {
  device::ElementPtr source(gst_element_factory_make("appsrc", nullptr));
  gst_object_ref_sink(source.get());
  g_object_set(source.get(), "format", GST_FORMAT_TIME, "is-live", TRUE, "do-timestamp", TRUE, "max-buffers",
               guint64{2}, "max-bytes", guint64{0}, "leaky-type", GST_APP_LEAKY_TYPE_DOWNSTREAM, nullptr);
  return source;
}

// One composed picture, taken as it comes by.
struct Catcher {
  absl::Mutex mutex;
  klbase::SteadyCondVar caught;
  device::SamplePtr sample ABSL_GUARDED_BY(mutex);
};

// Called on the compositor's streaming thread for each picture. A probe, not a sink: the pipeline stays as it is, and
// nothing is converted or copied while nobody asks for a picture.
GstPadProbeReturn CatchPicture(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  const device::HandedOver catcher_of_other_thread(data);
  Catcher& catcher = **static_cast<std::shared_ptr<Catcher>*>(data);
  const device::CapsPtr caps(gst_pad_get_current_caps(pad));
  const absl::MutexLock lock(&catcher.mutex);
  if (catcher.sample == nullptr) {
    catcher.sample.reset(gst_sample_new(GST_PAD_PROBE_INFO_BUFFER(info), caps.get(), nullptr, nullptr));
    catcher.caught.SignalAll();
  }
  return GST_PAD_PROBE_OK;
}

// The probe's share of the catcher: GStreamer drops it when the last call of the probe has returned.
void DropCatcher(gpointer data) {
  device::TakeOver(data);
  delete static_cast<std::shared_ptr<Catcher>*>(data);
}

device::SamplePtr Convert(GstSample* sample, const char* caps_text, std::chrono::milliseconds timeout) {
  const device::CapsPtr caps(gst_caps_from_string(caps_text));
  const auto limit = std::chrono::duration_cast<std::chrono::nanoseconds>(timeout).count();
  return device::SamplePtr(gst_video_convert_sample(sample, caps.get(), static_cast<GstClockTime>(limit), nullptr));
}

// Rows of a mapped frame may be padded; those of the result are not.
bool CopyRows(GstSample* sample, Picture& picture) {
  GstVideoInfo info;
  if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample))) return false;
  GstVideoFrame frame;
  if (!gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) return false;
  picture.width = GST_VIDEO_FRAME_WIDTH(&frame);
  picture.height = GST_VIDEO_FRAME_HEIGHT(&frame);
  const std::size_t row_bytes = static_cast<std::size_t>(picture.width) * kBytesPerPixel;
  picture.rgb.resize(row_bytes * static_cast<std::size_t>(picture.height));
  const auto* from = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
  for (int y = 0; y < picture.height; ++y) {
    std::memcpy(picture.rgb.data() + row_bytes * static_cast<std::size_t>(y),
                from + static_cast<std::ptrdiff_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0)) * y, row_bytes);
  }
  gst_video_frame_unmap(&frame);
  return true;
}

}  // namespace

Picture::Pixel Picture::At(int x, int y) const {
  const std::size_t at =
      (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * kBytesPerPixel;
  return {rgb.at(at), rgb.at(at + 1), rgb.at(at + 2)};
}

Layer::Layer(Canvas& canvas, const Rectangle& rectangle, std::uint32_t priority)
    : canvas_(canvas),
      priority_(priority),
      source_(MakeSource()),
      pad_(gst_element_request_pad_simple(canvas.compositor_.get(), "sink_%u")),
      frame_caps_(FrameCapsOf(canvas.Place(pad_.get(), rectangle))) {
  // No frame rate: each frame is shown until the next one comes.
  const device::CapsPtr caps(gst_caps_from_string((frame_caps_ + ",framerate=0/1").c_str()));
  g_object_set(source_.get(), "caps", caps.get(), nullptr);
  g_object_set(pad_.get(), "zorder", std::min(priority, kTopPriority), "alpha", 0.0, nullptr);
  gst_bin_add(GST_BIN(canvas_.pipeline_.get()), source_.get());
  const device::PadPtr from(gst_element_get_static_pad(source_.get(), "src"));
  gst_pad_link(from.get(), pad_.get());
  gst_element_sync_state_with_parent(source_.get());
}

Layer::~Layer() {
  canvas_.Forget(pad_.get());
  // The pad goes first: that frees the source's thread, should it be waiting for the compositor to take a frame.
  gst_element_release_request_pad(canvas_.compositor_.get(), pad_.get());
  // Locked, so that the canvas, should it change its state just now, does not start the source again.
  gst_element_set_locked_state(source_.get(), TRUE);
  gst_element_set_state(source_.get(), GST_STATE_NULL);
  gst_bin_remove(GST_BIN(canvas_.pipeline_.get()), source_.get());
}

void Layer::Push(GstBuffer* frame) {
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), device::CopyAt(frame, {}).release());
}

void Layer::Show() { canvas_.SetAlpha(pad_.get(), 1.0); }

void Layer::Fade(double to, std::chrono::milliseconds delay, std::chrono::milliseconds length) {
  canvas_.StartFade(pad_.get(), to, delay, length);
}

bool Layer::IsFading() const { return canvas_.IsFading(pad_.get()); }

Rectangle Layer::Place() const {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  g_object_get(pad_.get(), "xpos", &x, "ypos", &y, "width", &width, "height", &height, nullptr);
  return {x, y, static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
}

Canvas::Canvas(bool window)
    : pipeline_(CanvasPipeline()),
      compositor_(pipeline_.Find("compositor")),
      filter_(pipeline_.Find("filter")),
      output_(gst_element_get_static_pad(filter_.get(), "src")) {
  if (!pipeline_.SetState(GST_STATE_PLAYING)) throw std::runtime_error("the canvas can't be started");
  if (window) window_ = std::make_unique<Window>(output_.get());
  device::HandOver(this);
  probe_ = gst_pad_add_probe(output_.get(), GST_PAD_PROBE_TYPE_BUFFER, OnComposed, this, nullptr);
}

Canvas::~Canvas() {
  window_.reset();
  pipeline_.SetState(GST_STATE_NULL);  // ends the thread that composes
  gst_pad_remove_probe(output_.get(), probe_);
}

// Called on the compositor's streaming thread for each picture, before the next one is composed.
GstPadProbeReturn Canvas::OnComposed(GstPad*, GstPadProbeInfo*, gpointer data) {
  const device::HandedOver canvas_of_other_thread(data);
  static_cast<Canvas*>(data)->StepFades();
  static_cast<Canvas*>(data)->KeepPace();
  return GST_PAD_PROBE_OK;
}

double Canvas::Fade::AlphaAt(steady_clock::time_point now) const {
  if (now <= begin) return from;
  if (now >= end) return to;
  return from + (to - from) * (std::chrono::duration<double>(now - begin) / (end - begin));
}

void Canvas::StepFades() {
  const auto now = steady_clock::now();
  const absl::MutexLock lock(&fade_mutex_);
  for (const auto& [pad, fade] : fades_) g_object_set(pad, "alpha", fade.AlphaAt(now), nullptr);
  std::erase_if(fades_, [now](const auto& fade) { return now >= fade.second.end; });
}

void Canvas::SetAlpha(GstPad* pad, double alpha) {
  const absl::MutexLock lock(&fade_mutex_);
  fades_.erase(pad);
  g_object_set(pad, "alpha", alpha, nullptr);
}

void Canvas::StartFade(GstPad* pad, double to, std::chrono::milliseconds delay, std::chrono::milliseconds length) {
  double from = 0;
  const absl::MutexLock lock(&fade_mutex_);
  g_object_get(pad, "alpha", &from, nullptr);
  const auto begin = steady_clock::now() + delay;
  fades_[pad] = {from, to, begin, begin + length};
}

bool Canvas::IsFading(GstPad* pad) const {
  const absl::MutexLock lock(&fade_mutex_);
  return fades_.contains(pad);
}

void Canvas::SetMode(const CanvasMode& mode) {
  const absl::MutexLock lock(&mutex_);
  mode_ = mode;
  pace_.Ask(mode.frequency);
  noted_ = 0;
  changed_ = true;
}

// On the streaming thread only, between two pictures: never while the compositor negotiates the mode before.
void Canvas::ApplyModeLocked() {
  changed_ = false;
  const device::CapsPtr caps(gst_caps_from_string(ModeCaps(mode_, pace_.Frequency()).c_str()));
  g_object_set(filter_.get(), "caps", caps.get(), nullptr);
  for (GstPad* pad : whole_) g_object_set(pad, "width", mode_.width, "height", mode_.height, nullptr);
}

int Canvas::ComposedFrequency() const {
  const absl::MutexLock lock(&mutex_);
  return pace_.Frequency();
}

void Canvas::KeepPace() {
  std::string text;
  bool reduced = false;
  {
    const absl::MutexLock lock(&mutex_);
    const auto finding = pace_.OnPicture(steady_clock::now());
    if (changed_ || (finding && finding->changed)) ApplyModeLocked();
    if (!finding) return;
    if (std::exchange(noted_, finding->frequency) == finding->frequency) return;
    reduced = pace_.IsReduced();
    text = absl::StrFormat("the canvas, %dx%d, is composed at %g of the %g Hz asked for; %.1f pictures/s were counted",
                           mode_.width, mode_.height, finding->frequency / kHundredths, mode_.frequency / kHundredths,
                           finding->measured / kHundredths);
  }
  KL_LOG(reduced ? 40 : 30, "%s", text.c_str());
}

Rectangle Canvas::Place(GstPad* pad, const Rectangle& rectangle) {
  const absl::MutexLock lock(&mutex_);
  Rectangle place = rectangle;
  if (rectangle.IsWhole()) {
    place = {0, 0, static_cast<std::uint32_t>(mode_.width), static_cast<std::uint32_t>(mode_.height)};
    whole_.insert(pad);
  }
  g_object_set(pad, "xpos", place.x, "ypos", place.y, "width", static_cast<int>(place.width), "height",
               static_cast<int>(place.height), nullptr);
  return place;
}

void Canvas::Forget(GstPad* pad) {
  {
    const absl::MutexLock lock(&mutex_);
    whole_.erase(pad);
  }
  const absl::MutexLock lock(&fade_mutex_);
  fades_.erase(pad);
}

CanvasMode Canvas::Mode() const {
  const absl::MutexLock lock(&mutex_);
  return mode_;
}

std::unique_ptr<Layer> Canvas::AddLayer(const Rectangle& rectangle, std::uint32_t priority) {
  return std::make_unique<Layer>(*this, rectangle, priority);
}

device::SamplePtr Canvas::NextSample(std::chrono::milliseconds timeout) {
  const auto catcher = std::make_shared<Catcher>();
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // The probe has a share of its own: it may still run when this caller has given up.
  auto* const shared = new std::shared_ptr<Catcher>(catcher);
  device::HandOver(shared);
  const gulong probe = gst_pad_add_probe(output_.get(), GST_PAD_PROBE_TYPE_BUFFER, CatchPicture, shared, DropCatcher);
  device::SamplePtr sample;
  {
    const absl::MutexLock lock(&catcher->mutex);
    while (catcher->sample == nullptr && std::chrono::steady_clock::now() < deadline) {
      catcher->caught.WaitUntil(&catcher->mutex, deadline);
    }
    sample = std::move(catcher->sample);
  }
  gst_pad_remove_probe(output_.get(), probe);
  return sample;
}

bool Canvas::Snapshot(std::chrono::milliseconds timeout, Picture& picture) {
  const device::SamplePtr sample = NextSample(timeout);
  if (sample == nullptr) return false;
  const device::SamplePtr rgb = Convert(sample.get(), "video/x-raw,format=RGB", timeout);
  return rgb != nullptr && CopyRows(rgb.get(), picture);
}

Outcome Canvas::SavePng(const std::string& path, std::chrono::milliseconds timeout) {
  const device::SamplePtr sample = NextSample(timeout);
  if (sample == nullptr) return Outcome::Error(ErrorCode::kTimeout, "no picture was composed in time");
  const device::SamplePtr png = Convert(sample.get(), "image/png", timeout);
  if (png == nullptr) return Outcome::Error(ErrorCode::kTimeout, "the picture could not be made a PNG in time");
  GstMapInfo map;
  if (!gst_buffer_map(gst_sample_get_buffer(png.get()), &map, GST_MAP_READ)) {
    return Outcome::Error(ErrorCode::kMediaFailed, "the picture can't be read");
  }
  auto outcome = SaveWhole(path, {reinterpret_cast<const char*>(map.data), map.size});
  gst_buffer_unmap(gst_sample_get_buffer(png.get()), &map);
  return outcome;
}

}  // namespace playd
