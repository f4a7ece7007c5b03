// Signals and slots: an object's member functions called when something happens elsewhere.
//
//   class Printer : public sigslot::has_slots<sigslot::multi_threaded_global> {
//    public:
//     ~Printer() override { disconnect_all(); }
//     void OnText(const std::string& text);
//   };
//   sigslot::signal<const std::string&> text_arrived;
//   text_arrived.connect(&printer, &Printer::OnText);
//   text_arrived.emit("hello");
//
// Signals may be emitted, connected and disconnected from any thread at any time. The slots run on the emitting thread,
// in the order of their connection, with no lock of this facility held. A slot may emit, connect, disconnect (itself or
// others) and destroy its holder or the signal.
//
// After a disconnection returns, whichever way it was made (disconnect, disconnect_all, destruction of the signal or of
// the holder), the slot is not running and won't run again. Two exceptions, because waiting could never end: a slot
// that is made to disconnect itself by its own call goes on to its end, and when running slots disconnect each other at
// the same time, the disconnection that would close the circle doesn't wait for the others.
//
// A holder whose slots use members of its own class disconnects in its own destructor (disconnect_all()): when the base
// class's destructor runs, those members are gone already.
#ifndef SIGSLOT_SIGSLOT_H_
#define SIGSLOT_SIGSLOT_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "klrpc/export.h"

namespace sigslot {

// Policies: which mutex guards a holder's list of the signals it is connected to. It is held for moments only, never
// while a slot runs.

// The holder is connected and disconnected by one thread only. Guarded all the same.
struct single_threaded {};

// All holders of this policy share one mutex of the process.
struct KLRPC_EXPORT multi_threaded_global {
  static absl::Mutex& get_mutex();
};

// Each holder has its own mutex.
struct multi_threaded_local {};

namespace internal {

class HolderCore;
class SignalCore;
struct ThreadState;

// One connection. Shared by the signal, the holder and the emissions under way. Both sides list it until it is cut and
// no thread runs it any more, so that a second disconnection waits too.
class KLRPC_EXPORT Connection {
 public:
  Connection(std::weak_ptr<SignalCore> signal, std::weak_ptr<HolderCore> holder, const void* object)
      : signal_(std::move(signal)), holder_(std::move(holder)), object_(object) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  virtual ~Connection() = default;

  // False when the connection was cut; otherwise the slot counts as running on this thread until Leave().
  bool Enter();
  void Leave();

  // Close() lets no thread enter any more, WaitIdle() returns when no other thread is inside.
  void Close();
  void WaitIdle();

  // Takes the connection off both lists if it is cut and no thread is inside.
  void UnlistIfDone();

  const void* Object() const { return object_; }

 private:
  const std::weak_ptr<SignalCore> signal_;
  const std::weak_ptr<HolderCore> holder_;
  const void* const object_;
  // Guarded by the process-wide mutex of the implementation, which also guards the record of waits.
  bool closed_ = false;
  std::vector<const ThreadState*> running_;
};

using ConnectionList = std::vector<std::shared_ptr<Connection>>;

// A signal's connections.
class KLRPC_EXPORT SignalCore {
 public:
  // The connections as of now, in their order.
  std::shared_ptr<const ConnectionList> Connections() const;
  void Add(std::shared_ptr<Connection> connection);
  void Remove(const Connection* connection);
  // Cuts the connections of the holder `object`, or all when null.
  void Disconnect(const void* object);

 private:
  mutable absl::Mutex mutex_;
  // Replaced, never changed, so that an emission can walk it without the lock.
  std::shared_ptr<const ConnectionList> connections_ ABSL_GUARDED_BY(mutex_) = std::make_shared<ConnectionList>();
};

// A holder's list of the signals it is connected to.
class KLRPC_EXPORT HolderCore {
 public:
  // `shared` is the mutex to use, null for one of its own.
  explicit HolderCore(absl::Mutex* shared) : mutex_(shared != nullptr ? *shared : own_) {}

  void Add(std::shared_ptr<Connection> connection);
  void Remove(const Connection* connection);
  void DisconnectAll();

 private:
  absl::Mutex own_;
  absl::Mutex& mutex_;
  ConnectionList connections_ ABSL_GUARDED_BY(mutex_);
};

// Makes the connection known to both sides.
KLRPC_EXPORT void Connect(const std::shared_ptr<SignalCore>& signal, const std::shared_ptr<HolderCore>& holder,
                          const std::shared_ptr<Connection>& connection);

// Marks a connection as running for a scope.
class RunScope {
 public:
  explicit RunScope(Connection& connection) : connection_(connection), entered_(connection.Enter()) {}
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;
  ~RunScope() {
    if (entered_) connection_.Leave();
  }
  bool Entered() const { return entered_; }

 private:
  Connection& connection_;
  const bool entered_;
};

template <typename... Args>
class Slot : public Connection {
 public:
  Slot(std::weak_ptr<SignalCore> signal, std::weak_ptr<HolderCore> holder, const void* object,
       std::function<void(Args...)> function)
      : Connection(std::move(signal), std::move(holder), object), function_(std::move(function)) {}
  const std::function<void(Args...)>& Function() const { return function_; }

 private:
  const std::function<void(Args...)> function_;
};

// Common to the holders of every policy.
class KLRPC_EXPORT HolderBase {
 public:
  HolderBase(const HolderBase&) = delete;
  HolderBase& operator=(const HolderBase&) = delete;
  virtual ~HolderBase() { core_->DisconnectAll(); }

  // Cuts every connection of this object.
  void disconnect_all() { core_->DisconnectAll(); }

  const std::shared_ptr<HolderCore>& slot_core() const { return core_; }

 protected:
  explicit HolderBase(absl::Mutex* shared) : core_(std::make_shared<HolderCore>(shared)) {}

 private:
  const std::shared_ptr<HolderCore> core_;
};

}  // namespace internal

// Base class of objects whose member functions are connected to signals. Not copied: connections belong to one object.
template <typename Policy = multi_threaded_global>
class has_slots : public internal::HolderBase {
 public:
  has_slots() : HolderBase(SharedMutex()) {}

 private:
  static absl::Mutex* SharedMutex() {
    if constexpr (std::is_same_v<Policy, multi_threaded_global>) {
      return &multi_threaded_global::get_mutex();
    } else {
      static_assert(std::is_same_v<Policy, multi_threaded_local> || std::is_same_v<Policy, single_threaded>,
                    "unknown threading policy");
      return nullptr;
    }
  }
};

// An event of its owner, with the arguments that describe it. Not copied or moved. Any thread, except for destruction:
// no other thread may be about to use it then.
template <typename... Args>
class signal {
 public:
  signal() : core_(std::make_shared<internal::SignalCore>()) {}
  signal(const signal&) = delete;
  signal& operator=(const signal&) = delete;
  ~signal() { core_->Disconnect(nullptr); }

  // Connects a member function of `object`, which must outlive this call and derives from has_slots. Connecting twice
  // means being called twice.
  template <typename T, typename Member>
  void connect(T* object, Member member) {
    static_assert(std::is_base_of_v<internal::HolderBase, T>, "the object must derive from sigslot::has_slots");
    static_assert(std::is_invocable_v<Member, T*, Args...>, "the member function must take the signal's arguments");
    internal::HolderBase* holder = object;
    auto call = [object, member](Args... args) { std::invoke(member, object, std::forward<Args>(args)...); };
    internal::Connect(core_, holder->slot_core(),
                      std::make_shared<internal::Slot<Args...>>(core_, holder->slot_core(), holder, std::move(call)));
  }

  // Cuts all connections of `object` to this signal, if there are any.
  void disconnect(const internal::HolderBase* object) {
    if (object != nullptr) core_->Disconnect(object);
  }

  // Cuts all connections of this signal.
  void disconnect_all() { core_->Disconnect(nullptr); }

  // Calls every slot that was connected when the call began and is still connected when its turn comes. An exception
  // out of a slot goes to the caller; the slots after it are not called.
  void emit(Args... args) const {
    // The list is kept alive here, because a slot may destroy this signal.
    const std::shared_ptr<const internal::ConnectionList> connections = core_->Connections();
    for (const auto& connection : *connections) {
      const internal::RunScope scope(*connection);
      if (scope.Entered()) static_cast<const internal::Slot<Args...>&>(*connection).Function()(args...);
    }
  }
  void operator()(Args... args) const { emit(args...); }

 private:
  const std::shared_ptr<internal::SignalCore> core_;
};

}  // namespace sigslot

#endif  // SIGSLOT_SIGSLOT_H_
