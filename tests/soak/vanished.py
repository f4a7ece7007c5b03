"""Peers that are gone without a word: an operator's machine that lost its network, a daemon that is frozen."""

import asyncio
import contextlib
import ctypes
import os
import pathlib
import re
import signal
import subprocess
import time

from harness import Events, NumberedDaemon, Operator, Program, Replies, Tool, end_in_order, milliseconds, \
    plain_connection, until
from kills import until_printed

TITLE = "peers that vanish"
MINUTES = 1.5

SESSION_LIMIT_S = 90  # probed after 30 s, then every 10 s, three times; and a margin
FULL_SCALE = 0.2  # below it the vanished operators are left out: they take a minute and a half
# 5 s without a word and 3 s without an answer to the probe cut a connection: one freeze below that, one above.
SHORT_FREEZE_S, LONG_FREEZE_S = 3.0, 12.0
PASSWORD = "soak"


def ip(*words):
    subprocess.run(["ip", *words], check=True, capture_output=True)


class FarMachine:
    """A network of its own at the other end of a cable, with a process that holds connections to the tool."""

    CLIENT = r"""
import ctypes, socket, sys
ctypes.CDLL(None).unshare(0x40000000)
print("ready", flush=True)
sys.stdin.readline()
password, port = sys.argv[1], int(sys.argv[2])
held = []
for line in ("", "encd SetQu", "help\n" * 20000):
    connection = socket.create_connection(("10.77.0.1", port), 10)
    connection.settimeout(10)
    seen = b""
    while b"Password: " not in seen:
        seen += connection.recv(4096)
    connection.sendall(password.encode() + b"\r\n")
    while b"main> " not in seen:
        seen += connection.recv(4096)
    connection.setblocking(False)
    try:
        connection.send(line.encode())
    except BlockingIOError:
        pass
    held.append(connection)
print("connected", flush=True)
sys.stdin.readline()
"""

    def __init__(self, soak, port):
        self.soak = soak
        self.program = Program(soak, "far", ["python3", "-c", self.CLIENT, PASSWORD, port], stdin=subprocess.PIPE)

    async def connect(self):
        await until(lambda: "ready" in self.program.output(), self.soak.limit_s, "the far machine is there")
        pid = str(self.program.pid)
        ip("link", "set", "far", "netns", pid)
        enter = ["nsenter", "-t", pid, "-n", "ip"]
        for words in (["addr", "add", "10.77.0.2/24", "dev", "far"], ["link", "set", "far", "up"]):
            subprocess.run([*enter, *words], check=True, capture_output=True)
        self.say()
        await until(lambda: "connected" in self.program.output(), self.soak.limit_s, "the far operators are connected")

    def say(self):
        self.program.process.stdin.write(b"\n")
        self.program.process.stdin.flush()


def make_cable():
    """False where this machine refuses it."""
    try:
        ip("link", "add", "near", "type", "veth", "peer", "name", "far")
        ip("addr", "add", "10.77.0.1/24", "dev", "near")
        ip("link", "set", "near", "up")
        return True
    except (OSError, subprocess.CalledProcessError):
        return False


def password_file(folder):
    file = pathlib.Path(folder) / "password"
    crypt = ctypes.CDLL("libcrypt.so.1").crypt
    crypt.restype = ctypes.c_char_p
    file.write_bytes(crypt(PASSWORD.encode(), b"$5$soaksalt$") + b"\n")
    file.chmod(0o600)
    return file


async def vanished_operators(soak):
    if not make_cable():
        return soak.skip("operators that vanish: this machine does not allow a new network interface")
    tool = Tool(soak, name="vextool-far", environment={
        "KLBASE_CONSOLE_ADDRESS": "0.0.0.0", "KLBASE_CONSOLE_PASSWORD_FILE": password_file(soak.folder)})
    port = await tool.port()
    far = FarMachine(soak, port)
    await far.connect()

    def left():
        opened = set(re.findall(r"console session (\d+) opens", tool.log()))
        return opened - set(re.findall(r"console session (\d+) closes", tool.log()))
    await until(lambda: len(left()) == 3, soak.limit_s, "three sessions are open")
    await asyncio.sleep(1)  # the output is under way
    ip("link", "set", "near", "down")
    ip("link", "set", "near", "up")  # the route is there again, but the far side hears nothing
    subprocess.run(["nsenter", "-t", str(far.program.pid), "-n", "ip", "link", "set", "far", "down"], check=True)
    started = time.monotonic()
    gone = []
    while left() and time.monotonic() < started + SESSION_LIMIT_S:
        count = 3 - len(left())
        gone += [time.monotonic() - started] * (count - len(gone))
        await asyncio.sleep(0.1)
    gone += [time.monotonic() - started] * (3 - len(left()) - len(gone))
    soak.require(not left(), f"sessions {left()} of vanished operators are open after {SESSION_LIMIT_S} s")
    soak.number("vanished operators' sessions ended after", ", ".join(f"{seconds:.0f} s" for seconds in gone))
    await end_in_order(soak, tool)


async def keepalive_is_on(soak):
    """An idle session has the kernel's keepalive timer, which ends it when its operator has vanished."""
    tool = Tool(soak, name="vextool-probed")
    port = await tool.port()
    connection = plain_connection(port)
    await until(lambda: "opens: telnet" in tool.log(), soak.limit_s, "the session is open")
    rows = [line.split() for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]]
    timers = [row[5] for row in rows if row[1].endswith(f":{port:04X}") and row[3] == "01"]
    left_s = [int(timer.split(":")[1], 16) / os.sysconf("SC_CLK_TCK") for timer in timers if timer.startswith("02:")]
    soak.require(left_s and max(left_s) <= 31, f"no keepalive timer of 30 s: {timers}")
    connection.close()
    await end_in_order(soak, tool)


async def frozen_daemon(soak, seconds, whole):
    tool = Tool(soak, name=f"vextool-frozen{seconds:g}")
    encoder, player = NumberedDaemon(soak, "encd"), NumberedDaemon(soak, "playd", 0, 5000)
    for daemon in (encoder, player):
        await daemon.listening()
    events, replies = Events(soak, tool), Replies(soak)
    operator = await Operator(await tool.port(), limit_s=soak.limit_s).open()
    await replies.encoder(operator)
    await until_printed(events, player.instance, soak.limit_s)
    for daemon in (encoder, player):
        daemon.signal(signal.SIGSTOP)
    started = time.monotonic()
    longest = 0.0
    while time.monotonic() < started + seconds:
        asked = time.monotonic()
        soak.require(not await replies.encoder(operator), "a frozen daemon answered")
        longest = max(longest, time.monotonic() - asked)
    soak.require(longest < 5, f"a call to a frozen daemon took {longest:.1f} s")
    seen = len(events.read()[player.instance])
    for daemon in (encoder, player):
        daemon.signal(signal.SIGCONT)
    woken = time.monotonic()
    soak.require(await replies.encoder(operator), "the first command failed after the daemon went on")
    with contextlib.suppress(TimeoutError):
        await until(lambda: len(events.read()[player.instance]) > seen, 6, "events", 0.02)
    back = time.monotonic() - woken
    soak.require(len(events.read()[player.instance]) > seen, "no events within 6 s after the daemon went on")
    player.signal(signal.SIGTERM)
    await player.ended(soak.limit_s)
    await asyncio.sleep(1)  # for events still under way; no signal marks the last one
    balance_frozen(soak, events, player, whole)
    soak.number(f"frozen for {seconds:g} s: longest call / events back after",
                f"{milliseconds(longest)} / {milliseconds(back)}")
    await end_in_order(soak, tool)
    encoder.kill()


def balance_frozen(soak, events, player, whole):
    if whole:
        events.balance([player], [player])
        return
    # The connection was cut, and the events that the daemon had already sent into it are lost.
    printed = events.read()[player.instance]
    soak.require(all(a < b for a, b in zip(printed, printed[1:])), "events were printed twice or out of order")


async def run(soak):
    await keepalive_is_on(soak)
    await frozen_daemon(soak, SHORT_FREEZE_S, True)
    if soak.scale >= FULL_SCALE:
        await frozen_daemon(soak, LONG_FREEZE_S, False)
        await vanished_operators(soak)
    else:
        soak.skip("vanished operators and a long freeze: too long for a run of this length")
