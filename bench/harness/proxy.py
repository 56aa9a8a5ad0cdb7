"""A counting TCP relay on 127.0.0.1 for the rate-limit scenario.

The client under test connects to the relay, which forwards every byte both ways to the receiver
and notes, for the client-to-server direction, how many bytes arrived in each 10 ms slot. Those
are the bytes the client put on the wire (request heads and bodies), timed when they came out of
the socket, independent of anything the client reports about itself. The relay reads as fast as
bytes come, so it never slows the sender down at the rates measured here."""

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
        self._connections = []  # every connection since reset(), in order; guarded by _lock
        self._open = []  # live connection pairs; guarded by _lock
        self._stopping = False
        threading.Thread(target=self._accept, daemon=True).start()

    def url(self, name, offset):
        return f"http://127.0.0.1:{self.port}/upload/{name}?offset={offset}"

    def reset(self):
        with self._lock:
            self._connections = []
            self._origin = time.monotonic()

    def slots(self, skip_first_finished=False):
        """Bytes per 10 ms slot, from the first slot with bytes to the last, as a list. With
        `skip_first_finished`, without the bytes of the connection that finished first."""
        with self._lock:
            connections = [(c.finished or float("inf"), dict(c.slots)) for c in self._connections]
        if skip_first_finished and connections:
            connections.remove(min(connections, key=lambda c: c[0]))
        total = {}
        for _, slots in connections:
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
                self._connections.append(pair)
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
                    with self._lock:
                        slot = int((time.monotonic() - self._origin) / SLOT_S)
                        pair.slots[slot] = pair.slots.get(slot, 0) + len(data)
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass
        if counted:
            with self._lock:
                pair.finished = time.monotonic()
        if pair.one_done():
            with self._lock:
                self._open.remove(pair)
            pair.close()


class _Pair:
    """A client connection and its connection to the receiver; closed when both pumps end."""

    def __init__(self, client, server):
        self._sockets = (client, server)
        self._lock = threading.Lock()
        self._done = 0
        self.slots = {}  # client-to-server bytes per slot; guarded by the relay's lock
        self.finished = None  # when the client's side ended; guarded by the relay's lock

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
