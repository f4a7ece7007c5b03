"""What the tree promises whoever reads it: arrows that go down only, and pages and folders of a size that can be taken in."""

import collections
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
# From the bottom to the top: a folder includes from itself and from those below it, not from those beside it.
LAYERS = {
    "platform/klbase/src": [["text"], ["line_editor"], ["cli"], ["console"]],
    "platform/klrpc/src": [["transport"], ["client", "server"]],
}
PAGE_LINES = {"docs/console.md": 80, "docs/klrpc.md": 80, "docs/klrpc-grpc.md": 80}
CORPUS_INPUTS = 200
FOLDER_SOURCES = 24


def sources(base="."):
    """All that is written, and nothing that a build has left."""
    found = [path.relative_to(ROOT) for path in (ROOT / base).rglob("*.*") if path.suffix in (".cc", ".h")]
    found = [path for path in found if not path.parts[0].startswith(("build", "."))]
    assert found, f"no source lies below {base}"
    return found


def included(source, base):
    """The first folders below `base` that a source includes from."""
    names = re.findall(r'^#include "([^"]+)"', (ROOT / source).read_text(encoding="utf-8"), re.M)
    return {pathlib.Path(name).parts[0] for name in names if (ROOT / base / name).exists()}


def not_below(base, folder):
    """The folders that a source in `folder` must not include from; none for one that has no layer."""
    at = next((at for at, layer in enumerate(LAYERS[base]) if folder in layer), len(LAYERS[base]))
    return {other for layer in LAYERS[base][at:] for other in layer} - {folder}


@pytest.mark.parametrize("base", LAYERS)
def test_includes_go_down_only(base):
    wrong = []
    for source in sources(base):
        if not source.name.endswith("_test.cc"):  # a test may stand on all that there is
            above = included(source, base) & not_below(base, source.relative_to(base).parts[0])
            wrong += [f"{source} includes from {each}/" for each in sorted(above)]
    assert not wrong, "\n".join(wrong)


def test_a_folder_of_sources_can_be_looked_over():
    counts = collections.Counter(source.parent for source in sources())
    assert {str(folder): count for folder, count in counts.items() if count > FOLDER_SOURCES} == {}


@pytest.mark.parametrize("page", PAGE_LINES)
def test_a_page_is_read_in_one_go(page):
    lines = (ROOT / page).read_text(encoding="utf-8").count("\n")
    assert lines <= PAGE_LINES[page], f"{page} has {lines} lines"


def test_the_kept_fuzz_inputs_are_few_and_named():
    inputs = [path for path in (ROOT / "fuzz" / "corpus").rglob("*") if path.is_file()]
    assert 0 < len(inputs) <= CORPUS_INPUTS
    assert [path for path in inputs if re.fullmatch(r"[0-9a-f]{16,}", path.name)] == []
