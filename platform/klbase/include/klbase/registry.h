// A registry of creators under names, in which plugins, modules and services register themselves.
#ifndef KLBASE_REGISTRY_H_
#define KLBASE_REGISTRY_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "klbase/log.h"

namespace klbase {

// Creators by name; `Creator` is a std::function. Any thread. Keep it in a function-local static object that is never
// destroyed, so that static objects of any file can register while they are built and still find it while they go.
//
// A name comes as a string, which is copied at once, or as the address of a constant. A constant of another file, and
// with clang also one of the same file, may be built after the static object that registers it; so it is not read
// before the registry is used, that is before Names() or Find(). Use the registry from main() on only, where every
// constant has its text.
//
// Of several entries with one name the first wins, in the order of the Register() calls and whichever way the names
// came; the others are dropped without a record.
//
// An empty name is a name: Names() lists it, Find("") gives its creator, and a second one is dropped. It is hardly ever
// meant, so the first use after its registration writes a record of level 40 for each.
template <typename Creator>
class Registry {
 public:
  // `kind` says in records what is registered: "module". A static text.
  explicit Registry(const char* kind) : kind_(kind) {}
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  // Adds `creator` and returns true; returns false and changes nothing when the name is taken. Names that came as
  // addresses since the last use are not known yet and don't count: if an earlier one of them turns out to be the same,
  // it wins in spite of the true. A caller in main() that needs to be sure calls Names() first.
  bool Register(const std::string& name, Creator creator) {
    absl::MutexLock lock(&mutex_);
    if (IsTakenLocked(name)) return false;
    unread_.push_back({nullptr, name, std::move(creator)});
    return true;
  }

  // The same for the constant at `name`, which must live as long as the registry. Always true, because the name is not
  // read here.
  bool Register(const std::string* name, Creator creator) {
    absl::MutexLock lock(&mutex_);
    unread_.push_back({name, "", std::move(creator)});
    return true;
  }

  // The names in ascending byte order.
  std::vector<std::string> Names() {
    ReadNames();
    absl::MutexLock lock(&mutex_);
    std::vector<std::string> names;
    for (const auto& [name, creator] : creators_) names.push_back(name);
    return names;
  }

  // The creator under `name`, which may be an empty function; null when there is none. Valid as long as the registry.
  const Creator* Find(const std::string& name) {
    ReadNames();
    absl::MutexLock lock(&mutex_);
    const auto found = creators_.find(name);
    return found == creators_.end() ? nullptr : &found->second;
  }

 private:
  struct Entry {
    const std::string* constant;  // null: `name` holds the name
    std::string name;
    Creator creator;
  };

  bool IsTakenLocked(const std::string& name) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) {
    for (const auto& entry : unread_) {
      if (entry.constant == nullptr && entry.name == name) return true;
    }
    return creators_.count(name) > 0;
  }

  // Moves the entries that came since the last use to their names. Records are written without the lock: an observer of
  // the log may use the registry.
  void ReadNames() ABSL_LOCKS_EXCLUDED(mutex_) {
    int unnamed = 0;
    {
      absl::MutexLock lock(&mutex_);
      for (auto& entry : unread_) {
        const std::string& name = entry.constant != nullptr ? *entry.constant : entry.name;
        if (name.empty()) ++unnamed;
        creators_.try_emplace(name, std::move(entry.creator));
      }
      unread_.clear();
    }
    for (; unnamed > 0; --unnamed) {
      KL_LOG(40, "a %s is registered under an empty name: its name constant has no text, or was read before main()",
             kind_);
    }
  }

  const char* const kind_;
  absl::Mutex mutex_;
  std::vector<Entry> unread_ ABSL_GUARDED_BY(mutex_);  // in the order of registration
  std::map<std::string, Creator> creators_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klbase

#endif  // KLBASE_REGISTRY_H_
