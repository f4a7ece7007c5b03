#!/usr/bin/python3
"""emulated.py COMMAND...: runs a command for which arm64 programs are like this machine's own, also those that its
children start: the kernel hands them to qemu.

The machine's own table of such formats stays as it is: the command gets one of its own, in a user namespace with the same
users. Where the kernel has none (before Linux 6.7), root's entry in the machine's table is taken away again at the end."""

import ctypes
import os
import signal
import subprocess
import sys

QEMU = "/usr/bin/qemu-aarch64-static"
TABLE = "/proc/sys/fs/binfmt_misc"
NAME = "vex-arm64"
# The ELF header of a little-endian 64-bit program or library for machine 183, of any system's ABI. F: the emulator is
# opened now, so that it is there in any root.
MAGIC = r"\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00"
MASK = r"\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff"
NEW_USER, NEW_MOUNTS, PRIVATE, RECURSIVE = 0x10000000, 0x00020000, 1 << 18, 1 << 14
PARENT_DEATH_SIGNAL = 1

libc = ctypes.CDLL(None, use_errno=True)


def check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def write(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def register():
    if not os.path.exists(f"{TABLE}/register"):
        check(libc.mount(b"none", TABLE.encode(), b"binfmt_misc", 0, None))
    write(f"{TABLE}/register", f":{NAME}:M::{MAGIC}:{MASK}:{QEMU}:F")


def map_users(pid):
    """The same users as outside: all of them for root, else the own one."""
    for kind, own in (("uid", os.getuid()), ("gid", os.getgid())):
        if os.getuid() == 0:
            write(f"/proc/{pid}/{kind}_map", "0 0 4294967295")
        else:
            write(f"/proc/{pid}/setgroups", "deny")
            write(f"/proc/{pid}/{kind}_map", f"{own} {own} 1")


def become(command, mapped, unshared):
    """In the child; never returns. Writes "u" to `unshared` in the new namespace, and "r" once the emulator is registered."""
    try:
        check(libc.prctl(PARENT_DEATH_SIGNAL, signal.SIGKILL, 0, 0, 0))
        check(libc.unshare(NEW_USER | NEW_MOUNTS))
        os.write(unshared, b"u")
        if os.read(mapped, 1) != b"m":
            os._exit(125)
        check(libc.mount(None, b"/", None, PRIVATE | RECURSIVE, None))
        check(libc.mount(b"none", TABLE.encode(), b"binfmt_misc", 0, None))
        register()
        os.write(unshared, b"r")
    except OSError:
        os._exit(125)
    try:
        os.execvp(command[0], command)
    except OSError as error:
        print(f"emulated.py: {command[0]}: {error.strerror}", file=sys.stderr)
    os._exit(127)


def run_in_own_table(command):
    """The command's wait status, or None where this kernel has no such tables."""
    (mapped_out, mapped_in), (unshared_out, unshared_in) = os.pipe(), os.pipe()
    child = os.fork()
    if child == 0:
        os.close(mapped_in)
        os.close(unshared_out)
        become(command, mapped_out, unshared_in)
    os.close(mapped_out)
    os.close(unshared_in)
    ready = False
    if os.read(unshared_out, 1) == b"u":
        map_users(child)
        os.write(mapped_in, b"m")
        ready = os.read(unshared_out, 1) == b"r"
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the terminal sends it to the command as well
    status = os.waitpid(child, 0)[1]
    return status if ready else None


def run_with_the_machines_table(command):
    if os.getuid() != 0:
        sys.exit("emulated.py: this kernel has one table of program formats for all: run as root, or "
                 "apt-get install qemu-user-static binfmt-support")
    register()
    try:
        return subprocess.call(command)
    finally:
        write(f"{TABLE}/{NAME}", "-1")


def main(command):
    if not command:
        sys.exit("use: emulated.py COMMAND...")
    if not os.access(QEMU, os.X_OK):
        sys.exit(f"emulated.py: there is no {QEMU}; apt-get install qemu-user-static")
    if os.path.exists(f"{TABLE}/qemu-aarch64"):  # this machine runs arm64 programs without us
        os.execvp(command[0], command)
    status = run_in_own_table(command)
    if status is None:
        return run_with_the_machines_table(command)
    return os.waitstatus_to_exitcode(status) if not os.WIFSIGNALED(status) else 128 + os.WTERMSIG(status)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
