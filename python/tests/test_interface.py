"""The six module functions as the native library calls them."""

import os
import threading
import unittest.mock

from oxe.common.repository_manager import errors, interface
from oxe.common.repository_manager.storage import sqlite_backend
from oxe.common.repository_manager.tasks import WorkerPool

from tests.support import SYS, KbTestCase, search, wait_for

ADD = {"op_type": "Add"}


def search_config(op_type, search_type):
    return {"op_type": op_type, "return_type": "str", "search_type": search_type}


def worker_threads():
    return [t for t in threading.enumerate() if t.name.startswith(WorkerPool.THREAD_NAME)]


class InitTest(KbTestCase):
    def test_init_answers_plain_int_zero_every_time(self):
        for _ in range(3):
            result = interface.ovra_kb_init(dict(SYS), {"op_bank_path": self.bank})
            self.assertIs(type(result), int)
            self.assertEqual(result, 0)
        self.assertTrue(os.path.isfile(os.path.join(self.bank, sqlite_backend.DB_FILE_NAME)))

    def test_bad_configuration_is_refused_with_its_code(self):
        blocker = os.path.join(self.tmp, "plain_file")
        open(blocker, "w").close()
        cases = [
            ({"soc_version": "", "core_num": "32"}, None, errors.INVALID_SOC_VERSION),
            ({"soc_version": "   ", "core_num": "32"}, None, errors.INVALID_SOC_VERSION),
            ({"core_num": "32"}, None, errors.INVALID_SOC_VERSION),
            ({"soc_version": "A", "core_num": ""}, None, errors.INVALID_CORE_NUM),
            ({"soc_version": "A", "core_num": "0"}, None, errors.INVALID_CORE_NUM),
            ({"soc_version": "A", "core_num": "-4"}, None, errors.INVALID_CORE_NUM),
            ({"soc_version": "A", "core_num": "abc"}, None, errors.INVALID_CORE_NUM),
            ({"soc_version": "A", "core_num": "1.5"}, None, errors.INVALID_CORE_NUM),
            ({"soc_version": "A", "core_num": "\u0663"}, None, errors.INVALID_CORE_NUM),
            ({"soc_version": "A"}, None, errors.INVALID_CORE_NUM),
            (SYS, {"op_bank_path": ""}, errors.BANK_PATH_UNUSABLE),
            (SYS, {"path": "wrong key"}, errors.BANK_PATH_UNUSABLE),
            (SYS, {"op_bank_path": os.path.join(blocker, "bank")}, errors.BANK_PATH_UNUSABLE),
            (SYS, {"op_bank_path": blocker}, errors.BANK_PATH_UNUSABLE),
            (SYS, {"op_bank_path": "postgresql://kb@localhost/kb"}, errors.BACKEND_NOT_SUPPORTED),
            ("soc", None, errors.INVALID_ARGUMENT),
            (SYS, ["path"], errors.INVALID_ARGUMENT),
        ]
        for sys_dict, load_dict, code in cases:
            with self.subTest(sys_dict=sys_dict, load_dict=load_dict):
                with self.assertKbError(code):
                    interface.ovra_kb_init(sys_dict, load_dict or {"op_bank_path": self.bank})
        # None of the refusals counted as an initialisation.
        with self.assertKbError(errors.NOT_INITIALISED):
            interface.ovra_kb_write("k", "v", ADD, 0)

    def test_core_num_is_normalised(self):
        self.init(core_num=" 08 ")
        interface.ovra_kb_write("k", "v", ADD, 0)
        self.init(core_num="8")
        self.assertEqual(search("k", "Add")[0]["core_num"], "8")

    def test_operations_before_init_are_refused(self):
        calls = [
            lambda: interface.ovra_kb_write("k", "v", ADD, 0),
            lambda: interface.ovra_kb_delete("k", ADD, 0),
            lambda: interface.ovra_kb_search_async("k", search_config("Add", None)),
            lambda: interface.ovra_kb_search_async("k", search_config("Add", "all")),
        ]
        for number, call in enumerate(calls):
            with self.subTest(call=number):
                with self.assertKbError(errors.NOT_INITIALISED):
                    call()

    def test_finalize_without_init_and_twice_is_harmless(self):
        interface.ovra_kb_finalize()
        interface.ovra_kb_finalize()
        self.init()
        interface.ovra_kb_finalize()
        interface.ovra_kb_finalize()
        interface.ovra_kb_finalize()
        # The count did not go below zero: one init is enough to work again.
        self.init()
        self.assertEqual(interface.ovra_kb_write("k", "v", ADD, 0), 0)

    def test_bank_closes_only_when_every_init_is_finalised(self):
        self.init()
        self.init()
        interface.ovra_kb_finalize()
        self.assertEqual(interface.ovra_kb_write("k", "v", ADD, 1), 0)
        interface.ovra_kb_finalize()
        with self.assertKbError(errors.NOT_INITIALISED):
            interface.ovra_kb_write("k", "v", ADD, 0)

    def test_latest_init_configuration_is_in_force(self):
        other_bank = os.path.join(self.tmp, "other")
        self.init(soc_version="ChipA")
        interface.ovra_kb_write("k", "from A", ADD, 0)
        self.init(soc_version="ChipB")
        self.assertEqual(search("k", "Add"), [])
        interface.ovra_kb_write("k", "from B", ADD, 0)
        self.init(bank=other_bank, soc_version="ChipA")
        self.assertEqual(search("k", "Add"), [])
        self.init(soc_version="ChipA")
        self.assertEqual([r["knowledge"] for r in search("k", "Add")], ["from A"])
        self.init(soc_version="ChipB")
        self.assertEqual([r["knowledge"] for r in search("k", "Add")], ["from B"])

    def test_init_finalize_init_again(self):
        self.init()
        interface.ovra_kb_write("kept", "v", ADD, 0)
        self.assertEqual(len(search("", "Add", "all")), 1)
        self.assertTrue(worker_threads())
        pending = interface.ovra_kb_search_async("kept", search_config("Add", None))
        interface.ovra_kb_finalize()
        self.assertEqual(worker_threads(), [])
        self.init()
        with self.assertKbError(errors.UNKNOWN_TASK):
            interface.ovra_kb_search_get(pending)
        self.assertEqual([r["keyword"] for r in search("", "Add", "all")], ["kept"])
        interface.ovra_kb_finalize()
        self.assertEqual(worker_threads(), [])


class WriteDeleteTest(KbTestCase):
    def setUp(self):
        super(WriteDeleteTest, self).setUp()
        self.init()

    def test_write_replace_delete(self):
        for flag in (0, 1, True, False):
            self.assertEqual(interface.ovra_kb_write("k", "v%s" % flag, ADD, flag), 0)
            self.assertEqual([r["knowledge"] for r in search("k", "Add")], ["v%s" % flag])
        self.assertEqual(interface.ovra_kb_delete("k", ADD, 1), 0)
        self.assertEqual(search("k", "Add"), [])
        self.assertEqual(interface.ovra_kb_delete("k", ADD, 0), 0)

    def test_bad_arguments_are_refused_with_their_code(self):
        cases = [
            (lambda: interface.ovra_kb_write("k", "v", {}, 0), errors.INVALID_OP_TYPE),
            (lambda: interface.ovra_kb_write("k", "v", {"op_type": ""}, 0), errors.INVALID_OP_TYPE),
            (lambda: interface.ovra_kb_write("k", "v", {"op_type": 3}, 0), errors.INVALID_OP_TYPE),
            (lambda: interface.ovra_kb_write("k", "v", {"op_type": "*"}, 0), errors.INVALID_OP_TYPE),
            (lambda: interface.ovra_kb_delete("k", {"op_type": ""}, 0), errors.INVALID_OP_TYPE),
            (lambda: interface.ovra_kb_write("k", "v", "Add", 0), errors.INVALID_ARGUMENT),
            (lambda: interface.ovra_kb_write("", "v", ADD, 0), errors.INVALID_ARGUMENT),
            (lambda: interface.ovra_kb_write("k", None, ADD, 0), errors.INVALID_ARGUMENT),
            (lambda: interface.ovra_kb_write("k", "v", ADD, 2), errors.INVALID_ARGUMENT),
            (lambda: interface.ovra_kb_write("k", "v", ADD, "1"), errors.INVALID_ARGUMENT),
            (lambda: interface.ovra_kb_delete("k", ADD, None), errors.INVALID_ARGUMENT),
            (lambda: interface.ovra_kb_write("k\ud800", "v", ADD, 0), errors.INVALID_ARGUMENT),
        ]
        for number, (call, code) in enumerate(cases):
            with self.subTest(case=number):
                with self.assertKbError(code):
                    call()
        self.assertEqual(search("", "*", "all"), [])


class SearchTest(KbTestCase):
    def setUp(self):
        super(SearchTest, self).setUp()
        self.init()
        for op_type, keyword in (("Add", "a1"), ("Add", "a2"), ("Add", "b1"), ("Mul", "a1"), ("Mul", "c")):
            interface.ovra_kb_write(keyword, "%s/%s" % (op_type, keyword), {"op_type": op_type}, 0)

    def test_search_types(self):
        cases = [
            ("a1", "Add", None, [("Add", "a1")]),
            ("a1", "Add", "exact", [("Add", "a1")]),
            ("a", "Add", "exact", []),
            ("a", "Add", "prefix", [("Add", "a1"), ("Add", "a2")]),
            ("", "Add", "prefix", [("Add", "a1"), ("Add", "a2"), ("Add", "b1")]),
            ("ignored", "Mul", "all", [("Mul", "a1"), ("Mul", "c")]),
            ("", "*", "all", [("Add", "a1"), ("Add", "a2"), ("Add", "b1"), ("Mul", "a1"), ("Mul", "c")]),
            ("a1", "Sub", None, []),
        ]
        for keyword, op_type, search_type, expected in cases:
            with self.subTest(keyword=keyword, op_type=op_type, search_type=search_type):
                rows = search(keyword, op_type, search_type)
                self.assertEqual([(r["op_type"], r["keyword"]) for r in rows], expected)
                for row in rows:
                    self.assertEqual(row["knowledge"], "%s/%s" % (row["op_type"], row["keyword"]))
                    self.assertEqual((row["soc_version"], row["core_num"]), ("Ascend910B", "32"))
                    self.assertTrue(all(type(k) is str and type(v) is str for k, v in row.items()))

    def test_star_lists_only_the_current_chip(self):
        self.init(soc_version="Other")
        interface.ovra_kb_write("x", "other chip", ADD, 0)
        self.assertEqual([r["knowledge"] for r in search("", "*", "all")], ["other chip"])

    def test_index_lookups_finish_before_the_first_poll(self):
        for keyword, search_type in (("a1", None), ("a1", "exact"), ("zz", None), ("a", "prefix")):
            with self.subTest(search_type=search_type, keyword=keyword):
                handle = interface.ovra_kb_search_async(keyword, search_config("Add", search_type))
                self.assertIsInstance(handle, str)
                self.assertTrue(handle)
                self.assertTrue(interface.ovra_kb_search_get(handle)[0])

    def test_large_prefix_result_is_complete(self):
        count = interface.INLINE_PREFIX_LIMIT + 50
        for number in range(count):
            interface.ovra_kb_write("p%05d" % number, "v", ADD, 0)
        rows = search("p", "Add", "prefix")
        self.assertEqual([r["keyword"] for r in rows], ["p%05d" % n for n in range(count)])

    def test_scans_finish_later_on_a_worker_thread(self):
        gate = threading.Event()
        seen = []
        original_all = sqlite_backend.SqliteBackend.all

        def gated_all(backend, scope, op_type):
            seen.append(threading.current_thread())
            gate.wait(30)
            return original_all(backend, scope, op_type)

        with unittest.mock.patch.object(sqlite_backend.SqliteBackend, "all", gated_all):
            handle = interface.ovra_kb_search_async("", search_config("Mul", "all"))
            for _ in range(3):
                self.assertEqual(interface.ovra_kb_search_get(handle), (False, []))
            gate.set()
            polls, rows = wait_for(handle)
        self.assertEqual([r["keyword"] for r in rows], ["a1", "c"])
        self.assertEqual(len(seen), 1)
        self.assertIsNot(seen[0], threading.current_thread())
        self.assertTrue(seen[0].daemon)

    def test_failed_scan_raises_at_the_poll_and_is_forgotten(self):
        def broken_all(backend, scope, op_type):
            raise ValueError("disk on fire")

        with unittest.mock.patch.object(sqlite_backend.SqliteBackend, "all", broken_all):
            handle = interface.ovra_kb_search_async("", search_config("Add", "all"))
            with self.assertRaises(RuntimeError) as caught:
                wait_for(handle)
        self.assertEqual(caught.exception.args[0]["errCode"], errors.INTERNAL_ERROR)
        self.assertIn("disk on fire", caught.exception.args[0]["message"])
        with self.assertKbError(errors.UNKNOWN_TASK):
            interface.ovra_kb_search_get(handle)

    def test_handles_are_answered_once(self):
        handles = [interface.ovra_kb_search_async("a1", search_config("Add", t)) for t in (None, "all")]
        self.assertEqual(len(set(handles)), 2)
        for handle in handles:
            wait_for(handle)
            with self.assertKbError(errors.UNKNOWN_TASK):
                interface.ovra_kb_search_get(handle)
        for bogus in ("", "no-such-task", None, 17):
            with self.subTest(handle=bogus):
                with self.assertKbError(errors.UNKNOWN_TASK):
                    interface.ovra_kb_search_get(bogus)

    def test_bad_search_requests(self):
        cases = [
            ("k", search_config("Add", "fuzzy"), errors.UNKNOWN_SEARCH_TYPE),
            ("k", search_config("Add", "EXACT"), errors.UNKNOWN_SEARCH_TYPE),
            ("k", search_config("", None), errors.INVALID_OP_TYPE),
            ("k", {"return_type": "str", "search_type": None}, errors.INVALID_OP_TYPE),
            ("k", search_config("*", None), errors.INVALID_OP_TYPE),
            ("k", search_config("*", "prefix"), errors.INVALID_OP_TYPE),
            ("k", {"op_type": "Add", "return_type": "list", "search_type": None}, errors.INVALID_ARGUMENT),
            (None, search_config("Add", None), errors.INVALID_ARGUMENT),
            ("k", None, errors.INVALID_ARGUMENT),
        ]
        for keyword, config, code in cases:
            with self.subTest(config=config):
                with self.assertKbError(code):
                    interface.ovra_kb_search_async(keyword, config)

    def test_many_threads_searching_and_writing(self):
        failures = []

        def worker(number):
            try:
                for item in range(40):
                    keyword = "t%d_%d" % (number, item)
                    interface.ovra_kb_write(keyword, keyword, ADD, 0)
                    rows = search(keyword, "Add", ("exact", "prefix", "all")[item % 3])
                    if keyword not in [r["keyword"] for r in rows]:
                        failures.append(keyword)
            except Exception as exc:  # reported below
                failures.append(repr(exc))

        threads = [threading.Thread(target=worker, args=(n,)) for n in range(6)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])
        self.assertEqual(len(interface._KB.tasks), 0)
