// What stands behind a line's command to choose from its output: LINE | include TEXT | exclude TEXT | count.
#ifndef KLBASE_CLI_LINE_FILTER_H_
#define KLBASE_CLI_LINE_FILTER_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "text/words.h"

namespace cli::internal {

inline constexpr char kFilterUsage[] = "<line> | include <text> | exclude <text> | count";

// One filter behind the bar.
struct FilterStage {
  enum class Kind { kInclude, kExclude, kCount };
  Kind kind;
  std::string text;  // what a line must have, or must not; none for kCount
};

// Takes the filters off the end of `words`. A bar that no filter's name follows stays with the words, which may be
// meant for a command: filters are the operator's when the bar and the name were typed without quotes. Returns the
// error for the operator, "" for none.
std::string TakeFilters(Words& words, std::vector<FilterStage>& stages);

// The names of the filters that begin with `prefix`.
std::vector<std::string> FilterNames(std::string_view prefix);

// Whether a word was typed as a bar that no filter's name follows.
bool HasOtherBar(const Words& words);

// Output on its way through the filters. Whole lines pass or don't, with their line end, byte for byte.
class LineFilter {
 public:
  // A piece of output without a line end is decided on as a line when it has got this long.
  static constexpr std::size_t kMaxLine = 1 << 20;

  LineFilter() = default;  // everything passes at once
  explicit LineFilter(std::vector<FilterStage> stages);

  bool Empty() const { return stages_.empty(); }
  // Finish() tells no count this time.
  void DropCount() { tell_count_ = false; }
  // What passes of the next piece, and of what was held back before it.
  std::string Pass(std::string_view piece);
  // What passes of the rest: the line that no line end has ended, and the count. The next piece begins anew. The count
  // goes to `count`, too, which stays as it is where nothing is counted.
  std::string Finish(std::optional<std::size_t>& count);

 private:
  bool Passes(std::string_view line) const;
  void Decide(std::string& passed);

  std::vector<FilterStage> stages_;
  bool counts_ = false;
  bool tell_count_ = true;
  std::size_t count_ = 0;
  std::string line_;  // its beginning
};

}  // namespace cli::internal

#endif  // KLBASE_CLI_LINE_FILTER_H_
