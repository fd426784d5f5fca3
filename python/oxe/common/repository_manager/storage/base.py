"""The storage interface that every knowledge-bank backend implements.

A record is the knowledge text stored under the key
(soc_version, core_num, op_type, keyword).  The first two parts are the
*scope*: the chip the bank was initialised for, passed as a
``(soc_version, core_num)`` tuple.  Rows handed back are dictionaries of
strings holding the five fields named in :data:`ROW_FIELDS`.

Implementations must be safe to call from several threads at once and must
tolerate other processes using the same bank.
"""

import functools
import json
import os
import threading
from threading import get_ident

from .. import errors


class ForkGate(object):
    """Lets a process fork only while no thread of it is inside a storage call.

    A thread inside the database library holds that library's own locks; a child forked at that moment
    would find them held for ever.  Every storage call passes the gate; a fork closes it to new calls,
    waits until none is inside, and opens it again once the child exists.  A thread already inside (a
    storage call made by another one) passes at once.

    A call first puts its thread on the list of those inside, then looks whether the gate is closed; a fork
    first closes it, then looks who is inside.  Each step is one operation that the interpreter lock keeps
    whole, so a call either sees the gate closed or is seen inside, and passing an open gate takes no lock.
    """

    def __init__(self, inside=()):
        self._cond = threading.Condition(threading.Lock())
        self._inside = list(inside)  # the thread of each call inside, once per call
        self._closed = False

    def enter(self):
        """Called before a storage call; answers what :meth:`leave` is to be given after it."""
        me = get_ident()
        self._inside.append(me)
        if self._closed:
            self._wait_while_closed(me)
        return me

    def leave(self, me):
        self._inside.remove(me)
        if self._closed:
            with self._cond:
                self._cond.notify_all()

    def _wait_while_closed(self, me):
        with self._cond:
            if self._inside.count(me) > 1:
                return  # inside a storage call already: the fork waits for that one to end
            self._inside.remove(me)
            self._cond.notify_all()
            while self._closed:
                self._cond.wait()
            self._inside.append(me)

    def close_for_fork(self):
        me = get_ident()  # a fork may be made from inside a storage call
        with self._cond:
            self._closed = True
            while len(self._inside) > self._inside.count(me):
                self._cond.wait()

    def open_after_fork(self):
        with self._cond:
            self._closed = False
            self._cond.notify_all()

    def renew_in_child(self):
        # Only the forking thread lives on in the child, inside the storage calls it forked from, if any.
        me = get_ident()
        self.__init__([ident for ident in self._inside if ident == me])


FORK_GATE = ForkGate()
if hasattr(os, "register_at_fork"):
    os.register_at_fork(before=FORK_GATE.close_for_fork, after_in_parent=FORK_GATE.open_after_fork,
                        after_in_child=FORK_GATE.renew_in_child)


def through_fork_gate(method):
    """A storage call: it runs inside the fork gate."""

    @functools.wraps(method)
    def gated(*args, **kwargs):
        me = FORK_GATE.enter()
        try:
            return method(*args, **kwargs)
        finally:
            FORK_GATE.leave(me)

    return gated

ROW_FIELDS = ("soc_version", "core_num", "op_type", "keyword", "knowledge")


def chips_sql(table):
    """The chips of a bank's table and their record counts, in the SQL that every backend speaks."""
    return ("SELECT soc_version, core_num, COUNT(*) FROM %s GROUP BY soc_version, core_num "
            "ORDER BY soc_version, core_num" % table)


def make_row(soc_version, core_num, op_type, keyword, knowledge):
    return {
        "soc_version": soc_version,
        "core_num": core_num,
        "op_type": op_type,
        "keyword": keyword,
        "knowledge": knowledge,
    }


def prefix_upper_bound(prefix):
    """Smallest string greater than every string that starts with ``prefix``.

    Strings compare by code point (which is also the byte order of their
    UTF-8 form), so ``prefix <= s < prefix_upper_bound(prefix)`` holds exactly
    for the strings ``s`` that start with ``prefix``.  Returns None when there
    is no such bound (an empty prefix, or one made only of U+10FFFF).
    """
    chars = list(prefix)
    while chars:
        code = ord(chars[-1])
        if code < 0x10FFFF:
            code += 1
            if 0xD800 <= code <= 0xDFFF:
                code = 0xE000
            chars[-1] = chr(code)
            return "".join(chars)
        chars.pop()
    return None


class KnowledgeBackend(object):
    """Abstract knowledge bank.

    Life cycle: construct with the bank location, :meth:`open` once,
    use, :meth:`close` once.  ``close`` makes every write durable.
    """

    def open(self):
        raise NotImplementedError

    def close(self):
        raise NotImplementedError

    def still_there(self):
        """False when the bank was removed or replaced underneath this open backend."""
        return True

    def write(self, scope, op_type, keyword, knowledge, durable):
        """Store ``knowledge``, replacing the record with the same key.

        ``durable`` True: the record is on stable storage when this returns.
        False: it survives the process ending at any time, and is made
        durable at the latest by :meth:`close`.
        """
        raise NotImplementedError

    def delete(self, scope, op_type, keyword, durable):
        """Remove the record; return True when one existed."""
        raise NotImplementedError

    def exact(self, scope, op_type, keyword):
        """Rows (zero or one) whose keyword equals ``keyword``."""
        raise NotImplementedError

    def prefix(self, scope, op_type, prefix, limit=None):
        """Rows whose keyword starts with ``prefix``, by keyword; at most ``limit``."""
        raise NotImplementedError

    def all(self, scope, op_type):
        """Every row of ``op_type`` by keyword; ``op_type`` None: every op type of the scope."""
        raise NotImplementedError

    def export_all(self, op_type=None):
        """Every row of every scope (of ``op_type`` only, when given), ordered by the full key."""
        raise NotImplementedError

    def chips(self):
        """One row per chip of the bank: "soc_version", "core_num" and "records" (their number)."""
        raise NotImplementedError

    def backup(self, destination):
        """A consistent copy of the whole bank, taken while writers go on, into the new or empty directory
        ``destination``: one row, "backup" (the copy's database), "records" and "bytes". A bank that its own
        server backs up raises the error that says how."""
        raise NotImplementedError


class SqlKnowledgeBackend(KnowledgeBackend):
    """The operations of a bank kept in one SQL table; subclasses give the statements and run them.

    A subclass sets SQL_UPSERT, SQL_DELETE, SQL_EXACT, SQL_PREFIX_BOUNDED, SQL_PREFIX_OPEN,
    SQL_ALL_OF_TYPE, SQL_ALL_OF_SCOPE, SQL_EXPORT, SQL_CHIPS and NO_LIMIT (the LIMIT value that means none), and
    implements ``_modify(sql, params, durable)`` (the number of rows changed) and ``_query(sql, params)``
    (the rows). A search's scan of many rows goes through ``_scan(sql, columns, params)``, which a backend
    may make cheaper than ``_query``.
    """

    NO_LIMIT = None
    # True when the JSON form of a scan gives the rows in the statement's order; else they are sorted again, by code
    # point, which is the statements' order too (the banks compare their texts as bytes).
    JSON_SCAN_ORDERED = False
    # The newest schema this package reads, and what op_bank_path should name instead of a bank
    # whose schema is newer.
    SCHEMA_VERSION = 1
    OTHER_BANK = "another bank"

    def _shown_bank(self):
        """The bank as messages name it."""
        raise NotImplementedError

    def _bank_detail(self):
        """The bank as the op_bank_path detail of an error names it."""
        return self._shown_bank()

    def _check_not_newer(self, version):
        if version > self.SCHEMA_VERSION:
            raise errors.kb_error(
                errors.SCHEMA_TOO_NEW,
                "The knowledge bank %s has schema version %d but this package reads up to version %d; "
                "upgrade the knowledge-base package or set op_bank_path to %s."
                % (self._shown_bank(), version, self.SCHEMA_VERSION, self.OTHER_BANK),
                op_bank_path=self._bank_detail(),
            )

    def _closed_error(self):
        return errors.kb_error(
            errors.NOT_INITIALISED,
            "The knowledge bank %s is closed; call ovra_kb_init before using it." % self._bank_detail(),
        )

    def _never_stored(self, *texts):
        """True when no record can hold these texts, so that a lookup need not ask the store."""
        return False

    def _scan_as_json(self, sql, columns):
        """The statement that selects the rows of ``sql`` as one JSON array of arrays, or None to read row by row."""
        return None

    def _scan(self, sql, columns, params):
        """The rows of a search that may find many, in the statement's order; ``columns`` names what it selects.

        Read as one JSON value where the backend can: the driver then hands the rows over in one piece, where it
        would give the interpreter lock back at every row (sqlite3) or field (psycopg's Python implementation),
        each time waking every thread that waits for the lock. Unless JSON_SCAN_ORDERED, the rows are sorted again,
        one comparison per row when they came in order. Should that form fail (a result too long for one value),
        rows are read one by one.
        """
        as_json = self._scan_as_json(sql, columns)
        if as_json is not None:
            try:
                found = self._query(as_json, params)
            except RuntimeError as exc:
                info = errors.error_info(exc)
                if info is None or info["errCode"] != errors.STORAGE_FAILURE:
                    raise
            else:
                value = found[0][0]
                rows = json.loads(value) if isinstance(value, str) else value or []
                if not self.JSON_SCAN_ORDERED:
                    rows.sort()
                return rows
        return self._query(sql, params)

    @through_fork_gate
    def write(self, scope, op_type, keyword, knowledge, durable):
        self._modify(self.SQL_UPSERT, (scope[0], scope[1], op_type, keyword, knowledge), durable)

    @through_fork_gate
    def delete(self, scope, op_type, keyword, durable):
        return self._modify(self.SQL_DELETE, (scope[0], scope[1], op_type, keyword), durable) > 0

    @through_fork_gate
    def exact(self, scope, op_type, keyword):
        if self._never_stored(scope[0], scope[1], op_type, keyword):
            return []
        found = self._query(self.SQL_EXACT, (scope[0], scope[1], op_type, keyword))
        if not found:
            return []
        return [make_row(scope[0], scope[1], op_type, keyword, found[0][0])]

    @through_fork_gate
    def prefix(self, scope, op_type, prefix, limit=None):
        soc, core = scope
        if self._never_stored(soc, core, op_type, prefix):
            return []
        upper = prefix_upper_bound(prefix)
        limit = self.NO_LIMIT if limit is None else int(limit)
        if upper is None:
            found = self._scan(self.SQL_PREFIX_OPEN, "keyword, knowledge", (soc, core, op_type, prefix, limit))
        else:
            found = self._scan(self.SQL_PREFIX_BOUNDED, "keyword, knowledge",
                               (soc, core, op_type, prefix, upper, limit))
        return [make_row(soc, core, op_type, keyword, knowledge) for keyword, knowledge in found]

    @through_fork_gate
    def all(self, scope, op_type):
        soc, core = scope
        if self._never_stored(soc, core, op_type or ""):
            return []
        if op_type is None:
            found = self._scan(self.SQL_ALL_OF_SCOPE, "op_type, keyword, knowledge", (soc, core))
            return [make_row(soc, core, op, keyword, knowledge) for op, keyword, knowledge in found]
        found = self._scan(self.SQL_ALL_OF_TYPE, "keyword, knowledge", (soc, core, op_type))
        return [make_row(soc, core, op_type, keyword, knowledge) for keyword, knowledge in found]

    @through_fork_gate
    def export_all(self, op_type=None):
        return [make_row(*row) for row in self._query(self.SQL_EXPORT, ()) if op_type is None or row[2] == op_type]

    @through_fork_gate
    def chips(self):
        return [{"soc_version": soc, "core_num": core, "records": str(count)}
                for soc, core, count in self._query(self.SQL_CHIPS, ())]
