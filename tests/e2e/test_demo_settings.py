"""The demo's view of the file system, in which the device's settings tools are where a device has them."""

import os
import pathlib
import re
import subprocess

import pytest

import test_demo
from conftest import BIN, LIMIT_S

ROOT = pathlib.Path(__file__).resolve().parents[2]
MOUNT = ROOT / "device" / "sysconfig" / "demo_mount.sh"
SYSCONFIG = "/usr/kelo/bin/sysconfig"


def run(settings, *command, **options):
    return subprocess.run([MOUNT, BIN, settings, *command], capture_output=True, text=True, timeout=LIMIT_S, check=False,
                          **options)


@pytest.fixture
def settings(tmp_path):
    folder = tmp_path / "settings"
    if run(folder, "test", "-x", SYSCONFIG).returncode != 0:
        pytest.skip("this machine allows no view of the file system of one's own")
    return folder


def describe(settings):
    environment = dict(os.environ, KLBASE_LOG_FILE=str(settings / "vextool.log"))
    return run(settings, BIN / "vextool", "--local_console", "--cli_port=0", input="envctl description\n", env=environment)


def machine():
    """What a mount or a new file would change."""
    mounts = pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8")
    return mounts, sorted(os.listdir("/usr")), os.path.lexists("/usr/kelo") and sorted(os.listdir("/usr/kelo"))


def test_settings_that_are_set_are_there_for_the_next_command(settings):
    assert run(settings, SYSCONFIG, "set", "test", "17").returncode == 0
    assert run(settings, SYSCONFIG, "get", "test").stdout == "test=17\n"
    assert (settings / "sysconfig.conf").read_text(encoding="ascii") == "test=17\n"


def test_a_tool_asks_for_its_setting_and_nobody_complains(settings):
    run(settings, SYSCONFIG, "set", "test", "17")
    asked = describe(settings)
    assert (asked.returncode, asked.stdout) == (0, "apisdk tools")
    assert re.fullmatch(r"console listens on [0-9.:]+\n", asked.stderr)


def test_it_is_the_reference_tool_that_is_asked(settings):
    (settings / "sysconfig.conf").mkdir()  # which it can't read, and says so
    assert describe(settings).stderr.count("sysconfig: ") == 3


def test_boot_loader_variables_are_found_by_name(settings):
    assert run(settings, "fw_printenv", "bootdelay").stdout == "bootdelay=2\n"
    assert run(settings, "fw_printenv", "-n", "bootargs").stdout == "console=ttyS0,115200 root=/dev/mmcblk0p2 rootwait\n"
    unknown = run(settings, "fw_printenv", "nothing")
    assert (unknown.returncode, unknown.stdout, unknown.stderr) == (1, "", '## Error: "nothing" not defined\n')
    assert len(run(settings, "fw_printenv").stdout.splitlines()) == 4


def test_nothing_on_the_machine_changes(settings):
    before = machine()
    inside = subprocess.Popen([MOUNT, BIN, settings, "sh", "-c", f"{SYSCONFIG} set a 1; echo is set; read end"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert inside.stdout.readline() == "is set\n"
        assert machine() == before
        inside.communicate("\n", LIMIT_S)
    finally:
        inside.kill()
        inside.wait()
    assert machine() == before
    assert sorted(os.listdir(settings)) == ["fw_env.conf", "sysconfig.conf", "sysconfig.conf.lock"]


def test_the_command_takes_the_scripts_place(settings):
    with subprocess.Popen([MOUNT, BIN, settings, "sh", "-c", "echo $$; exit 7"], stdout=subprocess.PIPE, text=True) as command:
        assert command.stdout.read() == f"{command.pid}\n"
    assert command.returncode == 7


def test_words_reach_the_command_as_they_are(settings):
    assert run(settings, "printf", "%s|", "a b", "", "$HOME", "*").stdout == "a b||$HOME|*|"


def test_a_machine_that_allows_no_view_runs_the_command_without(tmp_path):
    stub = tmp_path / "unshare"
    stub.write_text("#!/bin/sh\nexit 1\n", encoding="ascii")
    stub.chmod(0o755)
    done = run(tmp_path / "settings", "sh", "-c", f"test -e {SYSCONFIG} || echo none",
               env=dict(os.environ, PATH=f"{tmp_path}:{os.environ['PATH']}"))
    assert (done.returncode, done.stdout, done.stderr) == (0, "" if os.path.exists(SYSCONFIG) else "none\n", "")


def test_a_folder_that_cannot_be_written_costs_the_settings_and_not_the_command(tmp_path):
    (tmp_path / "file").touch()
    done = run(tmp_path / "file" / "settings", "echo", "runs")
    assert (done.returncode, done.stdout) == (0, "runs\n")
    assert "can't be written to" in done.stderr


@pytest.mark.skipif(BIN.resolve() != ROOT / "build" / "bin", reason="the demo runs the release build only")
def test_the_demos_tool_has_the_view(settings):
    done = test_demo.demo("envctl description\n", "--cli_port=0")
    assert (done.returncode, done.stdout) == (0, "apisdk tools")
    assert "not found" not in done.stderr
    assert (ROOT / "build" / "demo" / "settings" / "fw_env.conf").exists()
