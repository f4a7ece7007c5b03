"""Another user of the machine connects to the console, again and again."""

import asyncio
import json
import os
import subprocess

from figures import Figures
from harness import SYSTEM_PYTHON, NumberedDaemon, Operator, Program, Replies, Tool, end_in_order, milliseconds, \
    percentile

TITLE = "connections of another user"
MINUTES = 0.5

CONNECTIONS = 20_000
NOBODY = 65534
LOG_BOUND_BYTES = 64 << 10  # for all of them: a stranger must not turn the log over

# Connects COUNT times, every other time without waiting for the answer; prints the answers and how often each came.
STRANGER = """
import collections, json, socket, sys
port, count = int(sys.argv[1]), int(sys.argv[2])
answers = collections.Counter()
for number in range(count):
    with socket.create_connection(("127.0.0.1", port), 20) as connection:
        connection.sendall(b"encd SetQulity high\\nshutdown\\n")
        if number % 2:
            continue
        answer = b""
        try:
            while part := connection.recv(4096):
                answer += part
        except ConnectionResetError:
            pass
        answers[answer.decode(errors="replace")] += 1
print(json.dumps(answers))
"""


async def run(soak):
    if os.geteuid() != 0:
        return soak.skip("only root can become another user")
    daemon = await NumberedDaemon(soak, "encd").listening()
    tool = Tool(soak)
    port = await tool.port()
    replies = Replies(soak)
    operator = await Operator(port, limit_s=soak.limit_s).open()
    logged = len(tool.log())
    stranger = Program(soak, "stranger", [SYSTEM_PYTHON, "-B", "-c", STRANGER, port, soak.count(CONNECTIONS, 600)],
                       user=NOBODY, group=NOBODY, extra_groups=[], stdin=subprocess.DEVNULL)
    latencies = []
    while stranger.running():
        soak.require(await replies.encoder(operator), "a command failed while a stranger connected")
        latencies.append(operator.latency)
        await asyncio.sleep(0.02)
    soak.uptime_check(tool)
    soak.require(stranger.process.returncode == 0, f"the stranger ended with {stranger.errors()[-500:]}")
    judge(soak, tool, stranger, len(tool.log()) - logged)
    replies.balance([daemon])  # a reply that nobody asked for would be the stranger's
    soak.number("an operator's commands meanwhile, p50 / max",
                f"{milliseconds(percentile(latencies, 0.5))} / {milliseconds(percentile(latencies, 1.0))}")
    await end_in_order(soak, tool)
    figures = Figures(soak, tool)
    figures.hold_calls(replies)
    figures.hold_sessions(Operator.opened)
    figures.hold_operators_lines([operator])
    figures.report()


def judge(soak, tool, stranger, log_bytes):
    answers = json.loads(stranger.output() or "{}")
    for answer in answers:
        soak.require(answer.startswith("Refused: user 65534 may not use this console") and "result=" not in answer,
                     f"the stranger was told {answer!r}")
    soak.require("user" in tool.log(), "the log has no record of the stranger")
    soak.require(log_bytes <= LOG_BOUND_BYTES, f"the stranger's connections left {log_bytes} bytes in the log")
    soak.number("connections refused / bytes of log", f"{2 * sum(answers.values())} / {log_bytes}")
    soak.number("the answer", "; ".join(answer.strip() for answer in answers))
