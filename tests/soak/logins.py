"""Wrong passwords from many connections at once, most of which leave without an answer."""

import asyncio
import ctypes
import pathlib
import time

from figures import Figures
from harness import Tool, end_in_order, free_sockets, milliseconds, percentile, until

TITLE = "storms of wrong logins"
MINUTES = 0.8

STORM_S = 40
CONNECTIONS = 200  # at a time
THREADS = 8  # more than before, however many log in
LOGIN_LIMIT_S = 1.0
SHORT_RUN_LIMIT_S = 4.0  # such a run stands beside other tests
PASSWORD = "right and long"
STORM_ADDRESS, OWN_ADDRESS = "127.0.0.66", "127.0.0.7"
# Slow on purpose: a check costs the processor some 5 ms.
SALT = b"$5$rounds=20000$stormsalt$"


def password_file(folder):
    file = pathlib.Path(folder) / "password"
    crypt = ctypes.CDLL("libcrypt.so.1").crypt
    crypt.restype = ctypes.c_char_p
    file.write_bytes(crypt(PASSWORD.encode(), SALT) + b"\n")
    file.chmod(0o600)
    return file


class Storm:
    def __init__(self, port):
        self.port = port
        self.sent = self.answered = self.let_in = 0

    async def guess(self, number):
        """One connection after another: a wrong password, and away. One in eight waits for the answer."""
        while True:
            try:
                reader, writer = await asyncio.open_connection("127.0.0.1", self.port, local_addr=(STORM_ADDRESS, 0))
            except OSError:
                await asyncio.sleep(0.05)
                continue
            try:
                writer.write(b"wrong %d\ncore show version\n" % number)
                self.sent += 1
                if number % 8 == 0:
                    async with asyncio.timeout(5):
                        answer = await reader.read()
                    self.answered += b"Wrong password." in answer
                    self.let_in += b"build-date" in answer
                else:
                    await asyncio.sleep(0.01)
            except (OSError, TimeoutError):
                pass
            finally:
                writer.close()


async def log_in(port):
    """Seconds until a command of somebody with the right password was answered; the connection stays open."""
    started = time.monotonic()
    while time.monotonic() < started + 20:
        reader, writer = await asyncio.open_connection("127.0.0.1", port, local_addr=(OWN_ADDRESS, 0))
        try:
            writer.write(PASSWORD.encode() + b"\ncore show version\n")
            async with asyncio.timeout(20):
                await reader.readuntil(b"git-version: v0.0.1")  # whose line end depends on who spoke first
            return time.monotonic() - started
        except (OSError, EOFError, TimeoutError):
            await asyncio.sleep(0.05)
        finally:
            writer.close()
    return None


async def run(soak):
    free_sockets()
    tool = Tool(soak, environment={"KLBASE_CONSOLE_PASSWORD_FILE": password_file(soak.folder)})
    port = await tool.port()
    alone = [await log_in(port) for _ in range(5)]
    await until(lambda: "closes" in tool.log(), soak.limit_s, "the first sessions have ended")
    before = tool.threads()
    storm = Storm(port)
    tasks = [asyncio.create_task(storm.guess(number)) for number in range(CONNECTIONS)]
    logins, most = [], before
    end = time.monotonic() + soak.seconds(STORM_S, 2.5)
    try:
        await until(lambda: storm.sent > CONNECTIONS, soak.limit_s, "the storm has begun")
        while time.monotonic() < end:
            login = asyncio.create_task(log_in(port))
            while not login.done():
                most = max(most, tool.threads())
                await asyncio.sleep(0.02)
            logins.append(login.result())
    finally:
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
    soak.uptime_check(tool)
    judge(soak, storm, logins, before, most)
    soak.number("a right login alone, p50", milliseconds(percentile(alone, 0.5)))
    try:
        await until(lambda: tool.threads() <= before + 1, soak.limit_s + 40, "the threads are those of the start")
    except TimeoutError as late:
        soak.violation(f"{late}: {before} before, {tool.threads()} after")
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    # What stands behind a wrong password is not run.
    figures.hold_lines(ok=sum(each is not None for each in alone + logins))
    figures.report()


def judge(soak, storm, logins, before, most):
    failed = sum(each is None for each in logins)
    took = [each for each in logins if each is not None]
    soak.require(storm.let_in == 0, f"{storm.let_in} wrong passwords were let in")
    soak.require(failed == 0, f"{failed} right logins failed")
    if not soak.sanitized:
        limit_s = LOGIN_LIMIT_S if soak.scale >= 1 else SHORT_RUN_LIMIT_S
        soak.require(percentile(took, 1.0) is not None and percentile(took, 1.0) <= limit_s,
                     f"a right login took {milliseconds(percentile(took, 1.0))}")
    soak.require(most <= before + THREADS, f"{most} threads in the storm, {before} before")
    soak.number("wrong passwords sent / told so", f"{storm.sent} / {storm.answered}")
    soak.number("a right login meanwhile, p50 / max",
                f"{milliseconds(percentile(took, 0.5))} / {milliseconds(percentile(took, 1.0))}")
    soak.number("threads before / most in the storm", f"{before} / {most}")
