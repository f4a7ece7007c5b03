#include "cli/feed/conditions.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>
#include <utility>

namespace cli::internal {
namespace {

// Those of two characters first: "<" begins "<=".
constexpr std::pair<std::string_view, Comparison> kOperators[] = {
    {"!=", Comparison::kUnequal}, {"<=", Comparison::kAtMost}, {">=", Comparison::kAtLeast},
    {"=", Comparison::kEqual},    {"<", Comparison::kLess},    {">", Comparison::kGreater}};
constexpr std::string_view kOperatorCharacters = "!=<>";

// As wide as it takes for each 64-bit integer to be itself.
std::optional<long double> Number(std::string_view text) {
  long double number = 0;
  const char* end = text.data() + text.size();
  const auto [read_to, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || read_to != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

template <typename T>
bool Compare(const T& left, Comparison comparison, const T& right) {
  switch (comparison) {
    case Comparison::kEqual:
      return left == right;
    case Comparison::kUnequal:
      return left != right;
    case Comparison::kLess:
      return left < right;
    case Comparison::kGreater:
      return left > right;
    case Comparison::kAtMost:
      return left <= right;
    case Comparison::kAtLeast:
      return left >= right;
  }
  return false;
}

std::optional<Condition> Split(const std::string& text) {
  const std::size_t at = text.find_first_of(kOperatorCharacters);
  if (at == std::string::npos || at == 0) return std::nullopt;
  const std::string_view rest = std::string_view(text).substr(at);
  for (const auto& [word, comparison] : kOperators) {
    if (rest.starts_with(word)) return Condition{text.substr(0, at), comparison, std::string(rest.substr(word.size()))};
  }
  return std::nullopt;
}

std::optional<Comparison> ToComparison(const std::string& word) {
  for (const auto& [text, comparison] : kOperators) {
    if (text == word) return comparison;
  }
  return std::nullopt;
}

}  // namespace

bool Condition::HoldsFor(std::string_view actual) const {
  const auto left = Number(actual);
  const auto right = Number(value);
  if (left && right) return Compare(*left, comparison, *right);
  const bool ordered = comparison != Comparison::kEqual && comparison != Comparison::kUnequal;
  return !ordered && Compare(actual, comparison, std::string_view(value));
}

std::string Condition::Text() const {
  for (const auto& [word, each] : kOperators) {
    if (each == comparison) return field + std::string(word) + value;
  }
  return field;
}

std::optional<Condition> ReadCondition(const std::vector<std::string>& words, std::size_t& next) {
  if (next >= words.size()) return std::nullopt;
  if (next + 2 < words.size()) {
    if (const auto comparison = ToComparison(words[next + 1])) {
      next += 3;
      return Condition{words[next - 3], *comparison, words[next - 1]};
    }
  }
  auto condition = Split(words[next]);
  if (condition) ++next;
  return condition;
}

const std::string* FindField(const Fields& fields, std::string_view name) {
  const auto found =
      std::find_if(fields.rbegin(), fields.rend(), [&](const auto& field) { return field.first == name; });
  return found == fields.rend() ? nullptr : &found->second;
}

bool AllHold(const std::vector<Condition>& conditions, const Fields& fields) {
  return std::all_of(conditions.begin(), conditions.end(), [&](const Condition& condition) {
    const std::string* actual = FindField(fields, condition.field);
    return actual != nullptr && condition.HoldsFor(*actual);
  });
}

bool TopicMatches(std::string_view pattern, std::string_view topic) {
  if (pattern.ends_with('*')) return topic.starts_with(pattern.substr(0, pattern.size() - 1));
  return topic == pattern;
}

}  // namespace cli::internal
