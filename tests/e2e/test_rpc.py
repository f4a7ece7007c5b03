"""The menu "rpc" in the whole program: typing with Tab, giving a call up, and the end of the tool."""

import pathlib
import re
import time

from conftest import interrupt_and_wait, wait_until


def test_tab_and_the_hint_lead_through_a_message(terminal):
    session = terminal()
    session.send("rpc call SetSe\t")
    session.expect(r"SetSeekOfUplayerReq ")
    session.expect_exact("unique_id=<string>")
    session.send("un\t")
    session.expect_exact("unique_id=")
    session.expect_exact("<string>")
    session.send("7 se\t")
    session.expect_exact("seek_ms=")
    session.expect_exact("<uint32>")
    session.send("5\r")
    session.expect_exact("**************lp.v1.SetSeekOfUplayerReq**********\r\nno reply\r\n")
    session.expect(r"unreachable: playd: .*\(code 14\)\r\n")


def test_the_program_has_every_message_of_the_schema(tool, connect):
    schema = pathlib.Path(__file__).resolve().parents[2] / "schema"
    texts = [path.read_text() for path in schema.rglob("*.proto")]
    declared = {name for text in texts for name in re.findall(r"^message (\w+)", text, re.M)}
    assert len(declared) > 50  # the files were found and read
    program = connect(tool.port())
    program.send("rpc list\n")
    listed = {word.rpartition(".")[2] for word in program.finish().split()}
    assert declared - listed == set()


def test_ctrl_c_gives_a_call_up(tool, telnet, fake_encd):
    daemon = fake_encd("never")
    session = telnet(tool.port())
    session.send("rpc call SetVideoQualityRequest qulity=HIGH --within 60\r")
    wait_until(lambda: "SetVideoQualityRequest" in daemon.output(), "the request arrives")
    session.send("\x03")
    session.expect("cancelled: given up; a daemon that has the request may still carry it out\r\n")
    session.expect("main> ")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")


def test_each_of_many_requests_gets_its_own_answer(tool, connect, start_encd):
    start_encd()
    program = connect(tool.port())
    lines = "".join(f"rpc call SetVideoQualityRequest qulity={quality} --json\n" for quality in ("LOW", "HIGH") * 20)
    program.send(lines)
    answers = program.finish().splitlines()
    assert len(answers) == 40
    assert len(set(answers[::2])) == 1 and len(set(answers[1::2])) == 1
    assert answers[0] != answers[1]


def test_subscriptions_do_not_hold_up_the_end(tool, connect):
    program = connect(tool.port())
    program.run("rpc subscribe demo/a PubTestMessage")
    program.run("rpc subscribe demo/b PubTestMessage --to unix-abstract:nobody --within 0.1")
    program.run("rpc publish demo/a PubTestMessage event=x")
    began = time.monotonic()
    assert interrupt_and_wait(tool) == 1
    assert time.monotonic() - began < 4
