"""The storage interface that every knowledge-bank backend implements.

A record is the knowledge text stored under the key
(soc_version, core_num, op_type, keyword).  The first two parts are the
*scope*: the chip the bank was initialised for, passed as a
``(soc_version, core_num)`` tuple.  Rows handed back are dictionaries of
strings holding the five fields named in :data:`ROW_FIELDS`.

Implementations must be safe to call from several threads at once and must
tolerate other processes using the same bank.
"""

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
