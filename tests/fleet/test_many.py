"""fleet/clustershell on 57 devices, five of them dead and two hung: answers are gathered, and who gives none is named."""

import re
import subprocess

import pytest

from devices import LIMIT_S, clush_environment, many
from page import play, screens

VERSION = "\tbuild-date:\t 2025-12-11_16:34:42\ngit-version: v0.0.1\n"


@pytest.fixture(scope="module")
def devices(ground):
    return many(ground)


def clush(*words, stdin=""):
    return subprocess.run(["clush", *words], input=stdin, capture_output=True, text=True, timeout=LIMIT_S, check=False,
                          env=clush_environment())


def gathered(*nodes_and_output):
    return "".join(f"---------------\n{nodes}\n---------------\n{output}" for nodes, output in nodes_and_output)


@pytest.mark.parametrize("block", screens("many"), ids=str)
def test_screens_are_what_the_devices_show(devices, block, tmp_path):
    play(block, tmp_path, clush_environment())


def test_who_gives_no_answer_is_named_with_the_reason(devices):
    done = clush("-a", "-b", "core show version")
    assert done.stdout == gathered(("tv[01-50] (50)", VERSION))
    reasons = dict(re.findall(r"^(tv\d\d): ssh: connect to host \S+ port 22: (.*)$", done.stderr, re.MULTILINE))
    reasons |= dict(re.findall(r"^(tv\d\d): (.* during banner exchange)$", done.stderr, re.MULTILINE))
    assert reasons == {"tv51": "No route to host", "tv52": "No route to host", "tv53": "Connection timed out",
                       "tv54": "Connection refused", "tv55": "Connection refused",
                       "tv56": "Connection timed out during banner exchange",
                       "tv57": "Connection timed out during banner exchange"}
    assert "clush: tv[51-57] (7): exited with exit code 255\n" in done.stderr


def test_different_answers_stand_apart(devices):
    for device in devices[2:5]:
        device.start("playd", "--headless")
    done = clush("-g", "studio", "-S", "-b", " --field result playd CreateUplayer 0")
    assert done.returncode == 3
    answers = ("tv[01-02,06-20] (17)", "0\n"), ("tv[03-05] (3)", "1\n")
    assert done.stdout in (gathered(*answers), gathered(*reversed(answers)))
    assert "clush: tv[01-02,06-20] (17): exited with exit code 3\n" in done.stderr


def test_a_tool_that_hangs_or_has_gone_holds_up_nobody(devices):
    devices[48].signal("vextool", "STOP")
    devices[49].signal("vextool", "KILL")
    done = clush("-w", "tv[45-50]", "-b", "core show version")
    assert done.stdout == gathered(("tv[45-48] (4)", VERSION))
    assert re.search("^tv49: vexctl: unreachable: .* the tool does not answer", done.stderr, re.MULTILINE)
    assert re.search("^tv50: vexctl: unreachable: .* Connection refused; start vextool", done.stderr, re.MULTILINE)
    assert "clush: tv[49-50] (2): exited with exit code 3\n" in done.stderr


def test_lines_come_on_standard_input(devices):
    done = clush("-g", "studio", "-S", "-b", " -k", stdin="core\nshow version\nexpect git_version=v9\nshow version\n")
    assert done.returncode == 1
    assert done.stdout == gathered(("tv[01-20] (20)", 2 * VERSION))
    assert done.stderr.count("vexctl: standard input:3: refused: expect: git_version is \"v0.0.1\", not git_version=v9") == 20
