"""Daemons are killed with SIGKILL at random moments while operators and events keep the tool busy."""

import asyncio
import collections
import re
import signal
import time

from figures import Figures
from harness import Daemon, Events, NumberedDaemon, Operator, Replies, Tool, end_in_order, milliseconds, percentile, \
    PLAYER_COMMANDS

TITLE = "daemons killed at random"
MINUTES = 4

ENCODER_KILLS, PLAYER_KILLS, REAL_KILLS = 760, 270, 50  # a tenth of the second ones are ended in order
MAX_DELAY_US = 4000
EVENT_INTERVAL_US = 4000
PROGRAMS, TELNETS = 6, 2


class Lane:
    """One daemon's life: started, used, killed, again and again."""

    def __init__(self, soak, tool, replies, events, kind):
        self.soak, self.tool, self.replies, self.events, self.kind = soak, tool, replies, events, kind
        self.daemons, self.ended_in_order = [], []
        self.kills = 0
        self.back, self.events_back, self.first_commands = [], [], []

    def make(self):
        interval = EVENT_INTERVAL_US if self.kind == "playd" else 0
        self.daemons.append(NumberedDaemon(self.soak, self.kind, MAX_DELAY_US, interval))
        return self.daemons[-1]

    async def run(self, kills, probe):
        for number in range(kills):
            daemon = self.make()
            started = time.monotonic()
            await daemon.listening()
            self.back.append(time.monotonic() - started)
            await self.first_command(daemon, probe)
            if self.kind == "playd" and number % 2 == 0:
                await self.wait_for_events(daemon)
            await asyncio.sleep(self.soak.random.uniform(0, 0.25))
            await self.end(daemon, number)
            if number % 3 == 0:  # else it is back before anybody noticed
                await asyncio.sleep(self.soak.random.uniform(0, 0.15))
        self.make()
        await self.daemons[-1].listening()

    async def first_command(self, daemon, probe):
        started = time.monotonic()
        done = await (self.replies.encoder(probe) if self.kind == "encd" else self.replies.player(probe))
        self.first_commands.append(time.monotonic() - started)
        self.soak.require(done, f"the first command after {daemon.name} was back failed")

    async def wait_for_events(self, daemon):
        limit_s = 20 if self.soak.sanitized else 6
        started = time.monotonic()
        try:
            await until_printed(self.events, daemon.instance, limit_s)
            self.events_back.append(time.monotonic() - started)
        except TimeoutError as late:
            self.soak.violation(str(late))

    async def end(self, daemon, number):
        if self.kind == "playd" and number % 10 == 4:
            daemon.signal(signal.SIGTERM)
            self.ended_in_order.append(daemon)
        else:
            daemon.signal(signal.SIGKILL)
            self.kills += 1
        await daemon.ended(self.soak.limit_s)

    async def end_last(self):
        """In order, with all that it has published."""
        last = self.daemons[-1]
        last.signal(signal.SIGTERM)
        await last.ended(self.soak.limit_s)
        self.ended_in_order.append(last)
        await asyncio.sleep(1.0)  # for events still under way; no signal marks the last one


async def until_printed(events, instance, limit_s):
    end = time.monotonic() + limit_s
    while instance not in events.read():
        if time.monotonic() > end:
            raise TimeoutError(f"no event of {instance} within {limit_s} s after it listened")
        await asyncio.sleep(0.02)


async def scripted(soak):
    tool = Tool(soak)
    events, replies = Events(soak, tool), Replies(soak)
    port = await tool.port()
    encoder, player = (Lane(soak, tool, replies, events, kind) for kind in ("encd", "playd"))
    probes = [await Operator(port, limit_s=soak.limit_s).open() for _ in range(2)]
    stop = asyncio.Event()
    commands = collections.Counter()
    operators = [await Operator(port, telnet=number >= PROGRAMS, limit_s=soak.limit_s).open()
                 for number in range(PROGRAMS + TELNETS)]
    tasks = [asyncio.create_task(operate_until(stop, soak, operator, replies, commands)) for operator in operators]
    try:
        await asyncio.gather(encoder.run(soak.count(ENCODER_KILLS), probes[0]),
                             player.run(soak.count(PLAYER_KILLS), probes[1]))
    finally:
        stop.set()
        for outcome in await asyncio.gather(*tasks, return_exceptions=True):
            if isinstance(outcome, BaseException):
                soak.violation(f"an operator could not go on: {outcome!r}")
    encoder.daemons[-1].kill()
    await balance(soak, tool, replies, events, encoder, player)
    soak.number("kills of scripted daemons", encoder.kills + player.kills)
    soak.number("commands meanwhile", sum(commands.values()))
    soak.number("first command after a daemon was back, p50 / p99",
                both(encoder.first_commands + player.first_commands))
    soak.number("events back after the daemon listened, p50 / max",
                f"{milliseconds(percentile(player.events_back, 0.5))} / {milliseconds(max(player.events_back, default=None))}")
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    figures.hold_calls(replies)
    figures.hold_events(events)
    figures.hold_sessions(Operator.opened)
    figures.hold_operators_lines([*probes, *operators])
    figures.report()


def both(values):
    return f"{milliseconds(percentile(values, 0.5))} / {milliseconds(percentile(values, 0.99))}"


async def operate_until(stop, soak, operator, replies, commands):
    while not stop.is_set():
        if soak.random.random() < 0.5:
            await replies.encoder(operator)
        else:
            await replies.player(operator, soak.random.choice(list(PLAYER_COMMANDS)))
        commands[operator.id] += 1
        await asyncio.sleep(0.01 * soak.random.random())


async def balance(soak, tool, replies, events, encoder, player):
    await until_printed(events, player.daemons[-1].instance, soak.limit_s)
    await player.end_last()
    sent, unshown = replies.balance(encoder.daemons + player.daemons)
    published, printed, gone = events.balance(player.daemons, player.ended_in_order)
    failures = replies.lost["e"] + replies.lost["p"]
    logged = len(re.findall(r" 50 \d+ modules/apisdk/(?:encoder|player)/", tool.log()))
    soak.require(logged == failures, f"{failures} commands failed and {logged} level-50 records say so")
    soak.number("replies sent / shown / lost with the daemon and reported", f"{sent} / {len(replies.shown)} / {unshown}")
    soak.number("commands that reported a failure", failures)
    soak.number("events published / printed / gone with the daemon", f"{published} / {printed} / {gone}")


async def real(soak):
    """The same with the daemons of the reference device, whose replies can't be told apart."""
    tool = Tool(soak, name="vextool-real")
    port = await tool.port()
    operators = [await Operator(port, limit_s=soak.limit_s).open() for _ in range(3)]
    kinds = {"encd": [soak.bin / "encd", f"--record_dir={soak.folder}"], "playd": [soak.bin / "playd", "--headless"]}
    commands = {"encd": ("encd SetQulity high", re.compile(r"code= 0 result=.+")),
                "playd": ("playd CreateUplayer x", re.compile(r"(?s).*\nresult     :1\n.*"))}
    kills = 0
    back = []
    for number in range(soak.count(REAL_KILLS, 2)):
        kind = ("encd", "playd")[number % 2]
        daemon = Daemon(soak, f"real-{kind}", kinds[kind])
        started = time.monotonic()
        await daemon.listening()
        command, expected = commands[kind]
        text = "\n".join(await operators[0].ask(command)) + "\n"
        back.append(time.monotonic() - started)
        soak.require(expected.match(text), f"the first command after {daemon.name} was back printed {text!r}")
        load = [asyncio.create_task(operator.ask(command)) for operator in operators[1:]]
        await asyncio.sleep(soak.random.uniform(0, 0.05))
        daemon.kill()
        kills += 1
        for lines in await asyncio.gather(*load):
            soak.require(len(lines) == (1 if kind == "encd" else 5), f"{command} printed {lines!r}")
    soak.number("kills of encd and playd", kills)
    soak.number("their start to the first reply, p50 / p99", both(back))
    await end_in_order(soak, tool)


async def run(soak):
    await scripted(soak)
    await real(soak)
