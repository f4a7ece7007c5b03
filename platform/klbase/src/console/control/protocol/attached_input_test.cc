#include "console/control/protocol/attached_input.h"

#include <gtest/gtest.h>

#include <string>

namespace cli::internal {
namespace {

// All that comes, as text: typed bytes as they are, sizes as <80x24>.
class Collector : public AttachedInput::Receiver {
 public:
  void OnTyped(std::string_view bytes) override { all += bytes; }
  void OnWindowSize(int columns, int rows) override {
    all += "<" + std::to_string(columns) + "x" + std::to_string(rows) + ">";
  }
  std::string all;
};

std::string Fed(std::string_view bytes, std::size_t step) {
  AttachedInput input;
  Collector collector;
  for (std::size_t at = 0; at < bytes.size(); at += step) input.Feed(bytes.substr(at, step), collector);
  return collector.all;
}

std::string Size(char columns, char rows) {
  return std::string("\xff\xfa\x1f\0", 4) + columns + '\0' + rows + "\xff\xf0";
}

TEST(AttachedInputTest, TypedBytesPassThroughAndSizesAreTakenOut) {
  const std::string doubled("\xff\xfa\x1f\x01\xff\xff\0\x18\xff\xf0", 10);  // 511 columns
  const std::string input = "ab\x03" + Size(80, 24) + "c" + doubled + "d\xff\xff" + "e";
  for (std::size_t step = 1; step <= input.size(); ++step) {
    EXPECT_EQ(Fed(input, step),
              "ab\x03<80x24>c<511x24>d\xff"
              "e")
        << step;
  }
}

TEST(AttachedInputTest, OtherCommandsAreDropped) {
  EXPECT_EQ(Fed("a\xff\xf4"
                "b\xff\xfd\x01"
                "c",
                100),
            "abc");
  EXPECT_EQ(Fed(Size(0, 24) + "a" + Size(80, 0), 100), "a");
  EXPECT_EQ(Fed("\xff\xfa\x18xterm\xff\xf0"
                "a",
                100),
            "a");
  EXPECT_EQ(Fed("\xff\xfa\x1f" + std::string(100000, 'x') +
                    "\xff\xf0"
                    "a",
                7),
            "a");
  EXPECT_EQ(Fed("\xff\xfa\x1f\x01\xff\xf0"
                "a",
                1),
            "a");
}

}  // namespace
}  // namespace cli::internal
