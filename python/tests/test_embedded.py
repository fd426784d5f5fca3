"""The package in an embedded interpreter that is finalised and started again.

A small C host loads this interpreter's shared library at run time, as
``libovra_kb.so`` does, and runs Py_Initialize / one script / Py_FinalizeEx
once per script, all in one process.
"""

import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import unittest

from tests.support import PACKAGE_ROOT

HOST_SOURCE = r"""
#include <dlfcn.h>
#include <stdio.h>
int main(int argc, char** argv) {
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
    if (!lib) { fprintf(stderr, "%s\n", dlerror()); return 2; }
    void (*init)(void) = (void (*)(void))dlsym(lib, "Py_Initialize");
    int (*fin)(void) = (int (*)(void))dlsym(lib, "Py_FinalizeEx");
    int (*run)(const char*, void*) = (int (*)(const char*, void*))dlsym(lib, "PyRun_SimpleStringFlags");
    for (int i = 2; i < argc; ++i) {
        init();
        int rc = run(argv[i], NULL);
        if (fin() != 0 || rc != 0) { fprintf(stderr, "round %d failed\n", i - 1); return 3; }
        fprintf(stderr, "round %d done\n", i - 1);
    }
    return 0;
}
"""

PRELUDE = """
import sys, time
sys.path.insert(0, %r)
from oxe.common.repository_manager import interface as kb
kb.ovra_kb_init({"soc_version": "A", "core_num": "1"}, {"op_bank_path": %r})
def everything():
    handle = kb.ovra_kb_search_async("", {"op_type": "*", "return_type": "str", "search_type": "all"})
    while True:
        finished, rows = kb.ovra_kb_search_get(handle)
        if finished:
            return sorted(r["keyword"] for r in rows)
        time.sleep(0.001)
"""

ROUNDS = [
    'kb.ovra_kb_write("r1", "v", {"op_type": "Add"}, 0)\nassert everything() == ["r1"]\nkb.ovra_kb_finalize()\n',
    # A fresh import; the host forgets ovra_kb_finalize while the workers run.
    'assert everything() == ["r1"]\nkb.ovra_kb_write("r2", "v", {"op_type": "Mul"}, 0)\n',
    'assert everything() == ["r1", "r2"], everything()\nkb.ovra_kb_finalize()\nkb.ovra_kb_finalize()\n',
]


def shared_library():
    for name in (sysconfig.get_config_var("LDLIBRARY"), sysconfig.get_config_var("INSTSONAME")):
        path = os.path.join(sysconfig.get_config_var("LIBDIR") or "", name or "")
        if ".so" in (name or "") and os.path.exists(path):
            return path
    return None


class EmbeddedRestartTest(unittest.TestCase):
    def run_host(self, *scripts):
        env = dict(os.environ, PYTHONHOME="%s:%s" % (sys.base_prefix, sys.base_exec_prefix),
                   PYTHONDONTWRITEBYTECODE="1")
        env.pop("PYTHONPATH", None)
        return subprocess.run([self.host, self.library] + list(scripts), stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, universal_newlines=True, env=env, timeout=300)

    def test_finalise_and_start_the_interpreter_again(self):
        compiler = shutil.which("cc") or shutil.which("gcc") or shutil.which("clang")
        self.library = shared_library()
        if not compiler or not self.library:
            self.skipTest("needs a C compiler and a shared Python library")
        tmp = tempfile.mkdtemp(prefix="ovra_kb_embed_")
        self.addCleanup(shutil.rmtree, tmp, True)
        with open(os.path.join(tmp, "host.c"), "w") as handle:
            handle.write(HOST_SOURCE)
        self.host = os.path.join(tmp, "host")
        subprocess.check_call([compiler, "-std=c99", "-o", self.host, self.host + ".c", "-ldl"])
        # sqlite3 imports datetime, and some interpreters (CPython 3.12.1) crash
        # importing _datetime again after a restart, with or without this package.
        probe = self.run_host("import datetime", "import datetime")
        if probe.returncode != 0:
            self.skipTest("this interpreter cannot import datetime again after Py_FinalizeEx: " + probe.stderr)
        prelude = PRELUDE % (PACKAGE_ROOT, os.path.join(tmp, "bank"))
        result = self.run_host(*[prelude + body for body in ROUNDS])
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("round %d done" % len(ROUNDS), result.stderr)
