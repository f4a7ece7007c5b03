"""Devices with a tool and an sshd each, in network namespaces on one bridge, and the machine that reaches them by ssh."""

import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile

from waiting import waiter

BIN = pathlib.Path(os.environ["VEX_BIN"])
ROOT = pathlib.Path(__file__).resolve().parents[2]
LIMIT_S = 120  # for anything that must happen; a healthy run needs a fraction
NETWORK = "10.77"
ACCOUNTS = {  # name to groups
    "vextool": ["vextool"],  # the tool's
    "ada": ["vextool", "vextool-operators"],
    "eve": ["vextool-operators"],  # may come by ssh, but not use the console
    "bob": ["vextool"],  # may use the console, and has a shell
}
# It accepts more than it should, so that what a client sends would be seen.
SSHD_OF_THE_TEST = "AcceptEnv KLBASE_* XDG_*\n"


wait_until = waiter(LIMIT_S)


def run(*words, **options):
    """The command's output and errors; it must succeed."""
    done = subprocess.run([str(word) for word in words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=LIMIT_S, check=False, **options)
    assert done.returncode == 0, f"{words} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


class Ground:
    """What the devices and the machine in front of them share: files, accounts, keys and a bridge. The namespaces of this
    process must be its own."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vextool-fleet."))
        run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", self.folder)
        self.overlay("/etc")
        self.overlay("/usr/bin")
        self.programs()
        self.accounts()
        self.keys()
        self.ssh()
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "devices", "type", "bridge")
        run("ip", "address", "add", f"{NETWORK}.255.254/16", "dev", "devices")
        run("ip", "link", "set", "devices", "up")
        self.devices = []
        self.listeners = []

    def overlay(self, place):
        upper, work = (self.folder / "overlay" / place.replace("/", "_") / name for name in ("upper", "work"))
        upper.mkdir(parents=True)
        work.mkdir()
        run("mount", "-t", "overlay", "overlay", "-o", f"lowerdir={place},upperdir={upper},workdir={work}", place)

    def programs(self):
        """The build may lie where only root can read."""
        (self.folder / "bin").mkdir()
        (self.folder / "lib").mkdir()
        for program in "vextool", "playd":
            shutil.copy(BIN / program, self.folder / "bin")
        shutil.copy(BIN / "vexctl", "/usr/bin/vexctl")
        for library in BIN.parent.glob("lib/*.so*"):
            shutil.copy(library, self.folder / "lib")

    def accounts(self):
        self.home = self.folder / "home/root"
        self.home.mkdir(parents=True)
        passwd = pathlib.Path("/etc/passwd")
        passwd.write_text(passwd.read_text(encoding="utf-8").replace(":/root:", f":{self.home}:", 1), encoding="utf-8")
        groups = sorted({group for names in ACCOUNTS.values() for group in names})
        with open("/etc/group", "a", encoding="ascii") as file:
            for number, group in enumerate(groups, 61000):
                file.write(f"{group}:x:{number}:{','.join(name for name, names in ACCOUNTS.items() if group in names)}\n")
        for file, line in ("/etc/passwd", "{name}:x:{id}:{group}::{home}:/bin/sh\n"), ("/etc/shadow", "{name}:*:19000::::::\n"):
            with open(file, "a", encoding="ascii") as out:
                for number, name in enumerate(ACCOUNTS, 61000):
                    home = self.folder / "home" / name
                    home.mkdir(parents=True, exist_ok=True)
                    os.chown(home, number, 61000)
                    out.write(line.format(name=name, id=number, group=61000 + groups.index(ACCOUNTS[name][-1]), home=home))

    def keys(self):
        (self.folder / "keys").mkdir()
        for name in "host", "client":
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.folder / "keys" / name)

    def ssh(self):
        """Both sides: Debian's own configuration of the server, and what a device adds."""
        shutil.rmtree("/etc/ssh")
        folder = pathlib.Path("/etc/ssh")
        (folder / "sshd_config.d").mkdir(parents=True)
        (folder / "vextool-operators").mkdir()
        shutil.copy("/usr/share/openssh/sshd_config", folder)
        shutil.copy(self.folder / "keys/host", folder / "ssh_host_ed25519_key")
        shutil.copy(ROOT / "fleet/ssh/vextool-operators.conf", folder / "sshd_config.d")
        (folder / "sshd_config.d/zz-test.conf").write_text(SSHD_OF_THE_TEST, encoding="ascii")
        key = (self.folder / "keys/client.pub").read_text(encoding="ascii")
        for name in "ada", "eve":
            (folder / "vextool-operators" / name).write_text(key, encoding="ascii")
        for name in "bob", "root":
            home = self.folder / "home" / name / ".ssh"
            home.mkdir()
            (home / "authorized_keys").write_text(key, encoding="ascii")
        # It records the login for the kernel's audit, which a container's root may not.
        pam = pathlib.Path("/etc/pam.d/sshd")
        pam.write_text(re.sub(".*pam_loginuid.*\n", "", pam.read_text(encoding="utf-8")), encoding="utf-8")
        host_key = " ".join((self.folder / "keys/host.pub").read_text(encoding="ascii").split()[:2])
        (self.folder / "known_hosts").write_text(f"* {host_key}\n", encoding="ascii")
        (folder / "ssh_config").write_text(f"User ada\nIdentityFile {self.folder}/keys/client\nIdentitiesOnly yes\n"
                                           f"UserKnownHostsFile {self.folder}/known_hosts\n", encoding="ascii")

    def device(self, name, number):
        self.devices.append(Device(self.folder, name, self.address(name, number)))
        return self.devices[-1]

    @staticmethod
    def address(name, number):
        """The one that the name stands for from now on."""
        address = f"{NETWORK}.0.{number}"
        with open("/etc/hosts", "a", encoding="ascii") as hosts:
            hosts.write(f"{address} {name}\n")
        return address

    def silent(self, name, number):
        """A name whose address takes packets and answers none."""
        run("ip", "neighbor", "add", self.address(name, number), "lladdr", "02:00:00:00:00:01", "dev", "devices", "nud", "permanent")

    def refusing(self, name, number):
        """A name whose address has no sshd."""
        address = self.address(name, number)
        run("ip", "address", "add", f"{address}/32", "dev", "devices")
        return address

    def hung(self, name, number):
        """A name whose sshd takes connections and says nothing."""
        self.listeners.append(socket.create_server((self.refusing(name, number), 22)))

    def remove(self):
        for listener in self.listeners:
            listener.close()
        for device in self.devices:
            device.kill()
        for device in self.devices:
            device.wait_for_end()
        for place in "/usr/bin", "/etc", self.folder:
            run("umount", "-l", place)
        self.folder.rmdir()


class Device:
    """One more on the bridge."""

    def __init__(self, ground, name, address):
        self.started = []
        self.name, self.address, self.folder = name, address, ground / name
        (self.folder / "log").mkdir(parents=True)
        shutil.chown(self.folder / "log", "vextool")
        spaces = ["unshare", "--net", "--mount", "--uts", "--pid", "--fork", "--kill-child", "--mount-proc"]
        with open(self.folder / "errors", "wb") as errors:
            self.process = subprocess.Popen([*spaces, "sh", pathlib.Path(__file__).with_name("device.sh"), name, self.address],
                                            stdin=subprocess.PIPE, stdout=errors, stderr=errors)
        space = f"/proc/{self.process.pid}/ns/net"
        wait_until(lambda: os.readlink(space) != os.readlink("/proc/self/ns/net"), "a network namespace of its own")
        run("ip", "link", "add", name, "master", "devices", "up", "type", "veth",
            "peer", "name", "eth0", "netns", self.process.pid)
        self.process.stdin.write(b"\n")
        self.process.stdin.close()

    def wait(self):
        wait_until(lambda: self.well() and self.greets(), f"{self.name}: sshd")
        return self

    def start(self, program, *arguments):
        """As the service's user, with what the unit says."""
        user = ["setpriv", "--reuid=vextool", "--regid=vextool", "--init-groups"]
        environment = ["env", "-i", f"LD_LIBRARY_PATH={self.folder.parent}/lib", "KLBASE_CONSOLE_ALLOW=@vextool",
                       f"KLBASE_LOG_FILE={self.folder}/log/{program}.log", f"GST_REGISTRY={self.folder}/log/gst"]
        output = self.folder / f"{program}.out"
        with open(output, "wb") as out:
            self.started.append(subprocess.Popen([*self.enter(), *user, *environment, self.folder.parent / "bin" / program,
                                                  *arguments], stdin=subprocess.DEVNULL, stdout=out, stderr=out))
        wait_until(lambda: self.well() and "listens on" in output.read_text(errors="replace"), f"{self.name}: {program}")

    def signal(self, program, name):
        self.inside("pkill", f"-{name}", "-x", program)

    def enter(self):
        """As a command's beginning. What it runs ends with the device."""
        return ["nsenter", f"--target={self.process.pid}", "--net", "--mount", "--uts", "--pid=" + self.pids()]

    def pids(self):
        return f"/proc/{self.process.pid}/ns/pid_for_children"

    def well(self):
        assert self.process.poll() is None, self.errors()
        return True

    def greets(self):
        try:
            with socket.create_connection((self.address, 22), 5) as connection:
                return connection.recv(4) == b"SSH-"
        except OSError:
            return False

    def errors(self):
        return (self.folder / "errors").read_text(errors="replace")

    def log(self):
        return (self.folder / "log/vextool.log").read_text(errors="replace")

    def inside(self, *words, **options):
        """Runs a program on the device, as root."""
        return run(*self.enter(), *words, **options)

    def kill(self):
        """nsenter stops with what it runs, and stays so."""
        for process in self.process, *self.started:
            process.kill()

    def wait_for_end(self):
        for process in self.process, *self.started:
            process.wait(LIMIT_S)


WELL = 50


def many(ground):
    """tv01 to tv57, of which five are dead and two hung."""
    devices = [ground.device(f"tv{number:02}", number) for number in range(1, WELL + 1)]
    for device in devices:
        device.wait()
        device.start("vextool")
    ground.address("tv51", 51)  # nobody has it
    ground.address("tv52", 52)
    ground.silent("tv53", 53)
    ground.refusing("tv54", 54)
    ground.refusing("tv55", 55)
    ground.hung("tv56", 56)
    ground.hung("tv57", 57)
    return devices


def clush_environment():
    return dict(os.environ, CLUSTERSHELL_CFGDIR=str(ROOT / "fleet/clustershell"))
