"""The figures for Prometheus: what the tool counts, the file for a node exporter, and the rules and panels that stand on them."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import urllib.request

import pytest

from conftest import Child, ControlClient, LIMIT_S, interrupt_and_wait, wait_until
from test_player import start_events  # noqa: F401  fixture
from test_vexctl import ENCD, vexctl  # noqa: F401  fixture

FLEET = pathlib.Path(__file__).resolve().parents[2] / "fleet/prometheus"
NODE_EXPORTERS = {"node_textfile_mtime_seconds", "node_textfile_scrape_error"}
STRANGER = "nobody"


def figures(text):
    """Value by series, "name{label="value"}"."""
    return {series: float(value) for series, value in re.findall(r"^([a-z_]+(?:\{.*\})?) (\S+)$", text, re.MULTILINE)}


def families(text):
    return set(re.findall(r"^# TYPE (\S+) ", text, re.MULTILINE))


def commands(shown):
    return {status: shown[f'vextool_commands_total{{status="{status}"}}']
            for status in ("ok", "refused", "usage", "unreachable", "timeout", "cancelled", "failed")}


def check_metrics(text):
    return subprocess.run(["promtool", "check", "metrics"], input=text, text=True, capture_output=True, check=False, timeout=LIMIT_S)


@pytest.fixture
def file(tmp_path):
    tmp_path.chmod(0o755)
    return tmp_path / "vextool.prom"


def test_promtool_finds_nothing_wrong_and_the_figures_are_what_was_done(serve, vexctl, fake_encd):  # noqa: F811
    serve()
    vexctl(*ENCD)
    fake_encd("status", "6", "no such quality")
    vexctl("-k", "-c", "encd SetQulity high", "-c", "encd SetQulity low", "-c", "encd SetQulit", "-c", "core show version")
    text = vexctl("metrics").stdout
    checked = check_metrics(text)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")
    shown = figures(text)
    assert commands(shown) == {"ok": 1, "refused": 2, "usage": 1, "unreachable": 1, "timeout": 0, "cancelled": 0, "failed": 0}
    name = "encoder.v1.SetVideoQualityRequest"
    assert shown[f'vextool_rpc_calls_total{{code="UNAVAILABLE",message="{name}"}}'] == 1
    assert shown[f'vextool_rpc_calls_total{{code="OK",message="{name}"}}'] == 2
    assert shown[f'vextool_rpc_call_duration_seconds_count{{message="{name}"}}'] == 3
    assert shown['vextool_sessions_opened_total{kind="control"}'] == 3
    assert shown['vextool_build_info{version="v0.0.1"}'] == 1
    wait_until(lambda: figures(vexctl("metrics").stdout)['vextool_sessions{kind="control"}'] == 1, "the others have ended")


def test_promtool_notices_what_is_wrong():
    assert check_metrics("# TYPE x counter\nx 1\n").returncode != 0


def test_every_session_has_the_command_and_may_choose_of_it(tool, connect):
    program = connect(tool.port())
    program.send("metrics | include _opened_total{\nmetrics | include _info | count\n")
    program.until('vextool_sessions_opened_total{kind="program"} ')
    assert program.finish().endswith("\n3\n")  # its help, its type and its figure


def test_the_file_is_there_from_the_start_and_written_a_last_time_at_the_end(serve, vexctl, file):  # noqa: F811
    tool = serve(KLBASE_METRICS_FILE=str(file))
    wait_until(file.exists, "the file")
    vexctl("-k", "-c", "core show version", "-c", "nonsense")
    assert interrupt_and_wait(tool) == 1
    text = file.read_text(encoding="utf-8")
    assert check_metrics(text).returncode == 0
    assert (commands(figures(text))["ok"], commands(figures(text))["usage"]) == (1, 1)
    assert sorted(name for name in os.listdir(file.parent) if "prom" in name) == ["vextool.prom"]


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can be another user")
def test_another_user_may_read_the_file(serve, file):  # noqa: F811
    tool = serve(KLBASE_METRICS_FILE=str(file))
    wait_until(file.exists, "the file")
    for folder in file.parents:
        if folder.owner() == "root" and folder != pathlib.Path("/tmp") and folder != pathlib.Path("/"):
            folder.chmod(folder.stat().st_mode | 0o011)
    read = subprocess.run(["cat", str(file)], user=STRANGER, capture_output=True, text=True, check=True, timeout=LIMIT_S)
    assert "vextool_build_info" in read.stdout
    assert interrupt_and_wait(tool) == 1


def test_a_file_that_can_not_be_written_is_said_once_and_harms_nobody(serve, vexctl, file):  # noqa: F811
    path_of = file.parent / "missing" / "vextool.prom"
    tool = serve(KLBASE_METRICS_FILE=str(path_of))
    wait_until(lambda: "the metrics file" in tool.log(), "the record")
    assert vexctl("core", "show", "version").returncode == 0
    assert interrupt_and_wait(tool) == 1
    assert tool.log().count(f"the metrics file {path_of} cannot be written: No such file or directory") == 1


def test_the_rules_are_well_formed_and_tell_what_they_should():
    for words in (["check", "rules", FLEET / "vextool-alerts.yml"], ["test", "rules", pathlib.Path(__file__).with_name("alerts_test.yml")]):
        done = subprocess.run(["promtool", *words], capture_output=True, text=True, check=False, timeout=LIMIT_S)
        assert done.returncode == 0, done.stdout + done.stderr
    # The file that it names lies beside it.
    done = subprocess.run(["promtool", "check", "config", "prometheus.yml"], cwd=FLEET, capture_output=True, text=True,
                          check=False, timeout=LIMIT_S)
    assert done.returncode == 0, done.stdout + done.stderr


def test_events_and_subscriptions_are_counted(serve, vexctl, start_events):  # noqa: F811
    daemon = start_events()
    serve()
    up = 'vextool_rpc_subscriptions_up{address="unix-abstract:playd@default"}'
    wait_until(lambda: figures(vexctl("metrics").stdout).get(up) == 1, "the subscription")
    daemon.process.stdin.write(b"report 1 a.mp4 1\nreport 1 a.mp4 2\nseek 1 5 10\n")
    daemon.process.stdin.flush()
    reports, seeks = ('vextool_events_total{topic="layer/%s"}' % topic for topic in ("result_repor", "get_seek_of_uplayer"))
    shown = wait_until(lambda: (shown := figures(vexctl("metrics").stdout)) and shown.get(seeks) == 1 and shown, "the events")
    assert shown[reports] == 2
    daemon.kill()
    wait_until(lambda: figures(vexctl("metrics").stdout)[up] == 0, "the end of the subscription")


class Monitor(ControlClient):
    """A program that is shown all events, and reads them when it is told to."""

    def __init__(self, path):
        super().__init__(path)
        self.shown, self.missed = [], 0
        assert self.ask({"monitor": []}) == {"status": "ok"}

    def read_until(self, enough):
        while not enough():
            line = self.receive()
            self.missed += line.get("missed", 0)
            if "event" in line:
                self.shown.append(line["event"]["seq"])
                self.newest = line["event"]["message"]["unique_id"]


def test_events_that_a_slow_reader_misses_are_counted_as_it_is_told(serve, vexctl, path, start_events, started):  # noqa: F811
    daemon = start_events()
    serve()
    monitor = Monitor(path)
    started.append(monitor)

    def publish(line):
        daemon.process.stdin.write(line)
        daemon.process.stdin.flush()

    def counted(name):
        return figures(vexctl("metrics").stdout).get(name, 0)
    lost = [f'vextool_rpc_events_lost_total{{reason="{reason}"}}' for reason in ("slots", "server")]
    dropped, events = 'vextool_session_events_dropped_total{kind="control"}', 'vextool_events_total{topic="layer/result_repor"}'
    wait_until(lambda: publish(b"report first a.mp4 1\n") or counted(events), "the tool's events come")
    publish(b"burst 8000 1000\n")
    wait_until(lambda: counted(dropped), "some are dropped")
    wait_until(lambda: counted(events) + sum(map(counted, lost)) > 8000, "all have come")
    monitor.read_until(lambda: len(monitor.shown) >= 2000)  # so that there is room for one more
    publish(b"report last a.mp4 1\n")
    monitor.read_until(lambda: monitor.newest == "last")
    assert len(monitor.shown) + monitor.missed == monitor.shown[-1] - monitor.shown[0] + 1
    assert counted(dropped) == monitor.missed > 0


def names_in(expression):
    """The names of metrics in a query."""
    bare = re.sub(r'"[^"]*"|\{[^}]*\}|\[[^\]]*\]|\b(by|without|on|ignoring)\s*\([^)]*\)', " ", expression)
    return set(re.findall(r"\b(?:vextool|node|process)_[a-z_]+\b", bare))


def base(name, known):
    stem = re.sub(r"_(bucket|sum|count)$", "", name)
    return stem if stem in known else name


def queries():
    dashboard = json.loads((FLEET / "vextool-dashboard.json").read_text(encoding="utf-8"))
    yield from (target["expr"] for panel in dashboard["panels"] for target in panel["targets"])
    yield from re.findall(r"^ +expr: (.*)$", (FLEET / "vextool-alerts.yml").read_text(encoding="utf-8"), re.MULTILINE)


def test_panels_and_alerts_ask_for_figures_that_the_tool_prints(serve, vexctl, start_events):  # noqa: F811
    serve()
    start_events()
    vexctl(*ENCD)
    # Each family but the events' has figures by now.
    known = wait_until(lambda: (found := families(vexctl("metrics").stdout)) >= {"vextool_rpc_subscriptions_up"} and found, "the figures")
    asked = set().union(*map(names_in, queries()))
    assert len(asked) >= 8
    assert {name for name in asked if base(name, known) not in known} <= NODE_EXPORTERS | {"vextool_events_total"}


@pytest.mark.skipif(shutil.which("prometheus-node-exporter") is None, reason="there is no prometheus-node-exporter")
def test_a_node_exporter_shows_the_file(serve, file, started, tmp_path):  # noqa: F811
    serve(KLBASE_METRICS_FILE=str(file))
    wait_until(file.exists, "the file")
    exporter = Child(tmp_path, "exporter", ["prometheus-node-exporter", "--web.listen-address=127.0.0.1:0",
                                            f"--collector.textfile.directory={tmp_path}"])
    started.append(exporter)
    port = wait_until(lambda: re.search(r"127\.0\.0\.1:(\d+)", exporter.errors()), "the exporter listens").group(1)
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=LIMIT_S) as answer:
        shown = answer.read().decode()
    assert 'vextool_build_info{version="v0.0.1"} 1\n' in shown
    assert "node_textfile_scrape_error 0\n" in shown
    assert re.search(r'node_textfile_mtime_seconds\{file=".*/vextool\.prom"\} ', shown)
