"""Helpers of the PostgreSQL tests: the server under test, scratch schemas and a TCP proxy.

The server tests run when OVRA_KB_TEST_POSTGRES_URL names a database whose user may create schemas in it
(scripts/ci_postgres.sh starts a throwaway server and sets it), and this interpreter can import psycopg 3.
"""

import os
import socket
import threading
import uuid

URL_ENV = "OVRA_KB_TEST_POSTGRES_URL"


def server_url():
    return os.environ.get(URL_ENV, "")


def driver():
    try:
        import psycopg
    except ImportError:
        return None
    return psycopg


def skip_reason():
    """Why the server tests cannot run here, or None."""
    if not server_url():
        return "no PostgreSQL server configured (%s is unset)" % URL_ENV
    if driver() is None:
        return "psycopg 3 is not importable by this interpreter"
    return None


def with_query(url, **options):
    """``url`` with more query options appended (values already URL-encoded)."""
    extra = "&".join("%s=%s" % item for item in sorted(options.items()))
    return url + ("&" if "?" in url else "?") + extra


def admin_connect(url=None):
    return driver().connect(url or server_url(), autocommit=True)


class Schema(object):
    """A schema of its own for one test, and the bank URL that uses it."""

    def __init__(self, base_url=None):
        self.base_url = base_url or server_url()
        self.name = "t_" + uuid.uuid4().hex[:12]
        with admin_connect(self.base_url) as conn:
            conn.execute("CREATE SCHEMA " + self.name)
        self.url = with_query(self.base_url, options="-csearch_path%3D" + self.name)

    def execute(self, sql, params=()):
        with admin_connect(self.url) as conn:
            cursor = conn.execute(sql, params)
            return cursor.fetchall() if cursor.description else cursor.rowcount

    def drop(self):
        with admin_connect(self.base_url) as conn:
            conn.execute("DROP SCHEMA IF EXISTS %s CASCADE" % self.name)


def free_port():
    """A TCP port of 127.0.0.1 where nothing listens (just now)."""
    probe = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
    finally:
        probe.close()


def url_parts(url):
    """(host, port) of the server URL; the tests need a TCP address."""
    params = driver().conninfo.conninfo_to_dict(url)
    return params.get("host") or "127.0.0.1", int(params.get("port") or 5432)


def url_via(url, host, port):
    """``url`` with its host and port replaced."""
    scheme, _, rest = url.partition("://")
    cut = min([len(rest)] + [rest.find(mark) for mark in "/?" if mark in rest])
    netloc, tail = rest[:cut], rest[cut:]
    userinfo = netloc.rpartition("@")[0]
    return "%s://%s%s:%d%s" % (scheme, userinfo + "@" if userinfo else "", host, port, tail)


class TcpProxy(object):
    """Forwards 127.0.0.1:<port> to the server, and can cut every connection or turn new ones away."""

    def __init__(self, target):
        self.target = target
        self.accepting = True
        self._lock = threading.Lock()
        self._sockets = []
        self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(16)
        self.port = self._listener.getsockname()[1]
        self._stopped = False
        self._thread = threading.Thread(target=self._accept_loop, name="tcp-proxy")
        self._thread.daemon = True
        self._thread.start()

    def _accept_loop(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            if self._stopped:
                client.close()
                return
            if not self.accepting:
                client.close()  # the client sees the server hang up during the start-up exchange
                continue
            try:
                upstream = socket.create_connection(self.target, timeout=10)
                upstream.settimeout(None)
            except OSError:
                client.close()
                continue
            with self._lock:
                self._sockets += [client, upstream]
            for source, sink in ((client, upstream), (upstream, client)):
                thread = threading.Thread(target=self._pump, args=(source, sink), name="tcp-proxy-pump")
                thread.daemon = True
                thread.start()

    @staticmethod
    def _pump(source, sink):
        try:
            while True:
                data = source.recv(65536)
                if not data:
                    break
                sink.sendall(data)
        except OSError:
            pass
        for sock in (source, sink):
            try:
                sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def connections(self):
        with self._lock:
            return len(self._sockets) // 2

    def cut(self):
        """Break every connection that goes through the proxy now."""
        with self._lock:
            sockets, self._sockets = self._sockets, []
        for sock in sockets:
            try:
                sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            sock.close()

    def close(self):
        self._stopped = True
        self.cut()
        try:
            # Wake the accept loop so that it sees the stop.
            socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
        except OSError:
            pass
        self._listener.close()
        self._thread.join(5)
