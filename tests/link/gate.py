"""A TCP relay that a test opens, shuts and lets swallow what passes: the network between a link and its server."""

import select
import socket
import threading


class Gate:
    """Relays one connection after another to a port. A thread of its own does so until close()."""

    def __init__(self, target):
        self.target = target
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.is_open = True
        self.swallow_up = self.swallow_down = False  # what the client, the server sends is read and forgotten
        self.passed_up = 0
        self.pair = []
        self.shut_now = threading.Event()
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.ended.is_set():
            readable = select.select([self.listener, *self.pair], [], [], 0.01)[0]
            if not self.is_open:
                self.cut()
                self.shut_now.set()
            elif self.listener in readable:
                self.accept()
            for end in [end for end in readable if end in self.pair]:
                self.relay(end)
        self.cut()
        self.listener.close()

    def accept(self):
        client = self.listener.accept()[0]
        self.cut()
        try:
            self.pair = [client, socket.create_connection(("127.0.0.1", self.target), 5)]
        except OSError:
            client.close()

    def relay(self, end):
        if end not in self.pair:
            return
        up = end is self.pair[0]
        try:
            data = end.recv(1 << 16)
            if not data:
                self.cut()
            elif not (self.swallow_up if up else self.swallow_down):
                self.pair[1 if up else 0].sendall(data)
                self.passed_up += len(data) if up else 0
        except OSError:
            self.cut()

    def cut(self):
        for end in self.pair:
            end.close()
        self.pair = []

    def shut(self):
        """New connections wait at the door, and the present one is cut."""
        self.shut_now.clear()
        self.is_open = False
        assert self.shut_now.wait(20)

    def open(self):
        self.swallow_up = self.swallow_down = False
        self.is_open = True

    def close(self):
        self.ended.set()
        self.thread.join()
