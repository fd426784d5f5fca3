"""Knowledge bank kept in an embedded SQLite database.

Layout: the bank directory holds ``ovra_kb.db`` (with its ``-wal`` and
``-shm`` companions while in use), in WAL journal mode.  One table::

    records(soc_version, core_num, op_type, keyword, knowledge)
        PRIMARY KEY (soc_version, core_num, op_type, keyword), WITHOUT ROWID

Every lookup is a range or equality search on that key.  The schema
version is kept in ``PRAGMA user_version``; :data:`MIGRATIONS` upgrades
older banks in place.

Connections: one writer connection behind a lock, and a small pool of
reader connections (WAL lets them read while another connection or process
writes).  Every statement runs in autocommit mode, so nothing is ever held
in Python memory: a record is in the WAL file (the operating system's
cache) when ``write`` returns, and on stable storage too when ``durable``
was asked for (``synchronous=FULL`` for that commit).
"""

import os
import sqlite3
import threading
import time

from .. import errors
from .base import SqlKnowledgeBackend

DB_FILE_NAME = "ovra_kb.db"
SCHEMA_VERSION = 1

# Total time a statement may wait for another connection or process to let
# go of the database before the call fails.
DEFAULT_BUSY_TIMEOUT = 30.0
READER_POOL_SIZE = 4

_TABLE = "records"

_SQL_UPSERT = (
    "INSERT OR REPLACE INTO records (soc_version, core_num, op_type, keyword, knowledge) "
    "VALUES (?, ?, ?, ?, ?)"
)
_SQL_DELETE = "DELETE FROM records WHERE soc_version = ? AND core_num = ? AND op_type = ? AND keyword = ?"
SQL_EXACT = (
    "SELECT knowledge FROM records "
    "WHERE soc_version = ? AND core_num = ? AND op_type = ? AND keyword = ?"
)
SQL_PREFIX_BOUNDED = (
    "SELECT keyword, knowledge FROM records "
    "WHERE soc_version = ? AND core_num = ? AND op_type = ? AND keyword >= ? AND keyword < ? "
    "ORDER BY keyword LIMIT ?"
)
SQL_PREFIX_OPEN = (
    "SELECT keyword, knowledge FROM records "
    "WHERE soc_version = ? AND core_num = ? AND op_type = ? AND keyword >= ? "
    "ORDER BY keyword LIMIT ?"
)
SQL_ALL_OF_TYPE = (
    "SELECT keyword, knowledge FROM records "
    "WHERE soc_version = ? AND core_num = ? AND op_type = ? ORDER BY keyword"
)
SQL_ALL_OF_SCOPE = (
    "SELECT op_type, keyword, knowledge FROM records "
    "WHERE soc_version = ? AND core_num = ? ORDER BY op_type, keyword"
)
_SQL_EXPORT = (
    "SELECT soc_version, core_num, op_type, keyword, knowledge FROM records "
    "ORDER BY soc_version, core_num, op_type, keyword"
)


def _create_v1(conn):
    conn.execute(
        "CREATE TABLE IF NOT EXISTS records ("
        " soc_version TEXT NOT NULL,"
        " core_num TEXT NOT NULL,"
        " op_type TEXT NOT NULL,"
        " keyword TEXT NOT NULL,"
        " knowledge TEXT NOT NULL,"
        " PRIMARY KEY (soc_version, core_num, op_type, keyword)"
        ") WITHOUT ROWID"
    )


# MIGRATIONS[n] brings a bank from schema version n to n + 1.  A later schema
# adds its step here and raises SCHEMA_VERSION; version 0 is an empty file.
MIGRATIONS = {0: _create_v1}


def _is_busy(exc):
    text = str(exc).lower()
    return "locked" in text or "busy" in text


def _retry(action, deadline):
    """Run ``action`` again while the database is busy, until ``deadline``."""
    delay = 0.001
    while True:
        try:
            return action()
        except sqlite3.OperationalError as exc:
            if not _is_busy(exc) or time.monotonic() >= deadline:
                raise
        time.sleep(delay)
        delay = min(delay * 2, 0.05)


def _fsync_path(path, directory=False):
    try:
        fd = os.open(path, os.O_RDONLY | (getattr(os, "O_DIRECTORY", 0) if directory else 0))
    except OSError:
        return
    try:
        os.fsync(fd)
    except OSError:
        pass
    finally:
        os.close(fd)


class SqliteBackend(SqlKnowledgeBackend):
    """SQLite bank in the directory ``directory``."""

    SQL_UPSERT = _SQL_UPSERT
    SQL_DELETE = _SQL_DELETE
    SQL_EXACT = SQL_EXACT
    SQL_PREFIX_BOUNDED = SQL_PREFIX_BOUNDED
    SQL_PREFIX_OPEN = SQL_PREFIX_OPEN
    SQL_ALL_OF_TYPE = SQL_ALL_OF_TYPE
    SQL_ALL_OF_SCOPE = SQL_ALL_OF_SCOPE
    SQL_EXPORT = _SQL_EXPORT
    NO_LIMIT = -1
    SCHEMA_VERSION = SCHEMA_VERSION
    OTHER_BANK = "another directory"

    def __init__(self, directory, busy_timeout=DEFAULT_BUSY_TIMEOUT, reader_pool_size=READER_POOL_SIZE):
        self.directory = directory
        self.db_path = os.path.join(directory, DB_FILE_NAME)
        self._busy_timeout = busy_timeout
        self._pool_size = reader_pool_size
        self._write_lock = threading.Lock()
        self._pool_lock = threading.Lock()
        self._writer = None
        self._readers = []
        self._closed = True

    # ----------------------------------------------------------- life cycle
    def open(self):
        self._make_directory()
        try:
            writer = self._connect()
        except sqlite3.Error as exc:
            raise self._unusable(exc)
        try:
            deadline = time.monotonic() + self._busy_timeout
            mode = _retry(lambda: writer.execute("PRAGMA journal_mode=WAL").fetchone()[0], deadline)
            if str(mode).lower() != "wal":
                raise errors.kb_error(
                    errors.BANK_PATH_UNUSABLE,
                    "The knowledge bank at %s cannot use write-ahead logging (journal mode stays %s); "
                    "set op_bank_path to a directory on a local file system." % (self.directory, mode),
                    op_bank_path=self.directory,
                )
            self._prepare_schema(writer, deadline)
        except sqlite3.Error as exc:
            writer.close()
            raise self._unusable(exc)
        except BaseException:
            writer.close()
            raise
        self._writer = writer
        self._closed = False

    def close(self):
        with self._write_lock:
            writer, self._writer = self._writer, None
            self._closed = True
            if writer is not None:
                try:
                    self._flush(writer)
                finally:
                    writer.close()
        with self._pool_lock:
            readers, self._readers = self._readers, []
        for conn in readers:
            conn.close()

    def flush(self):
        """Make every committed write durable (checkpoint and fsync)."""
        with self._write_lock:
            if self._writer is not None:
                self._flush(self._writer)

    def _flush(self, writer):
        try:
            _retry(lambda: writer.execute("PRAGMA wal_checkpoint(PASSIVE)").fetchall(),
                   time.monotonic() + 1.0)
        except sqlite3.Error:
            pass  # the fsync below still makes the WAL durable
        _fsync_path(self.db_path + "-wal")
        _fsync_path(self.db_path)
        _fsync_path(self.directory, directory=True)

    def _make_directory(self):
        try:
            os.makedirs(self.directory, exist_ok=True)
        except OSError as exc:
            raise errors.kb_error(
                errors.BANK_PATH_UNUSABLE,
                "The knowledge bank directory %s cannot be created (%s); "
                "set op_bank_path to a writable directory." % (self.directory, exc.strerror or exc),
                op_bank_path=self.directory,
            )
        if not os.path.isdir(self.directory):
            raise errors.kb_error(
                errors.BANK_PATH_UNUSABLE,
                "The knowledge bank path %s is not a directory; "
                "set op_bank_path to a writable directory." % self.directory,
                op_bank_path=self.directory,
            )

    def _unusable(self, exc):
        return errors.kb_error(
            errors.BANK_PATH_UNUSABLE,
            "The knowledge bank %s cannot be opened for writing (%s); "
            "set op_bank_path to a writable directory on a local file system." % (self.db_path, exc),
            op_bank_path=self.directory,
        )

    def _connect(self):
        conn = sqlite3.connect(
            self.db_path,
            timeout=self._busy_timeout,
            isolation_level=None,
            check_same_thread=False,
        )
        conn.execute("PRAGMA synchronous=NORMAL")
        return conn

    def _prepare_schema(self, conn, deadline):
        version = conn.execute("PRAGMA user_version").fetchone()[0]
        if version == SCHEMA_VERSION:
            return
        self._check_not_newer(version)
        _retry(lambda: conn.execute("BEGIN IMMEDIATE"), deadline)
        try:
            # Read again: another process may have upgraded it meanwhile.
            version = conn.execute("PRAGMA user_version").fetchone()[0]
            self._check_not_newer(version)
            while version < SCHEMA_VERSION:
                MIGRATIONS[version](conn)
                version += 1
            conn.execute("PRAGMA user_version=%d" % version)
            conn.execute("COMMIT")
        except BaseException:
            if conn.in_transaction:
                conn.execute("ROLLBACK")
            raise

    def _shown_bank(self):
        return self.db_path

    def _bank_detail(self):
        return self.directory

    # --------------------------------------------------------------- helpers
    def _storage_error(self, exc, action):
        return errors.kb_error(
            errors.STORAGE_FAILURE,
            "Could not %s the knowledge bank %s (%s); check free space and permissions, "
            "and that no other process holds the bank locked for long." % (action, self.db_path, exc),
            op_bank_path=self.directory,
        )

    def _modify(self, sql, params, durable):
        with self._write_lock:
            conn = self._writer
            if conn is None:
                raise self._closed_error()
            try:
                if durable:
                    conn.execute("PRAGMA synchronous=FULL")
                try:
                    cursor = _retry(lambda: conn.execute(sql, params), time.monotonic() + self._busy_timeout)
                    return cursor.rowcount
                finally:
                    if durable:
                        conn.execute("PRAGMA synchronous=NORMAL")
            except sqlite3.Error as exc:
                raise self._storage_error(exc, "write")

    def _acquire_reader(self):
        with self._pool_lock:
            if self._closed:
                raise self._closed_error()
            if self._readers:
                return self._readers.pop()
        try:
            conn = self._connect()
            conn.execute("PRAGMA query_only=1")
        except sqlite3.Error as exc:
            raise self._storage_error(exc, "read")
        return conn

    def _release_reader(self, conn):
        with self._pool_lock:
            if not self._closed and len(self._readers) < self._pool_size:
                self._readers.append(conn)
                return
        conn.close()

    def _query(self, sql, params):
        conn = self._acquire_reader()
        try:
            return _retry(lambda: conn.execute(sql, params).fetchall(),
                          time.monotonic() + self._busy_timeout)
        except sqlite3.Error as exc:
            raise self._storage_error(exc, "read")
        finally:
            self._release_reader(conn)
