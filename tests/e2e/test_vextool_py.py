"""python/vextool.py against the built tool."""

import os
import pathlib
import socket
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest

from conftest import LIMIT_S, wait_until

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))

import vextool  # noqa: E402


@pytest.fixture
def console(serve, path):
    serve(KLRPC_CALL_TIMEOUT_MS="60000")
    with vextool.Console(path) as opened:
        yield opened


def test_a_line_gives_its_result(console):
    result = console.run("core show version")
    assert (result.status, result.code, result.reason, result.truncated) == ("ok", 0, "", False)
    assert result.output.endswith("git-version: v0.0.1\n")
    assert result.check() is result
    assert 0 < result.seconds < 10
    assert console.version == "v0.0.1"


def test_words_are_quoted(console):
    assert 'Unknown command "a b"' in console.run("a b", "c").reason
    assert console.run("core", "show", "version").ok
    assert vextool.quote('a"b\\') == '"a\\"b\\\\"'
    assert vextool.quote("") == '""'


def test_a_failed_check_names_line_status_and_reason(console, fake_encd):
    fake_encd("status", "6", "no such quality")
    with pytest.raises(vextool.CommandError) as failed:
        console.run("encd SetQulity high").check()
    assert str(failed.value) == "encd SetQulity high: refused: no such quality (code 6)"
    assert failed.value.result.status == "refused"
    assert isinstance(failed.value, AssertionError)


def test_a_field_that_is_not_there_is_named(console):
    with pytest.raises(KeyError, match="no field 'nonsense'; it has"):
        console.run("core show version")["nonsense"]


def test_a_time_limit_ends_a_line(console, fake_encd):
    fake_encd("never")
    result = console.run("encd SetQulity high", within=0.2)
    assert (result.status, result.ok) == ("timeout", False)
    assert console.run("core show version").ok


def test_menus_stay_and_completions_follow(console):
    console.run("core").check()
    assert console.run("show version").ok
    assert console.complete("sh") == ["show", "shutdown"]


@pytest.mark.parametrize("size", [4097, 65537])
def test_a_line_that_is_too_long_is_refused(serve, path, size):
    """Also one that the tool doesn't read, and so answers without an id."""
    serve()
    line = "x" * size
    with vextool.Console(path) as console:
        result = console.run(line, within=5)
        assert result.status == "usage" and " longer than " in result.reason
        with pytest.raises(vextool.CommandError, match=" longer than "):
            console.complete(line)
        assert console.run("core show version").ok


def test_expectations_are_compared(console):
    console.run("core show version")
    assert console.expect("status=ok").ok
    assert 'code is "0", not code=7' in console.expect("code=7").reason


def test_a_wait_that_finds_nothing_times_out(console):
    assert console.wait("layer/*", "seek_ms>=5000", fail="play_state=5", within=0.05).status == "timeout"
    assert console.wait("layer/*", "nonsense", within=1).status == "usage"


def test_watching_ends_with_its_time(console):
    assert list(console.monitor("layer/*", within=0.05)) == []
    with pytest.raises(vextool.CommandError, match="not a condition"):
        console.monitor("a", "b=1", "c")


def test_without_a_tool_it_says_what_to_do(path, monkeypatch):
    with pytest.raises(vextool.ToolError, match="start vextool, or name its socket"):
        vextool.Console(path)
    monkeypatch.setenv("KLBASE_CONSOLE_SOCKET", "none")
    with pytest.raises(vextool.ToolError, match='"none"'):
        vextool.Console()


def test_a_tool_that_goes_is_an_error_of_its_own(serve, path):
    tool = serve()
    console = vextool.Console(path)
    events = console.monitor()
    tool.kill()
    with pytest.raises(vextool.ToolError, match="has gone"):
        console.run("core show version")
    with pytest.raises(vextool.ToolError, match="has gone"):
        next(events)


def test_a_stopped_tool_is_an_error_and_not_a_result(serve, path, fake_encd):
    daemon = fake_encd("never")
    tool = serve(KLRPC_CALL_TIMEOUT_MS="60000")
    console = vextool.Console(path)
    tool.freeze()
    with pytest.raises(vextool.ToolError, match="does not answer"):
        console.run("core show version", within=0.1)
    assert daemon.process.poll() is None


def test_a_tool_that_does_not_answer_a_monitor_is_an_error_of_its_own(path, monkeypatch):
    monkeypatch.setattr(vextool, "CONNECT_S", 0.2)
    greeting = b'{"vextool":"v0.0.1","protocol":1,"session":1}\n'
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(path)
        listener.listen()
        with ThreadPoolExecutor(1) as pool:
            def greet():
                connection, _ = listener.accept()
                connection.sendall(greeting)
                return connection
            greeted = [pool.submit(greet)]
            with vextool.Console(path) as console:
                greeted.append(pool.submit(greet))
                with pytest.raises(vextool.ToolError, match="does not answer"):
                    console.monitor()
            with greeted[0].result(LIMIT_S), greeted[1].result(LIMIT_S) as asked:
                lines = asked.makefile("rb")
                assert (b'"monitor"' in lines.readline(), lines.read()) == (True, b"")  # it was closed


def test_a_refused_session_is_an_error_with_the_tools_reason(serve, path):
    serve(KLBASE_CONSOLE_MAX_SESSIONS="1")
    with vextool.Console(path):
        with pytest.raises(vextool.ToolError, match="all 1 sessions of the console are in use"):
            vextool.Console(path)
    wait_until(lambda: os.path.exists(path), "the socket stays")
