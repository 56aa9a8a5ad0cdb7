"""`pellorin serve` run in the background for the end-to-end tests, and small file helpers.
Standard library only; every wait is bounded."""

import hashlib
import json
import os
import re
import select
import signal
import subprocess


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def make_file(path, size):
    with open(path, "wb") as f:
        f.write(os.urandom(size))
    return path


def reservation(path, file_path, size, part_size, url_for):
    """Writes a reservation file cutting `file_path` into parts sent to url_for(offset)."""
    pairs = [{"filePath": file_path, "operation": {
        "method": "PUT", "uri": url_for(offset), "partNumber": number, "offset": offset,
        "length": min(part_size, size - offset), "expires": "2099-01-01T00:00:00Z"}}
        for number, offset in enumerate(range(0, size, part_size), start=1)]
    with open(path, "w") as f:
        json.dump(pairs, f)
    return pairs


class Server:
    """The receiver assembling uploads in `directory`; its request lines are kept when it stops."""

    def __init__(self, binary, directory, port=0):
        self.process = subprocess.Popen([binary, "serve", "--dir", directory, "--port", str(port)],
                                        stdout=subprocess.PIPE, text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], 10)
        assert ready, "serve said nothing"
        first = self.process.stdout.readline()
        match = re.search(r"http://127\.0\.0\.1:\d+", first)
        assert match, first
        self.base = match.group(0)
        self.port = int(self.base.rsplit(":", 1)[1])
        self.lines = []

    def stop(self):
        """Stops the receiver (once; later calls return the same status)."""
        if self.process.returncode is not None:
            return self.process.returncode
        self.process.send_signal(signal.SIGINT)
        rest, _ = self.process.communicate(timeout=10)
        self.lines += rest.splitlines()
        return self.process.returncode

    def accepted(self):
        """Part numbers of the requests answered with a checksum, in the order they ended."""
        return [int(re.search(r"part=(\d+)", line).group(1)) for line in self.lines
                if " accepted " in line and "part=-" not in line]
