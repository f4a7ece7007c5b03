"""`./vex demo --fleet`: several devices on one machine. Needs networks of its own."""

import os
import signal
import subprocess
import sys

import pexpect
import pytest

from conftest import BIN, LIMIT_S, ROOT, SANITIZED, wait_until

DEMO = [sys.executable, "-B", str(ROOT / "fleet" / "demo" / "demo.py")]
SPACES = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]


def allowed():
    return any(subprocess.run(["unshare", *more, *SPACES, "true"], capture_output=True, check=False).returncode == 0
               for more in ([], ["--user", "--map-root-user"]))


pytestmark = pytest.mark.skipif(not allowed(), reason="this machine allows no network of one's own")


def demo(folder, lines, nodes="3"):
    return subprocess.run([*DEMO, nodes, BIN, folder], input=lines, capture_output=True, text=True,
                          timeout=6 * LIMIT_S, check=False)


@pytest.mark.skipif(SANITIZED, reason="three players at once are too slow for their own limits in a sanitizer's build")
def test_one_line_runs_on_all_and_an_event_of_each_is_seen(tmp_path):
    clip = tmp_path / "clip.mp4"
    subprocess.run([BIN / "make_sample_clip", clip], check=True, capture_output=True, timeout=6 * LIMIT_S)
    done = demo(tmp_path / "fleet", f"playd CreateUplayer 1\nplayd OpenMediaOfUplayer 1 1 1 1 0 0 0 {clip} 0 0 640 360 0\n"
                                    "wait layer/result_repor play_state=1\n@node2 playd GetSeekOfUplayer 7\n@node9 x\n")
    assert done.returncode == 0, done.stderr
    assert "--- node1, node2, node3: ok\n**************CreateUplayer**********\n" in done.stdout
    for node in ("node1", "node2", "node3"):
        assert f'[{node}] layer/result_repor {{"unique_id": "1", "url": "{clip}", "play_state": 1}}\n' in done.stdout
    assert '--- node2: refused: there is no player "7"; create it first\n' in done.stdout
    assert "there is no node node9; there are node1, node2, node3\n" in done.stdout


def test_a_program_that_ends_is_named(tmp_path):
    (tmp_path / "bin").mkdir()
    for name in ("vextool", "vexlink", "playd"):
        (tmp_path / "bin" / name).symlink_to(BIN / name)
    (tmp_path / "bin" / "playd").unlink()
    (tmp_path / "bin" / "playd").symlink_to("/bin/false")
    done = subprocess.run([*DEMO, "1", tmp_path / "bin", tmp_path / "fleet"], input="", capture_output=True, text=True,
                          timeout=6 * LIMIT_S, check=False)
    assert done.returncode == 1
    assert "vex demo: node1-playd ended with status 1" in done.stderr


def test_a_server_that_ends_is_named(tmp_path):
    session = pexpect.spawn(DEMO[0], [*DEMO[1:], "1", str(BIN), str(tmp_path)], timeout=6 * LIMIT_S, encoding="utf-8")
    session.expect_exact("all> ")
    subprocess.run(["pkill", "-KILL", "-f", "--", f"nats-server --addr 0.0.0.0 --log {tmp_path}"], check=True)
    session.send("core show version\r")
    session.expect("vex demo: nats-server ended with status -9: ")
    wait_until(lambda: not session.isalive(), "the demo ends")


@pytest.mark.parametrize("nodes", ["0", "51", "-1", "x", ""])
def test_a_number_of_nodes_that_is_none_is_refused(tmp_path, nodes):
    done = demo(tmp_path, "", nodes)
    assert done.returncode == 1
    assert done.stderr == f"vex demo: --fleet takes a number of nodes, from 1 to 50; not {nodes}\n"


@pytest.mark.parametrize("ending", ["typed", "interrupt", "terminate"])
def test_it_ends_with_all_that_it_started(tmp_path, ending):
    mark = f"--socket {os.path.relpath(tmp_path)}"
    session = pexpect.spawn(DEMO[0], [*DEMO[1:], "1", str(BIN), str(tmp_path)], timeout=6 * LIMIT_S, encoding="utf-8")
    session.expect_exact("all> ")
    assert left(mark)
    if ending == "typed":
        session.send("exit\r")
    elif ending == "interrupt":
        session.send("\x03")
    else:
        session.kill(signal.SIGTERM)
    wait_until(lambda: not session.isalive(), "the demo ends")
    wait_until(lambda: not left(mark), "its programs end")


def left(mark):
    """Programs that have the mark in their words."""
    found = subprocess.run(["pgrep", "-f", "--", mark], capture_output=True, text=True, check=False)
    return found.stdout.split()
