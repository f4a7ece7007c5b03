"""The contents of the packages, checked in a private root without a service manager."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

from private_root import PrivateRoot, run

PROGRAMS = ["/usr/bin/vextool", "/usr/bin/vexctl", "/usr/bin/vexlink", "/usr/bin/encd", "/usr/bin/playd", "/usr/bin/make_sample_clip", "/usr/kelo/bin/sysconfig"]
SERVICES = ["vextool.service", "encd.service", "playd.service", "vexlink.service"]
PLAIN = dict(os.environ, LC_ALL="C", MANWIDTH="80", MANPAGER="cat")  # hyphens stay hyphens
PAGES = ["vextool", "vexctl", "vexlink", "encd", "playd", "make_sample_clip"]


@pytest.fixture(scope="module")
def unpacked(packages, tmp_path_factory):
    """Each package's files, in a folder of its own."""
    folder = tmp_path_factory.mktemp("unpacked")
    for name, package in packages.items():
        run("dpkg-deb", "-x", package, folder / name)
    return folder


@pytest.fixture(scope="module")
def installed(packages, tmp_path_factory):
    """A private root with all packages."""
    root = PrivateRoot(tmp_path_factory.mktemp("installed"))
    for package in packages.values():
        shutil.copy(package, root.path / "root")
    root.run("sh", "-c", "dpkg --install /root/*vextool*.deb")
    yield root
    root.stop()


def files_of(package):
    lines = run("dpkg-deb", "-c", package).splitlines()
    return sorted(line.split()[5].removeprefix(".") for line in lines if not line.startswith("d"))


def field(package, name):
    return run("dpkg-deb", "-f", package, name).strip()


def test_the_tools_package_holds_these_files(packages):
    cache = open(f"{os.environ['VEX_BUILD']}/CMakeCache.txt", encoding="utf-8").read()
    libraries = "/usr/" + re.search("^CMAKE_INSTALL_LIBDIR:PATH=(.*)$", cache, re.MULTILINE)[1]
    assert files_of(packages["vextool"]) == sorted([
        "/etc/default/vextool", "/lib/systemd/system/vextool.service", "/usr/bin/vextool",
        f"{libraries}/libklbase.so.0", f"{libraries}/libklbase.so.0.0.1", f"{libraries}/libklrpc.so.0",
        f"{libraries}/libklrpc.so.0.0.1", "/usr/share/bash-completion/completions/vextool",
        "/usr/share/doc/vextool/CHANGELOG.md.gz", "/usr/share/doc/vextool/changelog.gz",
        "/usr/share/doc/vextool/copyright", "/usr/share/doc/vextool/guide.md.gz",
        "/usr/share/doc/vextool/control.md.gz", "/usr/share/doc/vextool/operations.md.gz", "/usr/share/lintian/overrides/vextool",
        "/usr/share/man/man1/vextool.1.gz"])


def test_the_devices_package_holds_these_files(packages):
    assert files_of(packages["vextool-device"]) == sorted([
        "/etc/default/vextool-device", "/lib/systemd/system/encd.service", "/lib/systemd/system/playd.service",
        "/usr/bin/encd", "/usr/bin/make_sample_clip", "/usr/bin/playd", "/usr/kelo/bin/sysconfig",
        "/usr/share/doc/vextool-device/changelog.gz", "/usr/share/doc/vextool-device/copyright",
        "/usr/share/lintian/overrides/vextool-device", "/usr/share/man/man1/encd.1.gz",
        "/usr/share/man/man1/make_sample_clip.1.gz", "/usr/share/man/man1/playd.1.gz"])


def test_the_clients_package_holds_these_files_and_needs_no_library_of_the_tool(packages):
    assert files_of(packages["vextool-ctl"]) == sorted([
        "/usr/bin/vexctl", "/usr/share/bash-completion/completions/vexctl", "/usr/share/doc/vextool-ctl/changelog.gz",
        "/usr/share/doc/vextool-ctl/copyright", "/usr/share/man/man1/vexctl.1.gz"])
    needed = {word.split()[0] for word in field(packages["vextool-ctl"], "Depends").split(", ")}
    assert needed == {"libc6", "libgcc-s1", "libstdc++6"}


def test_the_links_package_holds_these_files_and_nothing_of_the_tools_libraries(packages):
    assert files_of(packages["vextool-link"]) == sorted([
        "/etc/default/vexlink", "/lib/systemd/system/vexlink.service", "/usr/bin/vexlink",
        "/usr/share/doc/vextool-link/changelog.gz", "/usr/share/doc/vextool-link/copyright",
        "/usr/share/man/man1/vexlink.1.gz"])
    needed = {word.split()[0] for word in field(packages["vextool-link"], "Depends").split(", ")}
    assert needed == {"adduser", "libabsl20220623", "libc6", "libgcc-s1", "libnats3.4", "libstdc++6"}


def test_the_python_package_is_for_every_machine(packages, installed):
    assert files_of(packages["python3-vextool"]) == [
        "/usr/lib/python3/dist-packages/vextool.py", "/usr/share/doc/python3-vextool/changelog.gz",
        "/usr/share/doc/python3-vextool/copyright"]
    assert field(packages["python3-vextool"], "Architecture") == "all"
    installed.run("/usr/bin/python3", "-c", "import vextool; vextool.Console")


def test_the_fleets_package_holds_its_folder_and_its_page(packages):
    folder = pathlib.Path(__file__).resolve().parents[2] / "fleet"
    assert files_of(packages["vextool-fleet"]) == sorted([
        *(f"/usr/share/vextool-fleet/{path.relative_to(folder)}" for path in folder.rglob("*") if path.is_file()),
        "/usr/share/doc/vextool-fleet/changelog.gz", "/usr/share/doc/vextool-fleet/copyright",
        "/usr/share/doc/vextool-fleet/fleet.md.gz"])
    assert field(packages["vextool-fleet"], "Architecture") == "all"


def test_the_sdk_holds_every_header_and_archive_that_is_installed(packages, tmp_path):
    run("cmake", "--install", os.environ["VEX_BUILD"], "--prefix", tmp_path)
    installed = {f"/usr/{path.relative_to(tmp_path)}" for path in tmp_path.rglob("*")
                 if path.suffix in (".h", ".a", ".cmake", ".proto", ".so")}
    assert {file for file in files_of(packages["vextool-dev"]) if "/share/doc/" not in file} == installed


def test_nothing_is_in_two_packages(packages):
    every = sum((files_of(package) for package in packages.values()), [])
    assert len(every) == len(set(every))


def test_no_program_or_library_carries_symbols_or_a_run_path(unpacked):
    found = [path for path in unpacked.rglob("*")
             if path.is_file() and not path.is_symlink() and path.read_bytes()[:4] == b"\x7fELF"]
    assert len(found) == len(PROGRAMS) + 2
    for path in found:
        assert not re.search(r"RPATH|RUNPATH", run("readelf", "-d", path)), path
        assert ".symtab" not in run("readelf", "-SW", path), path


def test_installed_programs_find_all_their_libraries(installed):
    for program in PROGRAMS:
        assert "not found" not in installed.run("ldd", program), program
    used = installed.run("ldd", "/usr/bin/vextool")
    assert re.search(r"libklrpc\.so\.0 => (/usr)?/lib/", used), used


def test_a_program_builds_on_the_installed_sdk(installed):
    # A copy: the tree may be on another file system, which the private root has not.
    shutil.copytree(pathlib.Path(__file__).resolve().parents[1] / "package" / "consumer", installed.path / "root" / "source")
    installed.run("cmake", "-G", "Ninja", "-S", "/root/source", "-B", "/root/consumer", "-DCMAKE_BUILD_TYPE=Debug")
    installed.run("cmake", "--build", "/root/consumer")
    text = installed.run("env", "KLBASE_LOG_FILE=/root/log", "/root/consumer/consumer")
    assert "code=7 core=1 encd=0" in text


@pytest.mark.parametrize("page", PAGES)
def test_a_manual_page_renders_without_a_warning(unpacked, page):
    [file] = unpacked.rglob(f"{page}.1.gz")
    done = subprocess.run(["man", "--warnings", "-l", str(file)], capture_output=True, text=True, env=PLAIN, check=True)
    assert done.stderr == ""
    assert f"{page} - " in done.stdout
    assert not re.search("@[A-Z]+@", done.stdout)


def options_of(program):
    # Those of our own source files.
    folder = "example/" if program == "vextool" else f"device/{program}/"
    help_text = subprocess.run([f"{os.environ['VEX_BUILD']}/bin/{program}", f"--help={folder}"], stdout=subprocess.PIPE,
                               text=True, check=False).stdout
    return set(re.findall(r"^ +--(\w+) \(", help_text, re.MULTILINE))


@pytest.mark.parametrize("program", ["vextool", "encd", "playd"])
def test_a_manual_page_names_every_flag_of_its_program(unpacked, program):
    [file] = unpacked.rglob(f"{program}.1.gz")
    text = run("man", "-l", file, env=PLAIN)
    flags = options_of(program)
    assert len(flags) >= 2
    assert [flag for flag in flags if f"--{flag}" not in text] == []


def test_the_links_manual_page_names_every_flag_and_variable(unpacked):
    help_text = run(f"{os.environ['VEX_BUILD']}/bin/vexlink", "--help")
    names = set(re.findall(r"--[a-z-]+|VEXLINK_[A-Z]+", help_text))
    assert len(names) >= 14
    [file] = unpacked.rglob("vexlink.1.gz")
    text = run("man", "-l", file, env=PLAIN)
    assert [name for name in names if name not in text] == []


def test_the_tools_manual_page_names_every_environment_variable_that_the_sources_read(unpacked):
    source = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    lines = run("grep", "-rhoE", r'"(KLBASE|KLRPC)_[A-Z_]+"|"NOTIFY_SOCKET"', "--include=*.cc", "--exclude=*_test.cc",
                f"{source}/platform", f"{source}/modules", f"{source}/example")
    [file] = unpacked.rglob("vextool.1.gz")
    text = run("man", "-l", file, env=PLAIN)
    assert "NOTIFY_SOCKET" in lines
    assert [name for name in set(lines.replace('"', "").split()) if name not in text] == []


COMPLETE = """
source "$1"
set -- "${@:2}"
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
compopt() { :; }  # works in a completion only
$(complete -p vextool | sed -n 's/.* -F \\([^ ]*\\) .*/\\1/p')
printf '%s\\n' "${COMPREPLY[@]}"
"""


def complete(unpacked, *words):
    script = unpacked / "vextool/usr/share/bash-completion/completions/vextool"
    return run("bash", "-c", COMPLETE, "bash", script, "vextool", *words).split()


def test_completion_offers_every_flag(unpacked):
    offered = {word.strip("-=") for word in complete(unpacked, "--")}
    assert options_of("vextool") | {"help", "helpfull", "version", "nolocal_console", "flagfile", "fromenv",
                                    "tryfromenv", "undefok"} <= offered


def test_completion_narrows_down_to_what_was_typed(unpacked):
    assert complete(unpacked, "--cli") == ["--cli_port="]
    assert complete(unpacked, "--local_console", "=", "t") == ["true"]
    assert complete(unpacked, "--flagfile", "=", "/etc/os-rel") == ["/etc/os-release"]
    assert complete(unpacked, "--cli_port", "=", "5") == []


@pytest.mark.parametrize("service", SERVICES)
def test_a_unit_is_correct_and_well_locked_up(installed, service):
    unit = f"/lib/systemd/system/{service}"
    assert installed.run("systemd-analyze", "verify", "--man=no", unit) == ""
    # In tenths, 0 for a service that may do nothing; the daemons' media framework compiles code as it runs.
    worst = "20" if service in ("vextool.service", "vexlink.service") else "25"
    installed.run("systemd-analyze", "security", "--offline=true", f"--threshold={worst}", unit)


def test_the_programs_depend_on_the_libraries_that_they_use(packages):
    depends = field(packages["vextool"], "Depends")
    for library in ("libabsl", "libc6", "libgrpc", "libprotobuf", "libspdlog", "libtelnet2", "libutf8proc2", "adduser"):
        assert library in depends, depends
    version = field(packages["vextool"], "Version")
    for name in ("vextool-device", "vextool-dev"):
        assert f"vextool (= {version})" in field(packages[name], "Depends")


@pytest.mark.skipif(shutil.which("lintian") is None, reason="there is no lintian")
def test_lintian_has_nothing_to_say(packages):
    done = subprocess.run(["lintian", "--allow-root", "--no-cfg", *map(str, packages.values())], capture_output=True,
                          text=True, check=False)
    assert done.stdout == ""
    assert done.returncode == 0, done.stderr
