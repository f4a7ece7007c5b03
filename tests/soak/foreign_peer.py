"""A client and a daemon without this tree's libraries, which keep to no limit:
  foreign_peer.py call ADDRESS BYTES COUNT      requests of so many bytes; prints the status codes as JSON
  foreign_peer.py publish ADDRESS BYTES COUNT   the same with events
  foreign_peer.py serve ADDRESS                 a daemon that obeys the lines of its standard input: see Daemon
The protobuf bytes are written by hand: the schema's code is not needed, and the sizes are exact."""

import collections
import concurrent.futures
import json
import sys
import threading

import grpc

OPTIONS = [("grpc.max_send_message_length", -1), ("grpc.max_receive_message_length", -1), ("grpc.enable_http_proxy", 0)]
TOPIC = b"layer/result_repor"
INSTANCE = b"foreign"


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


def status_reply(size):
    """An Any with a common.v1.Status whose message has so many bytes."""
    return field(1, b"type.googleapis.com/common.v1.Status") + field(2, field(2, b"x" * size))


def event(number, size):
    """A result report: the id tells the instance, the play state the number, the URL makes it large."""
    report = field(1, INSTANCE) + field(2, b"numbered" if size == 0 else b"x" * size)
    if number:
        report += varint(3 << 3) + varint(number)
    return field(1, TOPIC) + field(2, report) + field(3, b"foreign-%d" % number)


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


class Daemon:
    """Orders come as lines: "reply BYTES" for the replies from now on, "event NUMBER BYTES" to publish one."""

    def __init__(self):
        self.reply = status_reply(0)
        self.streams = []
        self.lock = threading.Lock()

    def call(self, _request, _context):
        return self.reply

    def subscribe(self, _request, context):
        wake = threading.Semaphore(0)
        stream = (collections.deque(), wake)
        with self.lock:
            self.streams.append(stream)
        context.send_initial_metadata(())
        print("subscribed", flush=True)
        while context.is_active():
            if wake.acquire(timeout=0.2):
                yield stream[0].popleft()

    def obey(self, words):
        if words[0] == "reply":
            self.reply = status_reply(int(words[1]))
            print("reply set", flush=True)
        if words[0] == "event":
            message = event(int(words[1]), int(words[2]))
            with self.lock:
                for queue, wake in self.streams:
                    queue.append(message)
                    wake.release()


def serve(address):
    daemon = Daemon()
    raw = {"request_deserializer": None, "response_serializer": None}
    methods = {"Call": grpc.unary_unary_rpc_method_handler(daemon.call, **raw),
               "Subscribe": grpc.unary_stream_rpc_method_handler(daemon.subscribe, **raw)}
    server = grpc.server(concurrent.futures.ThreadPoolExecutor(8), options=OPTIONS)
    server.add_generic_rpc_handlers((grpc.method_handlers_generic_handler("klrpc.v1.Transport", methods),))
    server.add_insecure_port(address)
    server.start()
    print(f"foreign daemon listens on {address}", flush=True)
    for line in sys.stdin:
        daemon.obey(line.split())
    server.stop(0).wait(5)


def main():
    action, address, *numbers = sys.argv[1:]
    if action == "serve":
        return serve(address)
    size, count = map(int, numbers)
    message = request(size) if action == "call" else event(1, size)
    return send("Call" if action == "call" else "Publish", address, message, count)


main()
