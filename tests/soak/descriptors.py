"""The tool may open no more files."""

import asyncio
import re
import time

from harness import NumberedDaemon, Operator, Tool, end_in_order, plain_connection, until

TITLE = "out of file descriptors"
MINUTES = 0.4

FILES = 64
ROUNDS = 4
OPERATORS = 12
IDLE_S = 3.0
MOST_CPU = 0.1  # of one core, while it waits


async def run(soak):
    daemon = await NumberedDaemon(soak, "encd").listening()
    tool = Tool(soak, files=FILES)
    port = await tool.port()
    first, *others = [await Operator(port, limit_s=soak.limit_s).open() for _ in range(OPERATORS)]
    soak.require((await first.ask("encd SetQulity high"))[0].startswith("code= 0"), "the first command failed")
    shares, refused = [], 0
    for number in range(soak.count(ROUNDS, 2)):
        connections = await exhaust(soak, tool, port)
        shares.append(await cpu_share(tool))
        soak.require((await first.ask("core show version"))[1:] == ["git-version: v0.0.1"], "an open session does not work")
        refused += await ask_at_once(soak, [first, *others])
        for connection in connections:
            connection.close()
        await recovered(soak, port, first)
        soak.require(await ask_at_once(soak, [first, *others]) == 0, "calls fail with descriptors to be had")
        if number % 2 == 0:  # in every second round the tool needs a new connection to its daemon
            continue
        daemon.kill()
        daemon = await NumberedDaemon(soak, "encd").listening()
    soak.uptime_check(tool)
    soak.require(max(shares) <= MOST_CPU, f"it used {max(shares):.0%} of a core while it could not accept")
    records = len(re.findall(r" 40 .*console cannot accept connections: Too many open files", tool.log()))
    soak.require(records >= len(shares), f"{records} records of level 40 for {len(shares)} times")
    soak.require("no reply within" not in tool.log(), "the log gives a wrong reason: the time was not up")
    soak.number("times out of descriptors / highest share of a core meanwhile", f"{len(shares)} / {max(shares):.1%}")
    soak.number("commands refused for want of one", refused)
    await end_in_order(soak, tool)


async def exhaust(soak, tool, port):
    """More connections than there are descriptors."""
    connections = [plain_connection(port) for _ in range(FILES + 8)]
    await until(lambda: tool.descriptors() >= FILES, soak.limit_s, "all descriptors are taken")
    return connections


async def cpu_share(tool):
    before = tool.cpu_s()
    started = time.monotonic()
    await asyncio.sleep(IDLE_S)
    return (tool.cpu_s() - before) / (time.monotonic() - started)


async def ask_at_once(soak, operators):
    """More calls at a time than before: each needs something of its own to wait with."""
    refused = 0
    for lines in await asyncio.gather(*(operator.ask("encd SetQulity high") for operator in operators)):
        soak.require(len(lines) == 1 and re.fullmatch(r"code= (500 result=|0 result=.+)", lines[0]),
                     f"without descriptors SetQulity printed {lines}")
        refused += lines == ["code= 500 result="]
    return refused


async def recovered(soak, port, first):
    try:
        (await Operator(port, limit_s=soak.limit_s).open()).close()
    except (OSError, EOFError) as failure:
        soak.violation(f"no operator is let in after others have left: {failure!r}")
    end = time.monotonic() + 5
    lines = []
    while time.monotonic() < end:
        lines = await first.ask("encd SetQulity high")
        if lines[0].startswith("code= 0"):
            return
        await asyncio.sleep(0.1)
    soak.violation(f"the command does not work again 5 s after descriptors are free: {lines}")
