#include "sigslot/sigslot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/sync.h"

namespace {

using vextest::Notification;

template <typename Policy = sigslot::multi_threaded_global>
class Listener : public sigslot::has_slots<Policy> {
 public:
  ~Listener() override { this->disconnect_all(); }
  void OnNumber(int number) { numbers.push_back(number); }
  void OnText(bool ok, const std::string& text) { texts.push_back((ok ? "+" : "-") + text); }

  std::vector<int> numbers;
  std::vector<std::string> texts;
};

// A slot whose action the test sets.
class Actor : public sigslot::has_slots<> {
 public:
  explicit Actor(std::function<void()> does = [] {}) : action(std::move(does)) {}
  ~Actor() override { disconnect_all(); }
  void Act() {
    ++calls;
    action();
  }

  std::function<void()> action;
  std::atomic<int> calls{0};
};

TEST(SigslotTest, EmitCallsTheSlotsInTheOrderOfTheirConnection) {
  std::string order;
  Actor first([&] { order += "1"; });
  Actor second([&] { order += "2"; });
  sigslot::signal<> signal;
  signal.connect(&first, &Actor::Act);
  signal.connect(&second, &Actor::Act);
  signal.emit();
  signal();
  EXPECT_EQ(order, "1212");
}

TEST(SigslotTest, ArgumentsReachTheSlot) {
  Listener<> listener;
  sigslot::signal<bool, const std::string&> signal;
  signal.connect(&listener, &Listener<>::OnText);
  signal.emit(true, "a");
  signal.emit(false, "b");
  EXPECT_EQ(listener.texts, (std::vector<std::string>{"+a", "-b"}));
}

TEST(SigslotTest, EveryPolicyConnects) {
  Listener<sigslot::single_threaded> single;
  Listener<sigslot::multi_threaded_local> local;
  Listener<sigslot::multi_threaded_global> global;
  sigslot::signal<int> signal;
  signal.connect(&single, &Listener<sigslot::single_threaded>::OnNumber);
  signal.connect(&local, &Listener<sigslot::multi_threaded_local>::OnNumber);
  signal.connect(&global, &Listener<sigslot::multi_threaded_global>::OnNumber);
  signal.emit(7);
  EXPECT_EQ(single.numbers, std::vector<int>{7});
  EXPECT_EQ(local.numbers, std::vector<int>{7});
  EXPECT_EQ(global.numbers, std::vector<int>{7});
}

TEST(SigslotTest, ADisconnectedSlotIsNotCalled) {
  Actor gone;
  Actor stays;
  sigslot::signal<> signal;
  signal.connect(&gone, &Actor::Act);
  signal.connect(&gone, &Actor::Act);
  signal.connect(&stays, &Actor::Act);
  signal.disconnect(&gone);
  signal.disconnect(&gone);
  signal.emit();
  EXPECT_EQ(gone.calls, 0);
  EXPECT_EQ(stays.calls, 1);
}

TEST(SigslotTest, DisconnectAllOfTheSignalAndOfTheHolder) {
  Actor one;
  Actor two;
  sigslot::signal<> signal;
  sigslot::signal<> other;
  signal.connect(&one, &Actor::Act);
  other.connect(&one, &Actor::Act);
  other.connect(&two, &Actor::Act);
  one.disconnect_all();
  signal.emit();
  other.emit();
  EXPECT_EQ(one.calls, 0);
  EXPECT_EQ(two.calls, 1);
  other.disconnect_all();
  other.emit();
  EXPECT_EQ(two.calls, 1);
}

TEST(SigslotTest, ADestroyedHolderIsNotCalledAndADestroyedSignalIsForgotten) {
  Actor holder;
  {
    sigslot::signal<> signal;
    signal.connect(&holder, &Actor::Act);
    {
      Actor short_lived;
      signal.connect(&short_lived, &Actor::Act);
    }
    signal.emit();
  }
  EXPECT_EQ(holder.calls, 1);
  holder.disconnect_all();
}

TEST(SigslotTest, ASlotMayDisconnectItself) {
  sigslot::signal<> signal;
  Actor actor;
  actor.action = [&] { signal.disconnect(&actor); };
  signal.connect(&actor, &Actor::Act);
  signal.emit();
  signal.emit();
  EXPECT_EQ(actor.calls, 1);
}

TEST(SigslotTest, ASlotMayDisconnectTheNextWhichIsThenNotCalled) {
  sigslot::signal<> signal;
  Actor next;
  Actor first([&] { signal.disconnect(&next); });
  signal.connect(&first, &Actor::Act);
  signal.connect(&next, &Actor::Act);
  signal.emit();
  EXPECT_EQ(next.calls, 0);
}

TEST(SigslotTest, ASlotThatConnectsAnotherHasItCalledFromTheNextTimeOn) {
  sigslot::signal<> signal;
  Actor added;
  Actor first;
  first.action = [&] {
    if (first.calls == 1) signal.connect(&added, &Actor::Act);
  };
  signal.connect(&first, &Actor::Act);
  signal.emit();
  EXPECT_EQ(added.calls, 0);
  signal.emit();
  EXPECT_EQ(added.calls, 1);
}

TEST(SigslotTest, ASlotMayEmitItsOwnSignal) {
  sigslot::signal<> signal;
  Actor actor;
  actor.action = [&] {
    if (actor.calls < 3) signal.emit();
  };
  signal.connect(&actor, &Actor::Act);
  signal.emit();
  EXPECT_EQ(actor.calls, 3);
}

TEST(SigslotTest, ASlotMayDestroyItsHolderAndTheSignal) {
  auto signal = std::make_unique<sigslot::signal<>>();
  auto holder = std::make_unique<Actor>();
  Actor after;
  Actor* raw = holder.get();
  raw->action = [&] {
    signal.reset();
    holder.reset();
  };
  signal->connect(raw, &Actor::Act);
  signal->connect(&after, &Actor::Act);
  signal->emit();
  EXPECT_EQ(holder, nullptr);
  EXPECT_EQ(after.calls, 0);
}

TEST(SigslotTest, AnExceptionReachesTheEmitterAndLeavesTheConnectionUsable) {
  sigslot::signal<> signal;
  Actor actor([] { throw std::runtime_error("no"); });
  signal.connect(&actor, &Actor::Act);
  EXPECT_THROW(signal.emit(), std::runtime_error);
  actor.action = [] {};
  signal.emit();
  EXPECT_EQ(actor.calls, 2);
}

TEST(SigslotTest, NoLockIsHeldWhileASlotRuns) {
  sigslot::signal<> signal;
  bool free = false;
  Actor actor([&] {
    absl::Mutex& global = sigslot::multi_threaded_global::get_mutex();
    if (!global.TryLock()) return;
    free = true;
    global.Unlock();
  });
  signal.connect(&actor, &Actor::Act);
  signal.emit();
  EXPECT_TRUE(free);
}

TEST(SigslotTest, TheGlobalMutexGuardsConnecting) {
  sigslot::signal<> signal;
  Actor actor;
  std::atomic<bool> connected{false};
  std::thread connecting;
  {
    const absl::MutexLock lock(&sigslot::multi_threaded_global::get_mutex());
    connecting = std::thread([&] {
      signal.connect(&actor, &Actor::Act);
      connected = true;
    });
    signal.emit();
    EXPECT_FALSE(connected);
  }
  connecting.join();
  signal.emit();
  EXPECT_EQ(actor.calls, 1);
}

// A slot that is inside until it is let go.
class DisconnectTest : public testing::Test {
 protected:
  DisconnectTest() : slow_([this] { inside_.Notify(), leave_.Wait(), left_ = true; }) {}

  void EnterSlot() {
    signal_.connect(&slow_, &Actor::Act);
    emitting_ = std::thread([this] { signal_.emit(); });
    ASSERT_TRUE(inside_.Wait());
  }
  void TearDown() override {
    leave_.Notify();
    if (emitting_.joinable()) emitting_.join();
  }
  // Runs `disconnect` on a thread, which must not come back before the slot is let go.
  void ExpectWaits(const std::function<void()>& disconnect) {
    std::atomic<bool> left_before{false};
    Notification begun;
    std::thread thread([&] {
      begun.Notify();
      disconnect();
      left_before = left_.load();
    });
    ASSERT_TRUE(begun.Wait());
    leave_.Notify();
    thread.join();
    EXPECT_TRUE(left_before);
  }

  sigslot::signal<> signal_;
  Notification inside_;
  Notification leave_;
  std::atomic<bool> left_{false};
  Actor slow_;
  std::thread emitting_;
};

TEST_F(DisconnectTest, WaitsForTheRunningSlot) {
  EnterSlot();
  ExpectWaits([this] { signal_.disconnect(&slow_); });
}

TEST_F(DisconnectTest, OfTheHolderWaitsForTheRunningSlot) {
  EnterSlot();
  ExpectWaits([this] { slow_.disconnect_all(); });
}

TEST_F(DisconnectTest, WaitsAlsoWhenTheSlotHasDisconnectedItself) {
  slow_.action = [this] {
    signal_.disconnect(&slow_);
    inside_.Notify();
    leave_.Wait();
    left_ = true;
  };
  EnterSlot();
  ExpectWaits([this] { slow_.disconnect_all(); });
}

TEST_F(DisconnectTest, WaitsNotForASlotThatDisconnectsItselfMeanwhile) {
  slow_.action = [this] {
    inside_.Notify();
    leave_.Wait();
    signal_.disconnect(&slow_);
    left_ = true;
  };
  EnterSlot();
  ExpectWaits([this] { signal_.disconnect(&slow_); });
}

TEST(SigslotTest, SlotsThatDisconnectEachOtherDoNotDeadlock) {
  sigslot::signal<> one;
  sigslot::signal<> two;
  Actor first;
  Actor second;
  Notification first_inside;
  Notification second_inside;
  first.action = [&] {
    first_inside.Notify();
    second_inside.Wait();
    two.disconnect(&second);
  };
  second.action = [&] {
    second_inside.Notify();
    first_inside.Wait();
    one.disconnect(&first);
  };
  one.connect(&first, &Actor::Act);
  two.connect(&second, &Actor::Act);
  std::thread thread([&] { one.emit(); });
  two.emit();
  thread.join();
  one.emit();
  two.emit();
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 1);
}

// Holders come and go while several threads emit: no slot runs on a holder that is gone.
TEST(SigslotTest, HoldersMayBeDestroyedWhileOthersEmit) {
  struct Holder : sigslot::has_slots<> {
    ~Holder() override {
      disconnect_all();
      alive = false;
    }
    void OnSignal() {
      if (!alive) ++*late;
    }
    bool alive = true;
    std::atomic<int>* late = nullptr;
  };
  std::atomic<int> late{0};
  std::atomic<bool> done{false};
  sigslot::signal<> signal;
  std::vector<std::thread> emitters;
  emitters.reserve(3);
  for (int i = 0; i < 3; ++i) {
    emitters.emplace_back([&] {
      while (!done) signal.emit();
    });
  }
  for (int i = 0; i < 500; ++i) {
    Holder holder;
    holder.late = &late;
    signal.connect(&holder, &Holder::OnSignal);
    if (i % 2 == 0) signal.disconnect(&holder);
  }
  done = true;
  for (std::thread& emitter : emitters) emitter.join();
  EXPECT_EQ(late, 0);
}

TEST(SigslotTest, ConnectingAndDisconnectingFromManyThreadsEndsInAnEmptySignal) {
  sigslot::signal<> signal;
  std::vector<std::unique_ptr<Actor>> actors;
  actors.reserve(4);
  for (int i = 0; i < 4; ++i) actors.push_back(std::make_unique<Actor>());
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 300; ++round) {
        signal.connect(actors[i].get(), &Actor::Act);
        signal.emit();
        if (round % 3 == 0) {
          actors[i]->disconnect_all();
        } else if (round % 3 == 1) {
          signal.disconnect(actors[(i + 1) % 4].get());
        } else {
          signal.disconnect_all();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  signal.disconnect_all();
  const int before = actors[0]->calls;
  signal.emit();
  EXPECT_EQ(actors[0]->calls, before);
}

}  // namespace
