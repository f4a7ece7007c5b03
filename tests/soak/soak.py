#!/usr/bin/env python3
"""The fault and load suite. See --help; docs/reliability.md says what must hold in each scenario."""

import argparse
import asyncio
import contextlib
import ctypes
import datetime
import importlib
import json
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import time
import traceback

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path[:0] = [str(HERE), str(HERE.parent), str(ROOT / "platform" / "testing" / "network")]

import private_network  # noqa: E402
from progress import Progress, in_words  # noqa: E402

FULL_MINUTES = 30  # with which the full counts are reached
SCENARIOS = ["kills", "scripts", "interrupt", "crowd", "memory", "disk", "logfile", "descriptors", "clock", "vanished", "unread", "restarts", "logins", "strangers", "foreign"]
# A sanitizer's build is some ten times slower, and there are two of them: they get a share.
SHARES = {"release": 1.0, "asan-ubsan": 0.1, "tsan": 0.08}
SANITIZED = ["kills", "scripts", "interrupt", "crowd", "memory", "unread", "restarts", "logins", "strangers", "foreign"]
PR_SET_PDEATHSIG = 1


class Help(argparse.Action):
    """Prints to standard error: the calling script reads the presets to build from standard output, and gets none."""

    def __init__(self, **options):
        super().__init__(nargs=0, **options)

    def __call__(self, parser, *_):
        parser.print_help(sys.stderr)
        parser.exit(0)


def arguments():
    parser = argparse.ArgumentParser(
        prog="./vex soak", add_help=False, description="Runs the tool and daemons under faults and load, and checks that its promises hold.")
    parser.add_argument("-h", "--help", action=Help, help="show this")
    parser.add_argument("minutes", nargs="?", type=float, default=FULL_MINUTES,
                        help=f"how long, roughly; the default {FULL_MINUTES} is the full suite, less scales it down")
    parser.add_argument("--only", nargs="+", metavar="NAME", choices=SCENARIOS, default=SCENARIOS,
                        help="scenarios to run: " + " ".join(SCENARIOS))
    parser.add_argument("--preset", choices=[*SHARES, "all"], default="all", help="which build (all)")
    parser.add_argument("--seed", type=int, default=None, help="of the random numbers (a new one each time)")
    parser.add_argument("--bin", action="append", metavar="PRESET=FOLDER", default=[], help="where a build's programs are")
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "build" / "soak", help="folder of report and evidence")
    parser.add_argument("--write-doc", action="store_true", help="write docs/reliability-last-run.md from this run")
    parser.add_argument("--print-presets", action="store_true", help=argparse.SUPPRESS)  # those to build
    parser.add_argument("--child", nargs=2, help=argparse.SUPPRESS)  # SCENARIO PRESET: in a process of its own
    return parser.parse_args()


def bin_folder(options, preset):
    given = dict(each.split("=", 1) for each in options.bin)
    build = "build" if preset == "release" else f"build-{preset}"
    return pathlib.Path(given.get(preset, ROOT / build / "bin"))


# --- one scenario, in a process and a network of its own


def run_child(options):
    scenario, preset = options.child
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    lock = private_network.enter_or_lock()  # kept until this process ends
    import harness
    module = importlib.import_module(scenario)
    scale = options.minutes / FULL_MINUTES * SHARES[preset]
    folder = options.out / preset / scenario
    soak = harness.Soak(folder, bin_folder(options, preset), preset, scale, options.seed)
    try:
        asyncio.run(module.run(soak))
    except BaseException as failure:  # also a time-out: the result so far is written down
        soak.violation(f"the scenario could not go on: {type(failure).__name__}: {failure}")
        traceback.print_exc()
    soak.end()
    soak.write_result(folder / "result.json")
    del lock


def start_child(options, scenario, preset, folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    words = [sys.executable, "-B", __file__, str(options.minutes), "--seed", str(options.seed), "--out", str(options.out),
             *(word for each in options.bin for word in ("--bin", each)), "--child", scenario, preset]
    with open(folder / "scenario.log", "wb") as log:
        return subprocess.Popen(words, stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                start_new_session=True)


def wait_shown(process, limit_s, show):
    """Waits for the process; TimeoutExpired when it takes longer."""
    end = time.monotonic() + limit_s
    while True:
        show()
        try:
            return process.wait(min(1, max(0, end - time.monotonic())))
        except subprocess.TimeoutExpired:
            if time.monotonic() >= end:
                raise


def run_scenario(options, scenario, preset, show):
    """Its result and duration; `show` is called while it runs. Its files are kept if there was a violation."""
    module = importlib.import_module(scenario)
    folder = options.out / preset / scenario
    # A scenario ends by itself; a harness that hangs must not.
    limit_s = 300 + 4 * 60 * module.MINUTES * max(1, options.minutes / FULL_MINUTES)
    started = time.monotonic()
    process = start_child(options, scenario, preset, folder)
    try:
        wait_shown(process, limit_s, show)
    except BaseException as failure:
        with contextlib.suppress(OSError):
            os.killpg(process.pid, signal.SIGKILL)  # its children die with it
        process.wait()
        if not isinstance(failure, subprocess.TimeoutExpired):
            raise
    try:
        result = json.loads((folder / "result.json").read_text())
    except (OSError, ValueError):
        tail = (folder / "scenario.log").read_text(errors="replace")[-2000:]
        result = {"violations": [f"the scenario ended without a result (limit {limit_s:.0f} s): {tail}"], "numbers": [],
                  "skipped": []}
    result.update(scenario=scenario, preset=preset, seconds=time.monotonic() - started, title=module.TITLE)
    if not result["violations"]:
        shutil.rmtree(folder)
    return result


# --- the report


def command_output(*words):
    return subprocess.run(words, capture_output=True, text=True, cwd=ROOT, check=False).stdout.strip()


def machine():
    memory = int(pathlib.Path("/proc/meminfo").read_text().split()[1]) / 2**20
    model = next((line.split(":")[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), os.uname().machine)
    changed = " with changes" if command_output("git", "status", "--porcelain", "-uno") else ""
    return [("date", datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")),
            ("machine", f"{len(os.sched_getaffinity(0))} cores ({model}), {memory:.0f} GiB"),
            ("system", f"Linux {os.uname().release}, {os.uname().machine}"),
            ("commit", command_output("git", "rev-parse", "--short=12", "HEAD") + changed)]


def table(rows, head):
    return "\n".join("| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |"
                     for row in [head, ["---"] * len(head), *rows])


def report(options, results):
    facts = [*machine(), ("run", f"{options.minutes:g} of {FULL_MINUTES} minutes, seed {options.seed}, presets "
                          + ", ".join(dict.fromkeys(result["preset"] for result in results)))]
    parts = [table([[name, value] for name, value in facts], ["", "this run"])]
    for preset in dict.fromkeys(result["preset"] for result in results):
        rows = []
        for result in (each for each in results if each["preset"] == preset):
            outcome = f"{len(result['violations'])} violations" if result["violations"] else "holds"
            rows.append([f"**{result['title']}**", f"{outcome} ({result['seconds']:.0f} s)"])
            rows += [[name, value] for name, value in result["numbers"]]
            rows += [["not done", text] for text in result["skipped"]]
        parts.append(f"## {preset}\n\n" + table(rows, ["", "result"]))
    bad = [f"- {result['preset']} {result['scenario']}: {text[:500]}" for result in results
           for text in result["violations"][:20]]
    parts.append("## Violations\n\n" + ("\n".join(bad) if bad else "None."))
    return "\n\n".join(parts) + "\n"


def plain(markdown):
    """The report's tables in columns."""
    lines = []
    for line in markdown.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split(" | ")] if line.startswith("|") else []
        if not cells:
            lines.append(line)
        elif set(cells[0]) != {"-"}:
            lines.append(f"{cells[0].replace('**', ''):72}  {'  '.join(cells[1:])}".rstrip())
    return "\n".join(lines)


class Shown:
    """Where a run is: a line for each scenario that has ended, and one that says what goes on."""

    def __init__(self, options, plan):
        self.plan, self.progress, self.began = plan, Progress(sys.stdout), time.monotonic()
        full = [importlib.import_module(scenario).MINUTES * SHARES[preset] for scenario, preset in plan]
        self.seconds = [60 * minutes * options.minutes / FULL_MINUTES for minutes in full]

    def going_on(self, at, began):
        scenario, preset = self.plan[at]
        rest = sum(self.seconds[at:]) - (time.monotonic() - began)
        left = f", {in_words(rest)}" if rest > sum(self.seconds[at + 1:]) else ""
        self.progress.show(f"soak: {preset} {scenario}, {at + 1} of {len(self.plan)}{left}")

    def ended(self, at, result):
        scenario, preset = self.plan[at]
        self.progress.clear()
        print(f"soak: {preset} {scenario}: {len(result['violations']) or 'no'} violations, {result['seconds']:.0f} s")
        for text in result["skipped"]:
            print(f"skipped: {scenario}: {text}")
        sys.stdout.flush()


def run_all(options, presets):
    plan = [(scenario, preset) for preset in presets for scenario in options.only
            if preset == "release" or scenario in SANITIZED]
    shown, results = Shown(options, plan), []
    for at, (scenario, preset) in enumerate(plan):
        began = time.monotonic()
        results.append(run_scenario(options, scenario, preset, lambda: shown.going_on(at, began)))
        shown.ended(at, results[-1])
    return results


PAGE = """# Reliability: the last full run

Written by `./vex soak --write-doc`. [Reliability](reliability.md) says what a run does and what must hold.

"""


def main():
    options = arguments()
    if options.seed is None:
        options.seed = random.randrange(1 << 31)
    if options.child:
        return run_child(options)
    presets = list(SHARES) if options.preset == "all" else [options.preset]
    if options.print_presets:
        return print(*presets)
    results = run_all(options, presets)
    text = report(options, results)
    (options.out / "report.md").write_text("# Fault and load run\n\n" + text, encoding="utf-8")
    if options.write_doc:
        (ROOT / "docs" / "reliability-last-run.md").write_text(PAGE + text, encoding="utf-8")
    print("\n" + plain(text))
    return 1 if any(result["violations"] for result in results) else 0


if __name__ == "__main__":
    sys.exit(main())
