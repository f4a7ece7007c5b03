// One request and its reply, as every API operation makes them.
#ifndef MODULES_APISDK_EXCHANGE_H_
#define MODULES_APISDK_EXCHANGE_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <string>

#include "apisdk/client_getter.h"

namespace apis {

// What becomes of an operation, for GetLastCall().
void NoteNoReply();
void NoteReply(bool accepted, int code, const std::string& text);
// The reply is of another type than the operation's.
void NoteStrangeReply(const google::protobuf::Any& reply);

// Returns whether a reply was received. A reply of another type than Reply's leaves `reply` at its defaults.
// Note(reply) tells GetLastCall() what the daemon thinks of the request.
template <typename Reply>
bool Exchange(const ClientGetter& client_getter, const google::protobuf::Message& request, Reply& reply,
              void (*note)(const Reply&)) {
  google::protobuf::Any packed;
  if (!client_getter().Call(request, packed)) {
    NoteNoReply();
    return false;
  }
  packed.UnpackTo(&reply) ? note(reply) : NoteStrangeReply(packed);
  return true;
}

}  // namespace apis

#endif  // MODULES_APISDK_EXCHANGE_H_
