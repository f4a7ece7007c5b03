"""fleet/ansible: the playbooks on five devices, of which one is dead and one hung. With more of them, as VEX_FLEET_TARGETS=57 has it,
five are dead and two hung."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import time

import pytest

from devices import LIMIT_S, ROOT
from page import play, screens

TARGETS = int(os.environ.get("VEX_FLEET_TARGETS", "5"))
GONE = "refusing hung".split() if TARGETS < 10 else "nobody nobody silent refusing refusing hung hung".split()
WELL = TARGETS - len(GONE)
REASONS = {"nobody": "No route to host", "silent": "Connection timed out", "refusing": "Connection refused"}
FOLDER = ROOT / "fleet/ansible"
DROP_IN = pathlib.Path("/etc/ssh/sshd_config.d/vextool-operators.conf")  # the devices' too
# Packages and services need a machine of their own.
HERE = ["--skip-tags", "install,service", "-e", "vextool_restart=false"]
INVENTORY = """devices:
  hosts:
    tv[01:{last:02}]:
  vars:
    ansible_user: root
    ansible_python_interpreter: /usr/bin/python3
    vextool_settings:
      VEXTOOL_FLAGS: --cli_port=50000
      KLBASE_LOG_FILE: /var/log/"a b"
    vextool_operators:
      - name: olga
        key: {key}
      - name: eve
        state: absent
"""


@pytest.fixture(scope="module")
def devices(ground):
    made = [ground.device(f"tv{number:02}", number) for number in range(1, WELL + 1)]
    for device in made:
        device.wait()
        device.start("vextool")
    ways = {"nobody": ground.address, "silent": ground.silent, "refusing": ground.refusing, "hung": ground.hung}
    for number, kind in enumerate(GONE, WELL + 1):
        ways[kind](f"tv{number:02}", number)
    return made


@pytest.fixture
def environment(ground):
    return dict(os.environ, HOME=str(ground.home), ANSIBLE_CONFIG=str(FOLDER / "ansible.cfg"), ANSIBLE_NOCOLOR="1")


@pytest.fixture
def playbook(ground, tmp_path, environment):
    key = (ground.folder / "keys/client.pub").read_text(encoding="ascii").strip()
    (tmp_path / "inventory.yaml").write_text(INVENTORY.format(last=TARGETS, key=key), encoding="ascii")

    def run(name, *words):
        return subprocess.run(["ansible-playbook", "-i", "inventory.yaml", FOLDER / name, *words], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=2 * LIMIT_S, check=False,
                              env=environment, cwd=tmp_path)
    return run


def recap(done, host):
    return {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", re.search(rf"^{host} +: (.*)$", done.stdout, re.MULTILINE)[1])}


def ssh(account):
    return subprocess.run(["ssh", "-oBatchMode=yes", f"{account}@tv01", "who"], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=LIMIT_S, check=False)


@pytest.mark.parametrize("name", ["setup.yaml", "lines.yaml"])
def test_a_playbook_and_its_example_inventory_are_right(environment, name):
    done = subprocess.run(["ansible-playbook", "--syntax-check", name], capture_output=True, text=True, timeout=LIMIT_S,
                          check=False, env=environment, cwd=FOLDER)
    assert (done.returncode, done.stderr) == (0, "")
    listed = subprocess.run(["ansible-inventory", "--list"], capture_output=True, text=True, timeout=LIMIT_S, check=True,
                            env=environment, cwd=FOLDER)
    assert len(json.loads(listed.stdout)["devices"]["hosts"]) == 57


def test_a_device_is_set_up_and_a_second_time_nothing_changes(playbook, devices):
    DROP_IN.unlink()
    settings = pathlib.Path("/etc/default/vextool")
    settings.unlink(missing_ok=True)
    devices[0].inside("pkill", "-HUP", "-o", "-x", "sshd")
    done = playbook("setup.yaml", "--limit", "tv01", "--check", *HERE)
    assert (done.returncode, recap(done, "tv01")["failed"]) == (0, 0), done.stdout
    assert not settings.exists() and not DROP_IN.exists()
    assert ssh("olga").returncode == 255
    done = playbook("setup.yaml", "--limit", "tv01", *HERE)
    assert done.returncode == 0, done.stdout
    assert settings.read_text(encoding="ascii").splitlines()[1:] == ['KLBASE_LOG_FILE="/var/log/\\"a b\\""',
                                                                     'VEXTOOL_FLAGS="--cli_port=50000"']
    done = ssh("olga")
    assert (done.returncode, done.stderr) == (0, "")
    assert " olga pid " in done.stdout
    assert ssh("eve").returncode == 255
    done = playbook("setup.yaml", "--limit", "tv01", *HERE)
    assert (done.returncode, recap(done, "tv01")["changed"]) == (0, 0), done.stdout


def test_lines_are_run_on_all_and_the_verdicts_collected(playbook, devices, tmp_path):
    (tmp_path / "smoke.vex").write_text("core\nshow version\nexpect git_version=v0.0.1\n", encoding="ascii")
    began = time.monotonic()
    done = playbook("lines.yaml", "-e", "lines=smoke.vex", "-e", "report=verdicts.json")
    print(f"{TARGETS} devices in {time.monotonic() - began:.1f} s:\n{done.stdout}")
    assert done.returncode == 2, done.stdout
    assert f'"{WELL} of {TARGETS} devices ok"' in done.stdout, done.stdout
    for number, kind in enumerate(GONE, WELL + 1):
        host = f"tv{number:02}"
        reason = f"ssh: connect to host {host} port 22: {REASONS[kind]}" if kind in REASONS else "Connection timed out during banner exchange"
        assert f'"{host} unreachable {reason}' in done.stdout, done.stdout
    report = json.loads((tmp_path / "verdicts.json").read_text(encoding="utf-8"))
    assert {host: verdict["status"] for host, verdict in report.items()} == {
        f"tv{number:02}": "ok" if number <= WELL else "unreachable" for number in range(1, TARGETS + 1)}
    assert report["tv02"]["replies"][1]["fields"]["git_version"] == "v0.0.1"


def test_a_line_that_fails_is_told_with_its_place_and_reason(playbook, devices, tmp_path):
    (tmp_path / "bad.vex").write_text("# more\ncore\nshow version\nexpect git_version=v9\nshow version\n", encoding="ascii")
    devices[2].signal("vextool", "KILL")
    done = playbook("lines.yaml", "-e", "lines=bad.vex", "--limit", "tv01,tv03")
    assert done.returncode == 2, done.stdout
    assert 'tv01 refused standard input:4 expect: git_version is \\"v0.0.1\\", not git_version=v9' in done.stdout
    report = json.loads((tmp_path / "verdicts.json").read_text(encoding="utf-8"))
    assert [reply["status"] for reply in report["tv01"]["replies"]] == ["ok", "ok", "refused"]
    assert report["tv03"]["status"] == "unreachable"
    assert "Connection refused; start vextool" in report["tv03"]["reason"]
    devices[2].start("vextool")


@pytest.mark.skipif(TARGETS != 5, reason="the page has five devices")
@pytest.mark.parametrize("block", screens("ansible"), ids=str)
def test_screens_are_what_the_devices_show(devices, block, tmp_path, environment):
    """In a copy of the folder, with devices of one's own."""
    folder = tmp_path / "ansible"
    shutil.copytree(FOLDER, folder)
    (folder / "inventory.yaml").write_text(INVENTORY.format(last=TARGETS, key="none"), encoding="ascii")
    del environment["ANSIBLE_CONFIG"]
    play(block, folder, environment)
