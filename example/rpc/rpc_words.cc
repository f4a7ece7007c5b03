#include "example/rpc/rpc_words.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

#include "example/rpc/messages/word_refusal.h"

namespace rpc {
namespace {

bool TakesValue(const std::string& option) { return option == "--to" || option == "--within"; }

std::chrono::milliseconds ReadSeconds(const std::string& word) {
  constexpr double kMost = 86400;
  double seconds = 0;
  const char* last = word.data() + word.size();
  const auto [end, error] = std::from_chars(word.data(), last, seconds);
  if (error != std::errc() || end != last || !(seconds > 0 && seconds <= kMost)) {
    Refuse(word, '"' + word + "\" is not a time limit; --within needs seconds, above 0 and up to 86400");
  }
  const std::chrono::milliseconds limit(static_cast<long long>(seconds * 1000));
  return std::max(limit, std::chrono::milliseconds(1));
}

void SetOption(RpcWords& read, const std::string& option, const std::string& value) {
  if (option == "--to") {
    read.to = ReadAddress(value);
  } else {
    read.within = ReadSeconds(value);
  }
}

}  // namespace

RpcWords ReadOptions(const std::vector<std::string>& words) {
  RpcWords read;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const std::size_t equals = word.find('=');
    const std::string option = word.substr(0, equals);
    if (word == "--json") {
      read.json = true;
    } else if (TakesValue(option) && equals != std::string::npos) {
      SetOption(read, option, word.substr(equals + 1));
    } else if (TakesValue(word) && i + 1 < words.size()) {
      SetOption(read, word, words[++i]);
    } else if (TakesValue(word)) {
      Refuse(word, word + " needs " + (word == "--to" ? "an address" : "seconds") + " behind it");
    } else if (word.starts_with("--")) {
      Refuse(word, '"' + word + "\" is not an option" +
                       NearestOr("the options are --to, --within and --json", word, {"--to", "--within", "--json"}));
    } else {
      read.words.push_back(word);
    }
  }
  return read;
}

TypedWords LeaveOutOptions(const std::vector<std::string>& words) {
  TypedWords typed;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const bool is_last = i + 1 == words.size();
    if (TakesValue(words[i]) && !is_last) {
      if (++i + 1 == words.size()) typed.open_option = words[i - 1];
    } else if (is_last || !words[i].starts_with("--")) {
      typed.words.push_back(words[i]);
    }
  }
  return typed;
}

}  // namespace rpc
