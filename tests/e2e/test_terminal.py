"""The local console: a terminal, a pipe, a file."""

import fcntl
import os
import pty
import signal
import subprocess
import termios

import pexpect

from conftest import BIN, LIMIT_S, wait_until
from test_console import VERSION


def run_lines(tmp_path, stdin, **more):
    return subprocess.run([BIN / "vextool", "--local_console", "--cli_port=0"], capture_output=True, text=True,
                          timeout=LIMIT_S, check=False,
                          env=dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "log"), **more), **stdin)


def test_piped_lines_run_in_order_with_nothing_added(tmp_path):
    done = run_lines(tmp_path, {"input": "core show version\ncore\nset debug 2\n"})
    assert done.stdout == VERSION + "\t debug level:\t2\n"
    assert done.returncode == 0


def test_a_file_as_standard_input_works_like_a_pipe(tmp_path):
    lines = tmp_path / "lines"
    lines.write_text("core show version\n" * 500)
    with open(lines, encoding="ascii") as stdin:
        done = run_lines(tmp_path, {"stdin": stdin})
    assert done.stdout == VERSION * 500
    assert done.returncode == 0


def test_exit_in_piped_lines_ends_with_0_and_runs_nothing_more(tmp_path):
    done = run_lines(tmp_path, {"input": "exit\ncore show version\n"})
    assert (done.stdout, done.returncode) == ("", 0)


def test_a_closed_output_ends_the_tool_without_a_crash(tmp_path):
    read_end, write_end = os.pipe()
    os.close(read_end)
    with subprocess.Popen([BIN / "vextool", "--local_console", "--cli_port=0"], stdin=subprocess.PIPE, stdout=write_end,
                          stderr=subprocess.DEVNULL,
                          env=dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "log"))) as tool:
        os.close(write_end)
        try:
            tool.stdin.write(b"core show version\n" * 1000)
            tool.stdin.close()
        except BrokenPipeError:
            pass
        assert tool.wait(LIMIT_S) == 0


def test_ctrl_d_at_the_prompt_ends_with_0(terminal):
    session = terminal()
    session.send("\x04")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 0


def test_ctrl_c_at_the_prompt_ends_with_1_and_restores_the_terminal(tmp_path, terminal):
    session = terminal()
    session.send("half a line")
    session.expect("half a line")
    assert not termios.tcgetattr(session.child_fd)[3] & termios.ICANON
    session.send("\x03")
    wait_until(lambda: not session.isalive(), "the tool ends")
    assert session.exitstatus == 1
    assert "***** Unload all modules *****" in (tmp_path / "vextool.log").read_text()


def test_the_terminal_is_as_before_after_exit_and_after_sigint(tmp_path):
    """The test keeps the terminal open, so that its settings can be read after the tool has ended."""
    for ending in ("exit\r", "\x03"):
        controller, terminal_end = pty.openpty()
        before = termios.tcgetattr(terminal_end)
        tool = subprocess.Popen([BIN / "vextool", "--local_console", "--cli_port=0"], stdin=terminal_end,
                                stdout=terminal_end, stderr=terminal_end, start_new_session=True,
                                preexec_fn=lambda fd=terminal_end: fcntl.ioctl(fd, termios.TIOCSCTTY, 0),
                                env=dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "log"), TERM="xterm",
                                         KLBASE_HISTORY_FILE=str(tmp_path / "history")))
        shown = b""
        while b"main> " not in shown:
            shown += os.read(controller, 4096)
        assert termios.tcgetattr(terminal_end) != before
        os.write(controller, ending.encode())
        assert tool.wait(LIMIT_S) == (0 if ending == "exit\r" else 1)
        assert termios.tcgetattr(terminal_end) == before
        os.set_blocking(controller, False)
        shown += os.read(controller, 65536)
        assert shown.rfind(b"\x1b[?2004l") > shown.rfind(b"\x1b[?2004h") >= 0  # the next paste comes without marks
        os.close(controller)
        os.close(terminal_end)


def test_answers_and_refusals_keep_their_order_on_a_pipe(tmp_path):
    done = run_lines(tmp_path, {"input": "core show version\ncore set debug one\ncore show version\n"})
    between = ('core set: cannot take "one" as <level(int)> (bad from_string conversion: source string value could not '
               "be interpreted as target). Usage: core set <debug> <level(int)>\n")
    assert done.stdout == VERSION + between + VERSION


def test_a_dumb_terminal_gets_no_escape_sequences(tmp_path):
    session = pexpect.spawn(str(BIN / "vextool"), ["--local_console", "--cli_port=0"], timeout=LIMIT_S, encoding="utf-8",
                            env=dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "log"), TERM="dumb"))
    session.expect("main> ")
    session.send("core show version\n")
    session.expect("git-version: v0.0.1\r\nmain> ")
    assert "\x1b" not in session.before
    session.send("exit\n")
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 0


def test_ctrl_c_at_a_dumb_terminal_gives_up_a_command_and_ends_the_tool_at_the_prompt(terminal, fake_encd):
    fake_encd("never")
    session = terminal(TERM="dumb")
    session.send("rpc call SetVideoQualityRequest qulity=HIGH --within 60\n")
    wait_until(lambda: termios.tcgetattr(session.child_fd)[6][termios.VINTR] == b"\0", "the key can be read")
    session.send("\x03")
    session.expect_exact("^C\r\n")
    session.expect("cancelled: ")
    session.expect("main> ")
    assert session.isalive()
    wait_until(lambda: termios.tcgetattr(session.child_fd)[6][termios.VINTR] == b"\x03", "the key is the signal again")
    session.send("\x03")
    wait_until(lambda: not session.isalive(), "the tool ends")
    assert session.exitstatus == 1


def test_history_of_the_last_run_is_there(terminal):
    session = terminal()
    session.send("core show version\r")
    session.expect("git-version")
    session.expect("main> ")
    session.send("exit\r")
    session.expect(pexpect.EOF)
    session = terminal()
    session.send("\x1b[A\x1b[A\r")  # up past `exit`
    session.expect("git-version: v0.0.1")


def test_a_stopped_and_continued_tool_shows_its_prompt_again(terminal):
    session = terminal()
    session.send("core sh")
    session.expect("core sh")
    session.kill(signal.SIGSTOP)
    session.kill(signal.SIGCONT)
    session.send("ow version\r")
    session.expect("git-version: v0.0.1")
