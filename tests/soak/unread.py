"""Nobody reads the tool's standard output for a while, and events go on."""

import asyncio
import os
import time

from figures import Figures
from harness import Events, NumberedDaemon, Operator, Replies, Tool, end_in_order, milliseconds, percentile, until

TITLE = "standard output unread"
MINUTES = 1

ROUNDS = 2
HOLD_S = 20
LEAST_HOLD_S = 9  # longer than a connection that nobody reads stands
EVENTS = 3000  # while nothing is read
MEMORY_BOUND_KIB = 24576


class HeldOutput:
    """A pipe as standard output, copied to the file that `Events` reads while it is read at all."""

    def __init__(self, soak):
        self.soak = soak
        self.read_end, self.write_end = os.pipe()
        os.set_blocking(self.read_end, False)

    def tool(self):
        tool = Tool(self.soak, stdout=self.write_end)
        os.close(self.write_end)
        self.copy = open(tool.out, "ab", buffering=0)
        self.soak.files.append(self.copy)
        return tool

    def read(self):
        asyncio.get_running_loop().add_reader(self.read_end, self._copy)

    def hold(self):
        asyncio.get_running_loop().remove_reader(self.read_end)

    def _copy(self):
        data = os.read(self.read_end, 1 << 16)
        self.copy.write(data)
        if not data:
            self.hold()


async def run(soak):
    hold_s = soak.seconds(HOLD_S, LEAST_HOLD_S)
    daemon = await NumberedDaemon(soak, "playd", 0, round(hold_s / (EVENTS + 100) * 1e6)).listening()
    output = HeldOutput(soak)
    tool = output.tool()
    events, replies = Events(soak, tool), Replies(soak)
    operator = await Operator(await tool.port(), limit_s=soak.limit_s).open()
    output.read()
    await until(events.read, soak.limit_s, "the first event is printed")
    for _ in range(soak.count(ROUNDS)):
        await one_round(soak, tool, output, events, replies, operator, daemon, hold_s)
    daemon.signal(15)
    await daemon.ended(soak.limit_s)
    await asyncio.sleep(1.0)  # for events still under way; no signal marks the last one
    _, _, gone = events.balance([daemon], [daemon])
    missed = events.said_to_be_missed()
    soak.require(gone == missed == 0, f"{gone} events were not printed, and {missed} were said to be missed")
    replies.balance([daemon])
    output.read()
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    figures.hold_calls(replies)
    figures.hold_events(events)
    figures.hold_sessions(Operator.opened)
    figures.hold_operators_lines([operator])
    figures.report()


async def one_round(soak, tool, output, events, replies, operator, daemon, hold_s):
    output.hold()
    first, memory = newest(daemon), tool.rss_kib()
    latencies = await work(soak, replies, operator, hold_s)
    last, grown = newest(daemon), tool.rss_kib() - memory
    started = time.monotonic()
    output.read()
    try:
        await until(lambda: events.read()[daemon.instance][-1] >= last, soak.limit_s, f"event {last} is printed")
    except TimeoutError as late:
        soak.violation(f"{late}; the last one that was: {events.printed[daemon.instance][-1]}")
    soak.number(f"events while nothing was read for {hold_s:.0f} s / printed after", f"{last - first} / "
                + milliseconds(time.monotonic() - started))
    soak.number("an operator's commands meanwhile, p50 / max",
                f"{milliseconds(percentile(latencies, 0.5))} / {milliseconds(percentile(latencies, 1.0))}")
    if not soak.sanitized:
        soak.require(grown <= MEMORY_BOUND_KIB, f"{grown} KiB more in use while nothing was read")


def newest(daemon):
    """The last event that the daemon has handed over."""
    return daemon.ledger()[1][-1]


async def work(soak, replies, operator, seconds):
    """One operator's commands, which the held output must not delay."""
    latencies = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        soak.require(await replies.player(operator), "a command failed while standard output was not read")
        latencies.append(operator.latency if operator.latency is not None else float("inf"))
        await asyncio.sleep(0.1)
    return latencies
