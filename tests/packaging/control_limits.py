"""Limits of memory and tasks for a process, put on it from outside: a service manager in a container without controllers
of its own knows its units' limits and can't have the kernel keep them."""

import os
import pathlib

FILES = {"memory": "memory.limit_in_bytes", "pids": "pids.max"}


def controllers():
    """The controllers of this machine that have a hierarchy of their own here, with this process's place in it."""
    places = {}
    for line in pathlib.Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines():
        _, names, path = line.split(":", 2)
        place = pathlib.Path("/sys/fs/cgroup") / names / path.lstrip("/")
        if names in FILES and os.access(place / "cgroup.procs", os.W_OK):
            places[names] = place
    return places


class ControlLimits:
    """Moves `process` into groups with the limits, and back at the end of the block."""

    def __init__(self, name, process, memory, tasks):
        self.process = process
        self.groups = {place / name: (FILES[names], {"memory": memory, "pids": tasks}[names])
                       for names, place in controllers().items()}

    def __enter__(self):
        for group, (file, limit) in self.groups.items():
            group.mkdir()
            (group / file).write_text(str(limit), encoding="ascii")
            (group / "cgroup.procs").write_text(str(self.process), encoding="ascii")
        return self

    def __exit__(self, *_):
        for group in self.groups:
            for process in (group / "cgroup.procs").read_text(encoding="ascii").split():
                (group.parent / "cgroup.procs").write_text(process, encoding="ascii")
            group.rmdir()
