#include "cli/nearest_names.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <numeric>
#include <utility>

namespace cli {
namespace {

std::string LowerCase(std::string_view text) {
  std::string lower;
  std::transform(text.begin(), text.end(), std::back_inserter(lower),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

// Typing errors between two words: inserted, left out, changed and exchanged letters. Of the table of distances three
// rows are kept: an exchange of letters looks back two rows.
std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before(b.size() + 1), last(b.size() + 1), row(b.size() + 1);
  std::iota(last.begin(), last.end(), 0);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      const bool exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (exchanged) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    std::swap(before, last);
    std::swap(last, row);
  }
  return last[b.size()];
}

}  // namespace

std::size_t NameDistance(std::string_view typed, std::string_view name) {
  constexpr std::size_t kLongestCompared = 64;  // names are short; a 4096 byte word is not a typing error
  constexpr std::size_t kLeastPrefix = 2;
  if (typed.size() > kLongestCompared || name.size() > kLongestCompared) return kFarName;
  const std::string a = LowerCase(typed);
  const std::string b = LowerCase(name);
  if (a == b) return 0;
  // The beginning of a name is near to it, however many letters are missing.
  if (a.size() >= kLeastPrefix && b.starts_with(a)) return 1;
  const std::size_t distance = EditDistance(a, b);
  // An error in every third letter, at least one; but not one in each letter that was typed.
  const std::size_t allowed = std::max<std::size_t>(1, std::min(a.size(), b.size()) / 3);
  return distance <= allowed && distance < a.size() ? distance : kFarName;
}

std::vector<std::string> NearestNames(std::string_view typed, const std::vector<std::string>& names, std::size_t most) {
  std::vector<std::pair<std::size_t, std::string>> found;
  for (const std::string& name : names) {
    const std::size_t distance = NameDistance(typed, name);
    if (distance < kFarName) found.emplace_back(distance, name);
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> nearest;
  for (auto& [distance, name] : found) {
    if (nearest.size() == most) break;
    if (std::find(nearest.begin(), nearest.end(), name) == nearest.end()) nearest.push_back(std::move(name));
  }
  return nearest;
}

}  // namespace cli
