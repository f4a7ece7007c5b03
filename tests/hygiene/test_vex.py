"""What ./vex says while it works, and how the tests' run ends."""

import contextlib
import os
import pathlib
import pty
import re
import shutil
import subprocess
import sys
import tempfile
import types

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIMIT_S = 60

# As if all packages were installed. `missing` names those that are not.
DPKG_QUERY = """for name; do case $name in -*) ;; *) grep -qsx "$name" missing || echo "$name installed";; esac; done"""
APT_GET = """[ "$2" = update ] && { echo "Get:1 http://deb.debian.org bookworm InRelease"; exit; }
echo "0 upgraded, 2 newly installed, 0 to remove and 0 not upgraded."
echo "Get:1 one"; echo "Get:2 two"; echo "Unpacking one"; echo "Unpacking two"; echo "Setting up one"; echo "Setting up two"
echo "$*" >asked
"""


@pytest.fixture
def checkout(tmp_path):
    """A tree with nothing in it but the script, whose builders are scripts too."""
    folder = tmp_path / "tree"
    (folder / "cmake").mkdir(parents=True)
    shutil.copy(ROOT / "vex", folder)
    shutil.copy(ROOT / "cmake" / "progress.sh", folder / "cmake")
    fake(folder, "dpkg-query", DPKG_QUERY)
    fake(folder, "sudo", '"$@"')
    fake(folder, "apt-get", APT_GET)
    fake(folder, "cmake", 'echo "$*" >>asked; touch build/build.ninja')
    fake(folder, "ninja", 'echo "ninja: no work to do."')
    return folder


def fake(folder, name, text):
    program = folder / "programs" / name
    program.parent.mkdir(exist_ok=True)
    program.write_text(f"#!/bin/bash\n{text}\n", encoding="ascii")
    program.chmod(0o755)


def vex(checkout, *words, stderr=subprocess.PIPE):
    environment = dict(os.environ, PATH=f"{checkout / 'programs'}:{os.environ['PATH']}", TERM="xterm")
    return subprocess.run([checkout / "vex", *words], stdout=subprocess.PIPE, stderr=stderr, text=True, timeout=LIMIT_S,
                          check=False, env=environment, stdin=subprocess.DEVNULL)


def bash(text, **options):
    return subprocess.run(["bash", "-c", f"set -euo pipefail; source {ROOT}/cmake/progress.sh; {text}"], timeout=LIMIT_S,
                          check=True, text=True, **options)


def at_a_terminal(text):
    """What the shell's lines write to a terminal of 40 columns."""
    with terminal_of_40_columns() as (terminal, stderr):
        bash(text, stderr=stderr, env=dict(os.environ, TERM="xterm"))
    return terminal.text


@contextlib.contextmanager
def terminal_of_40_columns():
    """The terminal, whose `text` stands when it is closed, and the end that a program gets."""
    master, slave = pty.openpty()
    subprocess.run(["stty", "cols", "40"], stdin=slave, check=True)
    terminal = types.SimpleNamespace(text="")
    try:
        yield terminal, slave
    finally:
        os.close(slave)
        with open(master, "rb", buffering=0) as screen:
            terminal.text = "".join(read_to_end(screen))


def read_to_end(terminal):
    with contextlib.suppress(OSError):  # its other end is closed
        while data := terminal.read(4096):
            yield data.decode()


# Progress

def test_progress_is_one_plain_line_in_ten_seconds():
    done = bash("for n in 1 2 3; do progress $n of 3; done; SECONDS=10; progress late; progress_clear", stderr=subprocess.PIPE)
    assert done.stderr == "vex: 1 of 3\nvex: late\n"


def test_progress_at_a_terminal_rewrites_its_line_and_leaves_nothing():
    assert at_a_terminal("progress 1 of 2; progress 2 of 2; progress_clear; progress_clear") == \
        "\r\033[Kvex: 1 of 2\r\033[Kvex: 2 of 2\r\033[K"


def test_progress_never_fills_the_terminals_last_column():
    assert at_a_terminal("progress $(printf '%050d' 0)") == "\r\033[Kvex: " + 34 * "0"


@pytest.mark.parametrize("elapsed, done, text", [(2, 50, ""), (60, 1, ""), (60, 50, ", about 1 min left"), (60, 25, ", about 3 min left"),
                                                 (30, 50, ", about 35 s left"), (60, 99, ", about 5 s left")])
def test_the_time_left_is_told_from_what_was_done(elapsed, done, text):
    assert bash(f"SECONDS={elapsed}; left 0 {done} 100", stdout=subprocess.PIPE).stdout.strip("\n") == text


# Steps

def test_steps_with_nothing_to_do_say_nothing(checkout):
    assert vex(checkout, "build").returncode == 0
    again = vex(checkout, "build")
    assert (again.returncode, again.stdout, again.stderr) == (0, "", "")


def test_a_build_tells_its_steps_and_no_log(checkout):
    vex(checkout, "build")
    fake(checkout, "ninja", 'echo "[0/3] Re-checking globbed directories..."; echo "[1/3] Building CXX object"')
    assert vex(checkout, "build").stderr == "vex: building build: 1 of 3 steps\n"


def test_a_build_that_fails_shows_its_end_and_names_its_log(checkout):
    fake(checkout, "ninja", 'echo "a.cc:1: error: no"; exit 1')
    done = vex(checkout, "build")
    assert done.returncode == 1
    assert done.stderr.endswith("a.cc:1: error: no\nvex: the build failed (all of it: build/build.log)\n")
    assert "error: no" in (checkout / "build" / "build.log").read_text()


def test_missing_packages_are_counted(checkout):
    (checkout / "missing").write_text("cmake\nccache\n", encoding="ascii")
    done = vex(checkout, "build")
    assert done.stderr.startswith("vex: installing cmake ccache\nvex: reading the lists of packages\n")
    assert (checkout / "asked").read_text().splitlines()[0] == "-q -y --no-install-recommends install cmake ccache"


def test_each_package_is_counted_at_a_terminal_and_nothing_stays(checkout):
    (checkout / "missing").write_text("cmake\nccache\n", encoding="ascii")
    with terminal_of_40_columns() as (terminal, stderr):
        assert vex(checkout, "build", stderr=stderr).returncode == 0
    said = terminal.text.split("\r\033[K")
    assert [text for text in said if "packages:" in text] == [
        f"vex: packages: {count} of 2 {what}" for what in ("downloaded", "unpacked", "set up") for count in (1, 2)]
    assert said[-1] == ""


def test_packages_that_cannot_be_installed_end_it_with_what_apt_said(checkout):
    (checkout / "missing").write_text("cmake\n", encoding="ascii")
    fake(checkout, "apt-get", 'echo "E: Unable to locate package cmake"; exit 100')
    done = vex(checkout, "build")
    assert done.returncode == 1
    assert done.stderr.endswith("E: Unable to locate package cmake\n"
                                "vex: apt-get could not install: cmake (its last lines stand above)\n")


# The demo

def demo(checkout):
    """Its device does not start here; what it built stands."""
    fake(checkout, "ninja", 'echo "$*" >>asked')
    assert vex(checkout, "demo").returncode == 1
    return (checkout / "asked").read_text()


def test_the_demo_builds_only_what_it_runs(checkout):
    assert demo(checkout) == ("--preset release -DVEX_BUILD_TESTS=OFF\n"
                              "-C build vextool vexctl encd playd sysconfig make_sample_clip\n")


def test_the_demo_needs_no_test_packages(checkout):
    (checkout / "missing").write_text("libgtest-dev\nnginx-light\npython3-pytest\n", encoding="ascii")
    assert "install" not in demo(checkout)


def test_the_tests_are_configured_after_a_demo(checkout):
    demo(checkout)
    (checkout / "build" / "CMakeCache.txt").write_text("VEX_BUILD_TESTS:BOOL=OFF\n", encoding="ascii")
    vex(checkout, "build")
    assert (checkout / "asked").read_text().splitlines()[2:] == ["--preset release -DVEX_BUILD_TESTS=ON", "-C build"]


# The tests' run

SUITE = r"""
add_test(good echo fine)
add_test(bad sh -c "echo this went wrong; exit 1")
add_test(program sh -c "echo 'skipped: needs root'; exit 77")
set_tests_properties(program PROPERTIES SKIP_RETURN_CODE 77)
add_test(unit.Case.Of printf "[ RUN      ] Case.Of\\nfile.cc:59: Skipped\\nonly root can\\n\\n[  SKIPPED ] Case.Of (0 ms)\\n")
set_tests_properties(unit.Case.Of PROPERTIES SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
add_test(pages printf "SKIPPED [1] ../tests/test_pages.py:5: no printer\\n1 passed, 1 skipped\\n")
"""


def run_suite(tmp_path, *words, suite=SUITE):
    (tmp_path / "CTestTestfile.cmake").write_text(suite, encoding="ascii")
    return subprocess.run([sys.executable, "-B", ROOT / "tests" / "run.py", tmp_path, *words], capture_output=True, text=True,
                          timeout=LIMIT_S, check=False)


@pytest.mark.parametrize("words", [[], ["-R", "."]], ids=["all", "chosen"])
def test_skipped_tests_are_listed_with_their_reasons(tmp_path, words):
    assert run_suite(tmp_path, *words).stdout.endswith(
        "Skipped, and why:\n  needs root\n      program\n  no printer\n      pages test_pages.py:5\n"
        "  only root can\n      unit.Case.Of\n")


def test_what_failed_is_shown_and_nothing_else(tmp_path):
    done = run_suite(tmp_path)
    assert done.returncode != 0
    assert "this went wrong" in done.stdout and "bad (Failed)" in done.stdout
    assert not re.search("Passed|fine|did not run", done.stdout)


def test_a_run_that_passes_tells_how_many(tmp_path):
    done = run_suite(tmp_path, suite="add_test(good echo fine)\nadd_test([[with a parameter/0  # GetParam() = 64 ...]] echo)\n")
    assert done.returncode == 0 and re.fullmatch(r"vex: tests: \d of 2.*\n", done.stderr)
    assert " sec\n" not in done.stdout.split("Total")[0]
    assert "100% tests passed, 0 tests failed out of 2" in done.stdout and "kipped" not in done.stdout


def test_ctest_is_told_how_long_tests_take_that_have_not_run_here(tmp_path):
    """It begins with the long ones."""
    file = tmp_path / "Testing" / "Temporary" / "CTestCostData.txt"
    file.parent.mkdir(parents=True)
    file.write_text("docs 3 1.5\n---\ndocs\n", encoding="ascii")
    run_suite(tmp_path, suite="add_test(good echo fine)\n")
    rows = file.read_text().splitlines()
    assert "docs 3 1.5" in rows and any(re.match(r"soak 1 \d\d", row) for row in rows)


# An ordinary user

def can_make_a_user():
    mounts = ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--mount-proc", "true"]
    return os.geteuid() == 0 and subprocess.run(mounts, capture_output=True, check=False).returncode == 0


needs_a_user = pytest.mark.skipif(not can_make_a_user(), reason="only root can make a user, where it may mount")


@pytest.fixture(params=["/tmp", "/var/tmp"])
def roots_tree(request):
    """A tree that only root can enter, as one below root's home."""
    with tempfile.TemporaryDirectory(dir=request.param) as folder:
        (pathlib.Path(folder) / "tree" / "build" / "Testing").mkdir(parents=True)
        yield pathlib.Path(folder) / "tree"


def as_user(tree, text, **environment):
    return subprocess.run([ROOT / "tests" / "as_user.sh", tree, tree / "build", "bash", "-c", text], capture_output=True,
                          text=True, timeout=LIMIT_S, check=False, env=dict(os.environ, **environment))


@needs_a_user
def test_an_ordinary_user_owns_a_copy_of_the_tree_in_its_place(roots_tree):
    done = as_user(roots_tree, 'id -u; pwd; touch mine "$HOME/mine" && stat -c %U mine')
    assert done.returncode == 0, done.stderr
    user, folder, owner = done.stdout.split()
    assert int(user) != 0 and folder == str(roots_tree) and owner.startswith("vextest")
    assert os.listdir(roots_tree) == ["build"]


@needs_a_user
def test_nothing_is_left_of_the_user(roots_tree):
    done = as_user(roots_tree, "sleep 1000 & echo $USER $HOME $!; exit 3")
    user, home, _ = done.stdout.split()
    assert done.returncode == 3
    assert user not in pathlib.Path("/etc/passwd").read_text() and not pathlib.Path(home).parent.exists()
    assert not subprocess.run(["pgrep", "-u", user], capture_output=True, check=False).stdout


@needs_a_user
def test_the_users_tmp_is_another_file_system(roots_tree):
    done = as_user(roots_tree, "stat -c %d /tmp . && touch /tmp/mine")
    tmp, tree = done.stdout.split()
    assert tmp != tree


@needs_a_user
def test_the_users_results_are_kept(roots_tree):
    as_user(roots_tree, "echo results >build/Testing/results.xml")
    assert (roots_tree / "build" / "Testing" / "results-of-the-user.xml").read_text() == "results\n"


@pytest.mark.skipif(os.geteuid() != 0, reason="only root makes a user")
@pytest.mark.parametrize("program", ["useradd", "unshare"])
def test_a_machine_that_makes_no_user_is_told_and_no_failure(roots_tree, tmp_path, program):
    fake(tmp_path, program, f"echo {program} is not allowed >&2; exit 1")
    done = as_user(roots_tree, "echo ran", PATH=f"{tmp_path}/programs:{os.environ['PATH']}")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == f"vex: no tests as an ordinary user: {program} is not allowed\n"


# The scripts

@pytest.mark.skipif(shutil.which("shellcheck") is None, reason="there is no shellcheck")
def test_shell_is_clean():
    scripts = ["vex", *(str(path.relative_to(ROOT)) for path in [*ROOT.glob("cmake/*.sh"), *ROOT.glob("tests/*.sh")])]
    done = subprocess.run(["shellcheck", "-x", *scripts], cwd=ROOT, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout


# The soak's run

def test_a_soak_tells_its_scenario_its_place_and_the_time_left():
    said = subprocess.run([sys.executable, "-B", "-c", SOAK], cwd=ROOT / "tests" / "soak", stdout=subprocess.PIPE, text=True,
                          timeout=LIMIT_S, check=True).stdout
    place, left, ended = re.fullmatch(r"soak: release kills, (1 of 2), about (\d+) min left\n(.*\n)", said).groups()
    assert (place, ended) == ("1 of 2", "soak: release kills: no violations, 7 s\n") and 1 <= int(left) <= 30


SOAK = """
import time, types, soak
shown = soak.Shown(types.SimpleNamespace(minutes=soak.FULL_MINUTES), [("kills", "release"), ("crowd", "release")])
shown.going_on(0, time.monotonic())
shown.ended(0, {"violations": [], "skipped": [], "seconds": 7})
"""
