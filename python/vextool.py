"""The console of vextool from Python, over its control socket: for test frameworks and scripts.

    with vextool.Console() as console:
        console.run("playd OpenMediaOfUplayer 0 1 1 1 0 0 0 clip.mp4 0 0 1280 720 0").check()
        console.wait("layer/*", "play_state=1", within=5).check()

docs/control.md describes the socket. Needs nothing but Python's standard library (3.9 or later).
"""

import collections
import json
import os
import socket
import time

__all__ = ["CommandError", "Console", "Event", "Missed", "Result", "ToolError"]

PROTOCOL = 1
CONNECT_S = 5.0  # a tool that is well needs a thousandth of it
GRACE_S = 2.0  # the tool keeps time limits itself; one that is stopped can't


class ToolError(Exception):
    """The tool can't be reached, or has gone; what was under way may have been done."""


class CommandError(AssertionError):
    """A line did not end well. A failed assertion to test frameworks."""

    def __init__(self, result):
        self.result = result
        code = f" (code {result.code})" if result.code else ""
        super().__init__(f"{result.line}: {result.status}: {result.reason}{code}")


class Result:
    """How a line ended: status, code, reason, output, fields (a dict of texts), seconds, truncated."""

    def __init__(self, line, reply):
        self.line = line
        self.status = reply["status"]
        self.code = reply.get("code", 0)
        self.reason = reply.get("reason", "")
        self.output = reply.get("output", "")
        self.fields = reply.get("fields", {})
        self.seconds = reply.get("us", 0) / 1e6
        self.truncated = reply.get("truncated", False)

    @property
    def ok(self):
        return self.status == "ok"

    def check(self):
        """Returns itself; raises CommandError unless the line ended well."""
        if not self.ok:
            raise CommandError(self)
        return self

    def __getitem__(self, field):
        """The text of a field."""
        try:
            return self.fields[field]
        except KeyError:
            raise KeyError(f"{self.line}: no field {field!r}; it has {', '.join(self.fields) or 'none'}") from None

    def __repr__(self):
        return f"<Result {self.line!r}: {self.status}{': ' + self.reason if self.reason else ''}>"


Event = collections.namedtuple("Event", "seq time topic message text")
Event.__doc__ = "An event that was watched; `message` is what was published, as Python has JSON."
Missed = collections.namedtuple("Missed", "count")
Missed.__doc__ = "In the place of events that were lost, because they were not read fast enough."


def quote(word):
    """`word` written so that it is one word of a line."""
    word = str(word)
    if word and not any(c in ' \t"\\' for c in word):
        return word
    return '"' + word.replace("\\", "\\\\").replace('"', '\\"') + '"'


def socket_path():
    """Where the tool's socket is, as the tool chooses it."""
    named = os.environ.get("KLBASE_CONSOLE_SOCKET", "")
    if named == "none":
        raise ToolError('KLBASE_CONSOLE_SOCKET is "none"; name the tool\'s socket there')
    if named:
        return named
    service = "/run/vextool/console.sock"
    runtime = os.environ.get("XDG_RUNTIME_DIR", "")
    own = f"{runtime}/vextool/console.sock"
    return own if runtime and not os.path.exists(service) and os.path.exists(own) else service


class _Lines:
    """A connection to the socket, line by line."""

    def __init__(self, path):
        self.path = path or socket_path()
        self._received = bytearray()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            self._socket.settimeout(CONNECT_S)
            self._socket.connect(self.path)
            self.greeting = self.receive(CONNECT_S)
        except TimeoutError as error:
            self.close()
            raise ToolError(f"{error}; look whether it is well") from None
        except OSError as error:
            self.close()
            raise ToolError(f"no tool at {self.path}: {error.strerror or error}; start vextool, or name its socket") from None
        except ToolError:
            self.close()
            raise
        if self.greeting.get("protocol") != PROTOCOL:
            self.close()
            reason = self.greeting.get("reason") or f"it speaks protocol {self.greeting.get('protocol')}, this is {PROTOCOL}"
            raise ToolError(f"no session at {self.path}: {reason}")

    def send(self, request):
        self._socket.settimeout(None)
        try:
            self._socket.sendall(json.dumps(request).encode() + b"\n")
        except OSError as error:
            raise ToolError(f"the tool at {self.path} has gone: {error.strerror or error}") from None

    def receive(self, within=None):
        """The next line as an object; TimeoutError when none comes."""
        limit = None if within is None else time.monotonic() + within
        searched = 0
        while True:
            end = self._received.find(b"\n", searched)
            if end >= 0:
                line = bytes(self._received[:end])
                del self._received[:end + 1]
                return json.loads(line)
            searched = len(self._received)
            left = None if limit is None else limit - time.monotonic()
            if left is not None and left <= 0:
                raise TimeoutError(f"the tool at {self.path} does not answer")
            self._socket.settimeout(left)
            try:
                data = self._socket.recv(65536)
            except socket.timeout:
                continue
            except ConnectionError:
                data = b""
            if not data:
                raise ToolError(f"the tool at {self.path} has gone")
            self._received += data

    def close(self):
        self._socket.close()


class Console:
    """A session of the console. Menus that are entered stay; not for several threads at once."""

    def __init__(self, path=None):
        """Connects to the socket `path`, or to the tool's own; raises ToolError when there is no tool."""
        self._path = path
        self._lines = _Lines(path)
        self._last_id = 0
        self.version = self._lines.greeting["vextool"]
        self.session = self._lines.greeting["session"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the session; a line under way on it is given up."""
        self._lines.close()

    def run(self, *line, within=None):
        """Runs a line and returns its Result. One word is the whole line; several are its words, quoted as needed.

        `within`: gives the line up after so many seconds; its status is "timeout" then. Raises ToolError when the tool goes.
        """
        text = str(line[0]) if len(line) == 1 else " ".join(quote(word) for word in line)
        request = {"run": text}
        if within is not None:
            request["within_ms"] = max(1, round(within * 1000))
        return Result(text, self._ask(request, within))

    def wait(self, topic, *conditions, fail=(), within=10):
        """Waits for an event of `topic` that meets all conditions, such as "seek_ms>=5000"; looks back to when the last line
        began. `fail`: conditions of an event that ends the wait as "refused". Returns a Result with the event's fields."""
        words = ["wait", quote(topic), *map(quote, conditions)]
        for condition in [fail] if isinstance(fail, str) else fail:
            words += ["fail", quote(condition)]
        return self.run(" ".join([*words, "within", format(within, "g")]))

    def expect(self, *conditions):
        """Compares fields of the last line, such as "info_seek_ms=5000"; returns a Result, "refused" when one differs."""
        return self.run(" ".join(["expect", *map(quote, conditions)]))

    def complete(self, line):
        """The words that may follow the beginning of a line; raises CommandError where the line is none."""
        reply = self._ask({"complete": line})
        if reply["status"] != "ok":
            raise CommandError(Result("complete " + line, reply))
        return reply["candidates"]

    def monitor(self, *words, within=None):
        """Yields events (Event, or Missed) of the given topics and conditions, of all without one, over a connection of its own
        that is open when this returns: events from now on are seen. Ends after `within` seconds; raises ToolError when the tool
        goes or does not answer. Close the generator to end it before."""
        lines = _Lines(self._path)
        try:
            lines.send({"id": 1, "monitor": list(words)})
            reply = lines.receive(CONNECT_S)
            if reply["status"] != "ok":
                raise CommandError(Result("monitor " + " ".join(words), reply))
        except TimeoutError as error:
            lines.close()
            raise ToolError(str(error)) from None
        except BaseException:
            lines.close()
            raise
        return self._events(lines, None if within is None else time.monotonic() + within)

    @staticmethod
    def _events(lines, limit):
        try:
            while True:
                left = None if limit is None else max(0.0, limit - time.monotonic())
                try:
                    line = lines.receive(left)
                except TimeoutError:
                    return
                if "missed" in line:
                    yield Missed(line["missed"])
                elif "event" in line:
                    yield Event(**line["event"])
        finally:
            lines.close()

    def _ask(self, request, within=None):
        self._last_id += 1
        self._lines.send(dict(request, id=self._last_id))
        limit = None if within is None else time.monotonic() + within + GRACE_S
        while True:
            try:
                reply = self._lines.receive(None if limit is None else limit - time.monotonic())
            except TimeoutError as error:
                self.close()  # a late answer must not be taken for that of the next line
                raise ToolError(str(error)) from None
            # What the tool has not read, because it is too long, is answered without an id.
            if reply.get("id", self._last_id) == self._last_id and "status" in reply:
                return reply
