// The text written to a stream, flush by flush.
#ifndef EXAMPLE_TESTING_FLUSHED_TEXT_H_
#define EXAMPLE_TESTING_FLUSHED_TEXT_H_

#include <sstream>
#include <string>
#include <vector>

namespace vextest {

//   FlushedText text;
//   std::ostream out(&text);
class FlushedText : public std::stringbuf {
 public:
  // The text of each flush; text that was written since the last one is not among it.
  const std::vector<std::string>& Flushes() const { return flushes_; }

 private:
  int sync() override {
    flushes_.push_back(str());
    str({});
    return 0;
  }

  std::vector<std::string> flushes_;
};

}  // namespace vextest

#endif  // EXAMPLE_TESTING_FLUSHED_TEXT_H_
