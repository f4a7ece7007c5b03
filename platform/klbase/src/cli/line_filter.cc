#include "cli/line_filter.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

namespace cli::internal {
namespace {

struct FilterName {
  const char* name;
  FilterStage::Kind kind;
};
constexpr FilterName kNames[] = {
    {"include", FilterStage::Kind::kInclude},
    {"exclude", FilterStage::Kind::kExclude},
    {"count", FilterStage::Kind::kCount},
};

std::optional<FilterStage::Kind> KindOf(std::string_view name) {
  const auto found =
      std::find_if(std::begin(kNames), std::end(kNames), [name](const auto& row) { return row.name == name; });
  return found == std::end(kNames) ? std::nullopt : std::optional(found->kind);
}

// The kind of the filter that begins at `index`, as "| count" or as "|count"; `used` is how many words say so.
std::optional<FilterStage::Kind> FilterAt(const Words& words, std::size_t index, std::size_t& used) {
  const std::string& word = words.words[index];
  if (!words.plain[index] || !word.starts_with('|')) return std::nullopt;
  used = 1;
  if (word.size() > 1) return KindOf(std::string_view(word).substr(1));
  if (index + 1 == words.words.size() || !words.plain[index + 1]) return std::nullopt;
  used = 2;
  return KindOf(words.words[index + 1]);
}

const char* NameOf(FilterStage::Kind kind) {
  return std::find_if(std::begin(kNames), std::end(kNames), [kind](const auto& row) { return row.kind == kind; })->name;
}

std::string UsageError(const std::string& what) { return what + ". Usage: " + kFilterUsage; }

// Reads the filters from `index` to the end.
std::string ReadStages(const Words& words, std::size_t index, std::vector<FilterStage>& stages) {
  while (index < words.words.size()) {
    std::size_t used = 0;
    const auto kind = FilterAt(words, index, used);
    if (!kind) return UsageError("\"" + words.words[index] + "\" is too much behind the filter before it");
    index += used;
    if (!stages.empty() && stages.back().kind == FilterStage::Kind::kCount) {
      return UsageError("nothing can follow the filter count");
    }
    stages.push_back({*kind, {}});
    if (*kind == FilterStage::Kind::kCount) continue;
    const bool has_text = index < words.words.size() && !FilterAt(words, index, used);
    if (!has_text) return UsageError(std::string("the filter ") + NameOf(*kind) + " needs a text");
    stages.back().text = words.words[index++];
  }
  return {};
}

}  // namespace

std::string TakeFilters(Words& words, std::vector<FilterStage>& stages) {
  std::size_t used = 0;
  for (std::size_t first = 0; first < words.words.size(); ++first) {
    if (!FilterAt(words, first, used)) continue;
    if (first == 0) return UsageError("no command stands before the filter");
    std::string error = ReadStages(words, first, stages);
    words.words.resize(first);
    words.plain.resize(first);
    return error;
  }
  return {};
}

std::vector<std::string> FilterNames(std::string_view prefix) {
  std::vector<std::string> names;
  for (const auto& row : kNames) {
    if (std::string_view(row.name).starts_with(prefix)) names.emplace_back(row.name);
  }
  return names;
}

bool HasOtherBar(const Words& words) {
  for (std::size_t i = 0; i < words.words.size(); ++i) {
    if (words.plain[i] && words.words[i].starts_with('|')) return true;
  }
  return false;
}

LineFilter::LineFilter(std::vector<FilterStage> stages)
    : stages_(std::move(stages)), counts_(!stages_.empty() && stages_.back().kind == FilterStage::Kind::kCount) {}

bool LineFilter::Passes(std::string_view line) const {
  return std::all_of(stages_.begin(), stages_.end(), [line](const FilterStage& stage) {
    if (stage.kind == FilterStage::Kind::kCount) return true;
    const bool found = line.find(stage.text) != std::string_view::npos;
    return found == (stage.kind == FilterStage::Kind::kInclude);
  });
}

void LineFilter::Decide(std::string& passed) {
  const bool ended = line_.ends_with('\n');
  if (Passes(std::string_view(line_).substr(0, line_.size() - (ended ? 1 : 0)))) {
    ++count_;
    if (!counts_) passed += line_;
  }
  line_.clear();
}

std::string LineFilter::Pass(std::string_view piece) {
  if (stages_.empty()) return std::string(piece);
  std::string passed;
  while (!piece.empty()) {
    const std::size_t end = piece.find('\n');
    const std::size_t length =
        std::min(end == std::string_view::npos ? piece.size() : end + 1, kMaxLine - line_.size());
    line_ += piece.substr(0, length);
    piece.remove_prefix(length);
    if (line_.ends_with('\n') || line_.size() == kMaxLine) Decide(passed);
  }
  return passed;
}

std::string LineFilter::Finish(std::optional<std::size_t>& count) {
  std::string passed;
  if (!line_.empty()) Decide(passed);
  if (counts_ && tell_count_) {
    count = count_;
    passed += std::to_string(count_) + "\n";
  }
  count_ = 0;
  tell_count_ = true;
  return passed;
}

}  // namespace cli::internal
