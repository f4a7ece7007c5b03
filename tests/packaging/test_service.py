"""The packages' life under a real service manager: installed, used, upgraded, removed, purged."""

import json
import os
import re

import pytest

from conftest import SOURCE
from control_limits import ControlLimits
from private_root import PrivateRoot, wait_until

pytestmark = pytest.mark.skipif(bool(os.environ["VEX_NO_PRIVATE_ROOT"]), reason=os.environ["VEX_NO_PRIVATE_ROOT"])

UNITS = ["vextool.service", "encd.service", "playd.service"]
OWN_WORDS = ["vextool", "klbase", "klrpc", "encd", "playd", "kelo", "make_sample_clip", "apisdk"]
NEWER = "99.0"

# Sends lines to the console as a client that speaks first. In Python, which every root here has.
CLIENT = """
import socket, sys
console = socket.create_connection(("127.0.0.1", int(sys.argv[1])), 20)
console.settimeout(20)
console.sendall("".join(line + "\\n" for line in sys.argv[2:]).encode())
console.shutdown(socket.SHUT_WR)
while chunk := console.recv(65536):
    sys.stdout.write(chunk.decode())
"""


# A line over the control socket.
CONTROL = """
import json, socket, sys
console = socket.socket(socket.AF_UNIX)
console.settimeout(20)
console.connect("/run/vextool/console.sock")
lines = console.makefile("r", encoding="utf-8")
lines.readline()
console.sendall(json.dumps({"run": sys.argv[1]}).encode() + b"\\n")
print(json.loads(lines.readline())["output"], end="")
"""


def ask(root, *lines, port=50000):
    return root.inside("python3", "-c", CLIENT, port, *lines)


def main_process(root, unit):
    return root.unit(unit, "MainPID")["MainPID"]


def state(root, unit):
    return root.unit(unit, "ActiveState")["ActiveState"]


def journal(root, unit):
    return root.inside("journalctl", "--no-pager", "--output=cat", f"--unit={unit}")


def wait_for_record(root, unit, text):
    """The journal gets what a program has printed a little later."""
    wait_until(lambda: text in journal(root, unit), f"the journal has {text!r}")


def install(root, packages):
    root.boot()
    root.install(packages["vextool"], packages["vextool-device"])
    wait_until(lambda: all("listens on" in journal(root, unit) for unit in UNITS), "all three listen")
    return root


@pytest.fixture(scope="module")
def shared_root(packages, tmp_path_factory):
    root = PrivateRoot(tmp_path_factory.mktemp("shared"))
    yield install(root, packages)
    root.stop()


@pytest.fixture
def installed(shared_root):
    """For tests that leave everything installed, as one boot serves them all; their settings go."""
    yield shared_root
    (shared_root.path / "etc/default/vextool").write_text("", encoding="ascii")
    shared_root.inside("rm", "-rf", "/etc/systemd/system/vextool.service.d", "/etc/vextool.password")
    # The files that root's service wrote do not belong to the user.
    shared_root.inside("chown", "-R", "vextool:vextool", "/var/log/vextool")
    shared_root.inside("systemctl", "daemon-reload")
    shared_root.inside("systemctl", "reset-failed")
    shared_root.inside("systemctl", "restart", "vextool.service")


@pytest.fixture
def own(root, packages):
    """For tests that install and remove."""
    return install(root, packages)


def test_the_services_run_as_their_own_user_once_they_are_installed(installed):
    for unit in UNITS:
        assert installed.unit(unit, "ActiveState", "SubState", "User", "UnitFileState") == {
            "ActiveState": "active", "SubState": "running", "User": "vextool", "UnitFileState": "enabled"}, unit
        owner = installed.inside("stat", "--format=%U", f"/proc/{main_process(installed, unit)}")
        assert owner == "vextool\n", unit
    assert installed.inside("systemctl", "list-units", "--failed", "--plain", "--no-legend", *UNITS) == ""


def test_a_start_is_over_when_the_console_listens(installed):
    for _ in range(5):
        installed.inside("systemctl", "reset-failed")  # for the limit of starts in a time
        installed.inside("systemctl", "restart", "vextool.service")
        assert "git-version:" in ask(installed, "core show version")


def test_commands_reach_the_encoder_and_the_player(installed):
    assert ask(installed, "encd SetQulity high") == "code= 0 result=quality high, 6000 kbit/s\n"
    assert "result     :1\n" in ask(installed, "playd CreateUplayer 0")
    installed.inside("make_sample_clip", "/srv/clip.mp4")
    opened = ask(installed, "playd OpenMediaOfUplayer 0 1 1 1 0 0 0 /srv/clip.mp4 0 0 1280 720 0")
    assert "result     :1\n" in opened
    # The player's events go to the tool's standard output.
    wait_for_record(installed, "vextool.service", "/srv/clip.mp4")


def test_a_command_that_runs_the_settings_tool_works(installed):
    installed.inside("/usr/kelo/bin/sysconfig", "set", "test", "1")
    assert ask(installed, "envctl description", "core show version").startswith("apisdk tools")
    assert "rror" not in journal(installed, "vextool.service")


def test_the_log_is_where_only_the_service_and_its_group_may_read_it(installed):
    assert installed.inside("stat", "--format=%U %a", "/var/log/vextool", "/var/log/vextool/vextool.log") == \
        "vextool 750\nvextool 640\n"
    records = installed.inside("cat", "/var/log/vextool/vextool.log")
    assert "console listens on 127.0.0.1:50000" in records
    assert not re.search(r"ermission|not permitted|Read-only|NOTIFY_SOCKET", records)


def test_the_journal_finds_lines_by_how_they_ended(installed):
    def found(*matches):
        lines = installed.inside("journalctl", "--no-pager", "--output=json", "_SYSTEMD_UNIT=vextool.service", *matches)
        return [json.loads(line) for line in lines.strip().split("\n") if line]  # splitlines() knows more line ends
    ask(installed, "core show version", "playd SetSeekOfUplayer nobody 1000")
    installed.inside("python3", "-c", CONTROL, "no such\u2028command")
    record = wait_until(lambda: found("VEXTOOL_STATUS=refused"), "the record of the refused line")[-1]
    fields = {name: record[name] for name in ("MESSAGE", "PRIORITY", "SYSLOG_IDENTIFIER", "VEXTOOL_KIND", "VEXTOOL_USER",
                                              "VEXTOOL_LINE", "VEXTOOL_STATUS", "VEXTOOL_CODE")}
    assert fields == {"MESSAGE": "root: playd SetSeekOfUplayer nobody 1000: refused", "PRIORITY": "6",
                      "SYSLOG_IDENTIFIER": "vextool", "VEXTOOL_KIND": "program", "VEXTOOL_USER": "root",
                      "VEXTOOL_LINE": "playd SetSeekOfUplayer nobody 1000", "VEXTOOL_STATUS": "refused", "VEXTOOL_CODE": "2"}
    assert int(record["VEXTOOL_SESSION"]) > 0 and int(record["VEXTOOL_US"]) > 0
    usage = wait_until(lambda: found("VEXTOOL_STATUS=usage", "VEXTOOL_KIND=control"), "the record of the wrong line")[-1]
    assert (usage["VEXTOOL_USER"], usage["VEXTOOL_LINE"]) == ("root", "no such\u2028command")
    assert found("VEXTOOL_STATUS=timeout") == []


def test_the_control_socket_is_for_the_services_group_and_goes_with_it(installed):
    assert installed.inside("stat", "--format=%U %G %a", "/run/vextool", "/run/vextool/console.sock") == \
        "vextool vextool 750\nvextool vextool 660\n"
    assert "git-version:" in installed.inside("python3", "-c", CONTROL, "core show version")
    assert "  control  root pid " in installed.inside("python3", "-c", CONTROL, "who")
    installed.inside("systemctl", "stop", "vextool.service")
    assert installed.inside("sh", "-c", "ls -d /run/vextool 2>&1 || true").startswith("ls: cannot access")


def test_a_stop_is_an_interrupt_and_counts_as_success(installed):
    installed.inside("systemctl", "stop", "vextool.service")
    assert installed.unit("vextool.service", "ActiveState", "Result", "ExecMainCode", "ExecMainStatus") == {
        "ActiveState": "inactive", "Result": "success", "ExecMainCode": "1", "ExecMainStatus": "1"}
    assert "Unload all modules" in installed.inside("cat", "/var/log/vextool/vextool.log")


def test_a_crash_is_followed_by_a_new_start(installed):
    before = main_process(installed, "vextool.service")
    installed.inside("systemctl", "kill", "--signal=KILL", "vextool.service")
    wait_until(lambda: state(installed, "vextool.service") == "active" and
               main_process(installed, "vextool.service") not in ("0", before), "a new tool")
    assert "git-version:" in ask(installed, "core show version")


# Holds the console's port, so that a start fails.
HOLDER = """
import signal, socket
holder = socket.socket()
holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
holder.bind(("127.0.0.1", 50000))
holder.listen()
signal.pause()
"""


def test_a_start_that_fails_is_tried_again_until_it_works(installed):
    installed.inside("systemctl", "stop", "vextool.service")
    installed.inside("systemctl", "reset-failed")
    installed.inside("systemd-run", "--unit=holder", "python3", "-c", HOLDER)
    wait_until(lambda: ":C350 " in installed.inside("cat", "/proc/net/tcp"), "the port is held")
    installed.inside("systemctl", "start", "--no-block", "vextool.service")
    wait_until(lambda: int(installed.unit("vextool.service", "NRestarts")["NRestarts"]) >= 2, "two more starts")
    wait_for_record(installed, "vextool.service", "Exception caugth in main: ")
    installed.inside("systemctl", "stop", "holder.service")
    wait_until(lambda: state(installed, "vextool.service") == "active", "a start that works")
    assert "git-version:" in ask(installed, "core show version")


def test_a_log_elsewhere_is_refused_by_the_read_only_file_system_and_the_console_works(installed):
    (installed.path / "etc/default/vextool").write_text("KLBASE_LOG_FILE=/srv/vextool.log\n", encoding="ascii")
    installed.inside("systemctl", "restart", "vextool.service")
    assert "git-version:" in ask(installed, "core show version")
    wait_for_record(installed, "vextool.service", "'/srv/vextool.log': Read-only file system")
    assert not (installed.path / "srv/vextool.log").exists()


def test_the_services_have_limits_and_the_console_its_group(installed):
    limits = {unit: installed.unit(unit, "MemoryMax", "TasksMax") for unit in UNITS}
    assert limits == {"vextool.service": {"MemoryMax": str(256 << 20), "TasksMax": "256"},
                      "encd.service": {"MemoryMax": str(512 << 20), "TasksMax": "256"},
                      "playd.service": {"MemoryMax": str(2 << 30), "TasksMax": "1024"}}
    assert installed.inside("id", "--group", "--name", "vextool") == "vextool\n"
    environment = installed.inside("cat", f"/proc/{main_process(installed, 'vextool.service')}/environ").split("\0")
    assert "KLBASE_CONSOLE_ALLOW=@vextool" in environment


def measured(unit):
    """The figures that the unit's page says were measured: pairs of MiB and threads."""
    text = (SOURCE / "packaging/debian" / unit).read_text(encoding="ascii").replace("\n#", "")
    return [(int(memory), int(threads)) for memory, threads in re.findall(r"(\d+) MiB and (\d+) threads", text)]


def needs(root, unit):
    """MiB and threads of the unit's process."""
    status = root.inside("cat", f"/proc/{main_process(root, unit)}/status")
    return (int(re.search(r"VmRSS:\s+(\d+) kB", status)[1]) >> 10, int(re.search(r"Threads:\s+(\d+)", status)[1]))


def check(found, stated, root, unit):
    """A figure is about what was measured, and the limits leave room for as much again."""
    limits = root.unit(unit, "MemoryMax", "TasksMax")
    # The allocator gives some of it back 5 s after a session has ended, which on a busy machine is before all is measured.
    assert 0.5 * stated[0] <= found[0] <= 1.4 * stated[0], f"{unit}: {found}, its unit says {stated}"
    assert abs(found[1] - stated[1]) <= max(2, os.cpu_count()), f"{unit}: {found}, its unit says {stated}"
    assert 2 * found[0] << 20 <= int(limits["MemoryMax"]) and 2 * found[1] <= int(limits["TasksMax"])


def test_the_kernel_keeps_the_limits_where_it_can(installed):
    for unit in UNITS:
        group = installed.unit(unit, "ControlGroup")["ControlGroup"]
        limits = installed.unit(unit, "MemoryMax", "TasksMax")
        for file, limit in (("memory.max", limits["MemoryMax"]), ("pids.max", limits["TasksMax"])):
            found = installed.inside("sh", "-c", f"cat /sys/fs/cgroup{group}/{file} 2>/dev/null || true").strip()
            assert found in ("", limit), f"{unit}: {file}"  # "": no such controller in this container


# Sixty clients that send commands and read nothing, until none of them can send more.
STILL = """
import select, socket
clients = [socket.create_connection(("127.0.0.1", 50000)) for _ in range(60)]
for client in clients:
    client.setblocking(False)
idle = 0
while idle < 20:
    sent = 0
    for client in clients:
        try:
            sent += client.send(b"help\\n" * 20000)
        except BlockingIOError:
            pass
    idle = 0 if sent else idle + 1
    select.select([], [], [], 0.05)
print("all are full", flush=True)
select.select([], [], [])
"""


def test_the_console_needs_what_its_unit_says_and_lives_within_its_limits(installed):
    unit = "vextool.service"
    installed.inside("systemctl", "restart", unit)
    at_rest, full = measured(unit)
    limits = installed.unit(unit, "MemoryMax", "TasksMax")
    process = main_process(installed, unit)
    with ControlLimits(f"{installed.name}-limits", installed.seen_from_here(process),
                       limits["MemoryMax"], limits["TasksMax"]):
        wait_until(lambda: "git-version:" in ask(installed, "core show version"), "the console answers")
        wait_until(lambda: needs(installed, unit)[1] <= at_rest[1] + 2, "the session's end")
        check(needs(installed, unit), at_rest, installed, unit)
        installed.inside("systemd-run", "--unit=still", "python3", "-c", STILL)
        wait_for_record(installed, "still.service", "all are full")
        found = needs(installed, unit)
        assert "git-version:" in ask(installed, "core show version")
        installed.inside("systemctl", "stop", "still.service")
        check(found, full, installed, unit)
    assert main_process(installed, unit) == process


def test_the_daemons_at_rest_need_less_than_half_of_their_limits(installed):
    for unit in ("encd.service", "playd.service"):
        installed.inside("systemctl", "restart", unit)
        wait_until(lambda unit=unit: state(installed, unit) == "active", unit)
        memory, threads = needs(installed, unit)
        limits = installed.unit(unit, "MemoryMax", "TasksMax")
        assert 2 * memory << 20 <= int(limits["MemoryMax"]) and 2 * threads <= int(limits["TasksMax"])
        assert (memory, threads) <= max(measured(unit))


def test_of_other_users_the_members_of_the_group_may_use_the_console(installed):
    def ask_as(user):
        return installed.inside("runuser", "-u", user, "--", "python3", "-c", CLIENT + "\n", 50000, "core show version")
    assert "git-version:" in ask(installed, "core show version")  # root
    assert "git-version:" in ask_as("vextool")
    refused = installed.inside("sh", "-c", 'runuser -u games -- python3 -c "$0" 50000 "core show version" || true', CLIENT)
    assert "git-version:" not in refused
    installed.inside("adduser", "--quiet", "games", "vextool")
    installed.inside("systemctl", "restart", "vextool.service")
    assert "git-version:" in ask_as("games")
    installed.inside("deluser", "--quiet", "games", "vextool")


def test_flags_and_environment_come_from_the_defaults_file(installed):
    defaults = installed.path / "etc/default/vextool"
    defaults.write_text("VEXTOOL_FLAGS=--cli_port=50123\nKLBASE_LOG_LEVEL=30\n", encoding="ascii")
    installed.inside("systemctl", "restart", "vextool.service")
    assert "git-version:" in ask(installed, "core show version", port=50123)


def test_a_password_file_opens_another_address(installed):
    installed.inside("sh", "-c", "umask 077; openssl passwd -6 secret > /etc/vextool.password")
    installed.inside("chown", "vextool", "/etc/vextool.password")
    (installed.path / "etc/default/vextool").write_text(
        "KLBASE_CONSOLE_ADDRESS=0.0.0.0\nKLBASE_CONSOLE_PASSWORD_FILE=/etc/vextool.password\n", encoding="ascii")
    installed.inside("systemctl", "restart", "vextool.service")
    wait_for_record(installed, "vextool.service", "console listens on 0.0.0.0:50000")
    assert "git-version:" not in ask(installed, "wrong", "core show version")
    assert "git-version:" in ask(installed, "secret", "core show version")


def test_run_as_root_the_service_has_no_capability(installed):
    drop_in = installed.path / "etc/systemd/system/vextool.service.d/root.conf"
    drop_in.parent.mkdir(parents=True, exist_ok=True)
    # The daemons' user is another one then: the tool talks to it because it is told to.
    user = installed.inside("id", "-u", "vextool").strip()
    drop_in.write_text(f"[Service]\nUser=root\nGroup=root\nEnvironment=KLRPC_ALLOW_UID={user}\n", encoding="ascii")
    installed.inside("systemctl", "daemon-reload")
    installed.inside("systemctl", "restart", "vextool.service")
    status = installed.inside("cat", f"/proc/{main_process(installed, 'vextool.service')}/status")
    assert re.search(r"^Uid:\t0\t", status, re.MULTILINE)
    assert re.search(r"^CapEff:\t0+$", status, re.MULTILINE)
    # The daemons let root in.
    assert ask(installed, "encd SetQulity high") == "code= 0 result=quality high, 6000 kbit/s\n"


def test_an_upgrade_restarts_what_ran_and_leaves_alone_what_did_not(own, newer_packages):
    own.inside("systemctl", "disable", "--now", "playd.service")
    before = {unit: main_process(own, unit) for unit in UNITS}
    (own.path / "etc/default/vextool").write_text("VEXTOOL_FLAGS=--cli_port=50124\n", encoding="ascii")
    own.install(newer_packages["vextool"], newer_packages["vextool-device"])
    assert own.inside("dpkg-query", "-W", "-f=${Version}", "vextool") == NEWER
    assert own.unit("playd.service", "ActiveState", "UnitFileState") == {
        "ActiveState": "inactive", "UnitFileState": "disabled"}
    for unit in ("vextool.service", "encd.service"):
        assert state(own, unit) == "active"
        assert main_process(own, unit) not in ("0", before[unit]), unit
    # The administrator's own settings stay.
    assert "git-version:" in ask(own, "core show version", port=50124)


def test_removal_keeps_the_log_and_purge_leaves_nothing_but_the_user(own, packages):
    own.install(packages["vextool-dev"])
    own.inside("/usr/kelo/bin/sysconfig", "set", "test", "1")
    assert "result     :1\n" in ask(own, "playd CreateUplayer 0")

    own.inside("dpkg", "--remove", "vextool-dev", "vextool-device", "vextool")
    for unit in UNITS:
        assert state(own, unit) == "inactive", unit
    assert own.inside("sh", "-c", "pgrep -u vextool || true") == ""
    assert own.inside("ls", "/var/log/vextool") == "vextool.log\n"

    own.inside("dpkg", "--purge", "vextool-dev", "vextool-device", "vextool")
    assert own.left(OWN_WORDS) == []
    assert "vextool" in (own.path / "etc/passwd").read_text(encoding="utf-8")
    assert own.inside("sh", "-c", "ldconfig -p | grep -E 'klbase|klrpc' || true") == ""
