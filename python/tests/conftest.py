"""Fixtures for the module's tests: the library comes from $PELLORIN_LIBRARY (read by the module
itself) and the receiver is `pellorin serve` from $PELLORIN_BINARY, started per test on
127.0.0.1 with an ephemeral port."""

import os
import re
import select
import signal
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))  # the package under test, not an installed one
# nginx and tinyproxy, started by the tests (tests/support/thirdparty.py).
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "tests", "support"))


class Receiver:
    def __init__(self, binary, directory):
        self.directory = directory
        self.process = subprocess.Popen([binary, "serve", "--dir", str(directory)],
                                        stdout=subprocess.PIPE, text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], 10)
        assert ready, "serve said nothing"
        first = self.process.stdout.readline()
        match = re.search(r"http://127\.0\.0\.1:\d+", first)
        assert match, first
        self.base = match.group(0)

    def url(self, name):
        return lambda number, offset, length: f"{self.base}/upload/{name}?offset={offset}"

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=10)


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
