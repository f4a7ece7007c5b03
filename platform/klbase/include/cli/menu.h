// Menus: named lists of commands and submenus that an operator walks.
#ifndef CLI_MENU_H_
#define CLI_MENU_H_

#include <memory>
#include <string>
#include <vector>

#include "cli/command.h"
#include "klbase/export.h"

namespace cli {

class CommandList;

// Handle to a command that was inserted into a menu. It doesn't own the command: releasing it changes nothing. Copies
// name the same command. Valid, doing nothing, after the menu is gone. Any thread.
class KLBASE_EXPORT CmdHandler {
 public:
  CmdHandler() = default;
  CmdHandler(const std::shared_ptr<Command>& command, const std::shared_ptr<CommandList>& list);

  void Enable();
  void Disable();
  // Takes the command out of its menu. A session that is running it finishes first; the command is destroyed after.
  void Remove();

 private:
  std::weak_ptr<Command> command_;
  std::weak_ptr<CommandList> list_;
};

// A menu, and as a command of the menu that encloses it: its name alone enters it, its name and further words run them
// in place. Insert() and the handles' operations may be called from any thread, also while sessions run.
class KLBASE_EXPORT Menu : public Command {
 public:
  explicit Menu(std::string name_of_menu, std::string description_of_menu = "(menu)");
  ~Menu() override;

  // Append a command or a submenu to the list; the menu takes ownership. A null pointer is ignored and gives an empty
  // handle. Commands of the same name may stand beside each other: the first one that takes a line runs.
  CmdHandler Insert(std::unique_ptr<Command>&& command);
  CmdHandler Insert(std::unique_ptr<Menu>&& submenu);

  bool Exec(const std::vector<std::string>& words, Session& session) override;
  void Help(std::ostream& out) const override;
  std::vector<std::string> GetCompletionRecursive(const std::string& line) const override;

  // The enclosing menu; null for the root.
  Menu* Parent() const { return parent; }
  const std::string& Description() const { return description; }
  // The commands as they are now, in order of insertion.
  std::vector<std::shared_ptr<Command>> Commands() const;

  // Offers `words` to each command in order until one takes them. A std::bad_cast out of a command means that it did
  // not take them; when no other one does, the first such exception is thrown again. Returns false when none took them.
  bool Dispatch(const std::vector<std::string>& words, Session& session);

 private:
  Menu* parent = nullptr;
  const std::string description;
  const std::shared_ptr<CommandList> commands;
};

}  // namespace cli

#endif  // CLI_MENU_H_
