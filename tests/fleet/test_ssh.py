"""fleet/ssh/vextool-operators.conf on a real sshd: what an operator's account can do, and what it can't."""

import contextlib
import json
import os
import re
import socket
import subprocess

import pexpect
import pytest

from devices import LIMIT_S, wait_until

VERSION = "\tbuild-date:\t 2025-12-11_16:34:42\ngit-version: v0.0.1\n"


def command(device, *words, user="ada", options=()):
    """Without "--" ssh itself would take options behind the address."""
    return ["ssh", *options, f"{user}@{device.address}", *(["--", *words] if words else [])]


@pytest.fixture
def ssh(device):
    def run(*words, stdin="", **options):
        return subprocess.run(command(device, *words, **options), input=stdin, capture_output=True, text=True,
                              timeout=LIMIT_S, check=False)
    return run


@pytest.fixture
def canary(ground):
    """A file that whoever gets a shell can make."""
    folder = ground.folder / "canary"
    folder.mkdir(exist_ok=True)
    folder.chmod(0o1777)
    file = folder / "x"
    yield file
    file.unlink(missing_ok=True)


@contextlib.contextmanager
def running(words):
    with subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True) as process:
        try:
            yield process
        finally:
            process.kill()


# --- lines

def test_the_tool_knows_the_account(ssh, device):
    done = ssh("who")
    assert done.returncode == 0
    number = re.search(r"\* (\d+) +control +ada pid \d+", done.stdout)[1]
    assert f"console session {number} opens: control from ada pid " in device.log()
    wait_until(lambda: f"session={number} kind=control user=ada status=ok " in device.log(), "a record of the line")


def test_a_line_gives_its_output_and_the_status_of_vexctl(ssh, device):
    done = ssh("core", "show", "version")
    assert (done.returncode, done.stdout, done.stderr) == (0, VERSION, "")
    assert ssh("playd", "CreateUplayer", "0").returncode == 0
    done = ssh("playd", "GetSeekOfUplayer", "nobody")
    assert done.returncode == 1
    assert done.stderr == 'vexctl: refused: there is no player "nobody"; create it first (code 2)\n'
    done = ssh("playd", "GetSeekOfUplayer")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vexctl: usage: GetSeekOfUplayer takes 1 word, not 0.")
    device.signal("playd", "STOP")
    done = ssh("--within", "0.5", "playd", "GetSeekOfUplayer", "0")
    assert done.returncode == 4
    assert "timeout: " in done.stderr
    device.signal("playd", "KILL")
    done = ssh("playd", "GetSeekOfUplayer", "0")
    assert done.returncode == 3
    assert done.stderr.startswith("vexctl: unreachable: playd")
    device.start("playd", "--headless")


def test_options_stand_before_the_line(ssh):
    assert ssh("--field git_version core show version").stdout == "v0.0.1\n"
    done = ssh("--json", "core", "show", "version")
    assert json.loads(done.stdout)["fields"]["git_version"] == "v0.0.1"
    assert ssh("-q core show version").stdout == ""


def test_quotes_are_the_consoles(ssh):
    done = ssh('--json rpc describe "no  such" \\"')
    assert json.loads(done.stdout)["status"] == "usage"
    assert ssh('core "show" version').stdout == VERSION
    assert ssh('core "show version"').returncode == 2


def test_without_a_command_the_lines_come_on_standard_input(ssh):
    done = ssh(stdin="core\n# a comment\nshow version\nexpect code=7\nshow version\n", options=["-T"])
    assert (done.returncode, done.stdout) == (1, VERSION)
    assert done.stderr == 'vexctl: standard input:4: refused: expect: code is "0", not code=7\n'
    done = ssh("-k", "--json", stdin="nonsense\ncore show version\n")
    assert done.returncode == 2
    assert [json.loads(line)["status"] for line in done.stdout.splitlines()] == ["usage", "ok"]


def test_an_account_without_the_right_to_the_console_is_told_so(ssh):
    done = ssh("who", user="eve")
    assert (done.returncode, done.stdout) == (3, "")
    assert "Permission denied; be a member of the socket's group" in done.stderr


# --- nothing else

ATTACKS = ["; touch {}", "| touch {}", "|| touch {}", "&& touch {}", "& touch {}", "$(touch {})", "`touch {}`", "> {}", ">> {}",
           "\ntouch {}", "\rtouch {}", "' ; touch {} '", '" ; touch {} "', "\\; touch {}", "<(touch {})", "${{x:=$(touch {})}}"]


@pytest.mark.parametrize("attack", ATTACKS)
def test_what_a_shell_would_run_is_a_part_of_the_line(ssh, canary, attack):
    for line in "core show version ", "", "/bin/sh -c ":
        done = ssh(line + attack.format(canary))
        assert not canary.exists()
        assert done.returncode == 2, done
        assert done.stderr.startswith("vexctl: usage: ")


def test_an_account_of_another_group_keeps_its_shell(ssh, canary):
    """So the canary sings where there is a shell."""
    assert ssh(f"true; touch {canary}", user="bob").returncode == 0
    assert canary.exists()


@pytest.mark.parametrize("words", ["-f /etc/passwd", "-f -", "-c who", "--socket /tmp/x who", "--socket=/tmp/x"])
def test_a_client_chooses_neither_files_nor_the_tool(ssh, words):
    done = ssh(words, stdin="core show version\n")
    assert (done.returncode, done.stdout) == (2, "")
    assert "can't come over ssh; --json, --field, --within, -k and -q can" in done.stderr


def test_a_client_sets_no_variable(ssh, ground):
    """Also where sshd accepts it, as that of the test does."""
    options = ["-oSetEnv=KLBASE_CONSOLE_SOCKET=/tmp/x XDG_RUNTIME_DIR=/tmp LC_ALL=xx"]
    assert ssh("echo $KLBASE_CONSOLE_SOCKET", user="bob", options=options).stdout == "/tmp/x\n"
    assert ssh("core show version", options=options).stdout == VERSION
    (ground.folder / "home/ada/.ssh").mkdir(exist_ok=True)
    (ground.folder / "home/ada/.ssh/environment").write_text("KLBASE_CONSOLE_SOCKET=/tmp/x\n", encoding="ascii")
    assert ssh("core show version").stdout == VERSION


def test_no_file_of_the_accounts_home_is_run(ssh, ground, canary):
    for user in "ada", "bob":
        home = ground.folder / "home" / user
        (home / ".ssh").mkdir(exist_ok=True)
        (home / ".ssh/rc").write_text(f"touch {canary}\n", encoding="ascii")
        (home / ".profile").write_text(f"touch {canary}\n", encoding="ascii")
    assert ssh("core show version").returncode == 0
    assert not canary.exists()
    ssh("true", user="bob")
    assert canary.exists()
    (ground.folder / "home/bob/.ssh/rc").unlink()


def test_keys_are_roots_to_give(ssh, ground):
    """Neither a key that lies in the account's home nor a password."""
    key = ground.folder / "keys/own"
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key], check=True, timeout=LIMIT_S)
    for user in "ada", "bob":
        home = ground.folder / "home" / user / ".ssh"
        home.mkdir(exist_ok=True)
        with open(home / "authorized_keys", "a", encoding="ascii") as file:
            file.write(key.with_suffix(".pub").read_text(encoding="ascii"))
    options = ["-F/dev/null", f"-i{key}", "-oIdentitiesOnly=yes", f"-oUserKnownHostsFile={ground.folder}/known_hosts",
               "-oBatchMode=yes"]
    assert ssh("true", user="bob", options=options).returncode == 0
    done = ssh("who", options=options)
    assert (done.returncode, done.stdout) == (255, "")
    assert "Permission denied (publickey)." in done.stderr


def test_files_can_neither_be_fetched_nor_brought(device, tmp_path, canary):
    canary.write_text("x", encoding="ascii")
    source = tmp_path / "source"
    source.write_text("y", encoding="ascii")
    for program in (["sftp", "-b", "/dev/null"], ["scp"], ["scp", "-O"]):
        for user, well in ("ada", False), ("bob", True):
            address = f"{user}@{device.address}:{canary}"
            here = tmp_path / "-".join([*program, user]).replace("/", "")
            here.mkdir()
            words = [*program, address] if program[0] == "sftp" else [*program, address, "."]
            done = subprocess.run(words, capture_output=True, text=True, timeout=LIMIT_S, check=False, cwd=here)
            assert (done.returncode == 0) == well, done
            if not well:
                assert done.stderr.endswith("Connection closed\n") or "vexctl: usage: Unknown command " in done.stderr
            assert (here / "x").exists() == well
            if program[0] == "scp":
                subprocess.run([*program, source, f"{address}.{user}"], capture_output=True, timeout=LIMIT_S, check=False)
                assert canary.with_name(f"x.{user}").exists() == well


# --- forwarding

def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


def answer_through(device, target, user):
    """What the first bytes of a connection through ssh are; "" when it is closed at once."""
    port = free_port()
    with running(command(device, user=user, options=["-N", "-oExitOnForwardFailure=yes", f"-L127.0.0.1:{port}:{target}"])) as ssh:
        def connect():
            assert ssh.poll() is None, ssh.stderr.read()
            with contextlib.suppress(ConnectionRefusedError):
                return socket.create_connection(("127.0.0.1", port), LIMIT_S)
        with wait_until(connect, "ssh listens") as connection:
            connection.settimeout(LIMIT_S)
            with contextlib.suppress(ConnectionResetError):
                connection.sendall(b"who\n")
                connection.shutdown(socket.SHUT_WR)
                return connection.recv(65536).decode(errors="replace")
            return ""


def test_the_consoles_port_is_forwarded_and_the_account_known_there(device):
    assert re.search(r"\* \d+ +program ", answer_through(device, "127.0.0.1:50000", "ada"))
    wait_until(lambda: " kind=program user=ada status=ok " in device.log(), "a record of the line")
    assert "may not use this console" in answer_through(device, "127.0.0.1:50000", "eve")


@pytest.mark.parametrize("target", ["127.0.0.1:22", "10.77.0.1:22", "127.0.0.1:50001", "/run/vextool/console.sock"])
def test_nothing_else_is_forwarded(device, target):
    if target.endswith("1:50001"):
        assert answer_through(device, target, "ada") == ""
        return
    assert answer_through(device, target, "bob") != ""
    assert answer_through(device, target, "ada") == ""


def test_no_port_is_forwarded_back(device):
    def comes_back(user):
        options = ["-N", "-v", "-oExitOnForwardFailure=yes", f"-R0:127.0.0.1:{free_port()}"]
        with running(command(device, user=user, options=options)) as ssh:
            for line in ssh.stderr:
                if "remote forward success" in line or "Allocated port" in line:
                    return True
            return False
    assert comes_back("bob")
    assert not comes_back("ada")


def test_sshd_allows_the_account_nothing_more(device):
    text = device.inside("/usr/sbin/sshd", "-T", "-C", "user=ada,host=x,addr=10.77.255.254")
    settings = dict(line.split(" ", 1) for line in text.splitlines() if " " in line)
    for name in "x11forwarding", "allowagentforwarding", "permittunnel", "permituserrc", "permituserenvironment", \
                "allowstreamlocalforwarding":
        assert settings[name] == "no", name
    assert settings["allowtcpforwarding"] == "local"
    assert settings["permitopen"] == "127.0.0.1:50000"
    assert settings["forcecommand"] == "exec /usr/bin/vexctl"
    text = device.inside("/usr/sbin/sshd", "-T", "-C", "user=bob,host=x,addr=10.77.255.254")
    assert "x11forwarding yes" in text and "forcecommand none" in text


# --- at a terminal

@pytest.fixture
def terminal(device):
    opened = []

    def open_session(*words, options=("-t",)):
        made = command(device, *words, options=options)
        opened.append(pexpect.spawn(made[0], made[1:], timeout=LIMIT_S, encoding="utf-8", codec_errors="replace",
                                    env=dict(os.environ, TERM="xterm"), dimensions=(24, 80)))
        return opened[-1]
    yield open_session
    for session in opened:
        session.close(force=True)


@pytest.mark.parametrize("options", [["-t"], []])
def test_a_person_gets_the_console(terminal, options):
    session = terminal(options=options)
    session.expect("main> ")
    session.send("co\t")
    session.expect("core ")
    session.send("sh\tver\t\r")
    session.expect("git-version: v0.0.1")
    session.send("typed in vain\x03")
    session.expect("main> ")
    session.send("watch 1 core show version\r")
    session.expect("git-version: v0.0.1")
    session.send("\x03")
    session.expect("main> ")
    session.send("exit\r")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 0


def test_a_person_runs_one_line_and_gives_it_up(terminal, ssh):
    wait_for_sessions(ssh, 0)
    session = terminal("wait nothing within 600")
    wait_for_sessions(ssh, 1)
    session.send("\x03")
    session.expect("vexctl: cancelled: ")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 130


def test_the_windows_size_is_followed(terminal):
    session = terminal()
    session.expect("main> ")
    session.setwinsize(24, 20)
    session.send("x" * 40)
    for _ in range(40):
        session.expect("x")
    session.send("\x15core show version\r")
    # In a window of twenty columns the line took three rows, which the editor goes back over.
    session.expect("\x1b\\[[0-9]*A")
    session.expect("git-version")


# --- ends

def wait_for_sessions(ssh, number):
    """Besides the one that asks; those of earlier tests may still be ending."""
    wait_until(lambda: len(re.findall(r"^  \d+ ", ssh("who").stdout, re.MULTILINE)) == number, f"{number} sessions")


@pytest.mark.parametrize("words", [["monitor"], ["wait nothing within 600"], ["-q", "wait nothing within 600"]])
def test_a_client_that_has_gone_leaves_its_place(ssh, device, words):
    wait_for_sessions(ssh, 0)
    with running(command(device, *words)):
        wait_for_sessions(ssh, 1)
    wait_for_sessions(ssh, 0)


def test_a_tool_that_is_killed_shows_as_3(ssh, device, terminal):
    wait_for_sessions(ssh, 0)
    session = terminal()
    session.expect("main> ")
    with running(command(device, "wait nothing within 600")) as waiting:
        wait_for_sessions(ssh, 2)
        device.signal("vextool", "KILL")
        output, errors = waiting.communicate(timeout=LIMIT_S)
    assert (waiting.returncode, output) == (3, "")
    assert errors == "vexctl: unreachable: the tool ended before it answered; whether the line was done is not known\n"
    session.expect("vexctl: unreachable: the tool has ended")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 3
    done = ssh("who")
    assert done.returncode == 3
    assert "Connection refused; start vextool" in done.stderr
    device.start("vextool")
    assert ssh("who").returncode == 0
