"""Shared by the whole-process tests: a network of their own, the tool and the daemons as children, and clients."""

import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import time

import pexpect
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "platform" / "testing" / "network"))

import private_network  # noqa: E402

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from waiting import waiter  # noqa: E402

BIN = pathlib.Path(os.environ["VEX_BIN"])
SANITIZED = bool(os.environ.get("VEX_SANITIZE"))
REPORT = re.compile(r"(Address|Leak|Thread)Sanitizer|runtime error:")
LIMIT_S = 60 if SANITIZED else 20  # for anything that must happen; a healthy run needs a fraction


NETWORK = private_network.enter_or_lock()
# The folders of control sockets are shared with other networks; a test that wants a socket names one of its own.
os.environ["KLBASE_CONSOLE_SOCKET"] = "none"


wait_until = waiter(LIMIT_S)


class Child:
    """A program under test; its output goes to files. Killed when the test ends."""

    def __init__(self, folder, name, arguments, environment=None, stdin=subprocess.DEVNULL, **options):
        self.out = folder / f"{name}.out"
        self.err = folder / f"{name}.err"
        with open(self.out, "ab") as out, open(self.err, "ab") as err:
            self.process = subprocess.Popen([str(word) for word in arguments], stdin=stdin, stdout=out, stderr=err,
                                            env=environment, **options)

    def errors(self):
        return self.err.read_text(errors="replace")

    def output(self):
        return self.out.read_text(errors="replace")

    def wait(self):
        return self.process.wait(LIMIT_S)

    def signal(self, number):
        self.process.send_signal(number)

    def freeze(self):
        """Stops all threads of the program, and waits until they are; SIGCONT lets them go on."""
        self.signal(signal.SIGSTOP)
        options = os.WSTOPPED | os.WNOHANG | os.WNOWAIT
        wait_until(lambda: os.waitid(os.P_PID, self.process.pid, options), "the program is stopped")

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


class Tool(Child):
    """vextool serving its console on a free port."""

    def __init__(self, folder, *flags, port=0, environment=None, **options):
        self.log_file = folder / "vextool.log"
        full = dict(os.environ, KLBASE_LOG_FILE=str(self.log_file), KLBASE_HISTORY_FILE=str(folder / "history"))
        full.update(environment or {})
        super().__init__(folder, "vextool", [BIN / "vextool", f"--cli_port={port}", *flags], full, **options)

    def port(self):
        found = wait_until(lambda: re.search(r"console listens on 127\.0\.0\.1:(\d+)", self.errors()) or self.gone(),
                           "the console listens")
        return int(found.group(1))

    def gone(self):
        assert self.process.poll() is None, f"vextool ended with {self.process.returncode}: {self.errors()}"

    def log(self):
        return self.log_file.read_text(errors="replace") if self.log_file.exists() else ""


class Connection:
    """A plain TCP connection to the console."""

    def __init__(self, port):
        self.port = port
        self.received = b""
        self.open()

    def open(self):
        self.socket = socket.create_connection(("127.0.0.1", self.port), LIMIT_S)

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def until(self, end):
        """The received text up to and including `end`."""
        end = end if isinstance(end, bytes) else end.encode()
        limit = time.monotonic() + LIMIT_S
        while end not in self.received:
            assert select.select([self.socket], [], [], max(0, limit - time.monotonic()))[0], \
                f"no {end!r} within {LIMIT_S} s; received {self.received[-500:]!r}"
            data = self.socket.recv(65536)
            assert data, f"closed before {end!r}; received {self.received[-500:]!r}"
            self.received += data
        at = self.received.index(end) + len(end)
        taken, self.received = self.received[:at], self.received[at:]
        return taken.decode(errors="replace")

    def run(self, line, end="\n"):
        self.send(line + "\n")
        return self.until(end)

    def finish(self):
        """Closes the sending side and returns everything that still comes."""
        self.socket.shutdown(socket.SHUT_WR)
        return self.rest()

    def rest(self):
        self.socket.settimeout(LIMIT_S)
        data = [self.received]
        while chunk := self.socket.recv(65536):
            data.append(chunk)
        self.received = b""
        return b"".join(data).decode(errors="replace")

    def rest_or_reset(self):
        """For a connection that may be cut off while it still sends."""
        try:
            return self.rest()
        except ConnectionResetError:
            return ""

    def close(self):
        self.socket.close()


class Program(Connection):
    """A program that uses the console: it speaks first, so it gets nothing but its commands' output. On a slow machine
    its first line may come too late for that; it then connects again."""

    def __init__(self, port):
        super().__init__(port)
        while not self.is_taken_for_a_program():
            self.close()
            self.open()

    def is_taken_for_a_program(self):
        self.received = b""
        self.send("core show version\n")
        return self.until("git-version: v0.0.1\n").startswith("\tbuild-date")


class ControlClient:
    """A connection to the control socket that has been greeted."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(LIMIT_S)
        self.socket.connect(path)
        self.lines = self.socket.makefile("rb")
        self.greeting = self.receive()

    def send(self, *requests):
        """Objects, and bytes that go as they are."""
        self.socket.sendall(b"".join(each if isinstance(each, bytes) else json.dumps(each).encode() + b"\n" for each in requests))

    def receive(self):
        line = self.lines.readline()
        return json.loads(line) if line else None

    def ask(self, request):
        self.send(request)
        return self.receive()

    def close(self):
        self.lines.close()
        self.socket.close()


@pytest.fixture
def started():
    """Collects the programs and connections of a test; ends them in reverse order."""
    things = []
    yield things
    for thing in reversed(things):
        thing.kill() if isinstance(thing, Child) else thing.close()
    # A program that is killed can't tell of a sanitizer's report by its exit status.
    errors = [thing.errors() for thing in things if isinstance(thing, Child) and thing.err.exists()]
    assert not [text for text in errors if REPORT.search(text)]


@pytest.fixture
def start_tool(tmp_path, started):
    def start(*flags, **options):
        started.append(Tool(tmp_path, *flags, **options))
        return started[-1]
    return start


@pytest.fixture
def path():
    """The control socket's: short, as sockets' names must be."""
    with tempfile.TemporaryDirectory() as folder:
        yield f"{folder}/console.sock"


@pytest.fixture
def serve(path, start_tool):
    """A tool with a control socket."""
    def start(**environment):
        tool = start_tool(environment=dict(environment, KLBASE_CONSOLE_SOCKET=path))
        tool.port()
        return tool
    return start


@pytest.fixture
def tool(start_tool):
    return start_tool()


@pytest.fixture
def connect(started):
    def open_connection(port, kind=Program):
        started.append(kind(port))
        return started[-1]
    return open_connection


@pytest.fixture
def telnet(started):
    """Debian's telnet client under a terminal, connected and at the first prompt."""
    def open_telnet(port):
        session = pexpect.spawn("telnet", ["127.0.0.1", str(port)], timeout=LIMIT_S, encoding="utf-8",
                                codec_errors="replace", env=dict(os.environ, TERM="xterm"))
        started.append(session)
        session.expect("main> ")
        return session
    return open_telnet


@pytest.fixture
def terminal(tmp_path, started):
    """The tool's local console under a terminal."""
    def open_terminal(*flags, **more):
        settings = {"KLBASE_LOG_FILE": tmp_path / "vextool.log", "KLBASE_HISTORY_FILE": tmp_path / "history",
                    "TERM": "xterm", **more}
        environment = dict(os.environ, **{name: str(value) for name, value in settings.items()})
        session = pexpect.spawn(str(BIN / "vextool"), ["--local_console", "--cli_port=0", *flags], timeout=LIMIT_S,
                                encoding="utf-8", codec_errors="replace", env=environment)
        started.append(session)
        session.expect("main> ")
        return session
    return open_terminal


@pytest.fixture
def fake_encd(tmp_path, started):
    """A scripted encoder daemon; see fake_encd.cc for its modes."""
    def start(*mode):
        name = f"fake_encd{len(started)}"
        daemon = Child(tmp_path, name, [BIN / "fake_encd", *mode], dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / name)))
        started.append(daemon)
        wait_until(lambda: "listens on" in daemon.output(), "fake_encd listens")
        return daemon
    return start


@pytest.fixture
def start_encd(tmp_path, started):
    """The real encoder daemon."""
    def start():
        daemon = Child(tmp_path, f"encd{len(started)}", [BIN / "encd", f"--record_dir={tmp_path}"],
                       dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "encd.log")))
        started.append(daemon)
        wait_until(lambda: "listens on" in daemon.output(), "encd listens")
        return daemon
    return start


def interrupt_and_wait(tool):
    tool.signal(signal.SIGINT)
    return tool.wait()
