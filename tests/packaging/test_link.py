"""The package vextool-link under a real service manager, beside the tool's and with a NATS server: installed, configured,
used, upgraded, removed."""

import os
import shutil

import pytest

from private_root import wait_until
from test_service import install, main_process, state, wait_for_record

pytestmark = [
    pytest.mark.skipif(bool(os.environ["VEX_NO_PRIVATE_ROOT"]), reason=os.environ["VEX_NO_PRIVATE_ROOT"]),
    pytest.mark.skipif(shutil.which("nats-server") is None, reason="there is no nats-server; apt-get install nats-server")]

UNIT = "vexlink.service"

# A request to the node "box"; prints the answer.
REQUEST = """
import socket, sys
server = socket.create_connection(("127.0.0.1", 4222), 20)
lines = server.makefile("rb")
server.sendall(b'CONNECT {"verbose":false}\\r\\nSUB inbox 1\\r\\nPUB vextool.box.run inbox %d\\r\\n%s\\r\\n'
               % (len(sys.argv[1]), sys.argv[1].encode()))
for line in lines:
    if line.startswith(b"MSG"):
        sys.exit(print(lines.read(int(line.split()[-1])).decode()))
"""


def test_the_link_is_off_until_it_is_configured_and_serves_as_a_user_of_its_own(root, packages, newer_packages):
    install(root, packages)
    root.install(packages["vextool-link"])
    assert root.unit(UNIT, "ActiveState", "UnitFileState") == {"ActiveState": "inactive", "UnitFileState": "disabled"}
    assert root.inside("id", "-nG", "vexlink").split() == ["vexlink", "vextool"]

    root.inside("systemd-run", "--unit=nats", "nats-server", "-a", "127.0.0.1")
    (root.path / "etc/default/vexlink").write_text("VEXLINK_FLAGS=--node box\n", encoding="ascii")
    root.inside("systemctl", "enable", "--now", UNIT)
    wait_for_record(root, UNIT, "connected to the tool")
    wait_for_record(root, UNIT, "connected to nats://")
    assert root.inside("stat", "--format=%U", f"/proc/{main_process(root, UNIT)}") == "vexlink\n"
    answer = root.inside("python3", "-c", REQUEST, "who")
    assert '"status":"ok"' in answer
    assert " vexlink pid " in answer

    before = main_process(root, UNIT)
    root.install(newer_packages["vextool-link"])
    wait_until(lambda: main_process(root, UNIT) not in ("0", before), "the upgrade restarts it")
    root.inside("systemctl", "stop", UNIT)
    assert root.unit(UNIT, "Result", "ExecMainStatus") == {"Result": "success", "ExecMainStatus": "0"}
    wait_for_record(root, UNIT, "vexlink: ended")

    root.inside("dpkg", "--purge", "vextool-link")
    assert state(root, UNIT) == "inactive"
    assert root.inside("sh", "-c", "find /etc /usr /lib/systemd /var/lib/systemd -name '*vexlink*' 2>/dev/null || true") == ""
