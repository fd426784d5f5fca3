"""What every bank must do alike (BankContract, run on a server by test_postgres.py: records, keys, prefixes,
query plans, schema versions), and what only the SQLite bank meets: a database that goes, writers that die."""

import contextlib
import os
import shutil
import signal
import sqlite3
import struct
import subprocess
import sys

from oxe.common.repository_manager import errors, interface
from oxe.common.repository_manager.errors import error_info
from oxe.common.repository_manager.storage import open_backend, sqlite_backend
from oxe.common.repository_manager.storage.base import make_row

from tests.support import ADD, PACKAGE_ROOT, SCOPE, SYS, KbTestCase, keywords, search


class BankContract(object):
    """Tests of a backend at ``self.location``; a variant gives ``check_plan(sql, params)``, which fails unless
    the statement reads the key index in key order, and ``set_schema_version(number)``."""

    KEYWORDS = ["", "a", "ab", "abc", "ab%", "ab%c", "ab_", "abXc", "a%", "a_b", "a\\b", "b", "ac", "B", "Z", "_x",
                "\U0010FFFF", "\U0010FFFFa", "a\U0010FFFF", "a\U0010FFFFz", "\ud7ff", "\ud7ffx", "\ue000",
                "\u00e9t\u00e9", "\u00e9", "e", "E", "A", "aB", "a b", "a\tb", "\u4e2d\u6587", "'quote", "10", "9"]
    PREFIXES = ["", "a", "ab", "ab%", "ab_", "a%", "a_", "a\\", "\U0010FFFF", "a\U0010FFFF", "\ud7ff", "\u00e9",
                "zz", "A", "e", "1"]

    def test_each_key_part_separates_records_and_every_listing_is_in_code_point_order(self):
        backend = self.open()
        keys = [(SCOPE, "Add", "k"), (("soc-b2", "32"), "Add", "k"), (("soc-a1", "8"), "Add", "k")] + [
            (SCOPE, op_type, keyword) for op_type, keyword in (("Mul", "k"), ("Add", "K"), ("Add", "k "), ("op", "k"),
                                                               ("_Op", "k"), ("\u00c9p", "k"))]
        rows = []
        for number, (scope, op_type, keyword) in enumerate(keys):
            rows.append(make_row(scope[0], scope[1], op_type, keyword, "v%d \u7b97 '%%_\n" % number))
            backend.write(scope, op_type, keyword, "replaced", False)
            backend.write(scope, op_type, keyword, rows[-1]["knowledge"], number % 2 == 0)
        for (scope, op_type, keyword), row in zip(keys, rows):
            self.assertEqual(backend.exact(scope, op_type, keyword), [row])
        self.assertEqual(backend.exact(SCOPE, "Add", "never"), [])
        in_key_order = sorted(rows, key=lambda r: (r["soc_version"], r["core_num"], r["op_type"], r["keyword"]))
        self.assertEqual(backend.export_all(), in_key_order)
        self.assertEqual(backend.export_all("Add"), [r for r in in_key_order if r["op_type"] == "Add"])
        self.assertEqual(backend.all(SCOPE, None), [r for r in in_key_order if r["soc_version"] == "soc-a1"
                                                    and r["core_num"] == "32"])
        self.assertEqual(backend.chips(), [{"soc_version": soc, "core_num": cores, "records": records} for
                                           soc, cores, records in (("soc-a1", "32", "7"), ("soc-a1", "8", "1"),
                                                                   ("soc-b2", "32", "1"))])
        self.assertTrue(backend.delete(SCOPE, "Add", "k", True))
        self.assertFalse(backend.delete(SCOPE, "Add", "k", False))
        self.assertEqual(len(backend.export_all()), len(keys) - 1)

    def test_prefix_matches_exactly_the_keywords_starting_with_it(self):
        backend = self.open()
        for number, keyword in enumerate(self.KEYWORDS):
            backend.write(SCOPE, "Op", keyword, "v", number % 3 == 0)
        backend.write(SCOPE, "Other", "abc", "v", False)
        for prefix in self.PREFIXES:
            with self.subTest(prefix=prefix):
                expected = sorted(k for k in self.KEYWORDS if k.startswith(prefix))
                self.assertEqual(keywords(backend.prefix(SCOPE, "Op", prefix)), expected)
                self.assertEqual(keywords(backend.prefix(SCOPE, "Op", prefix, 3)), expected[:3])
        self.assertEqual(keywords(backend.all(SCOPE, "Op")), sorted(self.KEYWORDS))

    def test_lookups_use_the_key_index(self):
        backend = self.open()
        limit = backend.NO_LIMIT
        for sql, params in ((backend.SQL_EXACT, SCOPE + ("Op", "k")), (backend.SQL_ALL_OF_SCOPE, SCOPE),
                            (backend.SQL_PREFIX_BOUNDED, SCOPE + ("Op", "a", "b", limit)),
                            (backend.SQL_PREFIX_OPEN, SCOPE + ("Op", "a", limit)),
                            (backend.SQL_ALL_OF_TYPE, SCOPE + ("Op",))):
            with self.subTest(sql=sql):
                self.check_plan(sql, params)

    def test_a_newer_schema_is_refused(self):
        self.open().close()
        self.set_schema_version(2)
        with self.assertKbError(errors.SCHEMA_TOO_NEW, self.secret) as caught:
            interface.ovra_kb_init(dict(SYS), {"op_bank_path": self.location})
        self.assertIn("version 2", error_info(caught.exception)["message"])


class SqliteBankTest(BankContract, KbTestCase):
    def database(self):
        return contextlib.closing(sqlite3.connect(os.path.join(self.bank, sqlite_backend.DB_FILE_NAME)))

    def check_plan(self, sql, params):
        with self.database() as conn:
            plan = " ".join(str(row[-1]) for row in conn.execute("EXPLAIN QUERY PLAN " + sql, params))
        self.assertIn("SEARCH", plan)
        self.assertNotIn("SCAN", plan)
        self.assertNotIn("TEMP B-TREE", plan)

    def set_schema_version(self, number):
        with self.database() as conn:
            conn.execute("PRAGMA user_version=%d" % number)

    def test_scans_read_alike_as_one_json_text_row_by_row_and_when_that_text_would_be_too_long(self):
        backend = self.open()
        for number, keyword in enumerate(self.KEYWORDS):
            backend.write(SCOPE, "Op" if number % 4 else "Mul", keyword, "v%d" % number, False)
        scans = lambda: (backend.all(SCOPE, "Op"), backend.all(SCOPE, None), backend.prefix(SCOPE, "Op", "a", 5))
        self.assertTrue(backend._json_scans, "this SQLite has its JSON functions")
        as_json = scans()
        self.assertEqual(keywords(as_json[0]), sorted(k for n, k in enumerate(self.KEYWORDS) if n % 4))

        def texts_of_at_most_200_bytes():  # Connection.setlimit: CPython 3.11 on
            for conn in backend._readers:
                conn.setlimit(sqlite3.SQLITE_LIMIT_LENGTH, 200)

        for name, change in (("row by row", lambda: setattr(backend, "_json_scans", False)),
                             ("too long", texts_of_at_most_200_bytes)):
            if name == "too long" and not hasattr(sqlite3.Connection, "setlimit"):
                continue
            with self.subTest(name):
                backend._json_scans = True
                change()
                self.assertEqual(scans(), as_json)

    def test_an_empty_file_gets_the_schema_in_write_ahead_mode_and_durable_writes_sync_fully(self):
        os.makedirs(self.bank)
        with self.database():
            pass  # an empty file: schema version 0
        backend, statements = self.open(), []
        with self.database() as conn:
            self.assertEqual(conn.execute("PRAGMA journal_mode").fetchone()[0], "wal")
            self.assertEqual(conn.execute("PRAGMA user_version").fetchone()[0], sqlite_backend.SCHEMA_VERSION)
        backend._writer.set_trace_callback(lambda statement: statements.append(statement.lower().replace(" ", "")))
        backend.write(SCOPE, "Op", "fast", "v", False)
        backend.write(SCOPE, "Op", "safe", "v", True)
        inserts = [i for i, s in enumerate(statements) if s.startswith("insert")]
        self.assertEqual(len(inserts), 2)
        self.assertNotIn("pragmasynchronous=full", statements[:inserts[0]])
        self.assertEqual((statements[inserts[1] - 1], statements[-1]),
                         ("pragmasynchronous=full", "pragmasynchronous=normal"))

    def test_a_flush_keeps_the_locks_of_this_process_so_that_another_one_leaves_the_log_alone(self):
        backend = self.open()
        backend.write(SCOPE, "Op", "k", "v", False)
        backend.flush()
        subprocess.check_call([sys.executable, "-c", "import sqlite3, sys; c = sqlite3.connect(sys.argv[1]); "
                               "c.execute('SELECT count(*) FROM sqlite_master').fetchall(); c.close()",
                               backend.db_path])
        self.assertTrue(os.path.exists(backend.db_path + "-wal"), "another process removed the log under this one")

    def test_records_survive_a_writer_killed_at_any_time(self):
        # The writer's directory bank never imports the driver of a server bank either.
        writer = subprocess.Popen([sys.executable, "-c", """
import sys, time
from oxe.common.repository_manager import interface as kb
from tests.support import ADD, SYS
kb.ovra_kb_init(dict(SYS), {"op_bank_path": sys.argv[1]})
kb.ovra_kb_write("fast", "flag0", dict(ADD), 0)
kb.ovra_kb_write("safe", "flag1", dict(ADD), 1)
kb.ovra_kb_write("gone", "x", dict(ADD), 0)
kb.ovra_kb_delete("gone", dict(ADD), 0)
print(sorted(m for m in sys.modules if "psycopg" in m or m.endswith("postgres_backend")), flush=True)
time.sleep(120)
""", self.bank], env=dict(os.environ, PYTHONPATH=PACKAGE_ROOT), stdout=subprocess.PIPE, universal_newlines=True)
        try:
            self.assertEqual(writer.stdout.readline().strip(), "[]", "the writer failed or imported the driver")
            for killed in (False, True):  # while the writer lives, and after it is killed
                self.init()
                self.assertEqual(sorted((r["keyword"], r["knowledge"]) for r in search("", "Add", "all")),
                                 [("fast", "flag0"), ("safe", "flag1")])
                interface.ovra_kb_finalize()
                if killed:
                    break
                writer.send_signal(signal.SIGKILL)
                writer.wait()
                # The log then ends as a power cut may leave it: a commit frame's header, not its page. The bank is
                # no torn copy (that frame's checksum fails, so it counts for nothing), and opens.
                with open(os.path.join(self.bank, "ovra_kb.db-wal"), "r+b") as log:
                    header = log.read(32)
                    log.seek(0, os.SEEK_END)
                    log.write(struct.pack(">II", 9999, 9999) + header[16:24] + bytes(8) +
                              b"\xcd" * struct.unpack(">I", header[8:12])[0])
        finally:
            writer.kill()
            writer.communicate()

    def test_a_database_that_goes_is_refused_until_the_bank_is_opened_anew_which_reads_only_what_is_there(self):
        # A gone database's -wal and -shm files stay: the next database there must not read them as its journal.
        db_path, other = os.path.join(self.bank, sqlite_backend.DB_FILE_NAME), os.path.join(self.tmp, "other")

        def replace_by_another_bank():
            backend = open_backend(other)
            backend.write(SCOPE, "Add", "other", "from the other bank", True)
            backend.close()
            os.replace(os.path.join(other, sqlite_backend.DB_FILE_NAME), db_path)

        def remove_during_the_next_commit():
            real = interface._KB.session.backend._writer

            class Writer(object):  # after the check before the statement, before the answer
                def __getattr__(self, name):
                    return getattr(real, name)

                def execute(self, sql, params=()):
                    result = real.execute(sql, params)
                    if sql.startswith("INSERT"):
                        shutil.rmtree(os.path.dirname(db_path))
                    return result

            interface._KB.session.backend._writer = Writer()

        cases = [  # (harm, what a new start then finds)
            ("directory removed", lambda: shutil.rmtree(self.bank), []),
            ("database removed", lambda: os.remove(db_path), []),
            ("database replaced", replace_by_another_bank, ["other"]),
            ("directory removed during a commit", remove_during_the_next_commit, []),
        ]
        for name, harm, found in cases:
            with self.subTest(name):
                shutil.rmtree(self.bank, True)
                shutil.rmtree(other, True)
                self.init()
                interface.ovra_kb_write("old", "v", dict(ADD), 0)
                harm()
                # The write finds the file gone (a search alone does not look); every later call is refused.
                for call in (lambda: interface.ovra_kb_write("k", "v", dict(ADD), 1), lambda: search("old", "Add")):
                    with self.assertKbError(errors.BANK_PATH_UNUSABLE) as caught:
                        call()
                    self.assertIn("removed or replaced", caught.exception.args[0]["message"])
                self.init()  # a second user, or the same one again: the bank is opened anew
                interface.ovra_kb_write("new", "v", dict(ADD), 1)
                for _ in range(2):
                    interface.ovra_kb_finalize()
                self.init()
                self.assertEqual(keywords(search("", "Add", "all")), sorted(found + ["new"]))
                interface.ovra_kb_finalize()

