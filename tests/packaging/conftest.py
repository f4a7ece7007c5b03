"""The packages under test, made of the build, and private roots to put them into."""

import os
import pathlib
import re
import sys

import pytest

sys.path[:0] = [str(folder) for folder in pathlib.Path(__file__).resolve().parents[:2]]

from private_root import PrivateRoot, run  # noqa: E402

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["VEX_BUILD"])
NEWER = "99.0"


def make(folder, *words):
    made = run(SOURCE / "packaging/make.sh", *words, f"--output", folder, BUILD).split()
    return {re.match(r"[a-z0-9-]+", pathlib.Path(file).name)[0]: pathlib.Path(file) for file in made}


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    """By name; those of the build's own version."""
    return make(tmp_path_factory.mktemp("packages"))


@pytest.fixture(scope="session")
def newer_packages(tmp_path_factory):
    return make(tmp_path_factory.mktemp("newer"), "--version", NEWER)


@pytest.fixture
def root(tmp_path):
    made = PrivateRoot(tmp_path)
    yield made
    made.stop()
