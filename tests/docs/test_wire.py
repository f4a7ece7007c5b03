"""The answers that docs/protocol.md describes, checked by a program that knows gRPC only."""

import pathlib
import subprocess
import sys

import markdown

PAGE = (markdown.ROOT / "docs/protocol.md").read_text(encoding="utf-8")


def test_the_tool_answers_as_the_page_says(reader):
    reader.start_demo()
    done = subprocess.run([sys.executable, pathlib.Path(__file__).parent / "ask.py"], capture_output=True, text=True,
                          timeout=120, check=False)
    assert done.stdout.splitlines() == ["known OK", "unknown UNIMPLEMENTED True", "prefix UNIMPLEMENTED",
                                        "nobody UNAVAILABLE", r"health ('OK', b'\x08\x01')", "reflection True"], done.stderr
    for code in ("UNIMPLEMENTED, the text names the type URL", "UNAVAILABLE | nobody listens", "`grpc.health.v1`",
                 "`grpc.reflection.v1alpha`", "another prefix reaches no handler"):
        assert code in PAGE
