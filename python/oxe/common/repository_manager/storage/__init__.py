"""Storage backends of the knowledge bank.

:func:`open_backend` picks the backend from the form of "op_bank_path":

* ``postgresql://...`` (or ``postgres://...``): a PostgreSQL server.  Not
  available yet: such a path raises the backend-not-supported error.  A
  PostgreSQL backend implements :class:`.base.KnowledgeBackend` in its own
  module and is registered in :data:`_URL_BACKENDS`.
* anything else: a directory holding an SQLite bank (:mod:`.sqlite_backend`).
"""

import os

from .. import errors
from .base import KnowledgeBackend  # noqa: F401  (re-exported)
from .sqlite_backend import SqliteBackend

# URL scheme -> factory taking the whole location; None means "known but not
# available in this release".
_URL_BACKENDS = {
    "postgresql": None,
    "postgres": None,
}


def _url_scheme(location):
    head, sep, _ = location.partition("://")
    if sep and head and head.replace("+", "").isalnum():
        return head.lower()
    return None


def _redacted(location):
    head, sep, rest = location.partition("://")
    netloc, slash, path = rest.partition("/")
    if "@" in netloc:
        netloc = "***@" + netloc.rpartition("@")[2]
    return head + sep + netloc + slash + path


def bank_identity(location):
    """A key telling whether two locations name the same bank."""
    if _url_scheme(location) is not None:
        return location
    return os.path.abspath(location)


def open_backend(location):
    """Open the bank at ``location`` and return its backend, ready for use."""
    scheme = _url_scheme(location)
    if scheme is not None:
        factory = _URL_BACKENDS.get(scheme)
        if factory is None:
            raise errors.kb_error(
                errors.BACKEND_NOT_SUPPORTED,
                "The knowledge bank location %s uses the %s storage, which this release does not "
                "support; set op_bank_path to a local directory." % (_redacted(location), scheme),
                op_bank_path=_redacted(location),
            )
        backend = factory(location)
    else:
        backend = SqliteBackend(os.path.abspath(location))
    backend.open()
    return backend
