"""The device's settings tool, in its place on a device, and hanging."""

import os
import re
import select
import subprocess
import time

import pytest

from conftest import BIN, LIMIT_S, Child, interrupt_and_wait, wait_until
from test_console import VERSION, VERSION_END

# A /usr like this machine's, with a settings tool, for one program and its children.
ON_A_DEVICE = """
mount -t tmpfs tmpfs "$1"
mkdir "$1/upper" "$1/work"
mount -t overlay overlay -o "lowerdir=/usr,upperdir=$1/upper,workdir=$1/work" /usr
mkdir -p /usr/kelo/bin
printf '%s' "$2" > /usr/kelo/bin/sysconfig
chmod 755 /usr/kelo/bin/sysconfig
shift 2
exec "$@"
"""
HANGING = "#!/bin/sh\ntrap '' TERM HUP PIPE\n(sleep 3600 >/dev/null &)\nsleep 3600 &\necho hangs >&2\nwait\n"
TOOLS_LIMIT_S = 10


class DeviceTool(Child):
    """vextool beside a settings tool. Each process of both holds the write end of `alive`."""

    def __init__(self, folder, settings_tool):
        (folder / "device").mkdir()
        self.alive, held = os.pipe()
        super().__init__(folder, "vextool",
                         ["unshare", "--map-root-user", "--mount", "sh", "-ec", ON_A_DEVICE, "sh", folder / "device",
                          settings_tool, BIN / "vextool", "--cli_port=0"],
                         dict(os.environ, KLBASE_LOG_FILE=str(folder / "log")), pass_fds=[held])
        os.close(held)

    def port(self):
        found = wait_until(lambda: re.search(r"console listens on 127\.0\.0\.1:(\d+)", self.errors()) or self.gone(),
                           "the console listens")
        return int(found.group(1))

    def gone(self):
        if self.process.poll() is not None:
            pytest.skip(f"this machine can't stand in for a device: {self.errors()}")

    def nothing_is_left(self):
        """Once the tool has ended: no process that it started runs any more."""
        return bool(select.select([self.alive], [], [], LIMIT_S)[0])


@pytest.fixture
def hanging(tmp_path, started):
    started.append(DeviceTool(tmp_path, HANGING))
    return started[-1]


def processes_of(tool):
    done = subprocess.run(["ps", "--ppid", str(tool.process.pid), "-o", "pid="], capture_output=True, text=True, check=False)
    return done.stdout.split()


def test_a_settings_tool_that_hangs_costs_its_session_ten_seconds_and_others_nothing(hanging, connect):
    waiting, other = connect(hanging.port()), connect(hanging.port())
    begin = time.monotonic()
    waiting.send("envctl description\n")
    wait_until(lambda: "hangs" in hanging.errors(), "the settings tool hangs")
    assert other.run("core show version", VERSION_END) == VERSION
    assert waiting.received == b""
    assert waiting.until("apisdk tools") == "apisdk tools"
    assert time.monotonic() - begin >= TOOLS_LIMIT_S
    assert hanging.errors().count("hangs") == 1  # no second attempt
    assert processes_of(hanging) == []
    assert waiting.run("core show version", VERSION_END) == VERSION
    assert interrupt_and_wait(hanging) == 1
    assert hanging.nothing_is_left()


def test_ctrl_c_gives_up_a_settings_tool_that_hangs(hanging, telnet):
    session = telnet(hanging.port())
    begin = time.monotonic()
    session.send("envctl description\r")
    wait_until(lambda: "hangs" in hanging.errors(), "the settings tool hangs")
    session.send("\x03")
    session.expect("cancelled: given up")
    session.expect("main> ")
    assert time.monotonic() - begin < TOOLS_LIMIT_S
    assert "apisdk tools" not in session.before
    assert hanging.errors().count("hangs") == 1  # no second attempt
    wait_until(lambda: processes_of(hanging) == [], "the settings tool is gone")
    session.send("core show version\r")
    session.expect("git-version: v0.0.1")
    assert interrupt_and_wait(hanging) == 1
    assert hanging.nothing_is_left()


def test_an_interrupt_while_a_settings_tool_hangs_leaves_nothing_of_it(hanging, connect):
    connect(hanging.port()).send("envctl description\n")
    wait_until(lambda: "hangs" in hanging.errors(), "the settings tool hangs")
    begin = time.monotonic()
    assert interrupt_and_wait(hanging) == 1
    assert time.monotonic() - begin < TOOLS_LIMIT_S
    assert hanging.nothing_is_left()


def test_a_shutdown_while_a_settings_tool_hangs_leaves_nothing_of_it(hanging, connect):
    connect(hanging.port()).send("envctl description\n")
    wait_until(lambda: "hangs" in hanging.errors(), "the settings tool hangs")
    begin = time.monotonic()
    connect(hanging.port()).send("shutdown\n")
    assert hanging.wait() == 0
    assert time.monotonic() - begin < TOOLS_LIMIT_S
    assert hanging.nothing_is_left()
