"""A long steady load, and the memory that it leaves behind."""

import asyncio
import contextlib
import time

from harness import Events, NumberedDaemon, Operator, Replies, Tool, end_in_order, PLAYER_COMMANDS

TITLE = "memory under steady load"
MINUTES = 4.2

RUN_S = 240
WARM_UP = 1 / 3  # of the run: histories and the allocator's arenas fill up to their limits
SAMPLE_S = 0.5
BOUND_KIB = 64  # for each 10,000 commands
JUDGED = 30_000  # commands; the first ones' growth is the allocator's
STEADY = 4
EVENT_INTERVAL_US = 2000


async def steady(soak, operator, replies, end):
    commands = list(PLAYER_COMMANDS)
    while time.monotonic() < end:
        done = await (replies.encoder(operator) if soak.random.random() < 0.5
                      else replies.player(operator, soak.random.choice(commands)))
        soak.require(done, "a command failed, with healthy daemons")


async def come_and_go(soak, port, replies, end):
    visits = 0
    while time.monotonic() < end:
        operator = await Operator(port, telnet=visits % 2 == 0, limit_s=soak.limit_s).open()
        await replies.encoder(operator)
        with contextlib.suppress(OSError):
            operator.close()
        visits += 1
    return visits


async def sample(tool, replies, events, start, end):
    """(commands so far, heap) again and again, after the warm-up."""
    samples = []
    while time.monotonic() < end:
        events.read()
        if time.monotonic() > start + (end - start) * WARM_UP:
            samples.append((len(replies.shown), tool.rss_kib()))
        await asyncio.sleep(SAMPLE_S)
    return samples


def slope(samples):
    """Of the straight line with the least squares."""
    mean_x = sum(x for x, _ in samples) / len(samples)
    mean_y = sum(y for _, y in samples) / len(samples)
    spread = sum((x - mean_x) ** 2 for x, _ in samples)
    return sum((x - mean_x) * (y - mean_y) for x, y in samples) / spread if spread else 0.0


async def run(soak):
    daemons = [NumberedDaemon(soak, "encd"), NumberedDaemon(soak, "playd", 0, EVENT_INTERVAL_US)]
    for daemon in daemons:
        await daemon.listening()
    tool = Tool(soak)
    events, replies = Events(soak, tool), Replies(soak)
    port = await tool.port()
    operators = [await Operator(port, limit_s=soak.limit_s).open() for _ in range(STEADY)]
    start = time.monotonic()
    end = start + soak.seconds(RUN_S, 2)
    visits, samples, *_ = await asyncio.gather(
        come_and_go(soak, port, replies, end), sample(tool, replies, events, start, end),
        *(steady(soak, operator, replies, end) for operator in operators))
    daemons[1].signal(15)
    await daemons[1].ended(soak.limit_s)
    await asyncio.sleep(1.0)  # for events still under way; no signal marks the last one
    replies.balance(daemons)
    published, printed, _ = events.balance(daemons[1:], daemons[1:])
    soak.number("commands / sessions / events published / printed",
                f"{len(replies.shown)} / {visits + STEADY} / {published} / {printed}")
    if not soak.sanitized:
        judge(soak, samples)
    await end_in_order(soak, tool)


def judge(soak, samples):
    growth = slope(samples) * 10_000
    commands = samples[-1][0] - samples[0][0]
    soak.number("heap after the warm-up and at the end", f"{samples[0][1]} KiB / {samples[-1][1]} KiB")
    soak.number("growth for each 10,000 commands", f"{growth:.1f} KiB (bound {BOUND_KIB} KiB), over {commands} commands")
    if commands < JUDGED:
        soak.skip("the bound on growth: the run was too short for a slope that means something")
        return
    soak.require(growth <= BOUND_KIB, f"the heap grows by {growth:.1f} KiB for each 10,000 commands; samples: {samples[::20]}")
