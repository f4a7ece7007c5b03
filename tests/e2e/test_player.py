"""The player driven from the console, its events as they are printed, and the tool's own service."""

import os
import pathlib
import signal
import subprocess

import pexpect
import pytest

from conftest import BIN, LIMIT_S, Child, interrupt_and_wait, wait_until
from test_console import VERSION, VERSION_END

ROOT = pathlib.Path(__file__).resolve().parents[2]
PLAYD = "unix-abstract:playd@default"
STARS = "*" * 39 + "\n"


@pytest.fixture(scope="session")
def clip(tmp_path_factory):
    path = tmp_path_factory.mktemp("clip") / "clip.mp4"
    subprocess.run([BIN / "make_sample_clip", path], check=True, timeout=2 * LIMIT_S)
    return path


@pytest.fixture
def start_playd(tmp_path, started):
    """The real player daemon."""
    def start():
        daemon = Child(tmp_path, f"playd{len(started)}", [BIN / "playd", "--headless"],
                       dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "playd.log")))
        started.append(daemon)
        wait_until(lambda: "listens on" in daemon.output(), "playd listens")
        return daemon
    return start


@pytest.fixture
def start_events(tmp_path, started):
    """A daemon at the player's address that publishes the events named on its standard input; see publisher.cc."""
    def start():
        daemon = Child(tmp_path, f"publisher{len(started)}", [BIN / "publisher", PLAYD],
                       dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "publisher.log")), stdin=subprocess.PIPE)
        started.append(daemon)
        wait_until(lambda: "listens on" in daemon.output(), "publisher listens")
        return daemon
    return start


def test_tab_completes_players_files_and_presets(tool, telnet, tmp_path, started, clip):
    folder = tmp_path / "media of the player"
    folder.mkdir()
    (folder / "a-clip.mp4").symlink_to(clip)
    (folder / "a clip.mp4").symlink_to(clip)  # no word of these commands holds a blank
    started.append(Child(tmp_path, "playd", [BIN / "playd", "--headless"],
                         dict(os.environ, KLBASE_LOG_FILE=str(tmp_path / "playd.log")), cwd=folder))
    wait_until(lambda: "listens on" in started[-1].output(), "playd listens")
    session = telnet(tool.port())
    session.send("playd CreateUplayer 70\r")
    session.expect("error_infor:\r\n")
    session.send("playd OpenMediaOfUplayer 7\t")
    session.expect("70 ")
    session.send("1 1 1 0 0 0 a\t")
    session.expect("a-clip.mp4 ")
    session.send("0 0 640 360 0\r")
    session.expect("id         :70\r\nresult     :1")
    session.send("playd GetMediaInfoOfUplayer 70\r")
    session.expect("info_url         :a-clip.mp4")
    session.send("playd SetOutputTiming 70 \t\t")
    session.expect("0 +1 +2")
    session.send("\x15playd SetPauseOfUplayer 70 \t\t")
    session.expect("0 +1")
    session.send("\x15encd SetQulity hi\t\r")
    session.expect_exact("SetQulity high")


def publish(daemon, line):
    daemon.process.stdin.write(line.encode() + b"\n")
    daemon.process.stdin.flush()


def subscriptions(log):
    """The number of times that a server has confirmed both topics. The reports are subscribed last."""
    confirmed = log.split("received a subscribe init done msg(")[1:]
    return sum("layer/result_repor" in text.split("rpc_pubsub")[0] for text in confirmed)


def report(layer, url, state):
    return f"{STARS} layerId            :{layer}\n url                :{url}\n play_state         :{state}\n"


def test_a_real_file_from_opening_to_its_end(tool, connect, start_playd, clip):
    start_playd()
    program = connect(tool.port())
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")

    def run(line, wanted):
        answer = program.run("playd " + line, "error_infor:\n" if "Get" not in line else "info_duration_ms :")
        assert wanted in answer
        return answer

    run("CreateUplayer 0", "result     :1")
    run("CreateUplayer 0", "result     :0")
    run(f"OpenMediaOfUplayer 0 1 1 1 0 0 0 {clip} 0 0 1920 1080 0", "result     :1")
    info = run("GetMediaInfoOfUplayer 0", "info_width       :640")
    assert "info_heigh       :360" in info
    run("SetPauseOfUplayer 0 1", "result     :1")
    run("SetSeekOfUplayer 0 5000", "result     :1")
    wait_until(lambda: " seek_ms            :" in tool.output(), "the seek result is printed")
    assert " layerId            :0\n" in tool.output()
    run("SetSpeedOfUplayer 0 2", "result     :1")
    run("SetVolumeOfUplayer 0 30", "result     :1")
    run("GetSeekOfUplayer 0", "result           :1")
    run("CloseMediaOfUplayer 0 0", "result     :1")
    run("DeleteUplayer 0", "result     :1")
    wait_until(lambda: " play_state         :" in tool.output(), "reports are printed")
    assert str(clip) in tool.output()


@pytest.mark.parametrize("line, word", [("SetSeekOfUplayer 0 soon", "soon"), ("SetSpeedOfUplayer 0 fast", "fast"),
                                        ("SetSeekOfUplayer 0 99999999999", "99999999999")])
def test_a_word_that_is_no_number_is_named_in_one_line(tool, connect, line, word):
    answer = connect(tool.port()).run("playd " + line)
    assert word in answer and answer.count("\n") == 1


def test_events_are_printed_as_they_come(tool, start_events):
    daemon = start_events()
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
    publish(daemon, "report 3 /a.mp4 1")
    publish(daemon, "seek 4 1500 20000")
    wait_until(lambda: tool.output().endswith("result.error_infor :\n"), "both events are printed")
    assert tool.output() == report(3, "/a.mp4", 1) + (
        f"{STARS} layerId            :4\n seek_ms            :1500\n duration_ms        :20000\n"
        " result.id          :4\n result.result      :1\n result.error_code  :-1\n result.error_infor :\n")


def test_events_come_again_by_themselves_after_the_player_was_killed_and_none_twice(tool, start_events):
    expected = ""
    for round_number in range(4):
        daemon = start_events()
        wait_until(lambda done=round_number: subscriptions(tool.log()) > done, "the tool is subscribed again")
        for number in range(20):
            publish(daemon, f"report {round_number} url {number}")
            expected += report(round_number, "url", number)
        wait_until(lambda: len(tool.output()) >= len(expected), "all events are printed")
        assert tool.output() == expected
        daemon.kill()
    assert interrupt_and_wait(tool) == 1


def test_a_payload_that_does_not_parse_is_logged_and_the_next_event_printed(tool, start_events):
    daemon = start_events()
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
    publish(daemon, "garbage")
    publish(daemon, "report 1 u 2")
    wait_until(lambda: tool.output() == report(1, "u", 2), "the good event is printed")
    assert "parse stream status message failed." in tool.log()


def test_ten_thousand_events_while_commands_run(tool, connect, start_events):
    daemon = start_events()
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
    program = connect(tool.port())
    publish(daemon, "burst 10000 1000")  # in groups, so that no queue runs over
    for _ in range(50):
        assert program.run("core show version", VERSION_END) == VERSION
    wait_until(lambda: tool.output().count(" play_state         :") == 10000, "all events are printed")
    assert tool.output() == "".join(report("burst", "u", number) for number in range(10000))


def test_sigint_in_a_stream_of_events(start_tool, start_events):
    daemon = start_events()
    for _ in range(5):
        tool = start_tool()
        wait_until(lambda t=tool: subscriptions(t.log()), "both topics are subscribed")
        publish(daemon, "burst 4000 4000")
        wait_until(lambda t=tool: t.output(), "events are printed")
        assert interrupt_and_wait(tool) == 1
        for file in (tool.out, tool.err, tool.log_file):
            file.unlink()


def test_an_event_does_not_garble_the_line_being_typed(terminal, start_events, tmp_path):
    daemon = start_events()
    session = terminal()
    log = tmp_path / "vextool.log"
    wait_until(lambda: subscriptions(log.read_text()), "both topics are subscribed")
    session.send("core sh")
    session.expect("core sh")
    publish(daemon, "report 9 /z.mp4 4")
    session.expect("play_state         :4\r\n")
    session.expect("main> core sh")
    session.send("ow version\r")
    session.expect("git-version: v0.0.1")


HOSTILE = "\x1b]0;owned\x07\x1b[2J\u009b2J\x7fmain>"
HOSTILE_SHOWN = r"\x1b]0;owned\x07\x1b[2J\xc2\x9b2J\x7fmain>"


def test_an_event_does_not_drive_the_terminal(terminal, start_events, tmp_path):
    daemon = start_events()
    session = terminal()
    log = tmp_path / "vextool.log"
    wait_until(lambda: subscriptions(log.read_text()), "both topics are subscribed")
    publish(daemon, f"report 9 {HOSTILE} 4")
    session.expect_exact(" url                :")
    session.expect("\r\n")
    assert session.before == HOSTILE_SHOWN
    assert "\x1b" not in log.read_text()


def test_an_event_does_not_drive_a_terminal_without_a_local_console(start_events, started, tmp_path):
    daemon = start_events()
    log = tmp_path / "vextool.log"
    session = pexpect.spawn(str(BIN / "vextool"), ["--cli_port=0"], timeout=LIMIT_S, encoding="utf-8",
                            codec_errors="replace", env=dict(os.environ, KLBASE_LOG_FILE=str(log)))
    started.append(session)
    wait_until(lambda: log.exists() and "console listens on" in log.read_text(), "the console listens")
    wait_until(lambda: subscriptions(log.read_text()), "both topics are subscribed")
    publish(daemon, f"report 9 {HOSTILE} 4")
    session.expect_exact(" url                :")
    session.expect("\r\n")
    assert session.before == HOSTILE_SHOWN


def test_a_pipe_gets_an_events_bytes_as_they_are(tool, start_events):
    daemon = start_events()
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
    publish(daemon, f"report 9 {HOSTILE} 4")
    wait_until(lambda: " play_state " in tool.output(), "the event is printed")
    assert tool.out.read_bytes() == report(9, HOSTILE, 4).encode()


def test_a_client_in_python_calls_the_service_and_hears_reports(tool, start_events, tmp_path):
    stubs = subprocess.run([ROOT / "docs/python/generate.sh"], capture_output=True, check=False)
    assert stubs.returncode == 0, stubs.stderr
    tool.port()
    client = ROOT / "docs/python/client.py"
    called = subprocess.run(["/usr/bin/python3", client, "call"], capture_output=True, text=True, timeout=LIMIT_S,
                            check=False)
    assert called.stdout == "code=0 message=\n", called.stderr
    daemon = start_events()
    listener = subprocess.Popen(["/usr/bin/python3", client, "events", "2"], stdout=subprocess.PIPE, text=True)
    try:
        assert listener.stdout.readline() == "subscribed\n"
        publish(daemon, "report 5 /b.mp4 1")
        publish(daemon, "report 5 /b.mp4 4")
        text, _ = listener.communicate(timeout=LIMIT_S)
    finally:
        listener.kill()
        listener.wait()
    assert text == "layer=5 play_state=1 url=/b.mp4\nlayer=5 play_state=4 url=/b.mp4\n"


def test_sigterm_of_the_player_while_it_plays(start_playd, tool, connect, clip):
    daemon = start_playd()
    program = connect(tool.port())
    program.run("playd CreateUplayer 7", "error_infor:\n")
    program.run(f"playd OpenMediaOfUplayer 7 1 1 1 0 0 0 {clip} 0 0 640 360 1", "error_infor:\n")
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0
    assert "result     :0" in program.run("playd DeleteUplayer 7", "error_infor:\n")


def test_waits_and_expectations_in_a_program(tool, connect, start_playd, clip):
    start_playd()
    program = connect(tool.port())
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
    program.run("playd CreateUplayer 0", "error_infor:\n")
    program.run(f"playd OpenMediaOfUplayer 0 1 0 1 0 0 0 {clip} 0 0 1920 1080 0", "error_infor:\n")
    program.run("playd SetSeekOfUplayer 0 5000", "error_infor:\n")
    event = program.run("wait layer/get_seek_of_uplayer unique_id=0 within 10", " result.error_infor :\n")
    assert event.startswith(STARS) and " seek_ms            :5000\n" in event
    assert program.run("expect seek_ms>=5001", "\n") == 'expect: seek_ms is "5000", not seek_ms>=5001\n'
    assert program.run("wait layer/* within 0.01", "\n") == "wait: no such event of layer/* within 0.01 s\n"
    assert program.run("playd OpenMediaOfUplayer 0 1 0 1 0 0 0 missing.mp4 0 0 1920 1080 0", "error_infor:\n")
    assert program.run("expect status=refused\nexpect status=ok", "\n").startswith("expect: status is \"refused\"")


def test_a_monitor_shows_each_event_that_it_was_asked_for(tool, telnet, connect, start_events):
    daemon = start_events()
    wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
    session = telnet(tool.port())
    session.send("monitor layer/* play_state=5\r")
    session.expect_exact("main> ")
    session.send("core sh")  # half a line stays below the events
    publish(daemon, "report 3 a.mp4 1")
    publish(daemon, "report 4 b.mp4 5")
    session.expect_exact(" layerId            :4\r\n url                :b.mp4\r\n play_state         :5\r\n")
    assert "a.mp4" not in session.before
    session.expect_exact("core sh")
    session.send("ow version\r")
    session.expect_exact("git-version: v0.0.1")
    session.send("monitor off\r")
    session.send("core show version\r")  # its answer shows that the line before it has run
    session.expect_exact("git-version: v0.0.1")
    other = connect(tool.port())
    other.run("core show version", VERSION_END)
    publish(daemon, "report 6 c.mp4 5")
    other.run("wait layer/result_repor url=c.mp4", " play_state         :5\n")
    session.send("core show version\r")
    session.expect_exact("git-version: v0.0.1")
    assert "c.mp4" not in session.before
