#include "client/pubsub/subscriptions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "figures.h"
#include "klbase/log.h"

namespace klrpc {
namespace {

// Numbers of SubscribeState.
constexpr int kConfirmed = 1;
constexpr int kEnded = 2;

// A full queue of events stops the reading for so long at most: slots that are only slow get the whole burst then, as
// far as the server's queue holds it, and slots that are stuck lose what comes.
constexpr std::chrono::milliseconds kLongestPause{1000};

// A refusal can come with metadata that has no entry of ours, just as another program's confirmation. gRPC tells them
// apart, but not its users: the end of a refused stream follows at once, that of a confirmed one doesn't.
constexpr std::chrono::milliseconds kRefusalFollows{50};

// A server that takes a stream confirms it at once. One that doesn't was perhaps written without knowing that it has
// to.
constexpr std::chrono::milliseconds kConfirmationLimit{3000};

constexpr double kBackOffFactor = 1.6;  // as gRPC's own

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

// None when there is no such entry.
std::optional<std::string> ValueOf(const grpc_metadata_array& metadata, const char* key) {
  for (std::size_t i = 0; i < metadata.count; ++i) {
    if (grpc_slice_str_cmp(metadata.metadata[i].key, key) != 0) continue;
    return std::string(Slice(grpc_slice_ref(metadata.metadata[i].value)).View());
  }
  return std::nullopt;
}

}  // namespace

// One stream, from its call to its end. Its operations keep it alive.
class Subscriptions::Stream : public std::enable_shared_from_this<Stream> {
 public:
  Stream(Subscriptions& owner, Connection connection, klrpc::v1::SubscribeRequest request, std::uint64_t number)
      : owner_(owner),
        connection_(std::move(connection)),
        request_(std::move(request)),
        topics_(request_.topics().begin(), request_.topics().end()),
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

  const klrpc::v1::SubscribeRequest& Request() const { return request_; }
  const std::string& ClientId() const { return request_.client_id(); }
  const std::vector<std::string>& Topics() const { return topics_; }
  const ChannelPtr& Channel() const { return connection_.Channel(); }
  // Whether its connection was made, as far as that is known at once.
  bool Reached() const { return connection_.Outcome().code == GRPC_STATUS_OK; }
  bool FoundNoRoom() const { return connection_.Outcome().text == kNoRoomText; }
  // How it ended. gRPC doesn't hand on why a connection was not made.
  grpc_status_code Code() const { return Reached() ? status_ : connection_.Outcome().code; }
  std::string Text() const { return Reached() ? std::string(text_.View()) : connection_.Outcome().text; }
  CallOutcome Outcome() const { return {Code(), Text()}; }
  // Confirmed by a server that lets a wider stream take an earlier one's place.
  bool Accepted() const { return ValueOf(initial_metadata_, kStreamKey).has_value(); }
  std::string Positions() const { return ValueOf(initial_metadata_, kPositionsKey).value_or(""); }

  void Start();
  void Read();
  void Cancel() { grpc_call_cancel(call_, nullptr); }

  // Guarded by the owner's mutex.
  bool confirmed = false;
  std::chrono::steady_clock::time_point confirmed_at;
  std::optional<std::chrono::steady_clock::time_point> ready_since;  // its connection
  bool told_unconfirmed = false;

 private:
  void EndUnstarted(grpc_call_error error);
  void OnConfirmed(bool ok) {
    if (!ok) return;
    if (Accepted()) return owner_.OnConfirmed(*this);
    owner_.loop_.RunAfter(kRefusalFollows, [self = shared_from_this()] { self->owner_.OnConfirmed(*self); });
  }
  void OnMessage(bool ok) {
    if (!ok || !message_) return;  // the end, which comes with its reason
    const Buffer message = std::move(message_);
    owner_.OnMessage(message, shared_from_this());
  }
  void OnEnded(bool) { owner_.OnEnded(shared_from_this()); }

  Subscriptions& owner_;
  const Connection connection_;
  const klrpc::v1::SubscribeRequest request_;
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
  const grpc_call_error error = owner_.loop_.StartBatch(call_, &end, 1, ended_.Begin());
  if (error != GRPC_CALL_OK) return EndUnstarted(error);
  // The end is asked for first, so that a failure of the operations below is reported by it.

  const Buffer message(Serialize(request_));
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
  if (owner_.loop_.StartBatch(call_, ops.data(), ops.size(), confirmed_.Begin()) != GRPC_CALL_OK) confirmed_.Abandon();
}

// The end is told on the loop's thread, like any other: it comes with a batch of nothing.
void Subscriptions::Stream::EndUnstarted(grpc_call_error error) {
  status_ = GRPC_STATUS_INTERNAL;
  text_ = Slice(WhyNotStarted(error));
  if (owner_.loop_.StartBatch(call_, nullptr, 0, ended_.Arm()) != GRPC_CALL_OK) ended_.Abandon();
}

void Subscriptions::Stream::Read() {
  grpc_op op{};
  op.op = GRPC_OP_RECV_MESSAGE;
  op.data.recv_message.recv_message = message_.Reset();
  if (owner_.loop_.StartBatch(call_, &op, 1, received_.Begin()) != GRPC_CALL_OK) received_.Abandon();
}

Subscriptions::Subscriptions(const APIClientOptions& options, Connector& connector, ClientLoop& loop,
                             SlotThread& thread, EventQueue::Slots slots)
    : options_(options),
      connector_(connector),
      loop_(loop),
      events_(options.Address(), thread, std::move(slots), [this] { ReadPaused(); }) {}

CallOutcome Subscriptions::Subscribe(const std::string& client_id, const std::vector<std::string>& topics) {
  bool wider = false;
  {
    const absl::MutexLock lock(&mutex_);
    Subscription& subscription = by_client_[client_id];
    if (!subscription.asked_for) subscription.asked_for = CountSubscription(options_.Address());
    std::vector<std::string>& known = subscription.topics;
    const std::size_t before = known.size();
    for (const std::string& topic : topics) {
      if (!Contains(known, topic)) known.push_back(topic);
    }
    wider = known.size() != before;
  }
  if (wider) Open(client_id);
  return FailureOf(client_id);
}

CallOutcome Subscriptions::FailureOf(const std::string& client_id) {
  const absl::MutexLock lock(&mutex_);
  return by_client_[client_id].failure;
}

void Subscriptions::NoteWaitingLocked(const Stream& stream, bool connected) {
  CallOutcome& failure = by_client_[stream.ClientId()].failure;
  if (!connected) {
    failure = stream.Reached() ? CallOutcome{GRPC_STATUS_UNAVAILABLE, "can't connect"} : stream.Outcome();
  } else if (failure.code == GRPC_STATUS_UNAVAILABLE) {
    failure = {};  // there is a server now; one that refuses ends the stream, which is noted then
  }
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
    stream = std::make_shared<Stream>(*this, std::move(connection), RequestLocked(client_id), ++opened_);
    by_client_[client_id].streams.push_back(stream);
    all_.insert(stream);
    // To a server elsewhere it is not known yet: see LookAfter().
    if (connector_.Local()) NoteWaitingLocked(*stream, stream->Reached());
  }
  stream->Start();
}

// The positions are named also while an earlier stream stands: should that one break, nothing of its rest is lost, and
// what comes twice is left out.
klrpc::v1::SubscribeRequest Subscriptions::RequestLocked(const std::string& client_id) {
  const Subscription& subscription = by_client_[client_id];
  klrpc::v1::SubscribeRequest request;
  request.set_client_id(client_id);
  for (const std::string& topic : subscription.topics) request.add_topics(topic);
  subscription.positions.AddTo(request);
  return request;
}

bool Subscriptions::NeedsStreamLocked(const std::string& client_id) {
  const Subscription& subscription = by_client_[client_id];
  if (cancelled_ || subscription.topics.empty()) return false;
  const auto& streams = subscription.streams;
  return streams.empty() || (streams.back()->confirmed && streams.back()->Topics() != subscription.topics);
}

void Subscriptions::OnConfirmed(Stream& stream) {
  bool read = false;
  std::vector<StreamPtr> replaced;
  {
    const absl::MutexLock lock(&mutex_);
    Subscription& subscription = by_client_[stream.ClientId()];
    const auto& streams = subscription.streams;
    const auto found = std::find_if(streams.begin(), streams.end(),
                                    [&stream](const StreamPtr& each) { return each.get() == &stream; });
    if (found == streams.end()) return;  // ended already
    // Read only when the streams before it have ended: their last messages come first.
    stream.confirmed = true;
    subscription.failure = {};
    if (!subscription.up) subscription.up = CountConfirmed(options_.Address());
    stream.confirmed_at = std::chrono::steady_clock::now();
    read = found == streams.begin();
    const std::string positions = stream.Positions();
    if (!positions.empty() || !stream.Accepted()) subscription.positions.Confirmed(stream.Request(), positions);
    if (!stream.Accepted()) replaced.assign(streams.begin(), found);
  }
  events_.AddState(StateMessage(stream, kConfirmed));
  // A server that is not ours doesn't end them by itself.
  for (const StreamPtr& each : replaced) each->Cancel();
  if (read) stream.Read();
  Open(stream.ClientId());  // topics may have been added while it waited
}

void Subscriptions::OnMessage(const Buffer& bytes, const StreamPtr& stream) {
  klrpc::v1::PubsubMessage message;
  if (const std::string why = WhyRefused("an event", bytes); !why.empty()) {
    KL_LOG(40, "%s: dropped an event of %s: %s", options_.Address().c_str(), stream->ClientId().c_str(), why.c_str());
    return stream->Read();
  }
  if (!bytes.ParseInto(message)) {
    KL_LOG(40, "%s: dropped an event that does not parse", options_.Address().c_str());
    return stream->Read();
  }
  Positions::Verdict verdict;
  {
    const absl::MutexLock lock(&mutex_);
    verdict = by_client_[stream->ClientId()].positions.Take(message);
  }
  if (verdict.missed > 0) {
    CountLost(Loss::kServer, verdict.missed);
    events_.AddLoss(message.topic(), verdict.missed);
  }
  ReadOrPause(!verdict.fresh || events_.AddMessage(std::move(message)), stream);
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
  bool news = false;
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
    const bool up = std::any_of(streams.begin(), streams.end(), [](const StreamPtr& each) { return each->confirmed; });
    if (!up) subscription.up.reset();
    if (was_first && !streams.empty() && streams.front()->confirmed) next = streams.front();
    if (was_last && stream->confirmed) DropTopicsLocked(*stream);
    if (was_last && stream->Reached()) failures = subscription.failures++;
    if (was_last && !stream->confirmed) subscription.failure = stream->Outcome();
    news = FailureIsNewsLocked(*stream, failures);
  }
  if (next != nullptr) next->Read();
  if (was_last) OnLastEnded(stream, failures, news);
}

// A daemon that ended or was killed, rather than one that refuses: asking the next one at once is no burden to anybody.
bool Subscriptions::LostItsServer(const Stream& stream) const {
  return connector_.Local() && stream.Code() == GRPC_STATUS_UNAVAILABLE;
}

// For a stream without a successor. An established one is announced with state 2, after the back-off, and comes back
// when the subscriber asks for it again; one that found no server or was refused is opened again here.
void Subscriptions::OnLastEnded(const StreamPtr& stream, int failures, bool news) {
  const std::string& client_id = stream->ClientId();
  if (stream->Code() == GRPC_STATUS_RESOURCE_EXHAUSTED && stream->Text() == kQuotaText) {
    KL_LOG(40, "%s: refused an event of %s: %s", options_.Address().c_str(), client_id.c_str(), TooMuch("it").c_str());
  }
  if (stream->confirmed) {
    KL_LOG(30, "subscription of %s at %s ended: %s: %s", client_id.c_str(), options_.Address().c_str(),
           StatusName(stream->Code()), stream->Text().c_str());
    loop_.RunAfter(BackOff(failures), [this, stream] { events_.AddState(StateMessage(*stream, kEnded)); });
    return;
  }
  if (news) {
    KL_LOG(40, "subscription of %s at %s failed, trying again: %s: %s", client_id.c_str(), options_.Address().c_str(),
           StatusName(stream->Code()), stream->Text().c_str());
  }
  loop_.RunAfter(stream->Reached() ? BackOff(failures) : Connector::kLocalRetry,
                 [this, client_id] { Open(client_id); });
}

void Subscriptions::DropTopicsLocked(const Stream& stream) {
  Subscription& subscription = by_client_[stream.ClientId()];
  // Topics that were added meanwhile stay: their Subscribe() is about to open a stream for them.
  std::erase_if(subscription.topics, [&stream](const std::string& topic) { return Contains(stream.Topics(), topic); });
  const auto lived = std::chrono::steady_clock::now() - stream.confirmed_at;
  if (lived > std::chrono::milliseconds(options_.MaxBackoffMs()) || LostItsServer(stream)) subscription.failures = 0;
}

// A daemon that is not there is waited for in silence. One that takes no connection hangs: that is said once.
bool Subscriptions::FailureIsNewsLocked(const Stream& stream, int failures) {
  bool& told = by_client_[stream.ClientId()].no_room;
  if (!stream.Reached()) return stream.FoundNoRoom() && !std::exchange(told, true);
  told = false;
  return failures == 0;
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
  std::vector<StreamPtr> waiting;
  {
    const absl::MutexLock lock(&mutex_);
    waiting.reserve(all_.size());
    for (const StreamPtr& stream : all_) {
      if (!stream->confirmed) waiting.push_back(stream);
    }
    // A stream that is added while the loop sleeps doesn't wake it, so it sleeps deeply only with one established.
    if (waiting.empty() && !all_.empty()) return false;
  }
  for (const StreamPtr& stream : waiting) LookAfter(*stream);
  return true;
}

void Subscriptions::LookAfter(Stream& stream) {
  const bool local = connector_.Local();
  const auto state = local ? GRPC_CHANNEL_READY : grpc_channel_check_connectivity_state(stream.Channel().get(), 0);
  // gRPC's back-offs, that of name resolution above all, can be longer than an operator's patience.
  if (state == GRPC_CHANNEL_TRANSIENT_FAILURE) {
    grpc_channel_reset_connect_backoff(stream.Channel().get());
    const absl::MutexLock lock(&mutex_);
    NoteWaitingLocked(stream, false);
  }
  if (state != GRPC_CHANNEL_READY || !stream.Reached()) return;
  const auto now = std::chrono::steady_clock::now();
  {
    const absl::MutexLock lock(&mutex_);
    if (!stream.ready_since) stream.ready_since = now;
    NoteWaitingLocked(stream, true);
    const bool late = !stream.confirmed && now - *stream.ready_since >= kConfirmationLimit;
    if (!late || std::exchange(stream.told_unconfirmed, true)) return;
  }
  KL_LOG(40, "subscription of %s at %s is not confirmed: the server has sent no initial metadata for %d s, waiting on",
         stream.ClientId().c_str(), options_.Address().c_str(), static_cast<int>(kConfirmationLimit.count() / 1000));
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
