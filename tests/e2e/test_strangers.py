"""Strangers at the door: who gets in, what they may cost, and what they leave in the log."""

import collections
import contextlib
import crypt
import os
import re
import resource
import socket
import subprocess
import threading
import time

import pytest

from conftest import LIMIT_S, SANITIZED, Child, wait_until

# A check costs a few milliseconds, and the storm's checks wait in a line of their own. The soak's full run holds a second;
# this test may stand beside others.
OTHER_ADDRESS_LIMIT_S = LIMIT_S if SANITIZED else 4
GUESSING_S = 3
GUESSERS = 8  # fewer than may come from one address, where each would push another out before its answer
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
    with Storm(port, lambda connection: connection.sendall(b"wrong\n")):
        for _ in range(3):
            took = log_in(port, address)
            assert address == "127.0.0.1" or took <= OTHER_ADDRESS_LIMIT_S
            assert threads(password_tool) <= before + 40


def guess(port, begin, told):
    """Wrong passwords, one after another; notes when each was told to be one, as seconds from `begin`."""
    end = begin + GUESSING_S
    while (left := end - time.monotonic()) > 0:
        with connect_from(port) as console, contextlib.suppress(OSError):
            console.settimeout(left)
            console.sendall(b"wrong\n")
            answer = b""
            while received := console.recv(4096):
                answer += received
                if b"Wrong password." in answer:
                    told.append(time.monotonic() - begin)
                    break


def test_many_clients_of_one_address_guess_no_faster_than_one(password_tool):
    port = password_tool.port()
    told = []
    begin = time.monotonic()
    guessers = [threading.Thread(target=guess, args=(port, begin, told)) for _ in range(GUESSERS)]
    for guesser in guessers:
        guesser.start()
    for guesser in guessers:
        guesser.join()
    assert 1 <= len(told) <= 1 + 5 * (time.monotonic() - begin), told


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


HOLDS_ENCD = """
import socket
server = socket.socket(socket.AF_UNIX)
server.bind("\\0encd@default")
server.listen()
print("listens", flush=True)
while True:
    connection, _ = server.accept()
    connection.settimeout(20)
    print("received", connection.recv(65536), flush=True)
"""


@needs_root
def test_another_user_who_holds_a_daemons_address_is_sent_nothing(tmp_path, started, tool, telnet):
    stranger = Child(tmp_path, "stranger", ["/usr/bin/python3", "-c", HOLDS_ENCD], user=65534, group=65534,
                     extra_groups=[], cwd="/")
    started.append(stranger)
    wait_until(lambda: "listens" in stranger.output(), "the stranger listens")
    session = telnet(tool.port())
    session.send("encd SetQulity high\r")
    session.expect_exact("code= 500 result=\r\n")
    session.expect_exact("unreachable: ")
    session.expect("main> ")
    assert "the server is of user id 65534, which KLRPC_ALLOW_UID does not list" in session.before
    wait_until(lambda: "received" in stranger.output(), "the tool has left the stranger")
    assert set(stranger.output().splitlines()) == {"listens", "received b''"}
    wait_until(lambda: f"unix-abstract:encd@default: refused the server of user id 65534 (process {stranger.process.pid}); "
               "KLRPC_ALLOW_UID lists who else may serve" in tool.log(), "the refusal is logged")


CALL_THE_TOOL = as_nobody("""
client = socket.socket(socket.AF_UNIX)
client.connect("\\0example@default")
client.settimeout(20)
try:
    client.sendall(b"PRI * HTTP/2.0\\r\\n\\r\\nSM\\r\\n\\r\\n" + bytes([0, 0, 0, 4, 0, 0, 0, 0, 0]))
    print("received", client.recv(65536))
except (BrokenPipeError, ConnectionResetError):
    print("closed")
""")


@needs_root
def test_another_user_is_not_served_at_the_tools_own_address(tool):
    assert CALL_THE_TOOL(tool.port()) in ("received b''\n", "closed\n")
    wait_until(lambda: "unix-abstract:example@default: refused a connection of user id 65534 (process " in tool.log(),
               "the refusal is logged")


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
