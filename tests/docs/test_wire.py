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


PYTHON = "/usr/bin/python3"  # the one that has the gRPC of Debian's package
PUBLISH = """
import grpc, sys
sys.path.insert(0, sys.argv[1])
from klrpc.v1 import pubsub_pb2, transport_pb2_grpc
from player.v1 import player_pb2
import topics
with grpc.insecure_channel("unix-abstract:playd@default", [("grpc.enable_http_proxy", 0)]) as channel:
    for state in (1, 2):
        report = player_pb2.ResultRepor(unique_id="5", url=sys.argv[2], play_state=state)
        message = pubsub_pb2.PubsubMessage(topic=topics.RESULT_REPOR, payload=report.SerializeToString(), msg_id=str(state))
        assert transport_pb2_grpc.TransportStub(channel).Publish(message, timeout=10).ok
"""


def report_rows(url, state):
    return ["***************************************", " layerId            :5", f" url                :{url}",
            f" play_state         :{state}"]


def shows(terminal, wanted):
    rows = terminal.rows(0)
    return any(rows[at:at + len(wanted)] == wanted for at in range(len(rows)))


def test_the_tool_talks_with_a_daemon_that_is_written_from_the_page(reader):
    subprocess.run(["docs/python/generate.sh"], cwd=reader.checkout, check=True)
    daemon = reader.open([PYTHON, "docs/python/daemon.py"])
    tool = None
    try:
        assert daemon.wait(lambda: daemon.rows(0)[:1] == ["serving"]), daemon.rows(0)
        tool = reader.open([reader.checkout / "build/bin/vextool", "--local_console", "--cli_port=0"])
        assert tool.wait(lambda: tool.row(tool.screen.cursor.y) == "main>"), tool.rows(0)
        tool.send("playd CreateUplayer 0\r")
        assert tool.wait(lambda: shows(tool, ["result     :1", "error_code :0"])), tool.rows(0)
        assert daemon.wait(lambda: "lp.v1.CreateUplayerReq" in daemon.rows(0)), daemon.rows(0)
        publish(reader, tool, "first/daemon")
        # A daemon that is killed and started again: the tool's subscription comes back to it.
        daemon.close()
        daemon = reader.open([PYTHON, "docs/python/daemon.py"])
        assert daemon.wait(lambda: daemon.rows(0)[:1] == ["serving"]), daemon.rows(0)
        publish(reader, tool, "second/daemon")
    finally:
        for terminal in (daemon, tool):
            if terminal:
                terminal.close()


def publish(reader, tool, url):
    """Until the tool shows it: nobody but the tool knows when it has subscribed, and this daemon keeps nothing."""
    wanted = report_rows(url, 1) + report_rows(url, 2)
    for _ in range(20):
        subprocess.run([PYTHON, "-c", PUBLISH, reader.checkout / "docs/python/stubs", url], check=True, timeout=60)
        if tool.wait(lambda: shows(tool, wanted), 1):
            return
    assert shows(tool, wanted), tool.rows(0)
