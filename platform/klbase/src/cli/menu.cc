#include "cli/menu.h"

#include <exception>
#include <typeinfo>
#include <utility>

#include "cli/command_list.h"

namespace cli {

void CommandList::Add(std::shared_ptr<Command> command) {
  absl::MutexLock lock(&mutex_);
  auto changed = std::make_shared<Commands>(*commands_);
  changed->push_back(std::move(command));
  commands_ = std::move(changed);
}

void CommandList::Remove(const Command* command) {
  std::shared_ptr<const Commands>
      old;  // destroyed after the lock is released: it may hold the command's last reference
  absl::MutexLock lock(&mutex_);
  auto changed = std::make_shared<Commands>(*commands_);
  std::erase_if(*changed, [command](const auto& entry) { return entry.get() == command; });
  old = std::exchange(commands_, std::move(changed));
}

std::shared_ptr<const CommandList::Commands> CommandList::Snapshot() const {
  absl::MutexLock lock(&mutex_);
  return commands_;
}

CmdHandler::CmdHandler(const std::shared_ptr<Command>& command, const std::shared_ptr<CommandList>& list)
    : command_(command), list_(list) {}

void CmdHandler::Enable() {
  if (const auto command = command_.lock()) command->Enable();
}

void CmdHandler::Disable() {
  if (const auto command = command_.lock()) command->Disable();
}

void CmdHandler::Remove() {
  // Both are weak: a handle may outlive its menu, and keeps no command alive.
  const auto command = command_.lock();
  const auto list = list_.lock();
  if (command && list) list->Remove(command.get());
}

Menu::Menu(std::string name_of_menu, std::string description_of_menu)
    : Command(std::move(name_of_menu)),
      description(std::move(description_of_menu)),
      commands(std::make_shared<CommandList>()) {}

Menu::~Menu() = default;

CmdHandler Menu::Insert(std::unique_ptr<Command>&& command) {
  if (!command) return {};
  // Before other threads can find it in the list.
  if (auto* submenu = dynamic_cast<Menu*>(command.get())) submenu->parent = this;
  const std::shared_ptr<Command> shared = std::move(command);
  commands->Add(shared);
  return {shared, commands};
}

CmdHandler Menu::Insert(std::unique_ptr<Menu>&& submenu) {
  return Insert(std::unique_ptr<Command>(std::move(submenu)));
}

bool Menu::Exec(const std::vector<std::string>& words, Session& session) {
  if (!IsEnabled() || words.empty() || words.front() != Name()) return false;
  if (words.size() == 1) {
    session.Enter(*this);
    return true;
  }
  // "playd ListUplayers" runs a command of the menu without entering it.
  return Dispatch({words.begin() + 1, words.end()}, session);
}

void Menu::Help(std::ostream& out) const {
  if (!IsEnabled()) return;
  out << " - " << Name() << "\n\t" << description << "\n";
}

std::vector<std::string> Menu::GetCompletionRecursive(const std::string& line) const {
  if (!IsEnabled()) return {};
  // Only with a blank behind it does the menu's name lead into the menu; before that the name itself is completed.
  const std::string prefix = Name() + " ";
  if (!line.starts_with(prefix)) return Command::GetCompletionRecursive(line);
  std::vector<std::string> lines;
  for (const auto& command : *commands->Snapshot()) {
    for (const auto& rest : command->GetCompletionRecursive(line.substr(prefix.size()))) lines.push_back(prefix + rest);
  }
  return lines;
}

std::vector<std::shared_ptr<Command>> Menu::Commands() const { return *commands->Snapshot(); }

bool Menu::Dispatch(const std::vector<std::string>& words, Session& session) {
  // A command that can't convert the words does not end the search: another one of its name may take them. If none
  // does, the first one's reason is the answer.
  std::exception_ptr refusal;
  const auto snapshot = commands->Snapshot();
  for (const auto& command : *snapshot) {
    try {
      if (command->Exec(words, session)) return true;
    } catch (const std::bad_cast&) {
      if (!refusal) refusal = std::current_exception();
    }
  }
  if (refusal) std::rethrow_exception(refusal);
  return false;
}

}  // namespace cli
