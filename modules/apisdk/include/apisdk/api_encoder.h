// Drives the encoder daemon.
#ifndef APISDK_API_ENCODER_H_
#define APISDK_API_ENCODER_H_

#include <cstdint>
#include <string>

namespace apis {

// Outcome of an encoder operation, filled by the callee: the daemon's code and text (0 is success), or this side's own:
// 400 for a refused argument, 500 with an empty message when no reply came.
struct ApiStatus {
  int32_t code = 0;
  std::string message;
};

// Obtained from ApiSdk::Encoder(), which owns it. Any thread, several at once. Each operation sends one request and
// waits for its reply as long as klrpc::APIClient::Call does. Nothing is retried.
//
// A reply of an unexpected type gives code 0 and an empty message.
class ApiEncoder {
 public:
  // Of a fixed type, so that any integer may be passed and refused.
  enum Qulity : int { kLow = 0, kMiddle = 1, kHigh = 2 };

  struct LiveStream {
    std::string unique_id;
    std::string url;  // where to push to
    std::string key;  // the live platform's stream key
  };

  ApiEncoder() = default;
  ApiEncoder(const ApiEncoder&) = delete;
  ApiEncoder& operator=(const ApiEncoder&) = delete;
  virtual ~ApiEncoder() = default;

  // A quality outside the enumeration sends nothing and gives code 400.
  virtual void SetVideoQuality(const Qulity& quality, ApiStatus& status) const = 0;
  virtual void CreateStream(LiveStream stream, ApiStatus& status) const = 0;
  virtual void DeleteStream(std::string unique_id, ApiStatus& status) const = 0;
  virtual void SetEncoderBitrate(int bitrate_kbps, ApiStatus& status) const = 0;
  // The delay does not travel: the request is the same, empty one for every value.
  virtual void SetPushDelay(const int& delay, ApiStatus& status) const = 0;
};

}  // namespace apis

#endif  // APISDK_API_ENCODER_H_
