"""The library's refusals as Python exceptions, each carrying the library's own message."""

from . import _native


class PellorinError(Exception):
    """A call the library refused. `code` is the C interface's PLN_ERROR_* value."""

    def __init__(self, message: str, code: int = _native.ERROR_INTERNAL):
        super().__init__(message)
        self.code = code


class InvalidArgumentError(PellorinError, ValueError):
    """An argument out of range: a zero connection count, a URL that is not absolute, ..."""


class StateError(PellorinError, RuntimeError):
    """Not at this moment: the transfer is running or over, or the client was cancelled."""


class FileError(PellorinError, OSError):
    """A file could not be read or written."""


class NoAnswerError(PellorinError, TimeoutError):
    """No answer in the time given."""


_BY_CODE = {
    _native.ERROR_INVALID_ARGUMENT: InvalidArgumentError,
    _native.ERROR_STATE: StateError,
    _native.ERROR_IO: FileError,
    _native.ERROR_TIMEOUT: NoAnswerError,
}


def last_error(code: int = _native.ERROR_INTERNAL) -> PellorinError:
    """The exception for the calling thread's last failed call."""
    message = (_native.lib.PLNLastError() or b"").decode(errors="replace") or "unknown error"
    return _BY_CODE.get(code, PellorinError)(message, code)


def check(code: int) -> int:
    """`code` when it is not an error; raises the matching exception otherwise."""
    if code < 0:
        raise last_error(code)
    return code


def check_pointer(pointer):
    """`pointer` when it is not NULL; raises with the library's code and message otherwise."""
    if not pointer:
        raise last_error(_native.lib.PLNLastErrorCode())
    return pointer
