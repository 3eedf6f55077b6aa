"""Connection strings: the keys that the library knows, and how values are written."""
import difflib
from typing import Union

# Every key of docs/configuration.md, in its order; a test compares the two.
KEYS = (
    "file",
    "index_file",
    "read_only",
    "check",
    "file_initial_size",
    "file_size_delta",
    "force_flush",
    "commit_barrier",
    "file_lock",
    "write_through",
    "cache_type",
    "block_size",
    "memory_reserve",
    "read_buffers_count",
    "range_index_memory",
    "flush_mode",
    "flush_trans_num",
    "flush_data_size",
    "flush_timeout",
    "index_hint",
    "aux_affinity",
    "async_mode",
    "async_buffer_size",
)


def settings(**values: Union[str, int, bool]) -> str:
    """The connection string with these settings, in the order given.

    settings(file="a", force_flush=True) is "file=a;force_flush=yes".

    Raises ValueError for a key that the library does not know, which it would ignore, and for a
    value that a connection string cannot hold: an empty one, one that begins with a blank, and one
    with ";" or "," in it.
    """
    return ";".join(f"{_known(key)}={_text(key, value)}" for key, value in values.items())


def _known(key: str) -> str:
    if key in KEYS:
        return key
    nearest = difflib.get_close_matches(key, KEYS, n=1, cutoff=0)
    raise ValueError(f"unknown setting '{key}'; the nearest known one is '{nearest[0]}'")


def _text(key: str, value: Union[str, int, bool]) -> str:
    if isinstance(value, bool):
        return "yes" if value else "no"
    text = str(value)
    if not text or text[0] in " \t" or any(c in text for c in ";,\0"):
        raise ValueError(f"a connection string cannot hold the value {text!r} of '{key}'")
    return text
