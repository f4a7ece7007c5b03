"""The guide's table of keys, each of them pressed in a telnet session."""

import re

import pytest

import markdown
from reader import Reader
from test_console import run

GUIDE = markdown.document("docs/guide.md")

# Keys: the text typed before, the bytes of the key, the line afterwards ("^" marks the cursor).
LEFT, RIGHT, UP, DOWN = "\x1b[D", "\x1b[C", "\x1b[A", "\x1b[B"
KEYS = {
    "Left": ("ab cd", LEFT, "ab c^d"),
    "Right": ("ab cd\x01", RIGHT, "a^b cd"),
    "Ctrl-B": ("ab cd", "\x02", "ab c^d"),
    "Ctrl-F": ("ab cd\x01", "\x06", "a^b cd"),
    "Ctrl-Left": ("ab cd", "\x1b[1;5D", "ab ^cd"),
    "Ctrl-Right": ("ab cd\x01", "\x1b[1;5C", "ab^ cd"),
    "Alt-B": ("ab cd", "\x1bb", "ab ^cd"),
    "Alt-F": ("ab cd\x01", "\x1bf", "ab^ cd"),
    "Home": ("ab cd", "\x1b[H", "^ab cd"),
    "End": ("ab cd\x01", "\x1b[F", "ab cd^"),
    "Ctrl-A": ("ab cd", "\x01", "^ab cd"),
    "Ctrl-E": ("ab cd\x01", "\x05", "ab cd^"),
    "Backspace": ("ab cd", "\x7f", "ab c^"),
    "Ctrl-H": ("ab cd", "\x08", "ab c^"),
    "Delete": ("ab cd\x01", "\x1b[3~", "^b cd"),
    "Ctrl-D": ("ab cd\x01", "\x04", "^b cd"),
    "Up": ("ab", UP, "help who^"),
    "Down": ("ab" + UP, DOWN, "ab^"),
    "Ctrl-P": ("ab", "\x10", "help who^"),
    "Ctrl-N": ("ab\x10", "\x0e", "ab^"),
    "Page Up": ("core", "\x1b[5~", "core show version^"),
    "Page Down": ("core\x1b[5~", "\x1b[6~", "core^"),
    "Alt-P": ("core", "\x1bp", "core show version^"),
    "Alt-N": ("core\x1bp", "\x1bn", "core^"),
    "Alt-<": ("ab", "\x1b<", "core show version^"),
    "Alt->": ("ab\x1b<", "\x1b>", "ab^"),
    "Alt-.": ("ab ", "\x1b.", "ab who^"),
    "Alt-_": ("ab ", "\x1b_", "ab who^"),
    "Ctrl-R": ("", "\x12sho\x05", "core show version^"),
    "Ctrl-S": ("", "\x12h\x12\x13\x05", "help who^"),
    "Ctrl-G": ("ab", "\x12sho\x07", "ab^"),
    "Ctrl-W": ("ab c-d", "\x17", "ab ^"),
    "Alt-Backspace": ("ab c-d", "\x1b\x7f", "ab c-^"),
    "Alt-D": ("ab cd\x01", "\x1bd", "^ cd"),
    "Ctrl-U": ("ab cd" + LEFT, "\x15", "^d"),
    "Ctrl-K": ("ab cd" + LEFT, "\x0b", "ab c^"),
    "Ctrl-Y": ("ab cd\x17", "\x19", "ab cd^"),
    "Alt-Y": ("ab\x15cd\x15\x19", "\x1by", "ab^"),
    "Ctrl-T": ("ab", "\x14", "ba^"),
    "Ctrl-_": ("ab cd\x17", "\x1f", "ab cd^"),
    "Enter": ("", "\x12no such line\x07", "^"),
    "Ctrl-C": ("ab cd", "\x03", "^"),
    "Ctrl-L": ("ab cd", "\x0c", "ab cd^"),
}


def line(demo):
    text = demo.row(demo.screen.cursor.y).ljust(demo.screen.cursor.x)
    at = demo.screen.cursor.x
    return (text[:at] + "^" + text[at:].rstrip())[len("main> "):]


def test_the_table_of_keys_names_those_that_are_tried():
    table = re.search(r"\| Key \|.*?\n\n", GUIDE.text(), re.DOTALL).group(0)
    named = {key.strip() for row in table.splitlines()[2:] if "|" in row for key in row.split("|")[1].split(",")}
    inside = set(re.findall(r"Ctrl-G|Ctrl-D", table))
    assert named | inside == set(KEYS) - {"Enter"}


@pytest.fixture(scope="module")
def with_history(tmp_path_factory):
    following = Reader(tmp_path_factory.mktemp("keys"))
    following.start_demo()
    telnet = following.open(["telnet", "127.0.0.1", "50000"])
    assert telnet.wait(lambda: telnet.rows(0)[-1] == "main>"), telnet.rows(0)
    for typed in ("core show version", "help who"):
        run(telnet, typed)
    yield telnet
    telnet.close()
    following.leave()


@pytest.mark.parametrize("key", KEYS)
def test_a_key_does_what_the_table_says(with_history, key):
    before, pressed, after = KEYS[key]
    with_history.send(before + pressed)
    done = with_history.wait(lambda: line(with_history) == after)
    seen = line(with_history)
    with_history.send("\x03")
    assert with_history.wait(lambda: line(with_history) == "^"), line(with_history)
    assert done, seen


def test_tab_completes_and_hints_as_the_guide_says(with_history):
    with_history.send("playd Op\t")
    hint = "main> playd OpenMediaOfUplayer <id> <media_type> <play_immed>"
    assert with_history.wait(lambda: with_history.row(with_history.screen.cursor.y).startswith(hint))
    with_history.send("\x15playd Set\t")
    assert with_history.wait(lambda: any(row.startswith("SetIntputTiming ") for row in with_history.rows(0)))
    with_history.send("\x03")
    assert with_history.wait(lambda: line(with_history) == "^")
