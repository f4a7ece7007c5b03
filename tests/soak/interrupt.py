"""SIGINT at a random moment of the tool's start, work and end."""

import asyncio
import collections
import contextlib
import os
import pty
import signal
import termios
import time

from harness import NumberedDaemon, Operator, Tool, milliseconds, percentile, until

TITLE = "SIGINT at a random moment"
MINUTES = 0.5

RUNS = 500
LIMIT_S = 5.0
SIGINT_BIT = 1 << (signal.SIGINT - 1)
KINDS = ["from birth", "start", "load", "terminal", "exit"]  # in turn, each as often
LATE_START_S = 0.06  # it listens after about a third of that


class Runs:
    def __init__(self, soak):
        self.soak = soak
        self.took = []
        self.statuses = collections.Counter()
        self.kinds = collections.Counter()
        self.number = 0

    def tool(self, *flags, **options):
        self.number += 1
        return Tool(self.soak, *flags, name=f"vextool{self.number}", **options)

    async def interrupt(self, kind, tool, allowed=(1,)):
        """Sends SIGINT and checks how the tool ends."""
        if kind == "exit" and not tool.running() and tool.process.returncode == 0:
            return forget(self.soak, tool)  # `exit` was faster
        started = time.monotonic()
        tool.signal(signal.SIGINT)
        limit_s = LIMIT_S + (self.soak.limit_s if self.soak.sanitized else 1.0)
        try:
            status = await tool.ended(limit_s)
        except TimeoutError:
            self.soak.violation(f"{kind}: {tool.name} had not ended {limit_s:g} s after SIGINT: {tool.errors()[-500:]}")
            tool.kill()
            return
        self.took.append(time.monotonic() - started)
        self.statuses[status] += 1
        self.kinds[kind] += 1
        self.soak.require(status in allowed, f"{kind}: {tool.name} ended with status {status}: {tool.errors()[-500:]}")
        self.soak.require("takes too long" not in tool.errors(), f"{kind}: {tool.name} had to be cut off by its own limit")
        if orphans := self.soak.orphans():
            self.soak.violation(f"{kind}: {tool.name} left {orphans}")
            for pid in orphans:
                with contextlib.suppress(OSError):
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)
        forget(self.soak, tool)


def forget(soak, tool):
    """Removes the files of a good run; a sanitizer's report would have shown as a wrong status."""
    if soak.violations:
        return
    soak.programs.remove(tool)
    for file in tool.log_file.parent.glob(tool.name + ".*"):
        file.unlink()


async def from_birth(runs):
    tool = runs.tool(block_interrupt=True)
    await asyncio.sleep(runs.soak.random.uniform(0, LATE_START_S))
    await runs.interrupt("from birth", tool)


async def blocked(runs, tool):
    """Waits until the program has blocked SIGINT: from here on its own handler ends it, not the kernel."""
    def look():
        with contextlib.suppress(OSError):
            return os.path.basename(os.readlink(f"/proc/{tool.pid}/exe")) == "vextool" and \
                int(tool.status("SigBlk"), 16) & SIGINT_BIT
    await until(look, runs.soak.limit_s, "the tool blocks SIGINT", 0.0005)


async def start(runs):
    tool = runs.tool()
    await blocked(runs, tool)
    await asyncio.sleep(runs.soak.random.uniform(0, LATE_START_S))
    await runs.interrupt("start", tool)


async def load(runs):
    tool = runs.tool()
    port = await tool.port()
    operators = [await Operator(port, limit_s=runs.soak.limit_s).open() for _ in range(4)]
    commands = ["encd SetQulity high", "playd CreateUplayer x", "help", "playd GetMediaInfoOfUplayer x"]

    async def type_on(operator, command):
        with contextlib.suppress(OSError, EOFError):  # the tool ends
            while True:
                await operator.ask(command)
    tasks = [asyncio.create_task(type_on(*each)) for each in zip(operators, commands)]
    await asyncio.sleep(runs.soak.random.uniform(0, 0.15))
    await runs.interrupt("load", tool)
    await asyncio.wait(tasks, timeout=runs.soak.limit_s)
    for task in tasks:
        runs.soak.require(task.done(), "a session's connection was not closed with the tool")
        task.cancel()


class Terminal:
    """A pseudo terminal whose output is read, so that the tool never waits for it."""

    def __init__(self):
        self.master, self.slave = pty.openpty()
        os.set_blocking(self.master, False)
        self.shown = b""
        self.before = termios.tcgetattr(self.slave)

    def read(self):
        with contextlib.suppress(BlockingIOError):
            while data := os.read(self.master, 65536):
                self.shown += data
        return self.shown

    def type(self, text):
        os.write(self.master, text.encode())

    def close(self):
        for fd in (self.master, self.slave):
            os.close(fd)


def open_tool_at(runs, terminal):
    return runs.tool("--local_console", stdin=terminal.slave, stdout=terminal.slave,
                     environment={"TERM": "xterm"})


async def with_terminal(runs, kind, act, allowed):
    terminal = Terminal()
    try:
        tool = open_tool_at(runs, terminal)
        await act(terminal, tool)
        waiting = asyncio.create_task(keep_reading(terminal))
        await runs.interrupt(kind, tool, allowed)
        waiting.cancel()
        after = termios.tcgetattr(terminal.slave)
        runs.soak.require(after == terminal.before, f"{kind}: {tool.name} left the terminal as {after}")
    finally:
        terminal.close()


async def keep_reading(terminal):
    while True:
        terminal.read()
        await asyncio.sleep(0.01)


async def at_terminal(runs):
    async def act(terminal, tool):
        if runs.soak.random.random() < 0.5:
            await blocked(runs, tool)
            return await asyncio.sleep(runs.soak.random.uniform(0, LATE_START_S))
        await until(lambda: b"main> " in terminal.read(), runs.soak.limit_s, "the prompt at the terminal")
        terminal.type(runs.soak.random.choice(["", "encd SetQu", "encd SetQulity high\r", "help\r", "\x12enc"]))
        await asyncio.sleep(runs.soak.random.uniform(0, 0.03))
        if runs.soak.random.random() < 0.5:
            terminal.type("\x03")  # as an operator does it; the signal comes on top
            await asyncio.sleep(runs.soak.random.uniform(0, 0.002))
    await with_terminal(runs, "terminal", act, (1,))


async def at_exit(runs):
    async def act(terminal, _tool):
        await until(lambda: b"main> " in terminal.read(), runs.soak.limit_s, "the prompt at the terminal")
        terminal.type(runs.soak.random.choice(["exit\r", "shutdown\r", "\x04"]))
        await asyncio.sleep(runs.soak.random.choice([0, 0.0005, 0.001, 0.002, 0.005, 0.01]))
    await with_terminal(runs, "exit", act, (0, 1))


async def run(soak):
    daemons = [NumberedDaemon(soak, "encd", 20000), NumberedDaemon(soak, "playd", 20000, 2000)]
    for daemon in daemons:
        await daemon.listening()
    runs = Runs(soak)
    actions = dict(zip(KINDS, [from_birth, start, load, at_terminal, at_exit]))
    wanted = soak.count(RUNS, len(KINDS)) // len(KINDS)
    for _ in range(2 * wanted):  # an interrupt that comes after the end is tried again
        for kind in (kind for kind in KINDS if runs.kinds[kind] < wanted):
            await actions[kind](runs)
    soak.number("interrupts", ", ".join(f"{count} {kind}" for kind, count in runs.kinds.items()))
    soak.number("statuses", ", ".join(f"{count} times {status}" for status, count in runs.statuses.items()))
    soak.number("time to the end, p50 / max",
                f"{milliseconds(percentile(runs.took, 0.5))} / {milliseconds(max(runs.took, default=None))}")
