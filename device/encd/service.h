// The encoder's requests, by message type.
#ifndef DEVICE_ENCD_SERVICE_H_
#define DEVICE_ENCD_SERVICE_H_

#include <google/protobuf/any.pb.h>

#include "base/requests.h"
#include "encd/encoder.h"
#include "encd/error_code.h"

namespace encd {

// Turns requests into operations of the encoder, and their outcomes into replies. Any thread.
class Service {
 public:
  // `encoder` must outlive the service.
  explicit Service(Encoder& encoder);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Answers `request`. Every message of package encoder.v1 gets a reply, one that is not served too: a common.v1.Status
  // with code 6. For messages of other packages returns false and leaves `reply` empty.
  bool Handle(const google::protobuf::Any& request, google::protobuf::Any& reply) const {
    return table_.Handle(request, reply);
  }

 private:
  // For requests that are answered with a common.v1.Status.
  template <typename Request>
  void Serve(Outcome (*operation)(Encoder&, const Request&));

  // For requests with a reply of their own.
  template <typename Request, typename Reply>
  void Serve(Reply (*operation)(Encoder&, const Request&));

  Encoder& encoder_;
  device::RequestTable table_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_SERVICE_H_
