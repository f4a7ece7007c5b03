"""fleet/ansible under a real service manager: the role installs the packages from an apt source and looks after the service."""

import os
import shutil

import pytest

from conftest import SOURCE
from test_service import main_process, state, wait_for_record

pytestmark = [
    pytest.mark.skipif(bool(os.environ["VEX_NO_PRIVATE_ROOT"]), reason=os.environ["VEX_NO_PRIVATE_ROOT"]),
    pytest.mark.skipif(shutil.which("ansible-playbook") is None, reason="there is no ansible-playbook; apt-get install ansible-core")]

UNIT = "vextool.service"


@pytest.fixture
def device(root, packages):
    """A device whose only apt source has the packages; the playbooks are there, too."""
    root.boot()
    root.inside("systemctl", "start", "ssh")  # by which a playbook comes elsewhere
    source = root.path / "srv/packages"
    source.mkdir()
    for package in packages.values():
        shutil.copy(package, source)
    with open(source / "Packages", "w", encoding="utf-8") as index:
        index.write(root.inside("sh", "-c", "cd /srv/packages && dpkg-scanpackages --multiversion . 2>/dev/null"))
    apt = root.path / "etc/apt"
    shutil.rmtree(apt / "sources.list.d")
    (apt / "sources.list").write_text("deb [trusted=yes] file:/srv/packages ./\n", encoding="ascii")
    lists = root.path / "var/lib/apt/lists"
    for index in lists.glob("*_*"):
        index.unlink()
    (root.path / "var/lib/apt/periodic/update-success-stamp").unlink(missing_ok=True)
    os.utime(lists, (0, 0))  # what is known of sources is old
    shutil.copytree(SOURCE / "fleet", root.path / "root/fleet")
    (root.path / "root/inventory").write_text("[devices]\ntv1 ansible_connection=local\n", encoding="ascii")
    return root


def play(device, *words):
    """What the playbook changed on the device: the tasks' names."""
    text = device.inside("env", "ANSIBLE_CONFIG=/root/fleet/ansible/ansible.cfg", "ANSIBLE_NOCOLOR=1", "ansible-playbook",
                         "--inventory=/root/inventory", "/root/fleet/ansible/setup.yaml", *words)
    task, changed = None, []
    for line in text.splitlines():
        if line.startswith(("TASK [", "RUNNING HANDLER [")):
            task = line.split(" : ")[-1].split("]")[0]
        elif line.startswith("changed:") and task not in changed:
            changed.append(task)
    return changed


def test_the_role_installs_the_packages_and_looks_after_the_service(device):
    changed = play(device)
    assert "Install the packages" in changed
    wait_for_record(device, UNIT, "listens on 127.0.0.1:50000")
    assert device.unit(UNIT, "UnitFileState")["UnitFileState"] == "enabled"
    assert device.inside("vexctl", "--field", "git_version", "core", "show", "version") == "v0.0.1\n"

    before = main_process(device, UNIT)
    assert play(device) == []
    assert main_process(device, UNIT) == before

    settings = "--extra-vars={\"vextool_settings\": {\"VEXTOOL_FLAGS\": \"--cli_port=50001\"}"
    assert play(device, settings + ", \"vextool_restart\": false}") == ["Set the service's variables"]
    assert main_process(device, UNIT) == before
    (device.path / "etc/default/vextool").write_text("", encoding="ascii")
    assert play(device, settings + "}") == ["Set the service's variables", "Restart vextool"]
    assert main_process(device, UNIT) != before
    wait_for_record(device, UNIT, "listens on 127.0.0.1:50001")

    device.inside("systemctl", "disable", "--now", UNIT)
    assert play(device, settings + "}") == ["Start the service"]
    assert state(device, UNIT) == "active"
