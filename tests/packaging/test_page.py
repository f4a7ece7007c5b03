"""docs/fleet.md on a booted device with the packages: an administrator types its commands, and has what the page says."""

import os
import shlex
import shutil
import subprocess
import sys

import pytest

from conftest import SOURCE
from private_root import LIMIT_S, wait_until
from test_ansible import device  # noqa: F401  fixture
from test_service import install, journal, state

sys.path.insert(0, str(SOURCE / "tests/docs"))

import markdown  # noqa: E402

pytestmark = pytest.mark.skipif(bool(os.environ["VEX_NO_PRIVATE_ROOT"]), reason=os.environ["VEX_NO_PRIVATE_ROOT"])

PAGE = markdown.document("docs/fleet.md")
FIGURES = "import urllib.request; print(urllib.request.urlopen('http://127.0.0.1:9100/metrics', timeout=20).read().decode())"


def block_with(words):
    found, = (block for block in PAGE.blocks if block.kind == "sh" and words in block.text)
    return found


def follow(root, words, folder="/root"):
    """Types the block that has these words, as root."""
    for line in block_with(words).lines:
        command = shlex.split(line, comments=True)
        root.inside("env", "--chdir=" + folder, *command[command[0] == "sudo":])


def ssh(root, *words):
    """The status and output of a client on the device itself."""
    options = ["-oBatchMode=yes", "-oStrictHostKeyChecking=no", "-i", "/root/grace", "grace@127.0.0.1"]
    return root.inside("sh", "-c", shlex.join(["ssh", *options, *words]) + '; echo "status $?"')


@pytest.fixture
def installed(root, packages):
    install(root, packages)
    root.install(packages["vextool-ctl"], packages["vextool-fleet"])
    return root


def test_every_block_of_commands_is_typed_here():
    blocks = [block for block in PAGE.blocks if block.kind == "sh"]
    assert blocks == [block_with(words) for words in ("ssh/vextool-operators.conf", "useradd", "ansible-playbook",
                                                      "node-exporter/", "vexlink")]


def test_an_operator_gets_the_console_by_ssh_and_nothing_else(installed):
    installed.inside("systemctl", "start", "ssh")
    installed.inside("rm", "-f", "/run/nologin")  # the boot ends before logins are let in
    installed.inside("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/root/grace")
    follow(installed, "ssh/vextool-operators.conf")
    assert ssh(installed, "who").endswith("status 255\n")  # there is no such account
    follow(installed, "useradd")
    assert " grace pid " in ssh(installed, "who")
    assert ssh(installed, "cat /etc/hostname").endswith("status 2\n")


def test_the_playbook_shows_what_would_change_and_then_changes_it(device):  # noqa: F811
    if shutil.which("ansible-playbook") is None:
        pytest.skip("there is no ansible-playbook; apt-get install ansible-core")
    (device.path / "root/fleet/ansible/inventory.yaml").write_text(
        "devices:\n  hosts:\n    tv1:\n      ansible_connection: local\n", encoding="ascii")
    device.inside("apt-get", "update")
    follow(device, "ansible-playbook", "/root/fleet/ansible")
    assert state(device, "vextool.service") == "active"


def test_a_node_exporter_shows_the_figures(installed):
    if shutil.which("prometheus-node-exporter") is None:
        pytest.skip("there is no prometheus-node-exporter")
    installed.inside("systemctl", "start", "prometheus-node-exporter")
    follow(installed, "node-exporter/")
    wait_until(lambda: "\nvextool_build_info{" in installed.inside("python3", "-c", FIGURES), "the figures")


def make_certificates(folder):
    """ca.pem, and for the server and the node cam1 what it vouches for."""
    def openssl(*words):
        subprocess.run(["openssl", *words], check=True, capture_output=True, timeout=LIMIT_S, cwd=folder)
    new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    openssl("req", "-x509", *new_key, "-subj", "/CN=authority", "-keyout", "ca.key", "-out", "ca.pem")
    for name, alternative in (("server", "IP:127.0.0.1"), ("cam1", "DNS:cam1")):
        openssl("req", "-x509", "-CA", "ca.pem", "-CAkey", "ca.key", *new_key, "-subj", f"/CN={name}", "-addext",
                f"subjectAltName={alternative}", "-keyout", f"{name}.key", "-out", f"{name}.pem")


@pytest.mark.skipif(shutil.which("nats-server") is None, reason="there is no nats-server; apt-get install nats-server")
def test_a_node_connects_with_its_certificate(installed, packages):
    installed.install(packages["vextool-link"])
    make_certificates(installed.path / "root")
    nats = installed.path / "etc/nats"
    nats.mkdir()
    for name in ("ca.pem", "server.pem", "server.key"):
        shutil.copy(installed.path / "root" / name, nats)
    installed.inside("systemd-run", "--unit=nats", "nats-server", "-a", "127.0.0.1", "-c", "/usr/share/vextool-fleet/nats/nats.conf")
    flags, = (span for _, span in PAGE.code_spans() if span.startswith("--server tls://"))
    (installed.path / "etc/default/vexlink").write_text(
        "VEXLINK_FLAGS=" + flags.replace("nats.example", "127.0.0.1") + "\n", encoding="ascii")
    follow(installed, "vexlink")
    wait_until(lambda: "connected to tls://127.0.0.1 as cam1" in journal(installed, "vexlink.service"), "it is connected")
