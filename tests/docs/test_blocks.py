"""Every code block of every document is run and compared, or checked, or named here with the reason why not."""

import re
import shlex
import subprocess

import pytest

import markdown
import transcript
from reader import BIN, Reader

ROOT = markdown.ROOT

# Blocks with a text that no program prints again: document, the block's beginning ("" for each of its "text" blocks),
# the reason.
SHOWN_ONLY = [
    ("docs/architecture.md", "operator ── telnet", "a picture"),
    ("README.md", "measured ", "figures of one machine; test_the_table_of_figures_is_the_benchmarks_table reads the rest"),
]

# Commands in "sh" blocks that are not run here, and why. Those of ./vex are checked against its usage text instead.
NOT_RUN = [
    (r"ctest --test-dir build ", "runs the tests, of which this is one"),
    (r"(sudo )?(apt|apt-get|dpkg) ", "changes the system"),
    (r"(sudo )?(systemctl|journalctl) ", "needs a system that systemd has started; tests/packaging/test_page.py has one for docs/fleet.md"),
    (r"cmake --install build --prefix /", "changes the system; package.* installs elsewhere"),
    (r"/usr/bin/python3 docs/python/daemon.py", "takes the player's place; test_wire.py runs it beside the tool"),
    (r"ansible-playbook ", "needs a device; tests/packaging/test_page.py has one"),
    (r"sudo (install|groupadd|useradd|ln) ", "changes the system; tests/packaging/test_page.py has one of its own"),
    (r"\(umask 077; openssl passwd -6 ", "asks for a password at the terminal"),
]

CHECKED = {"console", "sh", "cpp", "cmake", "python", "proto", "log", "ini"}


RECORD = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \d0 ")


def kind(block):
    """The word behind the fence; without one, a guess from the block's lines."""
    if block.kind in ("bash", "shell", ""):
        return "log" if block.lines and all(RECORD.match(line) for line in block.lines) else "sh"
    return block.kind


def shown_only(block):
    return any(block.file == file and block.text.startswith(start) and (start or block.kind == "text")
               for file, start, _ in SHOWN_ONLY)


def of_kind(wanted):
    return [pytest.param(block, id=str(block)) for block in markdown.BLOCKS if kind(block) == wanted and not shown_only(block)]


def test_every_block_is_accounted_for():
    unknown = [str(block) for block in markdown.BLOCKS if kind(block) not in CHECKED and not shown_only(block)]
    assert not unknown, "put the block's kind behind the fence (console, sh, cpp ...), or name it in SHOWN_ONLY"


@pytest.mark.parametrize("file, start, reason", SHOWN_ONLY, ids=[file for file, _, _ in SHOWN_ONLY])
def test_what_is_only_shown_is_there(file, start, reason):
    assert not start or any(block.file == file and block.text.startswith(start) for block in markdown.BLOCKS), reason


CONSOLE_DOCUMENTS = [document for document in markdown.DOCUMENTS if any(b.kind == "console" for b in document.blocks)]


@pytest.mark.parametrize("document", CONSOLE_DOCUMENTS, ids=[document.file for document in CONSOLE_DOCUMENTS])
def test_screens_are_what_the_programs_show(document, reader):
    """From top to bottom, in the order of the document. Those that need devices are played in tests/fleet, those that
    need a NATS server in tests/link."""
    reader.save_files(document)
    for block in document.blocks:
        if block.kind == "console" and not {"fleet", "many", "ansible", "nats"} & set(block.info):
            reader.play(block)


# ./vex

def usage():
    return subprocess.run([ROOT / "vex", "help"], capture_output=True, text=True, check=True).stdout


def vex_commands():
    """Pairs of a name and the words that may stand behind it, as `./vex help` shows them."""
    rows = re.findall(r"^  ([a-z][\w-]*)(?: (\S+(?: \S+)*))?(?:  .*)?$", usage(), re.MULTILINE)
    return [(name, words.split()) for name, words in rows]


def fits(word, form):
    """Whether a word is of the form that the usage text shows: a kind of words in capitals, or words to choose from."""
    form = form.strip("[]<>").replace("...", "")
    if form == "PRESET":
        return word in re.search(r"PRESET is one of: (.*)", usage()).group(1).split()
    if form.upper() in ("MINUTES", "SECONDS", "ROUNDS", "NODES", "N"):
        return word.isdigit()
    if form == "FLAG":
        return word.startswith("--")
    return form.isupper() or word in form.split("|")


def refusal(words):
    """The fault in a ./vex command; None for a right one."""
    faults = [fault(words, list(forms)) for name, forms in vex_commands() if name == words[0]]
    if not faults:
        return f"./vex knows no '{words[0]}'"
    return None if None in faults else faults[0]


def fault(words, forms):
    """What keeps the command from being one of this form."""
    for word in words[1:]:
        while forms and not fits(word, forms[0]):
            if not forms[0].startswith("["):
                return f"'{word}' is not a {forms[0]}"
            forms.pop(0)
        if not forms:
            return f"./vex {words[0]} takes no '{word}'"
        if "..." not in forms[0]:
            forms.pop(0)
    return None


@pytest.mark.parametrize("command", ["demo", "demo --cli_port=0", "demo --fleet 5", "test", "test tsan", "test release -R Line", "format --check"])
def test_right_commands_are_taken(command):
    assert refusal(command.split()) is None


@pytest.mark.parametrize("command", ["dema", "build tsun", "build tsan tsan", "format --chek", "demo now", "demo --fleet five"])
def test_wrong_commands_are_noticed(command):
    assert refusal(command.split())


@pytest.mark.parametrize("block", of_kind("sh"))
def test_commands_are_known(block):
    for line in "\n".join(block.lines).replace("\\\n", " ").splitlines():
        command = re.sub(r"(^|\s)#.*", "", line).strip()
        if not command:
            continue
        words = shlex.split(command)
        if words[0] == "./vex":
            wrong = refusal(words[1:])
            assert not wrong, f"{block}: {command}: {wrong}"
        else:
            assert any(re.match(pattern, command) for pattern, _ in NOT_RUN), f"{block}: '{command}' is not accounted for"


def test_vex_knows_the_commands_it_lists():
    done = subprocess.run([ROOT / "vex", "no-such-command"], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and done.stderr.endswith("vex: unknown command 'no-such-command'\n")
    dispatched = re.search(r"^case .*?^esac", (ROOT / "vex").read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL).group(0)
    patterns = {name for row in re.findall(r"^  ([\w\-| ]+)\)", dispatched, re.MULTILINE)
                for name in row.replace(" ", "").split("|")}
    assert patterns - {"-h", "--help"} == {name for name, _ in vex_commands()}


def test_every_vex_command_is_documented_and_no_other():
    text = "\n".join(markdown.document(name).text() for name in ("README.md", "CONTRIBUTING.md"))
    named = set(re.findall(r"\./vex ([a-z][\w-]*)", text))
    assert named == {name for name, _ in vex_commands()}


def test_vex_commands_in_the_text_are_right():
    for document in markdown.DOCUMENTS:
        for number, span in document.code_spans():
            if span.startswith("./vex "):
                assert not refusal(span.split()[1:]), f"{document.file}:{number}: {refusal(span.split()[1:])}"


@pytest.mark.skipif(subprocess.run(["which", "clang-format-14"], capture_output=True, check=False).returncode != 0,
                    reason="./vex format would install clang-format-14")
def test_sources_are_formatted_as_the_documents_say():
    done = subprocess.run([ROOT / "vex", "format", "--check"], capture_output=True, text=True, check=False)
    assert done.returncode == 0, "\n".join(re.findall(r".*error:.*", done.stderr)[:5])


# Other kinds

@pytest.mark.parametrize("block", of_kind("proto"))
def test_schemas_are_shown_as_they_are(block):
    named = re.match(r"// (\S+\.proto)$", block.lines[0])
    assert named, f"{block}: begin it with a comment that names the file"
    lines = [line.strip() for line in (ROOT / named.group(1)).read_text(encoding="utf-8").splitlines()]
    at = 0
    for line in block.lines[1:]:
        assert line.strip() in lines[at:], f"{block}: '{line}' is not in {named.group(1)}, or not there"
        at = lines.index(line.strip(), at)


@pytest.mark.parametrize("block", of_kind("cpp") + of_kind("cmake") + of_kind("python"))
def test_samples_say_which_file_they_are(block):
    """They are built with the tests (CMakeLists.txt here), or by commands that a console block of the document shows."""
    named = Reader.file_name(block)
    assert named, f"{block}: begin it with a comment that names the file"
    built = (BIN.parent / "tests" / "docs" / "samples" / named).exists()
    used = any(part in other.text for other in markdown.document(block.file).blocks if other.kind == "console"
               for part in (named, named.split("/")[0] + " "))
    assert built or used, f"{block}: no console block of the document does anything with {named}"


@pytest.mark.parametrize("block", of_kind("log"))
def test_records_look_like_real_ones(block, reader):
    """The log of the demo has the records that a document shows."""
    reader.start_demo()
    reader.stop_demo()
    log = [transcript.normal(line) for line in (reader.checkout / "build/demo/vextool.log").read_text().splitlines()]
    for line in block.lines:
        assert transcript.normal(line) in log, f"{block}: '{line}' is not a record of a start"


@pytest.mark.parametrize("block", of_kind("ini"))
def test_unit_settings_are_settings(block):
    known = {"Environment", "EnvironmentFile", "ExecStart", "User", "Group", "ReadWritePaths", "BindReadOnlyPaths"}
    known |= {key for name in markdown.TREE if name.endswith(".service")
              for key in re.findall(r"^(\w+)=", (ROOT / name).read_text(encoding="utf-8"), re.MULTILINE)}
    for line in block.lines:
        setting = re.match(r"(\w+)=", line)
        assert re.match(r"\[\w+\]$|#|;|$", line) or (setting and setting.group(1) in known), f"{block}: {line}"


def test_the_table_of_figures_is_the_benchmarks_table():
    source = "\n".join(path.read_text(encoding="utf-8") for path in (ROOT / "bench").glob("*.py"))
    block = next(block for block in markdown.BLOCKS if block.text.startswith("measured "))
    assert "README.md" in block.file
    columns = [block.lines[0].index(head) for head in ("measured", "figure", "unit", "ratio", "aim")]
    for line in block.lines[1:]:
        name = line[:columns[1]].strip()
        aim = line[columns[4]:].strip()
        assert name in source, f"{block}: the benchmarks know no '{name}'"
        assert not aim or f'"{aim}"' in source, f"{block}: '{aim}' is not an aim of the benchmarks"
