#include "cli/menu_walk.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>
#include <utility>

#include "cli/line_filter.h"
#include "cli/nearest_names.h"
#include "cli/parameter_completer.h"
#include "line_editor/text.h"
#include "text/words.h"

namespace cli::internal {
namespace {

struct Suggestion {
  std::size_t distance;
  std::string text;
};

void Collect(const CommandVector& commands, const std::string& prefix, std::string_view typed, std::size_t extra,
             std::vector<Suggestion>& found) {
  for (const auto& command : commands) {
    if (!command->IsEnabled()) continue;
    const std::size_t distance = NameDistance(typed, command->Name());
    if (distance < kFarName) found.push_back({distance + extra, prefix + command->Name()});
  }
}

// The names nearest to `typed`: first those in reach here, then those in the submenus, then those of the root.
std::string Suggestions(const MenuPath& path, const Walk& walk, const std::string& prefix, std::string_view typed) {
  constexpr std::size_t kMostShown = 3;
  constexpr std::size_t kElsewhere = 1;  // a name here is the likelier one
  std::vector<Suggestion> found;
  Collect(walk.commands, prefix, typed, 0, found);
  const auto collect_submenus = [&](const CommandVector& commands, const std::string& before) {
    for (const auto& command : commands) {
      const auto* submenu = dynamic_cast<const Menu*>(command.get());
      if (submenu == nullptr || !submenu->IsEnabled() || submenu == walk.menu.get()) continue;
      Collect(submenu->Commands(), before + submenu->Name() + " ", typed, kElsewhere, found);
    }
  };
  collect_submenus(walk.commands, prefix);
  if (walk.menu.get() != &path.Root()) {
    const std::string root = path.AtRoot() ? "" : path.Root().Name() + " ";
    Collect(path.Root().Commands(), root, typed, kElsewhere, found);
    collect_submenus(path.Root().Commands(), root);
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.distance < b.distance; });
  std::vector<std::string> shown;
  for (const auto& suggestion : found) {
    if (shown.size() == kMostShown) break;
    if (std::find(shown.begin(), shown.end(), suggestion.text) == shown.end()) shown.push_back(suggestion.text);
  }
  std::string text;
  for (const auto& name : shown) text += (text.empty() ? "" : ", ") + name;
  return text;
}

// A word as it can be shown on any terminal: control characters are question marks, other characters that a terminal
// might act on or get wrong are written out, and nothing is shown behind the 60th column.
std::string Shown(std::string_view word, const char* quote = "\"") {
  constexpr int kMost = 60;
  std::string shown = quote;
  int columns = 0;
  for (std::size_t offset = 0; offset < word.size();) {
    const Unit unit = UnitAt(word, offset);
    const auto first = static_cast<unsigned char>(word[offset]);
    const bool control = first < 0x20 || first == 0x7f;
    columns += control ? 1 : unit.width;
    if (columns > kMost) return shown + "..." + quote;
    if (control) {
      shown += '?';
    } else {
      AppendDisplay(shown, word, offset, unit);
    }
    offset += unit.length;
  }
  return shown + quote;
}

CommandVector EnabledNamed(const CommandVector& commands, std::string_view name) {
  CommandVector named;
  std::copy_if(commands.begin(), commands.end(), std::back_inserter(named),
               [name](const auto& command) { return command->IsEnabled() && command->Name() == name; });
  return named;
}

std::string Join(const std::vector<std::string>& words, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += words[i] + " ";
  return text;
}

// "SetQulity takes 1 word, not 2."
std::string CountText(const Command& command, std::size_t given) {
  const std::size_t wanted = command.ParameterNames().size();
  const std::string takes = wanted == 0 ? "no words" : std::to_string(wanted) + (wanted == 1 ? " word" : " words");
  return command.Name() + " takes " + takes + ", not " + std::to_string(given) + ".";
}

void AppendUnique(std::vector<std::string>& names, const std::string& name) {
  if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
}

// What completes the words of the command `name`; null when it doesn't do so.
const ParameterCompleter* CompleterOf(const Walk& walk, const std::string& name) {
  for (const auto& command : EnabledNamed(walk.commands, name)) {
    if (const auto* completer = dynamic_cast<const ParameterCompleter*>(command.get())) return completer;
  }
  return nullptr;
}

std::vector<std::string> WordsBehind(const Walk& walk, const std::vector<std::string>& words) {
  return {words.begin() + static_cast<std::ptrdiff_t>(walk.used) + 1, words.end()};
}

// Adds what the command that is named makes of its last word.
void CompleteParameter(const Walk& walk, const std::vector<std::string>& words, Completion& completion) {
  const ParameterCompleter* completer = CompleterOf(walk, words[walk.used]);
  if (completer == nullptr) return;
  std::vector<ParameterCandidate> candidates;
  try {
    candidates = completer->CompleteParameter(WordsBehind(walk, words));
  } catch (const std::exception&) {
    return;
  }
  for (const auto& candidate : candidates) AppendUnique(completion.candidates, QuoteWord(candidate.word));
  completion.unfinished = completion.candidates.size() == 1 && !candidates.front().is_complete;
}

// The command's own hint; none when it leaves that to its parameters' names.
std::optional<std::string> HintOfCommand(const Walk& walk, const Words& split) {
  const ParameterCompleter* completer = CompleterOf(walk, split.words[walk.used]);
  if (completer == nullptr) return std::nullopt;
  std::vector<std::string> words = WordsBehind(walk, split.words);
  if (!split.last_open) words.emplace_back();
  try {
    return completer->ParameterHint(words);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// `help` is followed by the name of a command.
bool IsHelp(const std::string& word) { return word == "help" || word == "?"; }

// `watch`, with seconds or without, is followed by a line: that completes as if the words before were not there.
void DropWatch(std::vector<std::string>& words) {
  if (words.size() < 2 || words.front() != "watch") return;
  const bool seconds = words.size() > 2 && ReadPause(words[1]);
  words.erase(words.begin(), words.begin() + (seconds ? 2 : 1));
}

bool IsBar(const Words& split, std::size_t index) { return split.plain[index] && split.words[index] == "|"; }

}  // namespace

Walk FollowMenus(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words) {
  Walk walk{path.menus.back(), 0, path.Current().Commands()};
  walk.commands.insert(walk.commands.end(), builtins.begin(), builtins.end());
  const auto submenu_named = [&walk](const std::string& name) -> std::shared_ptr<Menu> {
    for (const auto& command : walk.commands) {
      if (!command->IsEnabled() || command->Name() != name) continue;
      if (auto submenu = std::dynamic_pointer_cast<Menu>(command)) return submenu;
    }
    return nullptr;
  };
  // The last word is never followed: it names the command, or the menu to enter. A submenu with the root's name comes
  // before the way back, as it does when the line runs.
  while (walk.used + 1 < words.size()) {
    auto submenu = submenu_named(words[walk.used]);
    const bool back = walk.used == 0 && words[0] == path.Root().Name();
    if (!submenu && back) submenu = path.menus.front();
    if (!submenu) break;
    walk.menu = std::move(submenu);
    walk.commands = walk.menu->Commands();
    ++walk.used;
  }
  return walk;
}

bool IsHelpInMenu(const Walk& walk, const std::vector<std::string>& words) {
  return walk.used > 0 && IsHelp(words[walk.used]) && EnabledNamed(walk.commands, words[walk.used]).empty();
}

Completion Complete(const MenuPath& path, const CommandVector& builtins, std::string_view text) {
  Words split = SplitWords(text);
  // Behind a blank an empty word begins, which every name completes.
  if (!split.last_open) {
    split.last_start = text.size();
    split.words.emplace_back();
    split.plain.push_back(true);
  }
  const std::string last = split.words.back();
  if (split.words.size() > 2 && IsBar(split, split.words.size() - 2)) return {split.last_start, FilterNames(last)};
  DropWatch(split.words);
  Walk walk = FollowMenus(path, builtins, split.words);
  // "help", in front of the menus or behind them, is followed by a name: that completes as if "help" were not there.
  const bool helps = walk.used + 1 < split.words.size() && IsHelp(split.words[walk.used]);
  if (helps) {
    split.words.erase(split.words.begin() + static_cast<std::ptrdiff_t>(walk.used));
    walk = FollowMenus(path, builtins, split.words);
  }
  Completion completion{split.last_start, {}, false};
  if (walk.used + 1 != split.words.size()) {
    if (!helps) CompleteParameter(walk, split.words, completion);
    return completion;
  }
  std::vector<std::string> names;
  for (const auto& command : walk.commands) {
    for (const auto& name : command->GetCompletionRecursive(last)) AppendUnique(names, name);
  }
  for (const auto& name : names) completion.candidates.push_back(QuoteWord(name));
  return completion;
}

std::string Hint(const MenuPath& path, const CommandVector& builtins, std::string_view line) {
  Words split = SplitWords(line);
  if (!split.error.empty() || split.words.empty()) return "";
  DropWatch(split.words);
  const Walk walk = FollowMenus(path, builtins, split.words);
  const CommandVector named = EnabledNamed(walk.commands, split.words[walk.used]);
  if (named.empty()) return "";
  if (auto hint = HintOfCommand(walk, split)) return *std::move(hint);
  const std::vector<std::string> names = named.front()->ParameterNames();
  const std::size_t typed = split.words.size() - walk.used - 1;
  std::string hint;
  for (std::size_t i = typed; i < names.size(); ++i) hint += " <" + names[i] + ">";
  if (!split.last_open && !hint.empty()) hint.erase(0, 1);  // the blank is typed already
  return hint;
}

std::string UsageLine(const Command& command) {
  std::string usage = command.Name();
  for (const auto& name : command.ParameterNames()) usage += " <" + name + ">";
  return usage;
}

std::string CommandPath(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words) {
  const Walk walk = FollowMenus(path, builtins, words);
  return Join(words, walk.used) + Shown(words[walk.used], "");
}

std::string UsageOf(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words) {
  const Walk walk = FollowMenus(path, builtins, words);
  const CommandVector named = EnabledNamed(walk.commands, words[walk.used]);
  return named.empty() ? "" : " Usage: " + Join(words, walk.used) + UsageLine(*named.front());
}

std::string ExplainRefusal(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words) {
  const Walk walk = FollowMenus(path, builtins, words);
  const std::string prefix = Join(words, walk.used);
  const std::string& word = words[walk.used];
  const CommandVector named = EnabledNamed(walk.commands, word);
  // The name is right, so the number of the words behind it is not.
  if (!named.empty()) {
    std::string text = CountText(*named.front(), words.size() - walk.used - 1);
    for (const auto& command : named) text += " Usage: " + prefix + UsageLine(*command);
    return text + "\n";
  }
  std::string text = "Unknown command " + Shown(word);
  if (walk.used > 0) text += " in \"" + walk.menu->Name() + "\"";
  const std::string nearest = Suggestions(path, walk, prefix, word);
  text += nearest.empty() ? "." : "; did you mean: " + nearest + "?";
  return text + " Type \"help\" for the commands.\n";
}

}  // namespace cli::internal
