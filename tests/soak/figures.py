"""What a tool has counted, held against the books of a scenario's own clients and daemons."""

import collections
import re

from harness import Operator

EVENTS = 'vextool_events_total{topic="layer/result_repor"}'
MESSAGES = {"SetQulity": "encoder.v1.SetVideoQualityRequest"}  # by command; a player's command has its own name


def message_of(command):
    return MESSAGES.get(command, f"lp.v1.{command}Req")


class Figures:
    """Of a tool that has ended: it writes its file a last time then."""

    def __init__(self, soak, tool):
        self.soak = soak
        text = tool.metrics_file.read_text(encoding="utf-8")
        self.values = {name: float(value) for name, value in re.findall(r"^([a-z_]+(?:\{.*\})?) (\S+)$", text, re.MULTILINE)}
        self.held = 0

    def of(self, name):
        return self.values.get(name, 0)

    def with_label(self, family, label):
        """The family's figures by the value of this label, those that are 0 left out."""
        found = collections.Counter()
        for name, value in self.values.items():
            if name.startswith(family + "{") and value:
                found[re.search(rf'[{{,]{label}="([^"]*)"', name).group(1)] += value
        return dict(found)

    def require(self, what, counted, known):
        """The tool's figure, or figures, and the same from the books."""
        self.held += 1
        self.soak.require(counted == known, f"{what}: the metrics count {counted}, and there were {known}")

    def hold_calls(self, replies):
        """Calls by message and outcome: a reply that was shown is a call that gRPC calls OK, any other one was told as a failure."""
        counted = collections.Counter()
        for name, value in self.values.items():
            if found := re.fullmatch(r'vextool_rpc_calls_total\{code="(\w+)",message="(\S+)"\}', name):
                counted[found.group(2), found.group(1) == "OK"] += value
        known = {(message_of(command), done): count for (command, done), count in replies.calls.items()}
        self.require("calls to daemons by message and whether they were answered", dict(counted), known)
        timed = {re.search('"(.*)"', name).group(1): value for name, value in self.values.items()
                 if name.startswith("vextool_rpc_call_duration_seconds_count{")}
        calls = collections.Counter()
        for (message, _), count in known.items():
            calls[message] += count
        self.require("calls to daemons that were timed", timed, dict(calls))

    def hold_events(self, events):
        """Events that came are those that were printed; those that did not are those that the log says were missed."""
        self.require("events", self.of(EVENTS), sum(len(numbers) for numbers in events.read().values()))
        lost = sum(self.with_label("vextool_rpc_events_lost_total", "reason").values())
        self.require("events that were lost", lost, events.said_to_be_missed())

    def hold_sessions(self, tcp, control=0):
        """Sessions that were opened: on TCP, of people and programs together, and on the control socket; there were no others."""
        opened = self.with_label("vextool_sessions_opened_total", "kind")
        on_tcp = opened.pop("telnet", 0) + opened.pop("program", 0)
        self.require("sessions on TCP and others", (on_tcp, opened), (tcp, {"control": control} if control else {}))

    def hold_lines(self, **known):
        """Lines that were run, by status; there were no others."""
        self.require("lines", self.with_label("vextool_commands_total", "status"),
                     {status: count for status, count in known.items() if count})

    def hold_operators_lines(self, operators, others=0):
        """For each of its commands an operator sends a line more, which marks the end, and a program one line as it connects."""
        least = sum(2 * operator.asked + (not operator.telnet) for operator in operators) + others
        counted = sum(self.with_label("vextool_commands_total", "status").values())
        self.require("lines", counted - min(max(counted - least, 0), Operator.unsure), least)

    def report(self):
        self.soak.number("figures of the metrics that were held against the books", self.held)
