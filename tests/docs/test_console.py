"""The guide's lists of commands and words are those of the console."""

import re

import pytest

import markdown
import transcript
from reader import AGAIN, Reader

GUIDE = markdown.document("docs/guide.md")
# Line and what it is said to do.
PLAYERS_EXAMPLES = re.findall(r"^\| `(playd \w+ .*?)` \| (.*) \|$", GUIDE.text(), re.MULTILINE)


@pytest.fixture(scope="module")
def demo(tmp_path_factory):
    following = Reader(tmp_path_factory.mktemp("console"))
    following.start_demo()
    yield following.demo
    following.leave()


def run(demo, line):
    """The output of a line."""
    demo.top = demo.screen.cursor.y
    demo.send(line + "\r")
    assert demo.wait(lambda: demo.screen.cursor.y > demo.top and demo.rows(demo.top)[-1] == "main>"), demo.rows(demo.top)
    return demo.rows(demo.top)[1:-1]


def entries(lines):
    """Of help: (usage, text)."""
    return [(lines[i].strip()[2:], lines[i + 1].strip()) for i in range(0, len(lines) - 1, 2)]


def console_lines():
    return [transcript.normal(line) for block in GUIDE.blocks if block.kind == "console" for line in block.lines]


def test_every_command_stands_in_the_guide_as_help_shows_it(demo):
    shown = console_lines()
    menus = [usage for usage, text in entries(run(demo, "help")) if text == "(menu)"]
    assert menus == ["apisdk", "core", "encd", "envctl", "playd", "rpc"]
    for menu in menus:
        for usage, text in entries(run(demo, f"help {menu}")):
            at = shown.index(f" - {usage}")
            assert shown[at + 1].strip() == text, usage
            name = usage.split()[0]
            assert menu == "envctl" or re.search(rf"### {menu}\n(.|\n)*\b{name}\b", GUIDE.text()), name


def test_commands_that_are_everywhere_are_in_their_table(demo):
    table = re.search(r"\| Everywhere \|.*?\n\n", GUIDE.text(), re.DOTALL).group(0)
    named = set(re.findall(r"`([\w.?]+)(?: \w+)?`", " ".join(row.split("|")[1] for row in table.splitlines()[2:] if "|" in row)))
    demo.top = demo.screen.cursor.y
    demo.send("core\rhelp\r")
    assert demo.wait(lambda: demo.rows(demo.top).count("core> help") and demo.rows(demo.top)[-1] == "core>")
    rows = [row for row in demo.rows(demo.top) if row.startswith(" - ")]
    demo.send("main\r")
    assert demo.wait(lambda: demo.rows(demo.top)[-1] == "main>")
    assert named == {row.split()[1] for row in rows} - {"set", "show"} | {"?"}


def test_each_command_of_the_player_has_its_example_in_the_guide(demo):
    names = [usage.split()[0] for usage, text in entries(run(demo, "help playd")) if text != "(menu)"]
    assert sorted(line.split()[1] for line, _ in PLAYERS_EXAMPLES) == sorted(names)
    for line, _ in PLAYERS_EXAMPLES:
        assert run(demo, f"help playd {line.split()[1]}")[-1].strip() == f"for example: {line}"


def test_each_word_of_the_players_commands_is_explained(demo):
    words = {word for usage, _ in entries(run(demo, "help playd")) for word in re.findall(r"<(\w+)>", usage)}
    table = re.search(r"\| Word \|.*?\n\n", GUIDE.text(), re.DOTALL).group(0)
    explained = {word for row in table.splitlines()[2:] if "|" in row for word in row.split("|")[1].replace(",", " ").split()}
    assert explained == words


def result_of(demo, line):
    """What the player's answer to a line says. Events of earlier lines may come before it."""
    head = f"**************{line.split()[1]}**********"
    demo.top = demo.screen.cursor.y
    demo.send(line + "\r")

    def block():
        rows = demo.rows(demo.top)
        return rows[rows.index(head):] if head in rows and rows[-1] == "main>" else []

    assert demo.wait(lambda: any(row.startswith("error_infor") for row in block())), demo.rows(demo.top)
    return next(row.split(":")[1] for row in block() if row.startswith("result "))


# The last one: events may still come behind it.
def test_the_players_examples_work_one_after_another(demo):
    for line, does in PLAYERS_EXAMPLES:
        expected = "0" if "refuses" in does else "1"
        # On a loaded machine a medium may take longer than the player waits for one; it is asked again.
        assert any(result_of(demo, line) == expected for _ in range(AGAIN)), line
