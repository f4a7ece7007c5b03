"""A client without this tree's libraries, which keeps to no limit:
  foreign_peer.py call ADDRESS BYTES COUNT      requests of so many bytes; prints the status codes as JSON
  foreign_peer.py publish ADDRESS BYTES COUNT   the same with events
The protobuf bytes are written by hand: the schema's code is not needed, and the sizes are exact."""

import collections
import json
import sys

import grpc

OPTIONS = [("grpc.max_send_message_length", -1), ("grpc.max_receive_message_length", -1), ("grpc.enable_http_proxy", 0)]
TOPIC = b"layer/result_repor"


def varint(number):
    out = bytearray()
    while number > 127:
        out.append(number & 127 | 128)
        number >>= 7
    return bytes(out) + bytes([number])


def field(number, value):
    return varint(number << 3 | 2) + varint(len(value)) + value


def request(size):
    """An Any with an example request of about so many bytes."""
    return field(1, b"type.googleapis.com/example.v1.ExampleRPCRequest") + field(2, field(1, b"x" * size))


def event(size):
    """A publication of a result report whose URL has so many bytes."""
    return field(1, TOPIC) + field(2, field(1, b"foreign") + field(2, b"x" * size)) + field(3, b"foreign-1")


def send(method, address, message, count):
    with grpc.insecure_channel(address, OPTIONS) as channel:
        stub = channel.unary_unary(f"/klrpc.v1.Transport/{method}")
        codes = collections.Counter()
        for _ in range(count):
            try:
                stub(message, timeout=20, wait_for_ready=True)
                codes["OK"] += 1
            except grpc.RpcError as error:
                codes[error.code().name] += 1
    print(json.dumps(codes), flush=True)


def main():
    action, address, *numbers = sys.argv[1:]
    size, count = map(int, numbers)
    message = request(size) if action == "call" else event(size)
    send("Call" if action == "call" else "Publish", address, message, count)


main()
