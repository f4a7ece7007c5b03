#include "base/requests.h"

namespace device {
namespace {

// A request may keep a thread for up to 2 s: a stream that connects, a player that hangs. Two such at a time leave two
// threads for all other callers.
constexpr unsigned kHookThreads = 4;

}  // namespace

std::unique_ptr<klrpc::APIServer> ServeRequests(const std::string& address, klrpc::APIServer::UnaryHook answer,
                                                bool pubsub) {
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(std::move(answer));
  return klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(kHookThreads, address, pubsub),
                                  std::move(hooks));
}

bool RequestTable::Handle(const Any& request, Any& reply) const {
  // A type URL is "type.googleapis.com/encoder.v1.AddStreamRequest"; any host, or none, will do.
  const std::string name = request.type_url().substr(request.type_url().rfind('/') + 1);
  const auto* type = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
  if (type == nullptr || type->file()->package() != package_) return false;
  const auto found = handlers_.find(type);
  return found != handlers_.end() ? found->second(request, reply) : unserved_(*type, request, reply);
}

}  // namespace device
