// Where messages go: the daemons' names, and gRPC addresses.
#ifndef EXAMPLE_RPC_RPC_ADDRESS_H_
#define EXAMPLE_RPC_RPC_ADDRESS_H_

#include <google/protobuf/descriptor.h>

#include <string>
#include <vector>

namespace rpc {

struct Address {
  std::string name;  // as people call it: "playd", or the address itself
  std::string url;   // as gRPC takes it
};

// The daemon whose messages are in the type's package; an empty one when the package tells of none.
Address AddressOf(const google::protobuf::Descriptor& type);

// The address that `word` names. Throws a WordRefusal.
Address ReadAddress(const std::string& word);

// "encd", "playd" ...
std::vector<std::string> AddressNames();

}  // namespace rpc

#endif  // EXAMPLE_RPC_RPC_ADDRESS_H_
