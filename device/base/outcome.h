// How an operation of a daemon ended.
#ifndef DEVICE_BASE_OUTCOME_H_
#define DEVICE_BASE_OUTCOME_H_

#include <string>
#include <utility>

namespace device {

// `Code` is the daemon's enumeration of reasons, whose numbers travel in its replies; its kOk is 0.
template <typename Code>
struct Outcome {
  Code code = Code::kOk;
  std::string text;  // for the operator: on failure the error and its remedy

  bool ok() const { return code == Code::kOk; }

  static Outcome Ok(std::string text = "") { return {Code::kOk, std::move(text)}; }
  static Outcome Error(Code code, std::string text) { return {code, std::move(text)}; }
};

}  // namespace device

#endif  // DEVICE_BASE_OUTCOME_H_
