"""The log file is taken away under the tool."""

import asyncio
import contextlib
import pathlib
import re
import shutil

from harness import Operator, Tool, end_in_order, until

TITLE = "log file removed or moved"
MINUTES = 0.3

ROUNDS = 3  # of each kind
COMMANDS = 10
FAILED = re.compile(r" 50 \d+ modules/apisdk/encoder/rpc_enc:\d+ SetVideoQuality: ")


def remove(log):
    log.unlink()


def remove_folder(log):
    shutil.rmtree(log.parent)


def move(log):
    log.rename(log.with_suffix(".moved"))


def replace(log):
    log.rename(log.with_suffix(".moved"))
    log.write_text("another program's line\n", encoding="ascii")


def failures(path):
    return len(FAILED.findall(path.read_text())) if path.exists() else 0


async def fail(operator, count):
    for _ in range(count):
        await operator.ask("encd SetQulity high")


async def run(soak):
    log = pathlib.Path(soak.folder) / "logs" / "tool.log"
    tool = Tool(soak, environment={"KLBASE_LOG_FILE": log})
    operator = await Operator(await tool.port(), limit_s=soak.limit_s).open()
    taken = 0
    for take in (remove, remove_folder, move, replace):
        for _ in range(soak.count(ROUNDS)):
            await one(soak, take, log, operator)
            taken += 1
    soak.uptime_check(tool)
    soak.number("times the file was taken away", taken)
    await end_in_order(soak, tool)
    soak.require("Unload all modules" in log.read_text(), "the end is not in the log")


async def one(soak, take, log, operator):
    moved = log.with_suffix(".moved")
    with contextlib.suppress(FileNotFoundError):
        moved.unlink()
    await fail(operator, COMMANDS)
    before = failures(log)
    take(log)
    await fail(operator, COMMANDS)
    try:
        await until(lambda: failures(log) + max(0, failures(moved) - before) >= COMMANDS, 2, "records are back")
    except TimeoutError:
        soak.violation(f"{take.__name__}: of {COMMANDS} records after it {failures(log)} are in the log and "
                       f"{failures(moved) - before} in the moved file")
        return
    soak.require("begun" in log.read_text(), f"{take.__name__}: the new log does not say that it is one")
    await asyncio.sleep(0)
