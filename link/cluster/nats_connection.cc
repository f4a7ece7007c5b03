#include "link/cluster/nats_connection.h"

#include <algorithm>

namespace vexlink {
namespace {

constexpr int kConnectMs = 5000;
constexpr int kWriteMs = 5000;
constexpr int kPingMs = 5000;  // a server that is gone without a word is noticed after three of them
constexpr int kMostPings = 2;

// libnats puts the place in its source in front.
std::string Detail() {
  const char* last = nats_GetLastError(nullptr);
  const std::string text = last == nullptr ? "" : last;
  const std::size_t place = text.find("): ");
  return text.starts_with('(') && place != std::string::npos ? text.substr(place + 3) : text;
}

std::string Words(natsStatus status) {
  const std::string detail = Detail();
  const std::string text = natsStatus_GetText(status);
  return detail.empty() || detail == text ? text : text + ": " + detail;
}

// What it means that a connection could not be made.
std::string Explain(natsStatus status, bool secure) {
  switch (status) {
    case NATS_NO_SERVER:
      return "nobody listens there";
    case NATS_TIMEOUT:
      return "no answer within " + std::to_string(kConnectMs / 1000) + " s";
    case NATS_SECURE_CONNECTION_WANTED:
      return "the server has no TLS, and nothing is sent without; look at the server's configuration";
    case NATS_SSL_ERROR:
      return Detail() + "; look at --ca, --cert and --key, the clock, and the name in the server's certificate";
    case NATS_CONNECTION_AUTH_FAILED:
      return "the server refuses this user: " + Detail();
    case NATS_PROTOCOL_ERROR:
    case NATS_IO_ERROR:
    case NATS_CONNECTION_CLOSED:
      if (secure)
        return "the server closed the connection; it may want another certificate than --cert names (" + Detail() + ")";
      break;
    default:
      break;
  }
  return Words(status);
}

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

}  // namespace

std::string ShownUrl(const std::string& url) {
  const std::size_t scheme = url.find("://");
  const std::size_t host = scheme == std::string::npos ? 0 : scheme + 3;
  const std::size_t at = url.rfind('@');
  return at == std::string::npos || at < host ? url : url.substr(0, host) + url.substr(at + 1);
}

NatsConnection::~NatsConnection() { Close(); }

natsStatus NatsConnection::SetSecrets(natsOptions* options, const ClusterSettings& settings) {
  natsStatus status = NATS_OK;
  if (!settings.credentials.empty()) {
    status = natsOptions_SetUserCredentialsFromFiles(options, settings.credentials.c_str(), nullptr);
  }
  if (status == NATS_OK && !settings.user.empty()) {
    status = natsOptions_SetUserInfo(options, settings.user.c_str(), settings.password.c_str());
  }
  if (status == NATS_OK && !settings.token.empty()) status = natsOptions_SetToken(options, settings.token.c_str());
  return status;
}

natsStatus NatsConnection::SetTls(natsOptions* options, const ClusterSettings& settings) {
  // Without it libnats takes a server that has no TLS, whatever the URL and the certificates say.
  natsStatus status = settings.secure ? natsOptions_SetSecure(options, true) : NATS_OK;
  if (status == NATS_OK && !settings.authority.empty()) {
    status = natsOptions_LoadCATrustedCertificates(options, settings.authority.c_str());
  }
  if (status == NATS_OK && !settings.certificate.empty()) {
    status = natsOptions_LoadCertificatesChain(options, settings.certificate.c_str(), OrNull(settings.key));
  }
  return status;
}

natsStatus NatsConnection::SetTimes(natsOptions* options) {
  natsStatus status = natsOptions_SetAllowReconnect(options, false);
  if (status == NATS_OK) status = natsOptions_SetTimeout(options, kConnectMs);
  if (status == NATS_OK) status = natsOptions_SetWriteDeadline(options, kWriteMs);
  // Else a thread of libnats's sends what is published, after a sleep: an answer took 4 ms.
  if (status == NATS_OK) status = natsOptions_SetSendAsap(options, true);
  if (status == NATS_OK) status = natsOptions_SetPingInterval(options, kPingMs);
  if (status == NATS_OK) status = natsOptions_SetMaxPingsOut(options, kMostPings);
  return status;
}

std::string NatsConnection::Prepare(const std::string& server, const ClusterSettings& settings, Options& options) {
  natsOptions* created = nullptr;
  natsStatus status = natsOptions_Create(&created);
  options.reset(created);
  if (status == NATS_OK) status = natsOptions_SetName(created, ("vexlink " + settings.node).c_str());
  if (status == NATS_OK) status = natsOptions_SetURL(created, server.c_str());
  if (status != NATS_OK) return ShownUrl(server) + " can't be used: " + Words(status);
  status = SetTimes(created);
  if (status == NATS_OK) status = SetSecrets(created, settings);
  if (status == NATS_OK) status = SetTls(created, settings);
  return status == NATS_OK ? "" : Words(status);
}

std::string NatsConnection::Check(const std::string& server, const ClusterSettings& settings) {
  Options options;
  return Prepare(server, settings, options);
}

std::string NatsConnection::Open(const std::string& server, const ClusterSettings& settings) {
  // Made anew each time: certificates may have been renewed.
  Options options;
  if (std::string why = Prepare(server, settings, options); !why.empty()) return why;
  natsOptions_SetClosedCB(options.get(), &OnClosed, &lost_);
  natsOptions_SetErrorHandler(options.get(), &OnError, &log_);
  natsConnection* connected = nullptr;
  const natsStatus status = natsConnection_Connect(&connected, options.get());
  if (status != NATS_OK) return Explain(status, settings.secure);
  connection_.reset(connected);
  takes_headers_ = natsConnection_HasHeaderSupport(connected) == NATS_OK;
  return "";
}

std::string NatsConnection::Subscribe(const std::string& subject, const OnMessage& on_message) {
  natsSubscription* subscription = nullptr;
  void* closure = const_cast<OnMessage*>(&on_message);  // comes back as the constant that it is
  const natsStatus status =
      natsConnection_Subscribe(&subscription, connection_.get(), subject.c_str(), &OnDelivery, closure);
  subscriptions_.emplace_back(subscription);
  return status == NATS_OK ? "" : Words(status);
}

void NatsConnection::OnClosed(natsConnection*, void* lost) { static_cast<EventFd*>(lost)->Set(); }

// Refusals come here, too: of a subject to subscribe, of a reply that came too late.
void NatsConnection::OnError(natsConnection* connection, natsSubscription*, natsStatus status, void* log) {
  const char* words = nullptr;
  natsConnection_GetLastError(connection, &words);
  const std::string text = words == nullptr || *words == 0 ? natsStatus_GetText(status) : words;
  static_cast<Log*>(log)->Say("the server says: " + text);
}

void NatsConnection::OnDelivery(natsConnection*, natsSubscription*, natsMsg* message, void* on_message) {
  const std::unique_ptr<natsMsg, Delete> owned(message);
  const char* reply = natsMsg_GetReply(message);
  const std::string_view payload(natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message)));
  (*static_cast<const OnMessage*>(on_message))(payload, reply == nullptr ? "" : reply);
}

NatsConnection::Published NatsConnection::PublishWithId(const std::string& subject, std::string_view payload,
                                                        const std::string& id) {
  natsMsg* created = nullptr;
  if (natsMsg_Create(&created, subject.c_str(), nullptr, payload.data(), static_cast<int>(payload.size())) != NATS_OK) {
    return Published::kNo;
  }
  const std::unique_ptr<natsMsg, Delete> message(created);
  natsMsgHeader_Set(created, "Nats-Msg-Id", id.c_str());
  const natsStatus status = natsConnection_PublishMsg(connection_.get(), created);
  return status == NATS_OK ? Published::kYes : status == NATS_MAX_PAYLOAD ? Published::kTooLarge : Published::kNo;
}

NatsConnection::Published NatsConnection::Publish(const std::string& subject, std::string_view payload,
                                                  const std::string& id) {
  if (!id.empty() && takes_headers_) return PublishWithId(subject, payload, id);
  const natsStatus status =
      natsConnection_Publish(connection_.get(), subject.c_str(), payload.data(), static_cast<int>(payload.size()));
  return status == NATS_OK ? Published::kYes : status == NATS_MAX_PAYLOAD ? Published::kTooLarge : Published::kNo;
}

std::string NatsConnection::Flush(std::chrono::milliseconds limit) {
  const natsStatus status = natsConnection_FlushTimeout(connection_.get(), std::max<std::int64_t>(limit.count(), 1));
  if (status == NATS_OK) return "";
  if (status == NATS_TIMEOUT) return "the server does not answer";
  const std::string last = LastError();
  return last.empty() ? natsStatus_GetText(status) : last;
}

std::string NatsConnection::Refused(const std::string& prefix) const {
  const std::string last = LastError();
  return last.find("Publish to \"" + prefix) == std::string::npos ? "" : last;
}

bool NatsConnection::IsLost() const { return natsConnection_IsClosed(connection_.get()); }

std::string NatsConnection::LastError() const {
  const char* words = nullptr;
  const natsStatus status = natsConnection_GetLastError(connection_.get(), &words);
  if (words != nullptr && *words != 0) return words;
  return status == NATS_OK ? "" : natsStatus_GetText(status);
}

std::size_t NatsConnection::MostBytes() const {
  return static_cast<std::size_t>(std::max<std::int64_t>(natsConnection_GetMaxPayload(connection_.get()), 0));
}

void NatsConnection::Close() {
  if (connection_ != nullptr) natsConnection_Close(connection_.get());
}

void CloseLibrary(std::chrono::milliseconds limit) { nats_CloseAndWait(limit.count()); }

}  // namespace vexlink
