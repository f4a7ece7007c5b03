"""Strangers at the door: who gets in, what they may cost, and what they leave in the log."""

import collections
import crypt
import os
import re
import resource
import socket
import subprocess
import threading
import time

import pytest

from conftest import LIMIT_S, SANITIZED, wait_until

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


def as_nobody(run):
    """Runs it in a child process of another user; returns what that prints."""
    code = f"import socket, sys, time\nport = int(sys.argv[1])\n{run}"
    def visit(port):
        child = subprocess.run(["/usr/bin/python3", "-c", code, str(port)], user=65534, group=65534, extra_groups=[],
                               cwd="/", capture_output=True, text=True, timeout=LIMIT_S, check=True)
        return child.stdout
    return visit


needs_root = pytest.mark.skipif(os.getuid() != 0, reason="needs root to become another user")
SHUT_DOWN = as_nobody("""
console = socket.create_connection(("127.0.0.1", port), 20)
console.sendall(b"core set debug 9\\nshutdown\\n")
while data := console.recv(4096):
    print(data.decode(), end="")
""")


@needs_root
def test_another_user_gets_in_only_where_he_is_allowed(start_tool, connect):
    tool = start_tool()
    assert SHUT_DOWN(tool.port()) == "Refused: user 65534 may not use this console (KLBASE_CONSOLE_ALLOW).\n"
    wait_until(lambda: "refused: user 65534 may not use it" in tool.log(), "the refusal is logged")
    assert connect(tool.port()).run("core show version", VERSION_END)


@needs_root
@pytest.mark.parametrize("allow", ["1,65534", "@nogroup", "any"])
def test_another_user_who_is_allowed_gets_in(start_tool, allow):
    tool = start_tool(environment={"KLBASE_CONSOLE_ALLOW": allow})
    assert "The console ends for all." in SHUT_DOWN(tool.port())
    assert tool.wait() == 0


@needs_root
def test_another_user_cannot_fill_the_log(tool, connect):
    port = tool.port()
    begin = tool.log().count("\n")
    as_nobody("""
for _ in range(3000):
    console = socket.create_connection(("127.0.0.1", port), 20)
    try:
        console.sendall(b"x\\n")
    except OSError:
        pass
    console.close()
""")(port)
    assert connect(port).run("core show version", VERSION_END)
    assert tool.log().count("\n") - begin < 60


def lowest_free_descriptor(tool):
    taken = {int(name) for name in os.listdir(f"/proc/{tool.process.pid}/fd")}
    return next(number for number in range(len(taken) + 1) if number not in taken)


def processor_seconds(tool):
    with open(f"/proc/{tool.process.pid}/stat", encoding="ascii") as stat:
        user, system = stat.read().rpartition(")")[2].split()[11:13]
    return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


@pytest.mark.skipif(SANITIZED, reason="the sanitizer's own check of object types needs a file for each look")
def test_without_descriptors_connections_wait_at_no_cost_and_are_served_when_there_are_some(tool, connect):
    port = tool.port()
    assert connect(port).run("core show version", VERSION_END)
    before = resource.prlimit(tool.process.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(tool.process.pid, resource.RLIMIT_NOFILE, (lowest_free_descriptor(tool), before[1]))
    with connect_from(port) as waiting:
        wait_until(lambda: "console cannot accept connections: Too many open files" in tool.log(), "the tool says so")
        used, begin = processor_seconds(tool), time.monotonic()
        wait_until(lambda: time.monotonic() > begin + 2, "two seconds pass")
        assert processor_seconds(tool) - used < 0.2
        assert "console accepts connections again" not in tool.log()
        resource.prlimit(tool.process.pid, resource.RLIMIT_NOFILE, before)
        waiting.sendall(b"core show version\n")
        receive_until(waiting, VERSION_END.strip().encode())
    assert tool.log().count("console cannot accept connections") == 1
    assert tool.log().count("console accepts connections again") == 1


def test_an_allow_list_that_is_none_is_refused_at_the_start(start_tool):
    tool = start_tool(environment={"KLBASE_CONSOLE_ALLOW": "root"})
    assert tool.wait() == 255
    assert 'KLBASE_CONSOLE_ALLOW has "root"' in tool.errors()


def test_a_session_ends_another(tool, connect):
    other = connect(tool.port())
    number = re.search(r"\* (\d+)", other.run("who", "\n* ") + other.until("\n")).group(1)
    assert connect(tool.port()).run(f"disconnect {number}") == f"Session {number} ends.\n"
    assert "has ended this one.\n" in other.rest()
