"""Cost of the module functions on a 100,000-record bank (timeit).

Run from python/:  <python> benchmarks/measure_kb.py [records]
The bank is built in a temporary directory and removed afterwards.
"""

import os
import shutil
import sys
import tempfile
import timeit

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from oxe.common.repository_manager import interface as kb  # noqa: E402


def best(func, number, repeat=5):
    return min(timeit.repeat(func, number=number, repeat=repeat)) / number * 1e6


def main():
    records = int(sys.argv[1]) if len(sys.argv) > 1 else 100000
    tmp = tempfile.mkdtemp(prefix="ovra_kb_measure_")
    try:
        kb.ovra_kb_init({"soc_version": "soc-a1", "core_num": "32"}, {"op_bank_path": tmp})
        write_config = {"op_type": "MatMul"}
        for number in range(records):
            kb.ovra_kb_write("shape_%06d" % number, "tiling=%d;block=%d" % (number, number % 64), write_config, 0)

        search_config = {"op_type": "MatMul", "return_type": "str", "search_type": None}
        state = {"n": 0}

        def exact():
            state["n"] = (state["n"] + 7919) % records
            finished, rows = kb.ovra_kb_search_get(kb.ovra_kb_search_async("shape_%06d" % state["n"], search_config))
            assert finished and rows

        def write(flag):
            def run():
                state["n"] += 1
                kb.ovra_kb_write("new_%08d" % state["n"], "x" * 64, write_config, flag)
            return run

        print("python %s, %d records" % (sys.version.split()[0], records))
        print("exact search (search_async + first search_get): %.1f us" % best(exact, 20000))
        print("write flag 0: %.1f us" % best(write(0), 5000, 3))
        print("write flag 1: %.1f us" % best(write(1), 300, 3))
        kb.ovra_kb_finalize()
    finally:
        shutil.rmtree(tmp, True)


if __name__ == "__main__":
    main()
