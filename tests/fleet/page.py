"""docs/fleet.md, whose screens are compared with what the devices show."""

import subprocess
import sys

from devices import LIMIT_S, ROOT

sys.path.insert(0, str(ROOT / "tests/docs"))

import markdown  # noqa: E402
import transcript  # noqa: E402

PAGE = markdown.document("docs/fleet.md")


def screens(kind):
    """The console blocks of this word behind the fence."""
    return [block for block in PAGE.blocks if block.kind == "console" and kind in block.info]


def play(block, folder, environment=None):
    for step in transcript.steps(block):
        done = subprocess.run(["bash", "-c", step.typed], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=LIMIT_S, check=False, cwd=folder, env=environment)
        assert transcript.matches(step.expected, done.stdout.splitlines()), f"{block}: {step.typed}\n{done.stdout}"
