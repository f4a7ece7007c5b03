"""Flags, exit status, log file and the ways in which the tool starts and ends."""

import os
import signal
import socket
import stat
import subprocess

import pexpect
import pytest

from conftest import BIN, LIMIT_S, Child, interrupt_and_wait, wait_until


MODULES = ["rpcservice", "PubSubGetSeek", "ResultReport"]  # in their order of loading


def run_tool(*flags, environment=None, lines=""):
    full = dict(os.environ, KLBASE_LOG_FILE="/dev/null")
    full.update(environment or {})
    return subprocess.run([BIN / "vextool", *flags], input=lines, capture_output=True, text=True, timeout=LIMIT_S,
                          env=full, check=False)


def test_without_flags_it_serves_port_50000_and_no_local_console(tmp_path, started, connect):
    tool = Child(tmp_path, "plain", [BIN / "vextool"], dict(os.environ, KLBASE_LOG_FILE="/dev/null"))
    started.append(tool)
    wait_until(lambda: "console listens on 127.0.0.1:50000" in tool.errors(), "the console listens")
    operator = connect(50000)
    operator.send("who\n")
    sessions = operator.finish()
    assert "program" in sessions
    assert "stdin" not in sessions
    assert tool.process.poll() is None  # its standard input is at its end: a local console would have ended it


def test_help_shows_both_flags():
    shown = run_tool("--helpfull").stdout
    assert "vextool program" in shown
    assert "cli telnet server port" in shown
    assert "cli start local console" in shown


@pytest.mark.parametrize("flag", ["--cli_port=abc", "--cli_port=2147483648", "--local_console=maybe", "--no_such_flag=1"])
def test_a_bad_flag_is_reported_before_logging_starts(flag, tmp_path):
    log = tmp_path / "log"
    done = run_tool(flag, environment={"KLBASE_LOG_FILE": str(log)})
    assert done.returncode == 1
    assert flag.split("=")[0].lstrip("-") in done.stderr
    assert not log.exists()


@pytest.mark.parametrize("port", ["-1", "65536", "2147483647"])
def test_a_port_out_of_range_ends_the_program_with_255_and_says_so(port):
    done = run_tool(f"--cli_port={port}")
    assert done.returncode == 255
    assert done.stderr.startswith("Exception caugth in main: ")
    assert port in done.stderr and "65535" in done.stderr


def test_a_port_in_use_ends_the_program_with_255_and_says_what_to_do():
    with socket.socket() as holder:
        holder.bind(("127.0.0.1", 0))
        holder.listen()
        port = holder.getsockname()[1]
        done = run_tool(f"--cli_port={port}")
    assert done.returncode == 255
    assert done.stderr.startswith("Exception caugth in main: ")
    assert str(port) in done.stderr and "choose another" in done.stderr


def test_by_default_it_logs_from_level_20_to_5_files_of_51200_kib():
    """On a /var/log of its own, which holds files of earlier runs; the live one is full but for a byte."""
    in_private_folder = ["unshare", "--map-root-user", "--mount", "sh", "-ec", "mount -t tmpfs tmpfs /var/log; " + """
        truncate -s $((51200 * 1024 - 1)) /var/log/vextool.log
        for i in 1 2 3 4; do echo "old $i" > /var/log/vextool.$i.log; done
        "$0" --local_console --cli_port=0 < /dev/null
        stat -c "%n %s" /var/log/* >&2
        cat /var/log/vextool.4.log /var/log/vextool.log"""]
    if subprocess.run([*in_private_folder[:3], "true"], check=False, capture_output=True).returncode != 0:
        pytest.skip("this machine gives no mount namespace")
    plain = {name: value for name, value in os.environ.items() if not name.startswith("KLBASE_")}
    done = subprocess.run([*in_private_folder, BIN / "vextool"], capture_output=True, text=True, timeout=LIMIT_S,
                          env=dict(plain, KLBASE_DEBUG="1"), check=True)
    files = [line.split() for line in done.stderr.splitlines() if line.startswith("/var/log/")]
    assert [name for name, _ in files] == [f"/var/log/vextool{number}.log" for number in (".1", ".2", ".3", ".4", "")]
    assert files[0][1] == str(51200 * 1024)  # the byte that was left ended the unfinished line
    assert done.stdout.startswith("old 3\n")
    records = [line for line in done.stdout.splitlines()[1:] if not line.startswith(" ")]
    assert {record.split()[2] for record in records} == {"20", "30", "40"}


def test_an_unwritable_log_is_one_line_and_the_tool_goes_on(start_tool):
    tool = start_tool(environment={"KLBASE_LOG_FILE": "/proc/no/such/log"})
    tool.port()
    lines = [line for line in tool.errors().splitlines() if "/proc/no/such/log" in line]
    assert len(lines) == 1
    assert interrupt_and_wait(tool) == 1


def test_a_password_file_that_others_can_change_or_read_ends_the_program_with_255(tmp_path):
    def refusal(file):
        done = run_tool("--cli_port=0", environment={"KLBASE_CONSOLE_PASSWORD_FILE": str(file)})
        assert done.returncode == 255
        return done.stderr
    password = tmp_path / "password"
    password.write_text("$6$saltsalt$TVLlQcbpFVof5W3Yz4DTP6gRstiNuHwwTt6GLc1E5n0U0aDehy0S5knV8wiOQSpT0Y77vwPZN.Pq.H91p5hVO1\n")
    for mode in (0o622, 0o640, 0o604, 0o601):
        password.chmod(mode)
        assert f"is open to its group or to others; take their rights away: chmod 600 {password}" in refusal(password)
    password.chmod(0o600)
    link = tmp_path / "link"
    link.symlink_to(password)
    assert "is a link; name the file itself" in refusal(link)
    if os.geteuid() == 0:
        os.chown(password, 4711, 0)
        assert "belongs to user 4711" in refusal(password)


def test_without_a_folder_that_can_be_written_the_tool_works_and_says_what_it_lacks(tmp_path, started):
    """All of its files are on a file system that is read-only: its log, its home folder and so its history."""
    alone = ["unshare", "--map-root-user", "--mount"]
    if subprocess.run([*alone, "true"], check=False, capture_output=True).returncode != 0:
        pytest.skip("this machine gives no mount namespace")
    plain = {name: value for name, value in os.environ.items() if not name.startswith(("KLBASE_", "XDG_"))}
    session = pexpect.spawn(alone[0], [*alone[1:], "sh", "-ec", 'mount -t tmpfs -o ro tmpfs "$0"; exec "$@"', str(tmp_path),
                                       str(BIN / "vextool"), "--local_console", "--cli_port=0"], timeout=LIMIT_S,
                            encoding="utf-8", env=dict(plain, HOME=str(tmp_path), TERM="xterm",
                                                       KLBASE_LOG_FILE=str(tmp_path / "log")))
    started.append(session)
    session.expect_exact(f"can't write the log file '{tmp_path}/log': Read-only file system")
    session.expect_exact(f"history file '{tmp_path}/.local/state/vextool/history' is not used")
    session.expect("main> ")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")
    session.send("\x1b[A\r")  # the history is kept in memory
    session.expect("git-version: v0.0.1")
    session.send("exit\r")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 0


@pytest.mark.parametrize("home", [None, "", "/proc/no/such/home"])
def test_without_a_home_folder_the_history_is_kept_in_memory(tmp_path, started, home):
    environment = {name: value for name, value in os.environ.items()
                   if name not in ("HOME", "KLBASE_HISTORY_FILE", "XDG_STATE_HOME")}
    environment.update({"TERM": "xterm", "KLBASE_LOG_FILE": str(tmp_path / "log")}, **({} if home is None else {"HOME": home}))
    session = pexpect.spawn(str(BIN / "vextool"), ["--local_console", "--cli_port=0"], timeout=LIMIT_S, encoding="utf-8",
                            env=environment, cwd=str(tmp_path))
    started.append(session)
    session.expect("main> ")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")
    session.send("\x1b[A\r")
    session.expect("git-version: v0.0.1")
    session.send("exit\r")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 0
    assert not (tmp_path / ".local").exists()


def test_sigint_unloads_the_modules_ends_logging_and_exits_with_1(tool):
    tool.port()
    assert interrupt_and_wait(tool) == 1
    unloading = tool.log().split("***** Unload all modules *****")[1]
    positions = [unloading.index(f"UnLoad Module ***{name}***.") for name in MODULES]
    assert positions == sorted(positions)


def test_end_of_input_at_the_local_console_ends_with_0_and_unloads_nothing(tmp_path):
    log = tmp_path / "log"
    done = run_tool("--local_console", "--cli_port=0", environment={"KLBASE_LOG_FILE": str(log)})
    assert done.returncode == 0
    assert "Unload all modules" not in log.read_text()


def test_the_start_record_needs_the_debug_option(tmp_path):
    for debug, expected in (("0", 0), ("1", 1)):
        log = tmp_path / f"log{debug}"
        run_tool("--local_console", "--cli_port=0", environment={"KLBASE_LOG_FILE": str(log), "KLBASE_DEBUG": debug})
        assert log.read_text().count("debug_flag:1, telent port: 0") == expected


def test_the_log_has_the_records_of_a_start_in_order(tool):
    tool.port()
    log = tool.log()
    positions = [log.index(text) for text in ("Load 3 Modules", *(f"Load Module ***{name}***." for name in MODULES), "install rpc cli", "console listens on")]
    assert positions == sorted(positions)
    assert "modules/core/common/module_loader" in log
    assert "LoadAllModules" in log


def test_a_crash_report_lands_in_the_log(tool):
    tool.port()
    tool.signal(signal.SIGSEGV)
    assert tool.wait() == -signal.SIGSEGV
    assert "Program Exit:" in tool.log()
    assert "SIGSEGV" in tool.log()


def test_start_interrupted_at_any_moment_gives_status_1(start_tool):
    """SIGINT from right after the handler is set to well after the console listens."""
    for round_number in range(15):
        tool = start_tool()
        wait_until(lambda t=tool: "Modules" in t.log() or t.process.poll() is not None, "loading begins")
        if round_number % 3:
            tool.port()
        assert interrupt_and_wait(tool) == 1
        tool.log_file.unlink()
        tool.err.unlink()


def test_the_history_file_is_private(tmp_path, terminal):
    session = terminal()
    session.send("help\r")
    session.expect("main> ")
    session.send("exit\r")
    session.expect(pexpect.EOF)
    mode = stat.S_IMODE((tmp_path / "history").stat().st_mode)
    assert mode == 0o600
    assert "help" in (tmp_path / "history").read_text()
