"""A network namespace of a process's own, so that fixed ports and abstract socket names are free in it."""

import ctypes
import fcntl
import os
import socket
import struct

NEW_USER, NEW_NET = 0x10000000, 0x40000000  # CLONE_NEWUSER, CLONE_NEWNET
SIOCSIFFLAGS = 0x8914
UP_AND_RUNNING = 0x1 | 0x40


def enter():
    """Moves this process, which must have no threads, to a new network with a loopback interface. Returns False where
    the machine refuses that."""
    libc = ctypes.CDLL(None, use_errno=True)
    user, group = os.geteuid(), os.getegid()
    if libc.unshare(NEW_NET if user == 0 else NEW_USER | NEW_NET) != 0:
        return False
    if user != 0:
        keep_ids(user, group)
    with socket.socket() as control:
        fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", UP_AND_RUNNING))
    return True


def keep_ids(user, group):
    """Without ids of its own a process can't make a file on a file system that it mounts, nor make start a program."""
    for name, text in ("setgroups", "deny"), ("uid_map", f"{user} {user} 1"), ("gid_map", f"{group} {group} 1"):
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)


def enter_or_lock():
    """The same; where it is refused, takes a lock until this process ends, so that such processes run one at a time.
    The result must be kept."""
    if enter():
        return None
    lock = open(f"/tmp/vextool-test-{os.getuid()}.lock", "w", encoding="ascii")
    fcntl.flock(lock, fcntl.LOCK_EX)
    return lock
