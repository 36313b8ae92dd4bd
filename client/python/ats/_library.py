"""Loads libatsclient with ctypes. The structures here have the same layouts as those of ats/client.h."""

import ctypes
import os


class Options(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("flags", ctypes.c_uint32), ("timeout_ms", ctypes.c_int32),
                ("reserved", ctypes.c_uint32), ("host", ctypes.c_char_p)]


class Path(ctypes.Structure):
    _fields_ = [("sgid", ctypes.c_uint8 * 16), ("flow_label", ctypes.c_uint32), ("dlid", ctypes.c_uint16),
                ("slid", ctypes.c_uint16), ("p_key", ctypes.c_uint16), ("sl", ctypes.c_uint8), ("mtu", ctypes.c_uint8),
                ("rate", ctypes.c_uint8), ("packet_lifetime", ctypes.c_uint8), ("hop_limit", ctypes.c_uint8),
                ("traffic_class", ctypes.c_uint8)]


class Answer(ctypes.Structure):
    _fields_ = [("tag", ctypes.c_uint64), ("status", ctypes.c_int), ("source", ctypes.c_int), ("verified", ctypes.c_int32),
                ("address", ctypes.c_uint32), ("gid", ctypes.c_uint8 * 16), ("microseconds", ctypes.c_uint64),
                ("reason", ctypes.c_char * 160), ("path", Path)]


def load() -> ctypes.CDLL:
    """Loads $ATS_CLIENT_LIBRARY if it is set, otherwise the installed library; declares the types of the calls used here."""
    name = os.environ.get("ATS_CLIENT_LIBRARY", "libatsclient.so.1")
    try:
        library = ctypes.CDLL(name, use_errno=False)
    except OSError as error:
        raise ImportError(f"cannot load {name}: install libatsclient ({error})") from None
    client, options, answer = ctypes.c_void_p, ctypes.POINTER(Options), ctypes.POINTER(Answer)
    address, gid, size = ctypes.c_uint32, ctypes.POINTER(ctypes.c_uint8), ctypes.c_size_t
    calls = {
        "ats_open": (ctypes.c_int, [ctypes.POINTER(client), ctypes.c_char_p]),
        "ats_close": (None, [client]),
        "ats_resolve": (ctypes.c_int, [client, address, options, answer]),
        "ats_reverse": (ctypes.c_int, [client, gid, options, answer]),
        "ats_find_path": (ctypes.c_int, [client, address, options, answer]),
        "ats_find_path_to_gid": (ctypes.c_int, [client, gid, options, answer]),
        "ats_submit_path": (ctypes.c_int, [client, address, options, ctypes.c_uint64]),
        "ats_submit_path_to_gid": (ctypes.c_int, [client, gid, options, ctypes.c_uint64]),
        "ats_submit_resolve": (ctypes.c_int, [client, address, options, ctypes.c_uint64]),
        "ats_submit_reverse": (ctypes.c_int, [client, gid, options, ctypes.c_uint64]),
        "ats_descriptor": (ctypes.c_int, [client]),
        "ats_collect": (size, [client, answer, size]),
        "ats_wait": (size, [client, answer, size, ctypes.c_int]),
        "ats_request": (ctypes.c_int, [client, ctypes.c_char_p, ctypes.c_int, ctypes.POINTER(ctypes.c_void_p)]),
        "ats_free": (None, [ctypes.c_void_p]),
        "ats_last_error": (ctypes.c_char_p, []),
        "ats_default_socket": (size, [ctypes.c_char_p, size]),
    }
    for name, (result, arguments) in calls.items():
        call = getattr(library, name)
        call.restype, call.argtypes = result, arguments
    return library


lib = load()
