"""libovra_kb inside a Python process that already runs its interpreter.

Run by each interpreter under test with OVRA_HOST_MODULE_DIR (the extension module built for
that interpreter) and OVRA_TEST_PACKAGES (tests/pypkgs) in the environment.
"""
import json
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

SYS = {"soc_version": "soc-a1", "core_num": "8"}
LOAD = {"op_bank_path": "/tmp/ovra-host-bank"}
OP = {"op_type": "Add"}


def runtime_mappings():
    """Distinct files of the Python runtime library mapped into this process."""
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if "libpython" in line}


class HostInterpreter(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="ovra-host-")
        cls.script = os.path.join(cls.work, "script.json")
        cls.marker = os.path.join(cls.work, "python3-was-run")
        os.environ["OVRA_TEST_SCRIPT"] = cls.script
        os.environ["OVRA_TEST_RECORD"] = os.path.join(cls.work, "record.txt")
        # A python3 that only leaves a mark: the library must not ask it anything.
        bin_dir = os.path.join(cls.work, "bin")
        os.mkdir(bin_dir)
        with open(os.path.join(bin_dir, "python3"), "w") as fake:
            fake.write("#!/bin/sh\ntouch '%s'\n" % cls.marker)
        os.chmod(os.path.join(bin_dir, "python3"), 0o755)
        os.environ["PATH"] = bin_dir + os.pathsep + os.environ["PATH"]
        cls.set_script({})
        cls.mappings_before = runtime_mappings()

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    @classmethod
    def set_script(cls, script):
        with open(cls.script, "w") as handle:
            json.dump(script, handle)

    def test_1_joins_the_host_and_serves_every_operation(self):
        self.assertEqual(ovra_host.init(SYS, LOAD), 0)
        self.assertFalse(os.path.exists(self.marker), "python3 was asked although the host runs Python")
        self.assertEqual(runtime_mappings(), self.mappings_before, "the runtime was loaded a second time")
        self.assertEqual(ovra_host.write("relu", "vector unit", OP, True), 0)
        self.assertEqual(ovra_host.search("relu", OP),
                         (0, [{"keyword": "relu", "knowledge": "vector unit", "op_type": "Add"}]))
        self.assertEqual(ovra_host.delete("relu", OP, False), 0)
        self.assertEqual(ovra_host.search("relu", OP), (0, []))
        self.assertEqual(ovra_host.search("relu", {}), (2, []))

    def test_2_python_threads_call_at_the_same_time(self):
        failures = []

        def work(index):
            config = {"op_type": "Op%d" % index}
            for round_ in range(20):
                keyword = "k%d" % round_
                text = "thread %d round %d" % (index, round_)
                if ovra_host.write(keyword, text, config, round_ % 2 == 0) != 0:
                    failures.append("write")
                status, rows = ovra_host.search(keyword, config)
                if status != 0 or [row["knowledge"] for row in rows] != [text]:
                    failures.append("search %d %r" % (status, rows))

        threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])

    def test_3_host_threads_keep_running_while_a_search_waits(self):
        self.set_script({"ovra_kb_search_get": ["finish_after_ms(args[0], 300, (True, [{'k': 'v'}]))"]})
        ticks = [0]
        stop = threading.Event()

        def ticker():
            while not stop.is_set():
                ticks[0] += 1
                time.sleep(0.002)

        thread = threading.Thread(target=ticker)
        thread.start()
        try:
            status, rows = ovra_host.search("kw", OP)
        finally:
            stop.set()
            thread.join()
        self.set_script({})
        self.assertEqual((status, rows), (0, [{"k": "v"}]))
        # 300 ms of waiting leaves room for about 150 ticks; a lock held through the waits allows none.
        self.assertGreater(ticks[0], 30)

    def test_4_finalise_leaves_the_host_interpreter_running(self):
        self.assertEqual(ovra_host.finalize(), 0)
        self.assertFalse(getattr(sys, "is_finalizing", lambda: False)())
        # The host's interpreter is intact: a second start-up joins it again.
        self.assertEqual(ovra_host.init(SYS, LOAD), 0)
        self.assertEqual(ovra_host.write("again", "text", OP, False), 0)
        self.assertEqual(ovra_host.finalize(), 0)
        self.assertFalse(os.path.exists(self.marker))
        self.assertEqual(ovra_host.reports(), [])
        self.assertEqual(runtime_mappings(), self.mappings_before)


if __name__ == "__main__":
    unittest.main(verbosity=2)
