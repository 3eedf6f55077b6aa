#!/usr/bin/env python3
"""Appends records to a storage and prints every record that it holds, from Python.

    read_storage.py LIBRARY CONNECTION-STRING [TEXT...]

LIBRARY is the path of libK9eReplStorage.so, or of K9eReplStorage.dll; a 32-bit library wants a
32-bit Python. Each TEXT becomes a record; all of them are one transaction.
"""
import ctypes
import os
import sys

HANDLE = ctypes.c_void_p


class Record(ctypes.Structure):
    """The head of a record; dataSize bytes follow it. Records lie unaligned."""

    _pack_ = 1
    _layout_ = "ms"  # packed ones have it everywhere; newer Pythons want it said
    _fields_ = [
        ("rev", ctypes.c_int64),
        ("userWord", ctypes.c_uint32),
        ("dataSize", ctypes.c_uint32),
    ]


# The C calling convention, as CDLL has it: CFUNCTYPE, never WINFUNCTYPE.
ENUM_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_uint32, ctypes.POINTER(Record), ctypes.c_void_p)

# Without their types, ctypes would pass a 64-bit handle as a 32-bit number.
ARGUMENTS = {
    "K9eReplStorageCreate": [ctypes.c_char_p, ctypes.c_uint32],
    "K9eReplStorageOpen": [ctypes.c_char_p, ctypes.POINTER(HANDLE)],
    "K9eReplStorageLoad": [HANDLE],
    "K9eReplStorageBeginTransaction": [HANDLE],
    "K9eReplStorageInsert": [HANDLE, ctypes.c_void_p],
    "K9eReplStorageCommit": [HANDLE],
    "K9eReplStorageEnumRecords": [
        HANDLE,
        ctypes.c_int64,
        ctypes.c_int64,
        ENUM_CALLBACK,
        ctypes.c_void_p,
    ],
    "K9eReplStorageClose": [HANDLE],
}


def load_library(path):
    """The library, its functions with their types; each raises when it does not succeed."""
    # With a full path, Windows looks for K9Sys.dll beside it.
    library = ctypes.CDLL(os.path.abspath(path))
    for name, types in ARGUMENTS.items():
        function = getattr(library, name)
        function.argtypes = types
        function.restype = ctypes.c_uint32
        function.errcheck = check
    return library


def check(code, function, _arguments):
    if code != 0:
        raise RuntimeError(f"{function.__name__} failed with code {code}")


def record_bytes(data):
    """A buffer that holds a record: the head, and `data` behind it."""
    head = Record(rev=0, userWord=0, dataSize=len(data))
    return ctypes.create_string_buffer(bytes(head) + data, ctypes.sizeof(Record) + len(data))


def append(library, storage, texts):
    library.K9eReplStorageBeginTransaction(storage)
    for text in texts:
        library.K9eReplStorageInsert(storage, record_bytes(text.encode()))
    library.K9eReplStorageCommit(storage)


def read(library, storage):
    """A list of (revision, data), copied: a record is valid in its callback only."""
    records = []

    @ENUM_CALLBACK
    def collect(record, _context):
        head = record.contents
        start = ctypes.addressof(head) + ctypes.sizeof(Record)
        records.append((head.rev, ctypes.string_at(start, head.dataSize)))
        return 0  # go on

    library.K9eReplStorageEnumRecords(storage, 1, 2**63 - 1, collect, None)
    return records


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    library = load_library(sys.argv[1])
    settings = sys.argv[2].encode()
    storage = HANDLE()
    library.K9eReplStorageCreate(settings, 0x2)  # keep what is there
    library.K9eReplStorageOpen(settings, ctypes.byref(storage))
    try:
        library.K9eReplStorageLoad(storage)
        append(library, storage, sys.argv[3:])
        for revision, data in read(library, storage):
            print(f"{revision}: {data.decode(errors='replace')}")
    finally:
        library.K9eReplStorageClose(storage)


if __name__ == "__main__":
    main()
