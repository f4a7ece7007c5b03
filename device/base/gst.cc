#include "base/gst.h"

#include <set>
#include <stdexcept>
#include <utility>

namespace device {
namespace {

std::string TakeError(GError* error) {
  std::string text = error != nullptr ? error->message : "unknown error";
  g_clear_error(&error);
  return text;
}

ElementPtr ParsePipeline(const std::string& description) {
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch_full(description.c_str(), nullptr,
                                               static_cast<GstParseFlags>(GST_PARSE_FLAG_FATAL_ERRORS), &error);
  if (pipeline == nullptr || error != nullptr) {
    if (pipeline != nullptr) gst_object_unref(pipeline);
    throw std::runtime_error("can't build the media pipeline: " + TakeError(error));
  }
  gst_object_ref_sink(pipeline);
  return ElementPtr(pipeline);
}

}  // namespace

__attribute__((no_sanitize("thread"))) BufferFacts FactsOf(const GstBuffer* buffer) {
  return {GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer), GST_BUFFER_DURATION(buffer),
          !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT)};
}

__attribute__((no_sanitize("thread"))) BufferPtr CopyAt(const GstBuffer* buffer, const BufferTimes& times) {
  GstBuffer* copy = gst_buffer_copy(buffer);
  GST_BUFFER_PTS(copy) = times.pts;
  GST_BUFFER_DTS(copy) = times.dts;
  GST_BUFFER_DURATION(copy) = times.duration;
  return BufferPtr(copy);
}

std::string ErrorText(GstMessage* message) {
  GError* error = nullptr;
  gchar* debug = nullptr;
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    gst_message_parse_error(message, &error, &debug);
  } else {
    gst_message_parse_warning(message, &error, &debug);
  }
  std::string text = std::string(GST_MESSAGE_SRC_NAME(message)) + ": " + TakeError(error);
  if (debug != nullptr) {
    // The last line of the debug text is the reason; those before it name places in GStreamer's sources.
    const std::string all = debug;
    const auto end = all.rfind('\n');
    if (end != std::string::npos && end + 1 < all.size()) text += " (" + all.substr(end + 1) + ")";
    g_free(debug);
  }
  return text;
}

bool HasElement(const char* name) {
  GstElementFactory* factory = gst_element_factory_find(name);
  if (factory == nullptr) return false;
  gst_object_unref(factory);
  return true;
}

std::string MissingElements(std::span<const NeededElement> needed) {
  std::string names;
  std::set<std::string> packages;
  for (const NeededElement& element : needed) {
    if (HasElement(element.name)) continue;
    names += (names.empty() ? "" : ", ") + std::string(element.name);
    packages.insert(element.package);
  }
  if (names.empty()) return "";
  std::string text = "GStreamer elements are missing: " + names + "; install:";
  for (const std::string& package : packages) text += " " + package;
  return text;
}

Pipeline::Pipeline(const std::string& description) : Pipeline(ParsePipeline(description)) {}

Pipeline::Pipeline(ElementPtr pipeline) : pipeline_(std::move(pipeline)), bus_(gst_element_get_bus(pipeline_.get())) {}

// In the NULL state the streaming threads have ended; only then may the elements go.
Pipeline::~Pipeline() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }

ElementPtr Pipeline::Find(const char* name) const {
  ElementPtr element(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
  if (!element) throw std::logic_error(std::string("the pipeline has no element ") + name);
  return element;
}

bool Pipeline::SetState(GstState state) {
  return gst_element_set_state(pipeline_.get(), state) != GST_STATE_CHANGE_FAILURE;
}

MessagePtr Pipeline::WaitFor(GstMessageType types, std::chrono::milliseconds timeout) {
  const auto limit = std::chrono::duration_cast<std::chrono::nanoseconds>(timeout).count();
  return MessagePtr(gst_bus_timed_pop_filtered(bus_.get(), static_cast<GstClockTime>(limit), types));
}

}  // namespace device
