// Shared by the fuzz targets: a reader that takes the input apart, and the check of a property.
#ifndef FUZZ_FUZZ_H_
#define FUZZ_FUZZ_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

// Runs one input; the process ends where a property does not hold. Always 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Takes the input apart from its beginning, so that a seed can be written by hand. When nothing is left, numbers are 0
// and texts are empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool Empty() const { return rest_.empty(); }
  std::size_t Left() const { return rest_.size(); }

  unsigned char Byte() {
    if (rest_.empty()) return 0;
    const char byte = rest_.front();
    rest_.remove_prefix(1);
    return static_cast<unsigned char>(byte);
  }
  // Between `least` and `most`, both included; of one byte.
  int Number(int least, int most) { return least + Byte() % (most - least + 1); }
  bool Flag() { return (Byte() & 1) != 0; }
  template <typename Array>
  const auto& OneOf(const Array& choices) {
    return choices[Byte() % std::size(choices)];
  }

  // The next `size` bytes, or all bytes left if there are fewer.
  std::string_view Bytes(std::size_t size) {
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  std::string_view Rest() { return Bytes(rest_.size()); }
  // Up to the next line end, which is used up; for inputs that people read.
  std::string_view Line() {
    const std::string_view line = Bytes(std::min(rest_.find('\n'), rest_.size()));
    Bytes(1);
    return line;
  }

 private:
  std::string_view rest_;
};

// Any bytes, as they can be read.
inline std::string Readable(std::string_view bytes) {
  std::string text = "\"";
  for (const char c : bytes) {
    char escaped[5];
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
    std::snprintf(escaped, sizeof escaped, plain ? "%c" : "\\x%02x", byte);
    text += escaped;
  }
  return text + '"';
}

// Ends the process, which is how a target says that the input breaks a property.
[[noreturn]] inline void Fail(const char* file, int line, const char* property, const std::string& details) {
  std::fprintf(stderr, "%s:%d: this does not hold: %s\n%s\n", file, line, property, details.c_str());
  std::abort();
}

inline std::string Detail(std::string_view value) { return Readable(value); }
inline std::string Detail(bool value) { return value ? "true" : "false"; }
template <typename Number>
requires requires(Number number) { std::to_string(number); }
std::string Detail(Number value) { return std::to_string(value); }
template <typename List>
requires requires(const List& list) {
  list.begin();
  requires !std::is_convertible_v<List, std::string_view>;
}
std::string Detail(const List& list) {
  std::string text;
  for (const auto& item : list) text += "\n  " + Detail(item);
  return text;
}

}  // namespace fuzz

// `property` holds, or the input is one to look at.
#define FUZZ_CHECK(property, details)                                      \
  do {                                                                     \
    if (!(property)) ::fuzz::Fail(__FILE__, __LINE__, #property, details); \
  } while (false)

#define FUZZ_CHECK_EQUAL(actual, expected)                                                                       \
  do {                                                                                                           \
    const auto& fuzz_actual = (actual);                                                                          \
    const auto& fuzz_expected = (expected);                                                                      \
    if (!(fuzz_actual == fuzz_expected)) {                                                                       \
      ::fuzz::Fail(__FILE__, __LINE__, #actual " == " #expected,                                                 \
                   "is:       " + ::fuzz::Detail(fuzz_actual) + "\nexpected: " + ::fuzz::Detail(fuzz_expected)); \
    }                                                                                                            \
  } while (false)

#endif  // FUZZ_FUZZ_H_
