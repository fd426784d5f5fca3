"""Search tasks and the worker threads that run the long ones.

A search is known to its caller by a task handle (a string).  A task that
was answered at once is registered already finished; a scan is registered
pending and run by a :class:`WorkerPool` thread.  The caller polls with
:meth:`TaskRegistry.take`, which hands a finished task's result back once
and forgets the handle.
"""

import itertools
import threading

from . import errors

_SENTINEL = object()


class Task(object):
    __slots__ = ("done", "rows", "error")

    def __init__(self, rows=None):
        self.rows = rows
        self.error = None
        # Set last: a poller that sees done True also sees rows or error.
        self.done = rows is not None

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
        self.done = True


class TaskRegistry(object):
    def __init__(self):
        self._tasks = {}
        self._lock = threading.Lock()
        self._ids = itertools.count(1)

    def _register(self, task):
        handle = "ovra_kb_task_%d" % next(self._ids)
        with self._lock:
            self._tasks[handle] = task
        return handle

    def add_finished(self, rows):
        return self._register(Task(rows))

    def add_pending(self):
        task = Task()
        return self._register(task), task

    def take(self, handle):
        """Return ``(finished, rows)``; a finished task is forgotten."""
        with self._lock:
            task = self._tasks.get(handle) if isinstance(handle, str) else None
            if task is None:
                raise errors.kb_error(
                    errors.UNKNOWN_TASK,
                    "The search task handle %s is unknown: it was never issued, its result was already "
                    "collected, or the knowledge base was finalised; start a new search." % errors.shown(handle),
                )
            if not task.done:
                return False, []
            del self._tasks[handle]
        if task.error is not None:
            raise task.error
        return True, task.rows

    def clear(self):
        with self._lock:
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
