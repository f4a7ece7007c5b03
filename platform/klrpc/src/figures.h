// What the library counts for the process's metrics (klbase/metrics.h).
#ifndef KLRPC_FIGURES_H_
#define KLRPC_FIGURES_H_

#include <grpc/status.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "klbase/metrics.h"

namespace klrpc {

// A call of a client has ended. `message` is the request's full name.
void CountCall(std::string_view message, grpc_status_code code, std::chrono::steady_clock::duration time);

// A server has answered a request. The name of one that it does not serve comes from anybody: it is counted as "other".
void CountRequest(std::string_view message, grpc_status_code code, std::chrono::steady_clock::duration time);

// Events that a client's slots won't get.
enum class Loss {
  kSlots,   // more waited for the slots than there was room for
  kServer,  // the server had no longer kept them
};
void CountLost(Loss reason, std::uint64_t count);

// A server's event that a subscriber has no room for.
void CountDropped();

// One of the subscriptions at `address` that a client has asked for, or of those that a server has confirmed.
klbase::Counted CountSubscription(const std::string& address);
klbase::Counted CountConfirmed(const std::string& address);

}  // namespace klrpc

#endif  // KLRPC_FIGURES_H_
