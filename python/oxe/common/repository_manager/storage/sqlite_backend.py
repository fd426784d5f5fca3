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

import fcntl
import functools
import os
import sqlite3
import stat
import struct
import threading
import time
import uuid
from urllib.parse import quote

from .. import errors
from .base import SqlKnowledgeBackend, chips_sql, through_fork_gate

DB_FILE_NAME = "ovra_kb.db"
SCHEMA_VERSION = 1
# A backup is written under this name plus a random part beside its place, and renamed when complete.
BACKUP_PARTIAL_PREFIX = DB_FILE_NAME + ".partial-"

# SQLite refuses file names longer than this.
_PATH_LIMIT = 512

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
# A scan's rows as one JSON text, which SQLite builds in one step: the sqlite3 module gives the interpreter lock
# back once per scan instead of at every row. SQLite does not promise to keep the rows' order in an aggregate.
_SQL_AS_JSON = "SELECT json_group_array(json_array(%s)) FROM (%s)"
_SQL_JSON_PROBE = "SELECT json_group_array(json_array(1, 'a'))"

_SQL_EXPORT = (
    "SELECT soc_version, core_num, op_type, keyword, knowledge FROM records "
    "ORDER BY soc_version, core_num, op_type, keyword"
)
# The first and the last record: the edges of the table's tree, down to its first and last leaf.
_SQL_EDGE = ("SELECT keyword FROM records ORDER BY soc_version %(o)s, core_num %(o)s, op_type %(o)s, keyword %(o)s "
             "LIMIT 1")

# The write-ahead log's file header and frame header (sqlite.org/fileformat2.html#walformat).
_WAL_MAGIC = (b"\x37\x7f\x06\x82", b"\x37\x7f\x06\x83")
_WAL_HEADER = 32
_WAL_FRAME_HEADER = 24


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


# The statements run through functools.partial rather than closures: a frame that an error's traceback keeps
# keeps its function too (CPython 3.11 on), and a closure would keep the call's arguments with it.
def _fetch_all(conn, sql, params):
    return conn.execute(sql, params).fetchall()


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


def _is_damage(exc):
    """An error that says the database file is not a sound SQLite database."""
    text = str(exc).lower()
    return "not a database" in text or "malformed" in text or "corrupt" in text


def _remove_quietly(path, directory=False):
    try:
        (os.rmdir if directory else os.remove)(path)
    except OSError:
        pass


def _identity(path):
    try:
        info = os.stat(path)
    except OSError:
        return None
    return info.st_dev, info.st_ino


def _kind(path):
    """What the file at ``path`` is, for a message that says it is not what the bank needs."""
    try:
        mode = os.lstat(path).st_mode
        if stat.S_ISLNK(mode):
            return "a symbolic link to %s" % os.readlink(path)
    except OSError as exc:
        return "unreadable (%s)" % (exc.strerror or exc)
    for test, name in ((stat.S_ISREG, "a regular file"), (stat.S_ISDIR, "a directory"),
                       (stat.S_ISCHR, "a character device"), (stat.S_ISBLK, "a block device"),
                       (stat.S_ISFIFO, "a named pipe (FIFO)"), (stat.S_ISSOCK, "a socket")):
        if test(mode):
            return name
    return "a special file"


def _create_directory(directory, what, advice, code, **details):
    """Creates ``directory`` and its missing parents; answers the ones it created, top first. One that cannot be
    made raises error ``code`` with ``details``, naming ``what`` the directory is for and the way out, ``advice``."""
    if os.path.lexists(directory) and not os.path.isdir(directory):
        raise errors.kb_error(
            code, "The %s path %s is %s, not a directory; %s." % (what, directory, _kind(directory), advice), **details)
    created = []
    path = directory
    while path and not os.path.lexists(path):
        created.insert(0, path)
        parent = os.path.dirname(path)
        path = parent if parent != path else ""
    try:
        os.makedirs(directory, exist_ok=True)
    except OSError as exc:
        _remove_directories(created)
        raise errors.kb_error(
            code, "The %s directory %s cannot be created (%s); %s." % (what, directory, exc.strerror or exc, advice),
            **details)
    return created


def _remove_directories(created):
    for directory in reversed(created):
        _remove_quietly(directory, directory=True)


def _read_log(path, verify=False, end=None):
    """What the write-ahead log at ``path`` holds in its current generation: (the numbers of the pages in its frames,
    the database's size in pages after its last commit, the offset where that commit's frame ends). Frames count from
    the log's start while their salts are its header's and, with ``verify``, while their checksums hold too, as
    SQLite reads them when it recovers the log; ``end`` stops the reading there."""
    pages, size, size_end = set(), 0, 0
    try:
        log = open(path, "rb")
    except OSError:
        return pages, size, size_end
    with log:
        header = log.read(_WAL_HEADER)
        if len(header) < _WAL_HEADER or header[:4] not in _WAL_MAGIC:
            return pages, size, size_end
        order = ">" if header[3] & 1 else "<"
        frame_size = _WAL_FRAME_HEADER + struct.unpack(">I", header[8:12])[0]
        sums = _log_checksum(header[:24], (0, 0), order)
        if verify and sums != struct.unpack(">II", header[24:32]):
            return pages, size, size_end
        # Only whole frames count; without ``verify`` only their headers are read.
        length = os.fstat(log.fileno()).st_size if end is None else end
        wanted = frame_size if verify else _WAL_FRAME_HEADER
        for offset in range(_WAL_HEADER, length - frame_size + 1, frame_size):
            log.seek(offset)
            frame = log.read(wanted)
            if len(frame) < wanted or frame[8:16] != header[16:24]:
                break
            if verify:
                sums = _log_checksum(frame[:8] + frame[_WAL_FRAME_HEADER:], sums, order)
                if sums != struct.unpack(">II", frame[16:24]):
                    break
            page, commit = struct.unpack(">II", frame[:8])
            pages.add(page)
            if commit:
                size, size_end = commit, offset + frame_size
    return pages, size, size_end


def _log_checksum(data, sums, order):
    """The write-ahead log's running checksum ``sums`` carried over ``data``, in the byte order of its magic number."""
    words = struct.unpack("%s%dI" % (order, len(data) // 4), data)
    first, second = sums
    for i in range(0, len(words), 2):
        first = (first + words[i] + second) & 0xFFFFFFFF
        second = (second + words[i + 1] + first) & 0xFFFFFFFF
    return first, second


def _copy_database(source, copy, copy_path):
    """Copies the database of ``source`` into the new file ``copy_path`` (open as ``copy``) in one read transaction."""
    if hasattr(source, "backup"):
        source.backup(copy)
        return
    # CPython 3.6 has no backup(); VACUUM INTO makes the same consistent copy, but not on a query-only connection.
    source.execute("PRAGMA query_only=0")
    try:
        source.execute("VACUUM INTO ?", (copy_path,))
    finally:
        source.execute("PRAGMA query_only=1")


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
    SQL_CHIPS = chips_sql(_TABLE)
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
        self._read_only = False
        self._read_uri = None
        self._json_scans = False
        self._file_identity = None
        # Set once the database file is found removed or replaced: every later call is refused.
        self._gone = False
        self._companions = {}  # the -wal and -shm files beside the database at open, by path

    # ----------------------------------------------------------- life cycle
    @through_fork_gate
    def open(self):
        created = _create_directory(self.directory, "knowledge bank", "set op_bank_path to a writable directory",
                                    errors.BANK_PATH_UNUSABLE, op_bank_path=self.directory)
        new_file = not os.path.lexists(self.db_path)
        try:
            self._refuse_special_database()
            if self._on_read_only_storage():
                self._open_read_only()
            else:
                self._check_database()
                self._writer = self._open_writer()
        except BaseException:
            # A bank that could not be opened leaves nothing behind that this call made.
            if new_file:
                for suffix in ("", "-wal", "-shm", "-journal"):
                    _remove_quietly(self.db_path + suffix)
            _remove_directories(created)
            raise
        self._file_identity = _identity(self.db_path)
        self._gone = False
        self._companions = {path: _identity(path) for path in (self.db_path + "-wal", self.db_path + "-shm")
                            if os.path.exists(path)}
        self._closed = False
        self._json_scans = self._has_json()

    def _open_writer(self):
        try:
            writer = self._connect()
        except sqlite3.Error as exc:
            raise self._open_error(exc)
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
            raise self._open_error(exc)
        except BaseException:
            writer.close()
            raise
        return writer

    def _refuse_special_database(self):
        """The database must be a regular file of the bank's directory: SQLite follows a symbolic link (and creates
        a missing target), so records would land in a file outside the bank; a device or a pipe is no database."""
        if os.path.lexists(self.db_path) and not stat.S_ISREG(os.lstat(self.db_path).st_mode):
            raise errors.kb_error(
                errors.BANK_PATH_UNUSABLE,
                "The knowledge bank database %s is %s, not a regular file, so the bank is not opened; put the "
                "database file itself in its place, or set op_bank_path to another directory."
                % (self.db_path, _kind(self.db_path)),
                op_bank_path=self.directory)

    def _check_database(self):
        """Checks a database already there before the writer opens it, through a read-only connection: one that
        can write checkpoints the log into the file when it closes, which would make a refused copy's damage
        consistent, and silent, for the next open. Without a log the file is read as immutable, which leaves no
        files behind."""
        if not os.path.exists(self.db_path) or not os.path.getsize(self.db_path):
            return
        uses_log = os.path.exists(self.db_path + "-wal")
        conn = None
        try:
            conn = self._connect("file:%s?%s" % (quote(self.db_path), "mode=ro" if uses_log else "immutable=1"))
            self._check_structure(conn, uses_log)
        except sqlite3.Error as exc:
            raise self._open_error(exc)
        finally:
            if conn is not None:
                conn.close()

    def _check_structure(self, conn, uses_log):
        """A quick look, not a full scan, at what a cut file or a torn copy (a database and a write-ahead log taken at
        different times) damages: the file must be a whole number of pages; the database, as its header counts it,
        can be no smaller than the log's last commit made it before (pages are never given back), and every page past
        the file's end must be in the log; the first and last records (the edges of the table's tree) must read.
        The counts come from one read transaction, during which no checkpoint moves the pages that it sees."""
        version = conn.execute("PRAGMA user_version").fetchone()[0]
        self._check_not_newer(version)
        log = self.db_path + "-wal"
        before, before_end = _read_log(log)[1:] if uses_log else (0, 0)
        conn.execute("BEGIN")
        try:
            page_size = conn.execute("PRAGMA page_size").fetchone()[0]
            pages = conn.execute("PRAGMA page_count").fetchone()[0]
            for order in ("ASC", "DESC") if version else ():
                conn.execute(_SQL_EDGE % {"o": order}).fetchall()
            size = os.path.getsize(self.db_path)
            missing = set(range(size // page_size + 1, pages + 1))
            if missing and uses_log:
                missing -= _read_log(log)[0]
        finally:
            conn.execute("COMMIT")
        torn = "as in a copy taken while the bank was in use"
        if size % page_size:
            raise self._damaged("its %d bytes are not a whole number of %d-byte pages" % (size, page_size))
        if missing:
            raise self._damaged("%d of its %d pages are neither in the file nor in its write-ahead log, %s"
                                % (len(missing), pages, torn))
        # A log cut by a crash may end in a frame whose checksum fails: only a commit that SQLite reads counts.
        if before > pages and _read_log(log, verify=True, end=before_end)[1] > pages:
            raise self._damaged("its write-ahead log holds a database of %d pages, its header one of %d, %s"
                                % (before, pages, torn))

    def _on_read_only_storage(self):
        """An existing bank on storage that this process cannot write (read-only media or mount)."""
        if not os.path.exists(self.db_path):
            return False
        try:
            if os.statvfs(self.directory).f_flag & os.ST_RDONLY:
                return True
        except (OSError, AttributeError):
            pass
        return not os.access(self.directory, os.W_OK) or not os.access(self.db_path, os.W_OK)

    def _open_read_only(self):
        # Without write access SQLite reads a write-ahead-logged bank only through its shared-memory file;
        # where that cannot be made, the bank is read as the immutable file it is on such storage.
        for options in ("mode=ro", "immutable=1"):
            conn = None
            try:
                conn = self._connect("file:%s?%s" % (quote(self.db_path), options))
                self._check_structure(conn, uses_log=options == "mode=ro")
                conn.execute("SELECT 1 FROM records LIMIT 1").fetchall()
            except sqlite3.Error as exc:
                if conn is not None:
                    conn.close()
                error = exc
                continue
            except BaseException:
                conn.close()
                raise
            conn.close()
            self._read_uri = options
            self._read_only = True
            return
        raise self._open_error(error)

    def still_there(self):
        """False when the database file was removed or replaced since the bank was opened."""
        return _identity(self.db_path) == self._file_identity

    @through_fork_gate
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
        if self._file_identity is not None and not self.still_there():
            self._discard_companions()

    def _discard_companions(self):
        """After the database was removed or replaced: SQLite deletes the -wal and -shm files only beside the
        database they belong to, so they stay under their names, and the next database there would read them
        as its own journal (the old records, or damage). Those that are still the ones found at open go."""
        for path, identity in self._companions.items():
            if identity is not None and _identity(path) == identity:
                _remove_quietly(path)
        self._companions = {}

    @through_fork_gate
    def flush(self):
        """Make every committed write durable (checkpoint and fsync)."""
        with self._write_lock:
            if self._writer is not None:
                self._flush(self._writer)

    @through_fork_gate
    def backup(self, destination):
        """Copies the bank as it is at one moment into ``destination``, a new or empty directory, while writers go on:
        SQLite's online backup in one step, that is one read transaction, which writers in write-ahead mode do not
        wait for. The copy is written under a temporary name there, checked, synced and renamed, so that the
        directory never holds a database that is not complete; what an interrupted backup left there goes first.
        Answers one row: "backup" (the copy's database file), "records" and "bytes"."""
        target = os.path.abspath(destination)
        advice = "name a new or empty directory to back the bank up into"
        created = _create_directory(target, "backup", advice, errors.INVALID_ARGUMENT)
        try:
            lock = os.open(target, os.O_RDONLY | os.O_DIRECTORY)
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except OSError:
                os.close(lock)
                raise errors.kb_error(errors.INVALID_ARGUMENT, "Another backup into the backup directory %s is "
                                      "running; wait for it to end, or %s." % (target, advice))
            try:
                return [self._backup_into(target, advice)]
            finally:
                os.close(lock)
        except BaseException:
            _remove_directories(created)
            raise

    def _backup_into(self, target, advice):
        others = []
        for name in sorted(os.listdir(target)):
            if name.startswith(BACKUP_PARTIAL_PREFIX):
                _remove_quietly(os.path.join(target, name))  # left by an interrupted backup
            else:
                others.append(name)
        if others:
            raise errors.kb_error(errors.INVALID_ARGUMENT, "The backup directory %s is not empty (it holds %s); %s."
                                  % (target, ", ".join(others[:3]) + (", ..." if len(others) > 3 else ""), advice))
        partial = os.path.join(target, BACKUP_PARTIAL_PREFIX + uuid.uuid4().hex[:12])
        try:
            records = self._copy_to(partial, target)
            _fsync_path(partial)
            database = os.path.join(target, DB_FILE_NAME)
            os.rename(partial, database)
            _fsync_path(target, directory=True)
        except BaseException:
            for suffix in ("", "-journal", "-wal", "-shm"):
                _remove_quietly(partial + suffix)
            raise
        return {"backup": database, "records": str(records), "bytes": str(os.path.getsize(database))}

    def _copy_to(self, path, target):
        """Copies the database into the new file ``path``, checks the copy and answers its number of records."""
        source = self._acquire_reader()
        try:
            copy = sqlite3.connect(path, isolation_level=None)
            try:
                _copy_database(source, copy, path)
                check = copy.execute("PRAGMA quick_check").fetchone()[0]
                records = copy.execute("SELECT COUNT(*) FROM records").fetchone()[0]
            finally:
                copy.close()
        except sqlite3.Error as exc:
            raise self._storage_error(exc, "back up", "check the free space and permissions of %s, where the copy "
                                                      "goes" % target)
        finally:
            self._release_reader(source)
        if check != "ok":
            raise self._damaged(check)
        return records

    def _flush(self, writer):
        # The checkpoint syncs the database file after the frames it copies; the frames it leaves stay in the log,
        # synced here. The database file itself is never opened here: closing a descriptor of it would drop the
        # locks that this process's connections hold on it, and another process closing its last connection
        # would then delete the log and its index under them.
        try:
            _retry(lambda: writer.execute("PRAGMA wal_checkpoint(PASSIVE)").fetchall(),
                   time.monotonic() + 1.0)
        except sqlite3.Error:
            pass  # the fsync below still makes the WAL durable
        _fsync_path(self.db_path + "-wal")
        _fsync_path(self.directory, directory=True)

    def _open_error(self, exc):
        if _is_damage(exc):
            return self._damaged(exc)
        used_up = errors.descriptors_used_up()
        if used_up:
            return errors.out_of_descriptors("open the knowledge bank %s" % self.db_path, used_up)
        if len(self.db_path.encode("utf-8", "surrogateescape")) > _PATH_LIMIT:
            return errors.kb_error(
                errors.BANK_PATH_UNUSABLE,
                "The knowledge bank path %s is too long for the database (%d bytes, at most %d); "
                "set op_bank_path to a shorter directory." % (self.db_path, len(self.db_path), _PATH_LIMIT),
                op_bank_path=self.directory,
            )
        return errors.kb_error(
            errors.BANK_PATH_UNUSABLE,
            "The knowledge bank %s cannot be opened for writing (%s); "
            "set op_bank_path to a writable directory on a local file system." % (self.db_path, exc),
            op_bank_path=self.directory,
        )

    def _damaged(self, why):
        return errors.kb_error(
            errors.BANK_DAMAGED,
            "The knowledge bank database %s is damaged (%s); move it aside with its -wal and -shm files, then "
            "use the last backup as the bank, or import the last export into a new bank." % (self.db_path, why),
            op_bank_path=self.directory,
        )

    def _connect(self, uri=None):
        conn = sqlite3.connect(
            uri or self.db_path,
            timeout=self._busy_timeout,
            isolation_level=None,
            check_same_thread=False,
            uri=uri is not None,
        )
        try:
            conn.execute("PRAGMA synchronous=NORMAL")
        except BaseException:
            conn.close()
            raise
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
    def _storage_error(self, exc, action, advice="check free space and permissions, and that no other process "
                                                 "holds the bank locked for long"):
        if _is_damage(exc):
            return self._damaged(exc)
        used_up = errors.descriptors_used_up()
        if used_up:
            return errors.out_of_descriptors("%s the knowledge bank %s" % (action, self.db_path), used_up)
        return errors.kb_error(
            errors.STORAGE_FAILURE,
            "Could not %s the knowledge bank %s (%s); %s." % (action, self.db_path, exc, advice),
            op_bank_path=self.directory,
        )

    def _check_still_there(self):
        """Before and after a change: a write to a file that was removed would go to an inode that nothing names
        any more. Searches do not look (a stat would add a third to an exact search): they read the open bank
        until a change or a new reader connection finds its file gone, and are refused from then on."""
        if not self._closed and (self._gone or not self.still_there()):
            self._gone = True
            raise self._gone_error()

    def _gone_error(self):
        return errors.kb_error(
            errors.BANK_PATH_UNUSABLE,
            "The knowledge bank database %s was removed or replaced after the bank was opened, so nothing "
            "was written or read; initialise the knowledge base again to open the bank anew, or set "
            "op_bank_path to another directory." % self.db_path,
            op_bank_path=self.directory,
        )

    def _modify(self, sql, params, durable):
        with self._write_lock:
            if self._read_only and not self._closed:
                raise errors.kb_error(
                    errors.BANK_READ_ONLY,
                    "The knowledge bank %s is on storage that cannot be written; it can be searched and exported, "
                    "and changed only after it is copied to a writable directory (export it and import it into "
                    "another bank)." % self.db_path,
                    op_bank_path=self.directory,
                )
            self._check_still_there()
            conn = self._writer
            if conn is None:
                raise self._closed_error()
            try:
                if durable:
                    conn.execute("PRAGMA synchronous=FULL")
                try:
                    cursor = _retry(functools.partial(conn.execute, sql, params),
                                    time.monotonic() + self._busy_timeout)
                    count = cursor.rowcount
                finally:
                    if durable:
                        conn.execute("PRAGMA synchronous=NORMAL")
            except sqlite3.Error as exc:
                raise self._storage_error(exc, "write")
            # Committed, and to the bank only if the file is still the bank's: a removal between the check
            # above and the commit would otherwise be acknowledged.
            self._check_still_there()
            return count

    def _acquire_reader(self):
        with self._pool_lock:
            if self._closed:
                raise self._closed_error()
            if self._gone:
                raise self._gone_error()
            if self._readers:
                return self._readers.pop()
        try:
            conn = self._connect("file:%s?%s" % (quote(self.db_path), self._read_uri) if self._read_only else None)
            conn.execute("PRAGMA query_only=1")
        except sqlite3.Error as exc:
            raise self._storage_error(exc, "read")
        # A new connection opens whatever file the name holds now: it must be the bank's, like the others'.
        if not self.still_there():
            conn.close()
            self._gone = True
            raise self._gone_error()
        return conn

    def _release_reader(self, conn):
        with self._pool_lock:
            if not self._closed and len(self._readers) < self._pool_size:
                self._readers.append(conn)
                return
        conn.close()

    def _has_json(self):
        """False for an SQLite built without its JSON functions (or a bank no reader can open yet)."""
        try:
            conn = self._acquire_reader()
        except RuntimeError:
            return False
        try:
            conn.execute(_SQL_JSON_PROBE).fetchall()
        except sqlite3.Error:
            return False
        finally:
            self._release_reader(conn)
        return True

    def _scan_as_json(self, sql, columns):
        return _SQL_AS_JSON % (columns, sql) if self._json_scans else None

    def _query(self, sql, params):
        conn = self._acquire_reader()
        try:
            # Tried once before any retry is set up: a lookup is mostly this one statement, and seldom busy.
            try:
                return conn.execute(sql, params).fetchall()
            except sqlite3.OperationalError as exc:
                if not _is_busy(exc):
                    raise
            return _retry(functools.partial(_fetch_all, conn, sql, params), time.monotonic() + self._busy_timeout)
        except sqlite3.Error as exc:
            raise self._storage_error(exc, "read")
        finally:
            self._release_reader(conn)
