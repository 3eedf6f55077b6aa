"""Replication storages from Python: open one, append in transactions, read ranges, follow a writer.

    with k9erepl.open(k9erepl.settings(file="data.edb"), create=True) as storage:
        with storage.transaction():
            storage.append(b"hello")
        for record in storage.records():
            print(record.rev, record.data)

Failures are k9erepl.Error with the library's code, its name and its text.
"""
from ._errors import CODES, Error
from ._library import LibraryError
from ._settings import settings
from ._storage import (
    FIRST_REV,
    LAST_REV,
    ClearMode,
    CreateMode,
    Record,
    Storage,
    create,
    delete,
    open,
)

__all__ = [
    "CODES",
    "ClearMode",
    "CreateMode",
    "Error",
    "FIRST_REV",
    "LAST_REV",
    "LibraryError",
    "Record",
    "Storage",
    "create",
    "delete",
    "open",
    "settings",
]
