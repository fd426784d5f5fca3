"""Scripted knowledge-base module: records every call and answers as the test's script says.
With OVRA_TEST_IMPORT_ERROR set, its import raises a RuntimeError that carries an error dictionary."""
import os
import threading

from ovra_scripted import call

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


def ovra_kb_init(sys_dict, load_dict):
    return call("ovra_kb_init", (sys_dict, load_dict), _init)


def ovra_kb_finalize():
    return call("ovra_kb_finalize", (), _finalize)


def ovra_kb_write(keyword, knowledge, config, flag):
    return call("ovra_kb_write", (keyword, knowledge, config, flag), _write)


def ovra_kb_delete(keyword, config, flag):
    return call("ovra_kb_delete", (keyword, config, flag), _delete)


def ovra_kb_search_async(keyword, config):
    return call("ovra_kb_search_async", (keyword, config), _search_async)


def ovra_kb_search_get(task):
    return call("ovra_kb_search_get", (task,), _search_get)
