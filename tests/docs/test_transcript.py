"""The comparison itself: transcripts that count as the same, and transcripts that don't."""

import pytest

import markdown
import transcript

EVENT = ["*" * 39, " layerId            :0", " play_state         :1"]
REPLY = ["**************CreateUplayer**********", "id         :0", "result     :1"]


@pytest.mark.parametrize("expected, seen", [
    (["a", "b"], ["a", "b"]),
    (["a  "], ["a"]),
    (["\tx"], ["        x"]),
    (["..."], []),
    (["...", "z"], ["a", "b", "z"]),
    (["a", "...", "m", "...", "z"], ["a", "b", "m", "z"]),
    (EVENT + REPLY, REPLY + EVENT),
    (EVENT + REPLY, REPLY[:1] + EVENT + REPLY[1:]),
    (["* 1   telnet  127.0.0.1:50332  main  2026-03-01 14:05:09  00:00:00"],
     ["* 1   telnet  127.0.0.1:60999  main  2026-03-02 08:00:00  00:12:00"]),
    (["2026-03-01 14:05:09.250 30 4711 a/b:57 Load: x"], ["2027-01-31 00:00:00.001 30 9 a/b:101 Load: x"]),
])
def test_the_same(expected, seen):
    assert transcript.matches(expected, seen)


@pytest.mark.parametrize("expected, seen", [
    (["a"], ["b"]),
    (["a"], ["a", "b"]),
    (["a", "b"], ["a"]),
    ([], ["a"]),
    (["..."] + ["z"], ["a", "b"]),
    (["a", "...", "z"], ["a"]),
    (["a", "...", "m", "...", "z"], ["a", "z"]),
    (EVENT + REPLY, REPLY),
    (REPLY, REPLY + EVENT),
    (EVENT, [EVENT[0], EVENT[2], EVENT[1]]),
    (["2026-03-01 14:05:09.250 30 4711 a/b:57 Load: x"], ["2026-03-01 14:05:09.250 40 4711 a/b:57 Load: x"]),
    (["result     :1"], ["result     :0"]),
    (["TCP port 50000"], ["TCP port 50001"]),
])
def test_not_the_same(expected, seen):
    assert not transcript.matches(expected, seen)


def test_a_block_becomes_steps():
    block = markdown.Block("x.md", 10, ["console"], ["$ one \\", "  two", "seen", "main> encd Set", "code", "$ three"])
    assert [(step.at_shell, step.typed, step.expected, step.line) for step in transcript.steps(block)] == [
        (True, "one \\\n  two", ["seen"], 10), (False, "encd Set", ["code"], 13), (True, "three", [], 15)]


def test_output_without_a_command_is_no_screen():
    with pytest.raises(AssertionError, match="x.md:1: output that no command has printed"):
        transcript.steps(markdown.Block("x.md", 1, ["console"], ["seen"]))


def test_blocks_are_found_however_they_are_written():
    document = markdown.parse("x.md", "a\n\n```console beside\n$ b\n```\n\n    indented\n\n- item\n\n  ~~~\n  c\n  ~~~\n")
    assert [(block.line, block.info, block.lines) for block in document.blocks] == [
        (4, ["console", "beside"], ["$ b"]), (7, [], ["indented"]), (12, [], ["c"])]


def test_links_and_anchors_are_found_outside_code_only():
    document = markdown.parse("x.md", "# One `two`\n[a](b.md#c) `[d](e)`\n```\n[f](g)\n```\n")
    assert list(document.links()) == [(2, "b.md#c")] and document.anchors() == ["one-two"]
