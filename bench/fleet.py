"""fleet.py BIN ROUNDS: what lines cost by ssh, on one device and on 57 of which seven are dead or hung; prints a JSON object.
Moves into namespaces of its own, as the tests of fleet/ do, which needs root."""

import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

TESTS = pathlib.Path(__file__).resolve().parents[1] / "tests"
sys.path[:0] = [str(TESTS), str(TESTS / "fleet")]

import alone  # noqa: E402

LIMIT_S = 300
SINGLE = 10  # lines a round to one device
LINE = "core show version"


def seconds(*words, **options):
    start = time.perf_counter()
    subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=LIMIT_S,
                   check=False, **options)
    return time.perf_counter() - start


def measure(rounds):
    from devices import Ground, clush_environment, many
    ground = Ground()
    many(ground)
    # As many at once, and as long for the dead, as the configuration of clush has it. xargs would end at a status of 255.
    ssh = "ssh -oBatchMode=yes -oConnectTimeout=5"
    measures = {
        "clush_s": lambda: seconds("clush", "-a", "-b", LINE, env=clush_environment()),
        "xargs_s": lambda: seconds("sh", "-c", f"seq -f tv%02g 57 | xargs -P 32 -I @ sh -c '{ssh} @ {LINE} || :'"),
        "line_s": lambda: statistics.median(seconds("ssh", "tv01", LINE) for _ in range(SINGLE)),
        "true_s": lambda: statistics.median(seconds("ssh", "bob@tv01", "true") for _ in range(SINGLE)),
    }
    runs = [{name: each() for name, each in measures.items()} for _ in range(rounds)]
    ground.remove()
    return {name: statistics.median(run[name] for run in runs) for name in measures}


def main(programs, rounds):
    if "VEX_BIN" in os.environ:
        print(json.dumps(measure(int(rounds))))
        return
    os.environ["VEX_BIN"] = programs
    command = [*alone.SPACES, *alone.FIRST, sys.executable, "-B", __file__, programs, rounds]
    os.execvp(command[0], command)


if __name__ == "__main__":
    main(*sys.argv[1:])
