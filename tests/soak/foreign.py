"""Peers without this tree's libraries send messages that are far too large."""

import asyncio
import json
import pathlib
import re
import subprocess
import time

from figures import Figures
from harness import SYSTEM_PYTHON, Events, NumberedDaemon, Operator, Program, Replies, Tool, end_in_order, \
    milliseconds, percentile, until

TITLE = "too large messages from foreign peers"
MINUTES = 1.5

ROUNDS = 12
SIZES_MIB = [5, 64]  # just above the limit, and far above it
GROWTH_KIB = 32768  # 24 MiB for a message alone, as the unit tests have it, and others are under way beside it here
TOOL = "unix-abstract:example@default"


class ForeignPeer(Program):
    """See foreign_peer.py."""

    count = 0

    def __init__(self, soak, *words):
        ForeignPeer.count += 1
        super().__init__(soak, f"foreign{ForeignPeer.count}",
                         [SYSTEM_PYTHON, "-B", pathlib.Path(__file__).with_name("foreign_peer.py"), *words],
                         stdin=subprocess.PIPE)

    def order(self, *words):
        self.process.stdin.write((" ".join(str(word) for word in words) + "\n").encode())
        self.process.stdin.flush()

    async def codes(self, limit_s):
        await self.ended(limit_s)
        text = self.output()
        return json.loads(text) if text else {"nothing": self.errors()[-500:]}


class Peak:
    """What one message cost a program: the most memory that it had in use above that from before."""

    def __init__(self, program):
        self.program = program
        self.most_kib = 0
        self.begin()

    def begin(self):
        pathlib.Path(f"/proc/{self.program.pid}/clear_refs").write_text("5")
        self.before = int(self.program.status("VmHWM"))

    def end(self):
        self.most_kib = max(self.most_kib, int(self.program.status("VmHWM")) - self.before)


async def run(soak):
    encoder = await NumberedDaemon(soak, "encd").listening()
    player = ForeignPeer(soak, "serve", "unix-abstract:playd@default")
    await until(lambda: "listens on" in player.output(), soak.limit_s, "the foreign player listens")
    tool = Tool(soak, environment={"KLBASE_LOG_LEVEL": 10})
    port = await tool.port()
    events, replies = Events(soak, tool), Replies(soak)
    operator = await Operator(port, limit_s=soak.limit_s).open()
    victim = await Operator(port, limit_s=soak.limit_s).open()
    await until(lambda: "subscribed" in player.output(), soak.limit_s, "the tool has subscribed")
    await good_requests(soak, 1)
    peaks = {"the tool": Peak(tool), "the encoder daemon": Peak(encoder)}
    stop = asyncio.Event()
    latencies = []
    work = asyncio.create_task(undisturbed(soak, stop, operator, replies, latencies))
    served, event = 1, 0
    try:
        for number in range(soak.count(ROUNDS, len(SIZES_MIB))):
            size = SIZES_MIB[number % len(SIZES_MIB)] << 20
            for sending in (requests(soak, size), replies_to_the_tool(soak, player, victim, replies, size),
                            large_events(soak, player, events, event, size)):
                for peak in peaks.values():
                    peak.begin()
                await sending
                for peak in peaks.values():
                    peak.end()
            event += 2
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
        if not soak.sanitized:
            soak.number(f"most memory that a message cost {name}", f"{peak.most_kib} KiB (bound {GROWTH_KIB} KiB)")
            soak.require(peak.most_kib <= GROWTH_KIB, f"{name} took {peak.most_kib} KiB for a message that it refused")
    soak.number("an operator's commands meanwhile, p50 / p99",
                f"{milliseconds(percentile(latencies, 0.5))} / {milliseconds(percentile(latencies, 0.99))}")
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    figures.require("requests that were served", figures.with_label("vextool_rpc_requests_served_total", "code"), {"OK": served})
    figures.hold_calls(replies)
    figures.hold_events(events)
    figures.report()


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


async def replies_to_the_tool(soak, player, victim, replies, size):
    said = player.output().count("reply set")
    player.order("reply", size)
    await until(lambda: player.output().count("reply set") > said, soak.limit_s, "the foreign player has its reply")
    lines = await victim.ask("playd CreateUplayer 7")
    replies.calls["CreateUplayer", False] += 1
    soak.require(lines[1:3] == ["id         :7", "result     :0"], f"a reply of {size} bytes printed {lines}")


async def large_events(soak, player, events, number, size):
    """A small event before and one behind a large one: the large one is dropped, and the subscription goes on."""
    player.order("event", number + 1, 0)
    player.order("event", number + 2, size)
    end = time.monotonic() + soak.limit_s
    last = number + 2
    while last not in printed(events) and time.monotonic() < end:
        # Published again and again, because a foreign daemon keeps nothing for a subscriber that comes back.
        player.order("event", last, 0)
        await asyncio.sleep(0.3)
    soak.require(last in printed(events), f"no event arrives within {soak.limit_s} s after one of {size} bytes")


def printed(events):
    return set(events.read().get("foreign", []))
