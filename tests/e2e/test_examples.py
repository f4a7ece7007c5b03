"""The scripts of examples/, run as a test engineer runs them, and the reports that they write."""

import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

import pytest

from conftest import BIN, LIMIT_S, SANITIZED, wait_until
from test_player import clip, start_playd, subscriptions  # noqa: F401

ROOT = pathlib.Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.skipif(SANITIZED, reason="the daemons are too slow for the examples' limits in a sanitizer's build")


@pytest.fixture
def bench(tmp_path, start_tool, start_playd, start_encd, clip):  # noqa: F811
    """Tool and daemons, a folder with the demo's clip, and the environment that finds them."""
    with tempfile.TemporaryDirectory() as folder:
        socket = f"{folder}/console.sock"
        start_encd()
        player = start_playd()
        tool = start_tool(environment={"KLBASE_CONSOLE_SOCKET": socket})
        tool.port()
        wait_until(lambda: subscriptions(tool.log()), "both topics are subscribed")
        (tmp_path / "build" / "demo").mkdir(parents=True)
        (tmp_path / "build" / "demo" / "clip.mp4").symlink_to(clip)
        environment = dict(os.environ, KLBASE_CONSOLE_SOCKET=socket, PATH=f"{BIN}:{os.environ['PATH']}", CLIP=str(clip),
                           PYTHONPATH=str(ROOT / "python"), PYTHONDONTWRITEBYTECODE="1", PLAYER_PID=str(player.process.pid),
                           PLAYER_START=f"{shlex.quote(str(BIN / 'playd'))} --headless", KLBASE_LOG_FILE=str(tmp_path / "log"))
        yield tmp_path, environment, player


def run(bench, *words, **more):  # noqa: F811
    folder, environment, _ = bench
    return subprocess.run([str(word) for word in words], cwd=folder, env=dict(environment, **more), capture_output=True,
                          text=True, timeout=4 * LIMIT_S, check=False)


def cases(file):
    """Name to the text of its failure; None for one that passed."""
    found = {}
    for case in ElementTree.parse(file).getroot().iter("testcase"):
        failure = case.find("failure")
        failure = case.find("error") if failure is None else failure
        found[case.get("name")] = None if failure is None else (failure.get("message") or "") + (failure.text or "")
    return found


def smoke(bench):  # noqa: F811
    folder, *_ = bench
    script = (ROOT / "examples/smoke.vex").read_text()
    # The player looks for the file in its own folder.
    (folder / "smoke.vex").write_text(script.replace("build/demo/clip.mp4", str(folder / "build/demo/clip.mp4")))
    return run(bench, "vexctl", "-f", "smoke.vex")


def test_the_smoke_test_passes(bench):
    done = smoke(bench)
    assert (done.returncode, done.stderr) == (0, "")


def test_the_smoke_test_names_the_line_that_failed(bench):
    bench[2].kill()
    done = smoke(bench)
    assert done.returncode == 3
    assert done.stderr.startswith("vexctl: smoke.vex:11: unreachable: playd")


def soak(bench):  # noqa: F811
    done = run(bench, "bats", "--formatter", "junit", ROOT / "examples/soak.bats", ROUNDS="3")
    (bench[0] / "report.xml").write_text(done.stdout)
    return done


def test_the_soak_passes_and_its_report_says_so(bench):
    done = soak(bench)
    assert done.returncode == 0, done.stdout + done.stderr
    assert list(cases(bench[0] / "report.xml").values()) == [None, None, None]


def test_a_soak_whose_player_is_gone_fails_with_the_reason_in_its_report(bench):
    bench[2].kill()
    done = soak(bench)
    assert done.returncode == 1
    failures = cases(bench[0] / "report.xml")
    assert any("vexctl: unreachable: playd" in (text or "") for text in failures.values()), failures


def test_the_fault_test_passes_and_its_report_says_so(bench):
    done = run(bench, sys.executable, "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider", "--junitxml=report.xml",
               "--rootdir", ROOT / "examples", ROOT / "examples/test_faults.py")
    assert done.returncode == 0, done.stdout + done.stderr
    assert cases(bench[0] / "report.xml") == {
        "test_a_killed_player_is_told_from_one_that_refuses_and_its_events_come_back": None}


def test_a_fault_test_whose_player_does_not_come_back_fails_with_the_reason_in_its_report(bench):
    done = run(bench, sys.executable, "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider", "--junitxml=report.xml",
               "--rootdir", ROOT / "examples", ROOT / "examples/test_faults.py", PLAYER_START="true")
    assert done.returncode == 1
    [failure] = cases(bench[0] / "report.xml").values()
    assert "not within 20 s" in failure
