#include "testing/picture_probe.h"

#include <gst/app/gstappsink.h>

#include <chrono>
#include <cmath>
#include <map>

#include "base/gst.h"

namespace device::testing {
namespace {

constexpr std::chrono::seconds kLimit{30};

SeenPicture Look(GstSample* sample) {
  const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
  const GstClockTime time = gst_segment_to_stream_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                                       FactsOf(gst_sample_get_buffer(sample)).pts);
  SeenPicture picture{static_cast<double>(time) / static_cast<double>(GST_SECOND), 0, 0};
  gst_structure_get_int(caps, "width", &picture.width);
  gst_structure_get_int(caps, "height", &picture.height);
  return picture;
}

// Of the distances between the pictures from `first` to before `end`, the most frequent.
int RateOf(const std::vector<SeenPicture>& pictures, std::size_t first, std::size_t end) {
  std::map<int, int> seen;
  for (std::size_t i = first + 1; i < end; ++i) {
    ++seen[static_cast<int>(std::lround(1 / std::max(0.001, pictures[i].seconds - pictures[i - 1].seconds)))];
  }
  int fps = 0;
  for (const auto& [rate, times] : seen) {
    if (times > seen[fps]) fps = rate;
  }
  return fps;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const PictureRun& run) {
  return out << run.pictures << " of " << run.width << "x" << run.height << " at " << run.fps << "/s";
}

std::vector<SeenPicture> ProbePictures(const std::string& path) {
  Pipeline pipeline("filesrc name=file ! decodebin ! video/x-raw ! appsink name=sink sync=false");
  g_object_set(pipeline.Find("file").get(), "location", path.c_str(), nullptr);
  pipeline.SetState(GST_STATE_PLAYING);
  const auto sink = pipeline.Find("sink");
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  std::vector<SeenPicture> pictures;
  while (std::chrono::steady_clock::now() < deadline) {
    const SamplePtr sample(gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), GST_SECOND / 10));
    if (sample) {
      pictures.push_back(Look(sample.get()));
    } else if (gst_app_sink_is_eos(GST_APP_SINK(sink.get())) ||
               pipeline.WaitFor(GST_MESSAGE_ERROR, std::chrono::milliseconds(0))) {
      break;
    }
  }
  return pictures;
}

std::vector<PictureRun> RunsOf(const std::vector<SeenPicture>& pictures) {
  std::vector<PictureRun> runs;
  std::size_t first = 0;
  for (std::size_t i = 1; i <= pictures.size(); ++i) {
    const SeenPicture& begin = pictures[first];
    if (i < pictures.size() && pictures[i].width == begin.width && pictures[i].height == begin.height) continue;
    runs.push_back({begin.width, begin.height, static_cast<int>(i - first), RateOf(pictures, first, i)});
    first = i;
  }
  return runs;
}

}  // namespace device::testing
