"""The SQLite bank on its own: records, keys, prefix ranges, query plans, schema."""

import os
import shutil
import sqlite3
import subprocess
import unittest

from oxe.common.repository_manager import errors, interface
from oxe.common.repository_manager.storage import open_backend, sqlite_backend

from tests.support import SYS, KbTestCase, search

SCOPE = ("soc-a1", "32")


class BackendTest(KbTestCase):
    def setUp(self):
        super(BackendTest, self).setUp()
        self.backend = open_backend(self.bank)
        self.addCleanup(self.backend.close)

    def knowledge(self, op_type, keyword, scope=SCOPE):
        rows = self.backend.exact(scope, op_type, keyword)
        self.assertLessEqual(len(rows), 1)
        return rows[0]["knowledge"] if rows else None

    def test_write_replaces_and_delete_is_idempotent(self):
        for durable, text in ((False, "v1"), (True, "v2"), (False, "\u7b97\u5b50 '%_\n")):
            self.backend.write(SCOPE, "Add", "k", text, durable)
            self.assertEqual(self.backend.exact(SCOPE, "Add", "k"), [{
                "soc_version": "soc-a1", "core_num": "32", "op_type": "Add", "keyword": "k", "knowledge": text}])
        self.assertTrue(self.backend.delete(SCOPE, "Add", "k", True))
        self.assertFalse(self.backend.delete(SCOPE, "Add", "k", False))
        self.assertEqual(self.backend.export_all(), [])

    def test_each_key_part_separates_records(self):
        keys = [(SCOPE, "Add", "k"), (("soc-b2", "32"), "Add", "k"), (("soc-a1", "8"), "Add", "k"),
                (SCOPE, "Mul", "k"), (SCOPE, "Add", "K"), (SCOPE, "Add", "k ")]
        for number, (scope, op_type, keyword) in enumerate(keys):
            self.backend.write(scope, op_type, keyword, "value%d" % number, False)
        for number, (scope, op_type, keyword) in enumerate(keys):
            self.assertEqual(self.knowledge(op_type, keyword, scope), "value%d" % number)
        self.assertEqual([(r["op_type"], r["keyword"]) for r in self.backend.all(SCOPE, None)],
                         [("Add", "K"), ("Add", "k"), ("Add", "k "), ("Mul", "k")])
        self.assertEqual(len(self.backend.export_all()), len(keys))

    def test_prefix_matches_exactly_the_keywords_starting_with_it(self):
        keywords = ["", "a", "ab", "abc", "ab%", "ab%c", "ab_", "abXc", "a%", "a_b", "a\\b", "b", "ac",
                    "\U0010FFFF", "\U0010FFFFa", "a\U0010FFFF", "a\U0010FFFFz", "\ud7ff", "\ud7ffx", "\ue000",
                    "\u00e9t\u00e9", "\u00e9", "A", "aB"]
        for keyword in keywords:
            self.backend.write(SCOPE, "Op", keyword, "v", False)
        self.backend.write(SCOPE, "Other", "abc", "v", False)
        for prefix in ["", "a", "ab", "ab%", "ab_", "a%", "a_", "a\\", "\U0010FFFF", "a\U0010FFFF", "\ud7ff",
                       "\u00e9", "zz", "A"]:
            with self.subTest(prefix=prefix):
                expected = sorted(k for k in keywords if k.startswith(prefix))
                self.assertEqual([r["keyword"] for r in self.backend.prefix(SCOPE, "Op", prefix)], expected)
        self.assertEqual([r["keyword"] for r in self.backend.prefix(SCOPE, "Op", "a", 2)], ["a", "a%"])

    def test_lookups_use_the_key_index(self):
        queries = [(sqlite_backend.SQL_EXACT, SCOPE + ("Op", "k")),
                   (sqlite_backend.SQL_PREFIX_BOUNDED, SCOPE + ("Op", "a", "b", -1)),
                   (sqlite_backend.SQL_PREFIX_OPEN, SCOPE + ("Op", "a", -1)),
                   (sqlite_backend.SQL_ALL_OF_TYPE, SCOPE + ("Op",)),
                   (sqlite_backend.SQL_ALL_OF_SCOPE, SCOPE)]
        conn = sqlite3.connect(self.backend.db_path)
        self.addCleanup(conn.close)
        for sql, params in queries:
            with self.subTest(sql=sql):
                plan = " ".join(str(row[-1]) for row in conn.execute("EXPLAIN QUERY PLAN " + sql, params))
                self.assertIn("SEARCH", plan)
                self.assertNotIn("SCAN", plan)
                self.assertNotIn("TEMP B-TREE", plan)

    def test_durable_write_commits_with_full_sync(self):
        statements = []
        self.backend._writer.set_trace_callback(lambda statement: statements.append(statement))
        self.backend.write(SCOPE, "Op", "fast", "v", False)
        self.backend.write(SCOPE, "Op", "safe", "v", True)
        compact = [s.lower().replace(" ", "") for s in statements]
        inserts = [i for i, s in enumerate(compact) if s.startswith("insert")]
        self.assertEqual(len(inserts), 2)
        self.assertNotIn("pragmasynchronous=full", compact[:inserts[0]])
        self.assertEqual(compact[inserts[1] - 1], "pragmasynchronous=full")
        self.assertEqual(compact[-1], "pragmasynchronous=normal")


class SchemaTest(KbTestCase):
    def test_new_and_empty_banks_get_the_current_schema(self):
        os.makedirs(self.bank)
        db_path = os.path.join(self.bank, sqlite_backend.DB_FILE_NAME)
        sqlite3.connect(db_path).close()  # an empty file: schema version 0
        backend = open_backend(self.bank)
        backend.write(SCOPE, "Add", "k", "v", False)
        backend.close()
        conn = sqlite3.connect(db_path)
        self.addCleanup(conn.close)
        self.assertEqual(conn.execute("PRAGMA journal_mode").fetchone()[0], "wal")
        self.assertEqual(conn.execute("PRAGMA user_version").fetchone()[0], sqlite_backend.SCHEMA_VERSION)
        conn.execute("PRAGMA user_version=%d" % (sqlite_backend.SCHEMA_VERSION + 1))
        with self.assertKbError(errors.SCHEMA_TOO_NEW):
            open_backend(self.bank)


class DamagedBankTest(KbTestCase):
    """A bank whose file goes, breaks or cannot be written: a clear error, and nothing acknowledged."""

    def test_a_removed_replaced_or_damaged_database_is_refused(self):
        db_path = os.path.join(self.bank, sqlite_backend.DB_FILE_NAME)

        def remove():
            shutil.rmtree(self.bank)

        def replace():
            os.remove(db_path)
            sqlite3.connect(db_path).close()

        def damage():
            interface.ovra_kb_finalize()
            with open(db_path, "r+b") as db:
                db.write(b"not a database" * 300)

        for harm, code in ((remove, errors.BANK_PATH_UNUSABLE), (replace, errors.BANK_PATH_UNUSABLE),
                           (damage, errors.BANK_DAMAGED)):
            with self.subTest(harm=harm.__name__):
                self.init()
                interface.ovra_kb_write("before", "v", {"op_type": "Add"}, 1)
                harm()
                calls = [lambda: interface.ovra_kb_write("k", "v", {"op_type": "Add"}, 1),
                         lambda: search("before", "Add")] if harm is not damage else [self.init]
                for call in calls:
                    with self.assertKbError(code) as caught:
                        call()
                    self.assertIn(("damaged" if harm is damage else "removed or replaced"),
                                  caught.exception.args[0]["message"])
                if harm is not damage:
                    interface.ovra_kb_finalize()
                    self.init()  # a new start opens the bank anew
                    self.assertEqual(interface.ovra_kb_write("after", "v", {"op_type": "Add"}, 1), 0)
                    interface.ovra_kb_finalize()
                shutil.rmtree(self.bank, True)

    def test_a_bank_that_cannot_be_opened_leaves_nothing_behind(self):
        for location, code in ((os.path.join(self.tmp, "a", "b" * 600, "bank"), errors.BANK_PATH_UNUSABLE),):
            with self.assertKbError(code) as caught:
                interface.ovra_kb_init(SYS, {"op_bank_path": location})
            self.assertIn("too long", caught.exception.args[0]["message"])
            self.assertEqual(os.listdir(self.tmp), [])

    @unittest.skipUnless(hasattr(os, "geteuid") and os.geteuid() == 0, "needs root for a read-only bind mount")
    def test_a_bank_on_read_only_storage_is_searched_and_exported_but_not_changed(self):
        self.init()
        interface.ovra_kb_write("kept", "v", {"op_type": "Add"}, 1)
        interface.ovra_kb_finalize()
        mount = os.path.join(self.tmp, "read_only")
        os.makedirs(mount)
        if subprocess.call(["mount", "--bind", "-o", "ro", self.bank, mount], stderr=subprocess.DEVNULL) != 0 or \
                os.access(mount, os.W_OK):
            subprocess.call(["umount", mount], stderr=subprocess.DEVNULL)
            self.skipTest("this machine refuses a read-only bind mount")
        self.addCleanup(subprocess.call, ["umount", mount])
        self.addCleanup(interface.ovra_kb_finalize)  # before the unmount: the bank must be closed
        self.init(bank=mount)
        self.assertEqual([r["keyword"] for r in search("", "*", "all_chips")], ["kept"])
        with self.assertKbError(errors.BANK_READ_ONLY):
            interface.ovra_kb_write("new", "v", {"op_type": "Add"}, 1)

    def test_a_new_start_reads_only_what_the_path_holds_now(self):
        # The -wal and -shm files of a database removed or replaced while open stay under their names; the
        # next database at that path must not take them for its own journal (and so mix in the old records).
        db_path = os.path.join(self.bank, sqlite_backend.DB_FILE_NAME)
        other = os.path.join(self.tmp, "other")

        def other_bank():
            backend = open_backend(other)
            backend.write(SCOPE, "Add", "other", "from the other bank", True)
            backend.close()
            return os.path.join(other, sqlite_backend.DB_FILE_NAME)

        moves = [("directory removed", lambda: shutil.rmtree(self.bank), []),
                 ("database removed", lambda: os.remove(db_path), []),
                 ("database replaced", lambda: os.replace(other_bank(), db_path), ["other"])]
        for name, move, expected in moves:
            with self.subTest(move=name):
                shutil.rmtree(self.bank, True)
                shutil.rmtree(other, True)
                self.init()
                interface.ovra_kb_write("old", "v", {"op_type": "Add"}, 0)
                move()
                self.init()  # a second user, or the same one again: the bank is opened anew
                interface.ovra_kb_write("new", "v", {"op_type": "Add"}, 1)
                for _ in range(2):
                    interface.ovra_kb_finalize()
                self.init()
                self.assertEqual([r["keyword"] for r in search("", "Add", "all")], sorted(expected + ["new"]))
                interface.ovra_kb_finalize()

    def test_a_write_whose_file_goes_during_the_commit_is_not_acknowledged(self):
        self.init()
        interface.ovra_kb_write("kept", "v", {"op_type": "Add"}, 1)
        backend = interface._KB.session.backend
        real_execute = backend._writer.execute

        class Writer(object):
            def execute(self, sql, params=()):
                result = real_execute(sql, params)
                if sql.startswith("INSERT"):
                    shutil.rmtree(backend.directory)  # after the check before the statement, before the answer
                return result

        backend._writer = Writer()
        with self.assertKbError(errors.BANK_PATH_UNUSABLE):
            interface.ovra_kb_write("lost", "v", {"op_type": "Add"}, 1)
        backend._writer = None  # the real connection closes with its object
