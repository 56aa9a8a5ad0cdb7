"""The shared library and the C signatures of <pellorin/pellorin.h>, declared for ctypes.

The library is taken from $PELLORIN_LIBRARY when set, else from next to this module
(libpellorin.so.N placed there by a packager), else from the system's library path."""

import ctypes
import ctypes.util
import glob
import os

OK = 0
PARTS_FAILED = 1
ERROR_INVALID_ARGUMENT = -1
ERROR_STATE = -2
ERROR_IO = -3
ERROR_TIMEOUT = -4
ERROR_INTERNAL = -5


class Header(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("value", ctypes.c_char_p)]


EVENT = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_char_p)
FINISH = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int32,
                          ctypes.c_char_p)
LOG = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int32, ctypes.c_char_p)

# The delegate table's event entries, in their order in the C struct.
EVENT_NAMES = ("logMessage", "didStartPart", "didReceivePartProgress", "willRetryPart",
               "partDidComplete", "partDidFail", "didReceiveFileProgress")


class Delegate(ctypes.Structure):
    _fields_ = ([("context", ctypes.c_void_p)] + [(name, EVENT) for name in EVENT_NAMES]
                + [("didFinishWithStatus", FINISH)])


def _candidates():
    explicit = os.environ.get("PELLORIN_LIBRARY")
    if explicit:
        return [explicit]
    here = os.path.dirname(os.path.abspath(__file__))
    found = sorted(glob.glob(os.path.join(here, "libpellorin.so*")), key=len)
    system = ctypes.util.find_library("pellorin")
    return found + ([system] if system else []) + ["libpellorin.so.1", "libpellorin.so"]


def _load():
    errors = []
    for candidate in _candidates():
        try:
            return ctypes.CDLL(candidate)
        except OSError as error:
            errors.append(str(error))
    raise ImportError("cannot load the pellorin library (set PELLORIN_LIBRARY to its path): "
                      + "; ".join(errors))


def _declare(lib):
    c = ctypes
    client, part, reservation = c.c_void_p, c.c_void_p, c.c_void_p
    signatures = {
        "PLNLastError": (c.c_char_p, []),
        "PLNLastErrorCode": (c.c_int32, []),
        "PLNPellorinClient_bundle": (c.c_char_p, []),
        "PLNPellorinClient_versionString": (c.c_char_p, []),
        "PLNPellorinClient_standardClient": (client, [c.POINTER(c.c_uint64), c.c_uint8,
                                                      c.c_uint8]),
        "PLNPellorinClient_addDelegate": (c.c_int32, [client, c.POINTER(Delegate)]),
        "PLNPellorinClient_removeDelegate": (c.c_int32, [client, c.POINTER(Delegate)]),
        "PLNPellorinClient_setCAFile": (c.c_int32, [client, c.c_char_p]),
        "PLNPellorinClient_setCADirectory": (c.c_int32, [client, c.c_char_p]),
        "PLNPellorinClient_setProxy": (c.c_int32, [client, c.c_char_p]),
        "PLNPellorinClient_setHttpVersion": (c.c_int32, [client, c.c_int32]),
        "PLNPellorinClient_setIdleTimeout": (c.c_int32, [client, c.c_double]),
        "PLNPellorinClient_setMinimumTLSVersion": (c.c_int32, [client, c.c_int32]),
        "PLNPellorinClient_uploadPartRequest": (c.c_int32, [client, part]),
        "PLNPellorinClient_waitUntilFinished": (c.c_int32, [client]),
        "PLNPellorinClient_invalidateAndCancel": (c.c_int32, [client]),
        "PLNPellorinClient_release": (c.c_int32, [client]),
        "PLNFilePartRequest_make": (part, [c.c_char_p, c.c_uint64, c.c_uint64, c.c_uint64,
                                           c.c_char_p, c.c_char_p, c.POINTER(Header),
                                           c.c_size_t]),
        "PLNFilePartRequest_filePath": (c.c_char_p, [part]),
        "PLNFilePartRequest_partNumber": (c.c_uint64, [part]),
        "PLNFilePartRequest_offset": (c.c_uint64, [part]),
        "PLNFilePartRequest_length": (c.c_uint64, [part]),
        "PLNFilePartRequest_url": (c.c_char_p, [part]),
        "PLNFilePartRequest_method": (c.c_char_p, [part]),
        "PLNFilePartRequest_release": (None, [part]),
        "PLNReservationFile_read": (reservation, [c.c_char_p]),
        "PLNReservationFile_count": (c.c_size_t, [reservation]),
        "PLNReservationFile_partRequest": (part, [reservation, c.c_size_t]),
        "PLNReservationFile_release": (None, [reservation]),
        "PLNReservation_createTestFile": (c.c_int32, [c.c_char_p] * 6 + [c.c_double]),
        "PLNReservation_serviceEndpoint": (c.c_char_p, [c.c_uint8]),
        "PLNLogging_setLevel": (c.c_int32, [c.c_int32]),
        "PLNLogging_setCallback": (c.c_int32, [LOG, c.c_void_p]),
        "PLNLogging_setDestination": (c.c_int32, [c.c_int32]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


lib = _declare(_load())
