"""Search tasks and the worker threads that run the long ones.

A search is known to its caller by a task handle (a string).  A search
answered at once is registered as its rows alone, with no task object; a scan
is registered as a pending :class:`Task` and run by a :class:`WorkerPool`
thread.  The caller polls with :meth:`TaskRegistry.take`, which hands a
finished search's rows back once and forgets the handle.
"""

import itertools
import threading

from . import errors

_SENTINEL = object()

# How long a poll of an unfinished task waits for it, with the interpreter lock given back, before it answers
# "not yet". The wait ends as soon as the task finishes, so a search is not answered later for it; it spares
# the scan's worker thread the polls of every waiting search, each of which takes the lock from it (and a
# poll whose wait runs out takes it back before it answers). The native library's own poll cycle comes 1 ms
# after each answer: a waiting search then asks about 20 times a second instead of a thousand.
POLL_WAIT = 0.05


class Task(object):
    """A scan that a worker thread runs; ``finished`` is set once its rows or its error are kept."""

    __slots__ = ("finished", "rows", "error")

    def __init__(self):
        self.rows = None
        self.error = None
        self.finished = threading.Event()

    def run(self, job):
        """Run ``job()`` and keep its rows, or the error it raised."""
        try:
            self.rows = job()
        except BaseException as exc:  # handed to the poller, never lost
            if errors.error_info(exc) is None:
                exc = errors.named_cause(exc) or errors.kb_error(
                    errors.INTERNAL_ERROR,
                    "A background search failed unexpectedly (%s: %s); retry the search, "
                    "and report the problem if it persists." % (type(exc).__name__, exc),
                )
            self.error = exc
        self.finished.set()


class TaskRegistry(object):
    """Handles of the searches not yet collected: their rows, or the :class:`Task` that makes them.

    The table is changed only by single dictionary operations, which the interpreter lock keeps whole: two
    polls of one finished handle cannot both take it.
    """

    def __init__(self):
        self._tasks = {}
        self._ids = itertools.count(1)

    def _register(self, entry):
        handle = "ovra_kb_task_%d" % next(self._ids)
        self._tasks[handle] = entry
        return handle

    def add_finished(self, rows):
        return self._register(rows)

    def add_pending(self):
        task = Task()
        return self._register(task), task

    def take(self, handle):
        """Return ``(finished, rows)``; a finished search is forgotten.

        A task still running is waited for :data:`POLL_WAIT` seconds at most before the answer is "not yet".
        """
        entry = self._tasks.get(handle) if isinstance(handle, str) else None
        if type(entry) is Task and not entry.finished.wait(POLL_WAIT):
            return False, []
        entry = self._tasks.pop(handle, None) if entry is not None else None
        if entry is None:
            raise errors.kb_error(
                errors.UNKNOWN_TASK,
                "The search task handle %s is unknown: it was never issued, its result was already "
                "collected, or the knowledge base was finalised; start a new search." % errors.shown(handle),
            )
        if type(entry) is not Task:
            return True, entry
        if entry.error is not None:
            raise entry.error
        return True, entry.rows

    def clear(self):
        self._tasks.clear()

    def __len__(self):
        return len(self._tasks)


class WorkerPool(object):
    """A few daemon threads, started on the first job and stopped by :meth:`stop`."""

    THREAD_NAME = "ovra-kb-search"

    def __init__(self, size=2):
        self._size = size
        self._lock = threading.Lock()
        self._threads = []
        self._jobs = None

    def submit(self, job):
        with self._lock:
            if not self._threads:
                self._start()
            self._jobs.put(job)

    def _start(self):
        # Imported here so that merely importing the package starts nothing.
        import queue

        self._jobs = queue.Queue()
        for number in range(self._size):
            thread = threading.Thread(
                target=self._work,
                args=(self._jobs,),
                name="%s-%d" % (self.THREAD_NAME, number),
            )
            thread.daemon = True
            thread.start()
            self._threads.append(thread)

    @staticmethod
    def _work(jobs):
        while True:
            job = jobs.get()
            if job is _SENTINEL:
                return
            try:
                job()
            except BaseException:  # a job reports its own failure
                pass

    def stop(self, timeout=60.0):
        """Let queued jobs finish, then end the threads and wait for them."""
        with self._lock:
            threads, self._threads = self._threads, []
            jobs, self._jobs = self._jobs, None
            for _ in threads:
                jobs.put(_SENTINEL)
        current = threading.current_thread()
        for thread in threads:
            if thread is not current:
                thread.join(timeout)

    def running(self):
        return len(self._threads)
