"""Shared by the tests of vexlink: NATS servers and links as children, beside what the whole-process tests have."""

import importlib.util
import json
import os
import pathlib
import re
import socket
import ssl
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def load_kit():
    """The kit of the whole-process tests, which is a conftest too."""
    spec = importlib.util.spec_from_file_location("e2e_kit", ROOT / "tests" / "e2e" / "conftest.py")
    kit = sys.modules["e2e_kit"] = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(kit)


load_kit()
sys.path.insert(0, str(ROOT / "fleet" / "nats"))
os.environ["PATH"] += ":/usr/sbin"  # where nats-server is; ordinary users have it not in their path

from e2e_kit import BIN, LIMIT_S, SANITIZED, Child, path, serve, start_tool, started, wait_until  # noqa: E402, F401
from nats_client import Client  # noqa: E402


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server(Child):
    """A NATS server on loopback."""

    def __init__(self, folder, port=None, *words):
        self.port = port or free_port()
        super().__init__(folder, f"nats{self.port}", ["nats-server", "-a", "127.0.0.1", "-p", self.port, *words])

    def wait_ready(self):
        wait_until(self.answers, "the server answers")
        return self

    def answers(self):
        assert self.process.poll() is None, self.errors()
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0


class Link(Child):
    """vexlink; its words on standard error."""

    def __init__(self, folder, node, words, environment):
        self.node = node
        super().__init__(folder, f"vexlink-{node}", [BIN / "vexlink", "--node", node, *words], environment)

    def says(self, pattern):
        def said():
            assert self.process.poll() is None or re.search(pattern, self.errors()), self.errors()
            return re.search(pattern, self.errors())
        try:
            return wait_until(said, f"vexlink says {pattern!r}")
        except AssertionError as error:
            raise AssertionError(f"{error}; it said: {self.errors()}") from None

    def ends(self, number):
        self.signal(number)
        return self.wait()


@pytest.fixture
def start_server(tmp_path, started):
    def start(*words, port=None):
        started.append(Server(tmp_path, port, *words))
        return started[-1].wait_ready()
    return start


@pytest.fixture
def server(start_server):
    return start_server()


@pytest.fixture
def connect(started):
    def open_client(port, **options):
        started.append(Client(port, limit_s=LIMIT_S, **options))
        return started[-1]
    return open_client


@pytest.fixture
def start_link(tmp_path, started, path):
    def start(server, *words, node="n1", socket_path=path, **environment):
        url = f"nats://127.0.0.1:{server}" if isinstance(server, int) else server
        plain = {name: value for name, value in os.environ.items() if not name.startswith("VEXLINK_")}
        started.append(Link(tmp_path, node, ["--server", url, "--socket", socket_path, *words], dict(plain, **environment)))
        return started[-1]
    return start


@pytest.fixture
def publish(tmp_path, started):
    """Publishes events in the player's place: lines as publisher.cc reads them."""
    child = Child(tmp_path, "publisher", [BIN / "publisher", "unix-abstract:playd@default"],
                  dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "publisher.log")), stdin=subprocess.PIPE)
    started.append(child)
    wait_until(lambda: "listens on" in child.output(), "the publisher listens")

    def send(line):
        child.process.stdin.write(line.encode() + b"\n")
        child.process.stdin.flush()
    return send


def openssl(*words):
    return subprocess.run(["openssl", *map(str, words)], check=True, capture_output=True, timeout=LIMIT_S).stdout


class Pki:
    """An authority and what it vouches for."""

    def __init__(self, folder):
        self.folder = folder
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj",
                "/CN=test authority", "-keyout", self / "ca.key", "-out", self / "ca.pem")

    def __truediv__(self, name):
        return self.folder / name

    def make(self, name, alternative, days=30):
        """NAME.pem and NAME.key."""
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", f"/CN={name}",
                "-keyout", self / f"{name}.key", "-out", self / f"{name}.csr")
        (self / "extensions").write_text(f"subjectAltName={alternative}\n", encoding="ascii")
        openssl("x509", "-req", "-in", self / f"{name}.csr", "-CA", self / "ca.pem", "-CAkey", self / "ca.key",
                "-CAcreateserial", "-days", days, "-extfile", self / "extensions", "-out", self / f"{name}.pem")
        return ["--cert", self / f"{name}.pem", "--key", self / f"{name}.key"]

    def client_context(self, name):
        context = ssl.create_default_context(cafile=str(self / "ca.pem"))
        context.load_cert_chain(self / f"{name}.pem", self / f"{name}.key")
        return context

    def server_words(self, name="server"):
        return ["--tls", "--tlscert", self / f"{name}.pem", "--tlskey", self / f"{name}.key", "--tlscacert", self / "ca.pem",
                "--tlsverify"]


@pytest.fixture(scope="session")
def pki(tmp_path_factory):
    made = Pki(tmp_path_factory.mktemp("pki"))
    made.make("server", "IP:127.0.0.1,DNS:localhost")
    made.make("elsewhere", "DNS:elsewhere.example")
    made.make("node", "DNS:node")
    made.make("reader", "DNS:reader")
    return made


def payload(message):
    return json.loads(message.payload)
