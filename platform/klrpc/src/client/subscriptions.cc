#include "client/subscriptions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "klbase/log.h"

namespace klrpc {
namespace {

// Numbers of SubscribeState.
constexpr int kConfirmed = 1;
constexpr int kEnded = 2;

// A full queue of events stops the reading for so long at most: slots that are only slow get the whole burst then, as
// far as the server's queue holds it, and slots that are stuck lose what comes.
constexpr std::chrono::milliseconds kLongestPause{1000};

constexpr double kBackOffFactor = 1.6;  // as gRPC's own

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

bool HasKey(const grpc_metadata_array& metadata, const char* key) {
  const grpc_metadata* begin = metadata.metadata;
  return std::any_of(begin, begin + metadata.count,
                     [key](const grpc_metadata& entry) { return grpc_slice_str_cmp(entry.key, key) == 0; });
}

}  // namespace

// One stream, from its call to its end. Its operations keep it alive.
class Subscriptions::Stream : public std::enable_shared_from_this<Stream> {
 public:
  Stream(Subscriptions& owner, Connection connection, std::string client_id, std::vector<std::string> topics,
         std::uint64_t number)
      : owner_(owner),
        connection_(std::move(connection)),
        client_id_(std::move(client_id)),
        topics_(std::move(topics)),
        name_(owner.owner_ + "/" + std::to_string(number)),
        call_(grpc_channel_create_call(connection_.Channel().get(), nullptr, GRPC_PROPAGATE_DEFAULTS,
                                       owner.loop_.Queue(), grpc_slice_from_static_string(kSubscribeMethod), nullptr,
                                       Never(), nullptr)) {
    grpc_metadata_array_init(&initial_metadata_);
    grpc_metadata_array_init(&trailing_metadata_);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    grpc_metadata_array_destroy(&initial_metadata_);
    grpc_metadata_array_destroy(&trailing_metadata_);
    grpc_call_unref(call_);
  }

  const std::string& ClientId() const { return client_id_; }
  const std::vector<std::string>& Topics() const { return topics_; }
  const ChannelPtr& Channel() const { return connection_.Channel(); }
  // Whether its connection was made, as far as that is known at once.
  bool Reached() const { return connection_.Outcome().code == GRPC_STATUS_OK; }
  grpc_status_code Code() const { return status_; }
  std::string Text() const { return std::string(text_.View()); }
  // Metadata comes with a refusal too, then without the entry.
  bool Accepted() const { return HasKey(initial_metadata_, kStreamKey); }

  void Start();
  void Read();
  void Cancel() { grpc_call_cancel(call_, nullptr); }

  // Guarded by the owner's mutex.
  bool confirmed = false;
  std::chrono::steady_clock::time_point confirmed_at;

 private:
  void OnConfirmed(bool ok) {
    if (ok && Accepted()) owner_.OnConfirmed(*this);
  }
  void OnMessage(bool ok) {
    if (!ok || !message_) return;  // the end, which comes with its reason
    const Buffer message = std::move(message_);
    owner_.OnMessage(message, shared_from_this());
  }
  void OnEnded(bool) { owner_.OnEnded(shared_from_this()); }

  Subscriptions& owner_;
  const Connection connection_;
  const std::string client_id_;
  const std::vector<std::string> topics_;
  const std::string name_;
  grpc_call* const call_;
  grpc_metadata_array initial_metadata_{};
  grpc_metadata_array trailing_metadata_{};
  grpc_status_code status_ = GRPC_STATUS_UNKNOWN;
  Slice text_;
  Buffer message_;
  Completion<Stream> confirmed_{this, &Stream::OnConfirmed};
  Completion<Stream> received_{this, &Stream::OnMessage};
  Completion<Stream> ended_{this, &Stream::OnEnded};
};

void Subscriptions::Stream::Start() {
  grpc_op end{};
  end.op = GRPC_OP_RECV_STATUS_ON_CLIENT;
  end.data.recv_status_on_client.trailing_metadata = &trailing_metadata_;
  end.data.recv_status_on_client.status = &status_;
  end.data.recv_status_on_client.status_details = text_.Reset();
  if (!owner_.loop_.StartBatch(call_, &end, 1, ended_.Begin())) return ended_.Abandon();
  // The end is asked for first, so that a failure of the operations below is reported by it.

  klrpc::v1::SubscribeRequest request;
  request.set_client_id(client_id_);
  for (const std::string& topic : topics_) request.add_topics(topic);
  const Buffer message(Serialize(request));
  grpc_metadata name{};
  name.key = grpc_slice_from_static_string(kStreamKey);
  name.value = grpc_slice_from_static_buffer(name_.data(), name_.size());
  std::array<grpc_op, 4> ops{};
  ops[0].op = GRPC_OP_SEND_INITIAL_METADATA;
  ops[0].flags = GRPC_INITIAL_METADATA_WAIT_FOR_READY | GRPC_INITIAL_METADATA_WAIT_FOR_READY_EXPLICITLY_SET;
  ops[0].data.send_initial_metadata.count = 1;
  ops[0].data.send_initial_metadata.metadata = &name;
  ops[1].op = GRPC_OP_SEND_MESSAGE;
  ops[1].data.send_message.send_message = message.Get();
  ops[2].op = GRPC_OP_SEND_CLOSE_FROM_CLIENT;
  ops[3].op = GRPC_OP_RECV_INITIAL_METADATA;
  ops[3].data.recv_initial_metadata.recv_initial_metadata = &initial_metadata_;
  if (!owner_.loop_.StartBatch(call_, ops.data(), ops.size(), confirmed_.Begin())) confirmed_.Abandon();
}

void Subscriptions::Stream::Read() {
  grpc_op op{};
  op.op = GRPC_OP_RECV_MESSAGE;
  op.data.recv_message.recv_message = message_.Reset();
  if (!owner_.loop_.StartBatch(call_, &op, 1, received_.Begin())) received_.Abandon();
}

Subscriptions::Subscriptions(const APIClientOptions& options, Connector& connector, ClientLoop& loop,
                             SlotThread& thread, EventQueue::Slots slots)
    : options_(options),
      connector_(connector),
      loop_(loop),
      events_(options.Address(), thread, std::move(slots), [this] { ReadPaused(); }) {}

void Subscriptions::Subscribe(const std::string& client_id, const std::vector<std::string>& topics) {
  {
    const absl::MutexLock lock(&mutex_);
    std::vector<std::string>& known = by_client_[client_id].topics;
    const std::size_t before = known.size();
    for (const std::string& topic : topics) {
      if (!Contains(known, topic)) known.push_back(topic);
    }
    if (known.size() == before) return;
  }
  Open(client_id);
}

// Opens a stream over all topics of the client id, unless the last one has them already or still waits for its server.
// That one is not given up for a wider one: its server may have taken it, and messages for it, without our knowing.
void Subscriptions::Open(const std::string& client_id) {
  {
    const absl::MutexLock lock(&mutex_);
    if (!NeedsStreamLocked(client_id)) return;
  }
  Connection connection = connector_.Connect(Connector::Use::kStreams);
  StreamPtr stream;
  {
    const absl::MutexLock lock(&mutex_);
    if (!NeedsStreamLocked(client_id)) return;  // another thread was quicker
    Subscription& subscription = by_client_[client_id];
    stream = std::make_shared<Stream>(*this, std::move(connection), client_id, subscription.topics, ++opened_);
    subscription.streams.push_back(stream);
    all_.insert(stream);
  }
  stream->Start();
}

bool Subscriptions::NeedsStreamLocked(const std::string& client_id) {
  const Subscription& subscription = by_client_[client_id];
  if (cancelled_ || subscription.topics.empty()) return false;
  const auto& streams = subscription.streams;
  return streams.empty() || (streams.back()->confirmed && streams.back()->Topics() != subscription.topics);
}

void Subscriptions::OnConfirmed(Stream& stream) {
  bool read = false;
  {
    const absl::MutexLock lock(&mutex_);
    const auto& streams = by_client_[stream.ClientId()].streams;
    const auto found = std::find_if(streams.begin(), streams.end(),
                                    [&stream](const StreamPtr& each) { return each.get() == &stream; });
    if (found == streams.end()) return;  // ended already
    // Read only when the streams before it have ended: their last messages come first.
    stream.confirmed = true;
    stream.confirmed_at = std::chrono::steady_clock::now();
    read = found == streams.begin();
  }
  events_.AddState(StateMessage(stream, kConfirmed));
  if (read) stream.Read();
  Open(stream.ClientId());  // topics may have been added while it waited
}

void Subscriptions::OnMessage(const Buffer& bytes, const StreamPtr& stream) {
  klrpc::v1::PubsubMessage message;
  bool room = true;
  if (bytes.ParseInto(message)) {
    room = events_.AddMessage(std::move(message));
  } else {
    KL_LOG(40, "%s: dropped an event that does not parse", options_.Address().c_str());
  }
  ReadOrPause(room, stream);
}

// Only the asking for messages pauses. The loop goes on with all else, so the connection is kept alive.
void Subscriptions::ReadOrPause(bool room, const StreamPtr& stream) {
  if (room) return stream->Read();
  std::uint64_t pause = 0;
  {
    const absl::MutexLock lock(&mutex_);
    if (cancelled_) return;
    if (paused_.empty()) pause = ++pauses_;
    paused_.insert(stream);
  }
  if (pause != 0) loop_.RunAfter(kLongestPause, [this, pause] { EndPause(pause); });
  if (!events_.Full()) ReadPaused();  // there was room again before the stream was among the paused ones
}

void Subscriptions::EndPause(std::uint64_t pause) {
  {
    const absl::MutexLock lock(&mutex_);
    if (paused_.empty() || pauses_ != pause) return;
  }
  events_.DropWhileFull();
  ReadPaused();
}

void Subscriptions::ReadPaused() {
  std::set<StreamPtr> paused;
  {
    const absl::MutexLock lock(&mutex_);
    paused.swap(paused_);
  }
  for (const StreamPtr& stream : paused) stream->Read();
}

void Subscriptions::OnEnded(const StreamPtr& stream) {
  StreamPtr next;
  bool was_last = false;
  int failures = 0;
  {
    const absl::MutexLock lock(&mutex_);
    all_.erase(stream);
    Subscription& subscription = by_client_[stream->ClientId()];
    auto& streams = subscription.streams;
    const auto found = std::find(streams.begin(), streams.end(), stream);
    if (found == streams.end() || cancelled_) return;
    const bool was_first = found == streams.begin();
    was_last = stream == streams.back();
    streams.erase(found);
    if (was_first && !streams.empty() && streams.front()->confirmed) next = streams.front();
    if (was_last && stream->confirmed) {
      // Topics that were added meanwhile stay: their Subscribe() is about to open a stream for them.
      std::erase_if(subscription.topics,
                    [&stream](const std::string& topic) { return Contains(stream->Topics(), topic); });
      const auto lived = std::chrono::steady_clock::now() - stream->confirmed_at;
      if (lived > std::chrono::milliseconds(options_.MaxBackoffMs()) || LostItsServer(*stream)) {
        subscription.failures = 0;
      }
    }
    if (was_last && stream->Reached()) failures = subscription.failures++;
  }
  if (next != nullptr) next->Read();
  if (was_last) OnLastEnded(stream, failures);
}

// A daemon that ended or was killed, rather than one that refuses: asking the next one at once is no burden to anybody.
bool Subscriptions::LostItsServer(const Stream& stream) const {
  return connector_.Local() && stream.Code() == GRPC_STATUS_UNAVAILABLE;
}

// For a stream without a successor. An established one is announced with state 2, after the back-off, and comes back
// when the subscriber asks for it again; one that found no server or was refused is opened again here.
void Subscriptions::OnLastEnded(const StreamPtr& stream, int failures) {
  const std::string& client_id = stream->ClientId();
  if (stream->confirmed) {
    KL_LOG(30, "subscription of %s at %s ended: %s: %s", client_id.c_str(), options_.Address().c_str(),
           StatusName(stream->Code()), stream->Text().c_str());
    loop_.RunAfter(BackOff(failures), [this, stream] { events_.AddState(StateMessage(*stream, kEnded)); });
    return;
  }
  if (!stream->Reached()) return loop_.RunAfter(Connector::kLocalRetry, [this, client_id] { Open(client_id); });
  if (failures == 0) {
    KL_LOG(40, "subscription of %s at %s failed, trying again: %s: %s", client_id.c_str(), options_.Address().c_str(),
           StatusName(stream->Code()), stream->Text().c_str());
  }
  loop_.RunAfter(BackOff(failures), [this, client_id] { Open(client_id); });
}

klrpc::v1::SubscribeState Subscriptions::StateMessage(const Stream& stream, int state) {
  klrpc::v1::SubscribeState message;
  message.set_client_id(stream.ClientId());
  for (const std::string& topic : stream.Topics()) message.add_topics(topic);
  message.set_state(state);
  return message;
}

// Events are lost until a stream stands again, so a daemon on this machine is asked soon: the first time as soon as one
// that is not there yet. It grows as gRPC's own, for a daemon that refuses again and again.
std::chrono::milliseconds Subscriptions::BackOff(int failures) const {
  const auto first = connector_.Local() ? Connector::kLocalRetry.count() : options_.InitialBackoffMs();
  const double wait = static_cast<double>(first) * std::pow(kBackOffFactor, std::min(failures, 30));
  return std::chrono::milliseconds(static_cast<int>(std::min<double>(wait, options_.MaxBackoffMs())));
}

bool Subscriptions::Tick() {
  if (connector_.Local()) return false;
  std::vector<ChannelPtr> waiting;
  {
    const absl::MutexLock lock(&mutex_);
    waiting.reserve(all_.size());
    for (const StreamPtr& stream : all_) {
      if (!stream->confirmed) waiting.push_back(stream->Channel());
    }
    // A stream that is added while the loop sleeps doesn't wake it, so it sleeps deeply only with one established.
    if (waiting.empty() && !all_.empty()) return false;
  }
  // gRPC's back-offs, that of name resolution above all, can be longer than an operator's patience.
  for (const ChannelPtr& channel : waiting) {
    if (grpc_channel_check_connectivity_state(channel.get(), 0) == GRPC_CHANNEL_TRANSIENT_FAILURE) {
      grpc_channel_reset_connect_backoff(channel.get());
    }
  }
  return true;
}

void Subscriptions::Cancel() {
  std::set<StreamPtr> all;
  {
    const absl::MutexLock lock(&mutex_);
    cancelled_ = true;
    all = all_;
    paused_.clear();
  }
  for (const StreamPtr& stream : all) stream->Cancel();
}

}  // namespace klrpc
