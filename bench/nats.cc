// A bare NATS client, beside which vexlink is measured:
//   bench_nats subscribe URL SUBJECT                prints each payload as a line, until it is killed
//   bench_nats publish URL SUBJECT COUNT PAYLOAD    the same message so often, then ends when the server has them
//   bench_nats answer URL SUBJECT PAYLOAD           answers each request with it, until it is killed
//   bench_nats request URL SUBJECT PAYLOAD COUNT    round trips
#include <nats/nats.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "samples.h"

namespace {

constexpr int kIdleMs = 1;       // then what was received is shown
constexpr int kAnswerMs = 5000;  // for one request
constexpr int kFlushMs = 60000;

int Fail(natsStatus status) {
  std::fprintf(stderr, "bench_nats: %s\n", natsStatus_GetText(status));
  return 1;
}

int Subscribe(natsConnection* connection, const char* subject) {
  natsSubscription* subscription = nullptr;
  natsStatus status = natsConnection_SubscribeSync(&subscription, connection, subject);
  if (status == NATS_OK) status = natsSubscription_SetPendingLimits(subscription, -1, -1);
  if (status == NATS_OK) status = natsConnection_Flush(connection);
  std::fputs("subscribed\n", stdout);
  while (status == NATS_OK || status == NATS_TIMEOUT) {
    natsMsg* message = nullptr;
    status = natsSubscription_NextMsg(&message, subscription, kIdleMs);
    if (status == NATS_TIMEOUT) std::fflush(stdout);
    if (status != NATS_OK) continue;
    std::fwrite(natsMsg_GetData(message), 1, static_cast<std::size_t>(natsMsg_GetDataLength(message)), stdout);
    std::fputc('\n', stdout);
    natsMsg_Destroy(message);
  }
  return Fail(status);
}

int Publish(natsConnection* connection, const char* subject, long count, const char* payload) {
  natsStatus status = NATS_OK;
  for (long i = 0; i < count && status == NATS_OK; ++i)
    status = natsConnection_PublishString(connection, subject, payload);
  if (status == NATS_OK) status = natsConnection_FlushTimeout(connection, kFlushMs);
  return status == NATS_OK ? 0 : Fail(status);
}

void Reply(natsConnection* connection, natsSubscription*, natsMsg* request, void* payload) {
  natsConnection_PublishString(connection, natsMsg_GetReply(request), static_cast<const char*>(payload));
  natsMsg_Destroy(request);
}

int Answer(natsConnection* connection, const char* subject, char* payload) {
  natsSubscription* subscription = nullptr;
  const natsStatus status = natsConnection_Subscribe(&subscription, connection, subject, &Reply, payload);
  if (status != NATS_OK) return Fail(status);
  for (;;) pause();
}

bool Request(natsConnection* connection, const char* subject, const char* payload) {
  natsMsg* answer = nullptr;
  if (natsConnection_RequestString(&answer, connection, subject, payload, kAnswerMs) != NATS_OK) return false;
  const std::string_view text(natsMsg_GetData(answer), static_cast<std::size_t>(natsMsg_GetDataLength(answer)));
  const bool well = text.find("\"status\":\"ok\"") != std::string_view::npos;
  natsMsg_Destroy(answer);
  return well;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 3 ? argv[1] : "";
  natsOptions* options = nullptr;
  natsConnection* connection = nullptr;
  natsStatus status = argc > 3 ? natsOptions_Create(&options) : NATS_INVALID_ARG;
  if (status == NATS_OK) status = natsOptions_SetURL(options, argv[2]);
  // Else an answer waits for a thread of libnats's to send it. A publisher of many messages is faster with that thread.
  if (status == NATS_OK) status = natsOptions_SetSendAsap(options, mode == "answer");
  if (status == NATS_OK) status = natsConnection_Connect(&connection, options);
  if (status != NATS_OK) return Fail(status);
  if (mode == "subscribe" && argc == 4) return Subscribe(connection, argv[3]);
  if (mode == "answer" && argc == 5) return Answer(connection, argv[3], argv[4]);
  if (mode == "publish" && argc == 6) return Publish(connection, argv[3], std::atol(argv[4]), argv[5]);
  if (mode == "request" && argc == 6) {
    return bench::MeasureAndPrint(static_cast<std::size_t>(std::atol(argv[5])),
                                  [&] { return Request(connection, argv[3], argv[4]); });
  }
  return Fail(NATS_INVALID_ARG);
}
