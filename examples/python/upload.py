#!/usr/bin/env python3
"""Uploads a file in parts to a server and prints the outcome.

    python3 upload.py FILE URL [--part-size BYTES] [--connections N] [--retries N]

URL may hold {part}, {offset} and {length}, filled in for each part; without any of them,
"offset=<offset>" is added to its query. Exit status 0 means every part is on the server,
verified; 1 that a part failed; 130 after Ctrl-C, which cancels the transfer.
"""

import argparse
import sys

import pellorin


def part_url(template):
    if any(key in template for key in ("{part}", "{offset}", "{length}")):
        return lambda number, offset, length: template.format(part=number, offset=offset,
                                                              length=length)
    separator = "&" if "?" in template else "?"
    return lambda number, offset, length: f"{template}{separator}offset={offset}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("file")
    parser.add_argument("url")
    parser.add_argument("--part-size", type=int, default=8 << 20)
    parser.add_argument("--connections", type=int, default=4)
    parser.add_argument("--retries", type=int, default=3)
    options = parser.parse_args()

    pellorin.logs.set_destination("stderr")  # keep standard output for the outcome
    try:
        client = pellorin.Client(max_connections=options.connections,
                                 max_retries=options.retries)
        client.upload_all(pellorin.split_file(options.file, options.part_size,
                                              part_url(options.url)))
    except (pellorin.PellorinError, OSError, ValueError) as error:
        print(f"upload.py: {error}", file=sys.stderr)
        return 2

    def report(event):
        if isinstance(event, pellorin.PartCompleted):
            print(f"part {event.part_number} done")
        elif isinstance(event, pellorin.PartFailed):
            reasons = "; ".join(e.message for e in event.errors) or "no reason given"
            print(f"part {event.part_number} FAILED: {reasons}")

    client.add_listener(report)
    try:
        status = client.wait()
    except KeyboardInterrupt:
        print("cancelled", file=sys.stderr)
        return 130
    finished = client.finished
    print(f"{'OK' if status == 0 else 'FAILED'}: {finished.parts_sent} of "
          f"{finished.total_parts_requested} parts, {finished.bytes_sent} bytes, "
          f"{finished.failure_count} failed, {finished.elapsed_time_secs:.2f} s")
    return status


if __name__ == "__main__":
    sys.exit(main())
