#!/usr/bin/env python3
"""A fleet on one machine: tools in networks of their own, one NATS server, and one prompt for them all.

    demo.py COUNT BIN FOLDER      BIN: the built programs; FOLDER: for logs and a clip. `./vex demo --fleet COUNT` calls it.

Each node has a player, a tool and a link, and reaches the server by a cable of its own; nothing of it can be seen from
outside. All of it ends with this program.
"""

import contextlib
import json
import os
import pathlib
import readline  # input() edits lines with it
import signal
import subprocess
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "nats"))

import nats_client  # noqa: E402

MOST = 50
START_LIMIT_S = 30
STOP_LIMIT_S = 5
PORT = 4222
ANSWER_LIMIT_S = 10
PROMPT = "all> "
INSIDE = "VEX_FLEET_INSIDE"
# A process id space ends with its first process, which is killed when its parent ends.
SPACES = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
HELP = """\
LINE                 all nodes run it
@node2 LINE          one node runs it
exit, Ctrl-D         ends all
Try: playd CreateUplayer 1
     playd OpenMediaOfUplayer 1 1 1 1 0 0 0 build/demo/clip.mp4 0 0 640 360 0
"""


def fail(text):
    sys.exit(f"vex demo: {text}")


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        fail(f"{' '.join(command)}: {done.stderr.strip()}")


def run_in_spaces():
    """Runs this program again where it may make networks; an ordinary user needs a user namespace for that."""
    for more in ([], ["--user", "--map-root-user"]):
        if subprocess.run(["unshare", *more, *SPACES, "true"], capture_output=True, check=False).returncode != 0:
            continue
        inside = subprocess.Popen(["unshare", *more, *SPACES, sys.executable, "-B", *sys.argv],
                                  env={**os.environ, INSIDE: "1"})
        # unshare itself heeds only this signal; what it has started ends with it.
        for number in (signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda *_: inside.kill())
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # the prompt's
        sys.exit(inside.wait())
    fail("this machine lets you make no network of your own; run it as root")


class Programs:
    """The processes, which end together."""

    def __init__(self, folder):
        self.folder = folder
        self.running = {}

    def start(self, name, command, **environment):
        log = open(self.folder / f"{name}.log", "wb")
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                                   start_new_session=True, env={**os.environ, **environment})
        log.close()
        self.running[name] = process

    def said(self, name):
        return (self.folder / f"{name}.log").read_text(errors="replace").strip()

    def look_after(self):
        """Ends this program when one of them has."""
        for name, process in self.running.items():
            if process.poll() is not None:
                fail(f"{name} ended with status {process.returncode}: {self.said(name)[-500:]}")

    def stop(self):
        for process in self.running.values():
            process.terminate()
        until = time.monotonic() + STOP_LIMIT_S
        for process in self.running.values():
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(max(0.1, until - time.monotonic()))
                continue
            process.kill()
            process.wait()


def lay_cables(names):
    """A network for each node, with one cable to this one. Returns the server's address for each."""
    run("mount", "-t", "tmpfs", "none", "/run")
    run("ip", "link", "set", "lo", "up")
    addresses = {}
    for at, name in enumerate(names, 1):
        run("ip", "netns", "add", name)
        run("ip", "link", "add", f"to-{name}", "type", "veth", "peer", "name", "eth0", "netns", name)
        run("ip", "address", "add", f"10.77.{at}.1/30", "dev", f"to-{name}")
        run("ip", "link", "set", f"to-{name}", "up")
        run("ip", "-n", name, "address", "add", f"10.77.{at}.2/30", "dev", "eth0")
        for device in ("lo", "eth0"):
            run("ip", "-n", name, "link", "set", device, "up")
        addresses[name] = f"10.77.{at}.1"
    return addresses


class Fleet:
    """The nodes, and the prompt's connection to them."""

    def __init__(self, names, programs, folder):
        self.names, self.programs, self.folder = names, programs, folder
        self.client = None

    def start(self, binaries):
        addresses = lay_cables(self.names)
        self.programs.start("nats-server", ["nats-server", "--addr", "0.0.0.0", "--log", str(self.folder / "nats-server.log")])
        self.client = self.await_server()
        for name in self.names:
            self.start_node(name, addresses[name], binaries)
        self.await_nodes()

    def await_server(self):
        until = time.monotonic() + START_LIMIT_S
        while True:
            self.programs.look_after()
            try:
                return nats_client.Client(PORT, limit_s=ANSWER_LIMIT_S)
            except ConnectionRefusedError:
                if time.monotonic() > until:
                    fail(f"nats-server does not listen; see {self.folder}")
                time.sleep(0.05)

    def await_nodes(self):
        until = time.monotonic() + START_LIMIT_S
        while any("listens on" not in self.programs.said(f"{name}-playd") for name in self.names):
            self.programs.look_after()
            if time.monotonic() > until:
                fail(f"a player did not start; see {self.folder}")
            time.sleep(0.05)
        while silent := set(self.names) - {reply["node"] for reply in self.ask("core show version", self.names, 0.5)
                                           if reply["status"] == "ok"}:
            if time.monotonic() > until:
                fail(f"{', '.join(sorted(silent))} did not come up; see {self.folder}")
            self.programs.look_after()
            time.sleep(0.05)

    def start_node(self, name, address, binaries):
        inside = ["ip", "netns", "exec", name]
        # Relative, because it must be short, wherever the tree is.
        socket = os.path.relpath(self.folder / f"{name}.sock")
        self.programs.start(f"{name}-playd", [*inside, binaries / "playd", "--headless"],
                            KLBASE_LOG_FILE=str(self.folder / f"{name}-playd.log.txt"))
        self.programs.start(f"{name}-vextool", [*inside, binaries / "vextool"], KLBASE_CONSOLE_SOCKET=socket,
                            KLBASE_LOG_FILE=str(self.folder / f"{name}-vextool.log.txt"))
        self.programs.start(f"{name}-vexlink", [*inside, binaries / "vexlink", "--node", name, "--socket", socket,
                                                "--server", f"nats://{address}:{PORT}"])

    def ask(self, line, nodes, limit_s=ANSWER_LIMIT_S):
        """The replies of the nodes, as they came."""
        inbox = self.client.inbox()
        subject = "vextool.all.run" if len(nodes) > 1 else f"vextool.{nodes[0]}.run"
        self.client.publish(subject, json.dumps({"run": line, "within_ms": 5000}), inbox)
        replies, until = [], time.monotonic() + limit_s
        while len(replies) < len(nodes) and (message := self.client.next(max(0, until - time.monotonic()))):
            if "503" in message.headers:  # the server's: nobody listens yet
                break
            if message.subject == inbox:
                replies.append({"node": nodes[0], **json.loads(message.payload)})
        return replies


def show_replies(replies, nodes):
    """Nodes that answer the same share one line."""
    groups = {}
    for reply in replies:
        groups.setdefault((reply["status"], reply["reason"], reply.get("output", "")), []).append(reply["node"])
    silent = sorted(set(nodes) - {reply["node"] for reply in replies})
    if silent:
        groups[("timeout", f"no answer within {ANSWER_LIMIT_S} s", "")] = silent
    for (status, reason, output), names in groups.items():
        print(f"--- {', '.join(sorted(names))}: {status}{': ' + reason if reason else ''}\n{output}", end="", flush=True)


typing = threading.Event()  # somebody is at the prompt


def show(text):
    """Above the line that is being typed."""
    if typing.is_set():
        print(f"\r\x1b[K{text}\n{PROMPT}{readline.get_line_buffer()}", end="", flush=True)
    else:
        print(f"{text}\n", end="", flush=True)


def watch_events(client, stop):
    """Shows each event above the prompt. When `stop` is set, those that are still on their way."""
    end = float("inf")
    with contextlib.suppress(ConnectionError):  # the prompt says so
        while time.monotonic() < end:
            message = client.next(1)
            if stop.is_set():
                end = min(end, time.monotonic() + 3 if message else 0)
            if message:
                node = message.subject.split(".")[1]
                event = json.loads(message.payload)
                show(f"[{node}] {event['topic']} {json.dumps(event['message'])}")


def lines():
    """What is typed, or comes through a pipe."""
    at_terminal = sys.stdin.isatty()
    while True:
        if at_terminal:
            typing.set()
        try:
            line = input(PROMPT if at_terminal else "").strip()
        except (EOFError, KeyboardInterrupt):
            return
        finally:
            typing.clear()
        if line in ("exit", "quit"):
            return
        if line:
            yield line


def converse(fleet):
    print(f"{len(fleet.names)} tools run, node1 to node{len(fleet.names)}. What you type, they all run; help tells more.")
    for line in lines():
        if line == "help":
            print(HELP, end="")
            continue
        nodes = fleet.names
        if line.startswith("@"):
            name, _, line = line[1:].partition(" ")
            nodes = [node for node in fleet.names if node == name]
            if not nodes:
                print(f"there is no node {name}; there are {', '.join(fleet.names)}")
                continue
        show_replies(fleet.ask(line, nodes), nodes)


def main():
    count, binaries, folder = sys.argv[1], pathlib.Path(sys.argv[2]).resolve(), pathlib.Path(sys.argv[3])
    if not count.isdecimal() or not 1 <= int(count) <= MOST:
        fail(f"--fleet takes a number of nodes, from 1 to {MOST}; not {count}")
    if INSIDE not in os.environ:
        run_in_spaces()
    folder.mkdir(parents=True, exist_ok=True)
    os.environ["PATH"] += ":/usr/sbin:/sbin"  # where nats-server and ip are; ordinary users have them not in their path
    programs, stop = Programs(folder.resolve()), threading.Event()
    fleet = Fleet([f"node{at}" for at in range(1, int(count) + 1)], programs, folder.resolve())
    try:
        fleet.start(binaries)
        client = nats_client.Client(PORT, limit_s=ANSWER_LIMIT_S)
        client.subscribe("vextool.*.event.>")
        events = threading.Thread(target=watch_events, args=[client, stop])
        events.start()
        try:
            converse(fleet)
        except ConnectionError:
            programs.look_after()
            raise
        finally:
            stop.set()
            events.join()
    finally:
        programs.stop()


if __name__ == "__main__":
    main()
