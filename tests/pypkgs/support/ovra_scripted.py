"""Scripted behaviour and call records for the test knowledge-base packages.

A test writes a JSON script to the file named by OVRA_TEST_SCRIPT: for each function
name, a list of Python expressions that give the answers of successive calls (the last
one repeats). An expression sees `args` (the call's arguments), `default()` (the answer
without a script), and this module's names: `state` (a dict shared by all calls), the
helpers below, `sys` and `time`.

Every call appends the line "<function>(<repr of each argument>)" to the file named by
OVRA_TEST_RECORD, and `note(text)` adds "note <text>" lines.
"""
import gc
import json
import os
import sys
import threading
import time
import weakref

_lock = threading.Lock()
_calls = {}
state = {}


class BadBool(object):
    """A completion flag whose truth test raises."""

    def __bool__(self):
        raise ValueError("truth of this flag cannot be told")


def fail(exc):
    raise exc


def _answer(answer):
    return answer() if callable(answer) else answer


def poll_after(handle, not_yet, answer):
    """Answers (False, []) `not_yet` times for `handle`, then `answer` (called when callable)."""
    with _lock:
        seen = state.setdefault("polls", {}).get(handle, 0)
        state["polls"][handle] = seen + 1
    if seen < not_yet:
        return (False, [])
    return _answer(answer)


def finish_after_ms(handle, delay_ms, answer):
    """Answers (False, []) until `delay_ms` have passed since the handle was first polled, then `answer`."""
    now = time.monotonic()
    with _lock:
        start = state.setdefault("started", {}).setdefault(handle, now)
    if (now - start) * 1000.0 < delay_ms:
        return (False, [])
    return _answer(answer)


def note(text, answer=0):
    """Adds a line "note <text>" to the record and gives `answer`."""
    _write_record("note %s\n" % text)
    return answer


def extra_refs(objects):
    """References held on each object beyond the one of the list that holds it here."""
    holder = [{}]
    base = [sys.getrefcount(o) for o in holder][0]
    return [sys.getrefcount(o) - base for o in objects]


def tracked_objects(kept=()):
    """Objects the garbage collector follows, after a full collection, other than those of `kept`."""
    gc.collect()
    return len(gc.get_objects()) - sum(1 for o in kept if gc.is_tracked(o))


def traceback_line_lists():
    """Lists of formatted traceback lines alive in the interpreter."""
    gc.collect()
    return sum(1 for o in gc.get_objects()
               if type(o) is list and o and o[0] == "Traceback (most recent call last):\n")


class _ThreadStateMarker(object):
    """Lives as long as the Python thread state on which it was made (it is kept in a thread-local)."""


_per_thread_state = threading.local()
_live_markers = weakref.WeakSet()
_serials = [0]
# Tells this interpreter's numbers from those of an earlier one in the same process.
_interpreter = os.urandom(4).hex()


def thread_state_serial():
    """A name for the calling thread's Python thread state: the same for every call made on one state,
    a new one for a new state."""
    marker = getattr(_per_thread_state, "marker", None)
    if marker is None:
        marker = _ThreadStateMarker()
        with _lock:
            _serials[0] += 1
            marker.serial = "%s-%d" % (_interpreter, _serials[0])
            _live_markers.add(marker)
        _per_thread_state.marker = marker
    return marker.serial


def live_thread_states():
    """Thread states still alive among those that thread_state_serial saw."""
    gc.collect()
    return len(_live_markers)


def _script():
    path = os.environ.get("OVRA_TEST_SCRIPT")
    if not path or not os.path.exists(path):
        return {}
    with open(path) as handle:
        return json.load(handle)


def _write_record(line):
    path = os.environ.get("OVRA_TEST_RECORD")
    if not path:
        return
    with _lock:
        with open(path, "a") as handle:
            handle.write(line)


def call(name, args, default):
    """Records the call and gives the scripted answer (or `default`)."""
    _write_record("%s(%s)\n" % (name, ", ".join(repr(a) for a in args)))
    answers = _script().get(name)
    if not answers:
        return default(*args)
    with _lock:
        index = _calls.get(name, 0)
        _calls[name] = index + 1
    expression = answers[min(index, len(answers) - 1)]
    return eval(expression, dict(globals(), args=args, default=lambda: default(*args)))
