#!/usr/bin/env python3
"""The C interface (<pellorin/pellorin.h>) driven from Python's ctypes: a real upload to
`pellorin serve` on 127.0.0.1, every event seen as JSON, the copy byte-identical; bad arguments
give NULL and a reason; cancelling fails the parts still waiting. Standard library only."""

import argparse
import ctypes
import hashlib
import json
import os
import re
import select
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

LIBRARY = None
BINARY = None


class Header(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("value", ctypes.c_char_p)]


EVENT = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_char_p)
FINISH = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int32, ctypes.c_char_p)
EVENT_NAMES = ["logMessage", "didStartPart", "didReceivePartProgress", "willRetryPart",
               "partDidComplete", "partDidFail", "didReceiveFileProgress"]


class Delegate(ctypes.Structure):
    _fields_ = ([("context", ctypes.c_void_p)] + [(name, EVENT) for name in EVENT_NAMES]
                + [("didFinishWithStatus", FINISH)])


def load():
    lib = ctypes.CDLL(LIBRARY)
    lib.PLNLastError.restype = ctypes.c_char_p
    lib.PLNPellorinClient_versionString.restype = ctypes.c_char_p
    lib.PLNPellorinClient_standardClient.restype = ctypes.c_void_p
    lib.PLNPellorinClient_standardClient.argtypes = [ctypes.POINTER(ctypes.c_uint64),
                                                     ctypes.c_uint8, ctypes.c_uint8]
    lib.PLNPellorinClient_addDelegate.argtypes = [ctypes.c_void_p, ctypes.POINTER(Delegate)]
    lib.PLNPellorinClient_uploadPartRequest.argtypes = [ctypes.c_void_p, ctypes.c_void_p]
    lib.PLNPellorinClient_waitUntilFinished.argtypes = [ctypes.c_void_p]
    lib.PLNPellorinClient_waitUntilFinished.restype = ctypes.c_int32
    lib.PLNPellorinClient_invalidateAndCancel.argtypes = [ctypes.c_void_p]
    lib.PLNPellorinClient_release.argtypes = [ctypes.c_void_p]
    for make in (lib.PLNFilePartRequest_make, lib.PLNFilePartRequest_makeWithHeadersArray):
        make.restype = ctypes.c_void_p
        make.argtypes = [ctypes.c_char_p, ctypes.c_uint64, ctypes.c_uint64, ctypes.c_uint64,
                         ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(Header), ctypes.c_size_t]
    lib.PLNFilePartRequest_release.argtypes = [ctypes.c_void_p]
    return lib


def headers(*pairs):
    array = (Header * len(pairs))()
    for i, (name, value) in enumerate(pairs):
        array[i] = Header(name and name.encode(), value and value.encode())
    return array, len(pairs)


class Recorder:
    """A delegate table whose callbacks keep (event, decoded JSON) in arrival order."""

    def __init__(self):
        self.events = []
        self.lock = threading.Lock()
        callbacks = [EVENT(lambda _c, _h, text, name=name: self.add(name, text))
                     for name in EVENT_NAMES]
        finish = FINISH(lambda _c, _h, status, text: self.add("didFinishWithStatus", text, status))
        self.table = Delegate(None, *callbacks, finish)

    def add(self, name, text, status=None):
        message = json.loads(text.decode())  # raises inside the callback if it is not JSON
        with self.lock:
            self.events.append((name, message, status))

    def named(self, name):
        return [message for event, message, _ in self.events if event == name]


class Server:
    def __init__(self, directory):
        self.process = subprocess.Popen([BINARY, "serve", "--dir", directory],
                                        stdout=subprocess.PIPE, text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], 10)
        assert ready, "serve said nothing"
        self.base = re.search(r"http://127\.0\.0\.1:\d+", self.process.stdout.readline()).group(0)

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=10)


class CInterface(unittest.TestCase):
    def setUp(self):
        self.lib = load()
        self.dir = tempfile.TemporaryDirectory()
        self.received = os.path.join(self.dir.name, "received")
        os.mkdir(self.received)
        self.server = Server(self.received)

    def tearDown(self):
        self.server.stop()
        self.dir.cleanup()

    def wait(self, client):
        """waitUntilFinished on a thread of its own, bounded."""
        result = []
        waiter = threading.Thread(
            target=lambda: result.append(self.lib.PLNPellorinClient_waitUntilFinished(client)))
        waiter.start()
        waiter.join(30)
        if waiter.is_alive():
            self.lib.PLNPellorinClient_invalidateAndCancel(client)
            waiter.join(10)
            self.fail("the transfer did not finish")
        return result[0]

    def test_upload_reports_every_event_as_json(self):
        size, part = 3 * 1024 * 1024 + 17, 1024 * 1024
        source = os.path.join(self.dir.name, "source.bin")
        with open(source, "wb") as f:
            f.write(os.urandom(size))
        client = self.lib.PLNPellorinClient_standardClient(None, 2, 1)
        self.assertTrue(client)
        recorder = Recorder()
        self.lib.PLNPellorinClient_addDelegate(client, ctypes.byref(recorder.table))
        for number, offset in enumerate(range(0, size, part), start=1):
            url = f"{self.server.base}/upload/copy.bin?offset={offset}".encode()
            # Odd parts through the dictionary form, even ones through the header-array form,
            # whose element without a value is skipped.
            if number % 2:
                array, count = headers(("X-Part", str(number)))
                request = self.lib.PLNFilePartRequest_make(
                    source.encode(), number, offset, min(part, size - offset), url, b"PUT",
                    array, count)
            else:
                array, count = headers(("X-Part", str(number)), ("X-Empty", None))
                request = self.lib.PLNFilePartRequest_makeWithHeadersArray(
                    source.encode(), number, offset, min(part, size - offset), url, b"PUT",
                    array, count)
            self.assertTrue(request, self.lib.PLNLastError())
            self.lib.PLNPellorinClient_uploadPartRequest(client, request)
            self.lib.PLNFilePartRequest_release(request)

        self.assertEqual(self.wait(client), 0)
        self.lib.PLNPellorinClient_release(client)

        self.assertEqual(sorted(m["partNumber"] for m in recorder.named("didStartPart")),
                         [1, 2, 3, 4])
        self.assertEqual(sorted(m["partNumber"] for m in recorder.named("partDidComplete")),
                         [1, 2, 3, 4])
        progress = recorder.named("didReceivePartProgress")
        self.assertEqual(sum(m["bytesSent"] for m in progress), size)
        self.assertTrue(all({"path", "partNumber", "partSize", "totalBytesSent"} <= m.keys()
                            for m in progress))
        name, metrics, status = recorder.events[-1]
        self.assertEqual((name, status), ("didFinishWithStatus", 0))
        self.assertEqual((metrics["partsSent"], metrics["bytesSent"], metrics["failureCount"]),
                         (4, size, 0))
        with open(source, "rb") as a, open(os.path.join(self.received, "copy.bin"), "rb") as b:
            self.assertEqual(hashlib.sha256(a.read()).digest(), hashlib.sha256(b.read()).digest())

    def test_bad_arguments_give_null_and_a_reason(self):
        make = self.lib.PLNFilePartRequest_make
        self.assertFalse(make(b"/a", 1, 0, 1, b"not a url", b"PUT", None, 0))
        self.assertIn(b"not an absolute URL", self.lib.PLNLastError())
        self.assertFalse(make(None, 1, 0, 1, b"http://h/", b"PUT", None, 0))
        self.assertIn(b"filePath is NULL", self.lib.PLNLastError())
        array, count = headers((None, "v"))
        self.assertFalse(make(b"/a", 1, 0, 1, b"http://h/", b"PUT", array, count))
        self.assertIn(b"header name is NULL", self.lib.PLNLastError())
        request = make(b"/a", 1, 0, 1, b"http://h/", b"PUT", None, 0)
        self.assertTrue(request)
        self.assertEqual(self.lib.PLNLastError(), b"")
        self.lib.PLNFilePartRequest_release(request)
        self.assertTrue(self.lib.PLNPellorinClient_versionString())

    def test_cancelling_fails_the_waiting_parts(self):
        source = os.path.join(self.dir.name, "slow.bin")
        with open(source, "wb") as f:
            f.write(os.urandom(4 * 256 * 1024))
        rate = ctypes.c_uint64(200)  # KB/s: each part after the first takes more than a second
        client = self.lib.PLNPellorinClient_standardClient(ctypes.byref(rate), 1, 0)
        recorder = Recorder()
        started = threading.Event()
        recorder.table.didStartPart = EVENT(lambda _c, _h, text: started.set())
        self.lib.PLNPellorinClient_addDelegate(client, ctypes.byref(recorder.table))
        for number in range(1, 5):
            offset = (number - 1) * 256 * 1024
            request = self.lib.PLNFilePartRequest_make(
                source.encode(), number, offset, 256 * 1024,
                f"{self.server.base}/upload/slow.bin?offset={offset}".encode(), b"PUT", None, 0)
            self.lib.PLNPellorinClient_uploadPartRequest(client, request)
            self.lib.PLNFilePartRequest_release(request)
        canceller = threading.Thread(target=lambda: started.wait(10) and
                                     self.lib.PLNPellorinClient_invalidateAndCancel(client))
        canceller.start()
        self.assertEqual(self.wait(client), 1)
        canceller.join(10)
        self.lib.PLNPellorinClient_release(client)
        # The first part of a file streams without the limiter and may be done before the
        # cancellation; every other part is failed.
        failed = recorder.named("partDidFail")
        self.assertEqual(len(failed) + len(recorder.named("partDidComplete")), 4)
        self.assertGreaterEqual(len(failed), 3)
        self.assertTrue(all(m["errors"] for m in failed))
        self.assertEqual(recorder.events[-1][2], 1)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--library", required=True)
    parser.add_argument("--binary", required=True)
    options, rest = parser.parse_known_args()
    LIBRARY, BINARY = os.path.abspath(options.library), os.path.abspath(options.binary)
    unittest.main(argv=[sys.argv[0], *rest])
