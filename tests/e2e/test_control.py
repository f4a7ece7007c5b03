"""The control socket from other processes: waits by the thousand, a place that is not the tool's, and bad input."""

import contextlib
import os
import pathlib
import re
import socket
import subprocess
import tempfile
import threading

import pytest

from conftest import BIN, LIMIT_S, SANITIZED, ControlClient, Tool, wait_until
from test_endings import stage  # noqa: F401  fixture
from test_player import subscriptions
from test_vexctl import is_asked

WAITS = 1000 if SANITIZED else 10_000
SESSIONS = 4
NOBODY = 65534
ROOT = os.geteuid() == 0


@pytest.fixture
def client(path, started):
    def connect():
        started.append(ControlClient(path))
        return started[-1]
    return connect


# --- waiting

class Waiter(threading.Thread):
    """Seeks and waits for what that brings, one by one, to positions that no other thread seeks to."""

    def __init__(self, path, positions):
        super().__init__()
        self.client = ControlClient(path)
        self.positions = positions
        self.found = 0
        self.early = 0  # events that came before the reply to their seek
        self.wrong = []

    def send(self):
        self.client.send({"monitor": ["layer/get_seek_of_uplayer"]})
        for n in self.positions:
            if self.wrong:
                return
            self.client.send({"id": f"seek {n}", "run": f"playd SetSeekOfUplayer 0 {n}"},
                             {"id": f"wait {n}", "run": f"wait layer/get_seek_of_uplayer seek_ms={n} within 5"})

    def send_all(self):
        with contextlib.suppress(BrokenPipeError):  # the first wait that fails ends it
            self.send()

    def run(self):
        sender = threading.Thread(target=self.send_all)
        sender.start()
        told, answered = set(), 0
        while answered < 2 * len(self.positions) and not self.wrong:
            reply = self.client.receive()
            if "event" in reply:
                told.add(reply["event"]["message"]["seek_ms"])
            elif "id" in reply:
                answered += 1
                self.take(reply, *reply["id"].split(), told)
        with contextlib.suppress(OSError):
            self.client.socket.shutdown(socket.SHUT_RDWR)  # wakes a sender for whom there is no room
        sender.join()
        self.client.close()

    def take(self, reply, what, n, told):
        self.found += what == "wait" and reply["status"] == "ok" and reply["fields"]["seek_ms"] == n
        self.early += what == "seek" and int(n) in told
        if reply["status"] != "ok":
            self.wrong.append(reply)


def test_a_wait_finds_each_event_that_was_published_before_the_reply_arrived(stage):  # noqa: F811
    stage.start_daemon("ok")
    wait_until(lambda: subscriptions(stage.tool.log()), "both topics are subscribed")
    waiters = [Waiter(stage.path, range(first, WAITS, SESSIONS)) for first in range(SESSIONS)]
    for each in waiters:
        each.start()
    for each in waiters:
        each.join()
    assert [each.wrong[:3] for each in waiters] == [[]] * SESSIONS
    assert sum(each.found for each in waiters) == WAITS
    assert sum(each.early for each in waiters) > 0, "no event came before its reply: nothing was tried"


# --- the socket's place

@contextlib.contextmanager
def a_folder(mode, owner=None):
    """A short one, that anybody may go through."""
    with tempfile.TemporaryDirectory() as outer:
        os.chmod(outer, 0o755)
        folder = f"{outer}/place"
        os.mkdir(folder)
        if owner is not None:
            os.chown(folder, owner, owner)
        os.chmod(folder, mode)
        yield folder


@contextlib.contextmanager
def a_tool_at(path, folder, user=None, **environment):
    """Its files are in `folder`; it may be `user`'s."""
    more = {} if user is None else {"user": user, "group": user, "extra_groups": [], "cwd": "/"}
    tool = Tool(pathlib.Path(folder), environment={"KLBASE_CONSOLE_SOCKET": path, **environment}, **more)
    try:
        yield tool
    finally:
        tool.kill()


def vexctl(path, user=None):
    more = {} if user is None else {"user": user, "group": user, "extra_groups": [], "cwd": "/"}
    return subprocess.run([BIN / "vexctl", "--socket", path, "core", "show", "version"], capture_output=True, text=True, check=False,
                          timeout=LIMIT_S, **more)


def refusal(tool):
    """Of a tool that ends because it can't have the socket that was asked for."""
    assert tool.wait() == 255
    [said] = [line for line in tool.errors().splitlines() if "control socket" in line]
    return said.partition("console control socket ")[2]


def test_no_folder_ends_the_tool_with_what_to_do(tmp_path):
    with a_folder(0o755) as folder, a_tool_at(f"{folder}/none/console.sock", tmp_path) as tool:
        assert refusal(tool) == (f"{folder}/none/console.sock: its folder can't be used ({folder}/none/console.sock.lock: No such file or "
                                 "directory); make the folder, or name another one in KLBASE_CONSOLE_SOCKET")


@pytest.mark.parametrize("what", ["file", "folder", "link"])
def test_what_is_in_the_way_stays_and_ends_the_tool(tmp_path, what):
    with a_folder(0o755) as folder:
        path = pathlib.Path(folder) / "console.sock"
        {"file": lambda: path.write_text("mine"), "folder": path.mkdir, "link": lambda: path.symlink_to("/dev/null")}[what]()
        before = path.lstat()
        with a_tool_at(str(path), tmp_path) as tool:
            assert refusal(tool) == f"{path}: something else has this name; remove it, or name another one in KLBASE_CONSOLE_SOCKET"
        assert path.lstat() == before
        assert os.listdir(folder) == ["console.sock"]


def test_a_link_in_the_place_of_the_lock_is_not_followed(tmp_path):
    with a_folder(0o755) as folder:
        os.symlink(f"{folder}/victim", f"{folder}/console.sock.lock")
        with a_tool_at(f"{folder}/console.sock", tmp_path) as tool:
            assert "its folder can't be used" in refusal(tool)
        assert os.listdir(folder) == ["console.sock.lock"]


@pytest.fixture
def foreign(tmp_path):
    """A folder of another user, which the tool can't write into, and the user of the tool: root can write anywhere."""
    if not ROOT:
        yield "/usr", None, tmp_path
        return
    with a_folder(0o755) as folder, a_folder(0o777) as files:
        if subprocess.run([BIN / "vexctl", "--version"], user=NOBODY, check=False, capture_output=True).returncode != 0:
            pytest.skip("another user may not run what was built")
        yield folder, NOBODY, files


def test_a_folder_of_another_user_ends_the_tool_with_what_to_do(foreign):
    folder, user, files = foreign
    path = f"{folder}/vextool-test.sock"
    with a_tool_at(path, files, user) as tool:
        assert refusal(tool).startswith(f"{path}: its folder can't be used ({path}.lock: Permission denied); make the folder")
    assert not os.path.lexists(path) and not os.path.lexists(path + ".lock")


@pytest.mark.parametrize("mode", [0o777, 0o1777])
def test_in_a_folder_that_others_may_write_the_socket_is_still_the_tools(tmp_path, mode):
    """Root's in a folder of another user; an ordinary user's in one of its own."""
    with a_folder(mode, NOBODY if ROOT else None) as folder:
        path = f"{folder}/console.sock"
        with a_tool_at(path, tmp_path) as tool:
            tool.port()
            assert vexctl(path).returncode == 0
            status = os.stat(path)
            assert (status.st_mode & 0o777, status.st_uid) == (0o660, os.geteuid())
            if ROOT:
                done = vexctl(path, NOBODY)
                assert (done.returncode, done.stdout) == (3, "")
                assert "Permission denied; be a member of the socket's group" in done.stderr


@pytest.mark.skipif(not ROOT, reason="only root can be another user")
@pytest.mark.parametrize("name", ["console.sock", "console.sock.lock"])
def test_what_another_user_has_put_there_is_not_served(tmp_path, name):
    """A socket that listens, or a lock that is held."""
    hold = ("import fcntl, socket, sys\nname = sys.argv[1]\n"
            "if name.endswith('lock'): file = open(name, 'w'); fcntl.flock(file, fcntl.LOCK_EX)\n"
            "else: file = socket.socket(socket.AF_UNIX); file.bind(name); file.listen()\n"
            "print('ready', flush=True); sys.stdin.read()")
    with a_folder(0o1777) as folder:
        path = f"{folder}/console.sock"
        with subprocess.Popen(["/usr/bin/python3", "-c", hold, f"{folder}/{name}"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              user=NOBODY, cwd="/") as other:
            assert other.stdout.readline() == b"ready\n"
            with a_tool_at(path, tmp_path) as tool:
                said = refusal(tool)
            assert os.stat(f"{folder}/{name}").st_uid == NOBODY
            other.stdin.close()
        assert "another process serves it" in said or "its folder can't be used" in said


@pytest.mark.parametrize("wrong", ["mode", "owner", "link"])
def test_a_runtime_folder_that_is_not_the_tools_is_not_used(tmp_path, wrong):
    """Others could put a socket of theirs in its place. The tool does without one."""
    if wrong == "owner" and not ROOT:
        pytest.skip("only root can make a folder of another user")
    if os.access("/run/vextool", os.W_OK):
        pytest.skip("the service's folder is there, which comes first")
    with a_folder(0o777 if wrong == "mode" else 0o700, NOBODY if wrong == "owner" else None) as folder:
        runtime = pathlib.Path(folder).parent
        own = runtime / "vextool"
        own.symlink_to(folder) if wrong == "link" else os.rename(folder, own)
        with a_tool_at("", tmp_path, XDG_RUNTIME_DIR=str(runtime)) as tool:
            tool.port()
            wait_until(lambda: f"console control socket {own}/console.sock: its folder " in tool.log(), "the record")
            assert not os.path.lexists(own / "console.sock")
            assert re.search(r"others may change it.*; there is none", tool.log())
        if wrong != "link":
            os.rename(own, folder)


# --- bad input

@pytest.mark.parametrize("line, reason", [
    (b'{"id":1,"run":"who"', "this is not JSON"),
    (b"[" * 30_000, "this is not JSON"),
    (b'{"run":' * 9_000, "this is not JSON"),
    (b'{"run":' + b"[" * 20_000 + b"]" * 20_000 + b"}", "run must be a text"),
    (b'{"run":"who","colour":"blue"}', '"colour"'),
    (b'{"run":"who","run":"help"}', 'the key "run" stands there twice'),
    (b'{"run":"who\\u0000"}', "a control character"),
    (b'{"run":"who","cancel":1}', "one of run, complete, monitor, cancel, reset and terminal at a time"),
    (b'{"id":1.5,"run":"who"}', "id must be a whole number or a text"),
    (b'{"run":"who","within_ms":0}', "within_ms"),
    (b"\xff\xfe\x00", "this is not JSON"),
    (b'{"run":"' + b"x" * 65_536 + b'"}', " longer than "),
])
def test_a_bad_line_is_explained_and_the_next_one_is_run(serve, client, line, reason):
    serve()
    one = client()
    one.send(line + b"\n", {"id": 2, "run": "core show version"})
    refused = one.receive()
    assert (refused["status"], reason in refused["reason"]) == ("usage", True), refused
    assert one.receive()["id"] == 2


def test_half_a_line_and_then_the_end_runs_nothing(serve, client):
    tool = serve()
    one = client()
    one.send(b'{"id":1,"run":"shutdown"')
    one.socket.shutdown(socket.SHUT_WR)
    rest = one.lines.read()
    assert b'"status":"ok"' not in rest
    assert client().ask({"id": 2, "run": "who"})["output"].count("control") == 1
    assert tool.process.poll() is None


def test_an_id_that_is_used_twice_is_refused_until_its_run_has_ended(serve, client, fake_encd):
    daemon = fake_encd("never")
    serve(KLRPC_CALL_TIMEOUT_MS="60000")
    one = client()
    one.send({"id": 1, "run": "encd SetQulity high"}, {"id": 1, "run": "who"})
    refused = one.receive()
    assert (refused["id"], refused["status"]) == (1, "usage")
    assert "a run with this id has not ended" in refused["reason"]
    wait_until(lambda: is_asked(daemon), "the daemon is asked")
    one.send({"id": 2, "cancel": 1})
    assert {reply["id"]: reply["status"] for reply in (one.receive(), one.receive())} == {1: "cancelled", 2: "ok"}
    assert one.ask({"id": 1, "run": "who"})["status"] == "ok"


def test_nothing_can_not_be_cancelled(serve, client):
    serve()
    one = client()
    assert one.ask({"id": 1, "cancel": 7}) == {"id": 1, "status": "refused", "reason": "no run with the id 7 is under way"}
    assert one.ask({"id": 7, "run": "who"})["status"] == "ok"
    assert one.ask({"id": 2, "cancel": 7})["status"] == "refused"


def test_a_client_that_goes_in_the_middle_gives_up_its_command_and_what_waits(serve, client, fake_encd):
    daemon = fake_encd("never")
    tool = serve(KLRPC_CALL_TIMEOUT_MS="60000")
    other = client()
    one = client()
    one.send({"id": 1, "run": "encd SetQulity high"}, {"id": 2, "run": "shutdown"})
    wait_until(lambda: is_asked(daemon), "the daemon is asked")
    one.close()
    wait_until(lambda: other.ask({"id": 1, "run": "who"})["output"].count("control") == 1, "its session ends")
    assert tool.process.poll() is None


def test_two_hundred_clients_at_once_are_each_served_or_told_why_not(serve, path):
    serve(KLBASE_CONSOLE_MAX_SESSIONS="64")
    clients = []
    try:
        for _ in range(200):
            clients.append(ControlClient(path))
        greeted = [each for each in clients if "session" in each.greeting]
        assert len(greeted) == 64
        refused = [each for each in clients if each not in greeted]
        assert {(each.greeting["status"], each.greeting["reason"]) for each in refused} == {
            ("unreachable", "all 64 sessions of the console are in use; try again later")}
        assert {each.receive() for each in refused} == {None}
        for n, each in enumerate(greeted):
            each.send({"id": n, "run": f"word-{n}"})
        for n, each in enumerate(greeted):
            reply = each.receive()
            assert (reply["id"], f'"word-{n}"' in reply["reason"]) == (n, True)
    finally:
        for each in clients:
            each.close()

    def is_greeted():
        with contextlib.closing(ControlClient(path)) as one:
            return "session" in one.greeting
    wait_until(is_greeted, "there is room again")


@pytest.mark.parametrize("line", ["who |", "| count", "who | | count", "who | count | ", "who | include", "| |"])
def test_a_pipe_into_nothing_is_wrong(serve, client, line):
    serve()
    reply = client().ask({"id": 1, "run": line})
    assert (reply["status"], reply["output"]) == ("usage", ""), reply
    assert reply["reason"]


@pytest.mark.parametrize("line", ["watch 0 watch 0 who", "watch watch", "watch 0 watch", "main watch 0 main watch who"])
def test_a_watch_of_a_watch_is_wrong(serve, client, line):
    serve()
    reply = client().ask({"id": 1, "run": line, "within_ms": 1000 * LIMIT_S})
    assert (reply["status"], reply["output"]) == ("usage", ""), reply
