// "FIELD OP VALUE": what an operator asks of an event or of a command's fields.
#ifndef KLBASE_CLI_FEED_CONDITIONS_H_
#define KLBASE_CLI_FEED_CONDITIONS_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/feed/events.h"

namespace cli::internal {

enum class Comparison { kEqual, kUnequal, kLess, kGreater, kAtMost, kAtLeast };

// Two values that are both numbers compare as numbers; others are equal or not, and have no order.
struct Condition {
  std::string field;
  Comparison comparison = Comparison::kEqual;
  std::string value;

  bool HoldsFor(std::string_view actual) const;
  // As it is typed: "seek_ms>=5000".
  std::string Text() const;
};

// Reads one condition at `next`, of one to three words: "seek_ms>=5000", "seek_ms >= 5000". None, with `next` where it
// was, when the words there are not one.
std::optional<Condition> ReadCondition(const std::vector<std::string>& words, std::size_t& next);

// The field's value, the last one if it stands there twice; null when there is none.
const std::string* FindField(const Fields& fields, std::string_view name);
// Whether all conditions hold; a field that is missing meets none.
bool AllHold(const std::vector<Condition>& conditions, const Fields& fields);

// Whether `topic` is `pattern`, which may end in "*".
bool TopicMatches(std::string_view pattern, std::string_view topic);

}  // namespace cli::internal

#endif  // KLBASE_CLI_FEED_CONDITIONS_H_
