"""The PostgreSQL server of the tests: a scratch schema for each test, and a TCP proxy that can cut connections.

The server tests run when OVRA_KB_TEST_POSTGRES_URL names a database whose user may create schemas in it
(scripts/ci_postgres.sh starts a throwaway server and sets it), and this interpreter can import psycopg 3.
"""

import os
import socket
import threading
import uuid

URL = os.environ.get("OVRA_KB_TEST_POSTGRES_URL", "")


def driver():
    try:
        import psycopg
    except ImportError:
        return None
    return psycopg


def skip_reason():
    """Why the server tests cannot run here, or None."""
    if not URL:
        return "no PostgreSQL server configured (OVRA_KB_TEST_POSTGRES_URL is unset)"
    if driver() is None:
        return "psycopg 3 is not importable by this interpreter"
    return None


def with_query(url, **options):
    """``url`` with more query options appended (values already URL-encoded)."""
    return url + ("&" if "?" in url else "?") + "&".join("%s=%s" % item for item in sorted(options.items()))


def admin_connect(url=None):
    return driver().connect(url or URL, autocommit=True)


def password():
    return driver().conninfo.conninfo_to_dict(URL).get("password") or ""


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


def url_parts(url):
    """(host, port) of the server URL; the tests need a TCP address."""
    params = driver().conninfo.conninfo_to_dict(url)
    return params.get("host") or "127.0.0.1", int(params.get("port") or 5432)


def url_via(url, host, port):
    """``url`` with its host and port replaced."""
    scheme, _, rest = url.partition("://")
    cut = min([len(rest)] + [rest.find(mark) for mark in "/?" if mark in rest])
    userinfo = rest[:cut].rpartition("@")[0]
    return "%s://%s%s:%d%s" % (scheme, userinfo + "@" if userinfo else "", host, port, rest[cut:])


def _shut(sock):
    try:
        sock.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass


class TcpProxy(object):
    """Forwards 127.0.0.1:<port> to the server. ``cut`` breaks every connection made through it; while
    ``accepting`` is False it hangs up on new ones during their start-up exchange."""

    def __init__(self, target):
        self.target = target
        self.accepting = True
        self._lock = threading.Lock()
        self._socks = []
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(16)
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._accept_loop, name="tcp-proxy", daemon=True)
        self._thread.start()

    def _accept_loop(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return  # closed
            try:
                if not self.accepting:
                    raise OSError("turned away")
                upstream = socket.create_connection(self.target, timeout=10)
                upstream.settimeout(None)
            except OSError:
                client.close()
                continue
            with self._lock:
                self._socks += [client, upstream]
            for source, sink in ((client, upstream), (upstream, client)):
                threading.Thread(target=self._pump, args=(source, sink), name="tcp-proxy-pump", daemon=True).start()

    @staticmethod
    def _pump(source, sink):
        try:
            data = source.recv(65536)
            while data:
                sink.sendall(data)
                data = source.recv(65536)
        except OSError:
            pass
        _shut(source)
        _shut(sink)

    def cut(self):
        with self._lock:
            socks, self._socks = self._socks, []
        for sock in socks:
            _shut(sock)
            sock.close()

    def close(self):
        self.cut()
        _shut(self._listener)  # wakes the accept loop
        self._listener.close()
        self._thread.join(5)
