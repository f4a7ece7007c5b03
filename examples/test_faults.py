"""A fault test: the player is killed, and comes back with its events.

    PLAYER_PID=$(pidof playd) PLAYER_START="systemctl start playd" /usr/bin/python3 -m pytest examples/test_faults.py

PLAYER_START is a command that starts the player again and goes on running or returns; CLIP the file to play.
"""

import os
import shlex
import signal
import subprocess
import time

import pytest

import vextool

CLIP = os.environ.get("CLIP", "build/demo/clip.mp4")


@pytest.fixture
def console():
    with vextool.Console() as opened:
        yield opened
        opened.run("playd DeleteUplayer fault")


@pytest.fixture
def player():
    """Kills the player and starts it again; ends what it has started."""
    class Player:
        started = None

        def kill(self):
            os.kill(int(os.environ["PLAYER_PID"]), signal.SIGKILL)

        def start(self):
            self.started = subprocess.Popen(shlex.split(os.environ["PLAYER_START"]))

    controlled = Player()
    yield controlled
    if controlled.started:
        controlled.started.terminate()
        controlled.started.wait(10)


def open_clip(console):
    console.run("playd", "CreateUplayer", "fault").check()
    console.run("playd", "OpenMediaOfUplayer", "fault", 1, 1, 1, 0, 0, 0, CLIP, 0, 0, 640, 360, 0).check()
    console.wait("layer/result_repor", "play_state=1", fail="play_state=5").check()


def until(condition, within=20):
    limit = time.monotonic() + within
    while not condition():
        assert time.monotonic() < limit, f"not within {within} s"
        time.sleep(0.05)


def test_a_killed_player_is_told_from_one_that_refuses_and_its_events_come_back(console, player):
    open_clip(console)
    player.kill()
    until(lambda: console.run("playd GetMediaInfoOfUplayer fault").status == "unreachable")
    with pytest.raises(vextool.CommandError, match="unreachable"):
        console.run("playd SetPauseOfUplayer fault 1").check()

    player.start()
    until(lambda: console.run("playd GetMediaInfoOfUplayer fault").status == "refused")  # it is back, and knows no such player
    events = console.monitor("layer/*", within=20)
    open_clip(console)
    console.run("playd SetSeekOfUplayer fault 5000").check()
    sought = console.wait("layer/get_seek_of_uplayer", "seek_ms>=5000")
    assert 5000 <= int(sought.check()["seek_ms"]) <= 5100
    assert next(event.message["seek_ms"] for event in events if event.topic == "layer/get_seek_of_uplayer") >= 5000
