"""libovra_kb inside a Python process that already runs its interpreter.

Run by each interpreter under test with OVRA_HOST_MODULE_DIR (the extension module built for
that interpreter) and OVRA_TEST_PACKAGES (tests/pypkgs) in the environment.
"""
import os
import shutil
import sys
import tempfile
import threading
import time
import unittest

PACKAGES = os.environ["OVRA_TEST_PACKAGES"]
for name in ("support", "kb", "log"):
    sys.path.insert(0, os.path.join(PACKAGES, name))
sys.path.insert(0, os.environ["OVRA_HOST_MODULE_DIR"])

import ovra_host  # noqa: E402
# The module the library imports: the host is Python, so the test gives it its answers directly, with no file
# to read in between that would give the interpreter lock back.
from oxe.common.repository_manager import interface as kb  # noqa: E402

SYS = {"soc_version": "soc-a1", "core_num": "8"}
LOAD = {"op_bank_path": "/tmp/ovra-host-bank"}
OP = {"op_type": "Add"}


def runtime_mappings():
    """Distinct files of the Python runtime library mapped into this process."""
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if "libpython" in line}


class HostInterpreter(unittest.TestCase):
    def setUp(self):
        work = tempfile.mkdtemp(prefix="ovra-host-")
        self.addCleanup(shutil.rmtree, work, True)
        # A python3 that only leaves a mark: the library must not ask it anything.
        self.marker = os.path.join(work, "python3-was-run")
        with open(os.path.join(work, "python3"), "w") as fake:
            fake.write("#!/bin/sh\ntouch '%s'\n" % self.marker)
        os.chmod(os.path.join(work, "python3"), 0o755)
        os.environ["PATH"] = work + os.pathsep + os.environ["PATH"]

    def on_threads(self, count, work):
        threads = [threading.Thread(target=work, args=(i,)) for i in range(count)]
        for thread in threads:
            thread.start()
        return threads

    def test_joins_the_host_serves_its_threads_and_leaves_it_running(self):
        mappings = runtime_mappings()
        # Each search answers with its own keyword and op type, so that a thread can tell its rows.
        kb.ovra_kb_search_async = lambda keyword, config: "task %s %s" % (keyword, config["op_type"])
        kb.ovra_kb_search_get = lambda task: (True, [{"task": task}])
        self.assertEqual(ovra_host.init(SYS, LOAD), 0)
        self.assertEqual(ovra_host.search("relu", OP), (0, [{"task": "task relu Add"}]))
        self.assertEqual(ovra_host.search("relu", {}), (2, []))

        failures = []

        def call(index):
            for round_ in range(20):
                status, rows = ovra_host.search("k%d" % round_, {"op_type": "Op%d" % index})
                if (status, rows) != (0, [{"task": "task k%d Op%d" % (round_, index)}]):
                    failures.append("search %d %r" % (status, rows))

        for thread in self.on_threads(4, call):
            thread.join()
        self.assertEqual(failures, [])

        # A search that waits 300 ms leaves room for about 150 ticks of a host thread; a lock held
        # through the waits allows none, as the interpreter is not to ask for it back in between.
        sys.setswitchinterval(5.0)
        done_at = time.monotonic() + 0.3
        kb.ovra_kb_search_get = lambda task: (time.monotonic() >= done_at, [{"k": "v"}])
        ticks = []
        stop = threading.Event()

        def tick(_):
            while not stop.is_set():
                ticks.append(1)
                time.sleep(0.002)

        ticker = self.on_threads(1, tick)[0]
        self.assertEqual(ovra_host.search("kw", OP), (0, [{"k": "v"}]))
        stop.set()
        ticker.join()
        self.assertGreater(len(ticks), 30)

        self.assertEqual(ovra_host.finalize(), 0)
        self.assertFalse(getattr(sys, "is_finalizing", lambda: False)())
        # The host's interpreter is intact: a second start-up joins it again.
        self.assertEqual(ovra_host.init(SYS, LOAD), 0)
        self.assertEqual(ovra_host.search("again", OP), (0, [{"k": "v"}]))
        self.assertEqual(ovra_host.finalize(), 0)
        self.assertFalse(os.path.exists(self.marker), "python3 was asked although the host runs Python")
        self.assertEqual(runtime_mappings(), mappings, "the runtime was loaded a second time")


if __name__ == "__main__":
    unittest.main(verbosity=2)
