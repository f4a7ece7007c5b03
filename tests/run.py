#!/usr/bin/env python3
"""Runs the tests of a build and lists at the end which were skipped, and why. Called by `./vex test`.

    run.py BUILD                  all tests: says how far they are, and prints what fails
    run.py BUILD --user-too       the same; when root runs them, those that behave differently run as an ordinary user, too
    run.py BUILD CTEST_ARG...     ctest with these words, which prints for itself
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
sys.path.insert(0, str(HERE))

from progress import Progress, in_words  # noqa: E402

JOBS = os.cpu_count() or 1
USER_ALSO = r"^(soak|docs)$|^(e2e|packaging|hygiene)\."  # programs, ports, files and rights of a whole process
SHORT_S = 0.05  # of a test of which nothing is known
KEPT_BYTES = 100_000  # of a passed test's output: reasons of skipped parts are in it


def ctest(build, *words):
    return ["ctest", "--test-dir", str(build), "--output-on-failure", "--no-tests=error", "-j", str(JOBS),
            "--test-output-size-passed", str(KEPT_BYTES), *words]


# --- how far they are


def durations(build):
    """Test to seconds, of the last run: ctest's own file, by which it also begins with the long ones. Before the first run
    it's told of those that take more than a moment."""
    file = build / "Testing" / "Temporary" / "CTestCostData.txt"
    if not file.exists():
        file.parent.mkdir(parents=True, exist_ok=True)
        rows = (HERE / "durations.txt").read_text(encoding="ascii").split("\n")
        file.write_text("".join(f"{name} 1 {seconds}\n" for name, seconds in map(str.split, filter(None, rows))) + "---\n",
                        encoding="ascii")
    rows = file.read_text(encoding="utf-8").split("---\n")[0].splitlines()
    return {name: float(seconds) for name, _, seconds in (row.rsplit(" ", 2) for row in rows)}


class Watch:
    """Follows what ctest prints: one line that says how far it is, and all of what failed."""

    ENDED = re.compile(r"\s*(\d+)/(\d+) Test +#\d+: (\S+) [ .]*(?:\*\*\*)?(\S.*?) +[\d.]+ sec")
    STARTED = re.compile(r" +Start +\d+: ")

    def __init__(self, whose, names, seconds):
        self.whose, self.progress, self.began = whose, Progress(), time.monotonic()
        self.weights = {name: max(seconds.get(name, 0), SHORT_S) for name in names}
        self.all_s, self.done_s = sum(self.weights.values()), 0.0
        self.failed = 0
        self.in_tests = self.in_skipped = False

    def line(self, text):
        ended = self.ENDED.match(text)
        if ended:
            self.ended(text, *ended.groups())
        elif self.STARTED.match(text):
            self.in_tests = True
        elif self.in_tests and not self.is_list_of_skipped(text):
            self.progress.clear()
            print(text, flush=True)

    def ended(self, text, number, count, name, outcome):
        self.done_s += self.weights.get(name, SHORT_S)
        if outcome not in ("Passed", "Skipped"):
            self.failed += 1
            self.progress.clear()
            print(text, flush=True)
        failed = f", {self.failed} failed" if self.failed else ""
        self.progress.show(f"vex: {self.whose}{number} of {count} tests{failed}{self.left()}")

    def left(self):
        """As long as little is done, by the last run's durations; then by this run's speed."""
        elapsed, rest = time.monotonic() - self.began, self.all_s - self.done_s
        seconds = elapsed * rest / self.done_s if self.done_s > 0.3 * self.all_s else max(rest, self.all_s - elapsed * JOBS) / JOBS
        return f", {in_words(seconds)}" if seconds > 0 and self.done_s < self.all_s else ""

    def is_list_of_skipped(self, text):
        """ctest's list of names; ours has reasons."""
        self.in_skipped = text.startswith("The following tests did not run") or (self.in_skipped and bool(text.strip()))
        return self.in_skipped


def names_of(command):
    listed = subprocess.run([*command, "-N"], capture_output=True, text=True, errors="replace", check=False).stdout
    return re.findall(r"^ +Test +#\d+: (\S+)$", listed, re.MULTILINE)


def run_watched(build, whose, *words):
    command = ctest(build, *words)
    watch = Watch(whose, names_of(command), durations(build))
    watch.progress.show(f"vex: {whose}tests: {len(watch.weights)}{watch.left()}")
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace") as running:
        for line in running.stdout:
            watch.line(line.rstrip("\n"))
    watch.progress.clear()
    return running.returncode


# --- what was skipped


def reasons(output):
    """Why a test, or parts of it, didn't run: GoogleTest's, pytest's and our own words."""
    found = re.findall(r"^\S+:\d+: Skipped\n(.*)", output, re.MULTILINE)
    found += re.findall(r"^SKIPPED \[\d+\] (?:\S+/)?(\S+: .*)", output, re.MULTILINE)
    return found + re.findall(r"^skipped: (.*)", output, re.MULTILINE)


def skipped(results):
    """Reason to names of tests, of a file in JUnit's format."""
    by_reason = {}
    if not results.exists():
        return by_reason
    for case in ElementTree.parse(results).getroot().iter("testcase"):
        why = reasons(case.findtext("system-out") or "")
        if not why and case.get("status") in ("notrun", "disabled"):
            why = [case.find("skipped").get("message") if case.find("skipped") is not None else "no reason given"]
        for reason in why:
            by_reason.setdefault(reason, []).append(case.get("name"))
    return by_reason


def print_skipped(results, head):
    found = skipped(results)
    if found:
        print(f"\n{head}")
    for reason, names in sorted(found.items()):
        print(f"  {reason}")
        for name in names:
            print(f"      {name}")


# --- all of it


def as_ordinary_user(build, results, user_results):
    """Those that behave differently, and those that root skipped. Their status."""
    once_more = {re.escape(name) for names in skipped(results).values() for name in names}
    pattern = "|".join([USER_ALSO, *(f"^{name}$" for name in sorted(once_more))])
    return subprocess.run([HERE / "as_user.sh", ROOT, build, user_results, pattern], check=False).returncode


def main(build, *words):
    build = pathlib.Path(build).resolve()
    results = build / "Testing" / "results.xml"
    user_results = results.with_name("results-of-the-user.xml")
    user_too = words == ("--user-too",) and os.geteuid() == 0
    for file in (results, user_results):
        file.unlink(missing_ok=True)
    if words and words != ("--user-too",):
        status = subprocess.run([*ctest(build, "--output-junit", str(results)), *words], check=False).returncode
        print_skipped(results, "Skipped, and why:")
        return status
    status = run_watched(build, "", "--output-junit", str(results))
    user_status = as_ordinary_user(build, results, user_results) if user_too else 0
    print_skipped(results, "Skipped, and why:")
    print_skipped(user_results, "Skipped as an ordinary user, and why:")
    return status or user_status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
