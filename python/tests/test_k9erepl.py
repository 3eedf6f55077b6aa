"""The Python package with the shared library that K9EREPL_LIBRARY names."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

import k9erepl
from k9erepl._settings import KEYS

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]


class StorageTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "data.edb")

    def settings(self, **more):
        return k9erepl.settings(file=self.path, **more)

    def open(self, **more):
        storage = k9erepl.open(self.settings(**more), create=True)
        self.addCleanup(storage.close)
        return storage

    def revs(self, storage, *range_of):
        return [record.rev for record in storage.records(*range_of)]

    def assert_code(self, code, function, *arguments):
        with self.assertRaises(k9erepl.Error) as caught:
            function(*arguments)
        self.assertEqual(caught.exception.code, code)
        return caught.exception


class Appending(StorageTest):
    def test_records_are_there_after_reopening(self):
        with self.open() as storage:
            self.assertEqual(storage.append(b"one", user_word=7), 1)
            self.assertEqual(storage.append(bytearray(b"two")), 2)
            self.assertEqual(storage.append(memoryview(b"")), 3)
        with self.open() as storage:
            self.assertEqual(
                list(storage.records()), [(1, 7, b"one"), (2, 0, b"two"), (3, 0, b"")]
            )
            self.assertEqual(storage.next_rev, 4)

    def test_a_transaction_commits_at_its_end(self):
        storage = self.open()
        with storage.transaction():
            storage.append(b"one")
            self.assertEqual(storage.append_at(10, b"ten"), 10)
        self.assertEqual(self.revs(storage), [1, 10])

    def test_an_exception_rolls_back(self):
        storage = self.open()
        with self.assertRaises(KeyError):
            with storage.transaction():
                storage.append(b"gone")
                raise KeyError
        self.assertEqual(storage.next_rev, 1)

    def test_many_are_all_or_none(self):
        storage = self.open(block_size=4096)
        self.assertEqual(storage.append_many(b"%d" % i for i in range(1000)), 1000)
        self.assert_code(2, storage.append_many, [b"fits", b"x" * 5000])
        self.assertEqual(self.revs(storage), list(range(1, 1001)))
        self.assertEqual(list(storage.records(1000))[0].data, b"999")

    def test_a_large_record_follows_a_small_one(self):
        storage = self.open()
        large = os.urandom(900_000)
        storage.append(b"small")
        storage.append(large)
        self.assertEqual([r.data for r in storage.records()], [b"small", large])


class Reading(StorageTest):
    def test_a_range_has_its_bounds(self):
        storage = self.open()
        storage.append_many([b"x"] * 10)
        self.assertEqual(self.revs(storage, 3, 5), [3, 4, 5])
        self.assertEqual(self.revs(storage, 10), [10])
        self.assertEqual(self.revs(storage, 11), [])
        self.assertEqual(self.revs(storage, 5, 4), [])

    def test_a_range_goes_on_where_a_piece_ends(self):
        storage = self.open()
        storage.append_many([b"x" * 1000] * 1500)
        self.assertEqual(self.revs(storage), list(range(1, 1501)))

    def test_following_delivers_what_a_writer_appends(self):
        writer = self.open(flush_mode="PerTrans", flush_trans_num=1)
        writer.append(b"before")
        reader = self.open(read_only=True)
        stop = threading.Event()
        seen = []
        for record in reader.follow(interval=0.01, stop=stop):
            seen.append(record.data)
            if len(seen) == 1:
                writer.append(b"after")
            else:
                stop.set()
        self.assertEqual(seen, [b"before", b"after"])

    def test_a_storage_that_is_not_loaded_cannot_be_read(self):
        k9erepl.create(self.settings())
        with k9erepl.open(self.settings(), load=False) as storage:
            self.assert_code(27, list, storage.records())


class OldRevisions(StorageTest):
    def test_clearing_and_marking(self):
        storage = self.open()
        storage.append_many([b"x"] * 5)
        storage.clear(3)
        self.assertEqual(self.revs(storage), [3, 4, 5])
        storage.clear(4, k9erepl.ClearMode.MARK)
        self.assertEqual(storage.revision_mark, 4)
        storage.clear(4, k9erepl.ClearMode.SQUEEZE_BACKUP)
        self.assertTrue(os.path.exists(self.path + ".backup"))
        storage.lifenum = 9
        self.assertEqual(storage.lifenum, 9)
        storage.clear_all()
        self.assertEqual((self.revs(storage), storage.next_rev), ([], 6))
        storage.truncate()
        self.assertEqual(storage.next_rev, 1)


class Failures(StorageTest):
    def test_a_missing_file_is_told_with_name_and_text(self):
        error = self.assert_code(4, k9erepl.open, self.settings())
        self.assertEqual(
            str(error), "RC_SYSTEM_ERROR (4): a system call on a file, event or thread failed"
        )

    def test_create_and_delete(self):
        k9erepl.create(self.settings())
        self.assert_code(4, k9erepl.create, self.settings())
        k9erepl.delete(self.settings())
        self.assertFalse(os.path.exists(self.path))

    def test_a_closed_storage_says_so(self):
        storage = self.open()
        storage.close()
        storage.close()
        self.assertTrue(storage.closed)
        with self.assertRaisesRegex(ValueError, "the storage is closed"):
            storage.append(b"late")

    def test_flushes_are_notified(self):
        storage = self.open(flush_mode="PerTrans", flush_trans_num=1)
        flushed = []
        storage.on_flush(flushed.append)
        storage.append(b"one")
        storage.append(b"two")
        self.assertEqual(flushed, [1, 2])

    def test_a_missing_library_is_told(self):
        environment = dict(os.environ, K9EREPL_LIBRARY="/no/library.so")
        script = "import k9erepl; k9erepl.create('file=x')"
        run = subprocess.run(
            [sys.executable, "-c", script],
            env=environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            universal_newlines=True,
        )
        self.assertEqual(run.returncode, 1)
        self.assertIn("cannot load '/no/library.so' into this", run.stdout)


class Texts(unittest.TestCase):
    def test_settings_are_written_as_the_library_reads_them(self):
        self.assertEqual(
            k9erepl.settings(file="a b", force_flush=True, file_lock=False, block_size=4096),
            "file=a b;force_flush=yes;file_lock=no;block_size=4096",
        )

    def test_unknown_settings_and_impossible_values_are_refused(self):
        with self.assertRaisesRegex(ValueError, "'force_flash'; .* 'force_flush'"):
            k9erepl.settings(force_flash=True)
        for path in ("a;b", "a,b", "", " a"):
            with self.assertRaises(ValueError):
                k9erepl.settings(file=path)

    def test_every_documented_key_is_known(self):
        text = (REPOSITORY / "docs" / "configuration.md").read_text(encoding="utf-8")
        self.assertEqual(sorted(set(re.findall(r"^\| `(\w+)` \|", text, re.M))), sorted(KEYS))

    def test_the_codes_are_those_of_the_document(self):
        text = (REPOSITORY / "docs" / "result-codes.md").read_text(encoding="utf-8")
        rows = re.findall(r"^\| `(RC_\w+)` \| (\d+) \| (.*) \|$", text, re.M)
        self.assertEqual({int(code): (name, words) for name, code, words in rows}, k9erepl.CODES)


if __name__ == "__main__":
    unittest.main()
