"""Shared by the scenarios: programs under test, operators at the console, events as printed, and the result."""

import asyncio
import collections
import contextlib
import ctypes
import json
import os
import pathlib
import random
import re
import resource
import signal
import socket
import subprocess
import time

PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
SANITIZER_REPORT = re.compile(r"(Address|Leak|Thread|UndefinedBehavior)Sanitizer|runtime error:")
LIBC = ctypes.CDLL(None, use_errno=True)

BLOCK_START = "*" * 39
HARNESS_NICE = -10
TSAN_OPTIONS = f"suppressions={pathlib.Path(__file__).with_name('tsan.supp')}"
SYSTEM_PYTHON = "/usr/bin/python3"  # has Debian's gRPC, and another user may run it


def percentile(values, share):
    """The value that `share` of all values don't exceed; None of none."""
    return sorted(values)[min(len(values) - 1, int(share * len(values)))] if values else None


def milliseconds(seconds):
    return "-" if seconds is None else f"{seconds * 1000:.1f} ms"


def children_of(pid):
    with contextlib.suppress(OSError):
        return [int(word) for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
                for word in (task / "children").read_text().split()]
    return []


async def until(condition, limit_s, what, pause_s=0.003):
    """The condition's first true value; TimeoutError, which names `what`, when there is none in time."""
    end = time.monotonic() + limit_s
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise TimeoutError(f"{what}: not within {limit_s:g} s")
        await asyncio.sleep(pause_s)


class Program:
    """A child in a session of its own, its output in files. It dies with this process."""

    nice_of_starter = os.getpriority(os.PRIO_PROCESS, 0)

    def __init__(self, soak, name, arguments, environment=None, block_interrupt=False, files=None, **options):
        self.name = name
        self.out = soak.folder / f"{name}.out"
        self.err = soak.folder / f"{name}.err"
        full = dict(os.environ, KLBASE_LOG_FILE=str(soak.folder / f"{name}.log"),
                    KLBASE_HISTORY_FILE=str(soak.folder / f"{name}.history"), TSAN_OPTIONS=TSAN_OPTIONS)
        full.update({key: str(value) for key, value in (environment or {}).items()})

        nice = self.nice_of_starter

        def prepare():
            LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            os.setpriority(os.PRIO_PROCESS, 0, max(0, nice))
            if files:
                resource.setrlimit(resource.RLIMIT_NOFILE, (files, files))
            if block_interrupt:
                signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})

        options.setdefault("stdin", subprocess.DEVNULL)
        with open(self.out, "ab") as out, open(self.err, "ab") as err:
            options = {"stdout": out, "stderr": err, "start_new_session": True, **options}
            self.process = subprocess.Popen([str(word) for word in arguments], env=full, preexec_fn=prepare, **options)
        self.pid = self.process.pid
        soak.programs.append(self)

    def output(self):
        return self.out.read_text(errors="replace")

    def errors(self):
        return self.err.read_text(errors="replace")

    def running(self):
        return self.process.poll() is None

    def signal(self, number):
        """SIGSTOP: returns when it has stopped; its threads may answer until then."""
        self.process.send_signal(number)
        if number != signal.SIGSTOP:
            return
        end = time.monotonic() + 5
        while not os.waitid(os.P_PID, self.process.pid, os.WSTOPPED | os.WNOWAIT | os.WNOHANG):
            assert time.monotonic() < end, f"{self.name} does not stop"
            time.sleep(0.001)

    async def ended(self, limit_s):
        await until(lambda: not self.running(), limit_s, f"{self.name} ends")
        return self.process.returncode

    def kill(self):
        if self.running():
            self.process.kill()
        self.process.wait()

    # The kernel's figures.

    def status(self, field):
        found = re.search(rf"^{field}:\s+(\S+)", pathlib.Path(f"/proc/{self.pid}/status").read_text(), re.MULTILINE)
        return found.group(1)

    def rss_kib(self):
        """Of its heap and stacks only: the kernel adds and drops pages of files as it likes."""
        return int(self.status("RssAnon"))

    def threads(self):
        return int(self.status("Threads"))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def cpu_s(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Tool(Program):
    """vextool, serving its console on a free port."""

    def __init__(self, soak, *flags, name="vextool", environment=None, **options):
        full = {"KLBASE_CONSOLE_MAX_SESSIONS": 2000, **(environment or {})}
        self.limit_s = soak.limit_s
        self.metrics_file = soak.folder / f"{name}.prom"
        full.setdefault("KLBASE_METRICS_FILE", self.metrics_file)
        super().__init__(soak, name, [soak.bin / "vextool", "--cli_port=0", *flags], full, **options)
        self.log_file = pathlib.Path(full.get("KLBASE_LOG_FILE", soak.folder / f"{name}.log"))

    async def port(self):
        def found():
            if not self.running():
                raise RuntimeError(f"vextool ended with {self.process.returncode}: {self.errors()[-2000:]}")
            return re.search(r"console listens on \d+\.\d+\.\d+\.\d+:(\d+)", self.errors())
        return int((await until(found, self.limit_s, "the console listens")).group(1))

    def log(self):
        files = sorted(self.log_file.parent.glob(self.log_file.stem + "*" + self.log_file.suffix))
        return "".join(file.read_text(errors="replace") for file in files)


class Daemon(Program):
    """A daemon that says on standard output when it listens."""

    count = 0

    def __init__(self, soak, what, arguments, **options):
        Daemon.count += 1
        self.limit_s = soak.limit_s
        super().__init__(soak, f"{what}{Daemon.count}", arguments, **options)

    async def listening(self):
        def found():
            if not self.running():
                raise RuntimeError(f"{self.name} ended with {self.process.returncode}: {self.errors()[-2000:]}")
            return "listens on" in self.output()
        await until(found, self.limit_s, f"{self.name} listens", 0.001)
        return self


class NumberedDaemon(Daemon):
    """See numbered_daemon.cc."""

    def __init__(self, soak, kind, max_delay_us=0, event_interval_us=0):
        self.instance = f"{kind[0]}{Daemon.count + 1}"
        self.ledger_file = soak.folder / f"{self.instance}.ledger"
        super().__init__(soak, kind, [soak.bin / "numbered_daemon", kind, self.ledger_file, self.instance, max_delay_us,
                                      event_interval_us])

    def ledger(self):
        """Replies as number -> token; events that were published, with or without a subscriber; those that may have
        been."""
        replies, published, tried = {}, [], set()
        for line in self.ledger_file.read_text().splitlines() if self.ledger_file.exists() else []:
            words = line.split()
            if words[0] == "reply":
                replies[words[1]] = words[2]
            elif words[0] == "try":
                tried.add(int(words[1]))
            elif words[0] == "sent":
                published.append(int(words[1]))
        return replies, published, tried


class Operator:
    """A client of the console that checks that each command's output is exactly its own."""

    count = 0
    opened = 0  # connections to the console, of all operators
    unsure = 0  # of them, closed again with a line sent that may have been run

    def __init__(self, port, telnet=False, limit_s=30):
        self.port, self.telnet, self.limit_s = port, telnet, limit_s
        Operator.count += 1
        self.id = Operator.count
        self.asked = 0

    async def open(self, host="127.0.0.1"):
        """Connected, and recognised by the tool as a telnet client or a program."""
        while True:
            async with asyncio.timeout(self.limit_s):
                self.reader, self.writer = await asyncio.open_connection(host, self.port)
            Operator.opened += 1
            if self.telnet:
                self.writer.write(b"\xff\xf1")  # a telnet command that asks for nothing
                await self.ask("core show version")
                return self
            # A program speaks within 100 ms; where the machine let it come too late for that it tries again.
            self.writer.write(b"core show version\n")
            if (await self.line()).startswith("\tbuild-date"):
                await self.line()
                return self
            Operator.unsure += 1
            self.close()

    async def line(self):
        async with asyncio.timeout(self.limit_s):
            data = await self.reader.readuntil(b"\n")
        if self.telnet:
            data = re.sub(rb"\xff(?:[\xfb-\xfe].|\xfa.*?\xff\xf0|[\xf1-\xf9])", b"", data, flags=re.DOTALL)
        text = data.decode(errors="replace").rstrip("\r\n")
        while self.telnet and (prompt := re.match(r"[a-z]+> ", text)):
            text = text[prompt.end():]
        return text

    async def ask(self, command, expected_lines=0):
        """The lines that the command printed. They end where the answer to a word of this operator's own begins, so
        that a line too many is seen as one too few. `self.latency` is how long it took to have `expected_lines`;
        `self.verdict` is the line by which an operator is told why the command did not end well."""
        self.asked += 1
        mark = f"mark-{self.id}-{self.asked}"
        started = time.monotonic()
        self.latency = None
        self.verdict = None
        self.writer.write(f"{command}\n{mark}\n".encode())
        lines = []
        while True:
            text = await self.line()
            if text.startswith("Unknown command") and f'"{mark}"' in text:
                return [line for line in lines if not line.startswith("vextool console: ")]
            if self.telnet and VERDICT.match(text):
                self.verdict = text
                continue
            lines.append(text)
            if len(lines) == expected_lines:
                self.latency = time.monotonic() - started

    def close(self):
        self.writer.close()


VERDICT = re.compile(r"(refused|usage|unreachable|timeout|cancelled|failed): ")


class Wrong(Exception):
    """A command's output is neither its own reply nor its own failure."""


def check_encoder(lines):
    """The reply's number, or None for the failure text. Wrong for anything else."""
    if lines == ["code= 500 result="]:
        return None
    found = re.fullmatch(r"code= 0 result=(\S+)", lines[0]) if len(lines) == 1 else None
    if not found:
        raise Wrong(f"encd SetQulity printed {lines!r}")
    return found.group(1)


def check_player(command, token, lines):
    """The same for a player command whose id was `token`."""
    wide = command == "GetMediaInfoOfUplayer"
    labels = ["id", "result", "error_code", "error_infor"]
    if wide:
        labels += ["info_id", "info_url", "info_width", "info_heigh", "info_duration_ms"]
    width = 17 if wide else 11
    if len(lines) != len(labels) + 1 or lines[0] != f"**************{command}**********":
        raise Wrong(f"{command} {token} printed {lines!r}")
    values = []
    for label, line in zip(labels, lines[1:]):
        start = f"{label:<{width}}:"
        if not line.startswith(start):
            raise Wrong(f"{command} {token} printed {lines!r}")
        values.append(line[len(start):])
    if values[:2] == [token, "0"] and values[4:6] in ([], ["", ""]):
        return None
    shown = re.fullmatch(re.escape(token) + r"/(\S+)", values[0])
    if not shown or values[1] != "1" or (wide and values[4:6] != [values[0], shown.group(1)]):
        raise Wrong(f"{command} {token} printed {lines!r}")
    return shown.group(1)


def check_verdict(operator, token, number):
    """An operator is told why, when no reply came, and nothing else."""
    if not operator.telnet:
        return
    told = operator.verdict is not None and operator.verdict.startswith(("unreachable: ", "timeout: "))
    if told != (number is None):
        raise Wrong(f"{token} with reply {number} ended with {operator.verdict!r}")


ENCODER_LINES, PLAYER_LINES, INFO_LINES = 1, 5, 10
PLAYER_COMMANDS = {"CreateUplayer": "{0}", "DeleteUplayer": "{0}", "SetVolumeOfUplayer": "{0} 7",
                   "SetSeekOfUplayer": "{0} 1000", "GetMediaInfoOfUplayer": "{0}"}


class Replies:
    """The books: the replies that commands showed, against those in the daemons' ledgers."""

    def __init__(self, soak):
        self.soak = soak
        self.shown = {}  # number -> token
        self.calls = collections.Counter()  # by command and whether it showed a reply
        self.lost = {"e": 0, "p": 0}
        self.lost_tokens = set()

    async def encoder(self, operator):
        lines = await operator.ask("encd SetQulity high", ENCODER_LINES)
        return self._count(operator, "e", "SetQulity", "-", lambda: check_encoder(lines))

    async def player(self, operator, command="CreateUplayer"):
        token = f"t{operator.id}.{operator.asked}"
        lines = await operator.ask(f"playd {command} {PLAYER_COMMANDS[command].format(token)}",
                                   INFO_LINES if command == "GetMediaInfoOfUplayer" else PLAYER_LINES)
        return self._count(operator, "p", command, token, lambda: check_player(command, token, lines))

    def _count(self, operator, kind, command, token, check):
        """True for a reply, False for a reported failure."""
        try:
            number = check()
            check_verdict(operator, token, number)
        except Wrong as wrong:
            self.soak.violation(str(wrong))
            return False
        self.calls[command, number is not None] += 1
        if number is None:
            self.lost[kind] += 1
            self.lost_tokens.add(token)
            return False
        if number in self.shown:
            self.soak.violation(f"reply {number} was shown for {self.shown[number]} and again for {token}")
        self.shown[number] = token
        return True

    def balance(self, daemons):
        """Each reply sent was shown once, or its command said that it failed."""
        sent = {}
        for daemon in daemons:
            sent.update(daemon.ledger()[0])
        for number, token in self.shown.items():
            if sent.get(number) != token:
                self.soak.violation(f"{token} showed reply {number}, which was sent for {sent.get(number, 'no command')}")
        unshown = {number: token for number, token in sent.items() if number not in self.shown}
        for number, token in unshown.items():
            if token != "-" and token not in self.lost_tokens:
                self.soak.violation(f"reply {number} for {token} was sent and neither shown nor reported as lost")
        nameless = sum(token == "-" for token in unshown.values())
        if nameless > self.lost["e"]:
            self.soak.violation(f"{nameless} encoder replies were not shown, and only {self.lost['e']} reported as lost")
        return len(sent), len(unshown)


class Events:
    """The event blocks on the tool's standard output."""

    def __init__(self, soak, tool):
        self.soak, self.tool = soak, tool
        self.printed = {}  # instance -> numbers in their order
        self.rest = ""
        self.file = open(tool.out, encoding="utf-8", errors="replace")
        soak.files.append(self.file)

    def read(self):
        lines = (self.rest + self.file.read()).split("\n")
        whole = (len(lines) - 1) // 4 * 4
        self.rest = "\n".join(lines[whole:])
        for at in range(0, whole, 4):
            block = lines[at:at + 4]
            found = re.fullmatch(r" layerId            :(\S+)\n url                :numbered\n play_state         :(\d+)",
                                 "\n".join(block[1:]))
            if block[0] != BLOCK_START or not found:
                self.soak.violation(f"not an event block: {block!r}")
                continue
            self.printed.setdefault(found.group(1), []).append(int(found.group(2)))
        return self.printed

    def balance(self, daemons, ended_in_order=()):
        """No event twice, out of order or made up, and none missing before one that was printed. Those that were on
        their way when a daemon was killed went with it. What the first one published before the tool's first
        subscription was nobody's. Returns the numbers of published, printed and gone ones."""
        self.read()
        said = self.said_to_be_missed()
        all_published = printed_count = gone = 0
        for daemon in daemons:
            _, published, tried = daemon.ledger()
            printed = self.printed.get(daemon.instance, [])
            if daemon is daemons[0] and printed:
                published = [number for number in published if number >= printed[0]]
            all_published += len(published)
            printed_count += len(printed)
            if any(b <= a for a, b in zip(printed, printed[1:])):
                self.soak.violation(f"events of {daemon.instance} were printed twice or out of order: {printed[:50]}")
            if made_up := set(printed) - tried:
                self.soak.violation(f"{daemon.instance} never published {sorted(made_up)[:20]}")
            missing = sorted(set(published) - set(printed))
            dropped = said + sum(int(count) for count in re.findall(r"reads too slowly: dropped (\d+) messages", daemon.errors()))
            holes = [number for number in missing if printed and number < printed[-1]]
            if len(holes) > dropped:
                self.soak.violation(f"{daemon.instance}: events {holes[:20]} were published, and printed neither they "
                                    f"nor a count of them, although {printed[-1]} was")
            if daemon in ended_in_order and len(missing) > dropped + len(holes):
                self.soak.violation(f"{daemon.instance} ended in good order and events {missing[:20]} were not printed")
            gone += len(missing)
        return all_published, printed_count, gone

    def said_to_be_missed(self):
        """How many events the tool's log says will not come."""
        return sum(int(count) for count in re.findall(r"(\d+) events of \S+ were missed", self.tool.log()))


class Soak:
    """One run of one scenario. Violations and numbers end up in its result."""

    def __init__(self, folder, bin_folder, preset, scale, seed):
        self.folder, self.bin, self.preset, self.scale = folder, bin_folder, preset, scale
        self.sanitized = preset != "release"
        self.limit_s = 60 if self.sanitized else 20  # for steps that take a healthy run a moment
        self.random = random.Random(seed)
        self.programs, self.files = [], []
        self.violations, self.numbers, self.skipped = [], [], []
        LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1)
        self.prefer_harness()

    @staticmethod
    def prefer_harness():
        """The measuring process must not wait for the measured ones. Only root may raise a priority."""
        with contextlib.suppress(OSError):
            os.setpriority(os.PRIO_PROCESS, 0, HARNESS_NICE)

    def count(self, full, least=1):
        return max(least, round(full * self.scale))

    def seconds(self, full, least=1.0):
        return max(least, full * self.scale)

    def violation(self, text):
        self.violations.append(text)
        print(f"VIOLATION: {text}", flush=True)

    def require(self, condition, text):
        if not condition:
            self.violation(text)
        return bool(condition)

    def number(self, name, value):
        self.numbers.append([name, str(value)])

    def skip(self, text):
        self.skipped.append(text)

    def uptime_check(self, tool):
        self.require(tool.running(), f"vextool ended by itself with {tool.process.returncode}: {tool.errors()[-1000:]}")

    def end(self):
        """Ends all programs; looks for sanitizers' reports."""
        for program in reversed(self.programs):
            program.kill()
        for file in self.files:
            file.close()
        for pid in children_of(os.getpid()):
            with contextlib.suppress(OSError):
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
        for file in sorted(self.folder.rglob("*")):
            if file.is_file() and file.suffix in (".err", ".log", ".out"):
                if found := SANITIZER_REPORT.search(file.read_text(errors="replace")):
                    self.violation(f"{file}: {found.group(0)}")

    def orphans(self):
        """Children that this process was given because their parent is gone."""
        known = {program.pid for program in self.programs}
        names = {}
        for pid in children_of(os.getpid()):
            if pid not in known:
                with contextlib.suppress(OSError):
                    names[pid] = pathlib.Path(f"/proc/{pid}/cmdline").read_text().replace("\0", " ")
        return names

    def result(self):
        return {"violations": self.violations, "numbers": self.numbers, "skipped": self.skipped}

    def write_result(self, path):
        path.write_text(json.dumps(self.result()), encoding="utf-8")


async def end_in_order(soak, tool, limit_s=None):
    """SIGINT, status 1."""
    if not tool.running():
        soak.violation(f"vextool had ended with {tool.process.returncode}")
        return
    tool.signal(signal.SIGINT)
    try:
        status = await tool.ended(limit_s or soak.limit_s)
        soak.require(status == 1, f"SIGINT ended vextool with status {status}: {tool.errors()[-500:]}")
    except TimeoutError as late:
        soak.violation(str(late))


def free_sockets():
    """For one process to hold a thousand connections."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    return hard


def plain_connection(port, host="127.0.0.1"):
    return socket.create_connection((host, port), 20)
