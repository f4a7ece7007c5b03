#include "server/listening/peers.h"

#include <charconv>
#include <map>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/log.h"
#include "server/listening/connection_groups.h"

namespace klrpc {
namespace {

using EntryPtr = std::shared_ptr<const KnownPeer::Entry>;

struct Registry {
  absl::Mutex mutex;
  std::map<int, EntryPtr> by_descriptor ABSL_GUARDED_BY(mutex);
};

// Never destroyed: gRPC's threads may ask until the process is gone.
Registry& Known() {
  static auto& registry = *new Registry;
  return registry;
}

EntryPtr Find(std::string_view name) {
  constexpr std::string_view kPrefix = "fd:";
  int fd = -1;
  if (name.substr(0, kPrefix.size()) != kPrefix) return nullptr;
  std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), fd);
  Registry& known = Known();
  const absl::MutexLock lock(&known.mutex);
  const auto found = known.by_descriptor.find(fd);
  return found == known.by_descriptor.end() ? nullptr : found->second;
}

std::string Text(const EntryPtr& entry, std::string_view name) {
  return entry == nullptr ? std::string(name) : entry->text;
}

}  // namespace

RefusedMessages MakeRefusedMessages() { return std::make_shared<klbase::CollapsedRecords>(40, "refused messages"); }

KnownPeer::KnownPeer(int fd, const std::string& text, RefusedMessages records)
    : fd_(fd), entry_(std::make_shared<const Entry>(Entry{text, std::move(records)})) {
  Registry& known = Known();
  const absl::MutexLock lock(&known.mutex);
  known.by_descriptor[fd] = entry_;
}

KnownPeer::~KnownPeer() {
  Registry& known = Known();
  const absl::MutexLock lock(&known.mutex);
  const auto found = known.by_descriptor.find(fd_);
  if (found != known.by_descriptor.end() && found->second == entry_) known.by_descriptor.erase(found);
}

std::string DescribePeer(std::string_view name) { return Text(Find(name), name); }

void ReportNoRoom(std::string_view name) {
  // For connections that have just ended. Never destroyed, like the registry.
  static auto& others = *new RefusedMessages(MakeRefusedMessages());
  const EntryPtr entry = Find(name);
  KL_LOG_COLLAPSED(*(entry == nullptr ? others : entry->records),
                   "refused a message of %s: more than %zu bytes have arrived that are not yet a whole message",
                   Text(entry, name).c_str(), ConnectionGroups::kQuotaBytes);
}

}  // namespace klrpc
