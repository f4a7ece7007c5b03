"""Every name in the documents: links, files, environment variables, flags and figures are held against the tree."""

import re
import subprocess

import pytest

import markdown
from reader import BIN

ROOT, TREE, DOCUMENTS = markdown.ROOT, markdown.TREE, markdown.DOCUMENTS
ALL_TEXT = "\n".join(document.text() for document in DOCUMENTS)
FOLDERS = sorted({name.split("/")[0] for name in TREE if "/" in name})


def read(name):
    return (ROOT / name).read_text(encoding="utf-8")


def each_document(test):
    return pytest.mark.parametrize("document", DOCUMENTS, ids=[document.file for document in DOCUMENTS])(test)


# Links and files

@each_document
def test_links_lead_somewhere(document):
    for number, target in document.links():
        if re.match(r"[a-z]+:", target):
            continue
        path, _, anchor = target.partition("#")
        file = (document.folder / path).resolve() if path else ROOT / document.file
        assert file.exists(), f"{document.file}:{number}: {target}"
        if anchor:
            assert anchor in markdown.document(str(file.relative_to(ROOT))).anchors(), f"{document.file}:{number}: {target}"


# Paths on the device and paths that are made later: their beginning, and the file in the tree that knows them.
MADE = [
    ("build/bin/", None),
    ("build/demo", "vex"),
    ("docs/python/stubs", ".gitignore"),
    ("fuzz/generated", ".gitignore"),
    ("client/", "docs/protocol.md"),
    ("verdicts.json", "fleet/ansible/lines.yaml"),
    ("vextool/console.sock", "platform/klbase/src/console/options.cc"),  # in a user's own folder
]
# Paths of the operating system that the documents name.
SYSTEM = {"/usr", "/etc/vextool.password"}


def looks_like_a_file(span):
    if not re.fullmatch(r"[\w.+-]*(/[\w.+-]+)+/?|[\w-]+\.(md|cc|h|py|sh|proto|cmake|json|txt)", span):
        return False
    return not re.search(r"[A-Z]{4,}", span.replace("README", "").replace("CMAKE", "").replace("CHANGELOG", "")
                         .replace("CONTRIBUTING", "").replace("CM", ""))


def exists(document, span):
    if any((folder / span).exists() for folder in (ROOT, document.folder)):
        return True
    return any(name.endswith("/" + span) or f"/{span.rstrip('/')}/" in f"/{name}" for name in TREE)


@each_document
def test_files_named_exist(document):
    for number, span in document.code_spans():
        if not looks_like_a_file(span) or span.startswith("application/"):
            continue
        where = f"{document.file}:{number}: {span}"
        made = next((known for start, known in MADE if span.startswith(start)), 0)
        if span.startswith("build/bin/"):
            assert (BIN / span[len("build/bin/"):]).exists(), where
        elif made != 0:
            assert span.split("/")[-1] in read(made) or span in read(made), where
        elif span.startswith("/"):
            assert span in SYSTEM or is_known_to_the_tree(span), where
        elif span.split("/")[0] in FOLDERS or re.search(r"\.\w+$", span):
            assert exists(document, span) or re.search(r"^(layer|type\.googleapis\.com)/", span), where


def is_known_to_the_tree(text):
    return subprocess.run(["grep", "-rqF", "--include=*", "--exclude=*.md", "--exclude-dir=build*", "--exclude-dir=.git", text,
                           str(ROOT)], check=False).returncode == 0


def test_a_missing_file_is_noticed():
    document = DOCUMENTS[0]
    assert looks_like_a_file("docs/nothing.md") and not exists(document, "docs/nothing.md")
    assert looks_like_a_file("nothing.proto") and not exists(document, "nothing.proto")
    assert not looks_like_a_file("NAME_test.cc") and not looks_like_a_file("SetQulity")


# Names in the code

def code():
    return {name: read(name) for name in TREE
            if re.search(r"\.(cc|h)$", name) and not re.search(r"_test\.cc$|^tests/|^bench/|^fuzz/|test(ing|_support)", name)}


def variables_read():
    """Environment variables: the arguments of getenv(), and our names that are handed to it."""
    names = set()
    for text in code().values():
        names.update(re.findall(r'getenv\("(\w+)"\)', text))
        names.update(re.findall(r'"((?:KLBASE|KLRPC|SYSCONFIG|VEX)_[A-Z_]+)"', text))
        if "getenv(name)" in text:
            names.update(re.findall(r'(?:Environment|IsSet|Set|HasValue)\("([A-Z_]+)"\)', text))
    return names


def test_environment_variables_are_documented():
    undocumented = sorted(name for name in variables_read() if not re.search(rf"`{name}[`=]", ALL_TEXT))
    assert not undocumented


def test_documented_environment_variables_are_read():
    named = set(re.findall(r"\b(?:KLBASE|KLRPC|SYSCONFIG)_[A-Z_]*[A-Z]\b", ALL_TEXT))
    assert not named - variables_read()


def flags(program):
    shown = subprocess.run([BIN / program, "--help"], capture_output=True, text=True, check=False)
    return dict(re.findall(r"^    --(\w+) \((?:[^()]|\n)*\);\s+default: (\S+?);$", shown.stdout + shown.stderr, re.MULTILINE))


def test_the_table_of_flags_is_the_tools():
    table = dict(re.findall(r"^\| `--(\w+)` \| (\S+) \|", read("docs/operations.md"), re.MULTILINE))
    assert table == flags("vextool") != {}


# Flags of programs that are not ours.
FOREIGN_FLAGS = {
    "--install", "--prefix", "--build",  # cmake
    "--test-dir", "--repeat",  # ctest
    "--now",  # systemctl
    "--help",
    "--formatter", "--report-formatter",  # bats
    "--junit-xml",  # pytest
    "--diff", "--tags",  # ansible-playbook
    "--system", "--no-create-home", "--home-dir", "--shell", "--groups",  # groupadd, useradd
}


def test_flags_named_are_known():
    ours = {f"--{name}" for program in ("vextool", "encd", "playd") for name in flags(program)}
    ours |= set(re.findall(r"--[a-z][\w-]*", read("vex")))
    ours |= {flag for name in TREE
             if re.search(r"(ctl/|device/|bench/|tests/|fuzz/|packaging/|example/rpc/).*\.(cc|py|sh)$", name)
             for flag in re.findall(r"--[a-z][\w-]*", read(name))}
    named = set(re.findall(r"(?<![\w-])--[a-z][\w-]*", ALL_TEXT))
    assert not named - ours - FOREIGN_FLAGS


def test_programs_show_their_flags():
    """Its page refers to `playd --help`."""
    assert {"address", "headless", "snapshot_dir"} <= set(flags("playd"))
    assert {"address", "record_dir", "input"} <= set(flags("encd"))


# Figures: how a page states a limit (or a number that counts), the file that decides it, and how it stands there.

def evaluate(text):
    text = text.replace("'", "").rstrip("u")
    left, _, right = text.partition(" << ")
    return int(left.rstrip("u")) << int(right) if right else int(text)


OPTIONS = "platform/klbase/src/console/options.h"
SESSIONS, LINE, PENDING = r"\b(\d+) sessions\b(?! x)", r"\b(\d+) bytes\b|lines of (\d+) bytes", r"\b(\d+) MiB of output"
FIGURES = [
    (SESSIONS, OPTIONS, r"max_sessions = (\S+);", 1),
    (r"\b(\d+) bytes a line|lines of (\d+) bytes", "platform/klbase/src/line_editor/limits.h", r"kMaxLineBytes = (\S+);", 1),
    (PENDING, "platform/klbase/src/console/output_buffer.h", r"kMaxPending = ([^;]+);", 1 << 20),
    (r"cut off after (\d+) s", OPTIONS, r"reader\{([^}]+)\}", 0.001),
    (r"waits for a daemon gets (\d+) s", OPTIONS, r"stop\{([^}]+)\}", 0.001),
    (r"\b(\d+) MiB\s+a message|(?:messages of|may have up to) (\d+) MiB", "platform/klrpc/src/transport/grpc_core.h",
     r"kMaxMessageBytes = ([^;]+);", 1 << 20),
    (r"(\d+) events\s+that wait|keeps up to (\d+) messages", "platform/klrpc/src/server/subscription_hub.h", r"kMaxQueued = ([^;]+);", 1),
    (r"client uses (\d+) s", "platform/klrpc/src/client/api_client.cc", r"kDefaultTimeout\{([^}]+)\}", 0.001),
    (r"answer \((\d+)\)", "platform/klrpc/src/client/api_client.cc", r"kDefaultTimeout\{([^}]+)\}", 1),
    (r"at most (\d+) files", "modules/core/include/core/log_conf.h", r"log_default_max_log_file = ([^;]+);", 1),
    (r"files of (\d+) KiB", "modules/core/include/core/log_conf.h", r"log_default_max_file_size_kb = ([^;]+);", 1),
    (r"It holds (\d+) lines", "platform/klbase/src/line_editor/history.h", r"kMaxLines = ([^;]+);", 1),
    (r"TCP port (50\d+)", "example/vextool.cc", r"cli_port, (\d+),", 1),
    (r"TCP port (7\d+)", "modules/apisdk/apisdk.cc", r"kNodePort = ([^;]+);", 1),
    (r"It ends within (\d+) s", "example/exit_handling.h", r"kEndLimit\{([^}]+)\}", 1),
    (r"hangs is killed after (\d+) s", "modules/envctl/sysconf.cc", r"kLimit\{([^}]+)\}", 1),
    (r"at most (\d+) players", "device/playd/player/player_table.h", r"kMaxPlayers = ([^;]+);", 1),
    (r"name, 1 to (\d+) characters", "device/playd/player/player_table.h", r"kMaxIdLength = ([^;]+);", 1),
    (r"1 to (\d+) a side", "device/playd/canvas/geometry.cc", r"kMaxSide = ([^;]+);", 1),
    (r"open after (1\.5) s", "device/playd/player/player.h", r"milliseconds media\{([^}]+)\}", 0.001),
    (r"cluster is away, (\d+) events", "link/arguments.h", r"buffer = ([^;]+);", 1),
    (r"node runs (\d+) at a time", "link/runs/run_service.h", r"kAtOnce = ([^;]+);", 1),
    (r"as new, and (\d+)\s+more wait", "link/runs/run_service.h", r"kMostWaiting = ([^;]+);", 1),
]


@pytest.mark.parametrize("claim, file, definition, unit", FIGURES, ids=[figure[0] for figure in FIGURES])
def test_figures_are_the_codes(claim, file, definition, unit):
    defined = re.search(definition, read(file))
    assert defined, f"{file} has no {definition}"
    value = evaluate(defined.group(1))
    stated = [next(group for group in found.groups() if group) for found in re.finditer(claim, ALL_TEXT)]
    assert stated, "no page says it any more: take it out of FIGURES, or say it"
    for figure in stated:
        assert float(figure) * unit == value or float(figure) == value * unit, f"{file} says {defined.group(0)}"


def test_the_services_limits_and_needs_are_the_units():
    limits = read("docs/operations.md").split("\n## Limits")[1].split("\n## ")[0]
    rows = re.findall(r"^\| `(\w+)` \| (\d+) \| (\d+) \| (.*) \|$", limits, re.MULTILINE)
    assert [row[0] for row in rows] == ["vextool", "encd", "playd"]
    for name, memory, tasks, needs in rows:
        unit = read(f"packaging/debian/{name}.service")
        limit, scale = re.search(r"^MemoryMax=(\d+)([MG])$", unit, re.MULTILINE).groups()
        assert int(memory) == int(limit) * {"M": 1, "G": 1024}[scale]
        assert re.search(rf"^TasksMax={tasks}$", unit, re.MULTILINE)
        comment = re.search(r"^# Measured[^=]*", unit, re.MULTILINE)[0].replace("\n#", "")
        figures = r"(\d+) MiB and (\d+) threads"
        assert re.findall(figures, needs) == re.findall(figures, comment)


def test_counted_things_are_as_many():
    numbers = {"five": 5, "Fifteen": 15, "eighteen": 18}
    menu_rows = len(re.findall(r"^  InsertCommand\(", read("example/apisdk/playd/playd_cil.cc"), re.MULTILINE))
    stated = re.search(r"(\w+) commands drive the player", read("docs/guide.md")).group(1)
    assert numbers[stated] == menu_rows


# Topics, addresses and messages of the wire

def test_names_on_the_wire_are_the_codes():
    protocol = read("docs/protocol.md")
    sources = "\n".join(code().values())
    for name in re.findall(r"`(unix-abstract:[^`]+|layer/[^`]+)`", ALL_TEXT):
        assert f'"{name}"' in sources, name
    schemas = "\n".join(f"package {package};\n{text}" for text in (read(name) for name in TREE if name.endswith(".proto"))
                        for package in re.findall(r"^package ([\w.]+);", text, re.MULTILINE))
    for package, message in re.findall(r"`((?:\w+\.)+v1(?:alpha)?)\.([A-Z]\w+)`", protocol):
        assert f"package {package};" in schemas and re.search(rf"^(message|service) {message} ", schemas, re.MULTILINE)


# Headers, targets and classes that the pages name

def test_names_of_the_code_exist():
    sources = "\n".join(read(name) for name in TREE if re.search(r"\.(cc|h|cmake|proto)$|CMakeLists\.txt$", name))
    for document in DOCUMENTS:
        for number, span in document.code_spans():
            for name in re.findall(r"^(?:cli|core|apis|klrpc|vextool|sigslot)::(\w+)(?:::\w+)*$", span):
                assert re.search(rf"\b{name}\b", sources), f"{document.file}:{number}: {span}"
            for name in re.findall(r"^-D(\w+)=", span):
                assert name.startswith("CMAKE_") or name in sources, f"{document.file}:{number}: {span}"


def included(text):
    return set(re.findall(r'^#include "((?:cli|klbase|klrpc|sigslot)/\w+\.h)"', text, re.MULTILINE))


def test_the_platforms_headers_are_those_that_the_tool_includes():
    section = read("docs/architecture.md").split("\n## The platform's headers")[1].split("\n## ")[0]
    listed = set(re.findall(r"`((?:cli|klbase|klrpc|sigslot)/\w+\.h)`", section))
    headers = {name.split("/include/")[1]: read(name) for name in TREE if re.match(r"platform/\w+/include/", name)}
    needed = set().union(*(included(text) for name, text in code().items() if re.match(r"(example|modules)/", name)))
    assert needed
    assert not sorted(needed - listed)
    reached = needed.union(*(included(headers[name]) for name in needed))
    for_klrpc = set().union(*(included(text) for name, text in code().items() if name.startswith("platform/klrpc/")))
    assert not sorted(for_klrpc - listed - {"klrpc/export.h"})
    assert not sorted(listed - reached - for_klrpc), "neither the tool nor klrpc has a use for it"


def test_every_folder_is_in_the_architecture():
    table = re.findall(r"^\| `([\w./]+)` \|", read("docs/architecture.md"), re.MULTILINE)
    assert {name.split("/")[0] for name in table} == {folder for folder in FOLDERS if not folder.startswith(".")}


# The reference player's page

PLAYER_PAGE = "device/playd/README.md"


def test_fields_of_requests_are_the_schemas():
    fields = set(re.findall(r"^  [\w.]+ (\w+) = \d+;", read("schema/player/v1/player.proto"), re.MULTILINE))
    section = read(PLAYER_PAGE).split("## What the numbers")[1].split("\n## ")[0]
    for cell in re.findall(r"^\| ([^|]*`[^|]*)\|", section, re.MULTILINE):
        for name in re.findall(r"`([\w.]+)`", cell):
            assert set(name.split(".")) <= fields, name


def test_error_codes_are_the_players():
    defined = set(re.findall(r"^  k\w+ = (\d+),", read("device/playd/error_code.h"), re.MULTILINE)) - {"0"}
    section = read(PLAYER_PAGE).split("## Error codes")[1].split("\n## ")[0]
    assert set(re.findall(r"\| (\d+) \|", section)) == defined


def test_play_states_are_the_players():
    defined = re.findall(r"^  k(\w+) = (\d+),", read("device/playd/player/play_state.h"), re.MULTILINE)
    page = re.search(r"`play_state`:([^.]*)\.", read(PLAYER_PAGE)).group(1)
    assert re.findall(r"(\d) (\w+)", page) == [(number, name.lower()) for name, number in defined]


# The reliability pages

def test_each_scenario_is_on_the_reliability_pages_under_its_title():
    scenarios = re.search(r"^SCENARIOS = \[(.*)\]$", read("tests/soak/soak.py"), re.MULTILINE).group(1)
    titles = {name: re.search(r'^TITLE = "(.+)"$', read(f"tests/soak/{name}.py"), re.MULTILINE).group(1)
              for name in re.findall(r'"(\w+)"', scenarios)}
    described = re.findall(r"^- \*\*(.+)\*\* \(`(\w+)`\): ", read("docs/reliability.md"), re.MULTILINE)
    assert {name: title for title, name in described} == titles
    # A full run takes half an hour, so the page may be older than the newest scenario.
    last_run = set(re.findall(r"^\| \*\*(.+)\*\* \|", read("docs/reliability-last-run.md"), re.MULTILINE))
    assert last_run and last_run <= set(titles.values())
