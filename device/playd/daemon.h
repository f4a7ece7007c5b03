// The player daemon: canvas, mixer, players and the server that drives them.
#ifndef DEVICE_PLAYD_DAEMON_H_
#define DEVICE_PLAYD_DAEMON_H_

#include <chrono>
#include <memory>
#include <span>
#include <string>

#include "base/gst.h"
#include "klrpc/api_server.h"
#include "playd/canvas/canvas.h"
#include "playd/player/event_publisher.h"
#include "playd/player/player_table.h"
#include "playd/service.h"
#include "playd/sound/mixer.h"

namespace playd {

// The elements that the player can't do without, for device::MissingElements().
std::span<const device::NeededElement> NeededElements();

class Daemon {
 public:
  struct Options {
    std::string address = "unix-abstract:playd@default";
    bool window = false;
    bool audible = false;
    PlayerLimits limits;
  };

  // Serves at once. Throws std::runtime_error with a text for the operator when the address is in use or GStreamer
  // lacks something.
  explicit Daemon(const Options& options);
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  // Stops, however long that takes; see Stop().
  ~Daemon();

  // Ends play and service. False when a player hangs longer than `limit`; the daemon can't be destroyed in order then.
  bool Stop(std::chrono::milliseconds limit);

  // The state of all that requests can set, as lines of text: timings and players.
  std::string Report() { return service_.Describe() + players_.Describe(); }

  Canvas& GetCanvas() { return canvas_; }
  Mixer& GetMixer() { return mixer_; }
  // The port when the address is TCP, else 0.
  int Port() const { return server_->Port(); }

 private:
  Canvas canvas_;
  Mixer mixer_;
  EventPublisher publisher_;
  PlayerTable players_;
  Service service_;
  std::unique_ptr<klrpc::APIServer> server_;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_DAEMON_H_
