"""The tests' PostgreSQL server and a scratch schema per test. Server tests run where psycopg 3 imports and
OVRA_KB_TEST_POSTGRES_URL names a database whose user may create schemas (scripts/ci_postgres.sh sets one up)."""

import os
import socket
import uuid

try:
    import psycopg
except ImportError:  # the server tests skip
    psycopg = None

URL = os.environ.get("OVRA_KB_TEST_POSTGRES_URL", "")


def skip_reason():
    """Why the server tests cannot run here, or None."""
    if not URL:
        return "no PostgreSQL server configured (OVRA_KB_TEST_POSTGRES_URL is unset)"
    if psycopg is None:
        return "psycopg 3 is not importable by this interpreter"
    return None


def with_query(url, **options):
    """``url`` with more query options appended (values already URL-encoded)."""
    return url + ("&" if "?" in url else "?") + "&".join("%s=%s" % item for item in sorted(options.items()))


def admin_connect(url=None):
    return psycopg.connect(url or URL, autocommit=True)


def password():
    return psycopg.conninfo.conninfo_to_dict(URL).get("password") or ""


def free_port():
    """A TCP port of 127.0.0.1 where nothing listens (just now)."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Schema(object):
    """A schema of its own for one test, and the bank URL that uses it."""

    def __init__(self):
        self.name = "t_" + uuid.uuid4().hex[:12]
        with admin_connect() as conn:
            conn.execute("CREATE SCHEMA " + self.name)
        self.url = with_query(URL, options="-csearch_path%3D" + self.name)

    def execute(self, sql, params=()):
        with admin_connect(self.url) as conn:
            cursor = conn.execute(sql, params)
            return cursor.fetchall() if cursor.description else cursor.rowcount

    def drop(self):
        with admin_connect() as conn:
            conn.execute("DROP SCHEMA IF EXISTS %s CASCADE" % self.name)

