#include "cli/feed/events.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/feed.h"
#include "klbase/metrics.h"

namespace cli {
namespace internal {
namespace {

using Json = nlohmann::ordered_json;

std::string Text(const Json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

void AddFields(const std::string& name, const Json& value, Fields& fields) {
  if (!value.is_structured()) {
    fields.emplace_back(name, Text(value));
    return;
  }
  std::size_t index = 0;
  for (const auto& item : value.items()) {
    std::string member = name.empty() ? "" : name + ".";
    member += value.is_object() ? item.key() : std::to_string(index++);
    AddFields(member, item.value(), fields);
  }
}

const klbase::Counters& Posted() {
  static const klbase::Counters posted("vextool_events_total", "Events that the daemons have published, by topic.",
                                       {"topic"});
  return posted;
}

}  // namespace

Fields FlatFields(const std::string& json) {
  Fields fields;
  const Json parsed = Json::parse(json, nullptr, false);
  if (parsed.is_object()) AddFields({}, parsed, fields);
  return fields;
}

const std::string& Event::Message() const {
  absl::call_once(made_, [this] { message_ = make_message(); });
  return message_;
}

const Fields& Event::MessageFields() const {
  absl::call_once(read_, [this] { fields_ = FlatFields(Message()); });
  return fields_;
}

EventFeed& EventFeed::OfProcess() {
  static auto& feed = *new EventFeed();
  return feed;
}

void EventFeed::Post(std::string topic, std::string text, std::function<std::string()> message) {
  auto event = std::make_shared<Event>();
  event->time = std::chrono::system_clock::now();
  event->topic = std::move(topic);
  event->text = std::move(text);
  event->make_message = std::move(message);
  std::vector<std::weak_ptr<const Watcher>> watchers;
  {
    const absl::MutexLock lock(&mutex_);
    event->number = next_++;
    kept_.push_back(event);
    if (kept_.size() > kKept) kept_.pop_front();
    std::erase_if(watchers_, [](const auto& weak) { return weak.expired(); });
    watchers = watchers_;
    posted_.SignalAll();
  }
  Posted().With({event->topic}).Add();
  for (const auto& weak : watchers) {
    if (const auto watcher = weak.lock()) (*watcher)(event);
  }
}

std::uint64_t EventFeed::Next() const {
  const absl::MutexLock lock(&mutex_);
  return next_;
}

EventPtr EventFeed::FindLocked(std::uint64_t& from, const Matches& matches) const {
  from = std::max(from, FirstKeptLocked());
  while (from < next_) {
    const EventPtr& event = kept_[static_cast<std::size_t>(from++ - FirstKeptLocked())];
    if (matches(*event)) return event;
  }
  return nullptr;
}

EventFeed::Found EventFeed::WaitFor(std::uint64_t from, const Matches& matches,
                                    std::chrono::steady_clock::time_point deadline, const std::stop_token& given_up) {
  // Under the mutex, so that the waiter either sees the request or is woken by it.
  const std::stop_callback wake(given_up, [this] {
    const absl::MutexLock lock(&mutex_);
    posted_.SignalAll();
  });
  const absl::MutexLock lock(&mutex_);
  Found found;
  for (bool left = true; found.event == nullptr && !given_up.stop_requested();
       left = posted_.WaitUntil(&mutex_, deadline)) {
    found.missed += from < FirstKeptLocked() ? FirstKeptLocked() - from : 0;
    found.event = FindLocked(from, matches);
    if (found.event != nullptr || !left) break;
  }
  return found;
}

std::shared_ptr<const EventFeed::Watcher> EventFeed::Watch(Watcher watcher) {
  auto shared = std::make_shared<const Watcher>(std::move(watcher));
  const absl::MutexLock lock(&mutex_);
  watchers_.push_back(shared);
  return shared;
}

}  // namespace internal

void PostEvent(std::string topic, std::string text, std::string message) {
  PostEvent(std::move(topic), std::move(text), [message = std::move(message)] { return message; });
}

void PostEvent(std::string topic, std::string text, std::function<std::string()> message) {
  internal::EventFeed::OfProcess().Post(std::move(topic), std::move(text), std::move(message));
}

}  // namespace cli
