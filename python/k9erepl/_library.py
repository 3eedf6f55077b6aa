"""Finding the shared library, and its functions with their types."""
import ctypes
import os
import sys
from typing import Dict, List, Optional

HANDLE = ctypes.c_void_p

# The C calling convention, as CDLL has it: CFUNCTYPE, never WINFUNCTYPE. The record is passed as an
# address, because it is read faster so than as a structure.
ENUM_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_uint32, ctypes.c_void_p, ctypes.c_void_p)
FLUSH_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_int64, ctypes.c_void_p)

# Without their types, ctypes would pass a 64-bit handle as a 32-bit number.
_ARGUMENTS: Dict[str, List[type]] = {
    "BeginTransaction": [HANDLE],
    "ClearAll": [HANDLE, ctypes.c_uint32],
    "ClearOldRev": [HANDLE, ctypes.c_int64, ctypes.c_uint32],
    "Close": [HANDLE],
    "Commit": [HANDLE],
    "Create": [ctypes.c_char_p, ctypes.c_uint32],
    "Delete": [ctypes.c_char_p],
    "EnumRecords": [HANDLE, ctypes.c_int64, ctypes.c_int64, ENUM_CALLBACK, ctypes.c_void_p],
    "GetClearOldRev": [HANDLE, ctypes.POINTER(ctypes.c_int64)],
    "GetLifenum": [HANDLE, ctypes.POINTER(ctypes.c_uint32)],
    "GetNextRev": [HANDLE, ctypes.POINTER(ctypes.c_int64)],
    "Insert": [HANDLE, ctypes.c_void_p],
    "InsertP": [HANDLE, ctypes.c_void_p],
    "Load": [HANDLE],
    "Open": [ctypes.c_char_p, ctypes.POINTER(HANDLE)],
    "Rollback": [HANDLE],
    "SetLifenum": [HANDLE, ctypes.c_uint32],
    "SetOnFlushCallback": [HANDLE, FLUSH_CALLBACK, ctypes.c_void_p],
    "Truncate": [HANDLE],
}


class LibraryError(OSError):
    """The shared library cannot be loaded, or is not this library."""


_loaded: Optional[ctypes.CDLL] = None


def library() -> ctypes.CDLL:
    """The shared library, loaded at the first call. Raises LibraryError."""
    global _loaded
    if _loaded is None:
        _loaded = _load(_path())
    return _loaded


def _path() -> str:
    path = os.environ.get("K9EREPL_LIBRARY", "")
    if path:
        # With a full path, Windows looks for K9Sys.dll beside it.
        return os.path.abspath(path)
    return "K9eReplStorage.dll" if sys.platform == "win32" else "libK9eReplStorage.so.1"


def _load(path: str) -> ctypes.CDLL:
    try:
        loaded = ctypes.CDLL(path)
    except OSError as error:
        bits = ctypes.sizeof(ctypes.c_void_p) * 8
        raise LibraryError(
            f"cannot load '{path}' into this {bits}-bit Python: {error}; "
            "K9EREPL_LIBRARY may name the library's path"
        ) from error
    for name, types in _ARGUMENTS.items():
        try:
            function = getattr(loaded, "K9eReplStorage" + name)
        except AttributeError as error:
            raise LibraryError(f"'{path}' has no function K9eReplStorage{name}") from error
        function.argtypes = types
        function.restype = ctypes.c_uint32
    return loaded
