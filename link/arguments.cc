#include "link/arguments.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "link/cluster/nats_connection.h"
#include "link/events/subject.h"

namespace vexlink {
namespace {

using Words = std::vector<std::string>;

constexpr char kDefaultServer[] = "nats://127.0.0.1:4222";
constexpr std::size_t kMostBuffered = 1 << 20;

// Of HOST, HOST:PORT, [ADDRESS] or [ADDRESS]:PORT: libnats takes any text for a port.
bool IsHostAndPort(std::string_view text) {
  const std::size_t host_end = text.starts_with('[') ? text.find(']') : 0;
  if (text.empty() || host_end == std::string_view::npos) return false;
  const std::size_t colon = text.find(':', host_end);
  if (colon == std::string_view::npos) return true;
  unsigned int port = 0;
  const char* const text_end = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data() + colon + 1, text_end, port);
  return colon > 0 && error == std::errc() && end == text_end && port >= 1 && port <= 65535;
}

std::string TakeServer(const std::string& value, Arguments& arguments) {
  const std::size_t scheme = value.find("://");
  const std::string url = scheme == std::string::npos ? "nats://" + value : value;
  const std::size_t host = std::max(url.find("://") + 3, url.rfind('@') + 1);
  const bool is_ours = url.starts_with("nats://") || url.starts_with("tls://");
  if (!is_ours || !IsHostAndPort(std::string_view(url).substr(host))) {
    return "--server takes nats://HOST:PORT or tls://HOST:PORT, not \"" + ShownUrl(url) + "\"";
  }
  if (url.starts_with("tls://")) arguments.cluster.secure = true;
  arguments.cluster.servers.push_back(url);
  return "";
}

std::string TakeNode(const std::string& value, Arguments& arguments) {
  arguments.cluster.node = value;
  if (IsNodeName(value)) return "";
  return "\"" + value + "\" can't be a node's name: up to 64 letters, digits, - and _, and not \"all\"";
}

std::string TakeEvents(const std::string& value, Arguments& arguments) {
  arguments.events.push_back(value);
  return "";
}

std::string TakeBuffer(const std::string& value, Arguments& arguments) {
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), arguments.buffer);
  const bool read = error == std::errc() && end == value.data() + value.size();
  if (read && arguments.buffer >= 1 && arguments.buffer <= kMostBuffered) return "";
  return "--buffer takes a number of events, up to " + std::to_string(kMostBuffered);
}

template <std::string ClusterSettings::*kFile>
std::string TakeFile(const std::string& value, Arguments& arguments) {
  arguments.cluster.*kFile = value;
  return "";
}

std::string TakeSocket(const std::string& value, Arguments& arguments) {
  arguments.socket = value;
  return "";
}

struct Option {
  const char* name;
  std::string (*take)(const std::string& value, Arguments& arguments);  // returns an error or ""
};

constexpr Option kOptions[] = {
    {"--server", TakeServer},
    {"--node", TakeNode},
    {"--socket", TakeSocket},
    {"--events", TakeEvents},
    {"--buffer", TakeBuffer},
    {"--creds", TakeFile<&ClusterSettings::credentials>},
    {"--cert", TakeFile<&ClusterSettings::certificate>},
    {"--key", TakeFile<&ClusterSettings::key>},
    {"--ca", TakeFile<&ClusterSettings::authority>},
};

// The value of `option` behind its "=", or else the word behind it.
std::optional<std::string> ValueOf(const Option& option, const Words& words, std::size_t& at) {
  const std::string& word = words[at];
  const std::string_view name = option.name;
  if (word.size() > name.size()) return word.substr(name.size() + 1);
  return at + 1 < words.size() ? std::optional(words[++at]) : std::nullopt;
}

bool Is(std::string_view word, std::string_view name) {
  return word == name || (word.starts_with(name) && word[name.size()] == '=');
}

std::string TakeValue(const Option& option, const Words& words, std::size_t& at, Arguments& arguments) {
  const auto value = ValueOf(option, words, at);
  return value && !value->empty() ? option.take(*value, arguments) : std::string(option.name) + " needs a value";
}

std::string Take(const Words& words, std::size_t& at, Arguments& arguments) {
  const std::string& word = words[at];
  for (const Option& option : kOptions) {
    if (Is(word, option.name)) return TakeValue(option, words, at, arguments);
  }
  if (word == "-h" || word == "--help") {
    arguments.form = Arguments::Form::kHelp;
  } else if (word == "--version") {
    arguments.form = Arguments::Form::kVersion;
  } else if (word == "--no-run") {
    arguments.cluster.runs = false;
  } else {
    return "unknown word \"" + word + "\"";
  }
  return "";
}

void Complete(const Environment& environment, Arguments& arguments) {
  ClusterSettings& cluster = arguments.cluster;
  if (cluster.servers.empty()) cluster.servers.emplace_back(kDefaultServer);
  if (cluster.node.empty()) cluster.node = NodeNameOfHost();
  cluster.user = environment("VEXLINK_USER");
  cluster.password = environment("VEXLINK_PASSWORD");
  cluster.token = environment("VEXLINK_TOKEN");
  cluster.secure = cluster.secure || !cluster.authority.empty() || !cluster.certificate.empty();
}

std::string Check(const Arguments& arguments) {
  const ClusterSettings& cluster = arguments.cluster;
  if (cluster.node.empty()) return "this machine's name can't be a node's name; give one: --node NAME";
  if (cluster.certificate.empty() != cluster.key.empty()) return "--cert and --key go together";
  return "";
}

}  // namespace

const char kHelpText[] =
    R"(usage: vexlink [OPTION...]

Connects the vextool of this machine with a NATS cluster: its events go out, requests to run lines come in.

  --server URL       of the cluster, nats://HOST:PORT or tls://HOST:PORT; several are tried in turn [nats://127.0.0.1:4222]
  --node NAME        this node's name in subjects: letters, digits, - and _ [the host's name up to its first dot]
  --socket PATH      vextool's control socket [$KLBASE_CONSOLE_SOCKET, or the one that vextool chooses]
  --events WORD      only these events: a topic, which may end in *, or FIELD OP VALUE; several [all events]
  --buffer EVENTS    kept while the cluster is away [65536]
  --no-run           events only: nobody can run a line
  --creds FILE       NATS credentials
  --cert FILE        certificate of this node, with --key
  --key FILE         its key
  --ca FILE          certificates of those who vouch for the servers [the system's]
  --version          print the version
  -h, --help         print this

With tls://, --ca or --cert the link speaks TLS or not at all, and the server's certificate must have the host's name.
A user's name and password, or a token, stand in VEXLINK_USER, VEXLINK_PASSWORD and VEXLINK_TOKEN.

Subjects: vextool.NODE.event.TOPIC, with dots for the topic's slashes; vextool.NODE.gap, where events are missing;
vextool.NODE.up, every 10 s; vextool.NODE.run and vextool.all.run, for requests: a line, or {"run":LINE,"within_ms":N}.

Examples:
  vexlink --server nats.example:4222 --node cam7
  vexlink --server tls://a.example --server tls://b.example --ca ca.pem --cert cam7.pem --key cam7.key
  vexlink --no-run --events "layer/*"

Exit status: 0 when it was asked to end, by SIGTERM or SIGINT; 1 for a fault; 2 for wrong words.
)";

Arguments ReadArguments(const Words& words, const Environment& environment) {
  Arguments arguments;
  for (std::size_t at = 0; at < words.size() && arguments.error.empty(); ++at) {
    arguments.error = Take(words, at, arguments);
    if (arguments.form != Arguments::Form::kRun) return arguments;
  }
  Complete(environment, arguments);
  if (arguments.error.empty()) arguments.error = Check(arguments);
  return arguments;
}

}  // namespace vexlink
