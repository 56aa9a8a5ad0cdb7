"""The Python module against the receiver: a transfer with typed events, the session settings
in effect through nginx and tinyproxy, Ctrl-C cancelling within a second, the library's refusals
as exceptions, and the library's log lines silenced or redirected."""

import hashlib
import os
import select
import signal
import time

import pytest

import pellorin
import thirdparty
from conftest import run_script


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def random_file(path, size):
    path.write_bytes(os.urandom(size))
    return path


def test_upload_delivers_typed_events(receiver, tmp_path):
    size = 2 * 1024 * 1024 + 5
    source = random_file(tmp_path / "copy.bin", size)
    seen = []
    with pellorin.Client(max_connections=2, max_retries=1, listeners=[seen.append]) as client:
        client.upload_all(pellorin.split_file(source, 1024 * 1024, receiver.url("copy.bin")))
        assert client.wait() == 0

    def numbers(kind):
        return sorted(e.part_number for e in seen if isinstance(e, kind))
    assert numbers(pellorin.PartStarted) == numbers(pellorin.PartCompleted) == [1, 2, 3]
    assert sum(e.bytes_sent for e in seen if isinstance(e, pellorin.PartProgress)) == size
    finished = seen[-1]
    assert isinstance(finished, pellorin.Finished) and finished is client.finished
    assert (finished.status, finished.parts_sent, finished.bytes_sent) == (0, 3, size)
    assert digest(receiver.directory / "copy.bin") == digest(source)

    # The same through iteration, on the calling thread; a failed part makes status 1.
    with pellorin.Client(max_connections=1, max_retries=0) as client:
        client.upload(pellorin.Part(source, 1, 0, 10, receiver.url("a.bin")(1, 0, 10)))
        client.upload(pellorin.Part(tmp_path / "missing.bin", 2, 0, 10,
                                    receiver.url("b.bin")(2, 0, 10)))
        iterated = list(client.events())
    failed = [e for e in iterated if isinstance(e, pellorin.PartFailed)]
    assert [e.part_number for e in failed] == [2] and failed[0].errors
    assert all(isinstance(e, pellorin.ErrorInfo) for e in failed[0].errors)
    assert iterated[-1].status == 1


def test_session_settings_reach_the_connection(receiver, tmp_path):
    """Trust comes from the CA file (without it the TLS front end is refused), HTTP/2 is spoken
    when asked for, and parts go through the proxy when one is set."""
    source = random_file(tmp_path / "source.bin", 96 * 1024)
    try:
        tls_front = thirdparty.nginx(receiver.base.split("//")[1], tmp_path / "nginx", http2=True)
        forward = thirdparty.forward_proxy(tmp_path / "proxy")
        with tls_front as tls, forward as proxy:
            cases = [  # (settings, server, name, status)
                ({"ca_file": tls.ca_file, "http_version": pellorin.HTTP_2}, tls.url, "h2", 0),
                ({}, tls.url, "untrusted", 1),
                ({"ca_file": tls.ca_file, "proxy": proxy.url}, tls.url, "tunnelled", 0),
                ({"proxy": proxy.url, "idle_timeout": 5}, receiver.base, "forwarded", 0),
            ]
            for settings, server, name, status in cases:
                with pellorin.Client(max_retries=0, **settings) as client:
                    client.upload_all(pellorin.split_file(
                        source, 64 * 1024,
                        lambda n, offset, length: f"{server}/upload/{name}?offset={offset}"))
                    assert client.wait() == status, name
                if status == 0:
                    assert digest(receiver.directory / name) == digest(source)
    except thirdparty.Unavailable as missing:
        pytest.skip(str(missing))
    access = (tmp_path / "nginx" / "nginx-access.log").read_text()
    assert "/upload/h2?offset=65536 HTTP/2.0" in access
    assert "/upload/tunnelled?offset=65536 HTTP/1.1" in access
    proxied = (tmp_path / "proxy" / "tinyproxy.log").read_text()
    assert "/upload/forwarded?offset=0" in proxied and "CONNECT" in proxied


CTRL_C_SCRIPT = """
import sys, pellorin
path, base = sys.argv[1:3]
client = pellorin.Client(max_connections=1, max_retries=0, rate_limit=100)
client.add_listener(lambda e: isinstance(e, pellorin.PartStarted) and print("started", flush=True))
client.upload_all(pellorin.split_file(path, 256 * 1024,
                                      lambda n, o, l: f"{base}/upload/slow.bin?offset={o}"))
try:
    client.wait()
except KeyboardInterrupt:
    print("interrupted", client.finished.status, client.finished.failure_count, flush=True)
    sys.exit(130)
print("not interrupted", flush=True)
"""


def test_ctrl_c_cancels_within_a_second(receiver, tmp_path):
    source = random_file(tmp_path / "slow.bin", 4 * 256 * 1024)  # ~10 s at 100 KB/s
    child = run_script(CTRL_C_SCRIPT, source, receiver.base)
    try:
        ready, _, _ = select.select([child.stdout], [], [], 10)
        assert ready and child.stdout.readline() == "started\n"
        time.sleep(0.2)
        sent = time.monotonic()
        child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=10)
        elapsed = time.monotonic() - sent
    finally:
        child.kill()
    assert child.returncode == 130, err
    # The first part streams unthrottled and may be on the server before the signal.
    assert out.splitlines()[-1] in ("interrupted 1 3", "interrupted 1 4")
    assert elapsed < 1.0, f"took {elapsed:.2f} s to stop"


def test_refusals_raise_with_the_library_message(receiver, tmp_path):
    """One refusal of each kind; the C interface's test has every reason."""
    cases = [
        (lambda: pellorin.Client(max_connections=0), pellorin.InvalidArgumentError,
         "maxConnections must be at least 1"),
        (lambda: pellorin.Part("/a", 1, 0, 1, "not a url"), ValueError,
         "not an absolute URL: not a url"),
        (lambda: pellorin.read_reservation(tmp_path / "none.json"), pellorin.FileError,
         "cannot read reservation file"),
    ]
    for call, kind, message in cases:
        with pytest.raises(kind, match=message):
            call()

    with pellorin.Client() as client:
        assert client.wait() == 0
        with pytest.raises(pellorin.StateError, match="transfer already finished"):
            client.upload(pellorin.Part("/a", 1, 0, 1, receiver.base + "/"))


LOGGING_SCRIPT = """
import sys, pellorin
def cancelled_client():  # cancelling logs one error line
    client = pellorin.Client()
    client.cancel()
    client.close()
def mark(text):
    print(text, flush=True)
    print(text, file=sys.stderr, flush=True)
cancelled_client()
mark("--silenced")
pellorin.logs.set_destination("none")
cancelled_client()
mark("--callback")
lines = []
pellorin.logs.set_handler(lambda level, line: lines.append((level, line)))
cancelled_client()
pellorin.logs.set_level("critical")
cancelled_client()
print(repr(lines), flush=True)
mark("--stderr")
pellorin.logs.set_level("info")
pellorin.logs.set_destination("stderr")
cancelled_client()
"""


def test_library_logging_silenced_and_redirected():
    child = run_script(LOGGING_SCRIPT)
    out, err = child.communicate(timeout=20)
    assert child.returncode == 0, err
    line = "error org.pellorin.transport.upload : Upload cancelled by user."
    default, silenced, callback, _ = out.split("--")
    assert line in default  # standard output before any setting
    assert silenced.strip() == "silenced"
    recorded = eval(callback.split("\n", 1)[1])
    assert len(recorded) == 1 and recorded[0][0] == "error" and recorded[0][1].endswith(line)
    assert line not in err.split("--stderr")[0] and line in err.split("--stderr")[1]
