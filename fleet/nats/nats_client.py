"""A small NATS client: one socket, no threads, every wait with a limit. Needs nothing but Python's standard library."""

import collections
import json
import select
import socket
import time

Message = collections.namedtuple("Message", "subject reply payload headers")


class Client:
    def __init__(self, port, tls=None, host="127.0.0.1", limit_s=20, **options):
        self.limit_s = limit_s
        self.received = b""
        self.messages = collections.deque()
        self.errors = []
        self.pongs = self.sids = self.requests = 0
        self.socket = socket.create_connection((host, port), limit_s)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            self.info = json.loads(self.take_line().removeprefix(b"INFO "))
            if tls:
                self.socket = tls.wrap_socket(self.socket, server_hostname=host)
            words = {"verbose": False, "pedantic": False, "headers": True, "no_responders": True, **options}
            self.send(b"CONNECT " + json.dumps(words).encode() + b"\r\n")
            self.flush()
        except BaseException:
            self.socket.close()
            raise

    def send(self, data):
        self.socket.sendall(data)

    def receive(self, deadline):
        """Some more bytes; False at the deadline."""
        pending = getattr(self.socket, "pending", lambda: 0)()
        if not pending and not select.select([self.socket], [], [], max(0, deadline - time.monotonic()))[0]:
            return False
        data = self.socket.recv(1 << 20)
        if not data:
            raise ConnectionError(f"the server closed the connection {self.errors}")
        self.received += data
        return True

    def take_line(self):
        deadline = time.monotonic() + self.limit_s
        while b"\r\n" not in self.received:
            if not self.receive(deadline):
                raise TimeoutError("no line from the server")
        line, _, self.received = self.received.partition(b"\r\n")
        return line

    def parse(self):
        """Takes apart what is complete."""
        at = 0
        while (end := self.received.find(b"\r\n", at)) >= 0:
            words = self.received[at:end].split(b" ")
            if words[0] in (b"MSG", b"HMSG"):
                size = int(words[-1])
                if len(self.received) < end + 2 + size + 2:
                    break
                body = self.received[end + 2:end + 2 + size]
                self.messages.append(self.message(words, body))
                end += 2 + size
            elif words[0] == b"PING":
                self.send(b"PONG\r\n")
            elif words[0] == b"PONG":
                self.pongs += 1
            elif words[0] == b"-ERR":
                self.errors.append(self.received[at + 5:end].decode())
            at = end + 2
        self.received = self.received[at:]

    @staticmethod
    def message(words, body):
        has_headers = words[0] == b"HMSG"
        names = words[1:-2] if has_headers else words[1:-1]  # subject, sid and perhaps the reply subject
        reply = names[2].decode() if len(names) > 2 else ""
        split = int(words[-2]) if has_headers else 0
        return Message(names[0].decode(), reply, body[split:], body[:split].decode())

    def until(self, condition, limit_s=None):
        """Reads until the condition holds; whether it did within the limit."""
        deadline = time.monotonic() + (self.limit_s if limit_s is None else limit_s)
        self.parse()
        while not condition():
            if not self.receive(deadline):
                return False
            self.parse()
        return True

    def flush(self):
        wanted = self.pongs + 1
        self.send(b"PING\r\n")
        if not self.until(lambda: self.pongs >= wanted):
            raise TimeoutError("no PONG")

    def subscribe(self, subject):
        self.sids += 1
        self.send(f"SUB {subject} {self.sids}\r\n".encode())
        self.flush()

    def publish(self, subject, payload=b"", reply=""):
        payload = payload if isinstance(payload, bytes) else payload.encode()
        self.send(f"PUB {subject} {reply + ' ' if reply else ''}{len(payload)}\r\n".encode() + payload + b"\r\n")

    def next(self, limit_s=None):
        """The next message, or None."""
        return self.messages.popleft() if self.until(lambda: self.messages, limit_s) else None

    def of(self, subject, limit_s=None):
        """The next message on a subject; the others stay."""
        if not self.until(lambda: any(message.subject == subject for message in self.messages), limit_s):
            raise TimeoutError(f"nothing on {subject}")
        message = next(message for message in self.messages if message.subject == subject)
        self.messages.remove(message)
        return message

    def inbox(self):
        self.requests += 1
        subject = f"_INBOX.test{id(self)}.{self.requests}"
        self.subscribe(subject)
        return subject

    def ask(self, subject, payload, limit_s=None):
        """The answer to a request, as JSON."""
        inbox = self.inbox()
        self.publish(subject, payload, inbox)
        answer = self.of(inbox, limit_s)
        assert "503" not in answer.headers, f"nobody answers on {subject}"
        return json.loads(answer.payload)

    def close(self):
        self.socket.close()
