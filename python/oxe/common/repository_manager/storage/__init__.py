"""Storage backends of the knowledge bank.

:func:`open_backend` picks the backend from the form of "op_bank_path":

* ``postgresql://...`` (or ``postgres://...``): a database on a PostgreSQL
  server (:mod:`.postgres_backend`).  Its module, and the driver it needs, are
  imported only when such a location is opened.
* any other ``scheme://...``: a storage kind this release lacks; refused with
  the backend-not-supported error.
* anything else: a directory holding an SQLite bank (:mod:`.sqlite_backend`).

Each backend implements :class:`.base.KnowledgeBackend`; URL schemes are
registered in :data:`_URL_BACKENDS`.
"""

import os

from .. import errors
from .base import KnowledgeBackend  # noqa: F401  (re-exported)
from .sqlite_backend import SqliteBackend


def _postgres(location):
    from .postgres_backend import PostgresBackend

    return PostgresBackend(location)


# URL scheme -> factory taking the whole location.
_URL_BACKENDS = {
    "postgresql": _postgres,
    "postgres": _postgres,
}


def _url_scheme(location):
    head, sep, _ = location.partition("://")
    if sep and head and head.replace("+", "").isalnum():
        return head.lower()
    return None


def _redacted(location):
    head, sep, rest = location.partition("://")
    cut = min([len(rest)] + [rest.find(mark) for mark in "/?#" if mark in rest])
    netloc = rest[:cut]
    if "@" in netloc:
        netloc = "***@" + netloc.rpartition("@")[2]
    return head + sep + netloc


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
                "support; set op_bank_path to a local directory or a postgresql:// URL."
                % (_redacted(location), scheme),
                op_bank_path=_redacted(location),
            )
        backend = factory(location)
    else:
        backend = SqliteBackend(os.path.abspath(location))
    backend.open()
    return backend
