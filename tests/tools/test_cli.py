#!/usr/bin/env python3
"""End-to-end tests of the `pellorin` command: help, one-line errors for bad input, events as
JSON Lines, journals that resume only what is really done, rounds that ride out an outage, --to,
TLS and proxies (nginx and tinyproxy, skipped when missing), secrets kept out of the output,
`serve` kept inside its folder, the README's examples, and the progress line in a pseudo-terminal.
Standard library only; every wait is bounded."""

import argparse
import base64
import hashlib
import json
import os
import pty
import re
import resource
import select
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from served import Server, make_file, reservation, sha256

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import thirdparty  # noqa: E402

BINARY = None
LIMIT = 30  # seconds any one command may take


PROXY_VARIABLES = {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTPS_PROXY",
                   "ALL_PROXY", "NO_PROXY", "SSL_CERT_FILE", "SSL_CERT_DIR", "CURL_CA_BUNDLE"}


def clean_environment(**extra):
    environment = {k: v for k, v in os.environ.items()
                   if k != "PELLORIN_PASSWORD" and k not in PROXY_VARIABLES}
    environment.update(extra)
    return environment


def run(*args, cwd=None, env=None):
    return subprocess.run([BINARY, *args], capture_output=True, text=True, timeout=LIMIT, cwd=cwd,
                          env=env or clean_environment())


def start(*args, cwd=None):
    return subprocess.Popen([BINARY, *args], cwd=cwd, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, env=clean_environment())


def wait_for_lines(path, count):
    deadline = time.monotonic() + LIMIT
    while time.monotonic() < deadline and lines_in(path) < count:
        time.sleep(0.005)


def events_of(text):
    """The events of a JSON Lines text by kind; fails on any line that is not a JSON object."""
    kinds = {}
    for line in text.splitlines():
        event = json.loads(line)
        kinds.setdefault(event["event"], []).append(event)
    return kinds


def lines_in(path):
    if not os.path.exists(path):
        return 0
    with open(path) as f:
        return f.read().count("\n")


def raw_server(answer):
    """A loopback listener handing each connection to answer(connection) on a thread of its own;
    closing the listener ends it."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen()

    def loop():
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            with connection:
                answer(connection)

    threading.Thread(target=loop, daemon=True).start()
    return listener


class HostCase(unittest.TestCase):
    """A temporary folder (self.d) with a `received` folder in it for `serve`."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.d = folder.name
        self.received = os.path.join(self.d, "received")
        os.mkdir(self.received)

    def file(self, name, size):
        return make_file(os.path.join(self.d, name), size)

    def serve(self, port=0):
        """`pellorin serve` into self.received; stopped (status 0 expected) by the test's end."""
        server = Server(BINARY, self.received, port)
        self.addCleanup(lambda: self.assertEqual(server.stop(), 0))
        return server

    def assertArrived(self, name, source):
        self.assertEqual(sha256(os.path.join(self.received, name)), sha256(source))


class HelpAndBadInput(HostCase):
    def test_help_says_what_to_do(self):
        for command, word in [((), "upload"), (("upload",), "--reservation"),
                              (("serve",), "--dir"), (("reserve",), "--endpoint")]:
            result = run(*command, "--help")
            self.assertEqual(result.returncode, 0, command)
            self.assertIn(word, result.stdout, command)

    def test_each_bad_input_gets_one_line_and_status_2(self):
        d, data = self.d, self.file("a.bin", 1000)

        def write(name, text):
            with open(os.path.join(d, name), "w") as f:
                f.write(text)
            return os.path.join(d, name)

        truncated = write("trunc.json", "[{\"filePath\"")
        cases = [
            (["upload", os.path.join(d, "missing.bin")], "cannot read"),
            (["upload", "-r", os.path.join(d, "missing.json")], "cannot read reservation file"),
            # One reservation fault and one template fault; the reader's and the template's own
            # tests have them all.
            (["upload", "-r", truncated], "invalid JSON at byte"),
            (["upload", data, "--to", "http://127.0.0.1:9/same", "--part-size", "100"],
             "every part would go to"),
            (["upload", "--max-connections", "0", data], "--max-connections"),
            (["upload", "--part-size", "lots", data], "not a size"),
            (["upload", "--rate-limit", "0", data], "--rate-limit"),
            (["upload", "--to", "http://127.0.0.1:9/{part}"], "--to needs the FILE"),
            (["upload", data, "--ca-file", os.path.join(d, "none.pem")], "CA file"),
            (["upload", data, "-r", truncated], "excludes"),
            (["upload", "--journal", write("journal", "garbage\n"), data],
             "1: not a journal entry"),
            (["upload", "--events", os.path.join(d, "no", "events"), data], "cannot write events"),
            (["serve", "--dir", os.path.join(d, "missing")], "not a directory"),
            (["serve", "--checksum", "sha1"], "--checksum"),
            (["reserve", data, "--user", "me"], "no password: set PELLORIN_PASSWORD"),
            (["reserve", data, "--user", "me", "--password-file", write("empty", "")],
             "password file"),
            (["reserve", os.path.join(d, "gone"), "--user", "me", "--password-file",
              write("pw", "secret\n")], "cannot read"),
            (["reserve", data, "--user", "me", "--password-file", os.path.join(d, "pw"),
              "--endpoint", "ftp://h/"], "--endpoint: not an http or https URL"),
            (["reserve", data, "--user", "me", "--password", "s"], "--password"),
            (["frobnicate"], "frobnicate"),
            ([], "subcommand"),
        ]
        for args, expected in cases:
            result = run(*args)
            self.assertEqual(result.returncode, 2, (args, result.stderr))
            self.assertEqual(result.stdout, "", args)
            lines = result.stderr.splitlines()
            self.assertEqual(len(lines), 1, (args, result.stderr))
            self.assertTrue(lines[0].startswith("pellorin: ") and expected in lines[0], args)


class OutputAndJournal(HostCase):
    def test_events_are_json_lines_on_stdout_and_everything_else_is_on_stderr(self):
        source = self.file("my file.bin", 2 * 1024 * 1024 + 5)
        result = run("upload", source, "--part-size", "256KiB", "--dir", self.received,
                     "--events", "-")
        self.assertEqual(result.returncode, 0, result.stderr)
        kinds = events_of(result.stdout)
        self.assertEqual(len(kinds["part-started"]), 9)
        self.assertEqual(sorted(e["partNumber"] for e in kinds["part-complete"]),
                         list(range(1, 10)))
        self.assertEqual(kinds["transfer-metrics"][0]["bytesSent"], 2 * 1024 * 1024 + 5)
        self.assertEqual(kinds["transfer-finished"][0]["status"], 0)
        self.assertIn("Checksums agree: SHA-256 " + sha256(source), result.stderr)
        self.assertRegex(result.stderr, r"\n100\.0% .* parts 9/9, 0 failed")  # off a terminal
        self.assertArrived("my file.bin", source)
        quiet = run("upload", source, "--part-size", "256KiB", "-q")
        self.assertEqual((quiet.returncode, quiet.stdout, quiet.stderr), (0, "", ""))

    def test_interrupted_reservation_upload_resumes_from_its_journal(self):
        d, size = self.d, 6 * 1024 * 1024
        source = self.file("big.bin", size)
        server = self.serve()
        plan = reservation(os.path.join(d, "r.json"), source, size, 512 * 1024,
                           lambda o: f"{server.base}/upload/copy.bin?offset={o}")
        journal = os.path.join(d, "journal")
        # One part at a time at 2 MB/s: a part takes about 0.26 s, so the interrupt, sent just
        # after a part was journaled, lands well inside the next one.
        upload = start("upload", "-r", "r.json", "--journal", journal, "--rate-limit", "2000",
                       "--max-connections", "1", cwd=d)
        wait_for_lines(journal, 2)
        interrupted = time.monotonic()
        upload.send_signal(signal.SIGINT)
        _, err = upload.communicate(timeout=10)
        exit_secs = time.monotonic() - interrupted
        self.assertEqual(upload.returncode, 130, err)
        self.assertIn("cancelled with", err)
        self.assertLess(exit_secs, 2.0)
        print(f"SIGINT to exit: {exit_secs * 1000:.0f} ms", file=sys.stderr)
        done = lines_in(journal)
        self.assertLess(done, len(plan))

        result = run("upload", "-r", "r.json", "--journal", journal, cwd=d)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn(f"{done} parts already done before", result.stderr)
        self.assertEqual(server.stop(), 0)
        # The receiver's log: every part accepted exactly once over both runs.
        self.assertEqual(sorted(server.accepted()), list(range(1, len(plan) + 1)))
        self.assertArrived("copy.bin", source)

    def test_a_replaced_source_and_a_new_reservation_are_each_sent_again_in_full(self):
        d, size = self.d, 1024 * 1024
        source = self.file("a.bin", size)
        server = self.serve()
        for name in ("first.json", "second.json"):
            reservation(os.path.join(d, name), source, size, 128 * 1024,
                        lambda o, n=name: f"{server.base}/upload/{n}.copy?offset={o}")
        upload = ("upload", "-r", "first.json", "--journal", "j", "--events", "-")
        self.assertEqual(run(*upload, cwd=d).returncode, 0)
        make_file(source, size)  # replaced: same path, same size, other bytes
        again = run(*upload, cwd=d)
        self.assertEqual(again.returncode, 0, again.stderr)
        self.assertIn("sent again: 8 recorded from a source file that has changed", again.stderr)
        self.assertEqual(len(events_of(again.stdout)["part-complete"]), 8)
        elsewhere = run("upload", "-r", "second.json", "--journal", "j", cwd=d)
        self.assertEqual(elsewhere.returncode, 0, elsewhere.stderr)
        self.assertIn("8 recorded for another destination", elsewhere.stderr)
        self.assertEqual(server.stop(), 0)
        self.assertEqual(len(server.accepted()), 24)
        for name in ("first.json.copy", "second.json.copy"):
            self.assertArrived(name, source)


class Rounds(HostCase):
    def test_a_receiver_down_for_5_seconds_is_ridden_out(self):
        size = 2 * 1024 * 1024
        source = self.file("a.bin", size)
        server = Server(BINARY, self.received)
        self.addCleanup(server.stop)
        reservation(os.path.join(self.d, "r.json"), source, size, 128 * 1024,
                    lambda o: f"{server.base}/upload/copy.bin?offset={o}")
        upload = start("upload", "-r", "r.json", "--rate-limit", "1MB/s", "-c", "2",
                       "--max-retries", "1", "--retry-rounds", "6", "--events", "-", cwd=self.d)
        time.sleep(0.5)
        self.assertEqual(server.stop(), 0)
        down = time.monotonic()
        time.sleep(5)
        self.serve(server.port)
        out, err = upload.communicate(timeout=LIMIT)
        print(f"outage ridden out {time.monotonic() - down:.1f} s after it began", file=sys.stderr)
        self.assertEqual(upload.returncode, 0, err)
        kinds = events_of(out)
        self.assertGreater(len(kinds["round-started"]), 1)
        self.assertIn("waiting", err)
        self.assertEqual(len(kinds["part-failed"]),
                         sum(e["parts"] for e in kinds["round-started"][1:]))
        self.assertArrived("copy.bin", source)

    def test_a_503_that_spends_the_retries_gets_a_round_after_its_retry_after(self):
        answers = []

        def answer(connection):  # 503 with Retry-After: 1 twice, then the body's MD5
            data = b""
            while b"\r\n\r\n" not in data:
                data += connection.recv(65536)
            head, body = data.split(b"\r\n\r\n", 1)
            length = int(re.search(rb"(?i)content-length: *(\d+)", head).group(1))
            while len(body) < length:
                body += connection.recv(65536)
            if len(answers) < 2:
                answers.append(503)
                connection.sendall(b"HTTP/1.1 503 Busy\r\nRetry-After: 1\r\n"
                                   b"Content-Length: 0\r\nConnection: close\r\n\r\n")
            else:
                answers.append(200)
                md5 = base64.b64encode(hashlib.md5(body).digest())
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-MD5: " + md5 +
                                   b"\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")

        listener = raw_server(answer)
        self.addCleanup(listener.close)
        result = run("upload", self.file("a.bin", 5000), "--to",
                     f"http://127.0.0.1:{listener.getsockname()[1]}/a", "--max-retries", "1",
                     "--events", "-")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(answers, [503, 503, 200])
        waits = events_of(result.stdout)["round-waiting"]
        self.assertEqual([(w["round"], w["waitSecs"]) for w in waits], [(2, 1.0)])

    def test_too_few_descriptors_for_16_connections_are_ridden_out_with_fewer(self):
        linked = subprocess.run(["ldd", BINARY], capture_output=True, text=True).stdout
        if re.search(r"lib(a|ub|t)san", linked):
            self.skipTest("the sanitizers' own checks need descriptors (they open pipes)")
        source = self.file("a.bin", 3 * 1000 * 1000)
        server = self.serve()
        result = subprocess.run(
            [BINARY, "upload", source, "--to", server.base + "/upload/a?offset={offset}",
             "--part-size", "100k", "-c", "16"], capture_output=True, text=True, timeout=LIMIT,
            env=clean_environment(),
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (32, 32)))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertArrived("a", source)

    def test_to_uploads_to_serve_and_a_404_is_neither_retried_nor_told_its_signature(self):
        source = self.file("to me.bin", 700 * 1000)
        server = self.serve()
        good = run("upload", "to me.bin", "--to",
                   server.base + "/upload/{name}?offset={offset}&X-Sig=SECRET1", "--part-size",
                   "100k", "--events", "-", cwd=self.d)
        self.assertEqual(good.returncode, 0, good.stderr)
        self.assertEqual(len(events_of(good.stdout)["part-complete"]), 7)
        began = time.monotonic()
        missing = run("upload", "to me.bin", "--to", server.base + "/nowhere/{part}?X-Sig=SECRET2",
                      "--part-size", "500k", "--events", "-", cwd=self.d)
        self.assertLess(time.monotonic() - began, 3)
        self.assertEqual(missing.returncode, 1)
        kinds = events_of(missing.stdout)
        self.assertEqual(len(kinds["round-started"]), 1)
        self.assertEqual(len(kinds["part-failed"]), 2)
        self.assertIn("/nowhere/1?***", kinds["part-failed"][0]["url"] +
                      kinds["part-failed"][1]["url"])
        for result in (good, missing):
            self.assertNotIn("SECRET", result.stdout + result.stderr)
        shown = run("upload", "to me.bin", "--to", server.base + "/nowhere/?k=SECRET3",
                    "--part-size", "1M", "--show-secrets", "--retry-rounds", "0", cwd=self.d)
        self.assertIn("SECRET3", shown.stderr)
        self.assertArrived("to me.bin", source)

    def test_serve_does_not_write_through_a_planted_symlink(self):
        outside = os.path.join(self.d, "precious")
        with open(outside, "w") as f:
            f.write("untouched")
        os.symlink(outside, os.path.join(self.received, "evil"))
        result = run("upload", self.file("a.bin", 1000), "--to",
                     self.serve().base + "/upload/evil", "--part-size", "1M")
        self.assertEqual(result.returncode, 1)
        self.assertIn("403", result.stderr)
        with open(outside) as f:
            self.assertEqual(f.read(), "untouched")


class Networks(HostCase):
    def test_tls_trusted_by_ca_file_or_ssl_cert_file_and_a_forward_proxy_from_https_proxy(self):
        source = self.file("a.bin", 300 * 1000)
        server = self.serve()
        try:
            with thirdparty.nginx(upstream=f"127.0.0.1:{server.port}",
                                  workdir=os.path.join(self.d, "nginx"), http2=True) as tls, \
                    thirdparty.forward_proxy(workdir=os.path.join(self.d, "proxy")) as proxy:
                to = tls.url + "/upload/{name}?offset={offset}"
                untrusted = run("upload", source, "--to", to, "--part-size", "100k",
                                "--retry-rounds", "0", "--max-retries", "0")
                self.assertEqual(untrusted.returncode, 1)
                cases = [
                    (["--ca-file", tls.ca_file], {}),
                    (["--http2"], {"SSL_CERT_FILE": tls.ca_file}),
                    ([], {"SSL_CERT_FILE": tls.ca_file, "https_proxy": proxy.url}),
                ]
                for options, environment in cases:
                    result = run("upload", source, "--to", to, "--part-size", "100k", *options,
                                 env=clean_environment(**environment))
                    self.assertEqual(result.returncode, 0, (options, result.stderr))
        except thirdparty.Unavailable as missing:
            self.skipTest(str(missing))
        with open(os.path.join(self.d, "nginx", "nginx-access.log")) as f:
            protocols = re.findall(r'"PUT [^"]* (HTTP/[0-9.]+)"', f.read())
        self.assertEqual(protocols.count("HTTP/2.0"), 3, protocols)  # --http2's parts
        self.assertEqual(server.stop(), 0)
        self.assertArrived("a.bin", source)
        self.assertEqual(len(server.accepted()), 9)


class Examples(HostCase):
    def test_the_readme_examples_run_as_written(self):
        readme = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "README.md")
        with open(readme) as f:
            section = f.read().split("## The command-line host", 1)[1].split("\n## ", 1)[0]
        block = section.split("```sh\n", 1)[1].split("```", 1)[0]
        commands = [line.split("  #", 1)[0].strip() for line in block.splitlines()]
        commands = [c for c in commands if c]
        self.assertGreaterEqual(len(commands), 5)
        self.file("big.iso", 2 * 1024 * 1024)
        server = None
        for command in commands:
            words = shlex.split(command)
            environment = clean_environment()
            while "=" in words[0]:
                name, value = words.pop(0).split("=", 1)
                environment[name] = value
            self.assertEqual(words[0], "pellorin", command)
            if words[1] == "serve":
                folder = os.path.join(self.d, words[words.index("--dir") + 1])
                os.makedirs(folder, exist_ok=True)
                server = Server(BINARY, folder)
                self.addCleanup(lambda: self.assertEqual(server.stop(), 0))
                continue
            if server:
                words = [w.replace("8080", str(server.port)) for w in words]
            result = run(*words[1:], cwd=self.d, env=environment)
            self.assertEqual(result.returncode, 0, (command, result.stderr))


class Failures(HostCase):
    def test_unreachable_and_garbage_servers_fail_the_parts_without_hanging(self):
        def garbage(connection):
            connection.recv(65536)
            connection.sendall(b"this is not HTTP\r\n\r\n")

        listener = raw_server(garbage)
        self.addCleanup(listener.close)
        closed = socket.socket()
        self.addCleanup(closed.close)
        closed.bind(("127.0.0.1", 0))  # bound but not listening: connections are refused
        source = self.file("a.bin", 4096)
        for port in (closed.getsockname()[1], listener.getsockname()[1]):
            reservation(os.path.join(self.d, "r.json"), source, 4096, 2048,
                        lambda o: f"http://127.0.0.1:{port}/upload/a?offset={o}")
            result = run("upload", "-r", "r.json", "--max-retries", "1", "--retry-rounds", "0",
                         cwd=self.d)
            self.assertEqual(result.returncode, 1, result.stderr)
            # Parts failing alike are told on one line.
            failures = [line for line in result.stderr.splitlines()
                        if re.match(r"pellorin: parts 1, 2 of .* failed: .+", line)]
            self.assertEqual(len(failures), 1, result.stderr)
            self.assertIn("0 of 2 parts", result.stderr)

    def test_reservation_from_serve_uploads_back_to_it(self):
        d = self.d
        source = self.file("movie.bin", 1024 * 1024 + 3)
        with open(os.path.join(d, "pw"), "w") as f:
            f.write("not-on-the-command-line\n")
        server = self.serve()
        result = run("reserve", "movie.bin", "--user", "me", "--password-file", "pw",
                     "--endpoint", server.base, "-o", "r.json", cwd=d)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("Reserved 1 part of movie.bin in r.json", result.stdout)
        with open(os.path.join(d, "r.json")) as f:
            self.assertEqual(json.load(f)[0]["filePath"], source)
        # Run from elsewhere: the file's path does not depend on the working directory.
        result = run("upload", "-r", os.path.join(d, "r.json"))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(server.stop(), 0)
        self.assertArrived("movie.bin", source)
        self.assertTrue(any(line.startswith("POST /Servlane/") for line in server.lines))

        refused = run("reserve", source, "--user", "me", "--password-file",
                      os.path.join(d, "pw"), "--endpoint", server.base)
        self.assertEqual(refused.returncode, 1)
        self.assertIn("cannot reach 127.0.0.1", refused.stderr)

    def test_progress_line_in_a_terminal_ends_at_100_percent(self):
        master, slave = pty.openpty()
        process = subprocess.Popen(
            [BINARY, "upload", self.file("p.bin", 3 * 1024 * 1024), "--part-size", "512KiB",
             "--rate-limit", "4MB/s"], stdout=subprocess.PIPE, stderr=slave,
            stdin=subprocess.DEVNULL)
        os.close(slave)
        screen = b""
        deadline = time.monotonic() + LIMIT
        while time.monotonic() < deadline:
            if not select.select([master], [], [], 1)[0]:
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
        self.assertEqual((process.returncode, out), (0, b""))
        self.assertIn(b"Checksums agree", screen)
        drawings = [line for line in re.split(rb"\r|\x1b\[K", screen.decode().encode())
                    if re.match(rb"\s*\d+\.\d%", line)]
        self.assertGreater(len(drawings), 2, screen)
        percentages = [float(re.match(rb"\s*(\d+\.\d)%", line).group(1)) for line in drawings]
        self.assertEqual(percentages, sorted(percentages))
        self.assertEqual(percentages[-1], 100.0)
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
