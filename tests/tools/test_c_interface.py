#!/usr/bin/env python3
"""The C interface (<pellorin/pellorin.h>) driven from Python's ctypes: a real upload to
`pellorin serve` on 127.0.0.1, every event seen as JSON, the copy byte-identical; every refusal
gives a code and a reason, never a stop or a hang; session settings and reservation files take
effect. Calls made during the wait and cancellation are tested in process by CInterfaceTest.cpp
(so that the sanitizer builds see them) and through the Python module. Standard library only."""

import argparse
import ctypes
import json
import math
import os
import socket
import sys
import tempfile
import threading
import unittest

from served import Server, make_file, sha256

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
    c = ctypes
    signatures = {
        "PLNLastError": (c.c_char_p, []),
        "PLNPellorinClient_versionString": (c.c_char_p, []),
        "PLNPellorinClient_standardClient": (c.c_void_p, [c.POINTER(c.c_uint64), c.c_uint8,
                                                          c.c_uint8]),
        "PLNPellorinClient_addDelegate": (c.c_int32, [c.c_void_p, c.POINTER(Delegate)]),
        "PLNPellorinClient_removeDelegate": (c.c_int32, [c.c_void_p, c.POINTER(Delegate)]),
        "PLNPellorinClient_setCAFile": (c.c_int32, [c.c_void_p, c.c_char_p]),
        "PLNPellorinClient_setCADirectory": (c.c_int32, [c.c_void_p, c.c_char_p]),
        "PLNPellorinClient_setProxy": (c.c_int32, [c.c_void_p, c.c_char_p]),
        "PLNPellorinClient_setHttpVersion": (c.c_int32, [c.c_void_p, c.c_int32]),
        "PLNPellorinClient_setIdleTimeout": (c.c_int32, [c.c_void_p, c.c_double]),
        "PLNPellorinClient_setMinimumTLSVersion": (c.c_int32, [c.c_void_p, c.c_int32]),
        "PLNPellorinClient_uploadPartRequest": (c.c_int32, [c.c_void_p, c.c_void_p]),
        "PLNPellorinClient_waitUntilFinished": (c.c_int32, [c.c_void_p]),
        "PLNPellorinClient_invalidateAndCancel": (c.c_int32, [c.c_void_p]),
        "PLNPellorinClient_release": (c.c_int32, [c.c_void_p]),
        "PLNFilePartRequest_release": (None, [c.c_void_p]),
        "PLNReservationFile_read": (c.c_void_p, [c.c_char_p]),
        "PLNReservationFile_count": (c.c_size_t, [c.c_void_p]),
        "PLNReservationFile_partRequest": (c.c_void_p, [c.c_void_p, c.c_size_t]),
        "PLNReservationFile_release": (None, [c.c_void_p]),
        "PLNReservation_createTestFile": (c.c_int32, [c.c_char_p] * 6 + [c.c_double]),
        "PLNLogging_setLevel": (c.c_int32, [c.c_int32]),
    }
    for make in ("PLNFilePartRequest_make", "PLNFilePartRequest_makeWithHeadersArray"):
        signatures[make] = (c.c_void_p, [c.c_char_p, c.c_uint64, c.c_uint64, c.c_uint64,
                                         c.c_char_p, c.c_char_p, c.POINTER(Header), c.c_size_t])
    for name, (restype, argtypes) in signatures.items():
        getattr(lib, name).restype = restype
        getattr(lib, name).argtypes = argtypes
    return lib


INVALID, IO, TIMEOUT = -1, -3, -4
RESERVATION_PATH = "/Servlane/KvLabelService.svl/json/KvTarnProducerService"


def closed_port():
    """A loopback port nobody listens on (bound, then closed)."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


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


class CInterface(unittest.TestCase):
    def setUp(self):
        self.lib = load()
        self.dir = tempfile.TemporaryDirectory()
        self.received = os.path.join(self.dir.name, "received")
        os.mkdir(self.received)
        self.server = Server(BINARY, self.received)

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

    def submit(self, client, name, size, part):
        """Writes `size` random bytes to `name` and uploads them in parts of `part` bytes: odd
        parts through the dictionary form, even ones through the header-array form, whose
        element without a value is skipped."""
        source = make_file(os.path.join(self.dir.name, name), size)
        for number, offset in enumerate(range(0, size, part), start=1):
            url = f"{self.server.base}/upload/{name}?offset={offset}".encode()
            even = number % 2 == 0
            make = (self.lib.PLNFilePartRequest_makeWithHeadersArray if even
                    else self.lib.PLNFilePartRequest_make)
            array, count = headers(("X-Part", str(number)), *[("X-Empty", None)] * even)
            request = make(source.encode(), number, offset, min(part, size - offset), url, b"PUT",
                           array, count)
            self.assertTrue(request, self.lib.PLNLastError())
            self.lib.PLNPellorinClient_uploadPartRequest(client, request)
            self.lib.PLNFilePartRequest_release(request)
        return source

    def test_upload_reports_every_event_as_json(self):
        size = 3 * 1024 * 1024 + 17
        client = self.lib.PLNPellorinClient_standardClient(None, 2, 1)
        self.assertTrue(client)
        recorder = Recorder()
        self.lib.PLNPellorinClient_addDelegate(client, ctypes.byref(recorder.table))
        source = self.submit(client, "copy.bin", size, 1024 * 1024)
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
        self.assertEqual(sha256(os.path.join(self.received, "copy.bin")), sha256(source))

    def test_every_refusal_gives_a_code_and_a_reason(self):
        lib = self.lib
        client = lib.PLNPellorinClient_standardClient(None, 1, 0)
        largest = (2**64 - 1) // 1000
        rate = {v: ctypes.c_uint64(v) for v in (0, largest, largest + 1)}
        part = lib.PLNFilePartRequest_make(b"/a", 1, 0, 1, b"http://h/", b"PUT", None, 0)
        other = Recorder().table
        array, count = headers((None, "v"))
        # (call, expected result: a code, or None for NULL, a fragment of PLNLastError)
        cases = [
            (lambda: lib.PLNPellorinClient_standardClient(None, 0, 1), None,
             b"maxConnections must be at least 1"),
            (lambda: lib.PLNPellorinClient_standardClient(ctypes.byref(rate[largest + 1]), 1,
                                                          1), None, b"out of range"),
            (lambda: lib.PLNPellorinClient_standardClient(ctypes.byref(rate[0]), 1, 1), None,
             b"out of range"),
            (lambda: lib.PLNPellorinClient_waitUntilFinished(None), INVALID, b"client is NULL"),
            (lambda: lib.PLNPellorinClient_uploadPartRequest(None, part), INVALID,
             b"client is NULL"),
            (lambda: lib.PLNPellorinClient_uploadPartRequest(client, None), INVALID,
             b"part is NULL"),
            (lambda: lib.PLNPellorinClient_invalidateAndCancel(None), INVALID, b"client is NULL"),
            (lambda: lib.PLNPellorinClient_addDelegate(client, None), INVALID,
             b"delegate is NULL"),
            (lambda: lib.PLNPellorinClient_removeDelegate(client, ctypes.byref(other)), INVALID,
             b"no such delegate"),
            (lambda: lib.PLNPellorinClient_setIdleTimeout(client, 0), INVALID, b"above 0"),
            (lambda: lib.PLNPellorinClient_setIdleTimeout(client, math.nan), INVALID, b"finite"),
            (lambda: lib.PLNPellorinClient_setHttpVersion(client, 3), INVALID, b"PLN_HTTP_2"),
            (lambda: lib.PLNPellorinClient_setMinimumTLSVersion(client, 0x0305), INVALID,
             b"0x0301 to 0x0304"),
            (lambda: lib.PLNPellorinClient_setCAFile(client, b"/nonexistent/ca.pem"), INVALID,
             b"CA file is not a file"),
            (lambda: lib.PLNPellorinClient_setCADirectory(client, LIBRARY.encode()), INVALID,
             b"CA folder is not a folder"),
            (lambda: lib.PLNPellorinClient_setProxy(client, b"no proxy"), INVALID,
             b"proxy is not an absolute URL"),
            (lambda: lib.PLNFilePartRequest_make(b"/a", 1, 0, 1, b"not a url", b"PUT", None, 0),
             None, b"not an absolute URL"),
            (lambda: lib.PLNFilePartRequest_make(None, 1, 0, 1, b"http://h/", b"PUT", None, 0),
             None, b"filePath is NULL"),
            (lambda: lib.PLNFilePartRequest_make(b"", 1, 0, 1, b"http://h/", b"PUT", None, 0),
             None, b"filePath is empty"),
            (lambda: lib.PLNFilePartRequest_make(b"/a", 1, 0, 1, b"http://h/", b"PUT", array,
                                                 count), None, b"header name is NULL"),
            (lambda: lib.PLNReservationFile_read(None), None, b"path is NULL"),
            (lambda: lib.PLNReservationFile_partRequest(None, 0), None, b"reservation is NULL"),
            (lambda: lib.PLNLogging_setLevel(7), INVALID, b"PLN_LOG_CRITICAL"),
        ]
        for index, (call, expected, reason) in enumerate(cases):
            with self.subTest(index=index, reason=reason):
                result = call()
                self.assertEqual(result, expected)
                self.assertIn(reason, self.lib.PLNLastError())
        # The largest rate that fits is accepted, and a good call clears the reason.
        fast = lib.PLNPellorinClient_standardClient(ctypes.byref(rate[largest]), 1, 1)
        self.assertTrue(fast)
        self.assertEqual(lib.PLNLastError(), b"")
        for handle in (fast, client, None):
            self.assertEqual(lib.PLNPellorinClient_release(handle), 0)
        lib.PLNFilePartRequest_release(part)
        self.assertTrue(lib.PLNPellorinClient_versionString())

    def test_removed_delegate_is_not_called_and_proxy_setting_applies(self):
        """A proxy nobody answers on fails every part (the default ignores proxies, so the
        setting took effect); a removed table hears nothing of it."""
        client = self.lib.PLNPellorinClient_standardClient(None, 2, 0)
        kept, removed = Recorder(), Recorder()
        for recorder in (kept, removed, removed):
            self.lib.PLNPellorinClient_addDelegate(client, ctypes.byref(recorder.table))
        self.assertEqual(self.lib.PLNPellorinClient_removeDelegate(
            client, ctypes.byref(removed.table)), 0)  # both copies go
        proxy = f"http://127.0.0.1:{closed_port()}".encode()
        self.assertEqual(self.lib.PLNPellorinClient_setProxy(client, proxy), 0)
        self.assertEqual(self.lib.PLNPellorinClient_setIdleTimeout(client, 5), 0)
        self.submit(client, "proxied.bin", 2 * 1024, 1024)
        self.assertEqual(self.wait(client), 1)
        self.lib.PLNPellorinClient_release(client)
        self.assertEqual(sorted(m["partNumber"] for m in kept.named("partDidFail")), [1, 2])
        self.assertEqual(removed.events, [])

    def test_reservation_files(self):
        """A test reservation made by the receiver's stand-in service is read into parts that
        upload; faulty files are refused with the place of the fault; a service that never
        answers gives a time-out instead of blocking."""
        source = make_file(os.path.join(self.dir.name, "reserved.bin"), 300 * 1024)
        reservation = os.path.join(self.dir.name, "reservation.json")
        endpoint = (self.server.base + RESERVATION_PATH).encode()
        self.assertEqual(self.lib.PLNReservation_createTestFile(
            reservation.encode(), source.encode(), b"user", b"secret", None, endpoint, 10), 0,
            self.lib.PLNLastError())
        handle = self.lib.PLNReservationFile_read(reservation.encode())
        self.assertTrue(handle, self.lib.PLNLastError())
        client = self.lib.PLNPellorinClient_standardClient(None, 2, 0)
        for index in range(self.lib.PLNReservationFile_count(handle)):
            part = self.lib.PLNReservationFile_partRequest(handle, index)
            self.assertEqual(self.lib.PLNPellorinClient_uploadPartRequest(client, part), 0)
            self.lib.PLNFilePartRequest_release(part)
        self.assertFalse(self.lib.PLNReservationFile_partRequest(handle, 99))
        self.assertIn(b"past the last operation", self.lib.PLNLastError())
        self.lib.PLNReservationFile_release(handle)
        self.assertEqual(self.wait(client), 0)
        self.lib.PLNPellorinClient_release(client)
        self.assertEqual(sha256(os.path.join(self.received, "reserved.bin")), sha256(source))

        operation = {"method": "PUT", "uri": "http://127.0.0.1:1/x", "partNumber": 1,
                     "offset": -1, "length": 1, "expires": ""}
        bad = os.path.join(self.dir.name, "bad.json")
        for text, reason in [
            (json.dumps([{"filePath": source, "operation": operation}]),
             b"[0].operation.offset: must not be negative"),
            (json.dumps([{"filePath": source, "operation": {**operation, "offset": 0,
                                                              "method": "P T"}}]),
             b"[0].operation.method: not an HTTP method name"),
            ("null", b"reserves nothing (null)"), ("[]", b"reserves nothing ([])"),
            ("[{", bad.encode())]:
            with self.subTest(text=text):
                with open(bad, "w") as f:
                    f.write(text)
                self.assertFalse(self.lib.PLNReservationFile_read(bad.encode()))
                self.assertIn(reason, self.lib.PLNLastError())
        self.assertFalse(self.lib.PLNReservationFile_read(b"/nonexistent/reservation.json"))
        self.assertIn(b"cannot read reservation file", self.lib.PLNLastError())

        silent = f"http://127.0.0.1:{closed_port()}{RESERVATION_PATH}".encode()
        self.assertEqual(self.lib.PLNReservation_createTestFile(
            reservation.encode(), source.encode(), b"user", b"secret", None, silent, 0.5),
            TIMEOUT)
        self.assertIn(b"no answer from", self.lib.PLNLastError())
        self.assertEqual(self.lib.PLNReservation_createTestFile(
            reservation.encode(), b"/nonexistent", b"user", b"secret", None, endpoint, 1), IO)

if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--library", required=True)
    parser.add_argument("--binary", required=True)
    options, rest = parser.parse_known_args()
    LIBRARY, BINARY = os.path.abspath(options.library), os.path.abspath(options.binary)
    unittest.main(argv=[sys.argv[0], *rest])
