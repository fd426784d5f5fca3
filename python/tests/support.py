"""Shared helpers of the package tests: a bank of each test's own, and searches polled as the library polls."""

import contextlib
import os
import shutil
import tempfile
import time
import unittest

from oxe.common.repository_manager import interface
from oxe.common.repository_manager.errors import error_info
from oxe.common.repository_manager.storage import open_backend
from oxe.common.repository_manager.utils import repository_manager_log

PACKAGE_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SYS = {"soc_version": "soc-a1", "core_num": "32"}
SCOPE = ("soc-a1", "32")
ADD = {"op_type": "Add"}


def config(op_type, search_type=None):
    return {"op_type": op_type, "return_type": "str", "search_type": search_type}


def wait_for(handle, timeout=30.0):
    """Poll a search as the native library does, every millisecond; return its rows."""
    deadline = time.monotonic() + timeout
    while True:
        finished, rows = interface.ovra_kb_search_get(handle)
        if finished:
            return rows
        if time.monotonic() > deadline:
            raise AssertionError("search %s did not finish in %.0f s" % (handle, timeout))
        time.sleep(0.001)


def search(keyword, op_type, search_type=None):
    return wait_for(interface.ovra_kb_search_async(keyword, config(op_type, search_type)))


def keywords(rows):
    return [row["keyword"] for row in rows]


class KbTestCase(unittest.TestCase):
    """Each test gets its own bank (``location``: a directory, or a server schema) and leaves the package finalised."""

    secret = None  # what no error may show

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="ovra_kb_test_")
        self.bank = os.path.join(self.tmp, "bank")
        self.addCleanup(shutil.rmtree, self.tmp, True)
        self.addCleanup(lambda: [interface.ovra_kb_finalize() for _ in range(64)])
        self.location = self.make_location()

    def make_location(self):
        return self.bank

    def init(self, bank=None, **sys_overrides):
        location = {"op_bank_path": bank or self.location}
        self.assertEqual(interface.ovra_kb_init(dict(SYS, **sys_overrides), location), 0)

    def open(self, location=None):
        backend = open_backend(location or self.location)
        self.addCleanup(backend.close)
        return backend

    @contextlib.contextmanager
    def assertKbError(self, code, secret=None):
        """The block raises the package's error ``code``; its report, traceback included, never shows ``secret``."""
        with self.assertRaises(RuntimeError) as caught:
            yield caught
        info = error_info(caught.exception)
        self.assertIsNotNone(info, "not a knowledge-base error: %r" % (caught.exception,))
        self.assertEqual(info["errCode"], code, info)
        self.assertTrue(info.get("message"), info)
        self.assertTrue(all(type(k) is str and type(v) is str for k, v in info.items()), info)
        if secret:
            exc = caught.exception
            for key, value in repository_manager_log.get_py_exception_dict(type(exc), exc, exc.__traceback__).items():
                self.assertNotIn(secret, value, "%s of the report shows the password" % key)
