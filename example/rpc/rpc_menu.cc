#include "example/rpc/rpc_menu.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <memory>
#include <ostream>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/outcome.h"
#include "core/rpc_url.h"
#include "example/apisdk/report.h"
#include "example/file_completion.h"
#include "example/rpc/messages/message_fields.h"
#include "example/rpc/messages/message_words.h"
#include "example/rpc/messages/word_refusal.h"
#include "example/rpc/rpc_command.h"
#include "example/rpc/rpc_words.h"
#include "klrpc/last_call.h"
#include "player/v1/topics.h"

namespace rpc {
namespace {

using google::protobuf::Any;
using google::protobuf::Descriptor;
using google::protobuf::Message;

constexpr std::chrono::milliseconds kDefaultLimit{3000};  // as a call's

std::string Header(const std::string& name) { return "**************" + name + "**********\n"; }

std::string InJson(const std::string& text) {
  google::protobuf::StringValue value;
  value.set_value(text);
  std::string json;
  return google::protobuf::util::MessageToJsonString(value, &json).ok() ? json : "\"\"";
}

// A message made of words, and where it goes.
struct Request {
  std::shared_ptr<const MessageCatalog> catalog;  // first: the message is of one of its types
  std::unique_ptr<Message> message;
  Address to;
};

Address Destination(const RpcWords& read, const Descriptor& type, const std::string& word) {
  if (read.to) return *read.to;
  Address address = AddressOf(type);
  if (address.url.empty()) {
    Refuse(word, type.full_name() + " belongs to no daemon that is known here; say which one: --to ADDRESS");
  }
  return address;
}

// The word that must be there when the options are taken out.
const std::string& WordAt(const RpcWords& read, std::size_t at, const char* what) {
  if (at < read.words.size()) return read.words[at];
  Refuse(what, std::string("the ") + what + " is missing");
}

// `at` is the message's place among the words; its fields stand behind.
Request ReadRequest(State& state, const RpcWords& read, std::size_t at) {
  Request request{state.catalog.Get(), nullptr, {}};
  const std::string& name = WordAt(read, at, "message");
  const Descriptor& type = request.catalog->Find(name);
  request.message = request.catalog->New(type);
  MessageWords fields(*request.message);
  for (std::size_t i = at + 1; i < read.words.size(); ++i) fields.Add(read.words[i]);
  fields.CheckComplete(name);
  request.to = Destination(read, type, name);
  return request;
}

// --- call

// Reports through `report` and, in JSON, prints the same.
template <typename Reporter>
void ReportAndPrint(std::ostream& out, bool json, const std::string& text, const Reporter& report) {
  std::ostringstream silent;
  const cli::OutcomeRecorder recorder(silent);
  report(silent);
  const cli::Outcome& outcome = recorder.Get();
  if (json) {
    out << "{\"status\":\"" << cli::StatusName(outcome.status) << "\",\"code\":" << outcome.code
        << ",\"reason\":" << InJson(outcome.reason) << "}\n";
  } else {
    out << text;
  }
  cli::Report(out, outcome.status, outcome.code, outcome.reason);
}

void ShowUnreadable(std::ostream& out, const RpcWords& read, const Any& reply, const std::string& why) {
  const std::string size = std::to_string(reply.value().size()) + " bytes";
  ReportAndPrint(out, read.json, Header(reply.type_url()) + size + "\n", [&](std::ostream& to) {
    cli::Report(to, cli::Status::kFailed, 0, "the reply is a " + reply.type_url() + " of " + size + why);
  });
}

void ShowReply(std::ostream& out, const RpcWords& read, const Request& request, const Any& packed) {
  const Descriptor* type = request.catalog->FindByUrl(packed.type_url());
  if (type == nullptr) {
    return ShowUnreadable(out, read, packed, ", a type that is not known here; \"rpc load FILE\" makes it known");
  }
  const auto reply = request.catalog->New(*type);
  if (!reply->ParseFromString(packed.value())) {
    return ShowUnreadable(out, read, packed, " that can't be read; the daemon may have another version of it");
  }
  const FieldLines fields = FieldsOf(*reply);
  out << (read.json ? JsonOf(*reply) + "\n" : Header(type->full_name()) + BlockOf(fields, "")) << std::flush;
  for (const auto& [name, value] : fields) cli::ReportField(out, name, value);
  const Verdict verdict = VerdictOf(*reply);
  ReportReply(out, request.to.name, verdict.accepted, verdict.code, verdict.text);
}

void Call(State& state, std::ostream& out, const Words& words) {
  const RpcWords read = ReadOptions(words);
  const Request request = ReadRequest(state, read, 0);
  const auto connection = state.connections.At(request.to.url);
  Any reply;
  const bool reached = read.within ? connection->Client().CallWithin(*request.message, reply, *read.within)
                                   : connection->Client().Call(*request.message, reply);
  if (reached) return ShowReply(out, read, request, reply);
  const klrpc::CallResult& call = klrpc::LastCall();
  ReportAndPrint(out, read.json, Header(request.message->GetTypeName()) + "no reply\n",
                 [&](std::ostream& to) { ReportNoReply(to, request.to.name, call.code, call.text); });
}

// --- list, describe, load

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
  const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

void List(State& state, std::ostream& out, const Words& words) {
  const auto catalog = state.catalog.Get();
  std::vector<const Descriptor*> shown;
  for (const Descriptor* type : catalog->Types()) {
    const bool wanted = std::all_of(words.begin(), words.end(),
                                    [&](const auto& text) { return ContainsIgnoringCase(type->full_name(), text); });
    if (wanted) shown.push_back(type);
  }
  if (shown.empty() && !words.empty()) {
    std::vector<std::string> names;
    for (const Descriptor* type : catalog->Types()) names.push_back(type->name());
    Refuse(words.front(), "no message has \"" + words.front() + "\" in its name" +
                              NearestOr("\"rpc list\" alone shows them all", words.front(), names));
  }
  std::size_t width = 0;
  for (const Descriptor* type : shown) width = std::max(width, type->full_name().size());
  for (const Descriptor* type : shown) {
    const std::string to = AddressOf(*type).name;
    out << type->full_name();
    if (!to.empty()) out << std::string(width - type->full_name().size() + 2, ' ') << to;
    out << '\n';
  }
}

void Describe(State& state, std::ostream& out, const Words& words) {
  if (words.size() > 1) Refuse(words[1], "describe takes one message at a time");
  const auto catalog = state.catalog.Get();
  const Descriptor& type = catalog->Find(words.front());
  const std::string to = AddressOf(type).name;
  out << type.full_name() << (to.empty() ? "" : ", to " + to) << '\n' << Description(type);
}

void Load(State& state, std::ostream& out, const Words& words) {
  if (words.size() > 1) Refuse(words[1], "load takes one file at a time; quote a name that has blanks");
  const CurrentCatalog::Loaded loaded = state.catalog.Load(words.front());
  if (!loaded.error.empty()) return cli::Report(out, cli::Status::kFailed, 0, loaded.error);
  for (const auto& file : loaded.replaced) out << "another version of " << file << " is replaced\n";
  for (const auto& type : loaded.types) out << type << '\n';
  if (loaded.types.empty() && loaded.replaced.empty()) out << "nothing new in " << words.front() << '\n';
}

// --- publish, subscribe

void Publish(State& state, std::ostream& out, const Words& words) {
  const RpcWords read = ReadOptions(words);
  const std::string& topic = WordAt(read, 0, "topic");
  if (topic.empty()) Refuse(topic, "a topic has at least one character");
  const Request request = ReadRequest(state, read, 1);
  const std::string payload = request.message->SerializeAsString();
  const std::string& to = request.to.name;
  const auto connection = state.connections.At(request.to.url);
  const auto published = connection->Publish(topic, payload, read.within.value_or(kDefaultLimit));
  switch (published.reached) {
    case Reached::kYes:
      out << "published on " << topic << " at " << to << ": " << payload.size() << " bytes\n";
      break;
    case Reached::kNo:
      if (published.why.code != 0) return ReportNoReply(out, to, published.why.code, published.why.text);
      cli::Report(out, cli::Status::kRefused, 0, to + ": " + published.why.text);
      break;
    case Reached::kTimeout:
      cli::Report(out, cli::Status::kTimeout, 0, to + ": it has not confirmed the message, which may still come");
      break;
    case Reached::kCancelled:
      cli::Report(out, cli::Status::kCancelled, 0, "");
      break;
  }
}

// The tool's own modules put these into the feed; a second subscription would double each event.
bool IsInFeedAlready(const std::string& topic, const Address& at) {
  return at.url == core::RpcUnixSocketUrl::rpc_url_playd_ &&
         (topic == lp::v1::kGetSeekOfUplayerTopic || topic == lp::v1::kResultReporTopic);
}

void Subscribe(State& state, std::ostream& out, const Words& words) {
  const RpcWords read = ReadOptions(words);
  const std::string& topic = WordAt(read, 0, "topic");
  if (topic.empty()) Refuse(topic, "a topic has at least one character");
  const std::string& name = WordAt(read, 1, "message");
  if (read.words.size() > 2) Refuse(read.words[2], "behind the message stand --to and --within only");
  EventType type{state.catalog.Get(), nullptr};
  type.type = &type.catalog->Find(name);
  const Address at = Destination(read, *type.type, name);
  if (IsInFeedAlready(topic, at)) {
    out << "the events of " << topic << " at " << at.name << " are in the feed always\n";
    return;
  }
  const std::string text = topic + " at " + at.name + ", read as " + type.type->full_name();
  const auto connection = state.connections.At(at.url);
  const auto subscribed = connection->Subscribe(topic, std::move(type), read.within.value_or(kDefaultLimit));
  if (subscribed.confirmed == Reached::kYes) {
    out << (subscribed.is_new ? "subscribed to " : "already subscribed to ") << text << '\n';
  } else if (subscribed.confirmed == Reached::kCancelled) {
    cli::Report(out, cli::Status::kCancelled, 0, "");
  } else {
    out << "waiting for " << text << '\n';
    if (subscribed.why.code != 0) return ReportNoReply(out, at.name, subscribed.why.code, subscribed.why.text);
    cli::Report(out, cli::Status::kTimeout, 0,
                at.name + ": it has not confirmed the subscription, which stays and waits for it");
  }
}

// --- Tab and hints

Candidates Beginning(const std::vector<std::string>& words, const std::string& typed) {
  Candidates found;
  for (const auto& word : words) {
    if (word.starts_with(typed)) found.push_back({word, true});
  }
  return found;
}

const Descriptor* FindOrNull(const MessageCatalog& catalog, const std::string& name) {
  try {
    return &catalog.Find(name);
  } catch (const WordRefusal&) {
    return nullptr;
  }
}

// What completes the words when the message is the one at `at`; before it stand topics.
Candidates CompleteMessage(State& state, const Words& words, std::size_t at, bool with_fields) {
  const TypedWords typed = LeaveOutOptions(words);
  if (typed.open_option == "--to") return Beginning(AddressNames(), words.back());
  if (!typed.open_option.empty()) return {};
  const std::string& last = words.back();
  const std::size_t place = typed.words.size() - 1;
  const auto catalog = state.catalog.Get();
  if (place < at) return Beginning({lp::v1::kGetSeekOfUplayerTopic, lp::v1::kResultReporTopic}, last);
  if (place == at) return CompleteType(*catalog, last);
  if (last.starts_with('-')) return Beginning({"--to", "--within", "--json"}, last);
  const Descriptor* type = FindOrNull(*catalog, typed.words[at]);
  if (type == nullptr || !with_fields) return {};
  const auto first = typed.words.begin() + static_cast<std::ptrdiff_t>(at) + 1;
  return CompleteField(*type, {first, typed.words.end() - 1}, last);
}

Candidates CompleteCall(State& state, const Words& words) { return CompleteMessage(state, words, 0, true); }
Candidates CompletePublish(State& state, const Words& words) { return CompleteMessage(state, words, 1, true); }
Candidates CompleteSubscribe(State& state, const Words& words) { return CompleteMessage(state, words, 1, false); }

Candidates CompleteDescribe(State& state, const Words& words) {
  return words.size() == 1 ? CompleteType(*state.catalog.Get(), words.back()) : Candidates();
}

Candidates CompleteLoad(State&, const Words& words) {
  return words.size() == 1 ? CompleteFile(words.back()) : Candidates();
}

std::string HintOfFields(State& state, const Words& words, std::size_t at) {
  const TypedWords typed = LeaveOutOptions(words);
  if (!typed.open_option.empty()) {
    return words.back().empty() ? (typed.open_option == "--to" ? "<address>" : "<seconds>") : "";
  }
  if (typed.words.size() <= at + 1) return {};
  const auto catalog = state.catalog.Get();
  const Descriptor* type = FindOrNull(*catalog, typed.words[at]);
  if (type == nullptr) return {};
  return FieldHint(*type, {typed.words.begin() + static_cast<std::ptrdiff_t>(at) + 1, typed.words.end()});
}

std::string HintOfCall(State& state, const Words& words) { return HintOfFields(state, words, 0); }
std::string HintOfPublish(State& state, const Words& words) { return HintOfFields(state, words, 1); }

const CommandRow kRows[] = {
    {"call",
     {"message", "field=value ..."},
     "send any message and show the reply; options: --to ADDRESS --within SECONDS --json",
     "GetSeekOfUplayerReq unique_id=0",
     1,
     &Call,
     &CompleteCall,
     &HintOfCall},
    {"list", {"text"}, "show the messages, or those with this text in their names", "Seek", 0, &List, nullptr, nullptr},
    {"describe",
     {"message"},
     "show a message's fields",
     "SetSeekOfUplayerReq",
     1,
     &Describe,
     &CompleteDescribe,
     nullptr},
    {"load",
     {"file"},
     "read more messages from a FileDescriptorSet, which protoc makes",
     "build/demo/messages.pb",
     1,
     &Load,
     &CompleteLoad,
     nullptr},
    {"publish",
     {"topic", "message", "field=value ..."},
     "publish any message; options: --to ADDRESS --within SECONDS",
     "demo/note PubTestMessage event=hello",
     2,
     &Publish,
     &CompletePublish,
     &HintOfPublish},
    {"subscribe",
     {"topic", "message"},
     "put a topic's events into the feed; options: --to ADDRESS --within SECONDS",
     "demo/note PubTestMessage",
     2,
     &Subscribe,
     &CompleteSubscribe,
     nullptr},
};

// Made before main() and destroyed behind the console, whose commands use it.
State process_state;

}  // namespace

std::unique_ptr<cli::Menu> MakeMenu(State& state) {
  auto menu = std::make_unique<cli::Menu>(kRpcCliName);
  for (const CommandRow& row : kRows) menu->Insert(std::make_unique<RpcCommand>(state, row));
  return menu;
}

}  // namespace rpc

RpcCli::RpcCli(cli::Menu* parent) : RegisteredPlugin(kRpcCliName) {
  menu_ = parent->Insert(rpc::MakeMenu(rpc::process_state));
}
