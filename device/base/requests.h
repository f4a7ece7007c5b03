// Requests to a daemon: a server for them, and a table of typed handlers.
#ifndef DEVICE_BASE_REQUESTS_H_
#define DEVICE_BASE_REQUESTS_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/descriptor.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "klrpc/api_server.h"

namespace device {

// Serves at a gRPC address: `answer` is called for each request, on one of four threads. `pubsub` says whether the
// server also carries events. Throws std::runtime_error with a text for the operator when the address is in use.
std::unique_ptr<klrpc::APIServer> ServeRequests(const std::string& address, klrpc::APIServer::UnaryHook answer,
                                                bool pubsub);

// The requests of one schema, by message type. Filled by one thread; then any thread may call Handle().
class RequestTable {
 public:
  using Any = google::protobuf::Any;
  // Answers a message of the schema that has no handler.
  using Unserved = std::function<bool(const google::protobuf::Descriptor& type, const Any& request, Any& reply)>;

  // `package` is the schema's, such as "encoder.v1".
  RequestTable(std::string package, Unserved unserved) : package_(std::move(package)), unserved_(std::move(unserved)) {}

  // `answer(const Request& request, bool parsed, Any& reply)` returns the result of Handle(). When `parsed` is
  // false the payload is not a Request; `request` then holds the fields that could be read before the fault.
  template <typename Request, typename Answer>
  void Add(Answer answer) {
    handlers_[Request::descriptor()] = [answer = std::move(answer)](const Any& packed, Any& reply) {
      Request request;
      const bool parsed = packed.UnpackTo(&request);
      return answer(request, parsed, reply);
    };
  }

  // Answers `request`. A type of another package or of none is left alone: false, and `reply` stays empty.
  bool Handle(const Any& request, Any& reply) const;

 private:
  using Handler = std::function<bool(const Any& request, Any& reply)>;

  const std::string package_;
  const Unserved unserved_;
  std::map<const google::protobuf::Descriptor*, Handler> handlers_;
};

}  // namespace device

#endif  // DEVICE_BASE_REQUESTS_H_
