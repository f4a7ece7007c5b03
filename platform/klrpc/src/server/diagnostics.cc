#include "server/diagnostics.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/unknown_field_set.h>

#include <algorithm>
#include <array>
#include <set>

#include "server/service_schemas.h"

namespace klrpc {
namespace {

using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;
// A message as its numbered fields. Generated code of these schemas would be one more of the process, see
// ServiceSchemas().
using google::protobuf::UnknownFieldSet;

constexpr std::array kServices = {"klrpc.v1.Transport", "grpc.health.v1.Health",
                                  "grpc.reflection.v1alpha.ServerReflection"};

namespace health {
constexpr int kService = 1;  // of HealthCheckRequest
constexpr int kStatus = 1;   // of HealthCheckResponse
enum ServingStatus { kServing = 1, kServiceUnknown = 3 };
}  // namespace health

namespace reflection {
// Of ServerReflectionRequest.
constexpr int kHost = 1;
constexpr int kFileByFilename = 3;
constexpr int kFileContainingSymbol = 4;
constexpr int kListServices = 7;
// Of ServerReflectionResponse.
constexpr int kValidHost = 1;
constexpr int kOriginalRequest = 2;
constexpr int kFileDescriptorResponse = 4;
constexpr int kListServicesResponse = 6;
constexpr int kErrorResponse = 7;
// Of the messages in the response.
constexpr int kFileDescriptorProto = 1;
constexpr int kService = 1;
constexpr int kName = 1;
constexpr int kErrorCode = 1;
constexpr int kErrorMessage = 2;
}  // namespace reflection

bool Parse(const Buffer& bytes, UnknownFieldSet& fields) {
  const Slice all = bytes.Flat();
  return fields.ParseFromArray(all.View().data(), static_cast<int>(all.View().size()));
}

// The string with this number, the last of several; empty when there is none.
std::string Text(const UnknownFieldSet& fields, int number) {
  std::string text;
  for (int i = 0; i < fields.field_count(); ++i) {
    const auto& field = fields.field(i);
    const bool is_text = field.type() == google::protobuf::UnknownField::TYPE_LENGTH_DELIMITED;
    if (is_text && field.number() == number) text = field.length_delimited();
  }
  return text;
}

CallResult Answer(const UnknownFieldSet& reply) {
  std::string bytes;
  reply.SerializeToString(&bytes);
  return {GRPC_STATUS_OK, "", Slice(bytes)};
}

void AddPart(UnknownFieldSet& fields, int number, const UnknownFieldSet& part) {
  part.SerializeToString(fields.AddLengthDelimited(number));
}

CallResult HealthIs(health::ServingStatus status) {
  UnknownFieldSet response;
  response.AddVarint(health::kStatus, status);
  return Answer(response);
}

bool Serves(const std::string& service) {
  return service.empty() || std::find(kServices.begin(), kServices.end(), service) != kServices.end();
}

CallResult CheckHealth(const Buffer& bytes) {
  UnknownFieldSet request;
  if (!Parse(bytes, request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a health check");
  const std::string service = Text(request, health::kService);
  if (!Serves(service)) return Failure(GRPC_STATUS_NOT_FOUND, "no service " + service);
  return HealthIs(health::kServing);
}

// A server that answers serves, so the first answer is the last.
CallResult WatchHealth(const Buffer& bytes) {
  UnknownFieldSet request;
  if (!Parse(bytes, request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a health check");
  return HealthIs(Serves(Text(request, health::kService)) ? health::kServing : health::kServiceUnknown);
}

// The file and all that it imports, each once.
void AddFiles(const FileDescriptor* file, std::set<const FileDescriptor*>& added, UnknownFieldSet& response) {
  if (!added.insert(file).second) return;
  google::protobuf::FileDescriptorProto proto;
  file->CopyTo(&proto);
  response.AddLengthDelimited(reflection::kFileDescriptorProto, proto.SerializeAsString());
  for (int i = 0; i < file->dependency_count(); ++i) AddFiles(file->dependency(i), added, response);
}

void AddFile(const FileDescriptor* file, UnknownFieldSet& response) {
  std::set<const FileDescriptor*> added;
  UnknownFieldSet files;
  AddFiles(file, added, files);
  AddPart(response, reflection::kFileDescriptorResponse, files);
}

void AddError(grpc_status_code code, const char* text, UnknownFieldSet& response) {
  UnknownFieldSet error;
  error.AddVarint(reflection::kErrorCode, code);
  error.AddLengthDelimited(reflection::kErrorMessage, text);
  AddPart(response, reflection::kErrorResponse, error);
}

void AddServices(UnknownFieldSet& response) {
  UnknownFieldSet list;
  for (const char* name : kServices) {
    UnknownFieldSet service;
    service.AddLengthDelimited(reflection::kName, name);
    AddPart(list, reflection::kService, service);
  }
  AddPart(response, reflection::kListServicesResponse, list);
}

const FileDescriptor* FindIn(const DescriptorPool& pool, int question, const std::string& name) {
  // These schemas have no extensions.
  if (question == reflection::kFileByFilename) return pool.FindFileByName(name);
  return question == reflection::kFileContainingSymbol ? pool.FindFileContainingSymbol(name) : nullptr;
}

// The number of the last question, 0 for none.
int Question(const UnknownFieldSet& request) {
  int question = 0;
  for (int i = 0; i < request.field_count(); ++i) {
    const int number = request.field(i).number();
    if (number >= reflection::kFileByFilename && number <= reflection::kListServices) question = number;
  }
  return question;
}

// Knows its own services and every schema that is linked into the process, also those of the messages inside an Any.
CallResult Reflect(const Buffer& bytes) {
  UnknownFieldSet request;
  if (!Parse(bytes, request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a reflection request");
  const int question = Question(request);
  UnknownFieldSet response;
  response.AddLengthDelimited(reflection::kValidHost, Text(request, reflection::kHost));
  AddPart(response, reflection::kOriginalRequest, request);
  if (question == 0) {
    AddError(GRPC_STATUS_INVALID_ARGUMENT, "the request asks for nothing", response);
    return Answer(response);
  }
  if (question == reflection::kListServices) {
    AddServices(response);
    return Answer(response);
  }
  const std::string name = Text(request, question);
  const FileDescriptor* file = FindIn(ServiceSchemas(), question, name);
  if (file == nullptr) file = FindIn(*DescriptorPool::generated_pool(), question, name);
  file != nullptr ? AddFile(file, response) : AddError(GRPC_STATUS_NOT_FOUND, "not found", response);
  return Answer(response);
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
  if (!StartBatch(&op, 1, closed_)) return;

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
  StartBatch(ops.data(), std::exchange(started_, true) ? 1 : 2, read_);
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
  StartBatch(&op, 1, written_);
}

void DiagnosticCall::OnWritten(bool ok) {
  if (!ok) return;
  if (method_->shape == DiagnosticMethod::kOneReply) Finish(GRPC_STATUS_OK, "");
  if (method_->shape == DiagnosticMethod::kExchanges) Read();
}

void DiagnosticCall::Finish(grpc_status_code code, const std::string& text) {
  CheckStarted(EndStream(call_, {code, text, {}}, started_, finished_.Begin()), finished_);
}

bool DiagnosticCall::StartBatch(const grpc_op* ops, std::size_t count, Completion<DiagnosticCall>& completion) {
  return CheckStarted(grpc_call_start_batch(call_, ops, count, completion.Begin(), nullptr), completion);
}

bool DiagnosticCall::CheckStarted(grpc_call_error error, Completion<DiagnosticCall>& completion) {
  if (error == GRPC_CALL_OK) return true;
  completion.Abandon();
  CutOff(call_, "a call of " + CallerOf(call_), error);
  return false;
}

}  // namespace klrpc
