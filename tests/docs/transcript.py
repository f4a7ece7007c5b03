"""Console blocks as steps that can be played and compared: a reader's input and the output that they would see.

A line that begins with "$ " is typed at a shell, one that begins with a menu's prompt is typed at the console that the
last shell command opened (or at the demo's); ^C and ^D are these keys. All other lines are output. "..." on a line of
its own stands for any lines. "$ " and a closing backslash go on in the next line."""

import dataclasses
import re

PROMPT = re.compile(r"^((?:main|core|apisdk|encd|playd|envctl|rpc|greeting)> )(.*)$")
ANY = "..."

# Parts that differ from run to run. Each is replaced by its name, in expected and in seen lines.
VARIES = [
    ("<time>", r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d(\.\d{3})?"),
    ("<duration>", r"\b\d\d:\d\d:\d\d\b"),
    ("<peer>", r"\b127\.0\.0\.1:[3-6]\d{4}(?<!:50000)\b *"),  # in a table: with the blanks that fill its column
    ("<code line>", r"(?<=[a-z_]:)\d+(?= \w+: )"),
    ("<thread>", r"(?<=> [1-5]0 )\d+\b"),
    ("<pid>", r"\b(?<=\[)\d+(?=\])|(?<=process )\d+\b"),
    ("<number>", r"(?<=\bsession=)\d+|(?<= us=)\d+"),
    ("<user>", r"(?<= user=)\S+"),
    ("<microseconds>", r"\b\d+(\.\d+)? (?:µs|us|ms)\b"),
]

# The player's events come when they happen: their lines may stand before, in or behind the reply of a command.
EVENT_LINE = re.compile(r"^(\*{39}| [A-Za-z_.]+ *:.*)$")


def normal(line):
    line = line.expandtabs(8).rstrip()
    for name, pattern in VARIES:
        line = re.sub(pattern, name, line)
    return line


@dataclasses.dataclass
class Step:
    at_shell: bool
    prompt: str
    typed: str
    expected: list
    line: int


def steps(block):
    found = []
    for offset, line in enumerate(block.lines):
        number = block.line + offset
        prompt = PROMPT.match(line)
        if found and found[-1].at_shell and found[-1].typed.endswith("\\") and not found[-1].expected:
            found[-1].typed = found[-1].typed + "\n" + line
        elif line.startswith("$ "):
            found.append(Step(True, "$ ", line[2:], [], number))
        elif prompt:
            found.append(Step(False, prompt.group(1), prompt.group(2), [], number))
        else:
            assert found, f"{block.file}:{number}: output that no command has printed"
            found[-1].expected.append(line)
    return found


def matches(expected, seen):
    """Whether the lines that were seen are those expected."""
    expected, seen = [normal(line) for line in expected], [normal(line) for line in seen]
    events = [line for line in seen if EVENT_LINE.match(line)]
    if ANY not in expected and events != seen:
        return (events == [line for line in expected if EVENT_LINE.match(line)]
                and [line for line in seen if not EVENT_LINE.match(line)]
                == [line for line in expected if not EVENT_LINE.match(line)])
    return in_order(expected, seen)


def in_order(expected, seen):
    parts = [[]]
    for line in expected:
        if line == ANY:
            parts.append([])
        else:
            parts[-1].append(line)
    if len(parts) == 1:
        return seen == expected
    first, last = parts[0], parts[-1]
    if seen[:len(first)] != first or (last and seen[-len(last):] != last) or len(seen) < len(first) + len(last):
        return False
    at, end = len(first), len(seen) - len(last)
    for part in parts[1:-1]:
        at = next((i + len(part) for i in range(at, end - len(part) + 1) if seen[i:i + len(part)] == part), None)
        if at is None:
            return False
    return True
