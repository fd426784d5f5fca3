"""Several processes on one bank: persistence, durability and concurrent writers."""

import os
import signal
import textwrap
import time

from oxe.common.repository_manager import interface

from tests.support import KbTestCase, run_python, search, start_python

# A child that initialises the bank given as argv[1] for the default chip.
PRELUDE = """
    import os, sys, time
    from oxe.common.repository_manager import interface as kb
    kb.ovra_kb_init({"soc_version": "Ascend910B", "core_num": "32"}, {"op_bank_path": sys.argv[1]})
    def poll(handle):
        while True:
            finished, rows = kb.ovra_kb_search_get(handle)
            if finished:
                return rows
            time.sleep(0.001)
"""


def script(body):
    return textwrap.dedent(PRELUDE) + textwrap.dedent(body)


class ProcessTest(KbTestCase):
    def test_records_survive_a_writer_that_exits_without_finalising(self):
        # os._exit skips atexit handlers and interpreter shutdown, as a host
        # process that never finalises the interpreter would.
        run_python(script("""
            kb.ovra_kb_write("fast", "flag0", {"op_type": "Add"}, 0)
            kb.ovra_kb_write("safe", "flag1", {"op_type": "Add"}, 1)
            kb.ovra_kb_write("gone", "x", {"op_type": "Add"}, 0)
            kb.ovra_kb_delete("gone", {"op_type": "Add"}, 0)
            sys.stdout.flush()
            os._exit(0)
        """), self.bank)
        out = run_python(script("""
            rows = poll(kb.ovra_kb_search_async("", {"op_type": "Add", "return_type": "str", "search_type": "all"}))
            print(sorted((r["keyword"], r["knowledge"]) for r in rows))
            kb.ovra_kb_finalize()
        """), self.bank)
        self.assertEqual(out.strip(), "[('fast', 'flag0'), ('safe', 'flag1')]")

    def test_durable_write_is_visible_while_the_writer_lives_and_after_it_is_killed(self):
        writer = start_python(script("""
            kb.ovra_kb_write("durable", "yes", {"op_type": "Add"}, 1)
            print("written", flush=True)
            time.sleep(120)
        """), self.bank)
        self.addCleanup(writer.wait)
        self.addCleanup(writer.stdout.close)
        self.addCleanup(writer.stderr.close)
        try:
            if writer.stdout.readline().strip() != "written":
                writer.kill()
                self.fail("writer failed: " + writer.stderr.read())
            self.init()
            self.assertEqual([r["knowledge"] for r in search("durable", "Add")], ["yes"])
        finally:
            writer.send_signal(signal.SIGKILL)
        writer.wait()
        interface.ovra_kb_finalize()
        self.init()
        self.assertEqual([r["knowledge"] for r in search("durable", "Add")], ["yes"])

    def test_two_processes_writing_at_once_lose_nothing(self):
        go = os.path.join(self.tmp, "go")
        code = script("""
            name, go = sys.argv[2], sys.argv[3]
            print("ready", flush=True)
            while not os.path.exists(go):
                time.sleep(0.001)
            for number in range(1000):
                kb.ovra_kb_write("%s-%04d" % (name, number), name, {"op_type": "Add"}, int(number % 250 == 0))
                if number % 100 == 0:
                    kb.ovra_kb_search_get(kb.ovra_kb_search_async(
                        "%s-%04d" % (name, number), {"op_type": "Add", "return_type": "str", "search_type": None}))
            kb.ovra_kb_finalize()
        """)
        # Create the bank first so both writers meet an existing schema as well as
        # each other; the schema creation race is covered by the next test.
        self.init()
        writers = [start_python(code, self.bank, name, go) for name in ("first", "second")]
        for writer in writers:
            self.assertEqual(writer.stdout.readline().strip(), "ready")
        open(go, "w").close()
        for writer in writers:
            out, err = writer.communicate(timeout=300)
            self.assertEqual(writer.returncode, 0, err)
        rows = search("", "Add", "all")
        self.assertEqual(len(rows), 2000)
        for name in ("first", "second"):
            mine = [r for r in rows if r["knowledge"] == name]
            self.assertEqual([r["keyword"] for r in mine], ["%s-%04d" % (name, n) for n in range(1000)])

    def test_processes_creating_a_new_bank_together(self):
        go = os.path.join(self.tmp, "go")
        code = """
            import os, sys, time
            from oxe.common.repository_manager import interface as kb
            bank, go, name = sys.argv[1:4]
            while not os.path.exists(go):
                time.sleep(0.001)
            kb.ovra_kb_init({"soc_version": "A", "core_num": "1"}, {"op_bank_path": bank})
            kb.ovra_kb_write(name, name, {"op_type": "Add"}, 0)
            kb.ovra_kb_finalize()
        """
        children = [start_python(code, self.bank, go, "c%d" % n) for n in range(4)]
        time.sleep(0.3)
        open(go, "w").close()
        for child in children:
            out, err = child.communicate(timeout=120)
            self.assertEqual(child.returncode, 0, err)
        self.init(soc_version="A", core_num="1")
        self.assertEqual([r["keyword"] for r in search("", "Add", "all")], ["c0", "c1", "c2", "c3"])
