// Where a client of a remote node should connect.
#ifndef APISDK_CONTEXT_H_
#define APISDK_CONTEXT_H_

#include <string>

namespace apis {

// A plain value.
class Context {
 public:
  inline static const std::string DefaultHost = "unix-abstract";

  const std::string& Host() const { return host_; }
  void SetHost(const std::string& host) { host_ = host; }

  // True when the peer is a daemon of this machine, which no node client can be made for.
  bool LocalUnixHost() const { return local_unix_host_; }
  void SetLocalUnixHost(bool local) { local_unix_host_ = local; }

  // Carried for the caller's use; the SDK doesn't read it.
  const unsigned int& Timeout() const { return timeout_; }
  void SetTimeout(unsigned int timeout) { timeout_ = timeout; }

 private:
  std::string host_ = DefaultHost;
  bool local_unix_host_ = false;
  unsigned int timeout_ = 200;
};

}  // namespace apis

#endif  // APISDK_CONTEXT_H_
