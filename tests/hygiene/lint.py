#!/usr/bin/env python3
"""Looks through all sources: each header compiles alone, with g++ and with clang, and clang-tidy finds nothing in any
source (.clang-tidy names its checks; the compiler's own warnings, thread safety included, are among them).

    lint.py BUILD [PATH...]     BUILD: a folder configured with clang, for its compile_commands.json; only what the
                                sources include is made there. PATHs narrow the look to what lies below them.

What was found clean is remembered in BUILD/lint by a hash of everything that the compiler saw, so a second run looks
only at what changed. Ends with status 1 when there is a finding.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

from progress import Progress, in_words  # noqa: E402

TIDY, CLANG, GCC = "clang-tidy-14", "clang++-14", "g++"
TAKEN_FLAGS = re.compile(r"-(D|I|std=|f(no-)?(pic|PIC|exceptions|rtti|visibility|sanitize))")
WARNINGS = "-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wformat=2 -Werror".split()


def run(command, **more):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", **more)


def sources(*patterns):
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", *patterns],
                            cwd=ROOT, check=True, stdout=subprocess.PIPE, text=True).stdout.split("\n")
    return [ROOT / name for name in sorted(set(listed)) if name and (ROOT / name).exists()]


def make_generated(build):
    """Makes the files that sources include, and nothing else."""
    listed = run(["ninja", "-C", build, "-t", "targets", "all"]).stdout
    wanted = re.findall(r"^([^/\n][^:\n]*\.pb\.(?:h|cc)): CUSTOM_COMMAND", listed, re.M)
    made = run(["ninja", "-C", build, *wanted])
    if made.returncode != 0:
        sys.exit(f"{made.stdout}\nlint: the generated sources could not be made")


def read_flags(build):
    """The flags of each source that say what it means: definitions, include folders, language."""
    flags = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        words, taken = shlex.split(entry["command"]), []
        for at, word in enumerate(words):
            if word == "-isystem":
                taken += [word, words[at + 1]]
            elif TAKEN_FLAGS.match(word):
                taken.append(word)
        flags.setdefault(pathlib.Path(entry["file"]), taken)
    return flags


def nearest_flags(path, flags):
    """The flags of the source that has the most of its path in common, best one of the same name, else one that may include much."""
    stem = path.stem
    own = [source for source in flags if source.is_relative_to(ROOT)]

    def nearness(source):
        return (len(os.path.commonpath([source.parent, path.parent])), source.stem == stem,
                source.stem == f"{stem}_test", len(flags[source]), str(source))

    return flags[max(own, key=nearness)]


class Clean:
    """What was found clean before."""

    def __init__(self, folder):
        self.folder = folder
        folder.mkdir(parents=True, exist_ok=True)
        self.base = (ROOT / ".clang-tidy").read_bytes() + pathlib.Path(__file__).read_bytes()

    def key(self, kind, command, path):
        """A hash of the preprocessed text, comments included because they may hold NOLINT; None when it has errors."""
        seen = subprocess.run([*command, "-E", "-C", path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        if seen.returncode != 0:
            return None
        words = "\n".join([kind, *map(str, command), str(path)]).encode()
        return hashlib.sha256(self.base + words + seen.stdout).hexdigest()

    def has(self, key):
        return key is not None and (self.folder / key).exists()

    def add(self, key):
        if key is not None:
            (self.folder / key).touch()


def tidy(path, flags, clean, build):
    """What clang-tidy says about a source, None when nothing."""
    command = [CLANG, *(flags.get(path) or nearest_flags(path, flags)), *WARNINGS, "-Wthread-safety"]
    key = clean.key("tidy", command, path)
    if clean.has(key):
        return None
    said = run([TIDY, "--quiet", path, "--", *command[1:]], cwd=ROOT)
    lines = [line for line in said.stdout.splitlines() if not re.match(r"\d+ warnings? (and \d+ errors? )?generated", line)]
    text = "\n".join(lines).strip()
    if said.returncode == 0 and not text:
        clean.add(key)
        return None
    return text or f"{path}: {TIDY} failed with status {said.returncode}"


def alone(path, flags, clean, build):
    """What the compilers say about a header that is included first, and twice; None when nothing."""
    unit = build / "lint" / (hashlib.sha256(str(path).encode()).hexdigest()[:16] + ".cc")
    unit.write_text(f'#include "{path}"\n#include "{path}"\n')
    own = nearest_flags(path, flags)
    for compiler, more in ((GCC, ["-Wno-restrict"]), (CLANG, ["-Wthread-safety"])):
        command = [compiler, *own, *WARNINGS, *more]
        key = clean.key("alone", command, unit)
        if clean.has(key):
            continue
        said = run([*command, "-fsyntax-only", unit], cwd=ROOT)
        if said.returncode != 0 or said.stdout.strip():
            return f"{path.relative_to(ROOT)} does not compile alone with {compiler}:\n{said.stdout}"
        clean.add(key)
    return None


class Shown:
    """How far it is."""

    def __init__(self, files):
        self.all, self.done, self.began, self.progress = files, 0, time.monotonic(), Progress()

    def one_more(self, finding):
        self.done += 1
        if finding is not None:
            self.progress.clear()
            print(finding, flush=True)
        if self.done < self.all:
            seconds = (time.monotonic() - self.began) * (self.all - self.done) / self.done
            self.progress.show(f"vex: lint: {self.done} of {self.all} files, {in_words(seconds)}")
        else:
            self.progress.clear()


def main():
    os.environ["CCACHE_DISABLE"] = "1"
    build = pathlib.Path(sys.argv[1]).resolve()
    below = [pathlib.Path(path).resolve() for path in sys.argv[2:]] or [ROOT]
    wanted = [path for path in sources("*.h", "*.cc") if any(path.is_relative_to(folder) for folder in below)]
    if not wanted:
        sys.exit("lint: no source lies below " + " ".join(sys.argv[2:]))
    make_generated(build)
    flags, clean = read_flags(build), Clean(build / "lint")
    findings, shown = 0, Shown(len(wanted))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        looks = [pool.submit(alone if path.suffix == ".h" else tidy, path, flags, clean, build) for path in wanted]
        for look in looks:
            findings += look.result() is not None
            shown.one_more(look.result())
    headers = sum(path.suffix == ".h" for path in wanted)
    looked_at = f"{headers} headers alone, {len(wanted) - headers} sources with {TIDY}"
    print(f"lint: {looked_at}: " + (f"findings in {findings} files" if findings else "clean"))
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
