#include "console/console.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <utility>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "cli/plugin.h"
#include "console/access/user_names.h"
#include "console/commands/builtins.h"
#include "console/control/control_server.h"
#include "console/exit_guard.h"
#include "console/metrics/metrics_file.h"
#include "console/notice.h"
#include "console/session/line_turns.h"
#include "console/session/session_table.h"
#include "console/tcp/server.h"
#include "console/terminal/local_console.h"
#include "console/terminal/local_terminal.h"
#include "console/terminal/stdout_filter.h"
#include "klbase/log.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {
namespace {

// The state that the console's threads share. Kept alive by the console, by a thread in Run() or in the exit handler,
// and for good when a command could not be ended.
class ConsoleRuntime : public SessionHost,
                       public StopsAtExit,
                       public ShowsNotices,
                       public std::enable_shared_from_this<ConsoleRuntime> {
 public:
  ConsoleRuntime(std::unique_ptr<Menu> root, const ConsoleOptions& options)
      : options_(options), root_(std::move(root)), table_(options.max_sessions) {
    if (!root_) throw std::invalid_argument("the console needs a root menu");
    builtins_ = MakeBuiltins(root_->Name());
    // Throws when the port can't be used, before any plugin is created.
    server_ = MakeServer(options_, {&table_, [this] { return NewConfig(); }});
    control_ = MakeControlServer(options_, {&table_, [this] { return NewConfig(); }});
    plugins_ = Registration::CreateAll(root_.get());
    if (options_.local_console) {
      local_ = std::make_unique<LocalConsole>(
          options_, [this](SessionConfig config) { return OpenLocalSession(std::move(config)); });
    }
  }

  void Start() {
    KeepStdoutClean();
    server_->Start();
    if (control_) {
      control_->Start();
      KL_LOG(30, "console control socket is %s\n", control_->Path().c_str());
    }
    if (!options_.metrics_file.empty()) metrics_ = std::make_unique<MetricsFile>(options_.metrics_file);
    const std::string text = "console listens on " + server_->Address();
    KL_LOG(30, "%s\n", text.c_str());
    if (::isatty(options_.output_fd) != 1) std::fprintf(stderr, "%s\n", text.c_str());
  }

  int Port() const { return server_->Port(); }

  void Run() {
    {
      absl::MutexLock lock(&mutex_);
      running_ = true;
      run_thread_ = pthread_self();
    }
    if (local_ && !stop_requested_) {
      local_->Run();
      for (const auto& session : table_.All()) server_->PostReap(session->Id());  // the local one, if it had no thread
    } else {
      absl::MutexLock lock(&mutex_);
      while (!stop_requested_) changed_.Wait(&mutex_);
    }
    {
      absl::MutexLock lock(&mutex_);
      running_ = false;
      changed_.SignalAll();
    }
    Stop();
  }

  // The first caller stops, others wait until it has. False when a command is still running.
  bool Stop() {
    RequestShutdown();
    {
      absl::MutexLock lock(&mutex_);
      if (std::exchange(stopping_, true)) {
        while (!stopped_) changed_.Wait(&mutex_);
        return !stuck_;
      }
    }
    // The I/O thread reaps the sessions whose commands have ended, so it runs until none is left or the time is over.
    server_->Finish();
    if (control_) control_->Finish();
    const bool ended = WaitForRun() && table_.WaitUntilEmpty(options_.stop);
    if (control_) control_->Stop();
    server_->Stop();
    metrics_.reset();  // with what the last sessions did
    if (!ended) {
      KL_LOG(40, "console: a command did not end in time and is left alone\n");
      // The command still uses its session and the menus: all of it stays until the process is gone.
      for (const auto& session : table_.All()) session->Thread().Detach();
      KeepForGood(shared_from_this());
    }
    absl::MutexLock lock(&mutex_);
    stopped_ = true;
    stuck_ = !ended;
    changed_.SignalAll();
    return ended;
  }

  // --- SessionHost

  std::vector<SessionInfo> Sessions() override {
    std::vector<SessionInfo> infos;
    for (const auto& session : table_.All()) {
      if (auto info = session->Info()) infos.push_back(std::move(*info));
    }
    return infos;
  }

  std::string Disconnect(int session_id, const std::string& farewell) override {
    for (const auto& session : table_.All()) {
      if (session->Id() != session_id || !session->Info()) continue;
      const bool own = session->Kind() == SessionKind::kTerminal || session->Kind() == SessionKind::kPlain;
      if (own) return "Session " + std::to_string(session_id) + " is the tool's own; \"shutdown\" ends the tool.";
      KL_LOG(30, "console session %d is disconnected\n", session_id);
      session->Finish(farewell);
      return "";
    }
    return "There is no session " + std::to_string(session_id) + "; \"who\" lists them.";
  }

  void RequestShutdown() override {
    {
      absl::MutexLock lock(&mutex_);
      stop_requested_ = true;
      changed_.SignalAll();
    }
    if (local_) local_->Stop();
  }

  LineTurns& Turns() override { return turns_; }

  void ThreadEnded(int session_id) override { server_->PostReap(session_id); }

  // --- ShowsNotices

  void ShowNotice(std::string_view line) override {
    for (const auto& session : table_.All()) session->ShowNotice(line);
  }

  // --- StopsAtExit

  bool StopForExit() override {
    const bool ended = Stop();
    LocalTerminal::Restore();
    return ended;
  }

 private:
  SessionConfig NewConfig() {
    SessionConfig config;
    config.id = table_.NextId();
    config.root = root_;
    config.builtins = builtins_;
    config.host = this;
    return config;
  }

  std::shared_ptr<ConsoleSession> OpenLocalSession(SessionConfig config) {
    const SessionConfig base = NewConfig();
    config.id = base.id;
    config.user = UserNames().Of(::geteuid());
    config.root = base.root;
    config.builtins = base.builtins;
    config.host = base.host;
    auto session = std::make_shared<ConsoleSession>(std::move(config));
    table_.Add(session, SessionSlot());
    KL_LOG(30, "console session %d opens: %s\n", session->Id(), KindName(session->Kind()));
    return session;
  }

  // The thread in Run() closes the local side. A signal handler that exits may have interrupted that very thread.
  bool WaitForRun() {
    const auto deadline = std::chrono::steady_clock::now() + options_.stop + options_.drain;
    absl::MutexLock lock(&mutex_);
    while (running_ && !pthread_equal(run_thread_, pthread_self())) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      changed_.WaitUntil(&mutex_, deadline);
    }
    return true;
  }

  const ConsoleOptions options_;
  // Destroyed from the last to the first: the transports, then the plugins, then the menus that these worked on.
  const std::shared_ptr<Menu> root_;
  LineTurns turns_;
  SessionTable table_;
  std::shared_ptr<const Builtins> builtins_;
  std::vector<std::unique_ptr<Plugin>> plugins_;
  std::unique_ptr<LocalConsole> local_;
  std::unique_ptr<Server> server_;
  std::unique_ptr<ControlServer> control_;
  std::unique_ptr<MetricsFile> metrics_;

  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  // Set with the lock held, so that no waiter misses it; atomic because Run() also looks at it without the lock.
  std::atomic<bool> stop_requested_{false};
  bool running_ ABSL_GUARDED_BY(mutex_) = false;
  pthread_t run_thread_ ABSL_GUARDED_BY(mutex_){};
  bool stopping_ ABSL_GUARDED_BY(mutex_) = false;
  bool stopped_ ABSL_GUARDED_BY(mutex_) = false;
  bool stuck_ ABSL_GUARDED_BY(mutex_) = false;
};

class ConsoleHandle : public Console {
 public:
  explicit ConsoleHandle(std::shared_ptr<ConsoleRuntime> runtime) : runtime_(std::move(runtime)) {}

  ~ConsoleHandle() override { runtime_->Stop(); }

  void Run() override {
    const std::shared_ptr<ConsoleRuntime> runtime = runtime_;
    runtime->Run();
    // The exiting thread destroys static objects: the caller must not run on into them.
    while (ExitingElsewhere()) ::pause();
  }

  void Stop() override { runtime_->Stop(); }

  int Port() const override { return runtime_->Port(); }

 private:
  const std::shared_ptr<ConsoleRuntime> runtime_;
};

}  // namespace

std::unique_ptr<Console> MakeConsole(std::unique_ptr<Menu> root, const ConsoleOptions& options) {
#ifdef NDEBUG
  // Debian's Abseil looks for cycles of locks with each lock, in a table that all threads share: a crowd of sessions
  // would wait for that most of the time. Debug builds look on.
  absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
#endif
  // A reader that goes away is an error of the write, not the end of the process.
  ::signal(SIGPIPE, SIG_IGN);
  auto runtime = std::make_shared<ConsoleRuntime>(std::move(root), options);
  runtime->Start();
  StopAtExit(runtime);
  AddToNotices(runtime);
  return std::make_unique<ConsoleHandle>(std::move(runtime));
}

}  // namespace cli::internal

namespace cli {

std::unique_ptr<Console> ConsoleFactory::Create(std::unique_ptr<Menu> root, bool local_console, int port) {
  return internal::MakeConsole(std::move(root), internal::OptionsFromEnvironment(local_console, port));
}

}  // namespace cli
