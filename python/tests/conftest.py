"""Fixtures for the module's tests: the library comes from $PELLORIN_LIBRARY (read by the module
itself) and the receiver is `pellorin serve` from $PELLORIN_BINARY, started per test on
127.0.0.1 with an ephemeral port."""

import os
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))  # the package under test, not an installed one
# nginx and tinyproxy, started by the tests (tests/support/thirdparty.py).
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "tests", "support"))
# The receiver run in the background, shared with the host's tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "tests", "tools"))

import served  # noqa: E402


class Receiver(served.Server):
    """`pellorin serve` assembling uploads in `directory`, with part URLs made for the module."""

    def __init__(self, binary, directory):
        super().__init__(binary, str(directory))
        self.directory = directory

    def url(self, name):
        return lambda number, offset, length: f"{self.base}/upload/{name}?offset={offset}"


@pytest.fixture
def receiver(tmp_path):
    binary = os.environ.get("PELLORIN_BINARY")
    if not binary:
        pytest.skip("PELLORIN_BINARY (the pellorin command) is not set")
    received = tmp_path / "received"
    received.mkdir()
    server = Receiver(binary, received)
    yield server
    server.stop()


def run_script(source, *args, timeout=20):
    """Runs `source` in a fresh interpreter that imports the package under test."""
    environment = {**os.environ, "PYTHONPATH": os.path.dirname(HERE)}
    return subprocess.Popen([sys.executable, "-c", source, *map(str, args)], env=environment,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
