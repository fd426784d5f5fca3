"""The PostgreSQL bank through the ovra-kb command and libovra_kb.so: logins, processes at once, bank moves.

Run by CTest (tests/postgres/CMakeLists.txt), one case per process: `test_postgres_bank.py CASE`;
`--list` prints the cases. The environment names the server (OVRA_KB_TEST_POSTGRES_URL, a database
whose user may create schemas), the ovra-kb command (OVRA_KB_CLI) and the reference package
(OVRA_KB_PACKAGE_DIR). Every command gets PATH=/usr/bin:/bin, so its python3 is Debian's, the one that
has the driver. A case exits 77 (skipped) without a server.
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

URL = os.environ.get("OVRA_KB_TEST_POSTGRES_URL", "")
CLI = os.environ.get("OVRA_KB_CLI", "")
PACKAGE_DIR = os.environ.get("OVRA_KB_PACKAGE_DIR", "")
SKIP = 77


def with_query(url, **options):
    return url + ("&" if "?" in url else "?") + "&".join("%s=%s" % item for item in sorted(options.items()))


class BankTestCase(unittest.TestCase):
    """A scratch directory, a schema of its own on the server, and the environment of the command."""

    def setUp(self):
        if not URL:
            raise unittest.SkipTest("no PostgreSQL server configured")
        import psycopg
        self.psycopg = psycopg
        self.tmp = tempfile.mkdtemp(prefix="ovra-kb-pg.")
        self.addCleanup(shutil.rmtree, self.tmp, True)
        self.schema = "t_" + uuid.uuid4().hex[:12]
        with psycopg.connect(URL, autocommit=True) as conn:
            conn.execute("CREATE SCHEMA " + self.schema)
        self.addCleanup(self.drop_schema)
        self.url = with_query(URL, options="-csearch_path%3D" + self.schema)
        self.password = psycopg.conninfo.conninfo_to_dict(URL).get("password") or ""
        self.env = {"PATH": "/usr/bin:/bin", "PYTHONPATH": PACKAGE_DIR, "HOME": self.tmp, "LANG": "C.UTF-8",
                    "PYTHONDONTWRITEBYTECODE": "1", "OVRA_LOG_LEVEL": "warning"}

    def drop_schema(self):
        with self.psycopg.connect(URL, autocommit=True) as conn:
            conn.execute("DROP SCHEMA IF EXISTS %s CASCADE" % self.schema)

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
            for record in records:
                stream.write(json.dumps(record) + "\n")
        return path

    def read(self, path):
        with open(path, encoding="utf-8") as stream:
            return stream.read()

    def query(self, sql, params=()):
        with self.psycopg.connect(self.url, autocommit=True) as conn:
            return conn.execute(sql, params).fetchall()


class LoginTest(BankTestCase):
    def test_refused_connections_and_logins_name_the_fix_and_never_the_password(self):
        import socket
        params = self.psycopg.conninfo.conninfo_to_dict(URL)
        host, port, user, db = params["host"], params.get("port", "5432"), params["user"], params["dbname"]
        probe = socket.socket()
        probe.bind(("127.0.0.1", 0))
        free = probe.getsockname()[1]
        probe.close()
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
                last = err.splitlines()[-1]
                self.assertIn("[%s]" % code, last)
                for phrase in phrases:
                    self.assertIn(phrase, last)
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
        files = []
        for writer in range(writers):
            records = [{"keyword": "w%d-%04d" % (writer, n), "knowledge": "w%d" % writer, "op_type": "Farm"}
                       for n in range(count - shared)]
            records += [{"keyword": "shared-%04d" % n, "knowledge": "w%d" % writer, "op_type": "Farm"}
                        for n in range(shared)]
            files.append(self.write_records("w%d.jsonl" % writer, records))
        self.cli("write", "first", "creates the tables", "--bank", self.url)
        imports = [self.start("import", name, "--bank", self.url) for name in files]
        for process in imports:
            out, err = process.communicate(timeout=300)
            self.assertEqual(process.returncode, 0, err)
            self.assertIn("imported %d records" % count, out)
        rows = dict(self.query("SELECT keyword, knowledge FROM ovra_kb_records WHERE op_type = 'Farm'"))
        self.assertEqual(len(rows), writers * (count - shared) + shared)  # nothing lost, nothing extra
        for writer in range(writers):
            self.assertEqual(rows["w%d-0000" % writer], "w%d" % writer)
        self.assertTrue(all(rows["shared-%04d" % n] in {"w%d" % w for w in range(writers)} for n in range(shared)))


class MoveTest(BankTestCase):
    """Export from an SQLite bank, import into PostgreSQL, export again: the same records, in the same order."""

    def test_export_sqlite_import_postgres_export_again(self):
        sqlite_bank = os.path.join(self.tmp, "sqlite-bank")
        records = [("MatMul", "m%04d" % n, "tile %d" % n) for n in range(600)]
        records += [("Conv2D", k, v) for k, v in (
            ("a", "lower"), ("B", "upper"), ("_x", "underscore"), ("\u00e9t\u00e9", "accent"), ("Z", "upper z"),
            ("a b", "space"), ("a\tb", "tab \t inside"), ("n\nl", "new\nline"), ("q\"'", "quotes \" '"),
            ("back\\slash", "\\"), ("\u4e2d\u6587", "\u7b97\u5b50"), ("\U0001F600", "emoji \U0001F600"),
            ("%_", "like wildcards"), ("long", "x" * 100000))]
        records += [("add", "k", "lower-case op type"), ("Add", "k", "upper-case op type"),
                    ("\u00c9lu", "k", "accented op type")]
        lines = [{"keyword": k, "knowledge": v, "op_type": op} for op, k, v in records]
        lines += [{"keyword": "k", "knowledge": "other chip", "op_type": "Add", "soc_version": "soc-b2",
                   "core_num": "16"}]
        self.cli("import", self.write_records("in.jsonl", lines), "--bank", sqlite_bank)

        first, second, third = (os.path.join(self.tmp, name) for name in ("sqlite.jsonl", "pg.jsonl", "back.jsonl"))
        self.cli("export", first, "--bank", sqlite_bank)
        out, _ = self.cli("import", first, "--bank", self.url)
        self.assertIn("imported %d records" % len(lines), out)
        self.cli("export", second, "--bank", self.url)
        exported = [json.loads(line) for line in self.read(first).splitlines()]
        self.assertEqual(sorted((r["op_type"], r["keyword"], r["knowledge"]) for r in exported
                                if r["soc_version"] == "soc-a1"), sorted(records))
        self.assertEqual(self.read(second), self.read(first))  # same order too: both banks sort alike
        for op in ("Conv2D", "MatMul"):
            with self.subTest(op=op):
                one, other = os.path.join(self.tmp, "s-" + op), os.path.join(self.tmp, "p-" + op)
                self.cli("export", one, "--bank", sqlite_bank, "--op-type", op)
                self.cli("export", other, "--bank", self.url, "--op-type", op)
                self.assertEqual(self.read(other), self.read(one))
        self.assertEqual(self.cli("stats", "--bank", self.url)[0], self.cli("stats", "--bank", sqlite_bank)[0])
        # And back again, into a new SQLite bank.
        back_bank = os.path.join(self.tmp, "back-bank")
        self.cli("import", second, "--bank", back_bank)
        self.cli("export", third, "--bank", back_bank)
        self.assertEqual(self.read(third), self.read(first))
        self.assertEqual(self.query("SELECT count(*) FROM ovra_kb_records"), [(len(lines),)])


def cases():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    return ["%s.%s" % (type(test).__name__, test._testMethodName) for group in suite for test in group]


def unit_cases(package_dir):
    """The test methods of the package's python/tests/test_postgres.py, as Class.method."""
    sys.path.insert(0, package_dir)
    module = __import__("tests.test_postgres", fromlist=["test_postgres"])
    names = []
    for name in sorted(dir(module)):
        item = getattr(module, name)
        if isinstance(item, type) and issubclass(item, unittest.TestCase) and item.__module__ == module.__name__:
            names += ["%s.%s" % (name, method) for method in unittest.defaultTestLoader.getTestCaseNames(item)]
    return names


def main(argv):
    if argv[1:] == ["--list"]:
        print("\n".join(cases()))
        return 0
    if len(argv) == 3 and argv[1] == "--list-unit":
        print("\n".join(unit_cases(argv[2])))
        return 0
    if len(argv) != 2:
        print("usage: test_postgres_bank.py --list | --list-unit PACKAGE_DIR | CLASS.TEST", file=sys.stderr)
        return 64
    if not URL:
        print("skipped: OVRA_KB_TEST_POSTGRES_URL is not set")
        return SKIP
    result = unittest.TextTestRunner(verbosity=2).run(unittest.defaultTestLoader.loadTestsFromName(argv[1],
                                                                                                   sys.modules[__name__]))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
