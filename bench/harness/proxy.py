"""A counting TCP relay on 127.0.0.1 for the rate-limit scenario.

The client under test connects to the relay, which forwards every byte both ways to the receiver
and notes, for the client-to-server direction, how many bytes arrived in each 10 ms slot. Those
are the bytes the client put on the wire (request heads and bodies), timed when they came out of
the socket, independent of anything the client reports about itself. The relay reads as fast as
bytes come, so it never slows the sender down at the rates measured here.

Clients keep connections alive, so one connection carries several requests: the relay follows the
request heads and their Content-Length in the client's stream and counts each request's bytes on
their own."""

import socket
import threading
import time

SLOT_S = 0.01


class CountingRelay:
    def __init__(self, target_port):
        self._target = ("127.0.0.1", target_port)
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(64)
        self.port = self._listener.getsockname()[1]
        self._lock = threading.Lock()
        self._origin = time.monotonic()  # guarded by _lock
        self._requests = []  # every request since reset(), in order; guarded by _lock
        self._open = []  # live connection pairs; guarded by _lock
        self._stopping = False
        threading.Thread(target=self._accept, daemon=True).start()

    def url(self, name, offset):
        return f"http://127.0.0.1:{self.port}/upload/{name}?offset={offset}"

    def reset(self):
        with self._lock:
            self._requests = []
            self._origin = time.monotonic()

    def slots(self, skip_first_finished=False):
        """Bytes per 10 ms slot, from the first slot with bytes to the last, as a list. With
        `skip_first_finished`, without the bytes of the request that finished first."""
        with self._lock:
            requests = [(r.finished or float("inf"), dict(r.slots)) for r in self._requests]
        if skip_first_finished and requests:
            requests.remove(min(requests, key=lambda r: r[0]))
        total = {}
        for _, slots in requests:
            for slot, count in slots.items():
                total[slot] = total.get(slot, 0) + count
        if not total:
            return []
        first, last = min(total), max(total)
        return [total.get(i, 0) for i in range(first, last + 1)]

    def stop(self):
        self._stopping = True
        with self._lock:
            pairs = list(self._open)
        for closable in [self._listener] + pairs:
            closable.close()

    def _accept(self):
        while not self._stopping:
            try:
                client, _ = self._listener.accept()
                server = socket.create_connection(self._target)
            except OSError:
                return
            pair = _Pair(client, server)
            with self._lock:
                self._open.append(pair)
            threading.Thread(target=self._pump, args=(pair, client, server, True),
                             daemon=True).start()
            threading.Thread(target=self._pump, args=(pair, server, client, False),
                             daemon=True).start()

    def _pump(self, pair, source, sink, counted):
        try:
            while True:
                data = source.recv(256 * 1024)
                if not data:
                    break
                if counted:
                    self._count(pair, data)
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass
        if counted:
            with self._lock:
                if pair.request is not None and pair.request.finished is None:
                    pair.request.finished = time.monotonic()
        if pair.one_done():
            with self._lock:
                self._open.remove(pair)
            pair.close()


    def _count(self, pair, data):
        """Splits the client's bytes between the requests they belong to: a head runs up to its
        blank line, then Content-Length bytes of body follow."""
        with self._lock:
            now = time.monotonic()
            slot = int((now - self._origin) / SLOT_S)
            view = memoryview(data)
            while view:
                if pair.request is None or pair.request.finished is not None:
                    pair.request = _Request()
                    pair.head = b""
                    pair.body_left = None
                    self._requests.append(pair.request)
                request = pair.request
                if pair.body_left is None:
                    seen = len(pair.head)
                    pair.head += bytes(view[:64 * 1024])
                    end = pair.head.find(b"\r\n\r\n")
                    if end < 0:
                        taken = len(pair.head) - seen
                    else:
                        taken = end + 4 - seen
                        pair.body_left = _content_length(pair.head[:end])
                        pair.head = b""
                else:
                    taken = min(len(view), pair.body_left)
                    pair.body_left -= taken
                request.slots[slot] = request.slots.get(slot, 0) + taken
                view = view[taken:]
                if pair.body_left == 0:
                    request.finished = now


def _content_length(head):
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.strip().lower() == b"content-length":
            return int(value.strip())
    return 0


class _Request:
    """The client-to-server bytes of one request, per slot, and when its last byte came."""

    def __init__(self):
        self.slots = {}
        self.finished = None


class _Pair:
    """A client connection and its connection to the receiver; closed when both pumps end."""

    def __init__(self, client, server):
        self._sockets = (client, server)
        self._lock = threading.Lock()
        self._done = 0
        # The request being received, its head so far and the body bytes still to come (None
        # while the head is incomplete); guarded by the relay's lock.
        self.request = None
        self.head = b""
        self.body_left = None

    def one_done(self):
        with self._lock:
            self._done += 1
            return self._done == 2

    def close(self):
        for s in self._sockets:
            try:
                s.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            s.close()


def windows(slots, window_s=1.0):
    """Sums of every run of consecutive slots lasting `window_s` (a sliding window, 10 ms steps):
    the bytes sent in each one-second window of the transfer."""
    width = round(window_s / SLOT_S)
    if len(slots) < width:
        return []
    total = sum(slots[:width])
    sums = [total]
    for i in range(width, len(slots)):
        total += slots[i] - slots[i - width]
        sums.append(total)
    return sums
