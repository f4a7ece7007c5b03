#!/usr/bin/env python3
"""Runs the benchmarks beside their baselines and prints one table. `./vex bench [NAME...]`; names: call console start load
events delay interrupt crowd service
vexctl control rpc monitor fleet metrics link."""

import argparse
import contextlib
import json
import os
import pathlib
import pty
import re
import resource
import select
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "platform" / "testing" / "network"))

import private_network  # noqa: E402

ROUNDS = 5  # each figure is the median of so many runs, taken in turn with its baselines
START_LIMIT_S = 10
EVENT_TOPIC = re.search(r'kResultReporTopic\[\] = "(.+?)"', (ROOT / "schema/player/v1/topics.h").read_text(encoding="utf-8"))[1]
VERSION_END = "git-version: v0.0.1\n"
VERSION_REQUEST = '{"run":"core show version"}'


class Table:
    """Rows of (what, figure, unit, ratio to the baseline, aim)."""

    def __init__(self):
        self.rows = []

    def add(self, what, figure, unit, ratio="", aim=""):
        self.rows.append((what, figure, unit, ratio, aim))

    def show(self):
        heads = ("measured", "figure", "unit", "ratio", "aim")
        rows = [heads] + self.rows
        widths = [max(len(row[i]) for row in rows) for i in range(len(heads))]
        for row in rows:
            print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run_json(arguments, **options):
    done = subprocess.run(arguments, stdout=subprocess.PIPE, timeout=120, check=True, **options)
    return json.loads(done.stdout)


def wait_for(condition, what):
    limit = time.monotonic() + START_LIMIT_S
    while time.monotonic() < limit:
        if condition():
            return
        time.sleep(0.01)
    raise RuntimeError(f"{what} did not start within {START_LIMIT_S} s")


def listening(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


@contextlib.contextmanager
def child(arguments, **options):
    process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, **options)
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def tool_environment(folder, **more):
    return dict(os.environ, KLBASE_LOG_FILE=str(folder / "log"), KLBASE_HISTORY_FILE=str(folder / "history"), **more)


@contextlib.contextmanager
def console(bin_folder, folder, **more):
    """The tool, serving its console on a free port; yields (process, port)."""
    port = free_port()
    with child([bin_folder / "vextool", f"--cli_port={port}"], env=tool_environment(folder, **more)) as process:
        wait_for(lambda: listening(port), "vextool")
        yield process, port


@contextlib.contextmanager
def controlled(bin_folder, folder, **more):
    """The tool with its control socket; yields (process, path, port)."""
    path = folder / "console.sock"
    with console(bin_folder, folder, KLBASE_CONSOLE_SOCKET=str(path), **more) as (process, port):
        wait_for(path.exists, "the control socket")
        yield process, path, port


@contextlib.contextmanager
def player(bin_folder, folder):
    environment = dict(os.environ, KLBASE_LOG_FILE=str(folder / "playd.log"))
    with child([bin_folder / "playd", "--headless"], env=environment) as process:
        wait_for(lambda: "@playd@default" in pathlib.Path("/proc/net/unix").read_text(), "playd")
        yield process


@contextlib.contextmanager
def encoder(bin_folder, folder):
    environment = dict(os.environ, KLBASE_LOG_FILE=str(folder / "encd.log"))
    with open(folder / "encd.out", "wb") as out:
        process = subprocess.Popen([bin_folder / "encd", f"--record_dir={folder}"], stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=out, env=environment)
    try:
        wait_for(lambda: b"listens on" in (folder / "encd.out").read_bytes(), "encd")
        yield
    finally:
        process.terminate()
        process.wait(10)


@contextlib.contextmanager
def message_bus(folder):
    config = folder / "bus.conf"
    address = f"unix:path={folder}/bus"
    config.write_text(
        '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"\n'
        ' "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">\n'
        f"<busconfig><listen>{address}</listen><auth>EXTERNAL</auth><policy context='default'>"
        "<allow send_destination='*'/><allow eavesdrop='false'/><allow own='*'/></policy></busconfig>\n")
    with child(["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={config}"]):
        wait_for(lambda: (folder / "bus").exists(), "dbus-daemon")
        yield address


@contextlib.contextmanager
def redis(folder):
    port = free_port()
    # A subscriber's replies are not bounded, else a slow one is cut off.
    with child(["redis-server", "--port", str(port), "--bind", "127.0.0.1", "--save", "", "--dir", str(folder),
                "--unixsocket", str(folder / "redis.sock"), "--client-output-buffer-limit", "pubsub 0 0 0"]):
        wait_for(lambda: listening(port), "redis-server")
        yield port


@contextlib.contextmanager
def haproxy(folder):
    path = folder / "haproxy.sock"
    config = folder / "haproxy.cfg"
    config.write_text(f"global\n stats socket {path}\n stats timeout 1m\n"
                      "defaults\n timeout connect 1s\n timeout client 1s\n timeout server 1s\n"
                      f"listen none\n bind {folder}/none.sock\n")
    with child(["haproxy", "-db", "-f", str(config)]):
        wait_for(path.exists, "haproxy")
        yield path


@contextlib.contextmanager
def zebra(folder):
    port = free_port()
    config = folder / "zebra.conf"
    config.write_text("hostname frr\nline vty\n no login\n exec-timeout 0 0\n")
    for path in (folder, config):
        shutil.chown(path, "frr", "frr")
    os.chmod(folder, 0o755)
    arguments = ["/usr/lib/frr/zebra", "-f", str(config), "-A", "127.0.0.1", "-P", str(port), "-i", str(folder / "pid"),
                 "-z", str(folder / "zserv"), "--vty_socket", str(folder), "-u", "frr", "-g", "frr"]
    with child(arguments):
        wait_for(lambda: listening(port), "zebra")
        yield port


def alternate(measures):
    """Runs each measure ROUNDS times in turn; returns the medians of what it prints, by name."""
    results = {name: [] for name in measures}
    for _ in range(ROUNDS):
        for name, measure in measures.items():
            results[name].append(measure())
    return {name: {key: statistics.median(run[key] for run in runs) for key in runs[0]}
            for name, runs in results.items()}


def add_latencies(table, figures, main, aims):
    for name, figure in figures.items():
        ratio = "" if name == main else f"{figures[main]['p50_us'] / figure['p50_us']:.2f} x it"
        table.add(name, f"{figure['p50_us']:.1f} / {figure['p99_us']:.1f}", "us p50/p99", ratio, aims.get(name, ""))


def add_costs(table, figures, rows, key, unit):
    """A row for each of `rows`, a label and the figure's name: what a round trip costs at both ends, the first beside the
    others."""
    def sides(name):
        return figures[name]["client_" + key], figures[name]["server_" + key]

    main = sum(sides(next(iter(rows.values()))))
    for i, (label, name) in enumerate(rows.items()):
        client, server = sides(name)
        ratio = f"{main / (client + server):.2f} x it" if i else ""
        table.add(label, f"{client:.1f} / {server:.1f}", unit, ratio)


def bench_call(table, bin_folder, folder):
    count = "10000"
    measures = {
        "APIClient::Call": lambda: run_json([bin_folder / "bench_call_klrpc", count]),
        "bare gRPC stub": lambda: run_json([bin_folder / "bench_call_grpc", count]),
        "raw unix socket": lambda: run_json([bin_folder / "bench_call_raw", count]),
    }
    with contextlib.ExitStack() as stack:
        if shutil.which("dbus-daemon"):
            address = stack.enter_context(message_bus(folder))
            measures["D-Bus call"] = lambda: run_json([bin_folder / "bench_call_dbus", count, address])
        figures = alternate(measures)
    add_latencies(table, figures, "APIClient::Call", {"bare gRPC stub": "<= 1.05", "D-Bus call": "< 1"})
    add_costs(table, figures, {"processor time of a Call": "APIClient::Call", "processor time of a stub": "bare gRPC stub",
                               "processor time of a socket": "raw unix socket"}, "cpu_us", "us client/server")
    add_costs(table, figures, {"context switches of a Call": "APIClient::Call", "context switches of a stub": "bare gRPC stub",
                               "context switches of a socket": "raw unix socket"}, "switches", "client/server")


def bench_console(table, bin_folder, folder):
    def line(port, text, end, count="3000"):
        return lambda: run_json([bin_folder / "bench_line", str(port), text, end, count])

    with contextlib.ExitStack() as stack:
        stack.enter_context(encoder(bin_folder, folder))
        _, port = stack.enter_context(console(bin_folder, folder))
        # The encoder encodes while it answers, as on the device, so the second figure has its load in it.
        measures = {
            "core show version": line(port, "core show version", VERSION_END),
            "encd SetQulity high": line(port, "encd SetQulity high", "\n", "500"),
        }
        if shutil.which("redis-server"):
            measures["redis inline PING"] = line(stack.enter_context(redis(folder)), "PING", "+PONG\r\n")
        if os.path.exists("/usr/lib/frr/zebra") and os.geteuid() == 0:
            zebra_folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
            measures["zebra echo"] = line(stack.enter_context(zebra(zebra_folder)), "echo version", "frr> ")
        figures = alternate(measures)
    add_latencies(table, figures, "core show version", {"zebra echo": "< 1"})


def resident_kb(pid):
    for row in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if row.startswith("VmRSS:"):
            return int(row.split()[1])
    raise RuntimeError("no VmRSS")


def first_output_ms(arguments, environment, text):
    """Starts a program on a terminal of its own; milliseconds until `text` shows."""
    start = time.perf_counter()
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve(arguments[0], [str(word) for word in arguments], environment)
    shown = b""
    while text not in shown:
        shown += os.read(terminal, 4096)
    elapsed = (time.perf_counter() - start) * 1000
    os.write(terminal, b"\x04")
    with contextlib.suppress(OSError):
        while os.read(terminal, 4096):
            pass
    os.waitpid(pid, 0)
    os.close(terminal)
    return elapsed


def bench_start(table, bin_folder, folder):
    environment = tool_environment(folder)
    tool = [bin_folder / "vextool", "--local_console", "--cli_port=0"]
    figures = {"tool": [], "cat": []}
    for _ in range(4 * ROUNDS):
        figures["tool"].append(first_output_ms(tool, environment, b"main> "))
        figures["cat"].append(first_output_ms(["/bin/sh", "-c", "echo main; exec cat"], environment, b"main"))
    tool_ms, cat_ms = (statistics.median(figures[name]) for name in ("tool", "cat"))
    table.add("start to first prompt", f"{tool_ms:.1f}", "ms", "", "<= 13")
    table.add("start of sh and its echo", f"{cat_ms:.1f}", "ms", f"{tool_ms / cat_ms:.1f} x it")
    with console(bin_folder, folder, KLBASE_CONSOLE_MAX_SESSIONS="600") as (process, port):
        idle = resident_kb(process.pid)
        table.add("resident memory, idle", f"{idle / 1024:.1f}", "MiB", "", "<= 15")
        sessions = []
        for _ in range(500):
            sessions.append(socket.create_connection(("127.0.0.1", port)))
            sessions[-1].settimeout(START_LIMIT_S)
        for session in sessions:  # the server speaks once it has taken the session in
            while b"main> " not in session.recv(4096):
                pass
        per_session = (resident_kb(process.pid) - idle) / len(sessions)
        for session in sessions:
            session.close()
        table.add("memory per idle session", f"{per_session:.1f}", "KiB", "", "<= 64")


def bench_load(table, bin_folder, folder):
    with console(bin_folder, folder, KLBASE_CONSOLE_MAX_SESSIONS="600") as (process, port):
        figure = run_json([bin_folder / "bench_load", str(port), "500", "100", "core show version", VERSION_END])
        peak = resident_kb(process.pid)
    table.add("500 sessions x 100 commands", f"{figure['commands_per_second']:.0f}", "commands/s")
    table.add("  errors", str(figure["errors"]), "", "", "0")
    table.add("  memory after", f"{peak / 1024:.1f}", "MiB")


def tool_events(bin_folder, folder, count):
    """Events per second from a publisher to the tool's printed blocks."""
    tool = subprocess.Popen([bin_folder / "vextool", "--cli_port=0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, env=tool_environment(folder))
    try:
        return run_json([bin_folder / "bench_events", str(count), "play_state"], stdin=tool.stdout)
    finally:
        tool.kill()
        tool.wait()
        tool.stdout.close()


@contextlib.contextmanager
def mosquitto(folder):
    port = free_port()
    config = folder / "mosquitto.conf"
    config.write_text(f"listener {port} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\nuser root\n")
    with child(["mosquitto", "-c", str(config)]):
        wait_for(lambda: listening(port), "mosquitto")
        yield str(port)


def mosquitto_events(port, count):
    """Events per second from mosquitto_pub to the lines of mosquitto_sub."""
    subscriber = subprocess.Popen(["mosquitto_sub", "-p", port, "-t", EVENT_TOPIC, "-C", str(count + 1)],
                                  stdout=subprocess.PIPE)
    try:
        # The first message goes again and again until the subscriber is there.
        while not select.select([subscriber.stdout], [], [], 0.1)[0]:
            subprocess.run(["mosquitto_pub", "-p", port, "-t", EVENT_TOPIC, "-m", "x"], check=True)
        lines = b"/media/clip.mp4 0 1\n" * count
        start = time.perf_counter()
        subprocess.run(["mosquitto_pub", "-p", port, "-t", EVENT_TOPIC, "-l"], input=lines, check=True)
        got = subscriber.stdout.read().count(b"\n")
        return {"events_per_second": count / (time.perf_counter() - start), "lost": count - min(got, count)}
    finally:
        subscriber.kill()
        subscriber.wait()


def add_rates(table, name, unit, aim, measure, baseline_name, measure_baseline):
    """A rate beside that of a baseline, measured in turn; `measure_baseline` is None where that is not installed."""
    runs, baseline = [], []
    for _ in range(ROUNDS):
        runs.append(measure())
        if measure_baseline:
            baseline.append(measure_baseline())
    rate = statistics.median(run["events_per_second"] for run in runs)
    table.add(name, f"{rate:.0f}", unit, "", aim)
    table.add("  lost", str(sum(run["lost"] for run in runs)), "", "", "0")
    if baseline:
        other = statistics.median(run["events_per_second"] for run in baseline)
        table.add(baseline_name, f"{other:.0f}", unit, f"{rate / other:.2f} x it")


def bench_events(table, bin_folder, folder):
    count = 100_000
    with contextlib.ExitStack() as stack:
        port = stack.enter_context(mosquitto(folder)) if shutil.which("mosquitto") else None
        add_rates(table, "events to printed blocks", "events/s", ">= 100000", lambda: tool_events(bin_folder, folder, count),
                  "mosquitto_pub to mosquitto_sub", port and (lambda: mosquitto_events(port, count)))


def bench_delay(table, bin_folder, folder):
    environment = tool_environment(folder)
    program, tool = bin_folder / "bench_event_delay", bin_folder / "vextool"

    def measure(what, count):
        return lambda: run_json([program, what, str(count), tool], env=environment)

    figures = alternate({"event to a telnet screen": measure("telnet", 500),
                         "event to the local terminal": measure("terminal", 500),
                         "event to a bare subscriber": measure("bare", 500)})
    add_latencies(table, figures, "event to a telnet screen", {"event to a telnet screen": "150 / 2000"})
    figure = measure("restart", 60)()
    table.add("events back after a restart", f"{figure['p50_us'] / 1000:.1f} / {figure['p99_us'] / 1000:.1f}", "ms p50/p99",
              "", "p99 <= 150")


def read_until(operator, text):
    received = b""
    while not received.endswith(text):
        part = operator.recv(4096)
        assert part, "the operator was cut off"
        received += part


def bench_interrupt(table, bin_folder, folder):
    """From Ctrl-C to the next prompt, with a call under way to a player that hangs."""
    count, under_way_s, prompt = 50, 0.02, b"main> "
    agreed = b"\xff\xfd\x01\xff\xfd\x03"  # DO ECHO, DO SUPPRESS GO AHEAD

    def to_prompt(operator, key):
        start = time.perf_counter()
        operator.sendall(key)
        read_until(operator, prompt)
        return (time.perf_counter() - start) * 1000

    with console(bin_folder, folder) as (_, port), player(bin_folder, folder) as process:
        operator = socket.create_connection(("127.0.0.1", port), START_LIMIT_S)
        operator.sendall(agreed)
        read_until(operator, prompt)
        process.send_signal(signal.SIGSTOP)
        interrupts, enters = [], []
        for _ in range(count):
            operator.sendall(b"playd GetSeekOfUplayer 0\r\n")
            time.sleep(under_way_s)
            operator.recv(1 << 16)  # its echo, with prompts
            interrupts.append(to_prompt(operator, b"\x03"))
            enters.append(to_prompt(operator, b"\r\n"))
        operator.close()
        process.send_signal(signal.SIGCONT)
    p99 = count * 99 // 100
    table.add("Ctrl-C to the prompt, player hung", f"{statistics.median(interrupts):.2f} / {sorted(interrupts)[p99]:.2f}",
              "ms p50/p99", "", "p99 <= 100")
    table.add("Enter to the prompt", f"{statistics.median(enters):.2f} / {sorted(enters)[p99]:.2f}", "ms p50/p99",
              f"{statistics.median(interrupts) / statistics.median(enters):.1f} x it")


@contextlib.contextmanager
def disturbers(port, each):
    """So many connections that read nothing of their commands' output, and as many that send noise."""
    program = pathlib.Path(__file__).resolve().parents[1] / "tests" / "soak" / "disturbers.py"
    process = subprocess.Popen([sys.executable, "-B", program, str(port), str(each), "1"], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE)
    try:
        assert process.stdout.readline() == b"all connected\n"
        yield
        process.stdin.close()
        process.stdout.read()
        process.wait(60)
    finally:
        process.kill()
        process.wait()


def work(operator, seconds):
    """One operator's commands with a pause behind each: milliseconds that 50 % and 99 % of the answers took at most."""
    pause_s = 0.005
    samples = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        start = time.perf_counter()
        operator.sendall(b"core show version\n")
        answer = b""
        while not answer.endswith(VERSION_END.encode()):
            part = operator.recv(4096)
            assert part, "the operator was cut off"
            answer += part
        samples.append((time.perf_counter() - start) * 1000)
        time.sleep(pause_s)
    ordered = sorted(samples)
    return ordered[len(ordered) // 2], ordered[len(ordered) * 99 // 100]


def bench_crowd(table, bin_folder, folder):
    each, work_s, calm_s = 333, 15, 60
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    with console(bin_folder, folder, KLBASE_CONSOLE_MAX_SESSIONS="2000") as (process, port):
        operator = socket.create_connection(("127.0.0.1", port), 60)
        alone = work(operator, work_s)
        start = resident_kb(process.pid)
        with disturbers(port, each):
            crowded = work(operator, work_s)
        table.add(f"operator beside 2 x {each} disturbers", f"{crowded[0]:.2f} / {crowded[1]:.2f}", "ms p50/p99", "",
                  "p99 <= 50")
        table.add("the same operator alone", f"{alone[0]:.2f} / {alone[1]:.2f}", "ms p50/p99", f"{crowded[0] / alone[0]:.1f} x it")
        time.sleep(calm_s)
        table.add(f"memory {calm_s} s after them, above before", f"{(resident_kb(process.pid) - start) / 1024:.1f}", "MiB", "",
                  "<= 16")


def bench_service(table, bin_folder, folder):
    with console(bin_folder, folder) as (_, port), player(bin_folder, folder):
        figures = alternate({
            "request to the service host": lambda: run_json([bin_folder / "bench_request", "service", "5000"]),
            "bare gRPC stub": lambda: run_json([bin_folder / "bench_call_grpc", "5000"]),
        })
        add_latencies(table, figures, "request to the service host", {})
        figures = alternate({
            "playd GetSeekOfUplayer 0": lambda: run_json(
                [bin_folder / "bench_line", str(port), "playd GetSeekOfUplayer 0", "info_duration_ms :0\n", "3000"]),
            "the same as a bare Call": lambda: run_json([bin_folder / "bench_request", "seek", "3000"]),
        })
        add_latencies(table, figures, "playd GetSeekOfUplayer 0", {})


def bench_vexctl(table, bin_folder, folder):
    def program(*words):
        return lambda: run_json([bin_folder / "bench_process", "time", "200", *words])

    with contextlib.ExitStack() as stack:
        _, path, _ = stack.enter_context(controlled(bin_folder, folder))
        words = [bin_folder / "vexctl", "--socket", path, "core", "show", "version"]
        measures = {"vexctl core show version": program(*words)}
        if shutil.which("dbus-daemon") and shutil.which("busctl"):
            address = stack.enter_context(message_bus(folder))
            # The daemon itself answers, so that there is no second process to wait for.
            measures["busctl call"] = program(shutil.which("busctl"), f"--address={address}", "call", "org.freedesktop.DBus",
                                              "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId")
        figures = alternate(measures)
        peak = run_json([bin_folder / "bench_process", "memory", "20", *words])["peak_kb"]
    aims = {"vexctl core show version": "<= 4", "busctl call": "<= 0.5"}
    main = figures["vexctl core show version"]["p50_us"]
    for name, figure in figures.items():
        ratio = "" if figure["p50_us"] == main else f"{main / figure['p50_us']:.2f} x it"
        table.add(name, f"{figure['p50_us'] / 1000:.2f} / {figure['p99_us'] / 1000:.2f}", "ms p50/p99", ratio, aims[name])
    table.add("resident memory of vexctl", f"{peak / 1024:.1f}", "MiB", "", "<= 6")


def control_session(path):
    """A session on the control socket that has run a line."""
    session = socket.socket(socket.AF_UNIX)
    session.settimeout(START_LIMIT_S)
    session.connect(str(path))
    session.sendall(VERSION_REQUEST.encode() + b"\n")
    received = b""
    while received.count(b"\n") < 2:  # a greeting, and the reply
        part = session.recv(4096)
        assert part, "the tool has closed the connection"
        received += part
    reply = json.loads(received.splitlines()[1])
    assert reply["status"] == "ok" and reply["output"].endswith(VERSION_END), reply
    return session


def bench_control(table, bin_folder, folder):
    def line(path, text, end, *first):
        return lambda: run_json([bin_folder / "bench_line", str(path), text, end, "10000", *first])

    with contextlib.ExitStack() as stack:
        process, path, _ = stack.enter_context(controlled(bin_folder, folder, KLBASE_CONSOLE_MAX_SESSIONS="600"))
        idle = resident_kb(process.pid)
        count = 500
        with contextlib.ExitStack() as sessions:
            for _ in range(count):
                sessions.enter_context(contextlib.closing(control_session(path)))
            per_session = (resident_kb(process.pid) - idle) / count
        # The request in front is answered behind the greeting, which would be taken for an answer.
        measures = {"line on the control socket": line(path, VERSION_REQUEST, "}\n", '{"monitor":["off"]}', '"ok"}\n')}
        if shutil.which("redis-server"):
            stack.enter_context(redis(folder))
            measures["redis PING, unix socket"] = line(folder / "redis.sock", "PING", "+PONG\r\n")
        if shutil.which("haproxy"):
            proxy = stack.enter_context(haproxy(folder))
            measures["haproxy show version"] = line(proxy, "show version", "\n> ", "prompt", "> ")
        figures = alternate(measures)
    add_latencies(table, figures, "line on the control socket",
                  {"redis PING, unix socket": "<= 1.2", "haproxy show version": "< 1"})
    add_record_cost(table, bin_folder, folder)
    table.add("idle with a control socket", f"{idle / 1024:.1f}", "MiB", "", "<= 15")
    table.add("memory per session after a line", f"{per_session:.1f}", "KiB", "", "<= 40")


def add_record_cost(table, bin_folder, folder):
    """A line's round trip with its record in the log, and without. Two tools, each in a network of its own: their sockets
    are files, which all see."""
    def line(name):
        path = folder / name / "console.sock"
        return lambda: run_json([bin_folder / "bench_line", str(path), VERSION_REQUEST, "}\n", "5000", '{"monitor":["off"]}', '"ok"}\n'])

    with contextlib.ExitStack() as stack:
        for name, level in (("recorded", "30"), ("not recorded", "40")):
            (folder / name).mkdir()
            environment = tool_environment(folder / name, KLBASE_LOG_LEVEL=level, KLBASE_CONSOLE_SOCKET=str(folder / name / "console.sock"))
            stack.enter_context(child(["unshare", "--net", "sh", "-c", 'ip link set lo up; exec "$0" --cli_port=0', bin_folder / "vextool"],
                                      env=environment))
            wait_for((folder / name / "console.sock").exists, "the control socket")
        # In turn and often: the difference is smaller than what a busy machine adds to either.
        runs = [(line("recorded")()["p50_us"], line("not recorded")()["p50_us"]) for _ in range(4 * ROUNDS)]
    recorded, plain = (statistics.median(figures) for figures in zip(*runs))
    share = statistics.median((on - off) / off for on, off in runs)
    table.add("line with its record in the log", f"{recorded:.1f}", "us p50", f"{recorded / plain:.2f} x it")
    table.add("line without a record", f"{plain:.1f}", "us p50")
    table.add("  the record's share, of pairs", f"{100 * share:.1f}", "%", "", "<= 5")


def bench_rpc(table, bin_folder, folder):
    end = "error_infor:\n"  # of an answer with success, which the player gives without a medium

    def line(text):
        return lambda: run_json([bin_folder / "bench_line", str(port), text, end, "3000"])

    with console(bin_folder, folder) as (_, port), player(bin_folder, folder):
        run_json([bin_folder / "bench_line", str(port), "playd CreateUplayer 0", end, "1"])
        figures = alternate({
            "rpc call SetVolumeOfUplayerReq": line("rpc call SetVolumeOfUplayerReq unique_id=0 volume=50"),
            "the same as a typed command": line("playd SetVolumeOfUplayer 0 50"),
        })
    add_latencies(table, figures, "rpc call SetVolumeOfUplayerReq", {})
    call, typed = (figure["p50_us"] for figure in figures.values())
    table.add("  above the typed command", f"{call - typed:.1f}", "us p50", "", "<= 20")


def monitor_lines(bin_folder, path, count):
    """Events per second from a publisher to the lines of `vexctl --json monitor`."""
    monitor = subprocess.Popen([bin_folder / "vexctl", "--socket", path, "--json", "monitor"], stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE)
    try:
        return run_json([bin_folder / "bench_events", str(count), '{"event":'], stdin=monitor.stdout)
    finally:
        monitor.kill()
        monitor.wait()
        monitor.stdout.close()


def redis_lines(port, count):
    """Messages per second from `redis-cli --pipe` to the lines of `redis-cli subscribe`."""
    text = "/media/clip.mp4 0 1"
    subscriber = subprocess.Popen(["redis-cli", "-p", str(port), "subscribe", EVENT_TOPIC], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, bufsize=0)
    try:
        for _ in range(3):  # subscribe, the channel, 1
            subscriber.stdout.readline()
        words = ("PUBLISH", EVENT_TOPIC, text)
        command = f"*{len(words)}\r\n" + "".join(f"${len(word)}\r\n{word}\r\n" for word in words)
        start = time.perf_counter()
        publisher = subprocess.Popen(["redis-cli", "-p", str(port), "--pipe"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        feeder = threading.Thread(target=publisher.communicate, args=(command.encode() * count,))
        feeder.start()
        got = b""
        mark = text.encode() + b"\n"
        lines = 0
        while lines < count:
            part = os.read(subscriber.stdout.fileno(), 1 << 16)
            assert part, "redis-cli has ended"
            got += part
            lines += got.count(mark)
            got = got[got.rfind(mark) + len(mark):] if mark in got else got
        elapsed = time.perf_counter() - start
        feeder.join()
        return {"events_per_second": count / elapsed}
    finally:
        subscriber.kill()
        subscriber.wait()
        subscriber.stdout.close()


def bench_monitor(table, bin_folder, folder):
    count = 100_000
    with contextlib.ExitStack() as stack:
        _, path, _ = stack.enter_context(controlled(bin_folder, folder))
        port = stack.enter_context(redis(folder)) if shutil.which("redis-server") else None
        add_rates(table, "events to vexctl --json monitor", "lines/s", ">= 200000", lambda: monitor_lines(bin_folder, path, count),
                  "redis-cli subscribe", port and (lambda: redis_lines(port, count)))


def bench_fleet(table, bin_folder, folder):
    if os.geteuid() != 0:
        print("  left out: network namespaces with accounts of their own need root", file=sys.stderr)
        return
    program = pathlib.Path(__file__).with_name("fleet.py")
    figures = json.loads(subprocess.run([sys.executable, "-B", program, bin_folder, str(ROUNDS)], stdout=subprocess.PIPE,
                                        timeout=1200, check=True).stdout)
    table.add("line by clush, 57 devices, 7 dead", f"{figures['clush_s']:.1f}", "s", "", "<= 15")
    table.add("xargs -P 32 ssh", f"{figures['xargs_s']:.1f}", "s", f"{figures['clush_s'] / figures['xargs_s']:.2f} x it")
    table.add("line by ssh", f"{figures['line_s'] * 1000:.0f}", "ms p50")
    table.add("true by ssh", f"{figures['true_s'] * 1000:.0f}", "ms p50", f"{figures['line_s'] / figures['true_s']:.2f} x it")


def own_times(path, count):
    """Median and 99th percentile of a run of `metrics` as the tool itself measures it: without the waits for the processor
    before and after it."""
    with socket.socket(socket.AF_UNIX) as console:
        console.connect(str(path))
        lines = console.makefile("rb")
        lines.readline()
        took = []
        for _ in range(count):
            console.sendall(b'{"run":"metrics"}\n')
            took.append(json.loads(lines.readline())["us"])
    return sorted(took)[count // 2], sorted(took)[count * 99 // 100]


def bench_metrics(table, bin_folder, folder):
    """How long `metrics` takes while 64 sessions run lines without a pause, and while none does."""
    with controlled(bin_folder, folder, KLBASE_CONSOLE_MAX_SESSIONS="100") as (_, path, port), encoder(bin_folder, folder):
        run_json([bin_folder / "bench_line", str(port), "encd SetQulity high", "\n", "1"])

        def metrics():
            # The request in front is answered behind the greeting, which would be taken for an answer.
            return run_json([bin_folder / "bench_line", str(path), '{"run":"metrics"}', "}\n", "50", '{"monitor":["off"]}', '"ok"}\n'])

        idle = metrics()
        with child([bin_folder / "bench_load", str(port), "64", "1000000", "core show version", VERSION_END]):
            time.sleep(1)
            busy = [metrics() for _ in range(ROUNDS)]
            own = own_times(path, 50 * ROUNDS)
    table.add("metrics, 64 sessions under load", f"{statistics.median(run['p50_us'] for run in busy) / 1000:.2f} / "
              f"{statistics.median(run['p99_us'] for run in busy) / 1000:.2f}", "ms p50/p99", "", "<= 5")
    table.add("  of it the command itself", " / ".join(f"{figure / 1000:.2f}" for figure in own), "ms p50/p99")
    table.add("metrics, no other session", f"{idle['p50_us'] / 1000:.2f} / {idle['p99_us'] / 1000:.2f}", "ms p50/p99")


@contextlib.contextmanager
def linked(bin_folder, path):
    """A NATS server, and vexlink between it and the tool; yields the server's port."""
    port = free_port()
    with child(["nats-server", "-a", "127.0.0.1", "-p", str(port)]):
        wait_for(lambda: listening(port), "nats-server")
        url = f"nats://127.0.0.1:{port}"
        with child([bin_folder / "vexlink", "--node", "bench", "--server", url, "--socket", path]):
            request = [bin_folder / "bench_nats", "request", url, "vextool.bench.run", "core show version", "1"]
            wait_for(lambda: subprocess.run(request, capture_output=True, check=False).returncode == 0, "vexlink")
            yield port


@contextlib.contextmanager
def subscriber(arguments):
    """A program that prints what it has subscribed to; yields it as soon as it has."""
    with subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, bufsize=0) as process:
        try:
            assert process.stdout.readline() == b"subscribed\n"
            yield process.stdout
        finally:
            process.kill()


def published_lines(bin_folder, port, count, text):
    """Messages per second from a bare publisher to the lines of a bare subscriber."""
    url = f"nats://127.0.0.1:{port}"
    with subscriber([bin_folder / "bench_nats", "subscribe", url, "bare"]) as lines:
        start = time.perf_counter()
        with subprocess.Popen([bin_folder / "bench_nats", "publish", url, "bare", str(count), text]):
            left = count
            while left > 0:
                part = os.read(lines.fileno(), 1 << 16)
                assert part, "the subscriber has ended"
                left -= part.count(b"\n")
        return {"events_per_second": count / (time.perf_counter() - start)}


def add_linked_events(table, bin_folder, path, port):
    count = 100_000
    url, subject, mark = f"nats://127.0.0.1:{port}", "vextool.bench.event.>", '{"seq":'
    example = f'{mark}1,"time":"2026-03-01T14:05:09.250Z","topic":"{EVENT_TOPIC}","message":{{' + "x" * 200
    here = pathlib.Path(__file__).resolve().parent
    programs = {"a C subscriber": [bin_folder / "bench_nats", "subscribe", url, subject],
                "a Python subscriber": [sys.executable, here / "nats_subscriber.py", str(port), subject]}
    runs = {name: [] for name in [*programs, "bare", "direct"]}
    for _ in range(ROUNDS):
        for name, program in programs.items():
            with subscriber(program) as lines:
                runs[name].append(run_json([bin_folder / "bench_events", str(count), mark], stdin=lines))
        runs["bare"].append(published_lines(bin_folder, port, count, example))
        runs["direct"].append(monitor_lines(bin_folder, path, count))
    rates = {name: statistics.median(run["events_per_second"] for run in each) for name, each in runs.items()}
    for name in programs:
        ratio = f"{rates[name] / rates['bare']:.2f} x it" if name == "a C subscriber" else ""
        table.add(f"events over NATS to {name}", f"{rates[name]:.0f}", "events/s", "", ">= 50000")
        table.add("  lost", str(sum(run["lost"] for run in runs[name])), "", "", "0")
        if ratio:
            table.add("bare NATS publisher to it", f"{rates['bare']:.0f}", "messages/s", ratio)
            table.add("the same events to vexctl monitor", f"{rates['direct']:.0f}", "events/s",
                      f"{rates[name] / rates['direct']:.2f} x it")


def bench_link(table, bin_folder, folder):
    with contextlib.ExitStack() as stack:
        _, path, _ = stack.enter_context(controlled(bin_folder, folder))
        port = stack.enter_context(linked(bin_folder, path))
        add_linked_events(table, bin_folder, path, port)
        url = f"nats://127.0.0.1:{port}"
        answer = '{"status":"ok","code":0,"reason":"","output":"' + "x" * 60 + '","fields":{"git_version":"v0.0.1"},"us":25}'
        stack.enter_context(child([bin_folder / "bench_nats", "answer", url, "bare.run", answer]))
        once = [bin_folder / "bench_nats", "request", url, "bare.run", "core show version", "1"]
        wait_for(lambda: subprocess.run(once, capture_output=True, check=False).returncode == 0, "the bare answerer")
        figures = alternate({
            "line over NATS": lambda: run_json([bin_folder / "bench_nats", "request", url, "vextool.bench.run",
                                                "core show version", "3000"]),
            "the same on the control socket": lambda: run_json([
                bin_folder / "bench_line", str(path), VERSION_REQUEST, "}\n", "3000", '{"monitor":["off"]}', '"ok"}\n']),
            "bare NATS request and its answer": lambda: run_json([bin_folder / "bench_nats", "request", url, "bare.run",
                                                                  "core show version", "3000"]),
        })
    add_latencies(table, figures, "line over NATS", {})
    over, direct, bare = (figure["p50_us"] for figure in figures.values())
    table.add("  above the control socket", f"{over - direct:.1f}", "us p50", "", "<= 150")
    table.add("  above the control socket and bare NATS", f"{over - direct - bare:.1f}", "us p50")


BENCHES = {"call": bench_call, "console": bench_console, "start": bench_start, "load": bench_load,
           "events": bench_events, "delay": bench_delay, "interrupt": bench_interrupt, "crowd": bench_crowd,
           "service": bench_service, "vexctl": bench_vexctl,
           "control": bench_control, "rpc": bench_rpc, "monitor": bench_monitor, "fleet": bench_fleet, "metrics": bench_metrics,
           "link": bench_link}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=pathlib.Path, required=True)
    parser.add_argument("names", nargs="*", metavar="NAME", help=" ".join(BENCHES))
    options = parser.parse_args()
    unknown = [name for name in options.names if name not in BENCHES]
    if unknown:
        sys.exit(f"no benchmark '{unknown[0]}'; there are: {' '.join(BENCHES)}")
    # Fixed socket names are free there, and zebra can't touch this machine's routes.
    private_network.enter()
    table = Table()
    for name in options.names or BENCHES:
        print(f"measuring: {name}", file=sys.stderr)
        with tempfile.TemporaryDirectory() as folder:
            BENCHES[name](table, options.bin.resolve(), pathlib.Path(folder))
    table.show()


if __name__ == "__main__":
    main()
