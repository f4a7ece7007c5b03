// A stop token for waits that two others may stop.
#ifndef KLBASE_CONSOLE_COMMANDS_EITHER_STOP_H_
#define KLBASE_CONSOLE_COMMANDS_EITHER_STOP_H_

#include <stop_token>
#include <utility>

namespace cli::internal {

// Its token is stopped with either of the two that it is given.
class EitherStop {
 public:
  EitherStop(std::stop_token one, std::stop_token other)
      : one_(std::move(one), Request{&source_}), other_(std::move(other), Request{&source_}) {}

  std::stop_token Token() const { return source_.get_token(); }

 private:
  struct Request {
    std::stop_source* source;
    void operator()() const { source->request_stop(); }
  };

  std::stop_source source_;
  const std::stop_callback<Request> one_;
  const std::stop_callback<Request> other_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_COMMANDS_EITHER_STOP_H_
