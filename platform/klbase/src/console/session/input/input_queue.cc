#include "console/session/input/input_queue.h"

#include <utility>

namespace cli::internal {
namespace {

constexpr char kCtrlC = '\x03';

}  // namespace

InputQueue::Posted InputQueue::PostBytes(std::string_view bytes) {
  const std::size_t interrupt = source_ == Source::kOperator ? bytes.rfind(kCtrlC) : std::string_view::npos;
  std::optional<std::stop_source> given_up;
  Posted posted = Posted::kWaits;
  {
    absl::MutexLock lock(&mutex_);
    if (ended_) return Posted::kWaits;
    if (!leased_) {
      bytes_.append(bytes);
      return TakeLeaseLocked();
    }
    if (interrupt != std::string_view::npos) {
      // The lines in front of it must not run; and as it is for the line that runs, it doesn't count as typed.
      bytes_.clear();
      drop_unread_ = true;
      given_up = running_;
      bytes.remove_prefix(given_up ? interrupt + 1 : interrupt);
    }
    bytes_.append(bytes);
    // Bytes above the limit are kept all the same: the sender has read them already.
    paused_ = bytes_.size() > kMaxQueued;
    if (paused_) posted = Posted::kFull;
  }
  if (given_up) given_up->request_stop();
  return posted;
}

std::stop_token InputQueue::BeginLine() {
  std::stop_source source;
  absl::MutexLock lock(&mutex_);
  if (drop_unread_) source.request_stop();
  running_ = source;
  return source.get_token();
}

void InputQueue::EndLine() {
  absl::MutexLock lock(&mutex_);
  running_.reset();
}

bool InputQueue::GiveUpLine() {
  std::optional<std::stop_source> given_up;
  {
    absl::MutexLock lock(&mutex_);
    given_up = running_;
  }
  if (given_up) given_up->request_stop();
  return given_up.has_value();
}

InputQueue::Posted InputQueue::PostEndOfInput() {
  absl::MutexLock lock(&mutex_);
  end_of_input_ = true;
  return TakeLeaseLocked();
}

InputQueue::Posted InputQueue::PostTerminalChange(const TerminalChange& change) {
  absl::MutexLock lock(&mutex_);
  // Changes add up until the holder takes the state over, so none is lost.
  if (change.display) terminal_.display = *change.display;
  if (change.columns > 0) {
    terminal_.columns = change.columns;
    terminal_.rows = change.rows;
  }
  if (change.hidden) terminal_.hidden = *change.hidden;
  terminal_changed_ = true;
  return TakeLeaseLocked();
}

InputQueue::Posted InputQueue::PostRedraw() {
  absl::MutexLock lock(&mutex_);
  redraw_ = true;
  return TakeLeaseLocked();
}

InputQueue::Posted InputQueue::PostFinish(std::string_view farewell) {
  absl::MutexLock lock(&mutex_);
  if (!ended_) farewell_ = farewell;
  ended_ = true;
  drop_unread_ = true;
  bytes_.clear();
  return TakeLeaseLocked();
}

void InputQueue::End() {
  absl::MutexLock lock(&mutex_);
  ended_ = true;
  bytes_.clear();
}

InputQueue::Posted InputQueue::TakeLeaseLocked() {
  return std::exchange(leased_, true) ? Posted::kWaits : Posted::kLeased;
}

InputQueue::Work InputQueue::Next(bool unread) {
  absl::MutexLock lock(&mutex_);
  Work work;
  work.drop_unread = std::exchange(drop_unread_, false);
  if (work.drop_unread) unread = false;
  if (end_of_input_ && !ended_ && IdleLocked(unread)) FinishInputLocked();
  if (ended_) {
    EndLocked(work);
  } else if (!work.drop_unread && IdleLocked(unread)) {
    // In the same step that found nothing to do: a later post finds the lease free, and its thread does the work.
    leased_ = false;
  } else {
    TakeRequestsLocked(work);
    // Bytes wait their turn here, and count as waiting, until those before them are read.
    if (!unread) {
      work.bytes.swap(bytes_);
      work.resume = std::exchange(paused_, false);
    }
  }
  return work;
}

bool InputQueue::IdleLocked(bool unread) const { return !unread && bytes_.empty() && !terminal_changed_ && !redraw_; }

// The last line of a file or program may lack its end; an operator's unfinished line is not run.
void InputQueue::FinishInputLocked() {
  if (source_ == Source::kProgram && !std::exchange(line_end_added_, true)) {
    bytes_ = "\n";
  } else {
    ended_ = true;
  }
}

void InputQueue::EndLocked(Work& work) {
  bytes_.clear();
  // The end is said once; the holder's next call gives the lease back.
  if (std::exchange(end_told_, true)) {
    leased_ = false;
    return;
  }
  work.kind = Work::Kind::kEnd;
  work.farewell = farewell_;
}

void InputQueue::TakeRequestsLocked(Work& work) {
  work.kind = Work::Kind::kSome;
  if (std::exchange(terminal_changed_, false)) work.terminal = terminal_;
  work.redraw = std::exchange(redraw_, false);
}

bool InputQueue::Leased() const {
  absl::MutexLock lock(&mutex_);
  return leased_;
}

bool InputQueue::Ended() const {
  absl::MutexLock lock(&mutex_);
  return ended_;
}

}  // namespace cli::internal
