"""Each command that can be typed, and each way in which it can end: exit status and status of vexctl."""

import contextlib
import dataclasses
import fcntl
import json
import os
import re
import socket
import struct
import subprocess
import tempfile
import termios
from concurrent.futures import ThreadPoolExecutor

import pytest

from conftest import BIN, LIMIT_S, SANITIZED, Child, Tool, wait_until
from test_player import subscriptions

VEXCTL = BIN / "vexctl"
CALL_LIMIT_MS = 2000 if SANITIZED else 400  # a daemon that is well needs a hundredth of it

EXIT = {"ok": 0, "refused": 1, "failed": 1, "usage": 2, "unreachable": 3, "timeout": 4, "cancelled": 130}

NEVER = None  # an ending that a command can't have, with the reason in its row


@dataclasses.dataclass(frozen=True)
class Row:
    """A command: the lines before it in its session, its line, and the status of each ending."""
    line: str
    wrong: str  # the same command with a bad word
    refused: str = NEVER
    refuses: str = ""  # the line that is refused, where it is another one
    ok: str = "ok"
    dead: str = "ok"  # no daemon listens
    hung: str = "ok"  # the daemons stand still
    before: tuple = ()
    why: str = ""  # it has not all endings
    limit: str = ""  # --within

    def lines(self, ending):
        if ending in ("ok", "refused"):
            return [*self.before, self.refuses if ending == "refused" and self.refuses else self.line]
        return [self.wrong if ending == "wrong" else self.line]

    def wanted(self, ending):
        return "usage" if ending == "wrong" else getattr(self, ending)


def asks(line, wrong, **more):
    """A command that asks a daemon."""
    return Row(line, wrong, refused="refused", dead="unreachable", hung="timeout", **more)


def local(line, wrong, why="the tool does it by itself", **more):
    return Row(line, wrong, why=why, **more)


def menu(name):
    return local(name, f"{name} nonsense", "entering a menu asks nobody")


def player(command, words="0", wrong=""):
    """With one word too many where any word will do."""
    return asks(f"playd {command} {words}", f"playd {command} {wrong or words + ' more'}")


MEDIA = "0 1 1 1 0 0 0 clip.mp4 0 0 640 360 0"
SEEK = ("playd SetSeekOfUplayer 0 7",)
NOTE = "demo/note PubTestMessage"

TABLE = {
    "apisdk": menu("apisdk"),
    "apisdk description": local("apisdk description", "apisdk description more"),
    "core": menu("core"),
    "core set": local("core set debug 0", "core set debug much"),
    "core show": local("core show version", "core show"),
    "encd": menu("encd"),
    "encd SetQulity": asks("encd SetQulity high", "encd SetQulity high low"),
    "envctl": menu("envctl"),
    "envctl description": local("envctl description", "envctl description more",
                                "it asks the device's settings tool, and says nothing of its answer"),
    "playd": menu("playd"),
    "playd LiveSystemInit": player("LiveSystemInit"),
    "playd LiveSystemUnInit": player("LiveSystemUnInit"),
    "playd SetIntputTiming": player("SetIntputTiming", "0 1", "0 3"),
    "playd SetOutputTiming": player("SetOutputTiming", "0 1", "0 wide"),
    "playd CreateUplayer": player("CreateUplayer"),
    "playd DeleteUplayer": player("DeleteUplayer"),
    "playd OpenMediaOfUplayer": player("OpenMediaOfUplayer", MEDIA, MEDIA.replace("640", "wide")),
    "playd CloseMediaOfUplayer": player("CloseMediaOfUplayer", "0 0", "0 no"),
    "playd SwitchSourceOfUplayer": player("SwitchSourceOfUplayer", MEDIA, MEDIA.replace("360", "99999999999")),
    "playd GetMediaInfoOfUplayer": player("GetMediaInfoOfUplayer"),
    "playd GetSeekOfUplayer": player("GetSeekOfUplayer"),
    "playd SetPauseOfUplayer": player("SetPauseOfUplayer", "0 1", "0 on"),
    "playd SetSeekOfUplayer": player("SetSeekOfUplayer", "0 5000", "0 soon"),
    "playd SetSpeedOfUplayer": player("SetSpeedOfUplayer", "0 0.5", "0 fast"),
    "playd SetVolumeOfUplayer": player("SetVolumeOfUplayer", "0 50", "0 loud"),
    "rpc": menu("rpc"),
    "rpc call": asks("rpc call SetSeekOfUplayerReq unique_id=0 seek_ms=5000", "rpc call SetSeekOfUplayerReq seek_ms=soon"),
    "rpc list": local("rpc list Seek", "rpc list nonsense"),
    "rpc describe": local("rpc describe SetSeekOfUplayerReq", "rpc describe nonsense"),
    "rpc load": Row("rpc load @", "rpc load", refused="failed", refuses="rpc load /no/such/file",
                    why="the tool reads the file by itself"),
    "rpc publish": asks(f"rpc publish {NOTE} event=hello --to playd", f"rpc publish {NOTE} event=hello --to nowhere"),
    "rpc subscribe": Row("rpc subscribe demo/% PubTestMessage --to playd --within 0.3", f"rpc subscribe {NOTE} more --to playd", dead="unreachable",
                         hung="timeout", why="a server of topics takes any subscription"),
    "help": local("help playd", "help nonsense"),
    "?": local("?", "? nonsense"),
    "history": local("history", "history more"),
    "who": local("who", "who more"),
    "wait": Row("wait layer/* seek_ms=7 within 0.3", "wait layer/* nonsense", refused="refused", dead="timeout", hung="timeout",
                refuses="wait layer/* seek_ms=1 fail seek_ms=7 within 5", before=SEEK),
    "monitor": local("monitor layer/*", "monitor a b=1 c"),
    "expect": Row("expect status=ok", "expect nonsense", refused="refused", refuses="expect code=7", before=("core show version",),
                  why="it compares what the session has"),
    "watch": local("watch 0.1 who", "watch 0 watch who", "it never ends by itself", ok="timeout", dead="timeout", hung="timeout",
                   limit="0.25"),
    "metrics": local("metrics", "metrics more"),
    "disconnect": Row("disconnect #", "disconnect me", refused="refused", refuses="disconnect 99999",
                      why="sessions are the tool's own"),
    "main": local("main core show version", "main nonsense", before=("core",)),
    "..": local("..", ".. more", before=("core",)),
    "exit": local("exit", "exit more"),
    "shutdown": local("shutdown", "shutdown more"),
    # What is printed is looked at; the ending is that of the line.
    "| include": asks("encd SetQulity high | include code", "encd SetQulity high | include"),
    "| exclude": asks("encd SetQulity high | exclude code", "encd SetQulity high | exclude"),
    "| count": asks("encd SetQulity high | count", "encd SetQulity high | count them"),
}
assert not [name for name, row in TABLE.items() if NEVER in (row.refused, row.ok, row.dead, row.hung) and not row.why]

# Their daemon gets a request that it can leave without an answer.
ASKING = [name for name, row in TABLE.items() if row.refused == "refused" and not row.refuses]

# They end their tool, and so get one each.
ENDS_THE_TOOL = {"shutdown"}


def filled(line, messages, session, ending="gone"):
    """A line with the file of messages, the number of another session, and a topic that no line before has subscribed to."""
    return line.replace("@", str(messages)).replace("#", session).replace("%", ending)


class Stage:
    """A tool, and daemons that answer in one way, for many lines."""

    def __init__(self, folder):
        self.sockets = tempfile.TemporaryDirectory()
        self.path = f"{self.sockets.name}/console.sock"
        self.folder = folder
        self.daemon = None
        settings = {"KLBASE_CONSOLE_SOCKET": self.path, "KLRPC_CALL_TIMEOUT_MS": str(CALL_LIMIT_MS)}
        self.tool = Tool(folder, environment=settings)

    def start_daemon(self, mode):
        self.end_daemon()
        self.daemon = Child(self.folder, f"daemon-{mode}", [BIN / "every_daemon", mode],
                            dict(os.environ, KLBASE_LOG_FILE=str(self.folder / "daemon.log")))
        wait_until(lambda: "listens on" in self.daemon.output(), "the daemon listens")

    def end_daemon(self):
        if self.daemon is not None:
            self.daemon.kill()

    def vexctl(self, *words):
        """Exit status and the replies."""
        done = subprocess.run([VEXCTL, "--socket", self.path, "--json", *words], capture_output=True, text=True, timeout=LIMIT_S,
                              check=False)
        assert done.stderr == ""
        return done.returncode, [json.loads(line) for line in done.stdout.splitlines()]

    def run(self, row, ending, messages):
        """Exit status, status and reason of a command."""
        with socket.socket(socket.AF_UNIX) as other:
            other.connect(self.path)
            number = str(json.loads(other.makefile().readline())["session"])
            lines = [filled(line, messages, number, ending) for line in row.lines(ending)]
            words = [word for line in lines for word in ("-c", line)]
            exit_status, replies = self.vexctl(*(["--within", row.limit] if row.limit else []), *words)
        assert len(replies) == len(lines), replies
        return exit_status, replies[-1]["status"], replies[-1]["reason"]

    def close(self):
        self.end_daemon()
        self.tool.kill()
        self.sockets.cleanup()


@contextlib.contextmanager
def a_stage(folder):
    stage = Stage(folder)
    try:
        stage.tool.port()
        yield stage
    finally:
        stage.close()


@pytest.fixture
def stage(tmp_path):
    with a_stage(tmp_path) as there:
        yield there


def at_once(function, names):
    """Its results by name: most of the time goes in waiting for daemons that stand still."""
    with ThreadPoolExecutor(8) as pool:
        return dict(zip(names, pool.map(function, names)))


@pytest.fixture(scope="module")
def messages(tmp_path_factory):
    """A file for `rpc load`."""
    folder = tmp_path_factory.mktemp("messages")
    (folder / "gauge.proto").write_text('syntax = "proto3"; package gauge.v1; message Sample { uint32 level = 1; }', encoding="ascii")
    subprocess.run(["protoc", "-I", folder, f"--descriptor_set_out={folder / 'gauge.pb'}", "gauge.proto"], check=True,
                   timeout=LIMIT_S)
    return folder / "gauge.pb"


ENDINGS = ("ok", "refused", "dead", "hung", "wrong")


def names_of(ending, own_refusal=None):
    """The commands that have it; of the refused ones, those that refuse by themselves, or those whose daemon does."""
    names = [name for name, row in TABLE.items() if row.wanted(ending) is not NEVER and name not in ENDS_THE_TOOL]
    return [name for name in names if own_refusal is None or bool(TABLE[name].refuses) == own_refusal]


@pytest.fixture(scope="module")
def ends(tmp_path_factory, messages):
    """(exit status, status, reason) by ending and name."""
    with a_stage(tmp_path_factory.mktemp("stage")) as there:
        def run(ending, **which):
            return at_once(lambda name: there.run(TABLE[name], ending, messages), names_of(ending, **which))

        known = {"dead": run("dead"), "wrong": run("wrong")}
        there.start_daemon("ok")
        wait_until(lambda: subscriptions(there.tool.log()), "both topics are subscribed")
        known["ok"] = run("ok")
        known["refused"] = run("refused", own_refusal=True)
        there.daemon.freeze()
        known["hung"] = run("hung")
        there.start_daemon("refuse")
        known["refused"] |= run("refused", own_refusal=False)
    return known


@pytest.mark.parametrize("ending, name", [(ending, name) for ending in ENDINGS for name in names_of(ending)])
def test_a_command_ends_as_it_should(ends, name, ending):
    wanted = TABLE[name].wanted(ending)
    exit_status, status, reason = ends[ending][name]
    assert (status, exit_status) == (wanted, EXIT[wanted]), reason
    assert bool(reason) == (status != "ok")
    if name in ASKING and ending in ("dead", "hung"):
        assert reason.startswith("encd: " if " SetQulity" in TABLE[name].line else "playd: ")


def test_a_daemon_that_takes_requests_and_never_answers_hangs_too(stage, messages):
    stage.start_daemon("hang")
    ends_of = at_once(lambda name: stage.run(TABLE[name], "hung", messages), ASKING)
    assert {name: end[:2] for name, end in ends_of.items()} == {name: (4, "timeout") for name in ASKING}
    assert stage.daemon.output().count("\n") == len(ASKING) + 1, "each of them was asked once"


def test_a_console_that_ends_for_all_has_answered(stage):
    exit_status, [reply] = stage.vexctl("shutdown", "more")
    assert (exit_status, reply["status"]) == (2, "usage")
    exit_status, [reply] = stage.vexctl("shutdown")
    assert (exit_status, reply["status"]) == (0, "ok")
    assert stage.tool.wait() == 0


# --- the tool goes in the middle

class UnderWay:
    """A vexctl that has connected and waits for its line."""

    def __init__(self, path):
        self.process = subprocess.Popen([VEXCTL, "--socket", path, "--json"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def send(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def has_taken_it(self):
        left = struct.unpack("i", fcntl.ioctl(self.process.stdin, termios.FIONREAD, b"\0" * 4))[0]
        return left == 0

    def end(self):
        shown, _ = self.process.communicate(timeout=LIMIT_S)
        [reply] = [json.loads(line) for line in shown.splitlines()]
        return self.process.returncode, reply["status"], reply["reason"]

    def kill(self):
        self.process.kill()
        self.process.communicate()


def test_each_command_whose_tool_goes_in_the_middle_ends_with_3(stage, messages):
    """Those that ask a daemon wait for it then; the others, which would have ended long before, for a tool that stands still."""
    stage.start_daemon("hang")
    waiting = {name: UnderWay(stage.path) for name in TABLE}
    lines = {name: filled(row.line, messages, "99999") for name, row in TABLE.items()}
    try:
        wait_until(lambda: stage.vexctl("who")[1][0]["output"].count("control") == len(TABLE) + 1, "all are connected")
        for name in ASKING:
            waiting[name].send(lines[name])
        wait_until(lambda: stage.daemon.output().count("\n") == len(ASKING) + 1, "the daemon is asked by each")
        stage.tool.freeze()
        for name in set(TABLE) - set(ASKING):
            waiting[name].send(lines[name])
        wait_until(lambda: all(each.has_taken_it() for each in waiting.values()), "all lines are taken")
        stage.tool.kill()
        ends = {name: each.end() for name, each in waiting.items()}
    finally:
        for each in waiting.values():
            each.kill()
    assert set(ends.values()) == {(3, "unreachable", "the tool ended before it answered; whether the line was done is not known")}


# --- the table has all commands

def listed(stage, *menus):
    """The names that help shows."""
    _, [reply] = stage.vexctl("help", *menus)
    return re.findall(r"^ - (\S+)(?:.*\n\t(\(menu\)))?", reply["output"], re.M)


def test_the_table_has_each_command_that_help_lists(stage):
    names = listed(stage)
    menus = [name for name, is_menu in names if is_menu]
    assert len(menus) == 6
    typed = {name for name, _ in names} | {"?", "main", ".."}  # these help shows in a menu only
    for menu_name in menus:
        typed |= {f"{menu_name} {name}" for name, _ in listed(stage, menu_name) if name != menu_name}
    assert typed == {name for name in TABLE if not name.startswith("|")}


def test_the_sixteen_of_encoder_and_player_ask_a_daemon():
    asked = {name for name, row in TABLE.items() if re.match("(encd|playd) ", name)}
    assert len(asked) == 16
    assert {(TABLE[name].refused, TABLE[name].dead, TABLE[name].hung) for name in asked} == {("refused", "unreachable", "timeout")}


# --- vexctl's own words

@pytest.mark.parametrize("words, exit_status, without_a_tool", [
    (["--within", "0.1", "monitor"], 4, 3),
    (["monitor", "a", "b=1", "c"], 2, 3),
    (["complete", "playd Get"], 0, 3),
    (["complete", "playd", "Get"], 2, 2),
    (["-f", "/dev/null"], 0, 3),
    (["-f", "/no/such/file"], 2, 3),
])
def test_words_of_vexctl_end_as_lines_do(stage, words, exit_status, without_a_tool):
    assert stage.vexctl(*words)[0] == exit_status
    stage.close()
    assert stage.vexctl(*words)[0] == without_a_tool
