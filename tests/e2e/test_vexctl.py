"""vexctl: each form, each way in which a line can end, and a tool that goes away."""

import json
import os
import pathlib
import pty
import re
import select
import signal
import socket
import subprocess
import tempfile
import termios
import threading

import pexpect
import pytest

from conftest import BIN, LIMIT_S, wait_until
from test_player import publish, report, start_events, subscriptions  # noqa: F401

VEXCTL = BIN / "vexctl"
ROOT = pathlib.Path(__file__).resolve().parents[2]
PLAIN = {name: value for name, value in os.environ.items() if name not in ("KLBASE_CONSOLE_SOCKET", "XDG_RUNTIME_DIR")}


@pytest.fixture
def vexctl(path):
    def run(*words, socket_path=path, **options):
        return subprocess.run([VEXCTL, "--socket", socket_path, *words], capture_output=True, text=True, timeout=LIMIT_S,
                              check=False, env=PLAIN, **options)
    return run


def jq(text):
    """Each line passes jq; what it is."""
    lines = text.splitlines()
    assert lines
    for line in lines:
        subprocess.run(["jq", "-e", "."], input=line, text=True, check=True, stdout=subprocess.DEVNULL)
    return [json.loads(line) for line in lines]


def is_asked(daemon):
    """It has printed more than that it listens."""
    return daemon.output().count("\n") > 1


def sessions(path):
    """On the control socket, with the one that asks."""
    return subprocess.run([VEXCTL, "--socket", path, "who"], capture_output=True, text=True, check=True,
                          timeout=LIMIT_S).stdout.count("control")


def caught(pid, number):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"SigCgt:\s*(\w+)", status)[1], 16) >> (number - 1) & 1


# --- how lines end

ENCD = ("encd", "SetQulity", "high")


def test_a_line_that_is_well_ends_with_0_and_its_output_alone(serve, vexctl):
    serve()
    done = vexctl("core", "show", "version")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "\tbuild-date:\t 2025-12-11_16:34:42\ngit-version: v0.0.1\n"


def test_a_refused_line_ends_with_1_and_the_daemons_words(serve, vexctl, fake_encd):
    fake_encd("status", "6", "no such quality")
    serve()
    done = vexctl(*ENCD)
    assert done.returncode == 1
    assert "code= 6" in done.stdout
    assert done.stderr == "vexctl: refused: no such quality (code 6)\n"


def test_a_wrong_line_ends_with_2_and_the_tools_words(serve, vexctl):
    serve()
    done = vexctl("encd", "SetQulit")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == 'vexctl: usage: Unknown command "SetQulit" in "encd"; did you mean: encd SetQulity? Type "help" for the commands.\n'
    done = vexctl("encd", "SetQulity")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vexctl: usage: SetQulity takes 1 word, not 0. Usage: encd SetQulity ")


def test_a_daemon_that_is_not_there_ends_with_3(serve, vexctl):
    serve()
    done = vexctl(*ENCD)
    assert done.returncode == 3
    assert re.match(r"vexctl: unreachable: encd.*is it running\?.*\n$", done.stderr)


def test_a_daemon_that_hangs_ends_with_4(serve, vexctl, fake_encd):
    fake_encd("never")
    serve(KLRPC_CALL_TIMEOUT_MS="300")
    done = vexctl(*ENCD)
    assert done.returncode == 4
    assert done.stderr.startswith("vexctl: timeout: encd")


def test_a_time_limit_of_ones_own_ends_with_4(serve, vexctl, fake_encd):
    fake_encd("never")
    serve(KLRPC_CALL_TIMEOUT_MS="60000")
    done = vexctl("--within", "0.2", *ENCD)
    assert done.returncode == 4
    assert "no answer within 200 ms" in done.stderr


@pytest.mark.parametrize("size", [4097, 65537])
def test_a_line_that_is_too_long_ends_with_2(serve, vexctl, size):
    """Also one that the tool doesn't read, and so answers without an id."""
    serve()
    done = vexctl("-k", "-c", "x" * size, "-c", "core show version")
    assert done.returncode == 2
    assert " longer than " in done.stderr
    assert done.stdout.endswith("git-version: v0.0.1\n")


@pytest.mark.parametrize("words", [["monitor"], ["wait", "nothing", "within", "600"]])
def test_one_whose_output_nobody_reads_any_more_ends_with_130(serve, path, words):
    serve()
    with subprocess.Popen([VEXCTL, "--socket", path, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as running:
        running.stdout.close()
        try:
            assert running.wait(LIMIT_S) == 130
        finally:
            running.kill()
        assert b"can't be written" not in running.stderr.read()


def test_an_expectation_that_is_not_met_ends_with_1(serve, vexctl):
    serve()
    done = vexctl("-c", "core show version", "-c", "expect code=7")
    assert done.returncode == 1
    assert 'code is "0", not code=7' in done.stderr


def test_without_a_tool_it_ends_with_3_and_says_what_to_do(vexctl, path):
    done = vexctl("core", "show", "version")
    assert (done.returncode, done.stdout) == (3, "")
    assert done.stderr == f"vexctl: unreachable: no tool at {path}: No such file or directory; start vextool, or name its socket: --socket PATH\n"


def test_a_tool_that_ended_without_cleaning_up_is_not_there(serve, vexctl, path):
    serve().kill()
    assert os.path.exists(path)
    done = vexctl("core", "show", "version")
    assert done.returncode == 3
    assert "Connection refused; start vextool" in done.stderr


def test_a_tool_that_goes_in_the_middle_ends_with_3(serve, path, fake_encd):
    daemon = fake_encd("never")
    tool = serve(KLRPC_CALL_TIMEOUT_MS="60000")
    with subprocess.Popen([VEXCTL, "--socket", path, *ENCD], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True) as running:
        wait_until(lambda: is_asked(daemon), "the daemon is asked")
        tool.kill()
        output, errors = running.communicate(timeout=LIMIT_S)
    assert (running.returncode, output) == (3, "")
    assert errors == "vexctl: unreachable: the tool ended before it answered; whether the line was done is not known\n"


def test_a_tool_that_is_stopped_ends_with_3_at_the_door_and_4_behind_it(serve, vexctl, path, fake_encd):
    daemon = fake_encd("never")
    tool = serve(KLRPC_CALL_TIMEOUT_MS="60000")
    with subprocess.Popen([VEXCTL, "--socket", path, "--within", "1", *ENCD], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as running:
        wait_until(lambda: is_asked(daemon), "the daemon is asked")
        tool.freeze()
        _, errors = running.communicate(timeout=LIMIT_S)
    assert running.returncode == 4
    assert "the tool does not answer" in errors
    done = vexctl("core", "show", "version")
    assert done.returncode == 3
    assert "the tool does not answer" in done.stderr


def test_an_interrupt_cancels_the_command_and_ends_with_130(serve, vexctl, path, fake_encd):
    daemon = fake_encd("never")
    serve(KLRPC_CALL_TIMEOUT_MS="60000")
    with subprocess.Popen([VEXCTL, "--socket", path, *ENCD], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True) as running:
        wait_until(lambda: is_asked(daemon), "the daemon is asked")
        running.send_signal(signal.SIGINT)
        _, errors = running.communicate(timeout=LIMIT_S)
    assert running.returncode == 130
    assert errors.startswith("vexctl: cancelled: cancelled;")
    assert vexctl("core", "show", "version").returncode == 0


def test_an_interrupt_ends_all_lines_with_130_also_behind_a_failure(serve, path, fake_encd):
    daemon = fake_encd("never")
    serve(KLRPC_CALL_TIMEOUT_MS="60000")
    lines = [word for line in ("nonsense", " ".join(ENCD), "nonsense2") for word in ("-c", line)]
    with subprocess.Popen([VEXCTL, "--socket", path, "--json", "-k", *lines], stdout=subprocess.PIPE, text=True) as running:
        wait_until(lambda: is_asked(daemon), "the daemon is asked")
        running.send_signal(signal.SIGINT)
        shown, _ = running.communicate(timeout=LIMIT_S)
    assert running.returncode == 130
    assert [reply["status"] for reply in jq(shown)] == ["usage", "cancelled"]


@pytest.fixture
def fake_tool(path, started):
    """Starts a vexctl at a socket where the test itself answers; the vexctl, and the file of requests and replies."""
    def start(*words, **options):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.settimeout(LIMIT_S)
            pathlib.Path(path).unlink(missing_ok=True)
            listener.bind(path)
            listener.listen()
            options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True} | options
            running = subprocess.Popen([VEXCTL, "--socket", path, *words], **options)
            running.close = lambda: (running.kill(), running.wait())
            started.append(running)
            connection, _ = listener.accept()
        connection.settimeout(LIMIT_S)
        lines = connection.makefile("rw", encoding="utf-8", newline="\n")
        connection.close()
        send(lines, {"vextool": "v0.0.1", "protocol": 1, "session": 1})
        return running, lines
    return start


def send(lines, *replies):
    """In one piece: a vexctl that ends leaves nothing unread."""
    lines.write("".join(json.dumps(reply) + "\n" for reply in replies))
    lines.flush()


OK = {"status": "ok", "code": 0, "reason": "", "output": "", "fields": {}, "us": 1}


def test_an_interrupt_that_comes_too_late_for_its_line_ends_the_script_too(fake_tool):
    running, lines = fake_tool("-c", "one", "-c", "two")
    run = json.loads(lines.readline())
    running.send_signal(signal.SIGINT)
    cancel = json.loads(lines.readline())
    assert cancel["cancel"] == run["id"] and cancel["id"] != run["id"]
    send(lines, dict(OK, id=run["id"]),
         {"id": cancel["id"], "status": "refused", "reason": "no run with the id 1"})
    assert lines.readline() == ""
    assert running.communicate(timeout=LIMIT_S) == ("", "")
    assert running.returncode == 130


@pytest.mark.parametrize("before", ["", "core show version\n"])
def test_an_interrupt_ends_the_wait_for_the_next_line_of_a_pipe(serve, path, before):
    serve()
    with subprocess.Popen([VEXCTL, "--socket", path, "--json"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as running:
        running.stdin.write(before.encode())
        running.stdin.flush()
        if before:
            assert json.loads(running.stdout.readline())["status"] == "ok"
        else:
            wait_until(lambda: sessions(path) == 2, "it is connected")
        running.send_signal(signal.SIGINT)
        assert running.wait(LIMIT_S) == 130
        [reply] = jq(running.stdout.read().decode())
    assert (reply["at"], reply["status"], reply["reason"]) == ("standard input", "cancelled", "interrupted")


def test_an_interrupt_ends_the_wait_for_the_writer_of_a_named_pipe(serve, path, tmp_path):
    serve()
    os.mkfifo(tmp_path / "pipe")
    with subprocess.Popen([VEXCTL, "--socket", path, "-f", tmp_path / "pipe"], stderr=subprocess.PIPE, text=True) as running:
        wait_until(lambda: sessions(path) == 2, "it is connected")
        wait_until(lambda: str(tmp_path / "pipe") in [os.readlink(file) for file in
                                                      pathlib.Path(f"/proc/{running.pid}/fd").iterdir()], "it is open")
        running.send_signal(signal.SIGINT)
        _, errors = running.communicate(timeout=LIMIT_S)
    assert (running.returncode, errors) == (130, f"vexctl: {tmp_path / 'pipe'}: cancelled: interrupted\n")


def test_an_interrupt_ends_the_wait_for_a_tool_that_takes_no_connection(path):
    with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX) as first:
        listener.bind(path)
        listener.listen(0)
        first.connect(path)
        with subprocess.Popen([VEXCTL, "--socket", path, "who"], stderr=subprocess.PIPE, text=True) as running:
            wait_until(lambda: caught(running.pid, signal.SIGINT), "it catches interrupts")
            wait_until(lambda: running.poll() is not None or running.send_signal(signal.SIGINT), "it ends")
            _, errors = running.communicate(timeout=LIMIT_S)
    assert (running.returncode, errors) == (130, f"vexctl: cancelled: no tool at {path}: interrupted\n")


def test_all_sessions_in_use_ends_with_3(serve, vexctl, connect):
    tool = serve(KLBASE_CONSOLE_MAX_SESSIONS="1")
    connect(tool.port())
    done = vexctl("core", "show", "version")
    assert done.returncode == 3
    assert "all 1 sessions of the console are in use; try again later" in done.stderr


# --- JSON

def test_every_line_of_json_passes_jq(serve, vexctl, path, fake_encd):
    assert jq(vexctl("--json", "core", "show", "version").stdout)[0]["status"] == "unreachable"
    tool = serve()
    [reply] = jq(vexctl("--json", "core", "show", "version").stdout)
    assert list(reply) == ["status", "code", "reason", "output", "fields", "us"]
    assert jq(vexctl("--json", *ENCD).stdout)[0]["status"] == "unreachable"
    fake_encd("status", "6", "no")
    [reply] = jq(vexctl("--json", *ENCD).stdout)
    assert (reply["status"], reply["code"], reply["reason"]) == ("refused", 6, "no")
    assert jq(vexctl("--json", "who").stdout)[0]["output"].count("control") == 1
    assert jq(vexctl("--json", "nonsense").stdout)[0]["status"] == "usage"
    assert jq(vexctl("--json", "--nonsense").stdout)[0]["status"] == "usage"
    assert jq(vexctl("--json", "-f", "/no/such/file").stdout)[0]["status"] == "usage"
    assert jq(vexctl("--json", "complete", "cor").stdout)[0]["candidates"] == ["core"]
    for words in (["core", "show", "version"], ["nonsense"]):
        assert vexctl("--json", *words).stderr == ""
    tool.kill()
    assert jq(vexctl("--json", "monitor").stdout)[0]["status"] == "unreachable"


def test_a_field_is_printed_alone(serve, vexctl, fake_encd):
    fake_encd("status", "6", "no")
    serve()
    assert vexctl("--field", "code", *ENCD).stdout == "6\n"
    assert vexctl("--field", "status", "-c", "core show version", "-c", "who").stdout == "ok\n"
    done = vexctl("--field", "nonsense", "core", "show", "version")
    assert (done.returncode, done.stdout) == (1, "")
    assert 'the reply has no field "nonsense"; it has ' in done.stderr


@pytest.mark.parametrize("lines, field, shown, status", [
    ("who\ncore show version\n", "git_version", "v0.0.1\n", 0),
    ("core show version\nnonsense\nwho\n", "status", "usage\n", 2),
    ("core show version\n# the end\n", "nonsense", "", 1),
    ("", "status", "", 0),
])
def test_a_field_of_the_last_line_of_a_pipe_or_a_file_is_printed(serve, vexctl, tmp_path, lines, field, shown, status):
    serve()
    script = tmp_path / "script"
    script.write_text(lines)
    for done in (vexctl("--field", field, input=lines), vexctl("--field", field, "-f", script)):
        assert (done.stdout, done.returncode) == (shown, status)


def test_quiet_prints_nothing(serve, vexctl):
    serve()
    for words, status in ((["core", "show", "version"], 0), (["nonsense"], 2), (["-f", "/no/such"], 2)):
        done = vexctl("-q", *words)
        assert (done.returncode, done.stdout, done.stderr) == (status, "", "")


EVIL = "\x1b]0;mine\x07\x1b[2J\tö\x9b\n"
SHOWN = b"\\x1b]0;mine\\x07\\x1b[2J\t\xc3\xb6\\xc2\\x9b\r\n"


@pytest.fixture
def read_at_terminal(fake_tool):
    """What a vexctl shows at a terminal that is its `stream` when the line, or the monitor, gets `reply`, and the rest."""
    def read(words, stream, reply, *more):
        main, other = pty.openpty()
        running, lines = fake_tool(*words, **{stream: other})
        os.close(other)
        send(lines, dict(reply, id=json.loads(lines.readline())["id"]), *more)
        lines.close()
        rest = "".join(text or "" for text in running.communicate(timeout=LIMIT_S))
        shown = b""
        while select.select([main], [], [], LIMIT_S)[0]:
            try:
                shown += os.read(main, 4096)
            except OSError:  # all of it was read
                break
        os.close(main)
        return shown, rest
    return read


def test_a_daemons_text_does_not_act_on_a_terminal(read_at_terminal):
    refused = dict(OK, status="refused", output=EVIL, reason=EVIL.strip(), fields={"name": EVIL.strip()})
    said = SHOWN.strip().replace(b"\t", b"\\x09")
    # Each stream by itself: the other one is a pipe, and keeps the bytes.
    assert read_at_terminal(["line"], "stdout", refused) == (SHOWN, f"vexctl: refused: {EVIL}")
    assert read_at_terminal(["line"], "stderr", refused) == (b"vexctl: refused: " + said + b"\r\n", EVIL)
    assert read_at_terminal(["--field", "name", "line"], "stdout", refused)[0] == SHOWN
    shown, _ = read_at_terminal(["monitor"], "stdout", OK, {"event": {"seq": 1, "text": EVIL}})
    assert shown == SHOWN
    shown, _ = read_at_terminal(["--json", "line"], "stdout", refused)
    assert json.loads(shown)["output"] == EVIL


# --- several lines

def test_lines_share_a_session_and_end_at_the_first_failure(serve, vexctl):
    serve()
    done = vexctl("-c", "core", "-c", "show version", "-c", "nonsense", "-c", "show version")
    assert done.returncode == 2
    assert done.stdout.count("git-version") == 1
    done = vexctl("-k", "-c", "core", "-c", "nonsense", "-c", "show version")
    assert done.returncode == 2
    assert done.stdout.count("git-version") == 1


def test_words_with_blanks_and_quotes_stay_words(serve, vexctl):
    serve()
    done = vexctl("core", 'a b"c\\')
    assert 'a b"c\\' in done.stderr


def test_a_failure_in_a_file_names_file_and_line(serve, vexctl, tmp_path):
    serve()
    script = tmp_path / "script"
    script.write_text("# a smoke test\n\ncore show version   # the release\ncore\nnonsense\nshow version\n")
    done = vexctl("-f", script)
    assert done.returncode == 2
    assert done.stdout.count("git-version") == 1
    assert done.stderr.startswith(f"vexctl: {script}:5: usage: ")
    done = vexctl("-k", "-f", script)
    assert done.stdout.count("git-version") == 2


@pytest.mark.parametrize("words", [["-f", "-"], []])
def test_lines_come_from_standard_input(serve, vexctl, words):
    serve()
    done = vexctl(*words, input="core show version\nnonsense")
    assert done.stdout.count("git-version") == 1
    assert done.stderr.startswith("vexctl: standard input:2: usage: ")
    assert done.returncode == 2


def test_lines_come_from_a_named_pipe_whose_writer_comes_later(serve, path, tmp_path):
    serve()
    os.mkfifo(tmp_path / "pipe")
    with subprocess.Popen([VEXCTL, "--socket", path, "-f", tmp_path / "pipe"], stdout=subprocess.PIPE, text=True) as running:
        wait_until(lambda: sessions(path) == 2, "it is connected")
        with open(tmp_path / "pipe", "w", encoding="ascii") as writer:
            writer.write("core\n")
            writer.flush()
            writer.write("show version")
        shown, _ = running.communicate(timeout=LIMIT_S)
    assert (running.returncode, shown.count("git-version")) == (0, 1)


def test_a_file_with_an_endless_line_is_refused(serve, path):
    serve()
    with subprocess.Popen([VEXCTL, "--socket", path, "-f", "/dev/zero"], stderr=subprocess.PIPE, text=True,
                          preexec_fn=lambda: None) as running:
        _, errors = running.communicate(timeout=LIMIT_S)
    assert running.returncode == 2
    assert errors == "vexctl: /dev/zero:1: usage: the line is longer than 4096 bytes\n"


def test_a_full_disk_is_said(serve, path):
    serve()
    with open("/dev/full", "w", encoding="ascii") as full:
        done = subprocess.run([VEXCTL, "--socket", path, "core", "show", "version"], stdout=full, stderr=subprocess.PIPE,
                              text=True, timeout=LIMIT_S, check=False)
    assert done.returncode == 1
    assert done.stderr == "vexctl: the output can't be written: No space left on device\n"


def test_wrong_words_of_its_own_end_with_2_before_anything_is_run(serve, vexctl):
    serve()
    for words in (["--nonsense"], ["-c"], ["--within", "soon", "who"], ["--within", "0", "who"], ["-c", "who", "who"], ["complete"], ["complete", "a", "b"], ["--socket", "", "who"]):
        done = vexctl(*words)
        assert (done.returncode, done.stdout) == (2, ""), words
        assert done.stderr.startswith("vexctl: usage: ") and "vexctl --help" in done.stderr, words
    assert vexctl("--help").stdout.startswith("usage: vexctl ")
    assert vexctl("--version").stdout == "vexctl v0.0.1\n"


def test_completions_are_one_a_line(serve, vexctl):
    serve()
    assert vexctl("complete", "core s").stdout == "set\nshow\n"
    assert vexctl("complete", "encd SetQulity").stdout.split() == ["SetQulity"]
    assert vexctl("complete", "nonsense ").stdout == ""
    # Behind a word that is not finished: in quotes, or the beginning of a filter.
    assert vexctl("complete", 'encd SetQulity "hi').stdout == "high\n"
    assert vexctl("complete", 'encd "SetQ').stdout == "SetQulity\n"
    assert vexctl("complete", "who | co").stdout == "count\n"
    assert jq(vexctl("--json", "complete", 'encd SetQulity "hi').stdout) == [{"status": "ok", "start": 15, "candidates": ["high"]}]


COMPLETE = """
source "$1"
set -- "${@:2}"
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE=$* COMP_POINT=${#COMP_LINE}
_vexctl
printf '%s\\n' "${COMPREPLY[@]}"
"""


def test_the_shell_completes_what_the_tool_knows(serve, path):
    serve()

    def completed(*words):
        return subprocess.run(["bash", "-c", COMPLETE, "bash", ROOT / "packaging/completion/vexctl", "vexctl", *words],
                              capture_output=True, text=True, timeout=LIMIT_S, check=True,
                              env=dict(PLAIN, PATH=f"{BIN}:{os.environ['PATH']}", KLBASE_CONSOLE_SOCKET=path)).stdout.split()

    assert completed("core", "s") == ["set", "show"]
    assert completed("--json", "core", "sh") == ["show"]
    assert completed("--within", "2", "encd", "SetQ") == ["SetQulity"]
    assert completed("mon") == ["monitor"]
    assert completed("--j") == ["--json"]
    assert completed("-f", "/etc/os-rel") == ["/etc/os-release"]


@pytest.mark.parametrize("keys, words", [
    ("core sh\t", "core|show|x"),
    ("rpc call SetVideoQualityRequest q\t", "rpc|call|SetVideoQualityRequest|qulity=x"),
    ("rpc call SetVideoQualityRequest qulity=H\t", "rpc|call|SetVideoQualityRequest|qulity=HIGH|x"),
    ("rpc call SetVideoQualityRequest qulity=HI\ta\t", "rpc|call|SetVideoQualityRequest|qulity=HIGH|attributes.x"),
    ("--within=2 core sh\t", "--within=2|core|show|x"),
    ("rpc load @/fol\t", "rpc|load|@/folder/x"),
    ("rpc load @/folder/na\t", "rpc|load|@/folder/na:me|x"),
    ("rpc load @/folder/na:m\t", "rpc|load|@/folder/na:me|x"),
    ("--socket=@/none core sh\t", "--socket=@/none|core|shx"),
])
def test_a_word_is_completed_in_its_place_at_the_shells_prompt(serve, path, started, tmp_path, keys, words):
    """Also where readline sees several: at "=" and ":"."""
    serve()
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder/na:me").touch()
    shell = pexpect.spawn("bash", ["--norc", "--noprofile"], timeout=LIMIT_S, encoding="utf-8", cwd=tmp_path, dimensions=(24, 500),
                          env=dict(PLAIN, PATH=f"{BIN}:{os.environ['PATH']}", KLBASE_CONSOLE_SOCKET=path, TERM="dumb", PS1="ready> ",
                                   INPUTRC="/dev/null"))
    started.append(shell)
    shell.expect("ready> ")
    shell.sendline(f"source {ROOT / 'packaging/completion/vexctl'}")
    shell.expect("ready> ")
    # What stands on the line at the end is printed, not run.
    shell.send(f"vexctl {keys}x\x01printf '%s|' \r".replace("@", str(tmp_path)))
    shell.expect_exact("\r\nvexctl|")
    shell.expect_exact("|ready> ")
    assert shell.before.replace(str(tmp_path), "@") == words


# --- events

@pytest.fixture
def watch(serve, path, start_events, started):  # noqa: F811
    """A daemon that publishes, a tool that hears it, and a vexctl that watches; the daemon and the vexctl."""
    def start(*words):
        daemon = start_events()
        tool = serve()
        wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
        watcher = subprocess.Popen([VEXCTL, "--socket", path, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True)
        watcher.close = lambda: (watcher.kill(), watcher.wait())
        started.append(watcher)
        wait_until(lambda: subprocess.run([VEXCTL, "--socket", path, "who"], capture_output=True, text=True,
                                          check=True).stdout.count("control") == 2, "it is connected")
        return tool, daemon, watcher
    return start


# Until the first one has come, it may not watch yet.
def published(daemon, watcher, line):
    wait_until(lambda: publish(daemon, line) or select.select([watcher.stdout], [], [], 0.2)[0], "the event is shown")


def test_events_are_printed_until_an_interrupt(watch):
    _, daemon, watcher = watch("monitor", "layer/result_repor")
    published(daemon, watcher, "report 3 /a.mp4 1")
    publish(daemon, "seek 4 1500 20000")
    publish(daemon, "report 3 /a.mp4 5")
    shown = ""
    while "play_state         :5" not in shown:
        shown += watcher.stdout.readline()
    watcher.send_signal(signal.SIGINT)
    assert watcher.wait(LIMIT_S) == 130
    assert shown.startswith(report(3, "/a.mp4", 1)) and shown.endswith(report(3, "/a.mp4", 5))
    assert "seek_ms" not in shown


def test_events_as_json_pass_jq_and_a_tool_that_ends_is_said(watch):
    tool, daemon, watcher = watch("--json", "monitor", "layer/*", "play_state>=4")
    published(daemon, watcher, "report 3 /a.mp4 4")
    publish(daemon, "report 3 /a.mp4 1")
    publish(daemon, "report 3 /a.mp4 5")
    lines = []
    while not lines or json.loads(lines[-1])["event"]["message"]["play_state"] != 5:
        lines.append(watcher.stdout.readline())
    tool.kill()
    rest, errors = watcher.communicate(timeout=LIMIT_S)
    assert (watcher.returncode, errors) == (3, "")
    events = jq("".join(lines) + rest)
    assert {event["event"]["message"]["play_state"] for event in events[:-1]} == {4, 5}
    assert events[-1]["status"] == "unreachable"


def test_an_interrupt_ends_events_as_json_with_a_line_that_says_so(fake_tool):
    running, lines = fake_tool("--json", "monitor")
    send(lines, dict(OK, id=json.loads(lines.readline())["id"]), {"event": {"seq": 1, "text": "x"}})
    shown = running.stdout.readline()
    running.send_signal(signal.SIGINT)
    rest, errors = running.communicate(timeout=LIMIT_S)
    assert (running.returncode, errors) == (130, "")
    event, end = jq(shown + rest)
    assert (event["event"]["seq"], end["status"], end["reason"]) == (1, "cancelled", "interrupted")


def test_watching_ends_with_its_time(serve, vexctl):
    serve()
    done = vexctl("--within", "0.1", "monitor")
    assert (done.returncode, done.stdout, done.stderr) == (4, "", "")
    done = vexctl("--json", "--within", "0.1", "monitor")
    assert (done.returncode, [reply["status"] for reply in jq(done.stdout)]) == (4, ["timeout"])
    assert vexctl("monitor", "a", "b=1", "c").returncode == 2


# --- finding the socket

def test_the_environment_names_the_socket(serve, path):
    serve()
    def run(**environment):
        return subprocess.run([VEXCTL, "core", "show", "version"], capture_output=True, text=True, timeout=LIMIT_S,
                              check=False, env=dict(PLAIN, **environment))
    assert run(KLBASE_CONSOLE_SOCKET=path).returncode == 0
    done = run(KLBASE_CONSOLE_SOCKET="none")
    assert done.returncode == 3
    assert '"none"' in done.stderr


def test_the_users_runtime_folder_is_looked_into(tmp_path, start_tool):
    with tempfile.TemporaryDirectory() as runtime:
        tool = start_tool(environment={"KLBASE_CONSOLE_SOCKET": "", "XDG_RUNTIME_DIR": runtime})
        tool.port()
        if os.access("/run/vextool", os.W_OK):
            pytest.skip("the service's folder is there, which comes first")
        done = subprocess.run([VEXCTL, "core", "show", "version"], capture_output=True, text=True, timeout=LIMIT_S,
                              check=False, env=dict(PLAIN, XDG_RUNTIME_DIR=runtime))
        assert done.returncode == 0, done.stderr


# --- many

def test_hundreds_of_starts_at_once_are_each_answered(serve, path):
    serve()
    wrong = []

    def run_some(first):
        for n in range(first, first + 75):
            done = subprocess.run([VEXCTL, "--socket", path, f"word-{n}"], capture_output=True, text=True, timeout=LIMIT_S,
                                  check=False)
            if done.returncode != 2 or f'"word-{n}"' not in done.stderr:
                wrong.append((n, done))

    threads = [threading.Thread(target=run_some, args=(first,)) for first in range(0, 300, 75)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert wrong == []


# --- at a terminal

@pytest.fixture
def session(serve, path, started):
    def open_session(*words, **environment):
        serve(**environment)
        child = pexpect.spawn(str(VEXCTL), ["--socket", path, *words], timeout=LIMIT_S, encoding="utf-8",
                              codec_errors="replace", env=dict(PLAIN, TERM="xterm"))
        started.append(child)
        child.expect("main> ")
        return child
    return open_session


def is_raw(child):
    return not termios.tcgetattr(child.child_fd)[3] & termios.ICANON


def test_without_words_at_a_terminal_a_session_opens(session):
    child = session()
    assert is_raw(child)
    child.send("core show ver\tion\r")
    child.expect("git-version: v0.0.1\r\n")
    child.expect("main> ")
    child.send("exit\r")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 0


def test_ctrl_c_gives_up_the_command_and_not_the_session(session, fake_encd):
    daemon = fake_encd("never")
    child = session(KLRPC_CALL_TIMEOUT_MS="60000")
    child.send("encd SetQulity high\r")
    wait_until(lambda: is_asked(daemon), "the daemon is asked")
    child.send("\x03")
    child.expect("cancelled: given up")
    child.expect("main> ")
    child.send("core show version\r")
    child.expect("git-version")


@pytest.mark.parametrize("end", ["leave", "exit", "kill the tool", signal.SIGTERM, signal.SIGHUP, signal.SIGINT])
def test_the_terminal_is_as_it_was_however_it_ends(serve, path, end):
    tool = serve()
    main, other = pty.openpty()
    before = termios.tcgetattr(other)
    with subprocess.Popen([VEXCTL, "--socket", path], stdin=other, stdout=other, stderr=other,
                          start_new_session=True) as child:
        received = b""
        while b"main> " not in received:
            assert select.select([main], [], [], LIMIT_S)[0], received
            received += os.read(main, 4096)
        assert termios.tcgetattr(other) != before
        if end == "leave":
            os.write(main, b"\x1d")
        elif end == "exit":
            os.write(main, b"exit\r")
        elif end == "kill the tool":
            tool.kill()
        else:
            child.send_signal(end)
        status = child.wait(LIMIT_S)
    assert status == {"leave": 0, "exit": 0, "kill the tool": 3}.get(end, -end if isinstance(end, int) else None)
    assert termios.tcgetattr(other) == before
    os.close(main)
    os.close(other)


def test_the_windows_size_is_followed(session):
    child = session()
    child.setwinsize(24, 20)
    child.send("x" * 40)
    for _ in range(40):
        child.expect("x")
    child.send("\x15core show version\r")
    # In a window of twenty columns the line took three rows, which the editor goes back over.
    child.expect("\x1b\\[[0-9]*A")
    child.expect("git-version")
