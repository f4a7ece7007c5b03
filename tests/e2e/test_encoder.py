"""The encoder driven from the console: the real daemon, no daemon, and daemons that misbehave."""

import os
import signal
import subprocess
import threading
import time

import pytest

from conftest import BIN, LIMIT_S, interrupt_and_wait, wait_until
from test_console import VERSION, VERSION_END

FAILED = "code= 500 result=\n"


def test_set_qulity_reaches_the_running_encoder(tool, connect, start_encd):
    start_encd()
    program = connect(tool.port())
    high = program.run("encd SetQulity high")
    low = program.run("encd SetQulity low")
    assert high.startswith("code= 0 result=") and low.startswith("code= 0 result=")
    assert high != low  # the daemon tells the bitrate that it has set


@pytest.mark.parametrize("word, wire", [("low", "LOW"), ("middle", "MIDDLE"), ("high", "HIGH"), ("HIGH", "LOW"),
                                        ("foo", "LOW")])
def test_the_word_decides_what_is_sent(tool, connect, fake_encd, word, wire):
    daemon = fake_encd("status", "7", "seven it is")
    assert connect(tool.port()).run(f"encd SetQulity {word}") == "code= 7 result=seven it is\n"
    assert f"qulity: {wire}" in daemon.output()
    assert "encoder.v1.SetVideoQualityRequest" in daemon.output()


# A daemon's text that would set a terminal's title, clear its screen and write a prompt over the line.
HOSTILE = "\x1b]0;owned\x07\x1b[2J\u009b2J\x7f\rmain> ü"
HOSTILE_SHOWN = r"\x1b]0;owned\x07\x1b[2J\xc2\x9b2J\x7f\x0dmain> ü"


def test_a_daemons_text_does_not_drive_a_telnet_clients_terminal(tool, telnet, fake_encd):
    fake_encd("status", "7", HOSTILE)
    session = telnet(tool.port())
    session.send("encd SetQulity high\r")
    session.expect_exact("code= 7 result=")
    session.expect("\r\n")
    assert session.before == HOSTILE_SHOWN
    session.expect("main> ")


def test_a_daemons_text_does_not_drive_the_tools_own_terminal(terminal, fake_encd):
    fake_encd("status", "7", HOSTILE)
    session = terminal()
    session.send("encd SetQulity high\r")
    session.expect_exact("code= 7 result=")
    session.expect("\r\n")
    assert session.before == HOSTILE_SHOWN


def test_programs_and_pipes_get_a_daemons_text_as_it_is(tool, connect, fake_encd, tmp_path):
    fake_encd("status", "7", HOSTILE)
    wanted = f"code= 7 result={HOSTILE}\n"
    assert connect(tool.port()).run("encd SetQulity high") == wanted
    interrupt_and_wait(tool)
    piped = subprocess.run([BIN / "vextool", "--local_console", "--cli_port=0"], input=b"encd SetQulity high\n",
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=LIMIT_S, check=True,
                           env=dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "log")))
    assert piped.stdout == wanted.encode()


@pytest.mark.parametrize("line", ["encd SetQulity", "encd SetQulity low high"])
def test_another_word_count_sends_nothing(tool, connect, fake_encd, line):
    daemon = fake_encd("status", "0", "")
    assert "code=" not in connect(tool.port()).run(line)
    assert "SetVideoQualityRequest" not in daemon.output()


def test_no_daemon_fails_at_once_and_is_logged(tool, connect):
    program = connect(tool.port())
    start = time.monotonic()
    assert program.run("encd SetQulity high") == FAILED
    assert time.monotonic() - start < 2.5  # well below the 3 s that a silent daemon gets
    assert "request set video quality failure" in tool.log()
    assert "encd@default" in tool.log()


def test_a_daemon_that_never_answers_costs_three_seconds_and_disturbs_nobody(tool, connect, fake_encd):
    daemon = fake_encd("never")
    waiting, other = connect(tool.port()), connect(tool.port())
    waiting.send("encd SetQulity high\n")
    wait_until(lambda: "SetVideoQualityRequest" in daemon.output(), "the request arrives")
    assert other.run("core show version", VERSION_END) == VERSION
    assert waiting.received == b""
    assert waiting.until("\n") == FAILED
    assert waiting.run("core show version", VERSION_END) == VERSION


def test_a_daemon_killed_in_the_middle_of_a_call(tool, connect, fake_encd):
    daemon = fake_encd("never")
    program = connect(tool.port())
    program.send("encd SetQulity high\n")
    wait_until(lambda: "SetVideoQualityRequest" in daemon.output(), "the request arrives")
    start = time.monotonic()
    daemon.kill()
    assert program.until("\n") == FAILED
    assert time.monotonic() - start < 2.5 or LIMIT_S > 20
    assert program.run("core show version", VERSION_END) == VERSION


def test_a_daemon_that_dies_on_the_request(tool, connect, fake_encd):
    fake_encd("die")
    assert connect(tool.port()).run("encd SetQulity high") == FAILED


def test_the_first_call_after_the_daemon_came_back_succeeds(tool, connect, fake_encd):
    program = connect(tool.port())
    for round_number in range(5):
        assert program.run("encd SetQulity high") == FAILED
        daemon = fake_encd("status", str(round_number), "back")
        assert program.run("encd SetQulity high") == f"code= {round_number} result=back\n"
        daemon.kill()


def test_a_reply_of_another_type_reads_as_its_defaults(tool, connect, fake_encd):
    fake_encd("wrong-type")
    assert connect(tool.port()).run("encd SetQulity high") == "code= 0 result=\n"


def test_a_reply_that_does_not_parse_reads_as_its_defaults(tool, connect, fake_encd):
    fake_encd("garbage")
    program = connect(tool.port())
    assert program.run("encd SetQulity high") == "code= 0 result=\n"
    assert program.run("core show version", VERSION_END) == VERSION


def test_a_daemon_that_does_not_know_the_request(tool, connect, fake_encd):
    fake_encd("refuse")
    assert connect(tool.port()).run("encd SetQulity high") == FAILED
    assert "encoder.v1.SetVideoQualityRequest" in tool.log()


def test_a_frozen_daemon_does_not_hang_the_tool(tool, connect, fake_encd):
    daemon = fake_encd("status", "0", "fine")
    program = connect(tool.port())
    assert program.run("encd SetQulity high") == "code= 0 result=fine\n"
    daemon.freeze()
    assert program.run("encd SetQulity high") == FAILED
    daemon.signal(signal.SIGCONT)
    assert program.run("encd SetQulity low") == "code= 0 result=fine\n"


def test_sigint_while_commands_wait_and_sessions_are_open(tool, connect, fake_encd):
    daemon = fake_encd("never")
    waiting = [connect(tool.port()) for _ in range(5)]
    for program in waiting:
        program.send("encd SetQulity high\n")
    wait_until(lambda: daemon.output().count("SetVideoQualityRequest") >= 2, "requests arrive")
    start = time.monotonic()
    assert interrupt_and_wait(tool) == 1
    assert time.monotonic() - start < 5 or LIMIT_S > 20
    assert "***** Unload all modules *****" in tool.log()


def test_sigint_under_load(start_tool, connect, fake_encd):
    fake_encd("status", "0", "fine")
    for _ in range(5):
        tool = start_tool()
        programs = [connect(tool.port()) for _ in range(8)]
        stop = threading.Event()

        def hammer(program):
            try:
                while not stop.is_set():
                    program.run("encd SetQulity high")
            except (OSError, AssertionError):
                pass  # the tool has gone

        threads = [threading.Thread(target=hammer, args=(program,)) for program in programs]
        for thread in threads:
            thread.start()
        programs[0].socket.getpeername()
        status = interrupt_and_wait(tool)
        stop.set()
        for thread in threads:
            thread.join()
        assert status == 1
        tool.err.unlink()


def test_ctrl_c_of_a_telnet_client_while_a_command_waits(tool, telnet, fake_encd):
    daemon = fake_encd("never")
    session = telnet(tool.port())
    session.send("encd SetQulity high\rcore set debug 77\r")
    wait_until(lambda: "SetVideoQualityRequest" in daemon.output(), "the request arrives")
    session.send("\x03")
    session.expect("cancelled: given up; a daemon that has the request may still carry it out\r\n")
    assert "code=" not in session.before
    session.expect("main> ")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")
    assert "77" not in session.before  # the line that was waiting behind the command is dropped


def test_ctrl_c_at_the_terminal_while_a_command_waits(tmp_path, terminal, fake_encd):
    daemon = fake_encd("never")
    session = terminal()
    session.send("encd SetQulity high\r")
    wait_until(lambda: "SetVideoQualityRequest" in daemon.output(), "the request arrives")
    session.send("\x03")
    session.expect("cancelled: given up; a daemon that has the request may still carry it out\r\n")
    assert "code=" not in session.before
    session.expect("main> ")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")
    session.send("\x03")  # the prompt is there, or comes in a moment
    wait_until(lambda: not session.isalive(), "the tool ends")
    assert session.exitstatus == 1


def test_the_terminals_ctrl_c_gives_up_one_command_after_another(terminal, fake_encd):
    daemon = fake_encd("never")
    session = terminal()
    for count in (1, 2):
        session.send("encd SetQulity high\r")
        wait_until(lambda: daemon.output().count("SetVideoQualityRequest") == count, "the request arrives")
        session.send("\x03")
        session.expect("cancelled: given up")
        session.expect("main> ")
    assert session.isalive()


def test_an_operator_is_told_why_a_command_did_not_end_well(tool, telnet, connect):
    session = telnet(tool.port())
    session.send("encd SetQulity high\r")
    session.expect("code= 500 result=\r\n")
    session.expect_exact("unreachable: encd: can't connect: Connection refused; is it running? (code 14)\r\n")
    assert connect(tool.port()).run("encd SetQulity high") == FAILED


def test_encd_killed_and_restarted_while_the_console_stays(tool, connect, start_encd):
    program = connect(tool.port())
    for _ in range(2):
        daemon = start_encd()
        assert program.run("encd SetQulity high").startswith("code= 0 result=")
        daemon.kill()
        assert program.run("encd SetQulity high") == FAILED
