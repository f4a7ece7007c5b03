// The messages that can be sent and read: those that are compiled in, and those that were loaded from files.
#ifndef EXAMPLE_RPC_MESSAGES_MESSAGE_CATALOG_H_
#define EXAMPLE_RPC_MESSAGES_MESSAGE_CATALOG_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace rpc {

// Immutable; any thread. It owns the types that it hands out (those that are compiled in belong to the process): types
// and the messages made of them don't outlive it.
class MessageCatalog {
 public:
  // What is compiled in.
  MessageCatalog();
  // Files by name, each with all that it imports. Throws std::invalid_argument with protobuf's own text when they don't
  // fit together.
  explicit MessageCatalog(const google::protobuf::FileDescriptorSet& files);
  MessageCatalog(const MessageCatalog&) = delete;
  MessageCatalog& operator=(const MessageCatalog&) = delete;

  // By full name, or by as much of its end as tells it from the others: "CreateUplayerReq". Throws a WordRefusal that
  // names the candidates, or the nearest names.
  const google::protobuf::Descriptor& Find(const std::string& name) const;
  // The type that a type URL names; null when it is not known.
  const google::protobuf::Descriptor* FindByUrl(std::string_view type_url) const;
  // A message of a type of this catalog, with nothing set.
  std::unique_ptr<google::protobuf::Message> New(const google::protobuf::Descriptor& type) const;

  // All types but nested ones and those of protobuf itself and of the message RPC, by full name in ascending order.
  const std::vector<const google::protobuf::Descriptor*>& Types() const { return types_; }
  // What suffices to name a type: its short name where that is unique.
  std::string ShortName(const google::protobuf::Descriptor& type) const;

  // The files that it was made of.
  google::protobuf::FileDescriptorSet Files() const;

 private:
  const google::protobuf::DescriptorPool& Pool() const;
  void AddFile(const google::protobuf::FileDescriptor& file);
  std::vector<const google::protobuf::Descriptor*> NamedByEnd(std::string_view end) const;

  const std::unique_ptr<google::protobuf::DescriptorPool> loaded_;  // null: the process's own
  std::vector<const google::protobuf::FileDescriptor*> files_;
  std::vector<const google::protobuf::Descriptor*> types_;
  std::vector<const google::protobuf::Descriptor*> all_types_;  // nested ones too
  mutable google::protobuf::DynamicMessageFactory factory_;     // any thread may use it
};

// The catalog as it is now. Any thread; what is in use stays as it was when something is loaded.
class CurrentCatalog {
 public:
  // Reads the compiled-in types at the first call.
  std::shared_ptr<const MessageCatalog> Get();

  struct Loaded {
    std::string error;                  // why nothing was loaded, with the next step; "" when it was
    std::vector<std::string> types;     // full names, of the files that are new or different
    std::vector<std::string> replaced;  // files of which another version was there
  };
  // Adds the files of a serialised FileDescriptorSet. A file that is there in another version is replaced, by all or
  // by none: what doesn't fit together changes nothing.
  Loaded Load(const std::string& path);

 private:
  Loaded Add(const google::protobuf::FileDescriptorSet& set);

  absl::Mutex load_mutex_;  // held while a set is put together, so that loads come one after another
  absl::Mutex mutex_ ABSL_ACQUIRED_AFTER(load_mutex_);
  std::shared_ptr<const MessageCatalog> catalog_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace rpc

#endif  // EXAMPLE_RPC_MESSAGES_MESSAGE_CATALOG_H_
