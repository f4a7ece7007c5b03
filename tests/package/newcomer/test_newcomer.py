"""The program built from the files that CONTRIBUTING.md shows, in the environment's NEWCOMER, at work."""

import os
import pathlib
import re
import select
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "platform" / "testing" / "network"))

import private_network  # noqa: E402

NETWORK = private_network.enter_or_lock()  # the program serves at a fixed address

import grpc  # noqa: E402  # behind the above, because it starts threads
from google.protobuf import any_pb2  # noqa: E402

LIMIT_S = 60
HOST = "unix-abstract:example@default"


class Newcomer:
    def __init__(self, folder):
        self.folder = folder
        self.log_file = folder / "log"
        self.environment = dict(os.environ, KLBASE_LOG_FILE=str(self.log_file))
        self.process = None

    def run(self, line):
        """What a line on its standard input prints."""
        command = [os.environ["NEWCOMER"], "--local_console", "--cli_port=0"]
        return subprocess.run(command, env=self.environment, cwd=self.folder, input=line + "\n", text=True, check=True,
                              stdout=subprocess.PIPE, timeout=LIMIT_S).stdout

    def start(self):
        command = [os.environ["NEWCOMER"], "--cli_port=0"]
        self.process = subprocess.Popen(command, env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        assert select.select([self.process.stderr], [], [], LIMIT_S)[0], "the console says where it listens"
        assert "console listens on" in self.process.stderr.readline()

    def interrupt(self):
        """The exit status."""
        self.process.send_signal(signal.SIGINT)
        return self.process.wait(LIMIT_S)

    def records(self, pattern):
        return re.findall(pattern, self.log_file.read_text(encoding="utf-8"))


@pytest.fixture
def newcomer(tmp_path):
    program = Newcomer(tmp_path)
    yield program
    if program.process:
        program.process.kill()
        program.process.wait()


def test_the_menus_command_greets(newcomer):
    assert newcomer.run("greeting hello Ada 2") == "Hello, Ada.\nHello, Ada.\n"


def test_the_menus_command_refuses_a_word_that_does_not_convert(newcomer):
    assert 'cannot take "twice" as <times>' in newcomer.run("greeting hello Ada twice")


def test_the_service_answers_a_request(newcomer):
    newcomer.start()
    asked = any_pb2.Any(type_url="type.googleapis.com/common.v1.KeyValue", value=b"\x12\x03Ada")  # value: "Ada"
    with grpc.insecure_channel(HOST, [("grpc.enable_http_proxy", 0)]) as channel:
        call = channel.unary_unary("/klrpc.v1.Transport/Call", any_pb2.Any.SerializeToString, any_pb2.Any.FromString)
        reply = call(asked, timeout=LIMIT_S)
    assert reply.type_url == "type.googleapis.com/common.v1.Status"
    assert reply.value == b"\x12\x0bHello, Ada."  # message: "Hello, Ada."


def test_the_module_is_loaded_and_unloaded_in_its_place(newcomer):
    newcomer.start()
    assert newcomer.interrupt() == 1
    order = ["rpcservice", "Earlier", "Greeting", "A later one"]
    assert newcomer.records(r"LoadAllModules: Load Module \*\*\*(.*)\*\*\*") == order
    assert newcomer.records(r"Uninitialize: UnLoad Module \*\*\*(.*)\*\*\*") == order


def test_the_modules_own_records_name_its_file(newcomer):
    newcomer.start()
    assert newcomer.interrupt() == 1
    assert newcomer.records(r"example/greeting/greeting_module:\d+ (.*)") == ["Load: good morning", "Unload: good night"]
