"""A knowledge base that only answers, so that a benchmark of libovra_kb measures the bridge.

Every function returns a prebuilt answer at once. Searches take two kinds of keyword:

* "first": the task is finished when it is first asked about; it finds one row of five entries.
* "after_ms=T": the task finishes T milliseconds after "ovra_kb_search_async" was called.
"""

import itertools
import time

_ROW = {
    "soc_version": "soc-a1",
    "core_num": "8",
    "op_type": "MatMul",
    "keyword": "first",
    "knowledge": "tile 128x128, k-step 64",
}
_FINISHED = (True, [_ROW])
_RUNNING = (False, [])
_FIRST = "first"
_DELAY_PREFIX = len("after_ms=")

_deadlines = {}
_numbers = itertools.count()


def ovra_kb_init(sys_dict, load_dict):
    return 0


def ovra_kb_finalize():
    return 0


def ovra_kb_write(keyword, knowledge, config, flag):
    return 0


def ovra_kb_delete(keyword, config, flag):
    return 0


def ovra_kb_search_async(keyword, config):
    if keyword == _FIRST:
        return _FIRST
    handle = "task-%d" % next(_numbers)
    _deadlines[handle] = time.monotonic() + float(keyword[_DELAY_PREFIX:]) / 1000.0
    return handle


def ovra_kb_search_get(handle):
    if handle == _FIRST:
        return _FINISHED
    if time.monotonic() < _deadlines[handle]:
        return _RUNNING
    del _deadlines[handle]
    return _FINISHED
