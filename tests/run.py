#!/usr/bin/env python3
"""Runs the tests of a build and lists at the end which were skipped, and why. Called by `./vex test`.

    run.py BUILD                  all tests: says how far they are, and prints what fails
    run.py BUILD --user-too       the same; when root runs them, those that behave differently run as an ordinary user, too
    run.py BUILD --only PATTERN   those whose names fit; what was skipped is in BUILD/Testing/results.xml only
    run.py BUILD CTEST_ARG...     ctest with these words, which prints for itself
"""

import os
import pathlib
import re
import select
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
sys.path.insert(0, str(HERE))

from progress import Progress, in_words  # noqa: E402

JOBS = os.cpu_count() or 1
USER_ALSO = r"^(soak|docs)$|^(e2e|link|packaging|hygiene)\."  # programs, ports, files and rights of a whole process
SHORT_S = 0.05  # of a test of which nothing is known
KEPT_BYTES = 100_000  # of a passed test's output: reasons of skipped parts are in it


def ctest(build, *words):
    return ["ctest", "--test-dir", str(build), "--output-on-failure", "--no-tests=error", "-j", str(JOBS),
            "--test-output-size-passed", str(KEPT_BYTES), *words]


# --- how far they are


def durations(build):
    """Test to seconds, of their last run: ctest's own file, by which it also begins with the long ones. It's told of those
    that take more than a moment and haven't run here."""
    file = build / "Testing" / "Temporary" / "CTestCostData.txt"
    text = file.read_text(encoding="utf-8") if file.exists() else "---\n"
    known = {name: float(seconds) for name, _, seconds in (row.rsplit(" ", 2) for row in text.split("---\n")[0].splitlines())}
    usual = dict(row.split() for row in (HERE / "durations.txt").read_text(encoding="ascii").splitlines())
    new = {name: float(seconds) for name, seconds in usual.items() if name not in known}
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("".join(f"{name} 1 {seconds}\n" for name, seconds in new.items()) + text, encoding="utf-8")
    return known | new


class Watch:
    """Follows what ctest prints: one line that says how far it is, and all of what failed."""

    ENDED = re.compile(r"\s*\d+/\d+ Test +#\d+: (.*?) \.+(?:\*\*\*| +)([A-Z].*?) +[\d.]+ sec")
    STARTED = re.compile(r" +Start +\d+: (.*\S)")

    def __init__(self, whose, names, seconds):
        self.whose, self.progress, self.began = whose, Progress(), time.monotonic()
        self.weights = {name: max(seconds.get(name, 0), SHORT_S) for name in names}
        self.all_s, self.done_s = sum(self.weights.values()), 0.0
        self.running = []
        self.ended = self.failed = 0
        self.in_tests = self.in_skipped = False
        self.head = []  # what comes before the tests: of use if none comes

    def line(self, text):
        started, ended = self.STARTED.match(text), self.ENDED.match(text)
        if started:
            self.in_tests = True
            self.running.append(started.group(1))
        elif ended:
            self.end(text, *ended.groups())
        elif not self.in_tests:
            self.head.append(text)
        elif not self.is_list_of_skipped(text):
            self.print(text)

    def end(self, text, name, outcome):
        self.ended += 1
        self.running = [each for each in self.running if each != name]
        self.done_s += self.weights.get(name, SHORT_S)
        if outcome not in ("Passed", "Skipped"):
            self.failed += 1
            self.print(text)

    def print(self, text):
        self.progress.clear()
        print(text, flush=True)

    def show(self):
        if self.ended == len(self.weights):
            return
        failed = f", {self.failed} failed" if self.failed else ""
        now = f" ({', '.join(self.running[:2])})" if self.running else ""
        self.progress.show(f"vex: {self.whose}tests: {self.ended} of {len(self.weights)}{failed}{self.left()}{now}")

    def left(self):
        """As long as little is done, by the last run's durations; then by this run's speed."""
        elapsed, rest = time.monotonic() - self.began, self.all_s - self.done_s
        seconds = elapsed * rest / self.done_s if self.done_s > 0.3 * self.all_s else self.all_s / JOBS - elapsed
        return f", {in_words(seconds)}" if seconds > 0 and self.done_s < self.all_s else ""

    def is_list_of_skipped(self, text):
        """ctest's list of names; ours has reasons."""
        self.in_skipped = text.startswith("The following tests did not run") or (self.in_skipped and bool(text.strip()))
        return self.in_skipped


def names_of(command):
    listed = subprocess.run([*command, "-N"], capture_output=True, text=True, errors="replace", check=False).stdout
    return re.findall(r"^ +Test +#\d+: (.*\S)$", listed, re.MULTILINE)


def run_watched(build, whose, *words):
    command = ctest(build, *words)
    watch = Watch(whose, names_of(command), durations(build))
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as running:
        for lines in lines_of(running.stdout.fileno()):
            for line in lines:
                watch.line(line)
            watch.show()
    watch.progress.clear()
    if not watch.in_tests:
        print("\n".join(watch.head))
    return running.returncode


def lines_of(descriptor):
    """What comes in whole lines; none about once a second, when nothing comes."""
    rest = b""
    while True:
        data = os.read(descriptor, 65536) if select.select([descriptor], [], [], 1)[0] else None
        if data == b"":
            return
        *lines, rest = (rest + (data or b"")).split(b"\n")
        yield [line.decode(errors="replace") for line in lines]


# --- what was skipped


def reasons(output):
    """Why a test, or parts of it, didn't run, and which parts: GoogleTest's, pytest's and our own words."""
    found = [(why, "") for why in re.findall(r"^\S+:\d+: Skipped\n(.*)", output, re.MULTILINE)]
    found += [(why, where) for where, why in re.findall(r"^SKIPPED \[\d+\] (?:\S+/)?(\S+): (.*)", output, re.MULTILINE)]
    return found + [(why, "") for why in re.findall(r"^skipped: (.*)", output, re.MULTILINE)]


def skipped(results):
    """Reason to the tests' names and parts, of a file in JUnit's format."""
    by_reason = {}
    if not results.exists():
        return by_reason
    for case in ElementTree.parse(results).getroot().iter("testcase"):
        found = reasons(case.findtext("system-out") or "")
        if not found and case.get("status") in ("notrun", "disabled"):
            found = [("no reason given", "")]
        for why, part in found:
            by_reason.setdefault(why, []).append((case.get("name"), part))
    return by_reason


def print_skipped(results, head):
    found = skipped(results)
    if found:
        print(f"\n{head}")
    for reason, tests in sorted(found.items()):
        print(f"  {reason}")
        for name, part in tests:
            print(f"      {name} {part}".rstrip())


# --- all of it


def as_ordinary_user(build, results):
    """Those that behave differently, and those that root skipped. Their status."""
    once_more = {re.escape(name) for tests in skipped(results).values() for name, _ in tests}
    pattern = "|".join([USER_ALSO, *(f"^{name}$" for name in sorted(once_more))])
    return subprocess.run([HERE / "as_user.sh", ROOT, build, "python3", "-B", HERE / "run.py", build, "--only", pattern],
                          check=False).returncode


def run_all(build, results, user_too):
    user_results = results.with_name("results-of-the-user.xml")
    user_results.unlink(missing_ok=True)
    status = run_watched(build, "", "--output-junit", str(results))
    user_status = as_ordinary_user(build, results) if user_too else 0
    print_skipped(results, "Skipped, and why:")
    print_skipped(user_results, "Skipped as an ordinary user, and why:")
    return status or user_status


def main(build, *words):
    build = pathlib.Path(build).resolve()
    results = build / "Testing" / "results.xml"
    results.unlink(missing_ok=True)
    if not words or words == ("--user-too",):
        return run_all(build, results, words and os.geteuid() == 0)
    if words[0] == "--only":
        return run_watched(build, "as an ordinary user: ", "-R", words[1], "--output-junit", str(results))
    status = subprocess.run([*ctest(build, "--output-junit", str(results)), *words], check=False).returncode
    print_skipped(results, "Skipped, and why:")
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
