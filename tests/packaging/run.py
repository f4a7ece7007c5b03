"""run.py BUILD FILE...: runs pytest on FILEs in namespaces whose mounts and processes disappear with it, even if it is
killed. Where that can't be, as for an ordinary user, the tests that need a private root are skipped; packages are made and
looked at all the same. Ends with status 77, the reason on standard output, on a machine that lacks a program."""

import os
import shutil
import subprocess
import sys

SKIPPED = 77
TOOLS = {"unshare": "util-linux", "systemd-nspawn": "systemd-container", "nsenter": "util-linux", "man": "man-db",
         "dpkg-shlibdeps": "dpkg-dev", "systemd-analyze": "systemd"}
# A process id space ends with its first process, which is killed when this one ends; a mount space with its last process.
ALONE = ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child", "--mount-proc", "--net"]
# The shell is the first process and reaps those whose parents have ended.
FIRST = ["sh", "-c", '"$@"; exit $?', "sh"]


def skip(why):
    print(f"skipped: {why}")
    sys.exit(SKIPPED)


def no_private_root():
    """Why there can be none; "" where there can."""
    if os.geteuid() != 0:
        return "installing packages in a private root needs root"
    overlay = "mount -t tmpfs t /mnt && mkdir /mnt/u /mnt/w /mnt/m && " \
              "mount -t overlay o -o lowerdir=/,upperdir=/mnt/u,workdir=/mnt/w /mnt/m"
    tried = subprocess.run([*ALONE, "sh", "-c", overlay], capture_output=True, text=True, check=False)
    return f"this machine allows no private root: {tried.stderr.strip()}" if tried.returncode != 0 else ""


def main(build, *files):
    for tool, package in TOOLS.items():
        if shutil.which(tool) is None:
            skip(f"there is no {tool}; apt-get install {package}")
    os.environ["VEX_BUILD"] = build
    os.environ["VEX_NO_PRIVATE_ROOT"] = reason = no_private_root()
    alone = [] if reason else [*ALONE, *FIRST]
    command = [*alone, sys.executable, "-B", "-m", "pytest", "-q", "-rs", "-p", "no:cacheprovider", "--tb=short", *files]
    os.execvp(command[0], command)


if __name__ == "__main__":
    main(*sys.argv[1:])
