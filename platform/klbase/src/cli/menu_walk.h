// Finding commands in the menu tree: for completion, hints, usage lines and the answer to a line that no command took.
#ifndef KLBASE_CLI_MENU_WALK_H_
#define KLBASE_CLI_MENU_WALK_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/menu.h"
#include "line_editor/completion.h"

namespace cli::internal {

using CommandVector = std::vector<std::shared_ptr<Command>>;

// The menu path: where an operator stands. The menus are held: a menu taken out of the tree lives until its last
// operator has left it.
struct MenuPath {
  std::vector<std::shared_ptr<Menu>> menus;  // the root first, the current menu last; never empty

  Menu& Current() const { return *menus.back(); }
  Menu& Root() const { return *menus.front(); }
  bool AtRoot() const { return menus.size() == 1; }
};

// The words that lead through submenus, followed.
struct Walk {
  std::shared_ptr<Menu> menu;  // where the search ended
  std::size_t used = 0;        // how many words led there
  CommandVector commands;      // those that can be named there: the menu's, and the built-in ones where they work
};

// Follows `words` from `path` while they name enabled submenus and more words follow. The root's name, as the first
// word, leads back to the root.
Walk FollowMenus(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words);

// Whether help is asked for behind a menu's name ("encd help", "encd ? SetQulity"), where the menu has no command of
// that name itself; `walk` is where `words` led.
bool IsHelpInMenu(const Walk& walk, const std::vector<std::string>& words);

// The Tab key's completion of `text`, the line up to the cursor.
Completion Complete(const MenuPath& path, const CommandVector& builtins, std::string_view text);

// The parameters still to be typed behind `line`, as they follow it.
std::string Hint(const MenuPath& path, const CommandVector& builtins, std::string_view line);

// "SetSeekOfUplayer <id> <seek_time>".
std::string UsageLine(const Command& command);

// Why no command took `words` (not empty), in one or more whole lines.
std::string ExplainRefusal(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words);

// The words that lead to the command and its name: "playd CreateUplayer".
std::string CommandPath(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words);

// The usage of the command that `words` name, as " Usage: ..."; "" when they name none.
std::string UsageOf(const MenuPath& path, const CommandVector& builtins, const std::vector<std::string>& words);

}  // namespace cli::internal

#endif  // KLBASE_CLI_MENU_WALK_H_
