// Addresses of the device's daemons on its message RPC.
#ifndef CORE_RPC_URL_H_
#define CORE_RPC_URL_H_

#include <string>

namespace core {

// Constants, one definition in the whole program, initialised before main(). Abstract unix sockets: daemon@instance.
struct RpcUnixSocketUrl {
  inline static const std::string rpc_url_encd_ = "unix-abstract:encd@default";
  inline static const std::string rpc_url_playd_ = "unix-abstract:playd@default";
  inline static const std::string rpc_url_syncd_ = "unix-abstract:syncd@systembus";
  inline static const std::string rpc_url_osd_ = "unix-abstract:osd@default";
  // This tool's own service.
  inline static const std::string rpc_url_example_ = "unix-abstract:example@default";
};

struct RpcConstants {
  // What google::protobuf::Any puts before the slash of a type URL by default.
  inline static const std::string rpc_type_url_prefix_ = "type.googleapis.com";
};

}  // namespace core

#endif  // CORE_RPC_URL_H_
