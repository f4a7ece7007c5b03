// One request and its reply, as every API operation makes them.
#ifndef MODULES_APISDK_EXCHANGE_H_
#define MODULES_APISDK_EXCHANGE_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include "apisdk/client_getter.h"

namespace apis {

// Returns whether a reply was received. A reply of another type than Reply's leaves `reply` at its defaults.
template <typename Reply>
bool Exchange(const ClientGetter& client_getter, const google::protobuf::Message& request, Reply& reply) {
  google::protobuf::Any packed;
  if (!client_getter().Call(request, packed)) return false;
  packed.UnpackTo(&reply);
  return true;
}

}  // namespace apis

#endif  // MODULES_APISDK_EXCHANGE_H_
