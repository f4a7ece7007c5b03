// The settings functions with any answers of the device's tools: any bytes, in any pieces.
//
// Linked so that the start and the end of a tool come here. The input: operations, each with a name, a value and a line
// per answer, whose "\n" for a line end, "\0" for a NUL and "\\" are written so.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "envctl/sysconf.h"
#include "fuzz/fuzz.h"

namespace {

using fuzz::Input;

// --- the tools

struct Answer {
  bool starts = true;
  std::string text;
  std::size_t read = 0;
};
std::vector<Answer> answers;
std::vector<std::string> commands;
int open_pipes = 0;

// Gives the tool's answer in pieces of growing size, as a pipe may.
ssize_t ReadAnswer(void* cookie, char* buffer, std::size_t size) {
  auto& answer = *static_cast<Answer*>(cookie);
  const std::size_t piece = std::min({size, answer.text.size() - answer.read, answer.read * 2 + 1});
  std::memcpy(buffer, answer.text.data() + answer.read, piece);
  answer.read += piece;
  return static_cast<ssize_t>(piece);
}

}  // namespace

extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
FILE* __wrap_OpenSettingsTool(const char* command, std::int64_t limit_ms) {
  FUZZ_CHECK(limit_ms > 0 && limit_ms <= 10'000, "a limit that it must not have");
  commands.emplace_back(command);
  FUZZ_CHECK(commands.size() <= answers.size(), "more attempts than there may be");
  Answer& answer = answers[commands.size() - 1];
  if (!answer.starts) {
    errno = EAGAIN;
    return nullptr;
  }
  ++open_pipes;
  return fopencookie(&answer, "r", {&ReadAnswer, nullptr, nullptr, nullptr});
}

bool __wrap_CloseSettingsTool(FILE* pipe) {
  --open_pipes;
  return std::fclose(pipe) == 0;
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

namespace {

// Captures one of the process's output streams as long as it lives. In memory, because nobody reads while a function
// prints: a listing may have more lines than a pipe, and with it the test kit's CapturedOutput, holds.
class Captured {
 public:
  explicit Captured(FILE*& stream) : stream_(stream), before_(stream) { stream_ = open_memstream(&text_, &size_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;
  ~Captured() {
    Text();
    std::free(text_);
  }
  // Ends the capture.
  std::string Text() {
    if (stream_ != before_) {
      std::fclose(stream_);
      stream_ = before_;
    }
    return {text_, size_};
  }

 private:
  FILE*& stream_;
  FILE* const before_;
  char* text_ = nullptr;
  std::size_t size_ = 0;
};

// --- the documented behaviour

constexpr int kAttempts = 3;
constexpr std::size_t kBufferSize = 128;
constexpr std::size_t kListLine = 4095;

// The next line of `text` as the functions see it: at most `most` bytes, up to a NUL, without its end.
std::string TakeLine(std::string_view& text, std::size_t most) {
  std::string_view line = text.substr(0, most);
  if (const auto end = line.find('\n'); end != std::string_view::npos) line = line.substr(0, end + 1);
  text.remove_prefix(line.size());
  line = line.substr(0, line.find('\0'));
  line = line.substr(0, line.rfind('\n'));
  line = line.substr(0, line.rfind('\r'));
  return std::string(line);
}

struct Expected {
  bool found = false;
  std::string value;
  std::vector<std::string> commands;
  std::string output;
};

Expected ExpectedValue(const std::string& command, int mark) {
  Expected expected;
  for (int attempt = 0; attempt < kAttempts && !expected.found; ++attempt) {
    const Answer& answer = answers[static_cast<std::size_t>(attempt)];
    expected.commands.push_back(command);
    if (!answer.starts) {
      expected.output += "<" + std::to_string(mark) + ">popen read_device_info";
      continue;
    }
    std::string_view text = answer.text;
    const std::string line = TakeLine(text, kBufferSize - 1);
    const auto equals = line.find('=');
    expected.found = equals != std::string::npos;
    if (expected.found) expected.value = line.substr(equals + 1);
  }
  return expected;
}

void CheckGetter(const std::string& name, bool boot_loader) {
  const std::string whole = (boot_loader ? "fw_printenv " : "/usr/kelo/bin/sysconfig get ") + name;
  const bool refused = !boot_loader && whole.size() >= kBufferSize;
  const Expected expected =
      refused ? Expected() : ExpectedValue(whole.substr(0, kBufferSize - 1), boot_loader ? 163 : 54);
  const auto buffer =
      std::make_unique<char[]>(kBufferSize);  // of exactly the promised size, so that a write beyond it is noticed
  Captured out(stdout);
  const char* const value =
      boot_loader ? fw_getenv(name.c_str(), buffer.get()) : sysconf_getenv_safe(name.c_str(), buffer.get());
  FUZZ_CHECK_EQUAL(out.Text(), expected.output);
  FUZZ_CHECK_EQUAL(commands, expected.commands);
  FUZZ_CHECK_EQUAL(value != nullptr, expected.found);
  if (value == nullptr) return;
  FUZZ_CHECK(value == buffer.get(), "not the caller's buffer");
  FUZZ_CHECK_EQUAL(std::string(value), expected.value);
}

void CheckSharedGetter(const std::string& name) {
  const std::string command = "/usr/kelo/bin/sysconfig get " + name;
  const Expected expected = command.size() >= kBufferSize ? Expected() : ExpectedValue(command, 54);
  Captured out(stdout);
  const char* const value = sysconf_getenv(name.c_str());
  FUZZ_CHECK_EQUAL(out.Text(), expected.output);
  FUZZ_CHECK_EQUAL(value != nullptr, expected.found);
  if (value != nullptr) FUZZ_CHECK_EQUAL(std::string(value), expected.value);
}

void CheckSetter(const std::string& name, const std::string* value) {
  std::string command = "/usr/kelo/bin/sysconfig set " + name;
  if (value != nullptr) command += " " + *value;
  const bool runs = command.size() < kBufferSize;
  const bool works = runs && answers.front().starts;
  Captured out(stdout);
  FUZZ_CHECK_EQUAL(sysconf_setenv(name.c_str(), value == nullptr ? nullptr : value->c_str()), works ? 0 : -1);
  FUZZ_CHECK_EQUAL(out.Text(), std::string(runs && !works ? "<122>popen read_device_info" : ""));
  FUZZ_CHECK_EQUAL(commands, runs ? std::vector{command} : std::vector<std::string>());
}

void CheckListing() {
  std::string expected;
  std::string_view text;
  if (answers.front().starts) text = answers.front().text;
  while (!text.empty()) expected += TakeLine(text, kListLine) + "\n";
  Captured out(stdout);
  Captured error(stderr);
  const int result = sysconf_printenv();
  const std::string listing = error.Text();
  FUZZ_CHECK_EQUAL(out.Text(), std::string(answers.front().starts ? "" : "<93>popen read_device_info"));
  FUZZ_CHECK_EQUAL(result, answers.front().starts ? 0 : -1);
  FUZZ_CHECK_EQUAL(listing, expected);
}

// --- the input

// Without NUL: a name comes as a C string.
std::string TakeName(Input& input) {
  const std::string_view line = input.Line();
  return std::string(line.substr(0, line.find('\0')));
}

// "!" cannot be started; "*" repeats the answer so far a hundred times, for those that fill a buffer.
Answer TakeAnswer(Input& input) {
  Answer answer;
  const std::string_view line = input.Line();
  answer.starts = !line.starts_with('!');
  for (std::size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (c == '*' && answer.text.size() < kListLine) {
      const std::string once = answer.text;
      for (int times = 1; times < 100; ++times) answer.text += once;
      continue;
    }
    if (c == '\\' && i + 1 < line.size()) {
      c = line[++i];
      if (c == 'n') c = '\n';
      if (c == '0') c = '\0';
    }
    answer.text += c;
  }
  return answer;
}

void CheckOperation(Input& input) {
  const int operation = input.Number(0, 5);
  const std::string name = TakeName(input);
  const std::string value = TakeName(input);
  answers.clear();
  commands.clear();
  for (int i = 0; i < kAttempts; ++i) answers.push_back(TakeAnswer(input));
  switch (operation) {
    case 0:
    case 1:
      CheckGetter(name, operation == 1);
      break;
    case 2:
      CheckSharedGetter(name);
      break;
    case 3:
    case 4:
      CheckSetter(name, operation == 3 ? &value : nullptr);
      break;
    default:
      CheckListing();
      break;
  }
  FUZZ_CHECK_EQUAL(open_pipes, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  for (int operations = 0; operations < 8 && !input.Empty(); ++operations) CheckOperation(input);
  return 0;
}
