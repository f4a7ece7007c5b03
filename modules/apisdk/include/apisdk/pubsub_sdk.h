// Holds one publish/subscribe object for each daemon.
#ifndef APISDK_PUBSUB_SDK_H_
#define APISDK_PUBSUB_SDK_H_

#include <memory>

#include "apisdk/api_pubsub.h"

namespace apis {

// Has no lock: initialise before other threads use it.
class ApiPubSubSdk {
 public:
  // Destroyed before ApiSdk::instance_, which owns the clients that the objects reach in their destructors.
  static ApiPubSubSdk instance_;

  constexpr ApiPubSubSdk() = default;
  ApiPubSubSdk(const ApiPubSubSdk&) = delete;
  ApiPubSubSdk& operator=(const ApiPubSubSdk&) = delete;
  ~ApiPubSubSdk() = default;

  // Create the daemon's object, replacing one that is there. The client must exist and outlive it.
  void InitPubSubSyncd(ClientGetter getter);
  void InitPubSubPlayd(ClientGetter getter);
  void InitPubSubEncd(ClientGetter getter);
  void InitPubSubOsd(ClientGetter getter);

  // Null until initialised.
  ApiPubSub* PubSubSyncd() const { return syncd_.get(); }
  ApiPubSub* PubSubPlayd() const { return playd_.get(); }
  ApiPubSub* PubSubEncd() const { return encd_.get(); }
  ApiPubSub* PubSubOsd() const { return osd_.get(); }

 private:
  std::unique_ptr<ApiPubSub> syncd_;
  std::unique_ptr<ApiPubSub> playd_;
  std::unique_ptr<ApiPubSub> encd_;
  std::unique_ptr<ApiPubSub> osd_;
};

}  // namespace apis

#endif  // APISDK_PUBSUB_SDK_H_
