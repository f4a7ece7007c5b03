"""The record that each line leaves in the log: who ran it, by which way, and how it ended."""

import crypt
import os
import pwd
import re
import subprocess

import pytest

from conftest import BIN, LIMIT_S, NETWORK, Child, wait_until
from test_vexctl import ENCD, is_asked, vexctl  # noqa: F401  fixture

OWN = pwd.getpwuid(os.geteuid()).pw_name
STRANGER = "nobody"


def records(tool):
    """(kind, user, status, code, line) of each record."""
    return re.findall(r" session=\d+ kind=(\w+) user=(\S+) status=(\w+) code=(\d+) us=\d+ line=(.*)", tool.log())


def recorded(tool, count):
    return wait_until(lambda: len(records(tool)) >= count and records(tool), f"{count} records")


def test_a_scripts_lines_are_recorded_with_their_verdicts(serve, vexctl, fake_encd):  # noqa: F811
    tool = serve(KLRPC_CALL_TIMEOUT_MS="300")
    vexctl(*ENCD)
    recorded(tool, 1)
    fake_encd("status", "6", "no such quality")
    vexctl("-k", "-c", "encd SetQulity high", "-c", "encd SetQulit", "-c", "core show version")
    assert recorded(tool, 4) == [
        ("control", OWN, "unreachable", "14", "encd SetQulity high"), ("control", OWN, "refused", "6", "encd SetQulity high"),
        ("control", OWN, "usage", "0", "encd SetQulit"), ("control", OWN, "ok", "0", "core show version")]


def test_a_line_that_is_given_up_is_recorded_as_cancelled(serve, path, fake_encd):  # noqa: F811
    daemon = fake_encd("never")
    tool = serve(KLRPC_CALL_TIMEOUT_MS="60000")
    with subprocess.Popen([BIN / "vexctl", "--socket", path, *ENCD], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL) as running:
        wait_until(lambda: is_asked(daemon), "the daemon is asked")
        running.send_signal(2)
        running.wait(LIMIT_S)
    assert recorded(tool, 1) == [("control", OWN, "cancelled", "0", "encd SetQulity high")]


def test_each_way_in_is_told_from_the_others(tool, telnet, connect):
    port = tool.port()
    session = telnet(port)
    session.sendline("core")
    session.expect("core> ")
    connect(port).run("core show version", "git-version")
    # In the order of the answers within a session, not from one to another.
    ways = {("telnet", OWN, "ok", "0", "core"), ("program", OWN, "ok", "0", "core show version")}
    assert wait_until(lambda: set(records(tool)) >= ways and set(records(tool)), "both records") == ways


def test_the_local_terminals_lines_are_the_tools_users(terminal, tmp_path):
    session = terminal()
    session.sendline("shwo")
    session.expect("Unknown command")
    session.sendline("exit")
    session.wait()
    log = (tmp_path / "vextool.log").read_text(encoding="utf-8")
    assert f" kind=terminal user={OWN} status=usage code=0 " in log
    assert re.search(rf" kind=terminal user={OWN} status=ok code=0 us=\d+ line=exit\n", log)


def test_piped_lines_are_recorded(start_tool, tmp_path):
    (tmp_path / "lines").write_text("core show version\nno such\n", encoding="ascii")
    with open(tmp_path / "lines", "rb") as lines:
        tool = start_tool("--local_console", stdin=lines)
        assert tool.wait() == 0
    assert records(tool) == [("stdin", OWN, "ok", "0", "core show version"), ("stdin", OWN, "usage", "0", "no such")]


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can be another user")
def test_another_users_lines_name_that_user(serve, path, connect):  # noqa: F811
    tool = serve(KLBASE_CONSOLE_ALLOW="any", KLBASE_LOG_LEVEL="30")
    os.chmod(os.path.dirname(path), 0o755)
    os.chmod(path, 0o666)
    script = ("import socket, sys\n"
              "tcp = socket.create_connection(('127.0.0.1', int(sys.argv[1])))\n"
              "tcp.sendall(b'core show version\\n'); tcp.shutdown(socket.SHUT_WR)\n"
              "while tcp.recv(4096): pass\n"
              "unix = socket.socket(socket.AF_UNIX); unix.connect(sys.argv[2])\n"
              "unix.sendall(b'{\"run\":\"core show version\"}\\n'); unix.shutdown(socket.SHUT_WR)\n"
              "while unix.recv(4096): pass\n")
    subprocess.run(["/usr/bin/python3", "-c", script, str(tool.port()), path], check=True, timeout=LIMIT_S, user=STRANGER)
    assert sorted(recorded(tool, 2)) == [("control", STRANGER, "ok", "0", "core show version"),
                                         ("program", STRANGER, "ok", "0", "core show version")]


# Its end of a cable is put in by name, and a line on standard input says that it is there.
ELSEWHERE = """
import socket, subprocess, sys
sys.stdin.readline()
for words in ("link set lo up", "link set near up", "address add 10.78.0.2/24 dev near"):
    subprocess.run(["ip", *words.split()], check=True)
with socket.create_connection(("10.78.0.1", int(sys.argv[1])), 20) as console:
    console.sendall(b"open sesame\\ncore show version\\nnonsense\\n")
    console.shutdown(socket.SHUT_WR)
    while console.recv(4096):
        pass
"""


def ip(*words):
    subprocess.run(["ip", *map(str, words)], check=True, capture_output=True, timeout=LIMIT_S)


@pytest.fixture
def elsewhere(tmp_path, started):
    """Starts a client in a network of its own, which is 10.78.0.2 for this one."""
    def start(port):
        child = Child(tmp_path, "elsewhere", ["unshare", "--net", "/usr/bin/python3", "-c", ELSEWHERE, port], stdin=subprocess.PIPE)
        started.append(child)
        space = f"/proc/{child.process.pid}/ns/net"
        wait_until(lambda: os.readlink(space) != os.readlink("/proc/self/ns/net"), "a network of its own")
        ip("link", "add", "far", "type", "veth", "peer", "name", "near", "netns", child.process.pid)
        ip("address", "add", "10.78.0.1/24", "dev", "far")
        ip("link", "set", "far", "up")
        child.process.stdin.write(b"\n")
        child.process.stdin.close()
        return child
    return start


@pytest.mark.skipif(os.geteuid() != 0 or NETWORK is not None, reason="network cards in a network of one's own need root")
def test_another_machines_lines_name_its_address_and_not_the_password(start_tool, elsewhere, tmp_path):
    password = tmp_path / "password"
    password.write_text(crypt.crypt("open sesame", crypt.METHOD_SHA512) + "\n", encoding="ascii")
    password.chmod(0o600)
    tool = start_tool(environment={"KLBASE_CONSOLE_ADDRESS": "0.0.0.0", "KLBASE_CONSOLE_PASSWORD_FILE": str(password)})
    listens = wait_until(lambda: re.search(r"console listens on 0\.0\.0\.0:(\d+)", tool.errors()), "the console listens")
    assert elsewhere(listens.group(1)).wait() == 0
    assert recorded(tool, 2) == [("program", "10.78.0.2", "ok", "0", "core show version"),
                                 ("program", "10.78.0.2", "usage", "0", "nonsense")]
    assert "sesame" not in tool.log()


def test_a_line_can_not_forge_a_record(tool, connect):
    session = connect(tool.port())
    session.send(b"who \x0b\x1b[1A\x0c\xc2\x85\xff session=9 kind=telnet user=eve status=ok code=0 us=1 line=shutdown\n")
    session.finish()
    lines = recorded(tool, 2)
    assert len(lines) == 2
    assert lines[1] == ("program", OWN, "usage", "0", "who \\x0b\\x1b[1A\\x0c\\xc2\\x85\\xff session=9 kind=telnet user=eve status=ok "
                        "code=0 us=1 line=shutdown")
