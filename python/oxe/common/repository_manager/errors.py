"""Error codes of the knowledge base and the exception that carries them.

Every failure that a caller can act on is raised as ``RuntimeError`` whose
only argument is a dictionary of strings with at least "errCode" (one of the
codes below) and "message" (a sentence that says what to do).  The native
library hands that dictionary to the platform error manager through
``repository_manager_log.get_py_exception_dict``.
"""

import errno
import os
import resource

INVALID_SOC_VERSION = "OVRA_KB_E001"
INVALID_CORE_NUM = "OVRA_KB_E002"
BANK_PATH_UNUSABLE = "OVRA_KB_E003"
BACKEND_NOT_SUPPORTED = "OVRA_KB_E004"
INVALID_OP_TYPE = "OVRA_KB_E005"
UNKNOWN_SEARCH_TYPE = "OVRA_KB_E006"
NOT_INITIALISED = "OVRA_KB_E007"
UNKNOWN_TASK = "OVRA_KB_E008"
INVALID_ARGUMENT = "OVRA_KB_E009"
STORAGE_FAILURE = "OVRA_KB_E010"
SCHEMA_TOO_NEW = "OVRA_KB_E011"
DRIVER_MISSING = "OVRA_KB_E012"
CANNOT_CONNECT = "OVRA_KB_E013"
AUTHENTICATION_FAILED = "OVRA_KB_E014"
CONNECTION_LOST = "OVRA_KB_E015"
BANK_DAMAGED = "OVRA_KB_E016"
BANK_READ_ONLY = "OVRA_KB_E017"
NOT_SUPPORTED_BY_BANK = "OVRA_KB_E018"
INTERNAL_ERROR = "OVRA_KB_E999"

ALL_CODES = (
    INVALID_SOC_VERSION,
    INVALID_CORE_NUM,
    BANK_PATH_UNUSABLE,
    BACKEND_NOT_SUPPORTED,
    INVALID_OP_TYPE,
    UNKNOWN_SEARCH_TYPE,
    NOT_INITIALISED,
    UNKNOWN_TASK,
    INVALID_ARGUMENT,
    STORAGE_FAILURE,
    SCHEMA_TOO_NEW,
    DRIVER_MISSING,
    CANNOT_CONNECT,
    AUTHENTICATION_FAILED,
    CONNECTION_LOST,
    BANK_DAMAGED,
    BANK_READ_ONLY,
    NOT_SUPPORTED_BY_BANK,
    INTERNAL_ERROR,
)


def kb_error(code, message, **details):
    """Build the ``RuntimeError`` that this package raises for ``code``.

    ``details`` are extra entries (for instance the offending path); their
    values are turned into strings so the dictionary stays str -> str.
    """
    info = {"errCode": code, "message": message}
    for key, value in details.items():
        info[key] = value if isinstance(value, str) else repr(value)
    return RuntimeError(info)


# Longest caller value that a message quotes, and longest detail text an error carries: the native
# library keeps every error it reports for the life of the process, so an error must not hold a large
# argument, not even as text.
SHOWN_LIMIT = 80
DETAIL_LIMIT = 2000


def cut(text, limit=DETAIL_LIMIT):
    """``text`` cut to about ``limit`` characters (or bytes), saying how long it was."""
    if len(text) <= limit:
        return text
    if isinstance(text, bytes):
        return text[:limit] + b"... (%d bytes)" % len(text)
    return "%s... (%d characters)" % (text[:limit], len(text))


def shown(value, limit=SHOWN_LIMIT):
    """``repr(value)`` for a message, cut to about ``limit`` characters."""
    try:
        text = repr(value)
    except Exception:
        text = "<%s object>" % type(value).__name__
    return cut(text, limit)


def error_info(exc):
    """Return the details dictionary of an error raised by :func:`kb_error`, or None."""
    if type(exc) is RuntimeError and len(exc.args) == 1 and isinstance(exc.args[0], dict):
        info = exc.args[0]
        if "errCode" in info:
            return info
    return None


def descriptors_used_up():
    """EMFILE or ENFILE when no file can be opened now for want of a file descriptor, else None."""
    try:
        os.close(os.open(os.devnull, os.O_RDONLY))
    except OSError as exc:
        if exc.errno in (errno.EMFILE, errno.ENFILE):
            return exc.errno
    return None


def out_of_descriptors(action, code):
    """The error of ``action`` ("read the knowledge bank X") that found no file descriptor left (``code``: EMFILE or
    ENFILE), naming the limit: the database library says only that it cannot open a file."""
    if code == errno.EMFILE:
        cause = ("this process has used up its file descriptors (its limit, ulimit -n, is %d); raise the limit "
                 "(ulimit -n 4096, or LimitNOFILE= for a service) or close files that the process keeps open"
                 % resource.getrlimit(resource.RLIMIT_NOFILE)[0])
    else:
        cause = ("the system has used up its file descriptors (its limit is fs.file-max); close files, or ask the "
                 "administrator to raise the limit")
    return kb_error(STORAGE_FAILURE, "Could not %s: %s, then retry." % (action, cause))


def named_cause(exc):
    """The package's error for an unexpected ``exc`` whose cause has a name of its own, or None."""
    if isinstance(exc, OSError) and exc.errno in (errno.EMFILE, errno.ENFILE):
        return out_of_descriptors("complete the call", exc.errno)
    return None
