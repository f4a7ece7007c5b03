"""docs/fleet.md, its part on NATS: the scripts run, and show what the page shows."""

import subprocess
import sys
import threading

import pytest

from conftest import LIMIT_S, ROOT, wait_until

sys.path.insert(0, str(ROOT / "tests/docs"))

import markdown  # noqa: E402
import transcript  # noqa: E402

PAGE = markdown.document("docs/fleet.md")
NATS_PORT = 4222  # the page's; free in a network of its own
SCREENS = [block for block in PAGE.blocks if block.kind == "console" and "nats" in block.info]


@pytest.fixture
def nodes(serve, start_server, start_link):
    serve()
    server = start_server(port=NATS_PORT)
    for node in ("cam1", "cam2"):
        start_link(server.port, node=node).says("connected to nats://")


@pytest.fixture
def events(publish):
    """The same event, all the time: when the reader's script has subscribed isn't known."""
    ended = threading.Event()

    def run():
        while not ended.wait(0.05):
            publish("report 7 build/demo/clip.mp4 1")
    thread = threading.Thread(target=run)
    thread.start()
    yield
    ended.set()
    thread.join()


def write_scripts(folder):
    for block in PAGE.blocks:
        if block.kind == "python":
            (folder / block.lines[0].removeprefix("# ")).write_text(block.text, encoding="utf-8")


@pytest.mark.parametrize("block", SCREENS, ids=[block.lines[0] for block in SCREENS])
def test_screens_are_what_the_scripts_show(block, nodes, events, tmp_path):
    write_scripts(tmp_path)
    for step in transcript.steps(block):
        def shown(step=step):
            done = subprocess.run(["bash", "-c", step.typed], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True, timeout=LIMIT_S, check=False, cwd=tmp_path)
            lines = done.stdout.splitlines()
            # Both nodes publish the tool's events; which comes first is not known.
            return transcript.matches([line.replace("cam2.event", "cam1.event") for line in step.expected],
                                      [line.replace("cam2.event", "cam1.event") for line in lines])
        wait_until(shown, f"{block}: {step.typed}")
