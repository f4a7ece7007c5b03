"""Fifty vexctl scripts at a time, while the daemons that they ask are killed: each line has one verdict, the true one."""

import asyncio
import collections
import json
import re
import tempfile

from figures import Figures
from harness import Events, Operator, Replies, Tool, end_in_order
from kills import Lane

TITLE = "fifty vexctl scripts under kills"
MINUTES = 3

SCRIPTS = 50
ENCODER_KILLS, PLAYER_KILLS = 200, 100
LINES = 12
COMMANDS = ["CreateUplayer {0}", "DeleteUplayer {0}", "SetVolumeOfUplayer {0} 7", "SetSeekOfUplayer {0} 1000",
            "GetMediaInfoOfUplayer {0}"]
LOST = ("unreachable", "timeout")
EXIT_OF = {"ok": 0, "refused": 1, "failed": 1, "usage": 2, "unreachable": 3, "timeout": 4, "cancelled": 130}


class Scripts:
    """Runs them, and holds each verdict against the daemons' ledgers."""

    def __init__(self, soak, replies, path):
        self.soak, self.replies, self.path = soak, replies, path
        self.verdicts = collections.Counter()
        self.lines = collections.Counter()  # by status and line
        self.seen = []  # events that a wait has shown: instance, number
        self.runs = 0

    async def run_until(self, stop, number):
        while not stop.is_set():
            await self.run(f"s{number}.{self.runs}")

    async def run(self, name):
        self.runs += 1
        lines = [self.line(f"{name}.{at}") for at in range(LINES)]
        process = await asyncio.create_subprocess_exec(
            self.soak.bin / "vexctl", "--socket", self.path, "--json", "-k", "-f", "-", stdin=asyncio.subprocess.PIPE,
            stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.PIPE)
        text = "# a script\n" + "".join(line + "\n" for line, _, _ in lines)
        async with asyncio.timeout(LINES * self.soak.limit_s):
            out, err = await process.communicate(text.encode())
        verdicts = [json.loads(line) for line in out.splitlines()]
        if len(verdicts) != len(lines):
            return self.soak.violation(f"{name}: {len(lines)} lines have {len(verdicts)} verdicts: {err.decode()[:300]!r}")
        for (line, kind, token), verdict in zip(lines, verdicts):
            self.lines[verdict["status"], line] += 1
            self.count(kind, line.split()[1], token, verdict)
        first = next((verdict["status"] for verdict in verdicts if verdict["status"] != "ok"), "ok")
        self.soak.require(process.returncode == EXIT_OF[first], f"{name} ended with {process.returncode}, its first failure is {first}")

    def line(self, token):
        """The line, whom it asks, and by which token."""
        chance = self.soak.random.random()
        if chance < 0.4:
            return "encd SetQulity high", "e", "-"
        if chance < 0.5:
            return "wait layer/result_repor within 0.2", "wait", token
        return "playd " + self.soak.random.choice(COMMANDS).format(token), "p", token

    def count(self, kind, command, token, verdict):
        status, fields = verdict["status"], verdict["fields"]
        self.verdicts[status] += 1
        if kind == "wait":
            if status == "ok":
                self.seen.append((fields["unique_id"], int(fields["play_state"])))
            elif status != "timeout":
                self.soak.violation(f"{token}: a wait ended as {verdict!r}")
        elif status in LOST:
            self.replies.calls[command, False] += 1
            self.replies.lost[kind] += 1
            self.replies.lost_tokens.add(token)
        elif status == "ok":
            self.replies.calls[command, True] += 1
            self.shown(token, fields["result"] if kind == "e" else self.number_of(token, fields))
        else:
            self.soak.violation(f"{token}: {verdict!r}")

    def number_of(self, token, fields):
        asked, _, number = fields["id"].partition("/")
        self.soak.require(asked == token, f"{token} was shown the reply of {asked}")
        return number

    def shown(self, token, number):
        if number in self.replies.shown:
            self.soak.violation(f"reply {number} was shown for {self.replies.shown[number]} and again for {token}")
        self.replies.shown[number] = token

    def check_events(self, daemons):
        tried = {daemon.instance: daemon.ledger()[2] for daemon in daemons}
        for instance, number in self.seen:
            self.soak.require(number in tried.get(instance, ()), f"a wait has shown event {number} of {instance}, which was never published")

    def check_records(self, log):
        """Each line has left one record, with its verdict."""
        recorded = collections.Counter(re.findall(r" kind=control user=\S+ status=(\w+) code=\d+ us=\d+ line=(.*)", log))
        missing, extra = self.lines - recorded, recorded - self.lines
        self.soak.require(recorded == self.lines, f"lines without a record: {missing}; records without a line: {extra}")
        return sum(recorded.values())

    def check_metrics(self, figures, log, probes):
        """The figures that the tool has left are those of its records and of all clients."""
        figures.hold_lines(**collections.Counter(re.findall(r" session=\d+ kind=\w+ user=\S+ status=(\w+) ", log)))
        figures.hold_operators_lines(probes, sum(self.verdicts.values()))
        figures.hold_calls(self.replies)
        figures.hold_sessions(Operator.opened, control=self.runs)


async def run(soak):
    with tempfile.TemporaryDirectory(prefix="vex-") as folder:  # a socket's path has to be short
        path = f"{folder}/console.sock"
        tool = Tool(soak, environment={"KLBASE_CONSOLE_SOCKET": path})
        events, replies = Events(soak, tool), Replies(soak)
        port = await tool.port()
        scripts = Scripts(soak, replies, path)
        encoder, player = (Lane(soak, tool, replies, events, kind) for kind in ("encd", "playd"))
        probes = [await Operator(port, limit_s=soak.limit_s).open() for _ in range(2)]
        stop = asyncio.Event()
        tasks = [asyncio.create_task(scripts.run_until(stop, number)) for number in range(SCRIPTS)]
        try:
            await asyncio.gather(encoder.run(soak.count(ENCODER_KILLS, 2), probes[0]),
                                 player.run(soak.count(PLAYER_KILLS, 2), probes[1]))
        finally:
            stop.set()
            for outcome in await asyncio.gather(*tasks, return_exceptions=True):
                if isinstance(outcome, BaseException):
                    soak.violation(f"a script failed: {outcome!r}")
        await player.end_last()  # else events would be printed that come after the metrics' last look
        daemons = encoder.daemons + player.daemons
        sent, unshown = replies.balance(daemons)
        scripts.check_events(player.daemons)
        soak.number("kills of encoder and player", encoder.kills + player.kills)
        soak.number("scripts / their lines", f"{scripts.runs} / {sum(scripts.verdicts.values())}")
        soak.number("verdicts", ", ".join(f"{status} {count}" for status, count in scripts.verdicts.most_common()))
        soak.number("events that a wait has shown", len(scripts.seen))
        soak.number("replies sent / shown / lost with the daemon and reported", f"{sent} / {len(replies.shown)} / {unshown}")
        await end_in_order(soak, tool)
        soak.number("records of the scripts' lines in the log", scripts.check_records(tool.log()))
        figures = Figures(soak, tool)
        scripts.check_metrics(figures, tool.log(), probes)
        figures.hold_events(events)
        figures.report()
