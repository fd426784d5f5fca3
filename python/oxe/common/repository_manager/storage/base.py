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
import os
import threading

from .. import errors


class ForkGate(object):
    """Lets a process fork only while no thread of it is inside a storage call.

    A thread inside the database library holds that library's own locks; a child forked at that moment
    would find them held for ever.  Every storage call passes the gate; a fork closes it to new calls,
    waits until none is inside, and opens it again once the child exists.  A thread already inside (a
    storage call made by another one) passes at once.
    """

    def __init__(self):
        self._cond = threading.Condition(threading.Lock())
        self._inside = 0
        self._closed = False
        self._depth = threading.local()

    def __enter__(self):
        depth = getattr(self._depth, "value", 0)
        if depth == 0:
            with self._cond:
                while self._closed:
                    self._cond.wait()
                self._inside += 1
        self._depth.value = depth + 1

    def __exit__(self, *exc):
        self._depth.value -= 1
        if self._depth.value == 0:
            with self._cond:
                self._inside -= 1
                if not self._inside:
                    self._cond.notify_all()

    def close_for_fork(self):
        mine = 1 if getattr(self._depth, "value", 0) else 0  # a fork made from inside a storage call
        with self._cond:
            self._closed = True
            while self._inside > mine:
                self._cond.wait()

    def open_after_fork(self):
        with self._cond:
            self._closed = False
            self._cond.notify_all()

    def renew_in_child(self):
        self.__init__()


FORK_GATE = ForkGate()
if hasattr(os, "register_at_fork"):
    os.register_at_fork(before=FORK_GATE.close_for_fork, after_in_parent=FORK_GATE.open_after_fork,
                        after_in_child=FORK_GATE.renew_in_child)


def through_fork_gate(method):
    """A storage call: it runs inside the fork gate."""

    @functools.wraps(method)
    def gated(*args, **kwargs):
        with FORK_GATE:
            return method(*args, **kwargs)

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
    (the rows).
    """

    NO_LIMIT = None
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
            found = self._query(self.SQL_PREFIX_OPEN, (soc, core, op_type, prefix, limit))
        else:
            found = self._query(self.SQL_PREFIX_BOUNDED, (soc, core, op_type, prefix, upper, limit))
        return [make_row(soc, core, op_type, keyword, knowledge) for keyword, knowledge in found]

    @through_fork_gate
    def all(self, scope, op_type):
        soc, core = scope
        if self._never_stored(soc, core, op_type or ""):
            return []
        if op_type is None:
            found = self._query(self.SQL_ALL_OF_SCOPE, (soc, core))
            return [make_row(soc, core, op, keyword, knowledge) for op, keyword, knowledge in found]
        found = self._query(self.SQL_ALL_OF_TYPE, (soc, core, op_type))
        return [make_row(soc, core, op_type, keyword, knowledge) for keyword, knowledge in found]

    @through_fork_gate
    def export_all(self, op_type=None):
        return [make_row(*row) for row in self._query(self.SQL_EXPORT, ()) if op_type is None or row[2] == op_type]

    @through_fork_gate
    def chips(self):
        return [{"soc_version": soc, "core_num": core, "records": str(count)}
                for soc, core, count in self._query(self.SQL_CHIPS, ())]
