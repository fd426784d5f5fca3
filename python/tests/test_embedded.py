"""The package in an embedded interpreter that is finalised and started again.

A small C host loads this interpreter's shared library at run time, as
``libovra_kb.so`` does, and runs Py_Initialize / script / Py_FinalizeEx
several times in one process.  Skipped where no C compiler or no shared
Python library is available.
"""

import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import textwrap
import unittest

from tests.support import PACKAGE_ROOT

HOST_SOURCE = r"""
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

typedef void (*init_fn)(void);
typedef int (*fin_fn)(void);
typedef int (*run_fn)(const char*, void*);

static char* slurp(const char* path) {
    FILE* f = fopen(path, "rb");
    if (!f) return NULL;
    fseek(f, 0, SEEK_END);
    long n = ftell(f);
    fseek(f, 0, SEEK_SET);
    char* buf = malloc((size_t)n + 1);
    if (fread(buf, 1, (size_t)n, f) != (size_t)n) { fclose(f); free(buf); return NULL; }
    buf[n] = 0;
    fclose(f);
    return buf;
}

int main(int argc, char** argv) {
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
    if (!lib) { fprintf(stderr, "dlopen: %s\n", dlerror()); return 2; }
    init_fn py_init = (init_fn)dlsym(lib, "Py_Initialize");
    fin_fn py_fin = (fin_fn)dlsym(lib, "Py_FinalizeEx");
    run_fn py_run = (run_fn)dlsym(lib, "PyRun_SimpleStringFlags");
    if (!py_init || !py_fin || !py_run) { fprintf(stderr, "missing symbol\n"); return 3; }
    for (int i = 2; i < argc; ++i) {
        char* script = slurp(argv[i]);
        if (!script) { fprintf(stderr, "cannot read %s\n", argv[i]); return 4; }
        py_init();
        int rc = py_run(script, NULL);
        free(script);
        if (py_fin() != 0) { fprintf(stderr, "Py_FinalizeEx failed in round %d\n", i - 1); return 5; }
        if (rc != 0) { fprintf(stderr, "script of round %d failed\n", i - 1); return 6; }
        fprintf(stderr, "round %d done\n", i - 1);
    }
    return 0;
}
"""

COMMON = """
import sys, time
sys.path.insert(0, {root!r})
from oxe.common.repository_manager import interface as kb
kb.ovra_kb_init({{"soc_version": "Ascend910B", "core_num": "32"}}, {{"op_bank_path": {bank!r}}})
def poll(handle):
    while True:
        finished, rows = kb.ovra_kb_search_get(handle)
        if finished:
            return rows
        time.sleep(0.001)
def everything():
    return sorted(r["keyword"] for r in poll(kb.ovra_kb_search_async(
        "", {{"op_type": "*", "return_type": "str", "search_type": "all"}})))
"""

ROUNDS = [
    # Normal life: write, scan on a worker, finalise before the interpreter goes.
    """
kb.ovra_kb_write("round1", "v", {"op_type": "Add"}, 0)
assert everything() == ["round1"], everything()
kb.ovra_kb_finalize()
""",
    # A fresh import after Py_Finalize; this time the host forgets to finalise
    # the package while its worker threads run.
    """
assert everything() == ["round1"], everything()
kb.ovra_kb_write("round2", "v", {"op_type": "Mul"}, 0)
assert everything() == ["round1", "round2"], everything()
""",
    """
assert everything() == ["round1", "round2"], everything()
kb.ovra_kb_finalize()
kb.ovra_kb_finalize()
""",
]


def shared_library():
    libdir = sysconfig.get_config_var("LIBDIR") or ""
    for name in (sysconfig.get_config_var("LDLIBRARY"), sysconfig.get_config_var("INSTSONAME")):
        if name and (name.endswith(".so") or ".so." in name):
            path = os.path.join(libdir, name)
            if os.path.exists(path):
                return path
    return None


class EmbeddedRestartTest(unittest.TestCase):
    def test_finalise_and_start_the_interpreter_again(self):
        compiler = shutil.which("cc") or shutil.which("gcc") or shutil.which("clang")
        library = shared_library()
        if not compiler or not library:
            self.skipTest("needs a C compiler and a shared Python library")
        tmp = tempfile.mkdtemp(prefix="ovra_kb_embed_")
        self.addCleanup(shutil.rmtree, tmp, True)
        source = os.path.join(tmp, "host.c")
        with open(source, "w") as handle:
            handle.write(HOST_SOURCE)
        host = os.path.join(tmp, "host")
        build = subprocess.run([compiler, "-std=c99", "-o", host, source, "-ldl"],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True)
        if build.returncode != 0:
            self.skipTest("the C host does not build here: " + build.stdout)
        env = dict(os.environ)
        env["PYTHONHOME"] = "%s:%s" % (sys.base_prefix, sys.base_exec_prefix)
        env["PYTHONDONTWRITEBYTECODE"] = "1"
        env.pop("PYTHONPATH", None)

        # sqlite3 imports datetime.  Some interpreters (CPython 3.12.0 and
        # 3.12.1) crash when _datetime is imported again after a restart, with
        # or without this package; nothing here can work around that.
        probe = os.path.join(tmp, "probe.py")
        with open(probe, "w") as handle:
            handle.write("import datetime\n")
        result = subprocess.run([host, library, probe, probe], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                universal_newlines=True, env=env, timeout=120)
        if result.returncode != 0:
            self.skipTest("this interpreter cannot import datetime again after Py_FinalizeEx: "
                          + result.stderr.strip().replace("\n", "; "))

        scripts = []
        bank = os.path.join(tmp, "bank")
        for number, body in enumerate(ROUNDS):
            path = os.path.join(tmp, "round%d.py" % number)
            with open(path, "w") as handle:
                handle.write(COMMON.format(root=PACKAGE_ROOT, bank=bank) + textwrap.dedent(body))
            scripts.append(path)
        result = subprocess.run([host, library] + scripts, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                universal_newlines=True, env=env, timeout=300)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("round %d done" % len(ROUNDS), result.stderr)
