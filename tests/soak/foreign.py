"""Clients without this tree's libraries send requests and publications that are far too large."""

import asyncio
import json
import pathlib
import re
import time

from harness import NumberedDaemon, Operator, Program, Replies, Tool, end_in_order, milliseconds, percentile

TITLE = "too large messages from foreign clients"
MINUTES = 1.5

ROUNDS = 12
SIZES_MIB = [5, 64]  # just above the limit, and far above it
GROWTH_KIB = 24576  # of anybody's memory
SYSTEM_PYTHON = "/usr/bin/python3"  # for which Debian packages gRPC
TOOL = "unix-abstract:example@default"


class ForeignPeer(Program):
    """See foreign_peer.py."""

    count = 0

    def __init__(self, soak, *words):
        ForeignPeer.count += 1
        super().__init__(soak, f"foreign{ForeignPeer.count}",
                         [SYSTEM_PYTHON, "-B", pathlib.Path(__file__).with_name("foreign_peer.py"), *words])

    async def codes(self, limit_s):
        await self.ended(limit_s)
        text = self.output()
        return json.loads(text) if text else {"nothing": self.errors()[-500:]}


class Peak:
    """The most memory that a program had in use since the last look."""

    def __init__(self, program):
        self.program = program
        self.before = self.restart()

    def restart(self):
        pathlib.Path(f"/proc/{self.program.pid}/clear_refs").write_text("5")
        return int(self.program.status("VmHWM"))

    def growth_kib(self):
        return int(self.program.status("VmHWM")) - self.before


async def run(soak):
    encoder = await NumberedDaemon(soak, "encd").listening()
    tool = Tool(soak, environment={"KLBASE_LOG_LEVEL": 10})
    port = await tool.port()
    replies = Replies(soak)
    operator = await Operator(port, limit_s=soak.limit_s).open()
    await good_requests(soak, 1)
    peaks = {"the tool": Peak(tool), "the encoder daemon": Peak(encoder)}
    stop = asyncio.Event()
    latencies = []
    work = asyncio.create_task(undisturbed(soak, stop, operator, replies, latencies))
    served = 1
    try:
        for number in range(soak.count(ROUNDS, len(SIZES_MIB))):
            await requests(soak, SIZES_MIB[number % len(SIZES_MIB)] << 20)
            await good_requests(soak, 1)
            served += 1
    finally:
        stop.set()
        await work
    soak.uptime_check(tool)
    await asyncio.sleep(1.2)  # records below level 30 reach the file within a second
    seen = len(re.findall(r" 10 .*rpc_service:\d+ Service: begin", tool.log()))
    soak.require(seen == served, f"{served} requests were small enough, and {seen} reached the service")
    replies.balance([encoder])
    for name, peak in peaks.items():
        grown = peak.growth_kib()
        soak.number(f"most memory of {name} above its start", f"{grown} KiB (bound {GROWTH_KIB} KiB)")
        if not soak.sanitized:
            soak.require(grown <= GROWTH_KIB, f"{name} took {grown} KiB for messages that it refused")
    soak.number("an operator's commands meanwhile, p50 / p99",
                f"{milliseconds(percentile(latencies, 0.5))} / {milliseconds(percentile(latencies, 0.99))}")
    await end_in_order(soak, tool)


async def undisturbed(soak, stop, operator, replies, latencies):
    """Commands to a daemon that has nothing to do with it."""
    while not stop.is_set():
        started = time.monotonic()
        soak.require(await replies.encoder(operator), "a command failed while others sent too large messages")
        latencies.append(time.monotonic() - started)
        await asyncio.sleep(0.02)


async def requests(soak, size):
    """To the tool's service and to a daemon."""
    for peers in ([ForeignPeer(soak, "call", address, size, 2) for address in (TOOL, "unix-abstract:encd@default")],
                  [ForeignPeer(soak, "publish", TOOL, size, 2)]):
        for peer in peers:
            codes = await peer.codes(soak.limit_s * 3)
            soak.require(codes.get("RESOURCE_EXHAUSTED", 0) + codes.get("UNAVAILABLE", 0) == 2,
                         f"requests of {size} bytes ended with {codes}")


async def good_requests(soak, count):
    codes = await ForeignPeer(soak, "call", TOOL, 100, count).codes(soak.limit_s)
    soak.require(codes == {"OK": count}, f"a small request of a foreign client ended with {codes}")
