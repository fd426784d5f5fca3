"""Scripted knowledge-base module: records every call and answers as the test's script says.
With OVRA_TEST_IMPORT_ERROR set, its import raises a RuntimeError that carries an error dictionary."""
import os
import threading

from ovra_scripted import scripted

if os.environ.get("OVRA_TEST_IMPORT_ERROR"):
    raise RuntimeError({"errCode": "E_KB_IMPORT", "reason": "bank offline"})

_store = {}
_store_lock = threading.Lock()
_next_task = [0]


def _init(sys_dict, load_dict):
    return 0


def _finalize():
    return None


def _write(keyword, knowledge, config, flag):
    with _store_lock:
        _store[(config.get("op_type"), keyword)] = knowledge
    return 0


def _delete(keyword, config, flag):
    with _store_lock:
        _store.pop((config.get("op_type"), keyword), None)
    return 0


def _search_async(keyword, config):
    with _store_lock:
        _next_task[0] += 1
        task = "task-%d" % _next_task[0]
        op_type = config.get("op_type")
        rows = [{"keyword": k, "knowledge": v, "op_type": t} for (t, k), v in sorted(_store.items())
                if t == op_type and k == keyword]
        _store[("__task__", task)] = rows
    return task


def _search_get(task):
    with _store_lock:
        rows = _store.pop(("__task__", task))
    return (True, rows)


# Each function of the module records its call and gives the script's answer, else the default above.
ovra_kb_init = scripted("ovra_kb_init", _init)
ovra_kb_finalize = scripted("ovra_kb_finalize", _finalize)
ovra_kb_write = scripted("ovra_kb_write", _write)
ovra_kb_delete = scripted("ovra_kb_delete", _delete)
ovra_kb_search_async = scripted("ovra_kb_search_async", _search_async)
ovra_kb_search_get = scripted("ovra_kb_search_get", _search_get)
