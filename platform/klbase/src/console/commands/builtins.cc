#include "console/commands/builtins.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <limits>
#include <ostream>
#include <utility>
#include <vector>

#include "console/commands/event_commands.h"
#include "console/commands/watch_command.h"
#include "klbase/metrics.h"
#include "line_editor/text.h"
#include "text/words.h"

namespace cli::internal {
namespace {

using Arguments = std::vector<std::string>;

// The menu's own entry (the root has none), and those of its commands.
void ListMenu(const Menu& menu, std::ostream& out) {
  if (menu.Parent() != nullptr) menu.Help(out);
  for (const auto& command : menu.Commands()) command->Help(out);
}

// A built-in command at work: its session, and the list that it stands in.
struct Call {
  SessionControl& session;
  const CommandVector& builtins;
};

// A command's entry, and an example that works where the operator stands: behind `menus`, the words that led there.
void ShowCommand(const Command& command, const Arguments& menus, std::ostream& out) {
  command.Help(out);
  const std::string example = command.Example();
  if (example.empty()) return;
  out << "\tfor example: ";
  for (const auto& menu : menus) out << QuoteWord(menu) << " ";
  out << example << "\n";
}

// `text` is the answer to a line that is not done.
void Refuse(const Call& call, Status status, const std::string& text) { call.session.Explain(status, text); }

// Finds the entries of `words` (a command, or menus and a command) and shows them; for a menu also its commands.
void HelpOn(const Call& call, const Arguments& words) {
  const Walk walk = FollowMenus(call.session.Path(), call.builtins, words);
  std::ostream& out = call.session.OutStream();
  bool found = false;
  if (walk.used + 1 == words.size()) {
    for (const auto& command : walk.commands) {
      if (!command->IsEnabled() || command->Name() != words.back()) continue;
      found = true;
      const auto* menu = dynamic_cast<const Menu*>(command.get());
      menu != nullptr ? ListMenu(*menu, out) : ShowCommand(*command, {words.begin(), words.end() - 1}, out);
    }
  }
  if (!found) Refuse(call, Status::kUsage, ExplainRefusal(call.session.Path(), call.builtins, words));
}

void Help(const Call& call, const Arguments& words) {
  if (!words.empty()) return HelpOn(call, words);
  std::ostream& out = call.session.OutStream();
  for (const auto& command : call.session.CurrentMenu().Commands()) command->Help(out);
  for (const auto& command : call.builtins) {
    // At the root the ways back lead nowhere, and "?" is only a second name: they are not listed.
    const bool way_back = command->Name() == ".." || command->Name() == call.session.Path().Root().Name();
    const bool second_name = command->Name() == "?";
    if (second_name || (way_back && call.session.Path().AtRoot())) continue;
    command->Help(out);
  }
}

// As the line editor shows them: characters that a terminal would act on are written out.
void ShowHistory(const Call& call, const Arguments&) {
  std::size_t number = 0;
  for (const auto& line : call.session.History()) {
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "%5zu  ", ++number);
    call.session.OutStream() << prefix + DisplayPrefix(line, std::numeric_limits<int>::max()) + '\n';
  }
}

void Wait(const Call& call, const Arguments& words) { WaitForEvent(call.session, words); }

void Monitor(const Call& call, const Arguments& words) { MonitorEvents(call.session, words); }

void Expect(const Call& call, const Arguments& words) { ExpectFields(call.session, words); }

void Watch(const Call& call, const Arguments& words) { WatchLine(call.session, words); }

void Metrics(const Call& call, const Arguments&) { call.session.OutStream() << klbase::MetricsText(); }

void Exit(const Call& call, const Arguments&) { call.session.End(); }

void Shutdown(const Call& call, const Arguments&) {
  call.session.OutStream() << "The console ends for all.\n";
  call.session.End();
  call.session.ShutDownConsole();
}

void Disconnect(const Call& call, const Arguments& words) {
  if (words.size() != 1) {
    return Refuse(call, Status::kUsage,
                  "disconnect takes 1 word, not " + std::to_string(words.size()) + ". Usage: disconnect <id>\n");
  }
  const std::string& word = words.front();
  int id = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), id);
  if (error != std::errc() || end != word.data() + word.size()) {
    return Refuse(
        call, Status::kUsage,
        "disconnect: \"" + word + "\" is not a session's number; \"who\" lists them. Usage: disconnect <id>\n");
  }
  const std::string refusal = call.session.Disconnect(id);
  if (!refusal.empty()) return Refuse(call, Status::kRefused, refusal + '\n');
  call.session.OutStream() << "Session " << word << " ends.\n";
}

std::string ClockTime(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string Duration(std::chrono::seconds time) {
  char text[32];
  const long long s = time.count();
  std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
  return text;
}

// Columns as wide as their widest cell. The asking session's line is marked.
void Who(const Call& call, const Arguments&) {
  std::vector<std::vector<std::string>> rows = {{"  id", "kind", "from", "menu", "since", "idle"}};
  for (const SessionInfo& info : call.session.OpenSessions()) {
    rows.push_back({(info.id == call.session.Id() ? "* " : "  ") + std::to_string(info.id), KindName(info.kind),
                    info.peer, info.menu, ClockTime(info.since), Duration(info.idle)});
  }
  std::vector<std::size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, ' ');
    }
    call.session.OutStream() << line << '\n';
  }
}

// Words behind the root's name run as in the root menu, without going there.
void GoToRoot(const Call& call, const Arguments& words) {
  if (words.empty()) {
    call.session.Enter(call.session.Path().Root());
  } else if (!call.session.Path().Root().Dispatch(words, call.session)) {
    std::vector<std::string> line = {call.session.Path().Root().Name()};
    line.insert(line.end(), words.begin(), words.end());
    Refuse(call, Status::kUsage, ExplainRefusal(call.session.Path(), call.builtins, line));
  }
}

void GoUp(const Call& call, const Arguments&) {
  const MenuPath& path = call.session.Path();
  if (!path.AtRoot()) call.session.Enter(*path.menus[path.menus.size() - 2]);
}

struct Row {
  const char* name;
  const char* parameter;  // shown by help; null for none
  const char* help;
  bool takes_words;
  void (*run)(const Call& call, const Arguments& words);
};

}  // namespace

class Builtins::Builtin : public Command {
 public:
  Builtin(std::string name_of_command, const Row& row) : Command(std::move(name_of_command)), row_(row) {}

  // A menu's command gets any Session, which can't do enough for a built-in one.
  bool Exec(const std::vector<std::string>&, Session&) override { return false; }

  bool Run(const std::vector<std::string>& words, const Call& call) const {
    if (words.empty() || words.front() != Name()) return false;
    if (words.size() > 1 && !row_.takes_words) return false;
    row_.run(call, {words.begin() + 1, words.end()});
    return true;
  }

  void Help(std::ostream& out) const override {
    out << " - " << Name();
    if (row_.parameter != nullptr) out << " <" << row_.parameter << ">";
    out << "\n\t" << row_.help << "\n";
  }

 private:
  const Row row_;
};

Builtins::Builtins(const std::string& root_name) {
  const Row rows[] = {
      {"help", "command", "show the commands, or one of them (also: ?)", true, Help},
      {"?", "command", "show the commands, or one of them", true, Help},
      {"history", nullptr, "show the lines typed", false, ShowHistory},
      {"who", nullptr, "show the open sessions", false, Who},
      {"wait", "topic", "wait for an event, such as: wait layer/* seek_ms>=5000 fail play_state=5 within 3", true,
       Wait},
      {"monitor", "topic", "show events as they come, such as: monitor layer/*; \"monitor off\" ends it", true,
       Monitor},
      {"expect", "condition", "compare fields of the last command, such as: expect result=1", true, Expect},
      {"watch", "line", "run a line every 2 s until Ctrl-C, or at other times: watch 0.5 who", true, Watch},
      {"metrics", nullptr, "show figures of this tool for Prometheus", false, Metrics},
      {"disconnect", "id", "end another session", true, Disconnect},
      {root_name.c_str(), nullptr, "go back to the first menu", true, GoToRoot},
      {"..", nullptr, "go back to the menu before", false, GoUp},
      {"exit", nullptr, "end this session", false, Exit},
      {"shutdown", nullptr, "end the console for all", false, Shutdown},
  };
  for (const Row& row : rows) {
    const auto builtin = std::make_shared<Builtin>(row.name, row);
    builtins_.push_back(builtin);
    commands_.push_back(builtin);
  }
}

bool Builtins::Run(const std::vector<std::string>& words, SessionControl& session) const {
  const Call call{session, commands_};
  return std::any_of(builtins_.begin(), builtins_.end(),
                     [&](const auto& builtin) { return builtin->Run(words, call); });
}

bool Builtins::HelpInMenu(const std::vector<std::string>& words, SessionControl& session) const {
  const Walk walk = FollowMenus(session.Path(), commands_, words);
  if (!IsHelpInMenu(walk, words)) return false;
  if (walk.used + 1 == words.size()) {
    ListMenu(*walk.menu, session.OutStream());
  } else {
    Arguments asked = words;
    asked.erase(asked.begin() + static_cast<std::ptrdiff_t>(walk.used));
    HelpOn({session, commands_}, asked);
  }
  return true;
}

std::shared_ptr<const Builtins> MakeBuiltins(const std::string& root_name) {
  return std::make_shared<const Builtins>(root_name);
}

}  // namespace cli::internal
