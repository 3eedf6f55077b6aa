"""The library's result codes, and the exception that carries one."""
from typing import Dict, Tuple

# code: (name, text), as in <k9erepl/codes.h>; a test compares the two.
CODES: Dict[int, Tuple[str, str]] = {
    0: ("RC_OK", "success"),
    1: ("RC_NO_MEMORY", "an allocation failed"),
    2: ("RC_INVALID_ARG", "an argument or a setting is refused"),
    3: ("RC_BAD_DATA", "bad data in memory or in the file"),
    4: ("RC_SYSTEM_ERROR", "a system call on a file, event or thread failed"),
    6: ("RC_NO_WRITER", "no storage file is open, or it has no writer"),
    7: ("RC_PATH_TOO_LONG", "the path of the storage file has 260 characters or more"),
    12: ("RC_ENUM_STOP", "an enumeration was stopped by its visitor"),
    16: ("RC_NOT_SUPPORTED", "the operation is not provided"),
    17: ("RC_ALREADY", "already open, or already loaded"),
    21: ("RC_NOT_FOUND", "the expected item is not where it should be"),
    22: ("RC_SHORT_READ", "a read returned fewer bytes than asked"),
    23: ("RC_BAD_SIZE", "a negative size, or a refused setting of the writer"),
    24: ("RC_FILE_NOT_OPEN", "the storage has no open file"),
    25: ("RC_TIMEOUT", "a wait for the writer or a thread ran out"),
    27: ("RC_WRONG_STATE", "not allowed in the storage's present state"),
    32785: ("RC_NO_TRANSACTION", "commit without a transaction"),
    32786: ("RC_TRANS_ROLLED_BACK", "commit of a nested level after a rollback"),
    32787: ("RC_NO_TRANSACTION_TO_ROLLBACK", "rollback without a transaction"),
    32788: ("RC_BEGIN_AFTER_ROLLBACK", "a nested transaction was begun after a rollback"),
    32801: ("RC_FILE_CORRUPT", "the file's structure cannot be loaded"),
    32804: ("RC_IN_TRANSACTION", "not allowed inside a transaction"),
    32820: ("RC_NOT_OPEN", "a query while the storage is not loaded"),
}


class Error(Exception):
    """A function of the library failed; str() is "RC_NO_MEMORY (1): an allocation failed"."""

    def __init__(self, code: int) -> None:
        self.code = code
        self.name, self.text = CODES.get(code, ("unknown code", "unknown code"))
        super().__init__(f"{self.name} ({code}): {self.text}")


def check(code: int) -> None:
    """Raises Error unless `code` says success."""
    if code != 0:
        raise Error(code)
