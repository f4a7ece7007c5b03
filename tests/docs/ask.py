"""Makes the calls whose answers docs/protocol.md describes, with gRPC alone. Prints a line per call."""

import sys

sys.dont_write_bytecode = True

import grpc  # noqa: E402
from google.protobuf import any_pb2  # noqa: E402

OPTIONS = [("grpc.enable_http_proxy", 0)]
CALL = "/klrpc.v1.Transport/Call"
HEALTH = "/grpc.health.v1.Health/Check"
REFLECTION = "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo"
LIST_SERVICES = b"\x3a\x01*"
TOOL = "unix-abstract:example@default"


def ask(address, method, request):
    with grpc.insecure_channel(address, OPTIONS) as channel:
        try:
            return "OK", channel.unary_unary(method)(request, timeout=10)
        except grpc.RpcError as error:
            return error.code().name, error.details()


def packed(url):
    return any_pb2.Any(type_url=url).SerializeToString()


def services():
    with grpc.insecure_channel(TOOL, OPTIONS) as channel:
        reply = b"".join(channel.stream_stream(REFLECTION)(iter([LIST_SERVICES]), timeout=10))
    return b"klrpc.v1.Transport" in reply


GOOD, UNKNOWN = "type.googleapis.com/example.v1.ExampleRPCRequest", "type.googleapis.com/encoder.v1.SetVideoQualityRequest"
print("known", ask(TOOL, CALL, packed(GOOD))[0])
code, text = ask(TOOL, CALL, packed(UNKNOWN))
print("unknown", code, UNKNOWN in text)
print("prefix", ask(TOOL, CALL, packed(GOOD.replace("type.", "other.")))[0])
print("nobody", ask("unix-abstract:nobody@default", CALL, packed(GOOD))[0])
print("health", ask(TOOL, HEALTH, b""))
print("reflection", services())
