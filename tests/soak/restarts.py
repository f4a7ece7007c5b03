"""The player daemon restarts in good order, again and again, and publishes all the time."""

import asyncio
import time

from harness import Events, NumberedDaemon, Tool, end_in_order, milliseconds, percentile, until

TITLE = "daemon restarts under events"
MINUTES = 2

RESTARTS = 100
EVENT_INTERVAL_US = 2000
BACK_LIMIT_S = 0.15  # p99; a short run has too few restarts for one


async def run(soak):
    tool = Tool(soak)
    await tool.port()
    events = Events(soak, tool)
    daemons, back = [], []
    for _ in range(1 + soak.count(RESTARTS, 3)):
        daemon = await NumberedDaemon(soak, "playd", 0, EVENT_INTERVAL_US).listening()
        started = time.monotonic()
        daemons.append(daemon)
        try:
            await until(lambda one=daemon: one.instance in events.read(), soak.limit_s, f"an event of {daemon.name} is printed")
        except TimeoutError as late:
            soak.violation(str(late))
        back.append(time.monotonic() - started)
        await asyncio.sleep(soak.random.uniform(0, 0.3))
        daemon.signal(15)
        await daemon.ended(soak.limit_s)
        await asyncio.sleep(soak.random.choice([0, 0, 0.2, 0.7]))
    await asyncio.sleep(1.0)  # for events still under way; no signal marks the last one
    published, printed, _ = events.balance(daemons, daemons)
    soak.number("restarts / events published / printed", f"{len(daemons) - 1} / {published} / {printed}")
    account(soak, events, daemons)
    soak.number("first event printed after the daemon listened, p50 / p99 / max", " / ".join(
        milliseconds(percentile(back, share)) for share in (0.5, 0.99, 1.0)))
    if soak.scale >= 1 and not soak.sanitized:
        p99 = percentile(back, 0.99)
        soak.require(p99 <= BACK_LIMIT_S, f"events of a restarted daemon were back after {milliseconds(p99)} (p99)")
    await end_in_order(soak, tool)


def account(soak, events, daemons):
    """Each event of a restarted daemon is printed, or one of those that the tool says it missed."""
    unseen = sum(len(set(daemon.ledger()[1]) - set(events.printed.get(daemon.instance, []))) for daemon in daemons[1:])
    said = events.said_to_be_missed()
    soak.require(unseen == said, f"{unseen} events were published and not printed, and {said} were said to be missed")
    soak.number("not printed, and said to be missed", unseen)
