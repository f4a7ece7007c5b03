"""Strangers at the door: who gets in, what they may cost, and what they leave in the log."""

import collections
import crypt
import socket
import threading
import time

import pytest

from conftest import LIMIT_S, Connection, wait_until

VERSION_END = "git-version: v0.0.1\n"


@pytest.fixture
def password_tool(tmp_path, start_tool):
    file = tmp_path / "password"
    file.write_text(crypt.crypt("secret", crypt.METHOD_SHA512) + "\n", encoding="ascii")
    file.chmod(0o600)
    return start_tool(environment={"KLBASE_CONSOLE_PASSWORD_FILE": str(file)})


def threads(tool):
    with open(f"/proc/{tool.process.pid}/status", encoding="ascii") as status:
        return int(next(line for line in status if line.startswith("Threads")).split()[1])


def connect_from(port, address="127.0.0.1"):
    return socket.create_connection(("127.0.0.1", port), LIMIT_S, (address, 0))


class Storm:
    """Connections one after another from one address, on a thread of their own, until the end of the block."""

    def __init__(self, port, visit, address="127.0.0.1"):
        self.port, self.visit, self.address = port, visit, address
        self.visits = 0
        self.over = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def run(self):
        while not self.over.is_set():
            try:
                connection = connect_from(self.port, self.address)
                if self.visit(connection) is not connection:
                    connection.close()
                self.visits += 1
            except OSError:
                pass

    def __enter__(self):
        self.thread.start()
        wait_until(lambda: self.visits > 100, "the storm blows")
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join()


def receive_until(console, end):
    data = b""
    while end not in data:
        received = console.recv(4096)
        assert received, f"closed after {data!r}"
        data += received


def log_in(port, address, seconds_to_type=0):
    """How long the answer takes to the right password and a command behind it."""
    with connect_from(port, address) as console:
        receive_until(console, b"Password: ")
        time.sleep(seconds_to_type)  # the operator's typing
        begin = time.monotonic()
        console.sendall(b"secret\r\ncore show version\r\n")
        receive_until(console, VERSION_END.strip().encode())
        return time.monotonic() - begin


@pytest.mark.parametrize("address", ["127.0.0.1", "127.0.0.2"])
def test_a_storm_of_wrong_passwords_starts_no_threads_and_keeps_no_operator_out(password_tool, address):
    port = password_tool.port()
    before = threads(password_tool)
    begin = time.monotonic()
    with Storm(port, lambda connection: connection.sendall(b"wrong\n")):
        for _ in range(3):
            log_in(port, address)
            assert threads(password_tool) <= before + 40
    checked = password_tool.log().count("wrong password")
    assert checked <= 1 + 5 * (time.monotonic() - begin)


def test_silent_connections_push_out_no_operator_at_another_address(password_tool):
    port = password_tool.port()
    kept = collections.deque(maxlen=200)
    with Storm(port, lambda connection: kept.append(connection) or connection):
        log_in(port, "127.0.0.2", seconds_to_type=2)
    for connection in kept:
        connection.close()
