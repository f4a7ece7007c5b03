"""Shared by the tests of many devices."""

import pathlib
import sys

import pytest

sys.path[:0] = [str(folder) for folder in pathlib.Path(__file__).resolve().parents[:2]]

from devices import Ground  # noqa: E402


@pytest.fixture(scope="session")
def ground():
    made = Ground()
    yield made
    made.remove()


@pytest.fixture(scope="session")
def device(ground):
    """With a tool and a player."""
    made = ground.device("tv1", 1)
    made.wait()
    made.start("playd", "--headless")
    made.start("vextool")
    return made
