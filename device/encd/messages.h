// The encoder's message interface: one request in an Any, one reply in an Any.
#ifndef DEVICE_ENCD_MESSAGES_H_
#define DEVICE_ENCD_MESSAGES_H_

#include <google/protobuf/any.pb.h>

#include "encd/encoder.h"

namespace encd {

// Answers `request`. Every message of package encoder.v1 gets a reply, one that is not served too: a common.v1.Status
// with code 6. For messages of other packages returns false and leaves `reply` empty. Any thread.
bool HandleMessage(Encoder& encoder, const google::protobuf::Any& request, google::protobuf::Any& reply);

}  // namespace encd

#endif  // DEVICE_ENCD_MESSAGES_H_
