// What the console's connections have in common: bytes go between a socket and a session, clients that don't read are
// waited for within limits, and the end comes in good order.
#ifndef KLBASE_CONSOLE_TRANSPORT_STREAM_CONNECTION_H_
#define KLBASE_CONSOLE_TRANSPORT_STREAM_CONNECTION_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/generic/stream_protocol.hpp>
#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "console/options.h"
#include "console/output_buffer.h"
#include "console/transport/served_connection.h"
#include "klbase/collapsed_records.h"

namespace cli::internal {

// The server as its connections see it. The I/O thread only.
class StreamConnectionOwner {
 public:
  virtual ~StreamConnectionOwner() = default;
  virtual const ConsoleOptions& Options() const = 0;
  // Input is read into one buffer for all connections: an idle one keeps none.
  virtual std::string& ReadBuffer() = 0;
  // Strangers cause closings as often as they like.
  virtual klbase::CollapsedRecords& ClosingRecords() = 0;
  // A command runs: its output must be written meanwhile.
  virtual void CommandStarted() = 0;
};

// Used on the I/O thread, except where a function says otherwise. Kept alive by its pending operations and its owner.
class StreamConnection : public std::enable_shared_from_this<StreamConnection>, public ServedConnection {
 public:
  using Socket = asio::generic::stream_protocol::socket;

  ~StreamConnection() override;

  const std::string& Peer() const { return peer_; }
  // For the records of lines: the user's name, where that is known, else the address. Before the session opens.
  void NameUser(std::string name) { user_name_ = std::move(name); }
  const std::string& UserName() const { return user_name_; }
  const std::shared_ptr<OutputBuffer>& Output() const { return output_; }
  // It was refused, and is not closed yet.
  bool Refused() const { return refused_; }

  // --- ServedConnection
  OutputBuffer::Clock::duration StalledFor() const override { return output_->StalledFor(); }
  void Finish(std::string_view notice) override;
  void Abort(const char* why) override;
  void Abandon() override;

  // Any thread: for the session.
  void PostResume();
  void PostEnded();

 protected:
  // `peer` is its name in "who". `kind` and it begin the records. `owner` outlives the connection.
  StreamConnection(asio::io_context& io, Socket socket, std::string peer, const char* kind,
                   StreamConnectionOwner& owner);

  // Comes first, or Refuse() does.
  void Open();
  // Says `text` and closes. `at_once`: without waiting for the client, which then may lose the text.
  void Refuse(std::string_view text, OutputBuffer::Text form, bool at_once);

  // `then` is called in `time`, unless the connection is gone by then. Never cancelled: it checks whether it matters.
  void After(std::chrono::milliseconds time, std::function<void()> then);
  // `then` is called on this thread, soon.
  void Post(std::function<void()> then);
  void AwaitReadable();
  void AwaitGone();
  // Ends a session that nobody uses for too long.
  void WatchIdle();
  void Read();
  // The session runs nothing more: sends the rest of its output.
  void Drain();
  void Close();

  int Fd() { return socket_.native_handle(); }
  // The client has closed its socket, not only its sending side.
  bool HungUp();
  bool Serving() const { return phase_ == Phase::kServing; }
  bool InputEnded() const { return input_ == Input::kEnded; }
  void HoldInputBack() { input_ = Input::kHeldBack; }

 private:
  // Passed through from the first to the last; some are left out.
  enum class Phase {
    kServing,    // the input is wanted
    kDraining,   // nothing runs any more; the rest of the output goes out, input is dropped
    kLingering,  // all is sent, and the client was told so; waits for its close, input is dropped
    kClosed,
  };
  enum class Input {
    kWanted,
    kHeldBack,  // the session has enough until it calls PostResume()
    kEnded,     // the client sends no more
  };

  // Operations under way, which are never begun twice. Each keeps the connection alive or looks whether it is.
  struct Pending {
    bool read = false;
    bool write = false;
    bool stall_check = false;
  };

  // The socket can be read.
  virtual void OnReadable() { Read(); }
  // An operator's bytes go through the line editor.
  virtual bool Edited() const = 0;
  // While Serving().
  virtual void Deliver(std::string_view bytes) = 0;
  virtual void OnEndOfInput() = 0;
  // The client whose input has ended reads nothing either.
  virtual bool ClientGone() = 0;
  // The client has taken output.
  virtual void OnRoom() {}
  virtual std::chrono::milliseconds IdleFor() const = 0;
  // As Finish() has it; false without a session.
  virtual bool FinishSession(std::string_view notice) = 0;
  virtual void CloseSession() = 0;
  // The socket is closed, and the session: the owner forgets the connection.
  virtual void OnClosed() = 0;

  void AwaitWritable();
  void ReadOn();
  void OnAttention();
  void OnStallCheck();
  void OnIdleCheck();
  void Linger();
  bool NothingUnread();

  asio::io_context& io_;
  Socket socket_;
  const std::string peer_;
  std::string user_name_;
  const char* const kind_;
  StreamConnectionOwner& owner_;
  std::shared_ptr<OutputBuffer> output_;
  Phase phase_ = Phase::kServing;
  Input input_ = Input::kWanted;
  Pending pending_;
  bool refused_ = false;
  bool console_ends_ = false;  // a client whose input is all read is not waited for
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TRANSPORT_STREAM_CONNECTION_H_
