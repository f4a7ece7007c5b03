#include "console/commands/event_commands.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <ostream>
#include <utility>

#include "cli/feed/conditions.h"
#include "cli/feed/events.h"
#include "cli/outcome.h"
#include "console/commands/either_stop.h"
#include "console/commands/event_history.h"
#include "klbase/cancellation.h"
#include "text/words.h"

namespace cli::internal {
namespace {

using Arguments = std::vector<std::string>;
using Conditions = std::vector<Condition>;
using std::chrono::steady_clock;

constexpr double kDefaultSeconds = 10;

void Refuse(SessionControl& session, Status status, const std::string& reason) {
  session.Explain(status, reason + '\n');
}

void RefuseUsage(SessionControl& session, const std::string& what, const char* usage) {
  Refuse(session, Status::kUsage, what + ". Usage: " + usage);
}

// --- wait

struct WaitWords {
  std::string topic;
  Conditions wanted;
  std::vector<Conditions> failures;
  std::string seconds_text = "10";
  double seconds = kDefaultSeconds;
  std::string error;  // "" when the words are complete
};

// Reads the time limit behind the word "within".
void ReadLimit(const Arguments& words, std::size_t& next, WaitWords& wait) {
  const auto seconds = next < words.size() ? ReadSeconds(words[next]) : std::nullopt;
  if (!seconds) {
    wait.error = "within needs seconds, up to 86400";
    return;
  }
  wait.seconds = *seconds;
  wait.seconds_text = words[next++];
}

// As many as stand there.
Conditions ReadConditions(const Arguments& words, std::size_t& next) {
  Conditions conditions;
  while (auto condition = ReadCondition(words, next)) conditions.push_back(std::move(*condition));
  return conditions;
}

std::string Quoted(const std::string& word) { return '"' + word + '"'; }

// Reads a clause that a word of its own begins.
void ReadClause(const Arguments& words, std::size_t& next, WaitWords& wait) {
  const std::string& word = words[next++];
  if (word == "within") {
    ReadLimit(words, next, wait);
  } else if (word == "fail") {
    wait.failures.push_back(ReadConditions(words, next));
    if (wait.failures.back().empty()) wait.error = "fail needs a condition, such as play_state=5";
  } else {
    wait.error = Quoted(word) + " is not a condition, such as seek_ms>=5000";
  }
}

WaitWords ReadWait(const Arguments& words) {
  WaitWords wait;
  if (words.empty()) {
    wait.error = "it needs a topic";
    return wait;
  }
  wait.topic = words.front();
  std::size_t next = 1;
  wait.wanted = ReadConditions(words, next);
  while (next < words.size() && wait.error.empty()) ReadClause(words, next, wait);
  return wait;
}

const Conditions* FailureOf(const WaitWords& wait, const Event& event) {
  const auto failed = std::find_if(wait.failures.begin(), wait.failures.end(), [&](const Conditions& conditions) {
    return AllHold(conditions, event.MessageFields());
  });
  return failed == wait.failures.end() ? nullptr : &*failed;
}

std::string TextOf(const Conditions& conditions) {
  std::string text;
  for (const Condition& condition : conditions) text += (text.empty() ? "" : " ") + condition.Text();
  return text;
}

steady_clock::time_point DeadlineOf(const WaitWords& wait) {
  return steady_clock::now() +
         std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(wait.seconds));
}

void ShowFound(SessionControl& session, const Event& event) {
  session.OutStream() << event.text << std::flush;
  for (const auto& [name, value] : event.MessageFields()) ReportField(session.OutStream(), name, value);
}

}  // namespace

void WaitForEvent(SessionControl& session, const Arguments& words) {
  EventHistory& history = session.Events();
  history.KeepLookingBack();
  const WaitWords wait = ReadWait(words);
  if (!wait.error.empty()) return RefuseUsage(session, "wait: " + wait.error, kWaitUsage);
  const auto decides = [&](const Event& event) {
    return TopicMatches(wait.topic, event.topic) && !history.IsUsed(event) &&
           (AllHold(wait.wanted, event.MessageFields()) || FailureOf(wait, event) != nullptr);
  };
  const EitherStop stop(klbase::CurrentStopToken(), session.Ending());
  const auto found = history.Feed().WaitFor(history.From(), decides, DeadlineOf(wait), stop.Token());
  if (found.missed > 0)
    session.OutStream() << "wait: " << found.missed << " events came too long ago to be looked at\n";
  if (found.event == nullptr && stop.Token().stop_requested()) {
    return session.ReportExplained(Status::kCancelled, "wait: the session ends");
  }
  if (found.event == nullptr) {
    return Refuse(session, Status::kTimeout,
                  "wait: no such event of " + wait.topic + " within " + wait.seconds_text + " s");
  }
  history.Use(*found.event);
  ShowFound(session, *found.event);
  const Conditions* failure = FailureOf(wait, *found.event);
  if (failure == nullptr) return;
  Refuse(session, Status::kRefused, "wait: " + found.event->topic + " has failed: " + TextOf(*failure));
}

// --- monitor

MonitorChoice ReadMonitorWords(const Arguments& words) {
  if (words == Arguments{"off"}) return {};
  std::vector<std::string> topics;
  std::size_t next = 0;
  Conditions conditions = ReadConditions(words, next);
  while (next < words.size() && conditions.empty()) {
    topics.push_back(words[next++]);
    conditions = ReadConditions(words, next);
  }
  if (next < words.size()) {
    return {nullptr, "monitor: " + Quoted(words[next]) + " is not a condition, such as seek_ms>=5000"};
  }
  MonitorChoice choice;
  choice.matches = [topics, conditions](const Event& event) {
    const bool topic = topics.empty() || std::any_of(topics.begin(), topics.end(), [&](const std::string& pattern) {
                         return TopicMatches(pattern, event.topic);
                       });
    return topic && (conditions.empty() || AllHold(conditions, event.MessageFields()));
  };
  return choice;
}

void MonitorEvents(SessionControl& session, const Arguments& words) {
  MonitorChoice choice = ReadMonitorWords(words);
  if (!choice.error.empty()) return RefuseUsage(session, choice.error, kMonitorUsage);
  choice.matches ? session.StartMonitor(std::move(choice.matches)) : session.StopMonitor();
}

// --- expect

namespace {

// Besides its fields, a command has a status, a code and a reason.
std::string ValueOf(const Outcome& outcome, const std::string& field, bool& found) {
  found = true;
  if (const std::string* value = FindField(outcome.fields, field)) return *value;
  if (field == "status") return StatusName(outcome.status);
  if (field == "code") return std::to_string(outcome.code);
  if (field == "reason") return outcome.reason;
  found = false;
  return {};
}

std::string NamesOf(const Outcome& outcome) {
  std::string names;
  for (const auto& [name, value] : outcome.fields) names += name + ", ";
  return names + "status, code and reason";
}

// "" when it is met.
std::string WhyUnmet(const Outcome& outcome, const Condition& condition) {
  bool found = false;
  const std::string value = ValueOf(outcome, condition.field, found);
  if (!found) return Quoted(condition.field) + " is not a field of the last command, which has " + NamesOf(outcome);
  if (condition.HoldsFor(value)) return {};
  return condition.field + " is " + Quoted(value) + ", not " + condition.Text();
}

}  // namespace

void ExpectFields(SessionControl& session, const Arguments& words) {
  EventHistory& history = session.Events();
  history.KeepLookingBack();
  history.OnlyLooks();
  std::size_t next = 0;
  const Conditions conditions = ReadConditions(words, next);
  if (next < words.size()) {
    return RefuseUsage(session, "expect: " + Quoted(words[next]) + " is not a condition, such as result=1",
                       kExpectUsage);
  }
  if (conditions.empty()) return RefuseUsage(session, "expect needs a condition, such as result=1", kExpectUsage);
  std::string unmet;
  for (const Condition& condition : conditions) {
    const std::string why = WhyUnmet(history.Last(), condition);
    if (!why.empty()) unmet += (unmet.empty() ? "expect: " : "; ") + why;
  }
  if (!unmet.empty()) Refuse(session, Status::kRefused, unmet);
}

}  // namespace cli::internal
