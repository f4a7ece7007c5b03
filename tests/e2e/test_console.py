"""The console over TCP: programs, telnet clients, and hostile connections."""

import os
import socket
import struct

import pytest

from conftest import LIMIT_S, Connection, wait_until

VERSION = "\tbuild-date:\t 2025-12-11_16:34:42\ngit-version: v0.0.1\n"
VERSION_END = "git-version: v0.0.1\n"


def reset(session):
    """Closes with a TCP reset, as a peer that vanished."""
    session.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    session.close()


def resident_kb(tool):
    with open(f"/proc/{tool.process.pid}/status", encoding="ascii") as status:
        return int(next(line for line in status if line.startswith("VmRSS")).split()[1])


def still_works(connect, tool):
    assert connect(tool.port()).run("core show version", VERSION_END) == VERSION


def test_a_program_gets_only_what_its_commands_print(tool, connect):
    program = connect(tool.port())
    program.send("core show version\n")
    assert program.until(VERSION_END) == VERSION
    assert program.finish() == ""


def test_lines_in_one_packet_all_run_in_order(tool, connect):
    program = connect(tool.port())
    program.send("core set debug 3\ncore show version\r\ncore set debug 4\n")
    assert program.finish() == "\t debug level:\t3\n" + VERSION + "\t debug level:\t4\n"


def test_output_is_complete_after_the_client_closed_its_sending_side(tool, connect):
    program = connect(tool.port())
    program.send("core show version\n" * 2000)  # far over 64 KiB of answers
    assert program.finish() == VERSION * 2000


def test_a_last_line_without_an_end_runs(tool, connect):
    program = connect(tool.port())
    program.send("core show version")
    assert program.finish() == VERSION


def test_menus_are_entered_and_left(tool, connect):
    program = connect(tool.port())
    program.send("core\nset debug 7\nmain\nshow version\ncore show version\n")
    answer = program.finish()
    assert answer.startswith("\t debug level:\t7\n")
    assert answer.endswith(VERSION)
    assert "show" in answer[len("\t debug level:\t7\n"):-len(VERSION)]  # at the root the third one is unknown


@pytest.mark.parametrize("line, wanted", [
    ("encd SetQuality high", "SetQulity"),
    ("encd SetQulity", "qulity<low middle high>"),
    ("core set debug 12a", "12a"),
    ("xyzzy", "help"),
    ("core show version extra", "show"),
    ('core show "version', "quote"),
])
def test_a_wrong_line_gets_an_answer_that_helps(tool, connect, line, wanted):
    program = connect(tool.port())
    program.send(line + "\n")
    answer = program.finish()
    assert wanted in answer
    assert len(answer.splitlines()) <= 4


def test_telnet_client_walks_the_menus(tool, telnet):
    session = telnet(tool.port())
    session.send("core\r")
    session.expect("core> ")
    session.send("set debug 5\r")
    session.expect("\t? *debug level:\\s*5")
    session.expect("core> ")
    session.send("..\r")
    session.expect("main> ")
    session.send("exit\r")
    session.expect("Connection closed")


def test_telnet_tab_completes_across_levels(tool, telnet):
    session = telnet(tool.port())
    session.send("enc\t")
    session.expect("encd ")
    session.send("Set\t")
    session.expect("SetQulity ")
    session.send("\x03")
    session.expect("main> ")


def test_telnet_ctrl_c_drops_the_line_and_the_session_goes_on(tool, telnet):
    session = telnet(tool.port())
    session.send("garbage that must not run\x03")
    session.expect("main> ")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")


def test_description_leaves_the_next_prompt_on_a_line_of_its_own(tool, telnet):
    session = telnet(tool.port())
    session.send("apisdk description\r")
    session.expect(r"apisdk tools\r\n(\x1b\[[?0-9;]*[A-Za-z]|\r)*main> ")


def test_ten_megabytes_without_a_newline_are_refused_once(tool, connect):
    before = resident_kb(tool) if tool.port() else 0
    program = connect(tool.port())
    for _ in range(160):
        program.send(b"x" * 65536)
    program.send("\ncore show version\n")
    answer = program.finish()
    assert answer.endswith(VERSION)
    assert len(answer[:-len(VERSION)].splitlines()) == 1
    assert "4096" in answer
    assert resident_kb(tool) - before < 8192 or os.environ.get("VEX_SANITIZE")
    still_works(connect, tool)


@pytest.mark.parametrize("line", ["encd help", "encd ?"])
def test_help_behind_a_menus_name_lists_the_menu(tool, connect, line):
    program = connect(tool.port())
    answer = program.run(line, "send a proto message\n")
    assert answer.startswith(" - encd\n") and " - SetQulity <" in answer


def test_binary_noise_harms_nobody(tool, connect):
    other = connect(tool.port())
    noise = os.urandom(1 << 20)
    for first in (b"\xff", b"a"):
        program = connect(tool.port(), Connection)
        try:
            program.send(first + noise)
            program.finish()
        except OSError:
            pass  # cut off is as good
    assert other.run("core show version", VERSION_END) == VERSION


def test_a_thousand_connections_at_once(tool, connect):
    port = tool.port()
    sockets = []
    for _ in range(1000):
        sockets.append(socket.create_connection(("127.0.0.1", port), LIMIT_S))
    refused = 0
    for one in sockets:
        one.settimeout(LIMIT_S)
        one.sendall(b"core show version\n")
    for one in sockets:
        data = b""
        try:
            one.shutdown(socket.SHUT_WR)
            while chunk := one.recv(65536):
                data += chunk
        except OSError:
            pass  # so many are refused that not all of them are waited for
        refused += b"git-version" not in data
        one.close()
    assert refused <= 1000 - 64
    still_works(connect, tool)


def test_the_session_over_the_limit_is_told_so(start_tool, connect):
    tool = start_tool(environment={"KLBASE_CONSOLE_MAX_SESSIONS": "2"})
    first, _ = connect(tool.port()), connect(tool.port())
    third = connect(tool.port(), Connection)
    assert "2" in third.rest()
    first.finish()
    wait_until(lambda: VERSION in answered(tool), "a place is free again")


def answered(tool):
    program = Connection(tool.port())
    try:
        program.send("core show version\n")
        return program.finish()
    except OSError:
        return ""
    finally:
        program.close()


def test_connections_that_send_nothing_disturb_nobody(tool, connect):
    silent = [connect(tool.port(), Connection) for _ in range(40)]
    still_works(connect, tool)
    for one in silent:
        reset(one)
    still_works(connect, tool)


def test_a_reader_that_takes_nothing_stalls_nobody(tool, connect):
    stuck = connect(tool.port())
    stuck.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    stuck.socket.setblocking(False)
    try:
        while True:
            stuck.socket.send(b"core show version\n" * 1000)
    except BlockingIOError:
        pass  # the tool has stopped reading: its answers can't leave
    for _ in range(20):
        still_works(connect, tool)


@pytest.mark.parametrize("beginning, record", [
    ("POST / HTTP/1.1", "it speaks HTTP"),
    ("PROPFIND / HTTP/1.1", "it speaks HTTP"),
    ("FOO /x y HTTP/1.1", "it speaks HTTP"),
    ("get / http/1.1", "it speaks HTTP"),
    ("\r\nQUERY / HTTP/2.0", "it speaks HTTP"),
    ("FOO /" + "x" * 5000 + " HTTP/1.1", "its first line is too long"),
    ("\x16\x03\x01\x02", "it begins with a byte that nobody types"),
])
def test_a_browser_cannot_drive_the_console(tool, connect, beginning, record):
    browser = connect(tool.port(), Connection)
    browser.send(beginning + "\r\nHost: x\r\n\r\ncore set debug 9\r\nshutdown\r\n")
    assert "debug level" not in browser.rest_or_reset()
    wait_until(lambda: record in tool.log(), "the refusal is logged")
    still_works(connect, tool)


def test_an_address_that_is_not_loopback_needs_a_password_file(tmp_path, start_tool):
    tool = start_tool(environment={"KLBASE_CONSOLE_ADDRESS": "0.0.0.0"})
    assert tool.wait() == 255
    assert "KLBASE_CONSOLE_PASSWORD_FILE" in tool.errors()


def test_shutdown_ends_the_tool_with_0_for_all(tool, connect):
    other = connect(tool.port())
    connect(tool.port()).send("shutdown\n")
    assert tool.wait() == 0
    assert other.rest() == ""
