"""The PostgreSQL bank through libovra_kb.so: real processes, a real server, restarts and bank moves.

Run by CTest (tests/postgres/CMakeLists.txt), one case per process: `test_postgres_bank.py CASE`;
`--list` prints the cases. The environment names the server (OVRA_KB_TEST_POSTGRES_URL, a database
whose user may create schemas), a pg_ctl wrapper for that server (OVRA_KB_TEST_PG_CTL, takes pg_ctl's
arguments), the driver (OVRA_KB_DRIVER, kb_driver.cpp), the ovra-kb command (OVRA_KB_CLI) and the
reference package (OVRA_KB_PACKAGE_DIR). Every process that loads the library gets PATH=/usr/bin:/bin,
so its python3 is Debian's, the one that has the driver. A case exits 77 (skipped) without a server.
"""
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import uuid

URL = os.environ.get("OVRA_KB_TEST_POSTGRES_URL", "")
PG_CTL = os.environ.get("OVRA_KB_TEST_PG_CTL", "")
DRIVER = os.environ.get("OVRA_KB_DRIVER", "")
CLI = os.environ.get("OVRA_KB_CLI", "")
PACKAGE_DIR = os.environ.get("OVRA_KB_PACKAGE_DIR", "")
SOC, CORES = "soc-a1", "32"
SKIP = 77


def escape(text):
    return text.replace("\\", "\\\\").replace("\t", "\\t").replace("\n", "\\n")


def unescape(text):
    out, i = [], 0
    while i < len(text):
        if text[i] == "\\" and i + 1 < len(text):
            out.append({"t": "\t", "n": "\n"}.get(text[i + 1], text[i + 1]))
            i += 2
        else:
            out.append(text[i])
            i += 1
    return "".join(out)


def password_of(url):
    import psycopg
    return psycopg.conninfo.conninfo_to_dict(url).get("password") or ""


def with_query(url, **options):
    return url + ("&" if "?" in url else "?") + "&".join("%s=%s" % item for item in sorted(options.items()))


class Outcome(object):
    def __init__(self, status, code, message, rows):
        self.status, self.code, self.message, self.rows = status, code, message, rows

    def __repr__(self):
        return "Outcome(%d, %r, %r, %d rows)" % (self.status, self.code, self.message, len(self.rows))


class Session(object):
    """A kb_driver process in session mode: one library user, driven line by line."""

    def __init__(self, env, stderr_path):
        self.stderr = open(stderr_path, "w")
        self.proc = subprocess.Popen([DRIVER, "session"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self.stderr, env=env, universal_newlines=True, encoding="utf-8")

    def call(self, *fields):
        self.proc.stdin.write("\t".join(escape(str(f)) for f in fields) + "\n")
        self.proc.stdin.flush()
        status, rows = None, []
        while True:
            line = self.proc.stdout.readline()
            if not line:
                raise AssertionError("kb_driver ended early (exit %s)" % self.proc.wait())
            parts = [unescape(p) for p in line.rstrip("\n").split("\t")]
            if parts[0] == "end":
                return status
            if parts[0] == "status":
                status = Outcome(int(parts[1]), parts[2], parts[3], rows)
            elif parts[0] == "row":
                rows.append(dict(zip(("soc_version", "core_num", "op_type", "keyword", "knowledge"), parts[1:])))
            else:
                raise AssertionError("kb_driver said: %r" % line)

    def close(self):
        if self.proc.poll() is None:
            self.proc.stdin.close()
            self.proc.wait(60)
        self.proc.stdout.close()
        self.stderr.close()


class BankTestCase(unittest.TestCase):
    """A scratch directory, a schema of its own on the server, and the environment of library users."""

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
        self.password = password_of(URL)
        self.env = {"PATH": "/usr/bin:/bin", "PYTHONPATH": PACKAGE_DIR, "HOME": self.tmp, "LANG": "C.UTF-8",
                    "PYTHONDONTWRITEBYTECODE": "1", "OVRA_LOG_LEVEL": "debug", "OVRA_LOG_EVENT": "1"}
        self.logs = []

    def drop_schema(self):
        for attempt in range(20):  # the server may still be coming back from a restart
            try:
                with self.psycopg.connect(URL, autocommit=True) as conn:
                    conn.execute("DROP SCHEMA IF EXISTS %s CASCADE" % self.schema)
                return
            except self.psycopg.OperationalError:
                time.sleep(0.5)

    def log_path(self, name):
        path = os.path.join(self.tmp, name)
        self.logs.append(path)
        return path

    def session(self, name="session"):
        session = Session(self.env, self.log_path(name + ".stderr"))
        self.addCleanup(session.close)
        return session

    def opened(self, bank=None, name="session"):
        session = self.session(name)
        outcome = session.call("init", SOC, CORES, bank or self.url)
        self.assertEqual(outcome.status, 0, outcome)
        return session

    def query(self, sql, params=()):
        with self.psycopg.connect(self.url, autocommit=True) as conn:
            return conn.execute(sql, params).fetchall()

    def assert_logs_keep_the_password(self):
        """Every log line and report the library wrote in this test leaves the password out."""
        if not self.password:
            return
        for path in self.logs:
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as stream:
                    self.assertNotIn(self.password, stream.read(), "the password is in " + path)


class RoundTripTest(BankTestCase):
    def test_round_trip_and_search_types(self):
        kb = self.opened()
        writes = [("MatMul", "m=16,n=16", "tiling=4", 1), ("MatMul", "m=16,n=32", "tiling=8", 0),
                  ("MatMul", "m=8", "tiling=2", 0), ("Add", "m=16", "vector", 1),
                  ("MatMul", "k\u00e9y \u4e2d", "quote ' \" backslash \\ tab \t newline \n", 1)]
        for op, key, knowledge, flag in writes:
            self.assertEqual(kb.call("write", op, key, knowledge, flag).status, 0)
        self.assertEqual(kb.call("write", "MatMul", "m=8", "tiling=1", 1).status, 0)  # replaces
        cases = [
            ("MatMul", "-", "m=16,n=16", [("MatMul", "m=16,n=16", "tiling=4")]),
            ("MatMul", "exact", "m=8", [("MatMul", "m=8", "tiling=1")]),
            ("MatMul", "exact", "m=16", []),
            ("MatMul", "prefix", "m=16", [("MatMul", "m=16,n=16", "tiling=4"), ("MatMul", "m=16,n=32", "tiling=8")]),
            ("MatMul", "prefix", "k\u00e9", [("MatMul", writes[4][1], writes[4][2])]),
            ("MatMul", "all", "", [("MatMul", "k\u00e9y \u4e2d", writes[4][2]), ("MatMul", "m=16,n=16", "tiling=4"),
                                   ("MatMul", "m=16,n=32", "tiling=8"), ("MatMul", "m=8", "tiling=1")]),
            ("*", "all", "", [("Add", "m=16", "vector"), ("MatMul", "k\u00e9y \u4e2d", writes[4][2]),
                              ("MatMul", "m=16,n=16", "tiling=4"), ("MatMul", "m=16,n=32", "tiling=8"),
                              ("MatMul", "m=8", "tiling=1")]),
        ]
        for op, search_type, keyword, expected in cases:
            with self.subTest(op=op, search_type=search_type, keyword=keyword):
                found = kb.call("search", op, search_type, keyword)
                self.assertEqual(found.status, 0, found)
                self.assertEqual([(r["op_type"], r["keyword"], r["knowledge"]) for r in found.rows], expected)
                self.assertTrue(all(r["soc_version"] == SOC and r["core_num"] == CORES for r in found.rows))
        unknown = kb.call("search", "MatMul", "fuzzy", "m")
        self.assertEqual((unknown.status, unknown.code), (6, "OVRA_KB_E006"))
        self.assertEqual(kb.call("delete", "MatMul", "m=8", 1).status, 0)
        self.assertEqual(kb.call("delete", "MatMul", "m=8", 0).status, 0)
        self.assertEqual(kb.call("finalize").status, 0)

        # Another process, another chip scope, then the same scope again.
        other = self.session("other")
        self.assertEqual(other.call("init", "soc-b2", CORES, self.url).status, 0)
        self.assertEqual(other.call("search", "*", "all", "").rows, [])
        self.assertEqual(other.call("init", SOC, CORES, self.url).status, 0)
        self.assertEqual([r["keyword"] for r in other.call("search", "MatMul", "all", "").rows],
                         ["k\u00e9y \u4e2d", "m=16,n=16", "m=16,n=32"])
        # A prefix with more matches than are answered at once is read on a worker thread.
        for number in range(300):
            self.assertEqual(other.call("write", "Big", "p%03d" % number, "v%d" % number, 0).status, 0)
        rows = other.call("search", "Big", "prefix", "p").rows
        self.assertEqual([r["keyword"] for r in rows], ["p%03d" % n for n in range(300)])
        self.assertEqual(other.call("finalize").status, 0)
        self.assertEqual(self.query("SELECT count(*) FROM ovra_kb_records"), [(3 + 1 + 300,)])
        self.assert_logs_keep_the_password()


def start_writer(env, bank, writer_id, count, log, stderr, **options):
    args = [DRIVER, "writer", "--bank", bank, "--id", writer_id, "--count", str(count), "--log", log]
    for name, value in options.items():
        flag = "--" + name.replace("_", "-")
        args += [flag] if value is True else [flag, str(value)]
    return subprocess.Popen(args, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=stderr, env=env,
                            universal_newlines=True)


def read_log(path):
    entries = []
    with open(path, encoding="utf-8") as stream:
        for line in stream:
            if line.endswith("\n"):
                parts = line.rstrip("\n").split("\t")
                entries.append(dict(kind=parts[0], index=int(parts[1]), key=parts[2], knowledge=parts[3],
                                    flag=parts[4], status=parts[5] if len(parts) > 5 else "",
                                    code=parts[6] if len(parts) > 6 else "",
                                    message=parts[7] if len(parts) > 7 else ""))
    return entries


class ConcurrencyTest(BankTestCase):
    def test_four_processes_write_at_once(self):
        writers, count, shared = 4, 1000, 500
        opened = self.opened()  # creates the schema, so the writers race on records only
        self.assertEqual(opened.call("finalize").status, 0)
        procs = []
        for number in range(writers):
            log = self.log_path("writer%d.log" % number)
            stderr = open(self.log_path("writer%d.stderr" % number), "w")
            self.addCleanup(stderr.close)
            procs.append((start_writer(self.env, self.url, "w%d" % number, count, log, stderr, shared=shared,
                                       durable_every=10, wait_go=True), log))
        for proc, _ in procs:
            self.assertEqual(proc.stdout.readline().strip(), "ready")
        for proc, _ in procs:  # all four are connected: let them go together
            proc.stdin.write("go\n")
            proc.stdin.flush()
        for proc, _ in procs:
            out, _ = proc.communicate(timeout=100)
            self.assertEqual(proc.returncode, 0, out)
            self.assertTrue(out.startswith("done\t%d\t0\tstatus\t0" % count), out)

        expected_own, possible_shared = {}, {}
        for number, (_, log) in enumerate(procs):
            entries = read_log(log)
            self.assertEqual([e["index"] for e in entries], list(range(count)))
            self.assertEqual({e["kind"] for e in entries}, {"ok"})
            for e in entries:
                if e["key"].startswith("shared-"):
                    possible_shared.setdefault(e["key"], set()).add(e["knowledge"])
                else:
                    expected_own[e["key"]] = e["knowledge"]
        self.assertEqual(len(expected_own), writers * (count - shared))
        self.assertEqual(len(possible_shared), shared)

        kb = self.opened(name="reader")
        rows = kb.call("search", "Farm", "all", "").rows
        found = {r["keyword"]: r["knowledge"] for r in rows}
        self.assertEqual(len(rows), len(found))
        self.assertEqual(len(found), len(expected_own) + len(possible_shared))  # nothing lost, nothing extra
        for key, knowledge in expected_own.items():
            self.assertEqual(found.get(key), knowledge, key)
        for key, candidates in possible_shared.items():
            self.assertIn(found.get(key), candidates, key)  # one of the values written to it
        winners = {found[key].partition(":")[0] for key in possible_shared}
        print("shared keys won by", sorted(winners))
        self.assert_logs_keep_the_password()


class ThreadTest(BankTestCase):
    def test_native_threads_share_a_small_pool(self):
        threads, count, name = 8, 300, "ovra_kb_" + self.schema
        url = with_query(self.url, application_name=name)
        stderr = open(self.log_path("threads.stderr"), "w")
        self.addCleanup(stderr.close)
        env = dict(self.env, OVRA_LOG_LEVEL="warning")
        proc = subprocess.Popen([DRIVER, "threads", url, str(threads), str(count)], stdout=subprocess.PIPE,
                                stderr=stderr, env=env, universal_newlines=True)
        peak = 0
        with self.psycopg.connect(URL, autocommit=True) as conn:
            while proc.poll() is None:
                (connections,), = conn.execute(
                    "SELECT count(*) FROM pg_stat_activity WHERE application_name = %s", (name,)).fetchall()
                peak = max(peak, connections)
                time.sleep(0.02)
        out, _ = proc.communicate(timeout=60)
        self.assertEqual(proc.returncode, 0, out)
        self.assertTrue(out.startswith("threads\t%d\tstatus\t0" % (threads * count)), out)
        self.assertGreaterEqual(peak, 1)
        self.assertLessEqual(peak, 4, "one process opened more connections than its pool holds")
        print("%d native threads, at most %d connections at once" % (threads, peak))


class RestartTest(BankTestCase):
    """A writer runs while the server restarts; every write it saw acknowledged with flag 1 is kept."""

    def restart_while_writing(self, mode):
        if not PG_CTL:
            self.skipTest("no pg_ctl wrapper for the server (OVRA_KB_TEST_PG_CTL)")
        self.assertEqual(self.opened().call("finalize").status, 0)
        log, stop = self.log_path("writer.log"), os.path.join(self.tmp, "stop")
        stderr = open(self.log_path("writer.stderr"), "w")
        self.addCleanup(stderr.close)
        writer = start_writer(self.env, self.url, "r", 10 ** 6, log, stderr, durable_every=1, stop_file=stop,
                              pause_us=500)
        self.addCleanup(lambda: writer.poll() is None and writer.kill())
        self.assertEqual(writer.stdout.readline().strip(), "ready")

        def acknowledged():
            return sum(1 for e in read_log(log) if e["kind"] == "ok")

        def wait_for_acks(count, what):
            deadline = time.monotonic() + 60
            while acknowledged() < count:
                self.assertIsNone(writer.poll(), "the writer ended early")
                self.assertLess(time.monotonic(), deadline, "no %d acknowledged writes %s" % (count, what))
                time.sleep(0.05)

        wait_for_acks(200, "before the restart")
        started = time.monotonic()
        restart = subprocess.run([PG_CTL, "restart", "-m", mode, "-w", "-t", "60"], stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, universal_newlines=True, timeout=90)
        self.assertEqual(restart.returncode, 0, restart.stdout)
        took = time.monotonic() - started
        wait_for_acks(acknowledged() + 200, "after the restart")
        open(stop, "w").close()
        out, _ = writer.communicate(timeout=60)
        self.assertEqual(writer.returncode, 0, out)

        entries = read_log(log)
        self.assertEqual([e["index"] for e in entries], list(range(len(entries))))  # every attempt reported
        failed = [e for e in entries if e["kind"] == "fail"]
        for e in failed:  # a write that failed said so, with the documented status and code
            self.assertEqual((e["status"], e["code"]), ("6", "OVRA_KB_E015"), e)
            self.assertIn("is running", e["message"])
        rows = self.query("SELECT keyword, knowledge FROM ovra_kb_records WHERE op_type = 'Farm'")
        stored = dict(rows)
        acked = [e for e in entries if e["kind"] == "ok"]
        missing = [e["key"] for e in acked if stored.get(e["key"]) != e["knowledge"]]
        self.assertEqual(missing, [], "acknowledged durable writes lost by the %s restart" % mode)
        print("%s restart took %.1f s: %d writes acknowledged, %d reported failed, %d stored"
              % (mode, took, len(acked), len(failed), len(stored)))
        self.assert_logs_keep_the_password()

    def test_fast_restart_keeps_acknowledged_writes(self):
        self.restart_while_writing("fast")

    def test_immediate_restart_keeps_acknowledged_writes(self):
        # No shutdown checkpoint: the server recovers from its write-ahead log, as after a crash.
        self.restart_while_writing("immediate")


class LoginTest(BankTestCase):
    def free_port(self):
        import socket
        probe = socket.socket()
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
        probe.close()
        return port

    def test_refused_connection_and_bad_credentials(self):
        import psycopg
        params = psycopg.conninfo.conninfo_to_dict(URL)
        host, port, user, db = params["host"], params.get("port", "5432"), params["user"], params["dbname"]
        free = self.free_port()
        wrong = "Wr0ng-pa55-%s" % uuid.uuid4().hex[:6]
        cases = [
            ("postgresql://%s:%s@127.0.0.1:%d/%s?sslmode=disable" % (user, self.password, free, db),
             "OVRA_KB_E013", ["127.0.0.1:%d" % free, "is running"]),
            ("postgresql://%s:%s@%s:%s/%s?sslmode=disable&connect_timeout=5" % (user, wrong, host, port, db),
             "OVRA_KB_E014", ["user and password", user]),
            ("postgres://%s@%s:%s/%s?password=%s" % (user, host, port, db, wrong),
             "OVRA_KB_E014", ["user and password"]),
            ("postgresql://%s:%s@%s:%s/no_such_db_x?sslmode=disable" % (user, self.password, host, port),
             "OVRA_KB_E013", ["no_such_db_x", "createdb"]),
        ]
        for url, code, phrases in cases:
            with self.subTest(code=code, url=url.replace(wrong, "***").replace(self.password or "\0", "***")):
                kb = self.session("login-%s" % code)
                outcome = kb.call("init", SOC, CORES, url)
                self.assertEqual((outcome.status, outcome.code), (6, code), outcome)
                for phrase in phrases:
                    self.assertIn(phrase, outcome.message)
                self.assertNotIn(wrong, outcome.message)
                # Nothing was opened: a write is refused as before any init.
                refused = kb.call("write", "Op", "k", "v", 1)
                self.assertEqual((refused.status, refused.code), (6, "OVRA_KB_E007"))
                kb.close()
                with open(self.logs[-1], encoding="utf-8") as stream:
                    log = stream.read()
                self.assertIn("Failed to call ovra_kb_init.", log)  # the debug log ran, traceback and all
                self.assertNotIn(wrong, log)
        self.assert_logs_keep_the_password()

    def python_without_driver(self):
        """(PATH directory whose python3 lacks psycopg, extra PYTHONPATH entry) for the driver-missing case."""
        for candidate in sorted(glob.glob(os.path.expanduser("~/.pyenv/versions/3.*/bin/python3"))):
            probe = subprocess.run([candidate, "-c", "import psycopg"], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
            if probe.returncode != 0:
                return os.path.dirname(candidate), ""
        # None here: hide Debian's driver from /usr/bin/python3 with a package that fails to import.
        hidden = os.path.join(self.tmp, "hide", "psycopg")
        os.makedirs(hidden)
        with open(os.path.join(hidden, "__init__.py"), "w") as stream:
            stream.write("raise ImportError('No module named psycopg')\n")
        return "/usr/bin", os.path.dirname(hidden)

    def test_missing_driver(self):
        bindir, hide = self.python_without_driver()
        self.env["PATH"] = bindir + ":/usr/bin:/bin"
        if hide:
            self.env["PYTHONPATH"] = hide + ":" + PACKAGE_DIR
        outcome = self.session("nodriver").call("init", SOC, CORES, self.url)
        self.assertEqual((outcome.status, outcome.code), (6, "OVRA_KB_E012"), outcome)
        self.assertIn("apt-get install python3-psycopg", outcome.message)
        self.assert_logs_keep_the_password()


class MoveTest(BankTestCase):
    """Export from an SQLite bank, import into PostgreSQL, export again: the same records, in the same order."""

    def cli(self, *args, chip=(SOC, CORES)):
        args = list(args) + ["--soc", chip[0], "--cores", chip[1]]
        result = subprocess.run([CLI] + args, env=dict(self.env, OVRA_LOG_LEVEL="warning"),
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True,
                                timeout=120)
        self.assertEqual(result.returncode, 0, "ovra-kb %s\n%s%s" % (args[0], result.stdout, result.stderr))
        return result

    def read(self, path):
        with open(path, encoding="utf-8") as stream:
            return stream.read()

    def test_export_sqlite_import_postgres_export_again(self):
        if not os.access(CLI, os.X_OK):
            self.fail("the ovra-kb command is not built (%s)" % CLI)
        sqlite_bank = os.path.join(self.tmp, "sqlite-bank")
        kb = self.opened(sqlite_bank, "fill")
        records = [("MatMul", "m%04d" % n, "tile %d" % n) for n in range(600)]
        records += [("Conv2D", k, v) for k, v in (
            ("a", "lower"), ("B", "upper"), ("_x", "underscore"), ("\u00e9t\u00e9", "accent"), ("Z", "upper z"),
            ("a b", "space"), ("a\tb", "tab \t inside"), ("n\nl", "new\nline"), ("q\"'", "quotes \" '"),
            ("back\\slash", "\\"), ("\u4e2d\u6587", "\u7b97\u5b50"), ("\U0001F600", "emoji \U0001F600"),
            ("%_", "like wildcards"), ("long", "x" * 100000))]
        records += [("add", "k", "lower-case op type"), ("Add", "k", "upper-case op type"),
                    ("\u00c9lu", "k", "accented op type")]
        for op, key, knowledge in records:
            self.assertEqual(kb.call("write", op, key, knowledge, 0).status, 0)
        self.assertEqual(kb.call("finalize").status, 0)
        # Records of a second chip: the export holds every chip's, and the import puts each back to its own.
        for key in ("m0001", "b"):
            self.cli("write", key, "on the other chip", "--op-type", "MatMul", "--bank", sqlite_bank,
                     chip=("soc-b2", "16"))
        records += [("MatMul", "m0001", "on the other chip"), ("MatMul", "b", "on the other chip")]

        first, second, third = (os.path.join(self.tmp, name) for name in ("sqlite.jsonl", "pg.jsonl", "back.jsonl"))
        self.cli("export", first, "--bank", sqlite_bank)
        imported = self.cli("import", first, "--bank", self.url)
        self.assertIn("imported %d records" % len(records), imported.stdout)
        self.cli("export", second, "--bank", self.url)
        exported = [json.loads(line) for line in self.read(first).splitlines()]
        self.assertEqual(sorted((r["op_type"], r["keyword"], r["knowledge"]) for r in exported), sorted(records))
        self.assertEqual(sorted(self.read(second).splitlines()), sorted(self.read(first).splitlines()))
        self.assertEqual(self.read(second), self.read(first))  # same order too: "*" sorts alike on both
        stats = self.cli("stats", "--bank", self.url).stdout
        self.assertEqual(stats, self.cli("stats", "--bank", sqlite_bank).stdout)
        self.assertIn("soc-b2       16        2", stats)
        for op in ("Conv2D", "MatMul"):
            with self.subTest(op=op):
                one, other = os.path.join(self.tmp, "s-" + op), os.path.join(self.tmp, "p-" + op)
                self.cli("export", one, "--bank", sqlite_bank, "--op-type", op)
                self.cli("export", other, "--bank", self.url, "--op-type", op)
                self.assertEqual(self.read(other), self.read(one))
        # And back again, into a new SQLite bank.
        back_bank = os.path.join(self.tmp, "back-bank")
        self.cli("import", second, "--bank", back_bank)
        self.cli("export", third, "--bank", back_bank)
        self.assertEqual(self.read(third), self.read(first))
        self.assertEqual(self.query("SELECT count(*) FROM ovra_kb_records"), [(len(records),)])
        self.assert_logs_keep_the_password()


def cases():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    names = []

    def walk(item):
        if isinstance(item, unittest.TestSuite):
            for child in item:
                walk(child)
        else:
            names.append("%s.%s" % (type(item).__name__, item._testMethodName))

    walk(suite)
    return names


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
