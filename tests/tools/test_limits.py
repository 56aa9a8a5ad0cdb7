#!/usr/bin/env python3
"""Running out of threads: `pellorin upload` and `pellorin serve` run as an unprivileged user
under a small process limit (RLIMIT_NPROC does not bind root). The upload ends with failed parts
and status 1, the receiver refuses what it cannot serve and keeps serving; nothing aborts.
Standard library only; every wait is bounded."""

import argparse
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

from served import Server, make_file, reservation

BINARY = None
LIMIT = 60
NOBODY = 65534
PART = 64 * 1024
PARTS = 64


def limited(nproc, *args):
    """The command run as the unprivileged user with at most `nproc` processes and threads."""
    return ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
            "--inh-caps=-all", "prlimit", f"--nproc={nproc}", BINARY, *args]


def readable_reservation(directory, source, base):
    path = os.path.join(directory, "r.json")
    reservation(path, source, PART * PARTS, PART, lambda o: f"{base}/upload/copy.bin?offset={o}")
    os.chmod(path, 0o644)
    return path


def shared_directory():
    directory = tempfile.mkdtemp()
    os.chmod(directory, 0o777)
    source = make_file(os.path.join(directory, "source.bin"), PART * PARTS)
    os.chmod(source, 0o644)
    return directory, source


def upload(command):
    return subprocess.run(command, capture_output=True, text=True, timeout=LIMIT)


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv") and shutil.which("prlimit"),
                     "needs root, setpriv and prlimit to run a process limit that binds")
class OutOfThreads(unittest.TestCase):
    def setUp(self):
        self.directory, self.source = shared_directory()

    def tearDown(self):
        shutil.rmtree(self.directory, ignore_errors=True)

    def test_upload_fails_its_parts_with_status_1(self):
        received = os.path.join(self.directory, "received")
        os.mkdir(received)
        server = Server(BINARY, received)
        try:
            result = upload(limited(6, "upload", "-r",
                                    readable_reservation(self.directory, self.source, server.base),
                                    "-c", "8", "--max-retries", "1", "--retry-rounds", "0"))
        finally:
            self.assertEqual(server.stop(), 0)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertRegex(result.stderr, r"thread could be created|Resource temporarily")

    def test_receiver_refuses_what_it_cannot_serve_and_keeps_serving(self):
        received = os.path.join(self.directory, "received")
        os.mkdir(received)
        os.chmod(received, 0o777)
        process = subprocess.Popen(limited(6, "serve", "--dir", received),
                                   stdout=subprocess.PIPE, text=True)
        try:
            ready, _, _ = select.select([process.stdout], [], [], 10)
            self.assertTrue(ready, "serve said nothing")
            base = re.search(r"http://127\.0\.0\.1:\d+", process.stdout.readline()).group(0)
            path = readable_reservation(self.directory, self.source, base)
            for connections, rounds in (("16", "0"), ("1", "2")):
                result = upload([BINARY, "upload", "-r", path, "-c", connections,
                                 "--max-retries", "0", "--retry-rounds", rounds])
                self.assertIn(result.returncode, (0, 1), result.stderr)
            # One connection at a time needs one thread: everything arrives, given a round for
            # connection threads of the burst that are still on their way out.
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIsNone(process.poll())
        finally:
            process.send_signal(signal.SIGINT)
            process.communicate(timeout=10)
        self.assertEqual(process.returncode, 0)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", required=True)
    args, rest = parser.parse_known_args()
    BINARY = os.path.abspath(args.binary)
    unittest.main(argv=[sys.argv[0], *rest])
