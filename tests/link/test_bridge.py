"""vexlink between a real tool and a real NATS server: requests, events, signs of life, and its end."""

import json
import re
import signal
import subprocess
import time

import pytest

from conftest import BIN, LIMIT_S, Child, payload, wait_until

UP_S = 10
UP_MARGIN_S = 3  # the link counts from when it sent the last one; a busy machine may bring each of them late
EVENT = "vextool.n1.event.layer.result_repor"
HUNG = '{"run":"wait layer/nothing within 60","within_ms":60000}'


@pytest.fixture
def linked(serve, server, start_link, connect):
    """A tool, a link that is connected to both sides, and a client of the server that hears all of it."""
    tool = serve()
    client = connect(server.port)
    client.subscribe("vextool.>")
    link = start_link(server.port)
    link.says("connected to the tool, v0.0.1, at ")
    link.says(r"connected to nats://127\.0\.0\.1:\d+ as n1\n")
    wait_until(lambda: payload(client.of("vextool.n1.up"))["tool"] == "here", "the node is up")
    return tool, client, link


# --- requests


def test_a_request_is_answered_with_the_control_sockets_reply(linked):
    _, client, _ = linked
    answer = client.ask("vextool.n1.run", "core show version")
    assert list(answer) == ["status", "code", "reason", "output", "fields", "us"]
    assert answer["status"] == "ok"
    assert answer["output"] == "\tbuild-date:\t 2025-12-11_16:34:42\ngit-version: v0.0.1\n"
    answer = client.ask("vextool.n1.run", '{"id":"q","run":"nonsense"}')
    assert (answer["id"], answer["status"]) == ("q", "usage")


def test_each_of_many_requesters_gets_its_own_answer(linked):
    _, client, _ = linked
    inboxes = {client.inbox(): number for number in range(50)}
    for inbox, number in inboxes.items():
        client.publish("vextool.n1.run", f'{{"id":{number},"run":"unknown{number}"}}', inbox)
    for _ in range(50):
        message = next(message for message in iter(client.next, None) if message.subject in inboxes)
        number = inboxes.pop(message.subject)
        answer = payload(message)
        assert (answer["id"], f'"unknown{number}"' in answer["reason"]) == (number, True)


def test_a_menu_that_one_request_enters_is_not_where_the_next_one_begins(linked):
    _, client, _ = linked
    for _ in range(5):
        assert client.ask("vextool.n1.run", "core")["status"] == "ok"
        assert client.ask("vextool.n1.run", "show version")["status"] == "usage"


@pytest.mark.parametrize("line", ["core", "monitor", "encd SetQulity high", "core show version"])
def test_a_request_leaves_nothing_to_the_next_one(linked, publish, line):
    _, client, _ = linked

    def seen():
        publish("report 0 /clip.mp4 1")
        return client.until(lambda: any(message.subject == EVENT for message in client.messages), 0.2)
    wait_until(seen, "the tool's events come")
    for _ in range(10):  # more than sessions are kept ready
        client.ask("vextool.n1.run", line)
        client.messages.clear()
        publish("report 0 /clip.mp4 1")
        client.of(EVENT)
        assert client.ask("vextool.n1.run", "history")["output"].splitlines() == ["    1  history"]
        assert client.ask("vextool.n1.run", "show version")["status"] == "usage"
        assert client.ask("vextool.n1.run", "expect git_version=v0.0.1")["status"] == "refused"
        assert client.ask("vextool.n1.run", "wait layer/result_repor within 0.01")["status"] == "timeout"


def test_requests_one_after_another_share_a_session_that_the_tool_resets(linked):
    tool, client, _ = linked
    for _ in range(30):
        assert client.ask("vextool.n1.run", "core show version")["status"] == "ok"
    recorded = wait_until(lambda: len(found := re.findall(r" session=(\d+) kind=control ", tool.log())) == 30 and found, "the records")
    assert len(set(recorded)) < 10


def test_slow_requests_delay_no_others_and_too_many_are_refused(linked):
    _, client, _ = linked
    inbox = client.inbox()
    for _ in range(7):
        client.publish("vextool.n1.run", HUNG, inbox)
    assert client.ask("vextool.n1.run", "core show version")["status"] == "ok"
    for _ in range(1 + 64 + 3):  # at work, waiting, and more
        client.publish("vextool.n1.run", HUNG, inbox)
    answers = [payload(client.of(inbox)) for _ in range(3)]
    assert {(answer["status"], answer["reason"]) for answer in answers} == {
        ("failed", "64 requests wait already; try again later")}


def test_a_limit_is_kept_also_while_waiting_for_others(linked):
    _, client, _ = linked
    inbox = client.inbox()
    for _ in range(8):
        client.publish("vextool.n1.run", '{"run":"wait layer/nothing within 60","within_ms":1500}', inbox)
    answer = client.ask("vextool.n1.run", '{"run":"core show version","within_ms":100}')
    assert (answer["status"], answer["reason"]) == ("timeout", "other requests took all the time; it was not run")
    assert {payload(client.of(inbox))["status"] for _ in range(8)} == {"timeout"}


@pytest.mark.parametrize("request_text, reason", [
    (b"", "empty"), (b"{", "not JSON"), (b'{"monitor":[]}', 'no "run"'), (b"who\nshutdown", "one line"),
    (b"\xff\xfe", "UTF-8"), (b"x" * 70000, "65536 bytes"), (b"x" * 1_000_000, "65536 bytes"), (b"x" * 5000, "4096")],
    ids=["empty", "no JSON", "no run", "two lines", "no UTF-8", "large", "huge", "long line"])
def test_what_is_no_request_is_answered_and_harms_nothing(linked, request_text, reason):
    _, client, _ = linked
    answer = client.ask("vextool.n1.run", request_text)
    assert answer["status"] == "usage"
    assert reason in answer["reason"]
    assert client.ask("vextool.n1.run", "core show version")["status"] == "ok"


def test_an_answer_that_is_too_large_for_the_server_is_cut(serve, start_server, tmp_path, start_link, connect):
    config = tmp_path / "nats.conf"
    config.write_text("max_payload: 2000\n", encoding="ascii")
    server = start_server("-c", config)
    serve()
    start_link(server.port).says("connected to nats://")
    client = connect(server.port)
    answer = client.ask("vextool.n1.run", "rpc list")
    assert (answer["status"], answer["truncated"]) == ("ok", True)
    assert 1000 < len(answer["output"]) < 2000


def test_without_a_tool_requests_are_answered_at_once_and_the_node_says_so(server, start_link, connect):
    client = connect(server.port)
    client.subscribe("vextool.n1.up")
    start_link(server.port).says("the tool is away: no tool at .*console.sock: No such file or directory; start vextool")
    up = client.of("vextool.n1.up")
    wait_until(lambda: "No such file" in payload(up).get("reason", "") or payload(client.of("vextool.n1.up")).get("reason"),
               "the reason")
    answer = client.ask("vextool.n1.run", '{"id":1,"run":"core show version"}')
    assert (answer["id"], answer["status"]) == (1, "unreachable")
    assert "start vextool" in answer["reason"]


def test_a_tool_that_hangs_is_not_waited_for_longer_than_the_limit(linked):
    tool, client, _ = linked
    client.ask("vextool.n1.run", "core show version")
    tool.freeze()
    began = time.monotonic()
    answer = client.ask("vextool.n1.run", '{"run":"core show version","within_ms":200}')
    assert time.monotonic() - began < 4  # its grace is a second, and opening a session without a limit takes five
    tool.signal(signal.SIGCONT)
    assert answer["status"] in ("timeout", "unreachable")  # whether it hangs with a session that was ready or without one
    assert "the tool does not answer" in answer["reason"]


def test_a_request_under_way_is_answered_when_the_tool_is_killed(linked):
    tool, client, _ = linked
    inbox = client.inbox()
    client.publish("vextool.n1.run", HUNG, inbox)
    assert client.ask("vextool.n1.run", "core show version")["status"] == "ok"  # the other one has its session by now
    tool.kill()
    answer = payload(client.of(inbox))
    assert answer["status"] == "unreachable"
    assert "whether the line was done is not known" in answer["reason"]


def test_without_runs_nobody_answers(serve, server, start_link, connect):
    serve()
    start_link(server.port, "--no-run").says("connected to nats://")
    client = connect(server.port)
    for subject in ("vextool.n1.run", "vextool.all.run"):
        inbox = client.inbox()
        client.publish(subject, "core show version", inbox)
        assert "503" in client.of(inbox).headers


def test_twenty_nodes_answer_one_request_each_by_its_name(serve, server, start_link, connect):
    serve()
    nodes = {f"node-{number}" for number in range(20)}
    links = [start_link(server.port, node=node) for node in sorted(nodes)]
    for link in links:
        link.says("connected to nats://")
    client = connect(server.port)
    inbox = client.inbox()
    client.publish("vextool.all.run", '{"id":9,"run":"core show version"}', inbox)
    answers = [payload(client.of(inbox)) for _ in nodes]
    assert sorted(answer["node"] for answer in answers) == sorted(nodes)
    assert {(answer["id"], answer["status"]) for answer in answers} == {(9, "ok")}
    client.publish("vextool.all.run", "", inbox)
    answers = [payload(client.of(inbox)) for _ in nodes]
    assert sorted(answer["node"] for answer in answers) == sorted(nodes)
    assert client.next(0.2) is None


# --- events


def test_an_event_arrives_as_the_control_socket_has_it(linked, publish, path, tmp_path, started):
    _, client, _ = linked
    monitor = Child(tmp_path, "monitor", [BIN / "vexctl", "--socket", path, "--json", "monitor"])
    started.append(monitor)

    def both():
        publish("report 0 /clip.mp4 1")  # again and again: the tool may not have subscribed yet
        if not client.until(lambda: any(message.subject == EVENT for message in client.messages), 0.2):
            return None
        message = client.of(EVENT)
        shown = [line for line in monitor.output().splitlines() if json.loads(line)["event"]["seq"] == payload(message)["seq"]]
        return shown and (message, shown[0])
    message, shown = wait_until(both, "an event that both have seen")
    assert shown == '{"event":' + message.payload.decode() + "}"
    assert "Nats-Msg-Id: n1-" in message.headers
    assert payload(message)["topic"] == "layer/result_repor"
    assert payload(message)["message"]["unique_id"] == "0"


def test_only_the_events_asked_for_go_out(serve, server, start_link, connect, publish):
    serve()
    client = connect(server.port)
    client.subscribe("vextool.*.event.>")
    start_link(server.port, "--events", "layer/get_seek_of_uplayer", "--events", "seek_ms>=10").says("connected to the tool")

    def seen():
        publish("report 0 /clip.mp4 1")
        publish("seek 0 9 100")
        publish("seek 0 10 100")
        return client.until(lambda: len(client.messages) >= 2, 0.2)
    wait_until(seen, "two events")
    assert {(message.subject, payload(message)["message"]["seek_ms"]) for message in client.messages} == {
        ("vextool.n1.event.layer.get_seek_of_uplayer", 10)}


def test_a_filter_that_the_tool_refuses_is_said(serve, server, start_link):
    serve()
    link = start_link(server.port, "--events", "seek_ms>=5", "--events", "layer/*")
    link.says('the tool refuses the events that --events names: monitor: "layer/\\*" is not a condition')


# --- signs of life, and the end


def test_a_node_says_that_it_is_up_and_that_it_goes(linked):
    _, client, link = linked
    assert link.ends(signal.SIGTERM) == 0
    going = payload(client.of("vextool.n1.up"))
    while going["state"] != "going":
        going = payload(client.of("vextool.n1.up"))
    assert going == {"node": "n1", "state": "going", "tool": "here", "version": "v0.0.1", "session": going["session"],
                     "events": 0, "gaps": 0, "buffer": 0}
    assert link.errors().endswith("vexlink: ended\n")


def test_a_sign_of_life_comes_every_ten_seconds(linked):
    _, client, _ = linked
    client.messages.clear()  # the last one is from when the tool was found
    for _ in range(2):
        assert not client.until(lambda: client.messages, UP_S - UP_MARGIN_S)
        assert payload(client.of("vextool.n1.up", 2 * UP_MARGIN_S))["state"] == "up"
    assert not client.messages


def test_a_request_under_way_at_the_end_is_answered(linked):
    _, client, link = linked
    inbox = client.inbox()
    client.publish("vextool.n1.run", HUNG, inbox)
    assert client.ask("vextool.n1.run", "core show version")["status"] == "ok"
    assert link.ends(signal.SIGINT) == 0
    assert payload(client.of(inbox))["reason"].startswith("vexlink is ending")


def test_a_tool_that_comes_back_is_found(linked, serve):
    tool, client, link = linked
    tool.kill()
    link.says("the tool is away: the tool has ended")
    wait_until(lambda: payload(client.of("vextool.n1.up"))["tool"] == "away", "the node says so")
    serve()
    wait_until(lambda: payload(client.of("vextool.n1.up"))["tool"] == "here", "the node says so")
    assert client.ask("vextool.n1.run", "core show version")["status"] == "ok"


# --- words


def run(*words, **options):
    return subprocess.run([BIN / "vexlink", *words], capture_output=True, text=True, timeout=LIMIT_S, check=False, **options)


def test_wrong_words_end_with_2_and_say_what_is_right():
    done = run("--nonsense")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == 'vexlink: unknown word "--nonsense"; vexlink --help shows all of it\n'
    done = run("--node", "n1", env={"KLBASE_CONSOLE_SOCKET": "none"})
    assert (done.returncode, "--socket PATH" in done.stderr) == (2, True)


@pytest.mark.parametrize("words, what", [
    (("--ca", "missing.pem"), "missing.pem"), (("--cert", "missing.pem", "--key", "k"), "missing.pem")])
def test_settings_that_cannot_work_end_with_1_and_are_named(words, what):
    done = run("--node", "n1", "--socket", "s", *words)
    assert (done.returncode, done.stdout) == (1, "")
    assert what in done.stderr


def test_help_names_each_subject_and_the_version_is_the_trees():
    assert run("--version").stdout == "vexlink v0.0.1\n"
    text = run("--help").stdout
    for word in ("--server", "vextool.NODE.run", "vextool.NODE.gap", "VEXLINK_PASSWORD", "Examples:"):
        assert word in text
