"""The PostgreSQL bank through the ovra-kb command and libovra_kb.so: logins, processes at once, bank moves.

Run by CTest (tests/postgres/CMakeLists.txt), one case per process: `test_postgres_bank.py CASE`; `--list`
prints the cases, `--list-unit` those of the package's own server tests (python/tests/test_postgres.py). The
environment names the server (OVRA_KB_TEST_POSTGRES_URL, see python/tests/pg_support.py), the ovra-kb command
(OVRA_KB_CLI) and the reference package (OVRA_KB_PACKAGE_DIR). Every command gets PATH=/usr/bin:/bin, so its
python3 is Debian's, the one that has the driver. A case exits 77 (skipped) without a server.
"""
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
import uuid

CLI = os.environ.get("OVRA_KB_CLI", "")
PACKAGE_DIR = os.environ.get("OVRA_KB_PACKAGE_DIR") or os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                                     "..", "..", "python")
sys.path.insert(0, PACKAGE_DIR)
from tests import pg_support  # noqa: E402 (the package's test helpers, found through PACKAGE_DIR)

SKIP = 77


class BankTestCase(unittest.TestCase):
    """A scratch directory, a schema of its own on the server, and the environment of the command."""

    def setUp(self):
        if pg_support.skip_reason():
            raise unittest.SkipTest(pg_support.skip_reason())
        self.tmp = tempfile.mkdtemp(prefix="ovra-kb-pg.")
        self.addCleanup(shutil.rmtree, self.tmp, True)
        self.schema = pg_support.Schema()
        self.addCleanup(self.schema.drop)
        self.url, self.password = self.schema.url, pg_support.password()
        self.env = {"PATH": "/usr/bin:/bin", "PYTHONPATH": PACKAGE_DIR, "HOME": self.tmp, "LANG": "C.UTF-8",
                    "PYTHONDONTWRITEBYTECODE": "1", "OVRA_LOG_LEVEL": "warning"}

    def start(self, *args, env=None):
        return subprocess.Popen([CLI] + list(args), env=dict(self.env, **(env or {})), stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, universal_newlines=True)

    def cli(self, *args, status=0, env=None):
        process = self.start(*args, env=env)
        out, err = process.communicate(timeout=300)
        self.assertEqual(process.returncode, status, "ovra-kb %s\n%s%s" % (args[0], out, err))
        return out, err

    def write_records(self, name, records):
        path = os.path.join(self.tmp, name)
        with open(path, "w", encoding="utf-8") as stream:
            stream.write("".join(json.dumps(record) + "\n" for record in records))
        return path

    def read(self, name):
        with open(os.path.join(self.tmp, name), encoding="utf-8") as stream:
            return stream.read()


class LoginTest(BankTestCase):
    def test_refused_connections_and_logins_name_the_fix_and_never_the_password(self):
        params = pg_support.driver().conninfo.conninfo_to_dict(pg_support.URL)
        host, port, user, db = params["host"], params.get("port", "5432"), params["user"], params["dbname"]
        free = pg_support.free_port()
        wrong = "Wr0ng-pa55-%s" % uuid.uuid4().hex[:6]
        cases = [
            ("postgresql://%s:%s@127.0.0.1:%d/%s?sslmode=disable" % (user, self.password, free, db),
             "OVRA_KB_E013", ["127.0.0.1:%d" % free, "Connection refused"]),
            ("postgresql://%s:%s@%s:%s/%s?sslmode=disable&connect_timeout=5" % (user, wrong, host, port, db),
             "OVRA_KB_E014", ["user and password", user]),
            ("postgres://%s@%s:%s/%s?password=%s" % (user, host, port, db, wrong), "OVRA_KB_E014",
             ["user and password"]),
            ("postgresql://%s:%s@%s:%s/no_such_db_x?sslmode=disable" % (user, self.password, host, port),
             "OVRA_KB_E013", ["has no database no_such_db_x"]),
        ]
        for url, code, phrases in cases:
            with self.subTest(code=code, phrase=phrases[0]):
                # --verbose: the library's log lines, the traceback among them, go to standard error too.
                _, err = self.cli("write", "k", "v", "--bank", url, "--verbose", status=6)
                self.assertIn("Failed to call ovra_kb_init.", err)
                for phrase in ["[%s]" % code] + phrases:
                    self.assertIn(phrase, err.splitlines()[-1])
                for secret in (wrong, self.password):
                    self.assertNotIn(secret, err)

    def test_missing_driver(self):
        # A Python without psycopg: pyenv's, or Debian's with the driver hidden behind a failing package.
        env = {}
        for candidate in sorted(glob.glob(os.path.expanduser("~/.pyenv/versions/3.*/bin/python3"))):
            if subprocess.run([candidate, "-c", "import psycopg"], stderr=subprocess.DEVNULL).returncode != 0:
                env["PATH"] = os.path.dirname(candidate) + ":/usr/bin:/bin"
                break
        else:
            hidden = os.path.join(self.tmp, "hide", "psycopg")
            os.makedirs(hidden)
            with open(os.path.join(hidden, "__init__.py"), "w") as stream:
                stream.write("raise ImportError('No module named psycopg')\n")
            env["PYTHONPATH"] = os.path.dirname(hidden) + ":" + PACKAGE_DIR
        _, err = self.cli("write", "k", "v", "--bank", self.url, env=env, status=6)
        self.assertIn("[OVRA_KB_E012]", err)
        self.assertNotIn(self.password, err)


class ConcurrencyTest(BankTestCase):
    def test_four_processes_importing_at_once_lose_nothing(self):
        writers, count, shared = 4, 1000, 250
        files = [self.write_records("w%d.jsonl" % writer, [
            {"keyword": keyword, "knowledge": "w%d" % writer, "op_type": "Farm"} for keyword in
            ["w%d-%04d" % (writer, n) for n in range(count - shared)] + ["shared-%04d" % n for n in range(shared)]])
            for writer in range(writers)]
        self.cli("write", "first", "creates the tables", "--bank", self.url)
        imports = [self.start("import", name, "--bank", self.url) for name in files]
        for process in imports:
            out, err = process.communicate(timeout=300)
            self.assertEqual(process.returncode, 0, err)
            self.assertIn("imported %d records" % count, out)
        rows = dict(self.schema.execute("SELECT keyword, knowledge FROM ovra_kb_records WHERE op_type = 'Farm'"))
        self.assertEqual(len(rows), writers * (count - shared) + shared)  # nothing lost, nothing extra
        for writer in range(writers):
            self.assertEqual(rows["w%d-0000" % writer], "w%d" % writer)
        self.assertTrue(all(rows["shared-%04d" % n] in {"w%d" % w for w in range(writers)} for n in range(shared)))


class MoveTest(BankTestCase):
    """Export from an SQLite bank, import into PostgreSQL, export again: the same records, in the same order."""

    def test_export_sqlite_import_postgres_export_again(self):
        sqlite_bank, back_bank = os.path.join(self.tmp, "sqlite-bank"), os.path.join(self.tmp, "back-bank")
        records = [("MatMul", "m%04d" % n, "tile %d" % n) for n in range(600)] + [("Conv2D", k, v) for k, v in (
            ("a", "lower"), ("B", "upper"), ("_x", "underscore"), ("\u00e9t\u00e9", "accent"), ("Z", "upper z"),
            ("a b", "space"), ("a\tb", "tab \t inside"), ("n\nl", "new\nline"), ("q\"'", "quotes \" '"),
            ("back\\slash", "\\"), ("\u4e2d\u6587", "\u7b97\u5b50"), ("\U0001F600", "emoji \U0001F600"),
            ("%_", "like wildcards"), ("long", "x" * 100000))] + [
            ("add", "k", "lower-case op type"), ("Add", "k", "upper-case op type"), ("\u00c9lu", "k", "accented")]
        lines = [{"keyword": k, "knowledge": v, "op_type": op} for op, k, v in records] + [
            {"keyword": "k", "knowledge": "other chip", "op_type": "Add", "soc_version": "soc-b2", "core_num": "16"}]
        self.cli("import", self.write_records("in.jsonl", lines), "--bank", sqlite_bank)
        steps = [("export", "sqlite.jsonl", sqlite_bank), ("import", "sqlite.jsonl", self.url),
                 ("export", "pg.jsonl", self.url), ("import", "pg.jsonl", back_bank), ("export", "back.jsonl", back_bank)]
        for command, name, bank in steps:
            out, _ = self.cli(command, os.path.join(self.tmp, name), "--bank", bank)
            self.assertIn("%sed %d records" % (command, len(lines)), out)
        exported = [json.loads(line) for line in self.read("sqlite.jsonl").splitlines()]
        self.assertEqual(sorted((r["op_type"], r["keyword"], r["knowledge"]) for r in exported
                                if r["soc_version"] == "soc-a1"), sorted(records))
        # The same order too: both banks sort alike, also within one op type.
        self.assertEqual((self.read("pg.jsonl"), self.read("back.jsonl")), (self.read("sqlite.jsonl"),) * 2)
        for op in ("Conv2D", "MatMul"):
            with self.subTest(op=op):
                self.assertEqual(*(self.cli("export", "--bank", bank, "--op-type", op)[0]
                                   for bank in (self.url, sqlite_bank)))
        self.assertEqual(*(self.cli("stats", "--bank", bank)[0] for bank in (self.url, sqlite_bank)))


def cases():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    return ["%s.%s" % (type(test).__name__, test._testMethodName) for group in suite for test in group]


def unit_cases():
    """The package's server tests (python/tests/test_postgres.py), as Class.method."""
    from tests import test_postgres
    names = []
    for name in sorted(dir(test_postgres)):
        item = getattr(test_postgres, name)
        if isinstance(item, type) and issubclass(item, unittest.TestCase) and item.__module__ == test_postgres.__name__:
            names += ["%s.%s" % (name, method) for method in unittest.defaultTestLoader.getTestCaseNames(item)]
    return names


def main(argv):
    if argv[1:] in (["--list"], ["--list-unit"]):
        print("\n".join(cases() if argv[1] == "--list" else unit_cases()))
        return 0
    if len(argv) != 2:
        print("usage: test_postgres_bank.py --list | --list-unit | CLASS.TEST", file=sys.stderr)
        return 64
    if not pg_support.URL:
        print("skipped: OVRA_KB_TEST_POSTGRES_URL is not set")
        return SKIP
    result = unittest.TextTestRunner(verbosity=2).run(unittest.defaultTestLoader.loadTestsFromName(argv[1],
                                                                                                   sys.modules[__name__]))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
