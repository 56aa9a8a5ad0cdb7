"""The library's own diagnostic lines: their level and where they go (standard output until
changed). Changes apply to clients made afterwards; set them before making the first client."""

import atexit
import logging
from typing import Callable, Optional, Union

from . import _native
from ._native import lib
from .errors import check

LEVELS = ("trace", "debug", "info", "notice", "warning", "error", "critical")
# The library's levels as the standard logging module's.
_PYTHON_LEVELS = (5, logging.DEBUG, logging.INFO, logging.INFO + 5, logging.WARNING,
                  logging.ERROR, logging.CRITICAL)

_callback = None  # the ctypes callback in use, kept alive while the library may call it


def set_level(level: str) -> None:
    """Lines below `level` ("trace" ... "critical") are dropped."""
    if level not in LEVELS:
        raise ValueError(f"level must be one of {', '.join(LEVELS)}, not {level!r}")
    check(lib.PLNLogging_setLevel(LEVELS.index(level)))


def set_handler(handler: Optional[Callable[[str, str], None]]) -> None:
    """Every line goes to handler(level, line), on whichever library thread logs; None silences
    the library."""
    global _callback
    if handler is None:
        callback = None
    else:
        def forward(_context, level, line):
            try:
                handler(LEVELS[level], line.decode(errors="replace"))
            except Exception:  # nothing can travel back through C
                pass
        callback = _native.LOG(forward)
    check(lib.PLNLogging_setCallback(callback or _native.LOG(), None))
    _callback = callback


def set_destination(destination: str) -> None:
    """"stdout", "stderr" or "none"."""
    choices = ("stdout", "stderr", "none")
    if destination not in choices:
        raise ValueError(f"destination must be one of {', '.join(choices)}, not {destination!r}")
    check(lib.PLNLogging_setDestination(choices.index(destination)))


def to_python_logging(logger: Union[logging.Logger, str] = "pellorin") -> None:
    """Every line goes to a logger of the standard logging module, at the matching level."""
    target = logging.getLogger(logger) if isinstance(logger, str) else logger
    set_handler(lambda level, line: target.log(_PYTHON_LEVELS[LEVELS.index(level)], line))


@atexit.register
def _detach():
    # The interpreter cannot run callbacks once it is shutting down.
    if _callback is not None:
        lib.PLNLogging_setDestination(2)
