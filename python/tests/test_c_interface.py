"""The C interface (<pellorin/pellorin.h>) called directly through the module's ctypes
declarations: a real upload with every event seen as JSON, every refusal with a code and a reason
(never a stop or a hang), a removed delegate table and the proxy setting, and reservation files.
Calls made during the wait are tested in process by tests/tools/CInterfaceTest.cpp, so that the
sanitizer builds see them; cancellation through the module's Ctrl-C test."""

import ctypes
import hashlib
import json
import math
import os
import socket
import threading

from pellorin._native import (EVENT, EVENT_NAMES, ERROR_INVALID_ARGUMENT as INVALID, ERROR_IO,
                              ERROR_TIMEOUT, FINISH, Delegate, Header, lib)

RESERVATION_PATH = "/Servlane/KvLabelService.svl/json/KvTarnProducerService"
# The header-array form is not used by the module; declared here like PLNFilePartRequest_make.
lib.PLNFilePartRequest_makeWithHeadersArray.restype = lib.PLNFilePartRequest_make.restype
lib.PLNFilePartRequest_makeWithHeadersArray.argtypes = lib.PLNFilePartRequest_make.argtypes


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


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
    """A delegate table whose callbacks keep (event, decoded JSON, status) in arrival order."""

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

    def numbers(self, name):
        return sorted(message["partNumber"] for event, message, _ in self.events if event == name)


def wait(client):
    """waitUntilFinished on a thread of its own, bounded."""
    result = []
    waiter = threading.Thread(target=lambda: result.append(
        lib.PLNPellorinClient_waitUntilFinished(client)))
    waiter.start()
    waiter.join(30)
    if waiter.is_alive():
        lib.PLNPellorinClient_invalidateAndCancel(client)
        waiter.join(10)
        raise AssertionError("the transfer did not finish")
    return result[0]


def submit(client, receiver, source, size, part):
    """Uploads `size` random bytes written to `source` in parts of `part` bytes: odd parts through
    the dictionary form, even ones through the header-array form, whose element without a value
    is skipped."""
    source.write_bytes(os.urandom(size))
    for number, offset in enumerate(range(0, size, part), start=1):
        even = number % 2 == 0
        make = lib.PLNFilePartRequest_makeWithHeadersArray if even else lib.PLNFilePartRequest_make
        array, count = headers(("X-Part", str(number)), *[("X-Empty", None)] * even)
        request = make(bytes(source), number, offset, min(part, size - offset),
                       receiver.url(source.name)(number, offset, part).encode(), b"PUT", array,
                       count)
        assert request, lib.PLNLastError()
        lib.PLNPellorinClient_uploadPartRequest(client, request)
        lib.PLNFilePartRequest_release(request)


def test_upload_reports_every_event_as_json(receiver, tmp_path):
    size = 3 * 1024 * 1024 + 17
    client = lib.PLNPellorinClient_standardClient(None, 2, 1)
    recorder = Recorder()
    lib.PLNPellorinClient_addDelegate(client, ctypes.byref(recorder.table))
    submit(client, receiver, tmp_path / "copy.bin", size, 1024 * 1024)
    assert wait(client) == 0
    lib.PLNPellorinClient_release(client)

    assert recorder.numbers("didStartPart") == recorder.numbers("partDidComplete") == [1, 2, 3, 4]
    progress = [m for event, m, _ in recorder.events if event == "didReceivePartProgress"]
    assert sum(m["bytesSent"] for m in progress) == size
    assert all({"path", "partNumber", "partSize", "totalBytesSent"} <= m.keys() for m in progress)
    name, metrics, status = recorder.events[-1]
    assert (name, status) == ("didFinishWithStatus", 0)
    assert (metrics["partsSent"], metrics["bytesSent"], metrics["failureCount"]) == (4, size, 0)
    assert sha256(receiver.directory / "copy.bin") == sha256(tmp_path / "copy.bin")


def test_every_refusal_gives_a_code_and_a_reason(tmp_path):
    client = lib.PLNPellorinClient_standardClient(None, 1, 0)
    largest = (2**64 - 1) // 1000
    rate = {v: ctypes.c_uint64(v) for v in (0, largest, largest + 1)}
    part = lib.PLNFilePartRequest_make(b"/a", 1, 0, 1, b"http://h/", b"PUT", None, 0)
    other = Recorder().table
    array, count = headers((None, "v"))
    not_a_folder = bytes(tmp_path / "file")
    open(not_a_folder, "w").close()
    # (call, expected result: a code, or None for NULL, a fragment of PLNLastError)
    cases = [
        (lambda: lib.PLNPellorinClient_standardClient(None, 0, 1), None,
         b"maxConnections must be at least 1"),
        (lambda: lib.PLNPellorinClient_standardClient(ctypes.byref(rate[largest + 1]), 1, 1),
         None, b"out of range"),
        (lambda: lib.PLNPellorinClient_standardClient(ctypes.byref(rate[0]), 1, 1), None,
         b"out of range"),
        (lambda: lib.PLNPellorinClient_waitUntilFinished(None), INVALID, b"client is NULL"),
        (lambda: lib.PLNPellorinClient_uploadPartRequest(None, part), INVALID, b"client is NULL"),
        (lambda: lib.PLNPellorinClient_uploadPartRequest(client, None), INVALID, b"part is NULL"),
        (lambda: lib.PLNPellorinClient_invalidateAndCancel(None), INVALID, b"client is NULL"),
        (lambda: lib.PLNPellorinClient_addDelegate(client, None), INVALID, b"delegate is NULL"),
        (lambda: lib.PLNPellorinClient_removeDelegate(client, ctypes.byref(other)), INVALID,
         b"no such delegate"),
        (lambda: lib.PLNPellorinClient_setIdleTimeout(client, 0), INVALID, b"above 0"),
        (lambda: lib.PLNPellorinClient_setIdleTimeout(client, math.nan), INVALID, b"finite"),
        (lambda: lib.PLNPellorinClient_setHttpVersion(client, 3), INVALID, b"PLN_HTTP_2"),
        (lambda: lib.PLNPellorinClient_setMinimumTLSVersion(client, 0x0305), INVALID,
         b"0x0301 to 0x0304"),
        (lambda: lib.PLNPellorinClient_setCAFile(client, b"/nonexistent/ca.pem"), INVALID,
         b"CA file is not a file"),
        (lambda: lib.PLNPellorinClient_setCADirectory(client, not_a_folder), INVALID,
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
    for call, expected, reason in cases:
        assert call() == expected, reason
        assert reason in lib.PLNLastError()
    # The largest rate that fits is accepted, and a good call clears the reason.
    fast = lib.PLNPellorinClient_standardClient(ctypes.byref(rate[largest]), 1, 1)
    assert fast and lib.PLNLastError() == b""
    for handle in (fast, client, None):
        assert lib.PLNPellorinClient_release(handle) == 0
    lib.PLNFilePartRequest_release(part)


def test_removed_delegate_is_not_called_and_proxy_setting_applies(receiver, tmp_path):
    """A proxy nobody answers on fails every part (the default ignores proxies, so the setting
    took effect); a removed table hears nothing of it."""
    client = lib.PLNPellorinClient_standardClient(None, 2, 0)
    kept, removed = Recorder(), Recorder()
    for recorder in (kept, removed, removed):
        lib.PLNPellorinClient_addDelegate(client, ctypes.byref(recorder.table))
    assert lib.PLNPellorinClient_removeDelegate(client, ctypes.byref(removed.table)) == 0
    assert lib.PLNPellorinClient_setProxy(client, f"http://127.0.0.1:{closed_port()}".encode()) == 0
    assert lib.PLNPellorinClient_setIdleTimeout(client, 5) == 0
    submit(client, receiver, tmp_path / "proxied.bin", 2 * 1024, 1024)
    assert wait(client) == 1
    lib.PLNPellorinClient_release(client)
    assert kept.numbers("partDidFail") == [1, 2]
    assert removed.events == []  # both copies went


def test_reservation_files(receiver, tmp_path):
    """A test reservation made by the receiver's stand-in service is read into parts that upload;
    faulty files are refused with the place of the fault; a service that never answers gives a
    time-out instead of blocking."""
    source = tmp_path / "reserved.bin"
    source.write_bytes(os.urandom(300 * 1024))
    reservation = bytes(tmp_path / "reservation.json")
    endpoint = (receiver.base + RESERVATION_PATH).encode()
    assert lib.PLNReservation_createTestFile(reservation, bytes(source), b"user", b"secret", None,
                                             endpoint, 10) == 0, lib.PLNLastError()
    handle = lib.PLNReservationFile_read(reservation)
    assert handle, lib.PLNLastError()
    client = lib.PLNPellorinClient_standardClient(None, 2, 0)
    for index in range(lib.PLNReservationFile_count(handle)):
        part = lib.PLNReservationFile_partRequest(handle, index)
        assert lib.PLNPellorinClient_uploadPartRequest(client, part) == 0
        lib.PLNFilePartRequest_release(part)
    assert not lib.PLNReservationFile_partRequest(handle, 99)
    assert b"past the last operation" in lib.PLNLastError()
    lib.PLNReservationFile_release(handle)
    assert wait(client) == 0
    lib.PLNPellorinClient_release(client)
    assert sha256(receiver.directory / "reserved.bin") == sha256(source)

    operation = {"method": "PUT", "uri": "http://127.0.0.1:1/x", "partNumber": 1, "offset": -1,
                 "length": 1, "expires": ""}
    bad = tmp_path / "bad.json"
    for text, reason in [
            (json.dumps([{"filePath": str(source), "operation": operation}]),
             b"[0].operation.offset: must not be negative"),
            (json.dumps([{"filePath": str(source),
                          "operation": {**operation, "offset": 0, "method": "P T"}}]),
             b"[0].operation.method: not an HTTP method name"),
            ("null", b"reserves nothing (null)"), ("[]", b"reserves nothing ([])"),
            ("[{", bytes(bad)), ]:
        bad.write_text(text)
        assert not lib.PLNReservationFile_read(bytes(bad)), text
        assert reason in lib.PLNLastError()
    assert not lib.PLNReservationFile_read(b"/nonexistent/reservation.json")
    assert b"cannot read reservation file" in lib.PLNLastError()

    silent = f"http://127.0.0.1:{closed_port()}{RESERVATION_PATH}".encode()
    assert lib.PLNReservation_createTestFile(reservation, bytes(source), b"user", b"secret", None,
                                             silent, 0.5) == ERROR_TIMEOUT
    assert b"no answer from" in lib.PLNLastError()
    assert lib.PLNReservation_createTestFile(reservation, b"/nonexistent", b"user", b"secret",
                                             None, endpoint, 1) == ERROR_IO
