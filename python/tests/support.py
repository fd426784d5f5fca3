"""Shared helpers of the package tests."""

import contextlib
import os
import shutil
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest

from oxe.common.repository_manager import interface
from oxe.common.repository_manager.errors import error_info

PACKAGE_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SYS = {"soc_version": "soc-a1", "core_num": "32"}


def start_python(code, *args):
    """Start ``sys.executable`` running ``code`` (dedented) with the package importable."""
    env = dict(os.environ, PYTHONPATH=PACKAGE_ROOT, PYTHONDONTWRITEBYTECODE="1")
    return subprocess.Popen([sys.executable, "-c", textwrap.dedent(code)] + [str(a) for a in args], env=env,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)


def run_python(code, *args):
    proc = start_python(code, *args)
    out, err = proc.communicate(timeout=120)
    if proc.returncode != 0:
        raise AssertionError("child exited with %s:\n%s" % (proc.returncode, err))
    return out


def wait_for(handle, timeout=30.0):
    """Poll a search as the native library does; return (polls, rows)."""
    deadline = time.monotonic() + timeout
    polls = 0
    while True:
        finished, rows = interface.ovra_kb_search_get(handle)
        polls += 1
        if finished:
            return polls, rows
        if time.monotonic() > deadline:
            raise AssertionError("search %s did not finish in %.0f s" % (handle, timeout))
        time.sleep(0.001)


def search(keyword, op_type, search_type=None):
    return wait_for(interface.ovra_kb_search_async(
        keyword, {"op_type": op_type, "return_type": "str", "search_type": search_type}))[1]


class KbTestCase(unittest.TestCase):
    """Gives each test its own bank directory and leaves the package finalised."""

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="ovra_kb_test_")
        self.bank = os.path.join(self.tmp, "bank")
        self.addCleanup(shutil.rmtree, self.tmp, True)
        self.addCleanup(lambda: [interface.ovra_kb_finalize() for _ in range(64)])

    def init(self, bank=None, **sys_overrides):
        self.assertEqual(interface.ovra_kb_init(dict(SYS, **sys_overrides), {"op_bank_path": bank or self.bank}), 0)

    @contextlib.contextmanager
    def assertKbError(self, code):
        with self.assertRaises(RuntimeError) as caught:
            yield caught
        info = error_info(caught.exception)
        self.assertIsNotNone(info, "not a knowledge-base error: %r" % (caught.exception,))
        self.assertEqual(info["errCode"], code, info)
        self.assertTrue(info.get("message"), info)
        self.assertTrue(all(type(k) is str and type(v) is str for k, v in info.items()), info)
