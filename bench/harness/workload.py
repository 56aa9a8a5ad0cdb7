"""The files the scenarios upload, the reservation files `pellorin upload` reads and the curl
configurations that send the same parts. Everything lives under one temporary directory on disk,
made once per run."""

import json
import os

MiB = 1024 * 1024
GiB = 1024 * MiB

_BLOCK = 16 * MiB


def make_file(path, size):
    """A file of `size` incompressible bytes (a random 16 MiB block, repeated, each copy with its
    own first 16 bytes so that no two parts are equal). Kept when it already has that size."""
    if os.path.exists(path) and os.path.getsize(path) == size:
        return path
    block = bytearray(os.urandom(_BLOCK))
    with open(path, "wb") as f:
        written = 0
        while written < size:
            block[:16] = os.urandom(16)
            chunk = min(_BLOCK, size - written)
            f.write(memoryview(block)[:chunk])
            written += chunk
    return path


def parts(size, part_size):
    """(partNumber, offset, length) of each part, numbered from 1, the last one shorter."""
    return [(i + 1, off, min(part_size, size - off))
            for i, off in enumerate(range(0, size, part_size))]


def write_reservation(path, file_path, size, part_size, url_for):
    """The reservation file `pellorin upload --reservation` reads: one operation pair per part,
    each a PUT of the part's range to `url_for(name, offset)`."""
    name = os.path.basename(file_path)
    pairs = [{
        "filePath": file_path,
        "operation": {
            "method": "PUT",
            "uri": url_for(name, offset),
            "partNumber": number,
            "offset": offset,
            "length": length,
            "expires": "2099-01-01T00:00:00Z",
        },
    } for number, offset, length in parts(size, part_size)]
    with open(path, "w") as f:
        json.dump(pairs, f)
    return path


def cut_parts(file_path, part_size, directory):
    """Each part of the file copied into a file of its own (once), so that curl reads a whole
    file per transfer and does not pay for cutting while it is timed. Returns their paths."""
    os.makedirs(directory, exist_ok=True)
    size = os.path.getsize(file_path)
    paths = []
    with open(file_path, "rb") as source:
        for number, offset, length in parts(size, part_size):
            path = os.path.join(directory, f"part{number:05d}")
            if not (os.path.exists(path) and os.path.getsize(path) == length):
                source.seek(offset)
                with open(path, "wb") as out:
                    out.write(source.read(length))
            paths.append(path)
    return paths


def write_curl_config(path, file_path, part_paths, part_size, url_for):
    """A curl config (-K) uploading each pre-cut part with PUT to the URL pellorin would use.
    "Expect:" switches off curl's 100-continue wait, as pellorin does."""
    name = os.path.basename(file_path)
    with open(path, "w") as f:
        f.write('header = "Expect:"\n')
        for index, part_path in enumerate(part_paths):
            f.write(f'upload-file = "{part_path}"\n')
            f.write(f'url = "{url_for(name, index * part_size)}"\n')
            f.write('output = "/dev/null"\n')
    return path


def read_through(path):
    """Reads the file once so that it sits in the page cache before anything is timed."""
    with open(path, "rb") as f:
        while f.read(8 * MiB):
            pass
