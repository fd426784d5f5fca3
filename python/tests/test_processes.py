"""Several processes on one bank: persistence, durability and concurrent writers."""

import os
import signal
import textwrap
import time

from oxe.common.repository_manager import interface

from tests.support import KbTestCase, run_python, search, start_python

# Child prelude: argv[1] is the bank.
PRELUDE = textwrap.dedent("""
    import os, sys, time
    from oxe.common.repository_manager import interface as kb
    kb.ovra_kb_init({"soc_version": "soc-a1", "core_num": "32"}, {"op_bank_path": sys.argv[1]})
    ADD = {"op_type": "Add"}
""")


def script(body):
    return PRELUDE + textwrap.dedent(body)


class ProcessTest(KbTestCase):
    def test_records_survive_a_writer_that_exits_without_finalising(self):
        # os._exit skips atexit handlers and interpreter shutdown, like a host
        # process that never finalises the interpreter.
        run_python(script("""
            kb.ovra_kb_write("fast", "flag0", ADD, 0)
            kb.ovra_kb_write("safe", "flag1", ADD, 1)
            kb.ovra_kb_write("gone", "x", ADD, 0)
            kb.ovra_kb_delete("gone", ADD, 0)
            os._exit(0)
        """), self.bank)
        self.init()
        self.assertEqual(sorted((r["keyword"], r["knowledge"]) for r in search("", "Add", "all")),
                         [("fast", "flag0"), ("safe", "flag1")])

    def test_durable_write_is_visible_while_the_writer_lives_and_after_it_is_killed(self):
        writer = start_python(script("""
            kb.ovra_kb_write("durable", "yes", ADD, 1)
            print("written", flush=True)
            time.sleep(120)
        """), self.bank)
        try:
            if writer.stdout.readline().strip() != "written":
                writer.kill()
                self.fail("writer failed: " + writer.communicate()[1])
            self.init()
            self.assertEqual([r["knowledge"] for r in search("durable", "Add")], ["yes"])
        finally:
            writer.send_signal(signal.SIGKILL)
            writer.communicate()
        interface.ovra_kb_finalize()
        self.init()
        self.assertEqual([r["knowledge"] for r in search("durable", "Add")], ["yes"])
