"""Uploads large files to an HTTP upload service in parts, verifying each part against the
checksum the server returns. A thin typed layer over the library's C interface.

    import pellorin
    with pellorin.Client(max_connections=4) as client:
        client.upload_all(pellorin.split_file("big.bin", 8 << 20,
                                              lambda n, offset, length: f"{url}?part={n}"))
        for event in client.events():
            print(event)
    # client.finished.status == 0: every part is on the server
"""

from . import logs
from ._native import lib as _lib
from .client import (HTTP_1_1, HTTP_2, Client, Part, create_test_reservation, read_reservation,
                     service_endpoint, split_file)
from .errors import (FileError, InvalidArgumentError, PellorinError, StateError,
                     NoAnswerError)
from .events import (ErrorInfo, FileProgress, Finished, LogMessage, PartCompleted, PartFailed,
                     PartProgress, PartRetry, PartStarted)

__version__ = (_lib.PLNPellorinClient_versionString() or b"").decode() or "unknown"

__all__ = [
    "Client", "Part", "split_file", "read_reservation", "create_test_reservation",
    "service_endpoint", "HTTP_1_1", "HTTP_2", "logs",
    "PellorinError", "InvalidArgumentError", "StateError", "FileError", "NoAnswerError",
    "ErrorInfo", "LogMessage", "PartStarted", "PartProgress", "PartRetry", "PartCompleted",
    "PartFailed", "FileProgress", "Finished",
]
