"""The disk under the log is full for a while."""

import asyncio
import contextlib
import os
import pathlib
import re

from figures import Figures
from harness import LIBC, Operator, Tool, end_in_order, until

TITLE = "full disk under the log"
MINUTES = 0.3

NEW_NS, MS_REC, MS_PRIVATE = 0x20000, 0x4000, 0x40000
SIZE = b"size=256k"
ROUNDS = 6
FAILURES = 40  # commands that fail, in each state: each leaves a record of level 40 and one of level 50
RECORD = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \d+ \d+ \S+:\d+ \S+: .*")
FAILED = re.compile(r" 50 \d+ modules/apisdk/encoder/rpc_enc:\d+ SetVideoQuality: ")


def mount_small_disk(folder):
    """False where this machine refuses it."""
    if LIBC.unshare(NEW_NS) != 0 or LIBC.mount(None, b"/", None, MS_REC | MS_PRIVATE, None) != 0:
        return False
    folder.mkdir()
    return LIBC.mount(b"soak", os.fsencode(folder), b"tmpfs", 0, SIZE) == 0


def fill(folder):
    """Until not a byte is left."""
    with open(folder / "filler", "ab", buffering=0) as file:
        for size in (4096, 1):
            with contextlib.suppress(OSError):
                while True:
                    file.write(b"x" * size)


async def fail(operator, count):
    for _ in range(count):
        await operator.ask("encd SetQulity high")


async def run(soak):
    disk = pathlib.Path(soak.folder) / "disk"
    if not mount_small_disk(disk):
        return soak.skip("all of it: mounting a file system of its own needs root")
    tool = Tool(soak, environment={"KLBASE_LOG_FILE": disk / "tool.log"})
    port = await tool.port()
    operator = await Operator(port, limit_s=soak.limit_s).open()
    failed, others = 0, []
    for _ in range(soak.count(ROUNDS, 2)):
        await fail(operator, FAILURES)
        notices = tool.errors().count("writing the log failed")
        fill(disk)
        await fail(operator, FAILURES)
        soak.require((await operator.ask("core show version"))[1:] == ["git-version: v0.0.1"], "a command did not work")
        said = tool.errors().count("writing the log failed") - notices
        soak.require(said == 1, f"the full disk was said {said} times")
        other = await Operator(port, limit_s=soak.limit_s).open()  # a new session on a full disk
        others.append(other)
        other.close()
        (disk / "filler").unlink()
        failed += 2 * FAILURES
        await resumed(soak, tool, operator)
        failed += 1
    await asyncio.sleep(1.0)
    compare(soak, tool, failed)
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    hold_lost_records(soak, tool, figures)
    figures.hold_operators_lines([operator, *others])
    figures.report()


def hold_lost_records(soak, tool, figures):
    """A record that is not in the log is counted as lost: those of level 40 and above are on standard error then, and of each line
    that was run there is one below. Sessions have some, too, and one that was written in part may count."""
    lines = sum(figures.with_label("vextool_commands_total", "status").values()) - len(re.findall(r" session=\d+ kind=", tool.log()))
    on_stderr = sum(RECORD.fullmatch(line) is not None for line in tool.errors().splitlines())
    lost = figures.of("vextool_log_records_lost_total")
    soak.require(lost >= on_stderr + lines > 0, f"{lost} records are counted as lost, and {on_stderr + lines} are known to be")


async def resumed(soak, tool, operator):
    """The log takes records again, by itself, soon; then one more failure lands in it."""
    await asyncio.sleep(2.0)  # the promised second, and one for a slow machine
    before = len(FAILED.findall(tool.log()))
    await fail(operator, 1)
    with contextlib.suppress(TimeoutError):
        await until(lambda: len(FAILED.findall(tool.log())) > before, 2, "the log goes on")
        return
    soak.violation("the log did not go on 2 s after there was room again")


def compare(soak, tool, failed):
    in_log = len(FAILED.findall(tool.log()))
    on_stderr = len(FAILED.findall(tool.errors()))
    soak.require(in_log + on_stderr == failed,
                 f"{failed} commands failed; {in_log} records are in the log and {on_stderr} on standard error")
    torn = [line for line in tool.log().splitlines() if not RECORD.fullmatch(line)]
    # A disk that is full in the middle of a line leaves its beginning, once for each time; the whole is on stderr.
    soak.require(len(torn) <= tool.errors().count("writing the log failed"), f"torn lines in the log: {torn[:5]}")
    soak.number("failed commands / their records in the log / on standard error", f"{failed} / {in_log} / {on_stderr}")
    soak.number("times the disk was full / lines torn by it",
                f"{tool.errors().count('writing the log failed')} / {len(torn)}")
