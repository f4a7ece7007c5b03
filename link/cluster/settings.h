// How the link reaches its cluster.
#ifndef LINK_CLUSTER_SETTINGS_H_
#define LINK_CLUSTER_SETTINGS_H_

#include <string>
#include <vector>

namespace vexlink {

struct ClusterSettings {
  std::string node;
  std::vector<std::string> servers;  // URLs; tried one after another
  // Files; "" for none.
  std::string credentials;
  std::string certificate;
  std::string key;
  std::string authority;
  // From the environment; "" for none.
  std::string user;
  std::string password;
  std::string token;
  bool secure = false;  // TLS or nothing
  bool runs = true;     // requests are taken
};

}  // namespace vexlink

#endif  // LINK_CLUSTER_SETTINGS_H_
