"""Writes the documents' C++ samples for this tree (those whose first line names a file below example/) below the given
folder and prints their paths, separated by semicolons. Unchanged files are not written again."""

import pathlib
import re
import sys

import markdown

folder = pathlib.Path(sys.argv[1])
paths = []
for block in markdown.BLOCKS:
    named = re.match(r"// (example/\S+\.cc)$", block.lines[0]) if block.kind == "cpp" and block.lines else None
    if named:
        path = folder / named.group(1)
        paths.append(str(path))
        if not path.exists() or path.read_text(encoding="utf-8") != block.text:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(block.text, encoding="utf-8")
print(";".join(paths), end="")
