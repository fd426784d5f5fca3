"""The storage interface that every knowledge-bank backend implements.

A record is the knowledge text stored under the key
(soc_version, core_num, op_type, keyword).  The first two parts are the
*scope*: the chip the bank was initialised for, passed as a
``(soc_version, core_num)`` tuple.  Rows handed back are dictionaries of
strings holding the five fields named in :data:`ROW_FIELDS`.

Implementations must be safe to call from several threads at once and must
tolerate other processes using the same bank.
"""

from .. import errors

ROW_FIELDS = ("soc_version", "core_num", "op_type", "keyword", "knowledge")


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

    def export_all(self):
        """Every row of every scope, ordered by the full key (for moving banks)."""
        raise NotImplementedError


class SqlKnowledgeBackend(KnowledgeBackend):
    """The operations of a bank kept in one SQL table; subclasses give the statements and run them.

    A subclass sets SQL_UPSERT, SQL_DELETE, SQL_EXACT, SQL_PREFIX_BOUNDED, SQL_PREFIX_OPEN,
    SQL_ALL_OF_TYPE, SQL_ALL_OF_SCOPE, SQL_EXPORT and NO_LIMIT (the LIMIT value that means none), and
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

    def write(self, scope, op_type, keyword, knowledge, durable):
        self._modify(self.SQL_UPSERT, (scope[0], scope[1], op_type, keyword, knowledge), durable)

    def delete(self, scope, op_type, keyword, durable):
        return self._modify(self.SQL_DELETE, (scope[0], scope[1], op_type, keyword), durable) > 0

    def exact(self, scope, op_type, keyword):
        if self._never_stored(scope[0], scope[1], op_type, keyword):
            return []
        found = self._query(self.SQL_EXACT, (scope[0], scope[1], op_type, keyword))
        if not found:
            return []
        return [make_row(scope[0], scope[1], op_type, keyword, found[0][0])]

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

    def all(self, scope, op_type):
        soc, core = scope
        if self._never_stored(soc, core, op_type or ""):
            return []
        if op_type is None:
            found = self._query(self.SQL_ALL_OF_SCOPE, (soc, core))
            return [make_row(soc, core, op, keyword, knowledge) for op, keyword, knowledge in found]
        found = self._query(self.SQL_ALL_OF_TYPE, (soc, core, op_type))
        return [make_row(soc, core, op_type, keyword, knowledge) for keyword, knowledge in found]

    def export_all(self):
        return [make_row(*row) for row in self._query(self.SQL_EXPORT, ())]
