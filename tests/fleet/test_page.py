"""docs/fleet.md: an administrator follows it, and sees what it shows. The commands run in front of the devices."""

import re
import shlex
import subprocess

import pytest

from devices import LIMIT_S, ROOT
from page import PAGE, play, screens


def as_root(block):
    """The commands of a block, without sudo and comments."""
    lines = (shlex.split(line, comments=True) for line in block.lines)
    return [words[words[0] == "sudo":] for words in lines if words]


def test_files_named_are_there():
    named = set(re.findall(r"/usr/share/vextool-fleet/([\w./-]+)", PAGE.text()))
    assert named
    assert [name for name in named if not (ROOT / "fleet" / name).exists()] == []


def test_an_account_is_made_as_the_page_says(ground, device):
    key = ground.folder / "keys/client.pub"
    block, = (block for block in PAGE.blocks if "useradd" in block.text)
    for words in as_root(block):
        subprocess.run([str(key) if word == "grace.pub" else word for word in words], check=True, timeout=LIMIT_S)
    done = subprocess.run(["ssh", "grace@tv1", "who"], capture_output=True, text=True, timeout=LIMIT_S, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    assert " grace pid " in done.stdout


@pytest.mark.parametrize("block", screens("fleet"), ids=str)
def test_screens_are_what_the_device_shows(device, block, tmp_path):
    play(block, tmp_path)
