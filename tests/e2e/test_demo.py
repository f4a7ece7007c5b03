"""`./vex demo`, as a newcomer runs it. Only for the release build: the demo runs no other."""

import os
import pathlib
import signal
import subprocess

import pexpect
import pytest

from conftest import BIN, LIMIT_S, wait_until
from test_console import VERSION

ROOT = pathlib.Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.skipif(BIN.resolve() != ROOT / "build" / "bin", reason="the demo runs the release build only")


def demo(lines, *flags):
    return subprocess.run([ROOT / "vex", "demo", *flags], input=lines, capture_output=True, text=True,
                          timeout=6 * LIMIT_S, check=False)


def daemons():
    """Process ids of the demo's daemons in this network: each has its address in the namespace's socket table."""
    with open("/proc/net/unix", encoding="ascii") as table:
        return [line for line in table if "@encd@default" in line]


def test_piped_lines_run_against_the_real_encoder():
    done = demo("encd SetQulity high\ncore show version\n", "--cli_port=0")
    assert done.returncode == 0, done.stderr
    assert done.stdout.startswith("code= 0 result=")
    assert done.stdout.endswith(VERSION)
    assert not daemons()


def test_the_tools_status_is_the_demos():
    done = demo("", "--cli_port=99999")
    assert done.returncode == 255
    assert not daemons()


@pytest.mark.parametrize("ending, status", [("exit\r", 0), ("\x03", 1)])
def test_at_a_terminal_and_nothing_is_left_behind(ending, status):
    session = pexpect.spawn(str(ROOT / "vex"), ["demo", "--cli_port=0"], timeout=6 * LIMIT_S, encoding="utf-8",
                            env=dict(os.environ, TERM="xterm"))
    session.expect("main> ")
    session.send("encd\r")
    session.expect("encd> ")
    session.send("SetQulity high\r")
    session.expect("code= 0 result=")
    session.send(ending)
    wait_until(lambda: not session.isalive(), "the demo ends")
    assert session.exitstatus == status
    assert not daemons()


def test_a_killed_demo_takes_its_daemons_along():
    session = pexpect.spawn(str(ROOT / "vex"), ["demo", "--cli_port=0"], timeout=6 * LIMIT_S, encoding="utf-8")
    session.expect("main> ")
    session.kill(signal.SIGKILL)
    wait_until(lambda: not daemons(), "the daemon ends with the demo")
    session.close(force=True)
