"""libovra_kb from Python through ctypes and its C interface (ovra_kb/ovra_kb_c.h): write a record,
search it, print the rows, delete it.

    python3 kb_ctypes.py [LIBRARY] [BANK_DIR]

LIBRARY defaults to libovra_kb_c.so.0 (found by the loader), BANK_DIR to a temporary folder that is
removed at the end. The exit status is 0 when every call returned 0 and the search found the record.

What a Python host must know:

- The library joins this interpreter: it loads no second Python runtime, starts nothing, touches no
  signal handler, and never finalises this interpreter. OvraKbCFinalize still closes the knowledge
  base; call it once for each OvraKbCInit that returned 0.
- The library imports the knowledge-base package ("oxe") into this process through sys.path, where
  it becomes the same module this program would import. Make it importable before the first
  OvraKbCInit (PYTHONPATH or sys.path); when none is, an installed library appends the package
  installed beside it (<prefix>/share/ovra_kb/python) to sys.path.
- Load the library with ctypes.CDLL, not ctypes.PyDLL. CDLL gives the interpreter lock back for the
  length of each call; the library takes it whenever it runs Python, and gives it back between the
  polls of a search, so this program's other threads and the package's worker threads go on. Under
  PyDLL the caller keeps the lock through the whole search, 1 ms sleeps included.
- Every call blocks its thread until the knowledge base has answered. Any Python thread may call;
  the rules of ovra_kb_c.h hold (one finalisation per successful initialisation; the last one makes
  the calls of other threads that are still running end with 3). A Ctrl-C that arrives during a
  call on the main thread is raised inside the knowledge base's Python code, so that call fails
  (status 6) rather than raising KeyboardInterrupt here: check every status.
- Pass texts as str encoded to UTF-8, as this example does. This thread's state belongs to the
  interpreter, so a Python error that a refused call leaves pending (bytes that are not valid UTF-8
  give status 4; a knowledge base answering with the wrong type gives 6) stays on it, and ctypes
  then raises SystemError from the call (its __cause__ is that error) instead of returning the
  status. An error raised by the knowledge base itself is taken and logged: the status comes back.
- Declare argtypes and restype of every function (sizes are size_t, the result is a pointer). A
  c_char_p restype copies each key and value into bytes, which outlive OvraKbCResultFree.
"""
import ctypes
import os
import shutil
import sys
import tempfile


class Pair(ctypes.Structure):
    """OvraKbCPair: one configuration entry."""

    _fields_ = [("key", ctypes.c_char_p), ("value", ctypes.c_char_p)]


def pairs(config):
    """A dict of str as the two arguments of a configuration: an OvraKbCPair array and its count."""
    entries = [Pair(key.encode("utf-8"), value.encode("utf-8")) for key, value in config.items()]
    return (Pair * len(entries))(*entries), len(entries)


def load(path):
    """The library, with the prototype of every function this example calls."""
    library = ctypes.CDLL(path)
    status, size, text, result = ctypes.c_uint, ctypes.c_size_t, ctypes.c_char_p, ctypes.c_void_p
    config = [ctypes.POINTER(Pair), size]
    prototypes = {
        "OvraKbCInit": (status, config + config),
        "OvraKbCFinalize": (status, []),
        "OvraKbCSearch": (status, [text] + config + [ctypes.POINTER(result)]),
        "OvraKbCWrite": (status, [text, text] + config + [ctypes.c_int]),
        "OvraKbCDelete": (status, [text] + config + [ctypes.c_int]),
        "OvraKbCResultRowCount": (size, [result]),
        "OvraKbCResultEntryCount": (size, [result, size]),
        "OvraKbCResultKey": (text, [result, size, size]),
        "OvraKbCResultValue": (text, [result, size, size]),
        "OvraKbCResultFree": (None, [result]),
    }
    for name, (restype, argtypes) in prototypes.items():
        function = getattr(library, name)
        function.restype, function.argtypes = restype, argtypes
    return library


def search(library, keyword, config):
    """(status, rows): each row a dict of str, copied out of the result before it is freed."""
    result = ctypes.c_void_p()
    status = library.OvraKbCSearch(keyword.encode("utf-8"), *pairs(config), ctypes.byref(result))
    try:
        rows = []
        for row in range(library.OvraKbCResultRowCount(result)):
            entries = range(library.OvraKbCResultEntryCount(result, row))
            rows.append({library.OvraKbCResultKey(result, row, entry).decode("utf-8"):
                         library.OvraKbCResultValue(result, row, entry).decode("utf-8") for entry in entries})
        return status, rows
    finally:
        library.OvraKbCResultFree(result)


def step(name, status):
    print("%-8s status %d" % (name, status))
    return status == 0


def run(library, bank):
    op = {"op_type": "MatMul"}
    if not step("init", library.OvraKbCInit(*pairs({"soc_version": "soc-a1", "core_num": "8"}),
                                            *pairs({"op_bank_path": bank}))):
        return False
    ok = step("write", library.OvraKbCWrite(b"tile_m128", b"split M by 128 for the cube unit", *pairs(op), 1))
    status, rows = search(library, "tile_m128", op)
    ok = step("search", status) and ok
    for row in rows:
        print("  row: " + " ".join("%s=%s" % entry for entry in sorted(row.items())))
    ok = step("delete", library.OvraKbCDelete(b"tile_m128", *pairs(op), 1)) and ok
    return step("finalize", library.OvraKbCFinalize()) and ok and len(rows) == 1


def main(argv):
    library = load(argv[1] if len(argv) > 1 else "libovra_kb_c.so.0")
    if len(argv) > 2:
        return 0 if run(library, argv[2]) else 1
    bank = tempfile.mkdtemp(prefix="ovra-kb-ctypes-")
    try:
        return 0 if run(library, bank) else 1
    finally:
        shutil.rmtree(bank, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main(sys.argv))
