"""The client's events as dataclasses, decoded from the JSON the library hands over."""

import json
import re
from dataclasses import dataclass, field, fields
from typing import Dict, List, Optional


def _snake(name: str) -> str:
    return re.sub(r"(?<=[a-z0-9])([A-Z])", r"_\1", name).lower()


def _build(kind, data: dict):
    """`kind` from the JSON object `data`, camelCase keys to snake_case; unknown keys dropped."""
    names = {f.name for f in fields(kind)}
    values = {_snake(key): value for key, value in data.items()}
    return kind(**{key: value for key, value in values.items() if key in names})


@dataclass(frozen=True)
class ErrorInfo:
    domain: str = ""
    code: int = 0
    message: str = ""
    user_info: Optional[Dict[str, str]] = None


@dataclass(frozen=True)
class LogMessage:
    level: str = ""
    message: str = ""


@dataclass(frozen=True)
class PartStarted:
    path: str = ""
    part_number: int = 0
    retry_count: int = 0


@dataclass(frozen=True)
class PartProgress:
    path: str = ""
    part_number: int = 0
    part_size: int = 0
    bytes_sent: int = 0
    total_bytes_sent: int = 0


@dataclass(frozen=True)
class PartRetry:
    path: str = ""
    part_number: int = 0
    lost_bytes: int = 0
    retry_count: int = 0
    wait_secs: float = 0.0
    error: Optional[ErrorInfo] = None


@dataclass(frozen=True)
class PartCompleted:
    path: str = ""
    part_number: int = 0
    e_tag: str = ""


@dataclass(frozen=True)
class PartFailed:
    path: str = ""
    part_number: int = 0
    url: str = ""
    errors: List[ErrorInfo] = field(default_factory=list)


@dataclass(frozen=True)
class FileProgress:
    path: str = ""
    file_size: int = 0
    bytes_sent: int = 0


@dataclass(frozen=True)
class Finished:
    """The end of the transfer: `status` 0 when every part is on the server, 1 otherwise."""
    status: int = 0
    total_parts_requested: int = 0
    bytes_sent: int = 0
    bytes_lost: int = 0
    parts_sent: int = 0
    retry_count: int = 0
    failure_count: int = 0
    elapsed_time_secs: float = 0.0
    throughput: float = 0.0
    throughput_uom: str = ""


# The C delegate table's entries and the event each one carries.
KINDS = {
    "logMessage": LogMessage,
    "didStartPart": PartStarted,
    "didReceivePartProgress": PartProgress,
    "willRetryPart": PartRetry,
    "partDidComplete": PartCompleted,
    "partDidFail": PartFailed,
    "didReceiveFileProgress": FileProgress,
}


def decode(entry: str, text: bytes):
    """The event for delegate entry `entry` from its JSON text."""
    data = json.loads(text.decode())
    event = _build(KINDS[entry], data)
    if isinstance(event, PartRetry) and isinstance(data.get("error"), dict):
        event = PartRetry(**{**event.__dict__, "error": _build(ErrorInfo, data["error"])})
    if isinstance(event, PartFailed):
        errors = [_build(ErrorInfo, e) for e in data.get("errors") or [] if isinstance(e, dict)]
        event = PartFailed(**{**event.__dict__, "errors": errors})
    return event


def decode_finish(status: int, text: bytes) -> Finished:
    return _build(Finished, {**json.loads(text.decode()), "status": status})
