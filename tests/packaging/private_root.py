"""A root folder of its own over the running system's, with a service manager that boots in it."""

import itertools
import os
import pathlib
import signal
import subprocess

import pytest
from waiting import waiter

LIMIT_S = 60  # for anything that must happen; a healthy run needs a fraction

# Units that a boot of this machine would start as well; the tests need only those that every boot has.
TARGET = "basic.target"
OFF = ["systemd-networkd.service", "systemd-resolved.service", "systemd-timesyncd.service", "systemd-udevd.service",
       "systemd-udev-trigger.service", "systemd-update-utmp.service", "apt-daily.timer", "apt-daily-upgrade.timer",
       "systemd-journal-flush.service", "ldconfig.service", "systemd-hwdb-update.service", "man-db.timer",
       "dpkg-db-backup.timer", "e2scrub_all.timer", "fstrim.timer", "logrotate.timer", "dbus.service", "dbus.socket",
       "systemd-logind.service", "systemd-journal-catalog-update.service", "apparmor.service"]


class ControlGroup:
    """A control group of its own in the hierarchies where systemd-nspawn makes some, because it leaves them behind when
    it is killed."""

    def __init__(self, name):
        self.folders = []
        mounts = [line.split() for line in pathlib.Path("/proc/self/mountinfo").read_text().splitlines()]
        for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines():
            number, controllers, path = line.split(":", 2)
            wanted = "cgroup2" if number == "0" else "cgroup"
            if number != "0" and controllers != "name=systemd":
                continue
            for mount in mounts:
                kind, options = mount[mount.index("-") + 1], mount[-1].split(",")
                if kind == wanted and (number == "0" or "name=systemd" in options):
                    self.folders.append(pathlib.Path(mount[4] + path) / name)
        for folder in self.folders:
            folder.mkdir(exist_ok=True)

    def enter(self):
        for folder in self.folders:
            (folder / "cgroup.procs").write_text("0")

    def remove(self):
        for folder in self.folders:
            below = [pathlib.Path(path) for path, _, _ in os.walk(folder, topdown=False)]
            for path in below:
                wait_until(lambda path=path: self._removed(path), f"{path} is empty")

    @staticmethod
    def _removed(path):
        try:
            path.rmdir()
        except OSError:
            return False  # its processes are still ending
        return True


wait_until = waiter(LIMIT_S)


def run(*command, **options):
    """The command's output and errors; it must succeed."""
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", timeout=4 * LIMIT_S, check=False, **options)
    assert done.returncode == 0, f"{' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


class PrivateRoot:
    _numbers = itertools.count(1)

    def __init__(self, folder):
        if os.environ["VEX_NO_PRIVATE_ROOT"]:
            pytest.skip(os.environ["VEX_NO_PRIVATE_ROOT"])
        run("mount", "-t", "tmpfs", "tmpfs", folder)
        self.changed, work, self.path = (pathlib.Path(folder) / name for name in ("changed", "work", "root"))
        for path in (self.changed, work, self.path):
            path.mkdir()
        run("mount", "-t", "overlay", "overlay", "-o", f"lowerdir=/,upperdir={self.changed},workdir={work}", self.path)
        # A machine that starts no services (as containers do) must not keep the packages from it.
        (self.path / "usr/sbin/policy-rc.d").unlink(missing_ok=True)
        self.manager = None
        self.first = None

    # Without a service manager.
    def run(self, *command):
        return run("chroot", self.path, *command)

    def boot(self):
        # What a service prints counts, however much of it.
        journal = self.path / "etc/systemd/journald.conf.d"
        journal.mkdir(parents=True, exist_ok=True)
        (journal / "unlimited.conf").write_text("[Journal]\nRateLimitIntervalSec=0\n", encoding="ascii")
        # Files that nspawn leaves there stay in the tests' own mount space.
        run("mount", "-t", "tmpfs", "tmpfs", "/run")
        # Two test runs differ in the process id space that they have to themselves.
        name = f"vextest-{os.readlink('/proc/self/ns/pid').strip('pid:[]')}-{next(self._numbers)}"
        self.name = name
        self.group = ControlGroup(name)
        masks = [f"systemd.mask={unit}" for unit in OFF]
        self.output = open(self.changed.parent / "boot.log", "w+b")
        self.manager = subprocess.Popen(
            ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--private-network", f"--machine={name}",
             "--resolv-conf=off", "--timezone=off", "--link-journal=no", "--console=pipe", f"--directory={self.path}",
             "--boot", f"systemd.unit={TARGET}", "systemd.show_status=0", *masks],
            stdin=subprocess.DEVNULL, stdout=self.output, stderr=subprocess.STDOUT, preexec_fn=self.group.enter)
        self.first = wait_until(self._first_process, "the service manager starts")
        wait_until(lambda: (self.path / "run").exists() and self._booted(), "the boot ends")

    def _boot_log(self):
        self.output.seek(0)
        return self.output.read().decode(errors="replace")

    def _first_process(self):
        """The process that is number one inside."""
        assert self.manager.poll() is None, f"systemd-nspawn ended with {self.manager.returncode}: {self._boot_log()}"
        below = [self.manager.pid]
        while below:
            pid = below.pop()
            try:
                if pathlib.Path(f"/proc/{pid}/comm").read_text() == "systemd\n":
                    return pid
                below += map(int, pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split())
            except (FileNotFoundError, ProcessLookupError):
                pass
        return None

    def _booted(self):
        assert self.manager.poll() is None, f"systemd-nspawn ended with {self.manager.returncode}: {self._boot_log()}"
        asked = subprocess.run(self._inside("systemctl", "is-system-running"), capture_output=True, text=True, check=False)
        return asked.stdout.strip() in ("running", "degraded")

    def _inside(self, *command):
        return ["nsenter", f"--target={self.first}", "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup", "--root",
                "--wdns=/", "env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                "DEBIAN_FRONTEND=noninteractive", *map(str, command)]

    def inside(self, *command):
        """Runs a command in the booted system."""
        return run(*self._inside(*command))

    def seen_from_here(self, process):
        """The id that a process of the booted system has outside of it."""
        for status in pathlib.Path("/proc").glob("[0-9]*/status"):
            try:
                ids = next(line.split()[1:] for line in status.read_text().splitlines() if line.startswith("NSpid:"))
            except (FileNotFoundError, ProcessLookupError):
                continue  # it has ended
            if len(ids) > 1 and ids[-1] == str(process) and self._is_inside(int(ids[0])):
                return int(ids[0])
        raise AssertionError(f"there is no process {process} inside")

    def _is_inside(self, process):
        return os.readlink(f"/proc/{process}/ns/pid") == os.readlink(f"/proc/{self.first}/ns/pid")

    def install(self, *packages):
        """dpkg --install in the booted system; the packages are files of this machine."""
        for package in packages:
            target = self.path / "root" / package.name
            target.write_bytes(package.read_bytes())
        names = [f"/root/{package.name}" for package in packages]
        text = self.inside("dpkg", "--install", *names)
        for package in packages:
            (self.path / "root" / package.name).unlink()
        return text

    def unit(self, name, *properties):
        text = self.inside("systemctl", "show", name, *(f"--property={p}" for p in properties))
        return dict(line.split("=", 1) for line in text.splitlines() if "=" in line)

    def left(self, words):
        """Files that differ from the running system's and whose path has one of the words in it."""
        files = [path.relative_to(self.changed) for path in self.changed.rglob("*")
                 if path.is_file() or path.is_dir() or path.is_symlink()]
        return sorted(str(file) for file in files if any(word in str(file) for word in words))

    def stop(self):
        if self.manager is not None:
            # All processes inside end with the first one, and nspawn waits for its end.
            if self.first is not None and self.manager.poll() is None:
                os.kill(self.first, signal.SIGKILL)
            try:
                self.manager.wait(LIMIT_S)
            except subprocess.TimeoutExpired:
                self.manager.kill()
                self.manager.wait()
            self.output.close()
            self.group.remove()
            run("umount", "/run")
        run("umount", self.path)
        run("umount", self.changed.parent)
