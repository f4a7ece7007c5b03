#include "figures.h"

#include <vector>

#include "transport/grpc_core.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;

// From a local daemon's quickest answer to the time limit of a call, and twice that for those with a longer one.
std::vector<double> Bounds() {
  return {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 3, 6};
}

double Seconds(steady_clock::duration time) { return std::chrono::duration<double>(time).count(); }

// Addresses are typed by operators, too.
constexpr std::size_t kMostAddresses = 32;

// Counted from the beginning.
struct LossFigures {
  const klbase::Counters lost{
      "vextool_rpc_events_lost_total",
      "Events of subscriptions that did not arrive: waiting for slots that took too long, or no "
      "longer kept by the server.",
      {"reason"}};
  const klbase::Counter slots = lost.With({"slots"});
  const klbase::Counter server = lost.With({"server"});
  const klbase::Counter dropped =
      klbase::Counters("vextool_rpc_served_events_dropped_total",
                       "Events of this process that were not sent to subscribers that read too slowly.")
          .With();
};

const LossFigures& Losses() {
  static const LossFigures figures;
  return figures;
}
[[maybe_unused]] const LossFigures& losses_from_the_beginning = Losses();

klbase::Gauge Confirmed(const std::string& address) {
  static const klbase::Gauges up("vextool_rpc_subscriptions_up", "Subscriptions that a daemon serves, by address.",
                                 {"address"}, kMostAddresses);
  return up.With({address});
}

}  // namespace

void CountCall(std::string_view message, grpc_status_code code, steady_clock::duration time) {
  static const klbase::Counters calls("vextool_rpc_calls_total",
                                      "Calls to daemons, by the request's message and gRPC code.", {"message", "code"});
  static const klbase::Histograms times("vextool_rpc_call_duration_seconds", "How long calls to daemons took.",
                                        {"message"}, Bounds());
  calls.With({message, StatusName(code)}).Add();
  times.With({message}).Observe(Seconds(time));
}

void CountRequest(std::string_view message, grpc_status_code code, steady_clock::duration time) {
  static const klbase::Counters requests("vextool_rpc_requests_served_total",
                                         "Requests to this process, by message and gRPC code.", {"message", "code"});
  static const klbase::Histograms times("vextool_rpc_request_duration_seconds",
                                        "How long requests to this process were worked on.", {"message"}, Bounds());
  if (code == GRPC_STATUS_UNIMPLEMENTED || code == GRPC_STATUS_INVALID_ARGUMENT) message = "other";
  requests.With({message, StatusName(code)}).Add();
  times.With({message}).Observe(Seconds(time));
}

void CountLost(Loss reason, std::uint64_t count) {
  (reason == Loss::kSlots ? Losses().slots : Losses().server).Add(static_cast<double>(count));
}

void CountDropped() { Losses().dropped.Add(); }

klbase::Counted CountSubscription(const std::string& address) {
  static const klbase::Gauges wanted("vextool_rpc_subscriptions", "Subscriptions that were asked for, by address.",
                                     {"address"}, kMostAddresses);
  Confirmed(address);  // which shows as 0 from now on
  return klbase::Counted(wanted.With({address}));
}

klbase::Counted CountConfirmed(const std::string& address) { return klbase::Counted(Confirmed(address)); }

}  // namespace klrpc
