"""Storages: opening, transactions, appending, reading, clearing."""
import contextlib
import ctypes
import enum
import struct
import threading
from types import TracebackType
from typing import Callable, Iterable, Iterator, List, NamedTuple, Optional, Tuple, Type, Union

from ._errors import Error, check
from ._library import ENUM_CALLBACK, FLUSH_CALLBACK, HANDLE, library

FIRST_REV = 1
LAST_REV = 2**63 - 1

Bytes = Union[bytes, bytearray, memoryview]

# A record as the library takes it: revision, user word, size, then the data.
_HEAD = struct.Struct("<qII")
_REV = struct.Struct("<q")
_ENUM_STOP = 12
# Records are fetched in pieces: of so many bytes, and a record more.
_PIECE_SIZE = 256 * 1024


class CreateMode(enum.IntEnum):
    """What create() does with a file that exists."""

    NEW = 0
    REPLACE = 1
    KEEP_EXISTING = 2


class ClearMode(enum.IntEnum):
    """What clearing does to the storage file; docs/configuration.md tells more."""

    LOGICAL = 0
    SQUEEZE = 1
    SQUEEZE_BACKUP = 2
    MARK = 4


class Record(NamedTuple):
    """One record; `data` is a copy and stays valid."""

    rev: int
    user_word: int
    data: bytes


def create(connection: str, mode: CreateMode = CreateMode.NEW) -> None:
    """Makes the storage file that `connection` names. Raises Error."""
    check(library().K9eReplStorageCreate(_encoded(connection), mode))


def delete(connection: str) -> None:
    """Deletes the storage file and its index file. Raises Error."""
    check(library().K9eReplStorageDelete(_encoded(connection)))


def open(connection: str, create: bool = False, load: bool = True) -> "Storage":
    """Opens a storage, and loads it unless `load` is false. `create` makes a missing file first.

    Raises Error; LibraryError when there is no library.
    """
    if create:
        check(library().K9eReplStorageCreate(_encoded(connection), CreateMode.KEEP_EXISTING))
    storage = Storage(connection)
    if load:
        try:
            storage.load()
        except Error:
            storage.close()
            raise
    return storage


def _encoded(connection: str) -> bytes:
    return connection.encode("utf-8", "surrogateescape")


class Storage:
    """An open storage. Close it, or use it in a with statement; nothing else flushes at the end.

    One thread at a time may use an object. Every method raises Error with the library's code.
    """

    def __init__(self, connection: str) -> None:
        self._library = library()
        self._handle: Optional[int] = None
        self._make_room(256)
        self._on_flush: Optional[object] = None  # keeps the callback alive
        handle = HANDLE()
        check(self._library.K9eReplStorageOpen(_encoded(connection), ctypes.byref(handle)))
        self._handle = handle.value

    # --- Life

    def load(self) -> None:
        """Reads the file. A storage that was opened with read_only=yes may be loaded again and then
        serves what was committed since."""
        check(self._library.K9eReplStorageLoad(self._open()))

    def close(self) -> None:
        """Flushes what was committed and closes. A second call does nothing."""
        if self._handle is not None:
            handle, self._handle = self._handle, None
            self._library.K9eReplStorageClose(handle)  # always succeeds

    @property
    def closed(self) -> bool:
        return self._handle is None

    def __enter__(self) -> "Storage":
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        value: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    # --- Writing

    @contextlib.contextmanager
    def transaction(self) -> Iterator["Storage"]:
        """Commits at the end of the with block, and rolls back when an exception leaves it. If the
        commit fails, its Error is raised and the records are taken back."""
        check(self._library.K9eReplStorageBeginTransaction(self._open()))
        try:
            yield self
            check(self._library.K9eReplStorageCommit(self._open()))
        except BaseException:
            if self._handle is not None:
                self._library.K9eReplStorageRollback(self._handle)
            raise

    def append(self, data: Bytes, user_word: int = 0) -> int:
        """Appends a record and returns its revision. Outside of a transaction it is one itself."""
        return self._insert(self._library.K9eReplStorageInsert, 0, data, user_word)

    def append_at(self, rev: int, data: Bytes, user_word: int = 0) -> int:
        """Appends a record under its own revision, which must not be below the next one."""
        return self._insert(self._library.K9eReplStorageInsertP, rev, data, user_word)

    def append_many(self, records: Iterable[Bytes]) -> int:
        """Appends the records in one transaction, all or none, and returns how many there were.

        This is the fastest way: it leaves out everything but the library's own call."""
        count = 0
        with self.transaction():
            handle = self._open()
            insert = self._library.K9eReplStorageInsert
            pack = _HEAD.pack_into
            head_size = _HEAD.size
            for data in records:
                size = len(data)
                if size > self._room:
                    self._make_room(size)
                record = self._record
                pack(record, 0, 0, 0, size)
                record[head_size : head_size + size] = data
                code = insert(handle, self._address)
                if code:
                    raise Error(code)
                count += 1
        return count

    # --- Reading

    def records(self, from_rev: int = FIRST_REV, to_rev: int = LAST_REV) -> Iterator[Record]:
        """The records with from_rev <= rev <= to_rev, in ascending order. They are fetched in
        pieces; what is appended meanwhile is delivered, too."""
        while from_rev <= to_rev:
            piece, is_last = self._fetch(from_rev, to_rev)
            yield from piece
            if is_last:
                return
            from_rev = piece[-1].rev + 1

    def follow(
        self,
        from_rev: int = FIRST_REV,
        interval: float = 0.2,
        stop: Optional[threading.Event] = None,
    ) -> Iterator[Record]:
        """The records from from_rev on, and then those that another process appends, until `stop`
        is set. Looks for new ones every `interval` seconds.

        The storage must have been opened with read_only=yes."""
        stop = stop or threading.Event()
        while True:
            for record in self.records(from_rev):
                yield record
                from_rev = record.rev + 1
            if stop.wait(interval):
                return
            self.load()

    @property
    def next_rev(self) -> int:
        """The revision that the next record will get."""
        return self._get(self._library.K9eReplStorageGetNextRev, ctypes.c_int64())

    # --- Old revisions and marks

    def clear(self, rev: int, mode: ClearMode = ClearMode.LOGICAL) -> None:
        """Clears the records below `rev`; with ClearMode.MARK only notes it."""
        check(self._library.K9eReplStorageClearOldRev(self._open(), rev, mode))

    def clear_all(self, mode: ClearMode = ClearMode.LOGICAL) -> None:
        """Clears all records; the next revision stays."""
        check(self._library.K9eReplStorageClearAll(self._open(), mode))

    def truncate(self) -> None:
        """Throws everything away; the next revision is 1 again."""
        check(self._library.K9eReplStorageTruncate(self._open()))

    @property
    def revision_mark(self) -> int:
        """What ClearMode.MARK has set; 0 in a new storage."""
        return self._get(self._library.K9eReplStorageGetClearOldRev, ctypes.c_int64())

    @property
    def lifenum(self) -> int:
        """The life number of the data set; 0 in a new storage."""
        return self._get(self._library.K9eReplStorageGetLifenum, ctypes.c_uint32())

    @lifenum.setter
    def lifenum(self, value: int) -> None:
        check(self._library.K9eReplStorageSetLifenum(self._open(), value))

    def on_flush(self, callback: Callable[[int], None]) -> None:
        """Has callback(last_rev) called after each flush, on the thread that flushes. What it
        raises is printed and ignored."""
        wrapped = FLUSH_CALLBACK(lambda last_rev, _context: callback(last_rev))
        check(self._library.K9eReplStorageSetOnFlushCallback(self._open(), wrapped, None))
        self._on_flush = wrapped

    # --- Inner parts

    def _open(self) -> int:
        if self._handle is None:
            raise ValueError("the storage is closed")
        return self._handle

    def _make_room(self, size: int) -> None:
        """Has a record buffer for `size` bytes of data, and half as many again."""
        self._room = size + size // 2
        self._record = bytearray(_HEAD.size + self._room)
        self._pinned = (ctypes.c_char * len(self._record)).from_buffer(self._record)
        self._address = ctypes.addressof(self._pinned)

    def _insert(
        self, function: Callable[..., int], rev: int, data: Bytes, user_word: int
    ) -> int:
        handle = self._open()
        size = len(data)
        if size > self._room:
            self._make_room(size)
        _HEAD.pack_into(self._record, 0, rev, user_word, size)
        self._record[_HEAD.size : _HEAD.size + size] = data
        check(function(handle, self._address))
        return int(_REV.unpack_from(self._record)[0])

    def _get(self, function: Callable[..., int], out: ctypes._SimpleCData) -> int:
        check(function(self._open(), ctypes.byref(out)))
        return int(out.value)

    def _fetch(self, from_rev: int, to_rev: int) -> Tuple[List[Record], bool]:
        """A piece of the range, and whether nothing of the range is left behind it."""
        piece: List[Record] = []
        left = _PIECE_SIZE
        string_at = ctypes.string_at
        unpack = _HEAD.unpack
        head_size = _HEAD.size
        add = piece.append

        def take(address: int, _context: object) -> int:
            nonlocal left
            rev, user_word, size = unpack(string_at(address, head_size))
            add(Record(rev, user_word, string_at(address + head_size, size)))
            left -= size
            return _ENUM_STOP if left <= 0 else 0

        code = self._library.K9eReplStorageEnumRecords(
            self._open(), from_rev, to_rev, ENUM_CALLBACK(take), None
        )
        if code != 0 and (code != _ENUM_STOP or left > 0):
            raise Error(code)
        return piece, code == 0
