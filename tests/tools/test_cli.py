#!/usr/bin/env python3
"""End-to-end tests of the `pellorin` command: help, one-line errors for bad input, the embedded
receiver, serve + upload --reservation with a journal resumed after SIGINT, and the progress line
in a pseudo-terminal. Standard library only; every wait is bounded."""

import argparse
import json
import os
import pty
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from served import Server, make_file, sha256

BINARY = None
LIMIT = 30  # seconds any one command may take


def run(*args, cwd=None):
    environment = {k: v for k, v in os.environ.items() if k != "PELLORIN_PASSWORD"}
    return subprocess.run([BINARY, *args], capture_output=True, text=True, timeout=LIMIT, cwd=cwd,
                          env=environment)


def lines_in(path):
    if not os.path.exists(path):
        return 0
    with open(path) as f:
        return f.read().count("\n")


def reservation(path, file_path, size, part_size, url_for):
    pairs = []
    for number, offset in enumerate(range(0, size, part_size), start=1):
        pairs.append({"filePath": file_path, "operation": {
            "method": "PUT", "uri": url_for(offset), "partNumber": number, "offset": offset,
            "length": min(part_size, size - offset), "expires": "2099-01-01T00:00:00Z"}})
    with open(path, "w") as f:
        json.dump(pairs, f, indent=2)
    return pairs


class HelpAndBadInput(unittest.TestCase):
    def test_help_says_what_to_do(self):
        expected = {(): ["upload", "serve", "reserve", "--log-level"],
                    ("upload",): ["--reservation", "--journal", "--max-connections", "--rate-limit",
                                  "--events", "--part-size", "--demo-size"],
                    ("serve",): ["--port", "--dir", "--checksum"],
                    ("reserve",): ["--endpoint", "--password-file", "--qeld"]}
        for command, words in expected.items():
            result = run(*command, "--help")
            self.assertEqual(result.returncode, 0, command)
            for word in words:
                self.assertIn(word, result.stdout, command)

    def test_each_bad_input_gets_one_line_and_status_2(self):
        with tempfile.TemporaryDirectory() as d:
            data = make_file(os.path.join(d, "a.bin"), 1000)
            url = "http://127.0.0.1:9/upload/a.bin"

            def write(name, text):
                path = os.path.join(d, name)
                with open(path, "w") as f:
                    f.write(text)
                return path

            good = {"method": "PUT", "uri": url, "partNumber": 1, "offset": 0, "length": 10,
                    "expires": "x"}

            def pairs(name, **changes):
                return write(name, json.dumps([{"filePath": data, "operation": good},
                                               {"filePath": data,
                                                "operation": {**good, "partNumber": 2,
                                                              **changes}}]))

            cases = [
                (["upload", os.path.join(d, "missing.bin")], "cannot read"),
                (["upload", "-r", os.path.join(d, "missing.json")],
                 "cannot read reservation file"),
                # One of each kind of reservation fault; the reader's own test has them all.
                (["upload", "-r", write("trunc.json", "[{\"filePath\"")], "invalid JSON at byte"),
                (["upload", "-r", pairs("past.json", offset=995)],
                 "[1].operation: bytes 995 to 1005 lie past the end"),
                (["upload", "--max-connections", "0", data], "--max-connections"),
                (["upload", "--part-size", "lots", data], "not a size"),
                (["upload", "--rate-limit", "0", data], "--rate-limit"),
                (["upload", data, "-r", pairs("both.json")], "excludes"),
                (["upload", "--journal", write("journal", "garbage\n"), data],
                 "1: not a journal entry"),
                (["upload", "--events", os.path.join(d, "no", "events"), data],
                 "cannot write events"),
                (["serve", "--dir", os.path.join(d, "missing")], "not a directory"),
                (["reserve", data, "--user", "me"], "no password: set PELLORIN_PASSWORD"),
                (["reserve", data, "--user", "me", "--password-file", write("empty", "")],
                 "password file"),
                (["reserve", os.path.join(d, "gone"), "--user", "me", "--password-file",
                  write("pw", "secret\n")], "cannot read"),
                (["reserve", data, "--user", "me", "--password-file", write("pw2", "s\n"),
                  "--endpoint", "ftp://h/"], "--endpoint: not an http or https URL"),
                (["reserve", data, "--user", "me", "--password", "s"], "--password"),
                (["serve", "--checksum", "sha1"], "--checksum"),
                (["frobnicate"], "frobnicate"),
                ([], "subcommand"),
            ]
            for args, expected in cases:
                result = run(*args)
                self.assertEqual(result.returncode, 2, (args, result.stderr))
                lines = result.stderr.splitlines()
                self.assertEqual(len(lines), 1, (args, result.stderr))
                self.assertTrue(lines[0].startswith("pellorin: "), lines)
                self.assertIn(expected, lines[0], args)
                self.assertEqual(result.stdout, "", args)


class Uploads(unittest.TestCase):
    def test_embedded_receiver_checks_the_copy_and_events_are_json(self):
        with tempfile.TemporaryDirectory() as d:
            source = make_file(os.path.join(d, "my file.bin"), 2 * 1024 * 1024 + 5)
            received = os.path.join(d, "received")
            os.mkdir(received)
            events = os.path.join(d, "events.log")
            result = run("upload", source, "--part-size", "256KiB", "--dir", received,
                         "--events", events)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("Checksums agree: SHA-256 " + sha256(source), result.stdout)
            self.assertEqual(sha256(os.path.join(received, "my file.bin")), sha256(source))
            kinds = {}
            with open(events) as f:
                for line in f:
                    match = re.search(r" : ([a-z-]+): (\{.*\})$", line)
                    self.assertTrue(match, line)
                    kinds.setdefault(match.group(1), []).append(json.loads(match.group(2)))
            self.assertEqual(len(kinds["part-started"]), 9)
            self.assertEqual(sorted(e["partNumber"] for e in kinds["part-complete"]),
                             list(range(1, 10)))
            self.assertEqual(kinds["transfer-metrics"][0]["partsSent"], 9)
            self.assertEqual(kinds["transfer-metrics"][0]["bytesSent"], 2 * 1024 * 1024 + 5)

    def test_interrupted_upload_resumes_from_its_journal(self):
        with tempfile.TemporaryDirectory() as d:
            received = os.path.join(d, "received")
            os.mkdir(received)
            size, part_size = 6 * 1024 * 1024, 512 * 1024
            source = make_file(os.path.join(d, "big.bin"), size)
            server = Server(BINARY, received)
            try:
                plan = reservation(os.path.join(d, "r.json"), source, size, part_size,
                                   lambda o: f"{server.base}/upload/copy.bin?offset={o}")
                journal = os.path.join(d, "journal")
                # One part at a time at 2 MB/s: a part takes about 0.26 s, so the interrupt,
                # sent just after a part was journaled, lands well inside the next one.
                upload = subprocess.Popen(
                    [BINARY, "upload", "-r", "r.json", "--journal", journal, "--rate-limit",
                     "2000", "--max-connections", "1"], cwd=d, stdout=subprocess.PIPE,
                    stderr=subprocess.PIPE, text=True)
                deadline = time.monotonic() + LIMIT
                while time.monotonic() < deadline and upload.poll() is None:
                    if lines_in(journal) >= 2:
                        break
                    time.sleep(0.005)
                interrupted = time.monotonic()
                upload.send_signal(signal.SIGINT)
                out, err = upload.communicate(timeout=10)
                exit_secs = time.monotonic() - interrupted
                self.assertEqual(upload.returncode, 1, err)
                self.assertIn("cancelled with", err)
                self.assertLess(exit_secs, 2.0)
                print(f"SIGINT to exit: {exit_secs * 1000:.0f} ms", file=sys.stderr)
                done = lines_in(journal)
                self.assertLess(done, len(plan))

                result = run("upload", "-r", "r.json", "--journal", journal, cwd=d)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertIn(f"{done} parts already done before", result.stdout)
            finally:
                self.assertEqual(server.stop(), 0)
            accepted = [int(re.search(r"part=(\d+)", line).group(1))
                        for line in server.lines if line.endswith(" s") and " accepted " in line]
            self.assertEqual(sorted(accepted), list(range(1, len(plan) + 1)))
            self.assertEqual(sha256(os.path.join(received, "copy.bin")), sha256(source))

    def test_unreachable_and_garbage_servers_fail_the_parts_without_hanging(self):
        listener = socket.socket()
        listener.bind(("127.0.0.1", 0))
        listener.listen()
        closed = socket.socket()
        closed.bind(("127.0.0.1", 0))  # bound but not listening: connections are refused

        def answer_garbage():
            while True:
                try:
                    connection, _ = listener.accept()
                except OSError:
                    return
                with connection:
                    connection.recv(65536)
                    connection.sendall(b"this is not HTTP\r\n\r\n")

        threading.Thread(target=answer_garbage, daemon=True).start()
        try:
            with tempfile.TemporaryDirectory() as d:
                source = make_file(os.path.join(d, "a.bin"), 4096)
                for port in (closed.getsockname()[1], listener.getsockname()[1]):
                    reservation(os.path.join(d, "r.json"), source, 4096, 2048,
                                lambda o: f"http://127.0.0.1:{port}/upload/a?offset={o}")
                    result = run("upload", "-r", "r.json", "--max-retries", "1", cwd=d)
                    self.assertEqual(result.returncode, 1, result.stderr)
                    failures = [line for line in result.stderr.splitlines()
                                if re.match(r"pellorin: part [12] of .* failed: .+", line)]
                    self.assertEqual(len(failures), 2, result.stderr)
                    self.assertIn("0 of 2 parts", result.stdout)
        finally:
            listener.close()
            closed.close()

    def test_reservation_from_serve_uploads_back_to_it(self):
        with tempfile.TemporaryDirectory() as d:
            received = os.path.join(d, "received")
            os.mkdir(received)
            source = make_file(os.path.join(d, "movie.bin"), 1024 * 1024 + 3)
            with open(os.path.join(d, "pw"), "w") as f:
                f.write("not-on-the-command-line\n")
            server = Server(BINARY, received)
            try:
                result = run("reserve", "movie.bin", "--user", "me", "--password-file", "pw",
                             "--endpoint", server.base, "-o", "r.json", cwd=d)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertIn("Reserved 1 part of movie.bin in r.json", result.stdout)
                with open(os.path.join(d, "r.json")) as f:
                    self.assertEqual(json.load(f)[0]["filePath"], "movie.bin")
                result = run("upload", "-r", "r.json", cwd=d)
                self.assertEqual(result.returncode, 0, result.stderr)
            finally:
                self.assertEqual(server.stop(), 0)
            self.assertEqual(sha256(os.path.join(received, "movie.bin")), sha256(source))
            self.assertTrue(any(line.startswith("POST /Servlane/") for line in server.lines))

            refused = run("reserve", source, "--user", "me", "--password-file",
                          os.path.join(d, "pw"), "--endpoint", server.base)
            self.assertEqual(refused.returncode, 1)
            self.assertIn("cannot reach 127.0.0.1", refused.stderr)

    def test_progress_line_in_a_terminal_ends_at_100_percent(self):
        with tempfile.TemporaryDirectory() as d:
            source = make_file(os.path.join(d, "p.bin"), 3 * 1024 * 1024)
            master, slave = pty.openpty()
            process = subprocess.Popen(
                [BINARY, "upload", source, "--part-size", "512KiB", "--rate-limit", "4000"],
                stdout=subprocess.PIPE, stderr=slave, stdin=subprocess.DEVNULL)
            os.close(slave)
            screen = b""
            deadline = time.monotonic() + LIMIT
            while time.monotonic() < deadline:
                ready, _, _ = select.select([master], [], [], 1)
                if not ready:
                    continue
                try:
                    chunk = os.read(master, 65536)
                except OSError:  # the terminal closed with the process
                    break
                if not chunk:
                    break
                screen += chunk
            os.close(master)
            out, _ = process.communicate(timeout=10)
            self.assertEqual(process.returncode, 0)
            self.assertIn(b"Checksums agree", out)
            drawings = [line for line in re.split(rb"\r|\x1b\[K", screen.decode().encode())
                        if re.match(rb"\s*\d+\.\d%", line)]
            self.assertGreater(len(drawings), 2, screen)
            percentages = [float(re.match(rb"\s*(\d+\.\d)%", line).group(1)) for line in drawings]
            self.assertEqual(percentages, sorted(percentages))
            self.assertEqual(percentages[-1], 100.0)
            self.assertTrue(all(0 <= p <= 100 for p in percentages))
            rates = [float(m.group(1)) for line in drawings[1:]
                     for m in [re.search(rb"  (\d+(?:\.\d+)?) MiB/s", line)] if m]
            self.assertTrue(rates, drawings)
            self.assertTrue(all(0.5 < r < 20 for r in rates), rates)  # capped at 3.8 MiB/s
            self.assertIn(b"parts 6/6, 0 failed", drawings[-1])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", required=True)
    options, rest = parser.parse_known_args()
    BINARY = os.path.abspath(options.binary)
    unittest.main(argv=[sys.argv[0], *rest])
