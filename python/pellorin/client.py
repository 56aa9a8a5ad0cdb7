"""The transfer client and its parts, over the C interface.

A Client runs one transfer: hand it parts, then wait(). Events go to the listeners given to the
client (callables taking one event dataclass), called on the library's delegate thread one at a
time; or iterate client.events(), which runs the transfer and yields them on the calling thread.
Ctrl-C during wait() or events() cancels the transfer and re-raises KeyboardInterrupt as soon as
the library has wound down (well within a second).
"""

import ctypes
import os
import queue
import sys
import threading
import traceback
from typing import Callable, Dict, Iterator, List, Optional

from . import _native, events
from ._native import lib
from .errors import StateError, check, check_pointer

Listener = Callable[[object], None]

HTTP_1_1 = 1
HTTP_2 = 2

# How often the waiting thread looks up from the wait, so that Ctrl-C is seen.
_POLL_SECONDS = 0.05


def _text(value) -> Optional[bytes]:
    return None if value is None else os.fsencode(value) if isinstance(value, os.PathLike) \
        else value.encode() if isinstance(value, str) else value


def _uninterrupted(step: Callable[[], bool]) -> None:
    """Calls step() until it returns True, going on through further Ctrl-C presses: the
    cancellation they ask for is already under way."""
    while True:
        try:
            if step():
                return
        except KeyboardInterrupt:
            pass


class Part:
    """One part of an upload: bytes [offset, offset + length) of `file_path`, sent to `url`.
    Raises InvalidArgumentError (a ValueError) for an empty path or method, or a URL that is not
    absolute. The file is read only when the part is sent."""

    def __init__(self, file_path, part_number: int, offset: int, length: int, url: str,
                 method: str = "PUT", headers: Optional[Dict[str, str]] = None, *, _handle=None):
        if _handle is None:
            array = count = None
            if headers is not None:
                array = (_native.Header * max(len(headers), 1))()
                for i, (name, value) in enumerate(headers.items()):
                    array[i] = _native.Header(_text(name), _text(value))
                count = len(headers)
            _handle = check_pointer(lib.PLNFilePartRequest_make(
                _text(os.fspath(file_path)), part_number, offset, length, _text(url),
                _text(method), array, count or 0))
        self._handle = _handle

    @property
    def file_path(self) -> str:
        return os.fsdecode(lib.PLNFilePartRequest_filePath(self._handle))

    @property
    def part_number(self) -> int:
        return lib.PLNFilePartRequest_partNumber(self._handle)

    @property
    def offset(self) -> int:
        return lib.PLNFilePartRequest_offset(self._handle)

    @property
    def length(self) -> int:
        return lib.PLNFilePartRequest_length(self._handle)

    @property
    def url(self) -> str:
        return lib.PLNFilePartRequest_url(self._handle).decode()

    @property
    def method(self) -> str:
        return lib.PLNFilePartRequest_method(self._handle).decode()

    def __repr__(self):
        return (f"Part({self.file_path!r}, {self.part_number}, {self.offset}, {self.length}, "
                f"{self.url!r}, {self.method!r})")

    def __del__(self):
        if getattr(self, "_handle", None):
            lib.PLNFilePartRequest_release(self._handle)
            self._handle = None


def split_file(file_path, part_size: int, url_for: Callable[[int, int, int], str],
               method: str = "PUT") -> List[Part]:
    """The parts of a whole file in pieces of `part_size` bytes (one empty part for an empty
    file); `url_for(part_number, offset, length)` gives each part's URL. Parts count from 1."""
    if part_size <= 0:
        raise ValueError("part_size must be above 0")
    size = os.path.getsize(file_path)
    offsets = range(0, size, part_size) if size else [0]
    return [Part(file_path, number, offset, min(part_size, size - offset),
                 url_for(number, offset, min(part_size, size - offset)), method)
            for number, offset in enumerate(offsets, start=1)]


def read_reservation(path) -> List[Part]:
    """The parts of a reservation file, checked (method, http/https URL, no negative number).
    Raises InvalidArgumentError naming the JSON place of a fault, FileError when unreadable."""
    handle = check_pointer(lib.PLNReservationFile_read(_text(os.fspath(path))))
    try:
        return [Part(None, 0, 0, 0, "", _handle=check_pointer(
            lib.PLNReservationFile_partRequest(handle, i)))
            for i in range(lib.PLNReservationFile_count(handle))]
    finally:
        lib.PLNReservationFile_release(handle)


def create_test_reservation(reservation_file, file_path, username: str, password: str,
                            endpoint: str, provider: Optional[str] = None,
                            timeout: float = 30.0) -> None:
    """Asks the reservation service at `endpoint` for test upload operations for `file_path` and
    writes them to `reservation_file`. The request, password included, is printed to standard
    output. Raises NoAnswerError after `timeout` seconds without an answer."""
    check(lib.PLNReservation_createTestFile(
        _text(os.fspath(reservation_file)), _text(os.fspath(file_path)), _text(username),
        _text(password), _text(provider), _text(endpoint), float(timeout)))


def service_endpoint(instance: int) -> str:
    """The endpoint of reservation service instance `instance` (0 to 255)."""
    return lib.PLNReservation_serviceEndpoint(instance).decode()


class Client:
    """A client for one transfer.

    max_connections: parts in flight at once (at least 1); max_retries: retries per part;
    rate_limit: KB/s for all parts together, None for no limit; the session settings as in the C
    interface (ca_file, ca_directory, proxy, http_version HTTP_1_1 or HTTP_2, idle_timeout in
    seconds, minimum_tls_version 0x0301 to 0x0304). listeners: callables taking one event.
    """

    def __init__(self, max_connections: int = 4, max_retries: int = 3,
                 rate_limit: Optional[int] = None, *, ca_file=None, ca_directory=None,
                 proxy: Optional[str] = None, http_version: Optional[int] = None,
                 idle_timeout: Optional[float] = None, minimum_tls_version: Optional[int] = None,
                 listeners: tuple = ()):
        for name, value, top in (("max_connections", max_connections, 255),
                                 ("max_retries", max_retries, 255)):
            if not 0 <= value <= top:
                raise ValueError(f"{name} must be 0 to {top}, not {value}")
        rate = None
        if rate_limit is not None:
            if not 0 <= rate_limit < 2 ** 64:
                raise ValueError(f"rate_limit must be 0 to 2**64 - 1, not {rate_limit}")
            rate = ctypes.byref(ctypes.c_uint64(rate_limit))
        self._handle = check_pointer(
            lib.PLNPellorinClient_standardClient(rate, max_connections, max_retries))
        self._listeners: List[Listener] = list(listeners)
        self._listeners_lock = threading.Lock()
        self.finished: Optional[events.Finished] = None
        self._table = self._make_table()
        check(lib.PLNPellorinClient_addDelegate(self._handle, ctypes.byref(self._table)))
        settings = ((lib.PLNPellorinClient_setCAFile, ca_file and _text(os.fspath(ca_file))),
                    (lib.PLNPellorinClient_setCADirectory,
                     ca_directory and _text(os.fspath(ca_directory))),
                    (lib.PLNPellorinClient_setProxy, _text(proxy)),
                    (lib.PLNPellorinClient_setHttpVersion, http_version),
                    (lib.PLNPellorinClient_setIdleTimeout, idle_timeout),
                    (lib.PLNPellorinClient_setMinimumTLSVersion, minimum_tls_version))
        try:
            for setter, value in settings:
                if value is not None:
                    check(setter(self._handle, value))
        except BaseException:
            self.close()
            raise

    # -- events ------------------------------------------------------------------------------

    def _make_table(self) -> _native.Delegate:
        def entry(name):
            return _native.EVENT(lambda _c, _h, text: self._dispatch(events.decode(name, text)))

        def finish(_c, _h, status, text):
            self.finished = events.decode_finish(status, text)
            self._dispatch(self.finished)

        # Kept on the object: ctypes callbacks must outlive every call into them.
        self._callbacks = [entry(name) for name in _native.EVENT_NAMES] + [_native.FINISH(finish)]
        return _native.Delegate(None, *self._callbacks)

    def _dispatch(self, event) -> None:
        with self._listeners_lock:
            listeners = list(self._listeners)
        for listener in listeners:
            try:
                listener(event)
            except Exception:  # an exception cannot travel back through C: report it here
                traceback.print_exc(file=sys.stderr)

    def add_listener(self, listener: Listener) -> None:
        with self._listeners_lock:
            self._listeners.append(listener)

    def remove_listener(self, listener: Listener) -> None:
        with self._listeners_lock:
            self._listeners.remove(listener)

    # -- the transfer --------------------------------------------------------------------------

    def upload(self, part: Part) -> None:
        """Queues a part. Raises StateError once the transfer has started or was cancelled."""
        check(lib.PLNPellorinClient_uploadPartRequest(self._live(), part._handle))

    def upload_all(self, parts) -> None:
        for part in parts:
            self.upload(part)

    def wait(self) -> int:
        """Runs the transfer; 0 when every part is on the server, 1 when a part failed. Ctrl-C
        cancels the transfer and re-raises KeyboardInterrupt once it has wound down."""
        handle = self._live()
        result: List[int] = []
        done = threading.Event()

        def run():
            try:
                result.append(lib.PLNPellorinClient_waitUntilFinished(handle))
            finally:
                done.set()

        # The wait runs on a worker so that this thread stays free to see Ctrl-C. An Event, not
        # Thread.join: a join interrupted by Ctrl-C may take a running thread for ended.
        threading.Thread(target=run, name="pellorin-wait", daemon=True).start()
        try:
            while not done.wait(_POLL_SECONDS):
                pass
        except KeyboardInterrupt:
            self.cancel()
            _uninterrupted(lambda: done.wait(_POLL_SECONDS))
            raise
        return check(result[0])

    def events(self) -> Iterator[object]:
        """Runs the transfer and yields its events on the calling thread, ending with Finished."""
        mailbox: "queue.Queue" = queue.Queue()
        self.add_listener(mailbox.put)
        outcome: List[BaseException] = []

        def run():
            try:
                self.wait()
            except BaseException as error:  # handed to the iterating thread
                outcome.append(error)
            mailbox.put(None)

        threading.Thread(target=run, name="pellorin-events", daemon=True).start()
        try:
            while True:
                try:
                    event = mailbox.get(timeout=_POLL_SECONDS)
                except queue.Empty:
                    continue
                if event is None:
                    break
                yield event
        except (KeyboardInterrupt, GeneratorExit):
            self.cancel()

            def drained():  # the transfer's last events, up to the end mark
                try:
                    return mailbox.get(timeout=_POLL_SECONDS) is None
                except queue.Empty:
                    return False
            _uninterrupted(drained)
            raise
        finally:
            self.remove_listener(mailbox.put)
        if outcome:
            raise outcome[0]

    def cancel(self) -> None:
        """Parts in flight end as cancelled, waiting parts fail. Any thread; returns at once."""
        if self._handle:
            check(lib.PLNPellorinClient_invalidateAndCancel(self._handle))

    def close(self) -> None:
        """Releases the library's client. Raises StateError while the transfer runs."""
        if self._handle:
            check(lib.PLNPellorinClient_release(self._handle))
            self._handle = None

    def _live(self):
        if not self._handle:
            raise StateError("client closed", _native.ERROR_STATE)
        return self._handle

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            lib.PLNPellorinClient_release(self._handle)
