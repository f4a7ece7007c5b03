"""pytest in namespaces whose mounts, processes and network disappear with it, even if it is killed."""

import os
import shutil
import subprocess
import sys

SKIPPED = 77
# A process id space ends with its first process, which is killed when this one ends; a mount space with its last process.
SPACES = ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child", "--mount-proc", "--net"]
# The shell is the first process and reaps those whose parents have ended.
FIRST = ["sh", "-c", '"$@"; exit $?', "sh"]


def skip(why):
    print(f"skipped: {why}")
    sys.exit(SKIPPED)


def need(packages):
    """Of programs by name."""
    for tool, package in packages.items():
        if shutil.which(tool, path=os.environ["PATH"] + ":/usr/sbin:/sbin") is None:
            skip(f"there is no {tool}; apt-get install {package}")


def refusal(what):
    """Why this machine allows no such namespaces with file systems of their own; "" where it does."""
    if os.geteuid() != 0:
        return f"{what} needs root"
    overlay = "mount -t tmpfs t /mnt && mkdir /mnt/u /mnt/w /mnt/m && " \
              "mount -t overlay o -o lowerdir=/,upperdir=/mnt/u,workdir=/mnt/w /mnt/m"
    tried = subprocess.run([*SPACES, "sh", "-c", overlay], capture_output=True, text=True, check=False)
    return f"this machine allows no private root: {tried.stderr.strip()}" if tried.returncode != 0 else ""


def run_pytest(files, spaces=()):
    """In place of this process."""
    command = [*spaces, sys.executable, "-B", "-m", "pytest", "-q", "-rs", "-p", "no:cacheprovider", "--tb=short", *files]
    os.execvp(command[0], command)
