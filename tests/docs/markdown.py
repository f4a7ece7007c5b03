"""Reads the tree's Markdown: its code blocks, links, headings, code spans and tables."""

import dataclasses
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
FENCE = re.compile(r"^( {0,3})(`{3,}|~{3,})\s*(.*?)\s*$")


@dataclasses.dataclass
class Block:
    """A code block: fenced, with the words behind its fence, or indented (no words)."""
    file: str
    line: int  # of its first line of text, from 1
    info: list
    lines: list

    @property
    def kind(self):
        return self.info[0] if self.info else ""

    @property
    def text(self):
        return "\n".join(self.lines) + "\n"

    def __str__(self):
        return f"{self.file}:{self.line}"


@dataclasses.dataclass
class Document:
    file: str  # below the tree's root
    blocks: list
    prose: list  # (line number, text) of the lines outside code blocks

    @property
    def folder(self):
        return (ROOT / self.file).parent

    def code_spans(self):
        for number, text in self.prose:
            for span in re.findall(r"`([^`]+)`", text):
                yield number, span

    def links(self):
        for number, text in self.prose:
            for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`]*`", "", text)):
                yield number, target

    def anchors(self):
        """As GitHub makes them from the headings."""
        found = []
        for _, text in self.prose:
            heading = re.match(r"#+\s+(.*)", text)
            if heading:
                word = re.sub(r"[^\w\- ]", "", heading.group(1).lower()).replace(" ", "-")
                found.append(word if word not in found else f"{word}-{found.count(word)}")
        return found

    def text(self):
        return (ROOT / self.file).read_text(encoding="utf-8")


def parse(file, text):
    blocks, prose, fence, blank_before = [], [], None, True
    for number, line in enumerate(text.splitlines(), 1):
        match = FENCE.match(line)
        if fence:
            if match and match.group(2).startswith(fence) and not match.group(3):
                fence = None
            else:
                blocks[-1].lines.append(line[indent:] if line[:indent].isspace() else line)
        elif match:
            fence, indent = match.group(2), len(match.group(1))
            blocks.append(Block(file, number + 1, match.group(3).split(), []))
        elif line.startswith("    ") and (blank_before or continues):
            if not continues:
                blocks.append(Block(file, number, [], []))
            blocks[-1].lines.append(line[4:])
            continues = True
            continue
        else:
            prose.append((number, line))
        continues = False
        blank_before = not line.strip()
    assert not fence, f"{file}: a code block has no end"
    return Document(file, blocks, prose)


def tracked():
    """The tree's files, below its root."""
    listing = subprocess.run(["git", "-c", "safe.directory=*", "ls-files", "--cached", "--others", "--exclude-standard"],
                             cwd=ROOT, capture_output=True, text=True, check=False)
    if listing.returncode == 0:
        return [name for name in listing.stdout.splitlines() if (ROOT / name).exists()]
    return [str(path.relative_to(ROOT)) for path in ROOT.rglob("*")
            if path.is_file() and not re.match(r"\.git/|build", str(path.relative_to(ROOT)))]


TREE = tracked()
DOCUMENTS = [parse(name, (ROOT / name).read_text(encoding="utf-8")) for name in TREE if name.endswith(".md")]
BLOCKS = [block for document in DOCUMENTS for block in document.blocks]


def document(file):
    return next(found for found in DOCUMENTS if found.file == file)
