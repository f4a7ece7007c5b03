#include "server/diagnostics.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <array>
#include <set>

#include "grpc/health/v1/health.pb.h"
#include "grpc/reflection/v1alpha/reflection.pb.h"
#include "klrpc/v1/transport.pb.h"

namespace klrpc {
namespace {

namespace health = grpc::health::v1;
namespace reflection = grpc::reflection::v1alpha;
using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;

constexpr std::array kServices = {"klrpc.v1.Transport", "grpc.health.v1.Health",
                                  "grpc.reflection.v1alpha.ServerReflection"};

bool Serves(const std::string& service) {
  return service.empty() || std::find(kServices.begin(), kServices.end(), service) != kServices.end();
}

CallResult CheckHealth(const Buffer& bytes) {
  health::HealthCheckRequest request;
  if (!bytes.ParseInto(request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a health check");
  if (!Serves(request.service())) return Failure(GRPC_STATUS_NOT_FOUND, "no service " + request.service());
  health::HealthCheckResponse response;
  response.set_status(health::HealthCheckResponse::SERVING);
  return {GRPC_STATUS_OK, "", Serialize(response)};
}

// A server that answers serves, so the first answer is the last.
CallResult WatchHealth(const Buffer& bytes) {
  health::HealthCheckRequest request;
  if (!bytes.ParseInto(request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a health check");
  health::HealthCheckResponse response;
  response.set_status(Serves(request.service()) ? health::HealthCheckResponse::SERVING
                                                : health::HealthCheckResponse::SERVICE_UNKNOWN);
  return {GRPC_STATUS_OK, "", Serialize(response)};
}

// The file and all that it imports, each once.
void AddFiles(const FileDescriptor* file, std::set<const FileDescriptor*>& added,
              reflection::FileDescriptorResponse& response) {
  if (!added.insert(file).second) return;
  google::protobuf::FileDescriptorProto proto;
  file->CopyTo(&proto);
  response.add_file_descriptor_proto(proto.SerializeAsString());
  for (int i = 0; i < file->dependency_count(); ++i) AddFiles(file->dependency(i), added, response);
}

void SetFile(const FileDescriptor* file, reflection::ServerReflectionResponse& response) {
  if (file == nullptr) {
    response.mutable_error_response()->set_error_code(GRPC_STATUS_NOT_FOUND);
    response.mutable_error_response()->set_error_message("not found");
    return;
  }
  std::set<const FileDescriptor*> added;
  AddFiles(file, added, *response.mutable_file_descriptor_response());
}

// Knows every schema that is linked into the process, also those of the messages inside an Any.
CallResult Reflect(const Buffer& bytes) {
  using Request = reflection::ServerReflectionRequest;
  Request request;
  if (!bytes.ParseInto(request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a reflection request");
  reflection::ServerReflectionResponse response;
  response.set_valid_host(request.host());
  *response.mutable_original_request() = request;
  const DescriptorPool& pool = *DescriptorPool::generated_pool();
  switch (request.message_request_case()) {
    case Request::kListServices:
      for (const char* name : kServices) response.mutable_list_services_response()->add_service()->set_name(name);
      break;
    case Request::kFileByFilename:
      SetFile(pool.FindFileByName(request.file_by_filename()), response);
      break;
    case Request::kFileContainingSymbol:
      SetFile(pool.FindFileContainingSymbol(request.file_containing_symbol()), response);
      break;
    case Request::kFileContainingExtension:
    case Request::kAllExtensionNumbersOfType:
      SetFile(nullptr, response);  // these schemas have no extensions
      break;
    case Request::MESSAGE_REQUEST_NOT_SET:
      response.mutable_error_response()->set_error_code(GRPC_STATUS_INVALID_ARGUMENT);
      response.mutable_error_response()->set_error_message("the request asks for nothing");
      break;
  }
  return {GRPC_STATUS_OK, "", Serialize(response)};
}

// Not registered with gRPC: calls of any other method need an answer too, and come the same way.
constexpr std::array kMethods = {
    DiagnosticMethod{"/grpc.health.v1.Health/Check", DiagnosticMethod::kOneReply, CheckHealth},
    DiagnosticMethod{"/grpc.health.v1.Health/Watch", DiagnosticMethod::kKeepOpen, WatchHealth},
    DiagnosticMethod{"/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", DiagnosticMethod::kExchanges,
                     Reflect},
};

}  // namespace

const DiagnosticMethod* FindDiagnosticMethod(std::string_view path) {
  const auto* found = std::find_if(kMethods.begin(), kMethods.end(),
                                   [path](const DiagnosticMethod& method) { return method.path == path; });
  return found == kMethods.end() ? nullptr : found;
}

void DiagnosticCall::Start(ServerContext& context) {
  const auto call = std::make_shared<DiagnosticCall>(context);
  const grpc_call_error error =
      grpc_server_request_call(context.server, &call->call_, &call->details_, &call->metadata_, context.queue,
                               context.queue, call->called_.Begin());
  if (error != GRPC_CALL_OK) call->called_.Abandon();
}

DiagnosticCall::DiagnosticCall(ServerContext& context) : member_(context.calls), context_(context) {
  grpc_call_details_init(&details_);
  grpc_metadata_array_init(&metadata_);
}

DiagnosticCall::~DiagnosticCall() {
  grpc_call_details_destroy(&details_);
  grpc_metadata_array_destroy(&metadata_);
  if (call_ != nullptr) grpc_call_unref(call_);
}

void DiagnosticCall::OnCall(bool ok) {
  if (!ok) return;  // the server is stopping
  Start(context_);
  grpc_op op{};
  op.op = GRPC_OP_RECV_CLOSE_ON_SERVER;
  op.data.recv_close_on_server.cancelled = &cancelled_;
  grpc_call_start_batch(call_, &op, 1, closed_.Begin(), nullptr);

  // A reference of its own: the details keep theirs.
  const Slice path(grpc_slice_ref(details_.method));
  method_ = FindDiagnosticMethod(path.View());
  if (method_ != nullptr) {
    Read();
  } else {
    Finish(GRPC_STATUS_UNIMPLEMENTED, "no method " + std::string(path.View()) + " here");
  }
}

void DiagnosticCall::Read() {
  std::array<grpc_op, 2> ops{};
  ops[0].op = GRPC_OP_RECV_MESSAGE;
  ops[0].data.recv_message.recv_message = request_.Reset();
  ops[1].op = GRPC_OP_SEND_INITIAL_METADATA;
  grpc_call_start_batch(call_, ops.data(), std::exchange(started_, true) ? 1 : 2, read_.Begin(), nullptr);
}

void DiagnosticCall::OnRead(bool ok) {
  if (!ok) return;
  if (!request_) return Finish(GRPC_STATUS_OK, "");  // the caller has no more requests
  const std::optional<CallResult> refusal = RefusalOf(request_, call_, context_.refused_messages);
  const CallResult result = refusal ? *refusal : method_->answer(request_);
  if (result.code != GRPC_STATUS_OK) return Finish(result.code, result.text);
  const Buffer reply(result.reply);
  grpc_op op{};
  op.op = GRPC_OP_SEND_MESSAGE;
  op.data.send_message.send_message = reply.Get();
  grpc_call_start_batch(call_, &op, 1, written_.Begin(), nullptr);
}

void DiagnosticCall::OnWritten(bool ok) {
  if (!ok) return;
  if (method_->shape == DiagnosticMethod::kOneReply) Finish(GRPC_STATUS_OK, "");
  if (method_->shape == DiagnosticMethod::kExchanges) Read();
}

void DiagnosticCall::Finish(grpc_status_code code, const std::string& text) {
  EndStream(call_, {code, text, {}}, started_, finished_.Begin());
}

}  // namespace klrpc
