"""Entry points of the knowledge base, called by ``libovra_kb.so``.

The native library calls these six functions with the interpreter lock held,
from any thread, possibly from several threads at once (the dictionaries
passed to them are emptied once read):

* ``ovra_kb_init(sys_dict, load_dict)`` -> 0
* ``ovra_kb_finalize()``
* ``ovra_kb_write(keyword, knowledge, config, flag)`` -> 0
* ``ovra_kb_delete(keyword, config, flag)`` -> 0
* ``ovra_kb_search_async(keyword, config)`` -> task handle (str)
* ``ovra_kb_search_get(handle)`` -> (finished, rows)

Failures raise ``RuntimeError`` with a dictionary carrying "errCode" and
"message" (see :mod:`.errors`).  All state lives in this module, so the
package survives the interpreter being finalised and started again.
"""

import atexit
import functools
import os
import threading
import traceback

from . import errors
from .storage import bank_identity, open_backend
from .storage.base import FORK_GATE
from .tasks import TaskRegistry, WorkerPool

# A prefix search with at most this many matches is answered at once; a
# larger one is read again in full on a worker thread.
INLINE_PREFIX_LIMIT = 256
# One worker runs the scans one after another. The interpreter lock lets only one of them run Python at a
# time anyway, and two give it to each other at every row they read (the sqlite3 module lets go of it for
# each step), each hand-over waking a sleeping thread: with several scans queued, one worker finished them
# all sooner.
WORKER_THREADS = 1

ALL_OP_TYPES = "*"

SEARCH_EXACT = "exact"
SEARCH_PREFIX = "prefix"
SEARCH_ALL = "all"
# Every record of every chip of the bank (op_type "*" or one op type), rows with their chip.
SEARCH_ALL_CHIPS = "all_chips"
# One row per chip of the bank: "soc_version", "core_num" and "records" (op_type "*").
SEARCH_CHIPS = "chips"
# A consistent copy of the whole bank into the directory named by the keyword (op_type "*"): one row,
# "backup" (the copy's database file), "records" and "bytes".
SEARCH_BACKUP = "backup"
# The longest core_num taken, in digits (past the leading zeros): any number of cores fits a 64-bit integer.
CORE_NUM_DIGITS = 18


class _Session(object):
    """The bank and chip configuration in force."""

    __slots__ = ("backend", "identity", "scope", "location")

    def __init__(self, backend, identity, scope, location):
        self.backend = backend
        self.identity = identity
        self.scope = scope
        self.location = location


class _KnowledgeBase(object):
    def __init__(self):
        self.lock = threading.RLock()
        self.session = None
        self.init_count = 0
        self.tasks = TaskRegistry()
        self.pool = WorkerPool(WORKER_THREADS)
        self.pid = os.getpid()

    def forget_parent(self):
        """In a forked child: drop what belongs to the parent without touching it.

        The parent's locks may have been held by its other threads at the fork, its worker threads do
        not exist here, and its database connections must not be used (or closed) by two processes. The
        bank is opened anew, with the same configuration, on the child's next call.
        """
        session, count = self.session, self.init_count
        self.__init__()
        if session is not None:
            self.session = _Session(None, session.identity, session.scope, session.location)
            self.init_count = count

    def shutdown(self):
        with self.lock:
            session, self.session = self.session, None
            self.pool.stop()
            self.tasks.clear()
            if session is not None and session.backend is not None:
                session.backend.close()


_KB = _KnowledgeBase()


def _at_exit():
    # An interpreter that is finalised while the bank is open (the host skipped
    # ovra_kb_finalize) still stops the workers and closes the bank cleanly.
    try:
        _KB.init_count = 0
        _KB.shutdown()
    except Exception:
        pass


atexit.register(_at_exit)


def _after_fork_in_child():
    _KB.forget_parent()


# Where Python runs fork hooks (3.7 on), a forked child forgets the parent's state once, at the fork; without
# them (3.6), every call asks whether the process is still the one that set it up.
CHECKS_FORK_AT_EVERY_CALL = not hasattr(os, "register_at_fork")
if not CHECKS_FORK_AT_EVERY_CALL:
    os.register_at_fork(after_in_child=_after_fork_in_child)


def _forget_parent_if_forked():
    if _KB.pid != os.getpid():
        # The storage fork gate was not renewed either, and its lock may have been held by another thread.
        FORK_GATE.renew_in_child()
        _KB.forget_parent()


def _forget_locals(exc):
    """Lighten ``exc`` and the exceptions chained to it before the library keeps them.

    The native library keeps every exception that a call raised, with its traceback, for the life of the
    process; nothing in it may keep the call's arguments (a refused 1 MB knowledge text) alive. So the
    finished frames of every traceback lose their local variables; a Unicode error keeps only the bad part
    of the text it was given (it holds the whole text twice, as ``object`` and among its arguments); and
    long texts among an exception's arguments, or the details of one of this package's errors, are cut.
    A cleared frame still keeps its function (CPython 3.11 on), and with it the function's closure: the
    package calls its statements and jobs through functools.partial, never through closures that hold
    arguments.
    """
    seen = set()
    while exc is not None and id(exc) not in seen:
        seen.add(id(exc))
        traceback.clear_frames(exc.__traceback__)
        try:
            _cut_arguments(exc)
        except Exception:
            pass
        exc = exc.__cause__ or exc.__context__


def _cut_arguments(exc):
    if isinstance(exc, (UnicodeEncodeError, UnicodeDecodeError, UnicodeTranslateError)):
        whole, start, end = exc.object, exc.start, exc.end
        first, last = max(0, start - 16), min(len(whole), end + 16)
        if first > 0 or last < len(whole):
            exc.object, exc.start, exc.end = whole[first:last], start - first, end - first
        # Their arguments hold the text as well; what str(exc) says comes from the attributes.
        exc.args = tuple(exc.object if arg is whole else arg for arg in exc.args)
    info = errors.error_info(exc)
    if info is not None:
        for key, value in list(info.items()):
            if isinstance(value, str):
                info[key] = errors.cut(value)
    else:
        exc.args = tuple(errors.cut(arg) if isinstance(arg, (str, bytes)) else arg for arg in exc.args)


def _empty_dictionaries(args):
    for arg in args:
        if type(arg) is dict:
            arg.clear()


def _entry(function):
    """One of the six functions that the native library calls.

    The library keeps, for the life of the process, every dictionary it passes and every error it reports, so
    both are made small here: a dictionary is emptied once the call has read it, and a refusal (an error of this
    package, whose message says all there is to say) leaves the entry point on its own, without the frames
    below it or the errors it was raised from.
    """

    @functools.wraps(function)
    def entry(*args):
        if CHECKS_FORK_AT_EVERY_CALL:
            _forget_parent_if_forked()
        try:
            return function(*args)
        except BaseException as exc:
            _forget_locals(exc)
            exc = errors.named_cause(exc) or exc
            if errors.error_info(exc) is None:
                raise
            exc.__cause__ = exc.__context__ = exc.__traceback__ = None
            raise exc
        finally:
            _empty_dictionaries(args)
            del args

    return entry


# ------------------------------------------------------------------ checks
def _detail(value):
    """A caller's value as the detail entry of an error: short text, or empty for None."""
    if value is None:
        return ""
    return errors.cut(value, errors.SHOWN_LIMIT) if isinstance(value, str) else errors.shown(value)


def _bad_argument(message, **details):
    return errors.kb_error(errors.INVALID_ARGUMENT, message, **details)


def _require_dict(value, name):
    if not isinstance(value, dict):
        raise _bad_argument("%s must be a dictionary, not %s; pass it as a dict of strings."
                            % (name, type(value).__name__))
    return value


def _check_sys_config(sys_dict):
    _require_dict(sys_dict, "The system configuration")
    soc_version = sys_dict.get("soc_version")
    if not isinstance(soc_version, str) or not soc_version.strip():
        raise errors.kb_error(
            errors.INVALID_SOC_VERSION,
            "soc_version is empty or missing; set soc_version to the chip version, for example soc-a1.",
            soc_version=_detail(soc_version),
        )
    core_num = sys_dict.get("core_num")
    text = core_num.strip() if isinstance(core_num, str) else ""
    digits = text.lstrip("0")
    if not _ascii_digits(text) or not digits or len(digits) > CORE_NUM_DIGITS:
        raise errors.kb_error(
            errors.INVALID_CORE_NUM,
            "core_num %s is not a positive integer of at most %d digits; set core_num to the number of cores, "
            "for example 32." % (errors.shown(core_num), CORE_NUM_DIGITS),
            core_num=_detail(core_num),
        )
    return soc_version.strip(), digits


def _ascii_digits(text):
    return bool(text) and all("0" <= ch <= "9" for ch in text)


def _check_load_config(load_dict):
    _require_dict(load_dict, "The load configuration")
    path = load_dict.get("op_bank_path")
    if not isinstance(path, str) or not path.strip():
        raise errors.kb_error(
            errors.BANK_PATH_UNUSABLE,
            "op_bank_path is empty or missing; set op_bank_path to a writable directory.",
            op_bank_path=_detail(path) if isinstance(path, str) else "",
        )
    if "\x00" in path:
        raise errors.kb_error(
            errors.BANK_PATH_UNUSABLE,
            "op_bank_path contains a NUL character; set op_bank_path to a writable directory.",
        )
    return path


def _op_type(config, allow_all=False):
    if not isinstance(config, dict):
        raise _bad_argument("The configuration must be a dictionary holding op_type, not %s."
                            % type(config).__name__)
    op_type = config.get("op_type")
    if not isinstance(op_type, str) or not op_type:
        raise errors.kb_error(
            errors.INVALID_OP_TYPE,
            "op_type is empty or missing; set op_type to the operator type, for example MatMul.",
        )
    if op_type == ALL_OP_TYPES and not allow_all:
        raise errors.kb_error(
            errors.INVALID_OP_TYPE,
            "op_type '*' only lists records with search_type 'all'; use a real operator type here.",
        )
    return op_type


def _check_keyword(keyword):
    if not isinstance(keyword, str) or not keyword:
        raise _bad_argument("keyword must be a non-empty string; pass the record's keyword.")


def _check_flag(flag):
    if flag is True or flag is False or (type(flag) is int and flag in (0, 1)):
        return bool(flag)
    raise _bad_argument("flag %s is invalid; pass 1 to make the change durable at once or 0 otherwise."
                        % errors.shown(flag))


def _session():
    session = _KB.session
    if session is None:
        raise errors.kb_error(
            errors.NOT_INITIALISED,
            "The knowledge base is not initialised; call ovra_kb_init with soc_version, core_num "
            "and op_bank_path first.",
        )
    if session.backend is None:
        with _KB.lock:
            session = _KB.session
            if session.backend is None:
                session.backend = open_backend(session.location)
    return session


def _not_text(exc):
    return _bad_argument("A text argument cannot be stored (%s); pass valid Unicode text." % exc)


# ---------------------------------------------------------------- functions
@_entry
def ovra_kb_init(sys_dict, load_dict):
    """Open the bank for the chip; may be called any number of times. Returns 0.

    Only a call that returns 0 counts: a refused one changes nothing, so that the caller's matching
    ovra_kb_finalize is owed only for the calls that succeeded.
    """
    soc_version, core_num = _check_sys_config(sys_dict)
    location = _check_load_config(load_dict)
    identity = bank_identity(location)
    kb = _KB
    with kb.lock:
        current = kb.session
        if current is not None and current.identity == identity and current.backend is not None \
                and current.backend.still_there():
            backend = current.backend
        elif current is not None and current.identity == identity and current.backend is not None:
            # The bank's file was removed or replaced under the open one. The old connections close first,
            # and the journal files they leave under the old names go with them, before the new bank there is
            # opened: it must neither read them as its own nor lose its own when they are deleted. A failure
            # below leaves the session closed, which the next initialisation repairs.
            kb.pool.stop()
            current.backend.close()
            backend = open_backend(location)
        else:
            backend = open_backend(location)
            if current is not None:
                # Another bank (or the same one, removed and made anew): let queued scans of the old one
                # finish first.
                kb.pool.stop()
                if current.backend is not None:
                    current.backend.close()
        kb.session = _Session(backend, identity, (soc_version, core_num), location)
        kb.init_count += 1
    return 0


@_entry
def ovra_kb_finalize():
    """Undo one ovra_kb_init; the last one flushes and closes the bank."""
    kb = _KB
    with kb.lock:
        if kb.init_count > 0:
            kb.init_count -= 1
        if kb.init_count == 0:
            kb.shutdown()
    return 0


@_entry
def ovra_kb_write(keyword, knowledge, config, flag):
    """Store ``knowledge`` under ``keyword``; flag 1 makes it durable before returning."""
    session = _session()
    op_type = _op_type(config)
    _check_keyword(keyword)
    if not isinstance(knowledge, str):
        raise _bad_argument("knowledge must be a string, not %s." % type(knowledge).__name__)
    durable = _check_flag(flag)
    try:
        session.backend.write(session.scope, op_type, keyword, knowledge, durable)
    except UnicodeError as exc:
        raise _not_text(exc)
    return 0


@_entry
def ovra_kb_delete(keyword, config, flag):
    """Remove the record under ``keyword``; removing a missing record succeeds."""
    session = _session()
    op_type = _op_type(config)
    _check_keyword(keyword)
    durable = _check_flag(flag)
    try:
        session.backend.delete(session.scope, op_type, keyword, durable)
    except UnicodeError as exc:
        raise _not_text(exc)
    return 0


@_entry
def ovra_kb_search_async(keyword, config):
    """Start a search and return its task handle.

    "search_type" None or "exact": the record whose keyword is ``keyword``;
    "prefix": records whose keyword starts with it; "all": every record of
    the op_type (``keyword`` is ignored; op_type "*" means every op type).
    "all_chips": as "all", over every chip of the bank; "chips": the chips
    of the bank with their record counts (op_type "*"); "backup": a copy of
    the bank into the directory ``keyword`` (op_type "*").
    """
    session = _session()
    search_type = config.get("search_type") if isinstance(config, dict) else None
    op_type = _op_type(config, allow_all=search_type in (SEARCH_ALL, SEARCH_ALL_CHIPS, SEARCH_CHIPS, SEARCH_BACKUP))
    return_type = config.get("return_type", "str")
    if return_type not in (None, "str"):
        raise _bad_argument("return_type %s is not supported; ask for 'str' results."
                            % errors.shown(return_type))
    backend = session.backend
    scope = session.scope
    kb = _KB
    try:
        if search_type is None or search_type == SEARCH_EXACT or search_type == "":
            if not isinstance(keyword, str):
                raise _bad_argument("keyword must be a string, not %s." % type(keyword).__name__)
            return kb.tasks.add_finished(backend.exact(scope, op_type, keyword))
        if search_type == SEARCH_PREFIX:
            if not isinstance(keyword, str):
                raise _bad_argument("keyword must be a string, not %s." % type(keyword).__name__)
            rows = backend.prefix(scope, op_type, keyword, INLINE_PREFIX_LIMIT + 1)
            if len(rows) <= INLINE_PREFIX_LIMIT:
                return kb.tasks.add_finished(rows)
            # Jobs are partials, not closures: see _forget_locals.
            job = functools.partial(backend.prefix, scope, op_type, keyword)
        elif search_type == SEARCH_ALL:
            job = functools.partial(backend.all, scope, None if op_type == ALL_OP_TYPES else op_type)
        elif search_type == SEARCH_ALL_CHIPS:
            job = functools.partial(backend.export_all, None if op_type == ALL_OP_TYPES else op_type)
        elif search_type == SEARCH_CHIPS:
            if op_type != ALL_OP_TYPES:
                raise errors.kb_error(
                    errors.INVALID_OP_TYPE,
                    "search_type 'chips' counts the records of every op type; set op_type to '*'.",
                )
            job = backend.chips
        elif search_type == SEARCH_BACKUP:
            if op_type != ALL_OP_TYPES or not isinstance(keyword, str) or not keyword:
                raise _bad_argument("search_type 'backup' copies the whole bank; set op_type to '*' and pass the "
                                    "directory to copy it into as the keyword.")
            job = functools.partial(backend.backup, keyword)
        else:
            raise errors.kb_error(
                errors.UNKNOWN_SEARCH_TYPE,
                "search_type %s is unknown; use 'exact' (or leave it unset), 'prefix', 'all', 'all_chips', "
                "'chips' or 'backup'." % errors.shown(search_type),
            )
    except UnicodeError as exc:
        raise _not_text(exc)
    handle, task = kb.tasks.add_pending()
    kb.pool.submit(functools.partial(task.run, job))
    return handle


@_entry
def ovra_kb_search_get(handle):
    """Poll a search: ``(False, [])`` while it runs, then ``(True, rows)`` once."""
    return _KB.tasks.take(handle)
