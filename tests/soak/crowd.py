"""A thousand connections: a third work, a third read nothing, a third send noise."""

import asyncio
import json
import subprocess
import sys
import time

from figures import Figures
from harness import NumberedDaemon, Operator, Program, Replies, Tool, end_in_order, free_sockets, milliseconds, \
    percentile, until, PLAYER_COMMANDS

TITLE = "a thousand connections"
MINUTES = 4

CONNECTIONS = 1000
WORK_S = 45
BESIDE_LIMIT_S = 5.0  # far more than it takes where each connection gets its turn
PACE_S = 2.0  # each worker's pause, on average: operators, not a benchmark
MEMORY_BOUND_KIB = 32768  # the allocator keeps a varying part of the stalled readers' buffers
REST_S = 60
RESTED_BOUND_KIB = 16384  # above the start, after the rest
KEPT = 2 * 16  # descriptors that the two daemons' clients keep for calls to come


async def work(soak, operator, replies, end, latencies):
    commands = list(PLAYER_COMMANDS)
    pace_s = min(PACE_S, (end - time.monotonic()) / 4)
    while time.monotonic() < end:
        await asyncio.sleep(soak.random.uniform(0, 2 * pace_s))
        encoder = soak.random.random() < 0.3
        done = await (replies.encoder(operator) if encoder else replies.player(operator, soak.random.choice(commands)))
        soak.require(done, "a working connection was told of a failure, with healthy daemons")
        latencies.append(operator.latency if operator.latency is not None else float("inf"))


async def work_all(soak, operators, replies, seconds):
    """Latencies of all commands that the operators run for so long."""
    latencies = []
    end = time.monotonic() + seconds
    outcomes = await asyncio.gather(*(work(soak, operator, replies, end, latencies) for operator in operators),
                                    return_exceptions=True)
    for outcome in outcomes:
        if isinstance(outcome, BaseException):
            soak.violation(f"a working connection could not go on: {outcome!r}")
    return latencies


async def alone(operator, replies, commands):
    """One operator with the tool to itself."""
    latencies = []
    for _ in range(commands):
        await replies.encoder(operator)
        latencies.append(operator.latency)
    return latencies


def show(latencies):
    return f"{len(latencies)} commands, " + ", ".join(
        f"p{share * 100:g} {milliseconds(percentile(latencies, share))}" for share in (0.5, 0.95, 0.99, 1.0))


class Crowd:
    """The two thirds that disturb, in a process of their own; see disturbers.py."""

    def __init__(self, soak, port, each):
        self.soak = soak
        self.program = Program(soak, "disturbers", [sys.executable, "-B", __file__.replace("crowd.py", "disturbers.py"),
                                                    port, each, soak.random.randrange(1 << 30)], stdin=subprocess.PIPE)

    async def started(self):
        await until(lambda: "all connected" in self.program.output(), self.soak.limit_s * 3, "the crowd is connected")

    async def ended(self):
        """Their own count of their deeds."""
        self.program.process.stdin.close()
        await self.program.ended(self.soak.limit_s)
        said = self.program.output().splitlines()[-1]
        self.program.out.unlink()
        return json.loads(said)


async def open_all(soak, port, count):
    operators = []
    for start in range(0, count, 50):
        operators += await asyncio.gather(*(Operator(port, telnet=number % 3 == 0, limit_s=soak.limit_s * 3).open()
                                            for number in range(start, min(count, start + 50))))
    return operators


def state(tool):
    return tool.descriptors(), tool.threads()


def is_back(now, before):
    return before[0] <= now[0] <= before[0] + KEPT and now[1] == before[1]


async def one_crowd(soak, tool, port, replies, each, seconds):
    operators = await open_all(soak, port, each)
    quiet = await work_all(soak, operators, replies, seconds / 4)
    crowd = Crowd(soak, port, each)
    await crowd.started()
    most = state(tool)
    busy = await work_all(soak, operators, replies, seconds * 3 / 4)
    did = await crowd.ended()
    for operator in operators:
        operator.close()
    return quiet, busy, did, most


async def beside(soak, port, replies, operator, each, seconds):
    """The latencies of one operator who works beside those that disturb, with nobody else at work."""
    crowd = Crowd(soak, port, each)
    await crowd.started()
    latencies = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        soak.require(await replies.encoder(operator), "the operator beside the crowd was told of a failure")
        latencies.append(operator.latency if operator.latency is not None else float("inf"))
        await asyncio.sleep(0.02)
    await crowd.ended()
    if not soak.sanitized:
        soak.require(max(latencies) <= BESIDE_LIMIT_S, f"the operator beside the crowd waited {milliseconds(max(latencies))}")
    return latencies


async def rest(soak, tool, start_kib):
    """What the crowds have used is the system's again soon."""
    try:
        await until(lambda: tool.rss_kib() <= start_kib + RESTED_BOUND_KIB, REST_S, "the crowds' memory is given back")
    except TimeoutError as late:
        soak.violation(f"{late}: {start_kib} KiB before, {tool.rss_kib()} KiB after")
    soak.number("memory after a rest", f"{tool.rss_kib()} KiB")


async def run(soak):
    limit = free_sockets()
    each = soak.count(CONNECTIONS, 30) // 3
    if each * 3 + 100 > limit:
        each = (limit - 100) // 3
        soak.skip(f"only {each * 3} connections: this machine lets a process have {limit} files")
    daemons = [NumberedDaemon(soak, "encd"), NumberedDaemon(soak, "playd")]
    for daemon in daemons:
        await daemon.listening()
    tool = Tool(soak)
    port = await tool.port()
    replies = Replies(soak)
    first = await Operator(port, limit_s=soak.limit_s).open()
    baseline = await alone(first, replies, soak.count(2000, 100))
    await replies.player(first)
    await asyncio.sleep(0.5)
    before = state(tool)
    memory = [tool.rss_kib()]
    seconds = soak.seconds(WORK_S, 2)
    for number in range(2):
        quiet, busy, did, most = await one_crowd(soak, tool, port, replies, each, seconds)
        try:
            await until(lambda: is_back(state(tool), before), soak.limit_s + 40,
                        "descriptors and threads are those of the start")
        except TimeoutError as late:
            soak.violation(f"{late}: {before} before, {state(tool)} after")
        memory.append(tool.rss_kib())
        if number == 0:
            report(soak, each, baseline, quiet, busy, did, most)
    if soak.scale >= 1 and not soak.sanitized:
        await rest(soak, tool, memory[0])
    soak.number("one operator beside the others", show(await beside(soak, port, replies, first, each, seconds / 2)))
    soak.uptime_check(tool)
    soak.require(await replies.encoder(first), "the first session does not work any more")
    first.close()
    replies.balance(daemons)
    soak.require(sum(replies.lost.values()) == 0, f"{replies.lost} commands failed")
    soak.number("descriptors and threads before / most / after", f"{before} / {most} / {state(tool)}")
    if not soak.sanitized:
        soak.number("memory at the start, after the first and the second crowd",
                    " / ".join(f"{each_kib} KiB" for each_kib in memory))
        soak.require(memory[2] - memory[1] <= MEMORY_BOUND_KIB, f"the second crowd left memory behind: {memory} KiB")
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    figures.hold_calls(replies)
    figures.report()


def report(soak, each, baseline, quiet, busy, did, most):
    soak.number("connections", f"{each} work, {each} stall, {each} send noise")
    soak.number("one operator alone", show(baseline))
    soak.number("the working ones without the others", show(quiet))
    soak.number("the working ones in the crowd", show(busy))
    soak.number("the others", ", ".join(f"{count} {what}" for what, count in did.items()))
