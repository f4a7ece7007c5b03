#include "example/rpc/messages/message_catalog.h"

#include <fcntl.h>
#include <google/protobuf/descriptor_database.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "example/rpc/messages/word_refusal.h"

namespace rpc {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;
using google::protobuf::Message;

// Protobuf's own files are the same everywhere, but for comments: those that are compiled in are kept.
bool IsProtobufs(std::string_view file) { return file.starts_with("google/protobuf/"); }
// The envelopes of the message RPC travel around a request, not as one.
bool IsTransport(std::string_view file) { return file.starts_with("klrpc/"); }

std::vector<std::string> CompiledInFiles() {
  std::vector<std::string> names;
  DescriptorPool::internal_generated_database()->FindAllFileNames(&names);
  std::sort(names.begin(), names.end());
  return names;
}

std::string LastPart(const std::string& full_name) { return full_name.substr(full_name.rfind('.') + 1); }

// Keeps what protobuf says of a file that it can't build.
class Errors : public DescriptorPool::ErrorCollector {
 public:
  void AddError(const std::string& file, const std::string& element, const Message*, ErrorLocation,
                const std::string& message) override {
    // Those behind the first follow from it; but fields are refused before the message that is the trouble.
    const bool wider = !element.empty() && element_.starts_with(element + ".");
    if (!text_.empty() && !wider) return;
    element_ = element;
    text_ = file + ": " + (element.empty() || element == file ? "" : element + ": ") + message;
    while (text_.ends_with('.')) text_.pop_back();
  }
  const std::string& Text() const { return text_; }

 private:
  std::string element_;
  std::string text_;
};

using FilesByName = std::map<std::string, const FileDescriptorProto*>;

// Builds `file` behind those that it imports. Files that import each other in a circle are left for protobuf to refuse:
// `under_way` holds those that wait for their imports.
void Build(const FileDescriptorProto& file, const FilesByName& files, std::set<std::string>& under_way,
           DescriptorPool& pool) {
  constexpr std::size_t kLongestChain = 1000;  // far more than anybody's, and no danger to the stack
  if (pool.FindFileByName(file.name()) != nullptr || !under_way.insert(file.name()).second) return;
  if (under_way.size() > kLongestChain) throw std::invalid_argument(file.name() + ": the chain of imports is too long");
  for (const std::string& import : file.dependency()) {
    const auto found = files.find(import);
    if (found != files.end()) Build(*found->second, files, under_way, pool);
  }
  under_way.erase(file.name());
  Errors errors;
  if (pool.BuildFileCollectingErrors(file, &errors) == nullptr) throw std::invalid_argument(errors.Text());
}

std::unique_ptr<DescriptorPool> BuildPool(const FileDescriptorSet& set) {
  FilesByName files;
  for (const FileDescriptorProto& file : set.file()) files[file.name()] = &file;
  auto pool = std::make_unique<DescriptorPool>();
  std::set<std::string> under_way;
  for (const FileDescriptorProto& file : set.file()) Build(file, files, under_way, *pool);
  return pool;
}

}  // namespace

MessageCatalog::MessageCatalog() : factory_(nullptr) {
  factory_.SetDelegateToGeneratedFactory(true);
  for (const std::string& name : CompiledInFiles()) AddFile(*Pool().FindFileByName(name));
  std::sort(types_.begin(), types_.end(), [](const auto* a, const auto* b) { return a->full_name() < b->full_name(); });
}

MessageCatalog::MessageCatalog(const FileDescriptorSet& files) : loaded_(BuildPool(files)), factory_(loaded_.get()) {
  for (const FileDescriptorProto& file : files.file()) AddFile(*Pool().FindFileByName(file.name()));
  std::sort(types_.begin(), types_.end(), [](const auto* a, const auto* b) { return a->full_name() < b->full_name(); });
}

const DescriptorPool& MessageCatalog::Pool() const { return loaded_ ? *loaded_ : *DescriptorPool::generated_pool(); }

void MessageCatalog::AddFile(const FileDescriptor& file) {
  files_.push_back(&file);
  const std::size_t first_nested = all_types_.size();
  for (int i = 0; i < file.message_type_count(); ++i) {
    all_types_.push_back(file.message_type(i));
    if (!IsProtobufs(file.name()) && !IsTransport(file.name())) types_.push_back(file.message_type(i));
  }
  for (std::size_t at = first_nested; at < all_types_.size(); ++at) {
    const Descriptor& type = *all_types_[at];
    for (int i = 0; i < type.nested_type_count(); ++i) {
      if (!type.nested_type(i)->options().map_entry()) all_types_.push_back(type.nested_type(i));
    }
  }
}

std::vector<const Descriptor*> MessageCatalog::NamedByEnd(std::string_view end) const {
  std::vector<const Descriptor*> named;
  for (const Descriptor* type : all_types_) {
    const std::string_view name = type->full_name();
    const bool at_a_dot = name.size() > end.size() && name[name.size() - end.size() - 1] == '.';
    if (at_a_dot && name.ends_with(end)) named.push_back(type);
  }
  return named;
}

const Descriptor& MessageCatalog::Find(const std::string& name) const {
  const Descriptor* exact = Pool().FindMessageTypeByName(name);
  if (exact != nullptr && !exact->options().map_entry()) return *exact;
  const std::vector<const Descriptor*> named = name.empty() ? std::vector<const Descriptor*>() : NamedByEnd(name);
  if (named.size() == 1) return *named.front();
  std::vector<std::string> names;
  if (named.empty()) {
    const bool full = name.find('.') != std::string::npos;
    for (const Descriptor* type : types_) names.push_back(full ? type->full_name() : type->name());
    Refuse(name, '"' + name + "\" is not a message" + NearestOr("\"rpc list\" shows them all", name, names));
  }
  for (const Descriptor* type : named) names.push_back(type->full_name());
  std::sort(names.begin(), names.end());
  std::string candidates;
  for (const auto& each : names) candidates += (candidates.empty() ? "" : ", ") + each;
  Refuse(name, '"' + name + "\" may be " + candidates + "; write one of these");
}

const Descriptor* MessageCatalog::FindByUrl(std::string_view type_url) const {
  const std::size_t slash = type_url.rfind('/');
  if (slash == std::string_view::npos) return nullptr;
  return Pool().FindMessageTypeByName(std::string(type_url.substr(slash + 1)));
}

std::unique_ptr<Message> MessageCatalog::New(const Descriptor& type) const {
  return std::unique_ptr<Message>(factory_.GetPrototype(&type)->New());
}

std::string MessageCatalog::ShortName(const Descriptor& type) const {
  const std::string last = LastPart(type.full_name());
  return NamedByEnd(last).size() == 1 ? last : type.full_name();
}

FileDescriptorSet MessageCatalog::Files() const {
  FileDescriptorSet set;
  for (const FileDescriptor* file : files_) file->CopyTo(set.add_file());
  return set;
}

// --- the current one

namespace {

constexpr off_t kLargestSet = 64 << 20;
constexpr char kHowToMakeOne[] = "; protoc --include_imports --descriptor_set_out=FILE X.proto makes one";

std::string SystemError() { return std::strerror(errno); }

// Throws std::runtime_error with a text for the operator.
std::string ReadSet(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);  // a FIFO must not hold us up
  if (file < 0) throw std::runtime_error("can't open " + path + ": " + SystemError());
  const auto refuse = [&](const std::string& why) {
    close(file);
    throw std::runtime_error(path + " " + why);
  };
  struct stat status {};
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) refuse("is not a file");
  if (status.st_size > kLargestSet) refuse("has more than 64 MiB: it is not a FileDescriptorSet");
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t have = 0;
  while (have < content.size()) {
    const ssize_t got = read(file, content.data() + have, content.size() - have);
    if (got < 0) refuse("can't be read: " + SystemError());
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  close(file);
  content.resize(have);
  return content;
}

FileDescriptorSet ParseSet(const std::string& path) {
  FileDescriptorSet set;
  if (!set.ParseFromString(ReadSet(path)) || set.file_size() == 0) {
    throw std::runtime_error(path + " is not a FileDescriptorSet" + kHowToMakeOne);
  }
  for (const FileDescriptorProto& file : set.file()) {
    if (file.name().empty()) throw std::runtime_error(path + " is not a FileDescriptorSet" + kHowToMakeOne);
  }
  return set;
}

// protoc writes them, a descriptor does not.
void ClearJsonNames(google::protobuf::DescriptorProto& type) {
  for (auto& field : *type.mutable_field()) field.clear_json_name();
  for (auto& nested : *type.mutable_nested_type()) ClearJsonNames(nested);
}

// Two sets may hold the same file with and without what only people and compilers read.
std::string Content(FileDescriptorProto file) {
  file.clear_source_code_info();
  for (auto& type : *file.mutable_message_type()) ClearJsonNames(type);
  return file.SerializeAsString();
}

// What a set changes of the files that are there.
struct Change {
  FileDescriptorSet files;
  std::set<std::string> changed;
  std::vector<std::string> replaced;
};

Change Merge(const FileDescriptorSet& there, const FileDescriptorSet& added) {
  Change change;
  std::map<std::string, FileDescriptorProto> files;
  for (const FileDescriptorProto& file : there.file()) files[file.name()] = file;
  std::map<std::string, std::string> seen;
  for (const FileDescriptorProto& file : added.file()) {
    const std::string content = Content(file);
    const auto [twice, first] = seen.try_emplace(file.name(), content);
    if (!first && twice->second != content) throw std::runtime_error("it holds two versions of " + file.name());
    const auto old = files.find(file.name());
    if (old != files.end() && (IsProtobufs(file.name()) || Content(old->second) == content)) continue;
    if (old != files.end()) change.replaced.push_back(file.name());
    change.changed.insert(file.name());
    files[file.name()] = file;
  }
  for (auto& [name, file] : files) *change.files.add_file() = std::move(file);
  return change;
}

}  // namespace

std::shared_ptr<const MessageCatalog> CurrentCatalog::Get() {
  const absl::MutexLock lock(&mutex_);
  if (!catalog_) catalog_ = std::make_shared<const MessageCatalog>();
  return catalog_;
}

CurrentCatalog::Loaded CurrentCatalog::Load(const std::string& path) {
  const absl::MutexLock load_lock(&load_mutex_);
  Loaded loaded;
  try {
    const FileDescriptorSet set = ParseSet(path);
    try {
      return Add(set);
    } catch (const std::exception& error) {
      loaded.error = path + " changes nothing: " + error.what();
      const bool imports = loaded.error.find("mport") != std::string::npos;
      if (imports) loaded.error += "; protoc puts what a file imports into the set with --include_imports";
    }
  } catch (const std::exception& error) {
    loaded.error = error.what();
  }
  return loaded;
}

CurrentCatalog::Loaded CurrentCatalog::Add(const FileDescriptorSet& set) {
  Change change = Merge(Get()->Files(), set);
  Loaded loaded;
  loaded.replaced = std::move(change.replaced);
  if (change.changed.empty()) return loaded;
  auto catalog = std::make_shared<const MessageCatalog>(change.files);
  for (const Descriptor* type : catalog->Types()) {
    if (change.changed.count(type->file()->name()) > 0) loaded.types.push_back(type->full_name());
  }
  const absl::MutexLock lock(&mutex_);
  catalog_.swap(catalog);
  return loaded;
}

}  // namespace rpc
