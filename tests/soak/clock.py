"""The wall clock is set forward by a day and back by a year."""

import asyncio
import pathlib
import re
import time

from harness import Events, NumberedDaemon, Operator, Replies, Tool, end_in_order, milliseconds, until
from kills import until_printed

TITLE = "clock steps"
MINUTES = 0.7

LIBRARIES = [f"/usr/lib/{machine}-linux-gnu/faketime/libfaketimeMT.so.1" for machine in ("x86_64", "aarch64")]
STEPS = ["-365d", "+1d", "+0", "+1d", "-365d", "+0"]
CALL_LIMIT_S = 3.0
WATCH_S = 1.0
MOST_CPU = 0.25  # of one core, with 50 events a second


class Clock:
    """The tool's wall clock: a file that is read again at each query of the time."""

    def __init__(self, folder, library):
        self.file = pathlib.Path(folder) / "clock"
        self.environment = {"LD_PRELOAD": library, "FAKETIME_TIMESTAMP_FILE": self.file, "FAKETIME_NO_CACHE": "1",
                            "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1"}
        self.step("+0")

    def step(self, to):
        new = self.file.with_suffix(".new")
        new.write_text(to + "\n", encoding="ascii")
        new.rename(self.file)


async def frozen_call(soak, clock, daemon, operator, step):
    """A call that gets no answer while the clock jumps."""
    daemon.signal(19)
    started = time.monotonic()
    asked = asyncio.create_task(operator.ask("encd SetQulity high"))
    await asyncio.sleep(0.5)
    clock.step(step)
    lines = await asked
    took = time.monotonic() - started
    daemon.signal(18)
    soak.require(lines == ["code= 500 result="], f"a call to a frozen daemon printed {lines}")
    soak.require(CALL_LIMIT_S - 0.2 < took < CALL_LIMIT_S + 1.5, f"a call's 3 s were {took:.1f} s with a step to {step}")
    return took


async def records_come(soak, tool, operator, number):
    """A record of level 20, which is not written at once, reaches the log although the clock jumps meanwhile."""
    text = f"debug-{number}"
    await operator.ask(f"core set {text} {number}")
    before = tool.log().count("received a publish message")
    try:
        await until(lambda: tool.log().count("received a publish message") > before, 2.5, "records of level 20 reach the log")
    except TimeoutError as late:
        soak.violation(str(late))


async def restart(soak, clock, player, operator, replies, events, step):
    """The player is down while the clock jumps, so that the tool waits for the time to look for it again."""
    player.kill()
    await asyncio.sleep(0.7)
    clock.step(step)
    await asyncio.sleep(0.7)
    player = NumberedDaemon(soak, "playd", 0, 20000)
    await player.listening()
    soak.require(await replies.player(operator), f"the first command to a new daemon failed after the step to {step}")
    await until_printed(events, player.instance, 6)
    return player


async def run(soak):
    library = next((path for path in LIBRARIES if pathlib.Path(path).exists()), None)
    if library is None:
        return soak.skip("all of it: the package faketime is not installed")
    clock = Clock(soak.folder, library)
    encoder, player = NumberedDaemon(soak, "encd"), NumberedDaemon(soak, "playd", 0, 20000)
    for daemon in (encoder, player):
        await daemon.listening()
    tool = Tool(soak, environment=clock.environment)
    events, replies = Events(soak, tool), Replies(soak)
    port = await tool.port()
    operator, idle = [await Operator(port, telnet=telnet, limit_s=soak.limit_s).open() for telnet in (False, True)]
    took, shares = [], []
    steps = STEPS[:soak.count(len(STEPS))]
    for number, step in enumerate(steps, 1):
        took.append(await frozen_call(soak, clock, encoder, operator, step))
        soak.require(await replies.encoder(operator), f"a command failed after the step to {step}")
        soak.require(await replies.player(operator), f"a command failed after the step to {step}")
        await until_printed(events, player.instance, 5)
        seen = len(events.read()[player.instance])
        cpu, started = tool.cpu_s(), time.monotonic()
        await asyncio.sleep(WATCH_S)
        # Waits on the kernel's own clock, which stands where it was, end at once after a pretended step back.
        if not step.startswith("-"):
            shares.append((tool.cpu_s() - cpu) / (time.monotonic() - started))
        soak.require(len(events.read()[player.instance]) > seen, f"no event after the step to {step}")
        await records_come(soak, tool, operator, number)
        if number < len(steps):
            player = await restart(soak, clock, player, operator, replies, events, steps[number])
            clock.step(step)
    soak.require((await idle.ask("core show version"))[-1] == "git-version: v0.0.1", "the idle session does not work")
    most = max(shares, default=0)
    soak.require(most <= MOST_CPU, f"it used {most:.0%} of a core after a step")
    years = sorted(set(re.findall(r"^(\d{4})-", tool.log(), re.MULTILINE)))
    soak.require(len(years) >= 2, f"the steps did not reach the tool: all records are of {years}")
    soak.number("steps", " ".join(steps))
    soak.number("longest call to a daemon that doesn't answer (limit 3 s)", milliseconds(max(took)))
    if shares:
        soak.number("highest share of a core after a step ahead", f"{most:.1%}")
    await end_in_order(soak, tool, 5)
