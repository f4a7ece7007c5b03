"""The documents' tests run in a network of their own: the demo's ports and addresses are free in it."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "platform" / "testing" / "network"))

import private_network  # noqa: E402

NETWORK = private_network.enter_or_lock()

from reader import Reader  # noqa: E402


@pytest.fixture
def reader(tmp_path):
    following = Reader(tmp_path)
    yield following
    following.leave()


def pytest_terminal_summary(terminalreporter):
    for block in Reader.left_out:
        terminalreporter.write_line(f"skipped: {block}")
