"""Writes BENCHMARKS.md from the results that scripts/bench.sh collected.

    python3 bench/report.py RESULTS_DIR OUTPUT

RESULTS_DIR holds meta.json, load.txt and one directory per interpreter label with the Google Benchmark
JSON files (ops_init_cpu*.json, ops_other_cpu*.json, ops_multi*.json, cold_cpu*.json,
reference_cpu*.json), info.json, calls.tsv (instructions per call) and resident.tsv (bytes kept per call),
and what report_scale.py reads.
Medians are taken over every repetition of every file of a kind (the single-thread files come from runs
pinned to each CPU in turn).
"""

import glob
import json
import os
import statistics
import sys

import report_scale

BRIDGES = ["library", "capi", "pybind11", "capi_mirror"]
BRIDGE_TITLES = {
    "library": "library",
    "capi": "C-API floor",
    "pybind11": "pybind11",
    "capi_mirror": "C-API mirror",
}
OPS = [
    ("write_flag0", "write, flag 0"),
    ("write_flag1", "write, flag 1"),
    ("delete", "delete"),
    ("search_first_poll", "search answered at the first poll"),
    ("search_after_5ms", "search finished by the module after 5 ms"),
    ("init_finalize", "warm initialise + finalise (count > 0)"),
]
CALLERS = [
    ("init", "ops_init_cpu*.json", 1, "initialising thread"),
    ("other", "ops_other_cpu*.json", 1, "another thread"),
    ("multi2", "ops_multi*.json", 2, "2 other threads"),
    ("multi8", "ops_multi*.json", 8, "8 other threads"),
]
GOAL_RATIOS = [("write_flag0", 1.2), ("write_flag1", 1.2), ("delete", 1.2), ("search_first_poll", 1.3)]
# Native threads keep their thread state: from them a call may cost at most this much more than from the
# initialising thread, alone or with 2 and 8 of them (wall time / calls of all threads).
KEPT_STATE_OPS = ["write_flag0", "write_flag1", "delete", "search_first_poll"]
KEPT_STATE_LIMIT = 1.3
# A thread that calls once and ends: its start, call and end, against the C-API floor's, which makes and
# drops a thread state for that one call as every bridge without kept states does.
ONE_CALL_THREAD = ("write_on_new_thread", "write from a thread that calls once and ends")
ONE_CALL_LIMIT = 1.1
SEARCH_DELAY_MS = 5.0
SEARCH_SLACK_MS = 1.2
COLD_FACTOR = 1.1
EXACT_LIMIT_US = 100.0
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def read_json(path):
    with open(path) as handle:
        return json.load(handle)


def repetitions(paths):
    """Every repetition of every benchmark in the files: {(run_name, threads): [entry, ...]}."""
    runs = {}
    for path in paths:
        for entry in read_json(path).get("benchmarks", []):
            if entry.get("run_type") != "iteration" or entry.get("error_occurred"):
                continue
            entry["real_ns"] = entry["real_time"] * UNIT_NS[entry["time_unit"]]
            entry["cpu_ns"] = entry["cpu_time"] * UNIT_NS[entry["time_unit"]]
            runs.setdefault((entry["run_name"], entry.get("threads", 1)), []).append(entry)
    return runs


def errors(paths):
    found = []
    for path in paths:
        for entry in read_json(path).get("benchmarks", []):
            if entry.get("error_occurred"):
                found.append("%s: %s" % (entry["name"], entry.get("error_message", "")))
    return found


def find(runs, prefix, threads):
    for (name, count), entries in runs.items():
        if name.startswith(prefix + "/") and count == threads:
            return entries
    return []


def median_of(entries, key):
    values = [entry[key] for entry in entries if key in entry]
    return statistics.median(values) if values else None


def fmt_time(ns):
    if ns is None:
        return "n/a"
    if ns >= 1e6:
        return "%.2f ms" % (ns / 1e6)
    if ns >= 1e4:
        return "%.1f µs" % (ns / 1e3)
    if ns >= 1e3:
        return "%.2f µs" % (ns / 1e3)
    return "%.0f ns" % ns


def fmt_ratio(value):
    return "n/a" if value is None else "%.2f" % value


def ratio(a, b):
    return a / b if a is not None and b else None


def verdict(ok):
    """ok None: the goal does not apply there."""
    return "" if ok is None else "met" if ok else "**missed**"


class Version(object):
    """The results of one interpreter."""

    def __init__(self, directory):
        self.dir = directory
        self.label = os.path.basename(directory)
        self.info = read_json(os.path.join(directory, "info.json"))
        self.ops = {}
        self.per_cpu = {}
        for key, pattern, _threads, _title in CALLERS:
            paths = sorted(glob.glob(os.path.join(directory, pattern)))
            self.ops[key] = repetitions(paths)
            if key in ("init", "other"):
                # One CPU's results may come from several processes (ops_other_cpu0.library.json, ...).
                by_cpu = {}
                for path in paths:
                    by_cpu.setdefault(os.path.basename(path).split(".")[0], []).append(path)
                self.per_cpu[key] = [repetitions(group) for _cpu, group in sorted(by_cpu.items())]
        self.cold = repetitions(sorted(glob.glob(os.path.join(directory, "cold_cpu*.json"))))
        self.reference = repetitions(sorted(glob.glob(os.path.join(directory, "reference_cpu*.json"))))
        self.errors = errors(sorted(glob.glob(os.path.join(directory, "*.json"))))
        self.calls = self._table(os.path.join(directory, "calls.tsv"))
        self.resident = self._table(os.path.join(directory, "resident.tsv"))
        self.scale = report_scale.ScaleResults(directory, repetitions)
        self.faults = self._table(os.path.join(directory, "resident.tsv"), 3)

    @staticmethod
    def _table(path, column=2):
        table = {}
        if os.path.exists(path):
            with open(path) as handle:
                for line in handle:
                    fields = line.split()
                    if len(fields) > column:
                        table[(fields[0], fields[1])] = float(fields[column])
        return table

    def op_time(self, caller, op, bridge, runs=None):
        threads = dict((key, count) for key, _p, count, _t in CALLERS)[caller]
        entries = find(runs if runs is not None else self.ops[caller], op + "/" + bridge, threads)
        if op == "search_after_5ms":
            value = median_of(entries, "median_ms")
            return value * 1e6 if value is not None else None
        return median_of(entries, "real_ns")

    def op_p90(self, caller, op, bridge):
        threads = dict((key, count) for key, _p, count, _t in CALLERS)[caller]
        value = median_of(find(self.ops[caller], op + "/" + bridge, threads), "p90_ms")
        return value * 1e6 if value is not None else None

    def cold_value(self, name, counter):
        return median_of(find(self.cold, name, 1), counter)

    def cold_count(self, name):
        return len(find(self.cold, name, 1))

    def ref_time(self, name, bridge):
        return median_of(find(self.reference, name + "/" + bridge, 1), "real_ns")


def machine_section(meta, loads):
    lines = ["## Machine and run", ""]
    lines.append("| | |")
    lines.append("|---|---|")
    lines.append("| date | %s |" % meta["date"])
    lines.append("| CPU | %s, %s cores (`nproc`), %s |" % (meta["cpu_model"], meta["cores"], meta["cpu_mhz"]))
    lines.append("| memory, kernel | %s, Linux %s |" % (meta["memory"], meta["kernel"]))
    lines.append("| compiler, build | %s, %s |" % (meta["compiler"], meta["build_type"]))
    lines.append("| Google Benchmark, pybind11 | %s, %s |" % (meta["gbench"], meta["pybind11"]))
    lines.append("| tree | `%s` |" % meta["commit"])
    lines.append("| Pythons | %s |" % ", ".join(meta["pythons"]))
    lines.append(
        "| settings | %s repetitions of %s s per CPU and benchmark, single-thread runs pinned with `taskset` to each "
        "CPU in turn (%s), benchmarks of one process interleaved at random; %s child processes per cold "
        "start-up benchmark and CPU; multi-thread runs not pinned |"
        % (meta["repetitions"], meta["min_time"], ", ".join("CPU %s" % cpu for cpu in meta["cpus"]),
           meta["cold_repetitions"]))
    if loads:
        values = [float(load.split()[2]) for load in loads]
        lines.append("| load average (1 min) during the run | %.2f to %.2f, median %.2f (sampled %d times, before "
                     "each step) |" % (min(values), max(values), statistics.median(values), len(values)))
    lines.append("")
    return lines


def evaluate_goals(versions, meta):
    """The goal rows: (key, goal, caller, [(text, ok) per version])."""
    rows = []
    callers = dict((c[0], c[3]) for c in CALLERS)
    for op, limit in GOAL_RATIOS:
        for caller in ("init", "other"):
            cells = []
            for v in versions:
                value = ratio(v.op_time(caller, op, "library"), v.op_time(caller, op, "capi"))
                per_cpu = [ratio(v.op_time(caller, op, "library", runs), v.op_time(caller, op, "capi", runs))
                           for runs in v.per_cpu.get(caller, [])]
                spread = ", ".join(fmt_ratio(x) for x in per_cpu)
                cells.append(("%s× (%s)" % (fmt_ratio(value), spread), value is not None and value <= limit))
            rows.append((op, "%s ≤ %.1f × C-API floor" % (dict(OPS)[op], limit), callers[caller], cells))
    for op in KEPT_STATE_OPS:
        for caller in ("other", "multi2", "multi8"):
            cells = []
            for v in versions:
                value = ratio(v.op_time(caller, op, "library"), v.op_time("init", op, "library"))
                cells.append(("%s×" % fmt_ratio(value), value is not None and value <= KEPT_STATE_LIMIT))
            rows.append(("kept_" + op, "%s ≤ %.1f × the same call from the initialising thread"
                         % (dict(OPS)[op], KEPT_STATE_LIMIT), callers[caller], cells))
    cells = []
    for v in versions:
        value = ratio(v.op_time("other", ONE_CALL_THREAD[0], "library"), v.op_time("other", ONE_CALL_THREAD[0], "capi"))
        cells.append(("%s× (%s against %s)" % (fmt_ratio(value), fmt_time(v.op_time("other", ONE_CALL_THREAD[0], "library")),
                                             fmt_time(v.op_time("other", ONE_CALL_THREAD[0], "capi"))),
                      value is not None and value <= ONE_CALL_LIMIT))
    rows.append(("one_call", "%s ≤ %.1f × the C-API floor's" % (ONE_CALL_THREAD[1], ONE_CALL_LIMIT), "a new thread",
                 cells))
    for caller, _pattern, _threads, caller_title in CALLERS:
        cells = []
        for v in versions:
            value = v.op_time(caller, "search_after_5ms", "library")
            cells.append((fmt_time(value), value is not None and value <= (SEARCH_DELAY_MS + SEARCH_SLACK_MS) * 1e6))
        rows.append(("search_after_5ms", "search finished after 5 ms returns within 6.2 ms (median)", caller_title,
                     cells))
    cells = []
    for v in versions:
        total = v.cold_value("cold_init/library_quiet", "total_ms")
        queries = (v.cold_value("cold_init/library", "q1_ms") or 0) + (v.cold_value("cold_init/library", "q2_ms") or 0)
        nonquery = v.cold_value("cold_init/library", "nonquery_ms")
        embedded = v.cold_value("cold_init/embedded", "total_ms")
        if None in (total, nonquery, embedded):
            cells.append(("n/a", False))
        else:
            cells.append(("%.1f ms in all; %.1f ms beside the queries (%.1f ms) against %.1f ms = 1.1 × %.1f ms"
                          % (total, nonquery, queries, COLD_FACTOR * embedded, embedded),
                          nonquery <= COLD_FACTOR * embedded))
    rows.append(("cold", "cold initialise ≤ its two `python3` queries + 1.1 × a plain embedded start-up",
                 "fresh process", cells))
    cells = []
    for v in versions:
        value = v.ref_time("ref_exact", "library")
        cells.append((fmt_time(value), value is not None and value < EXACT_LIMIT_US * 1e3))
    rows.append(("exact", "exact search on a %s-record bank < 100 µs (median)" % "{:,}".format(meta["records"]),
                 "initialising thread", cells))
    return rows + report_scale.evaluate(versions, os.path.dirname(versions[0].dir), meta,
                                        (find, median_of, ratio, fmt_time, fmt_ratio))


def goals_section(versions, goals):
    head = "| goal | caller | " + " | ".join(v.info["version"] for v in versions) + " |"
    lines = ["## Goals", "", head, "|---|---|" + "---|" * len(versions)]
    for _key, goal, caller, cells in goals:
        lines.append("| %s | %s | %s |" % (goal, caller, " | ".join("%s %s" % (text, verdict(ok)) for text, ok in cells)))
    lines += [
        "",
        "Ratios are library ÷ C-API floor of the median time per call; in brackets the same ratio from the run "
        "pinned to each CPU alone. The cold start-up compares the median, over the child processes, of the "
        "library's start-up without its two queries (timed from its own log lines) with the median plain "
        "embedded start-up; the first figure is the median total of the runs with the log off.",
        "",
    ]
    return lines


def ops_section(v):
    lines = ["### CPython %s" % v.info["version"], ""]
    lines.append("| operation | caller | library | C-API floor | pybind11 | C-API mirror | library ÷ floor | "
                 "library ÷ pybind11 | library ÷ mirror |")
    lines.append("|---|---|---|---|---|---|---|---|---|")
    for op, title in OPS:
        for caller, _pattern, _threads, caller_title in CALLERS:
            times = dict((bridge, v.op_time(caller, op, bridge)) for bridge in BRIDGES)
            lib = times["library"]
            lines.append("| %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                title, caller_title, fmt_time(lib), fmt_time(times["capi"]), fmt_time(times["pybind11"]),
                fmt_time(times["capi_mirror"]) if op != "search_after_5ms" else "",
                fmt_ratio(ratio(lib, times["capi"])), fmt_ratio(ratio(lib, times["pybind11"])),
                fmt_ratio(ratio(lib, times["capi_mirror"])) if op != "search_after_5ms" else ""))
    times = dict((bridge, v.op_time("other", ONE_CALL_THREAD[0], bridge)) for bridge in BRIDGES)
    lines.append("| %s | a new thread | %s | %s | %s | %s | %s | %s | %s |" % (
        ONE_CALL_THREAD[1], fmt_time(times["library"]), fmt_time(times["capi"]), fmt_time(times["pybind11"]),
        fmt_time(times["capi_mirror"]), fmt_ratio(ratio(times["library"], times["capi"])),
        fmt_ratio(ratio(times["library"], times["pybind11"])), fmt_ratio(ratio(times["library"], times["capi_mirror"]))))
    p90 = [(caller_title, v.op_p90(caller, "search_after_5ms", "library")) for caller, _p, _t, caller_title in CALLERS]
    lines += ["", "Search finished after 5 ms, library, 90th percentile per call: " +
              "; ".join("%s %s" % (title, fmt_time(value)) for title, value in p90) + ".", ""]
    return lines


def calls_section(versions):
    ops = [("write_flag0", "write, flag 0"), ("delete", "delete"),
           ("search_first_poll", "search answered at the first poll"),
           ("init_finalize", "warm initialise + finalise")]
    if not any(v.calls for v in versions):
        return []
    lines = ["## Instructions per call", "",
             "Counted with `valgrind --tool=callgrind` over 10,000 calls from the initialising thread, after as "
             "many warm-up calls: exact and independent of the machine's load (`perf stat -e instructions` finds "
             "no such counter in this virtual machine). The last column is what the "
             "resident set grows by per call and how many fresh pages a call touches (page faults served without "
             "I/O), measured without valgrind over 100,000 calls.", "",
             "| Python | operation | library | C-API floor | pybind11 | C-API mirror | library ÷ floor | "
             "mirror ÷ floor | library ÷ mirror | kept per call (library, mirror, floor) |",
             "|---|---|---|---|---|---|---|---|---|---|"]
    for v in versions:
        for op, title in ops:
            ir = dict((bridge, v.calls.get((op, bridge))) for bridge in BRIDGES)
            if ir["library"] is None:
                continue
            kept = ", ".join(("%.0f B" % v.resident[(op, bridge)] +
                              (" / %.3f faults" % v.faults[(op, bridge)] if (op, bridge) in v.faults else ""))
                             if (op, bridge) in v.resident else "n/a"
                             for bridge in ("library", "capi_mirror", "capi"))
            lines.append("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                v.info["version"], title,
                *["{:,.0f}".format(ir[b]) if ir[b] is not None else "n/a" for b in BRIDGES],
                fmt_ratio(ratio(ir["library"], ir["capi"])), fmt_ratio(ratio(ir["capi_mirror"], ir["capi"])),
                fmt_ratio(ratio(ir["library"], ir["capi_mirror"])), kept))
    lines.append("")
    return lines


def cold_section(versions):
    lines = ["## Cold initialise", "",
             "One child process per repetition (`ovra_kb_bench_cold`), median over the children. The library's "
             "steps come from its own event and debug lines (`OVRA_LOG_EVENT=1`, `OVRA_LOG_LEVEL=debug`, "
             "microsecond timestamps); \"quiet\" is the same start-up with the log off. The plain embedded start-up "
             "does the same work by hand: `dlopen` of the runtime, `Py_Initialize`, the imports of `traceback`, the "
             "log module and the knowledge-base module, and the call of `ovra_kb_init`.", ""]
    head = "| step | " + " | ".join("%s library | %s embedded" % (v.info["version"], v.info["version"])
                                    for v in versions) + " |"
    lines += [head, "|---|" + "---|---|" * len(versions)]
    steps = [("first python3 query (LDLIBRARY)", "q1_ms", None), ("second python3 query (LIBDIR)", "q2_ms", None),
             ("loading the runtime (`dlopen`)", "load_ms", "load_ms"),
             ("binding the 47 entry points", "bind_ms", "bind_ms"),
             ("interpreter start (`Py_Initialize`)", "start_ms", "start_ms"),
             ("imports (traceback, log module, knowledge-base module)", "imports_ms", "imports_ms"),
             ("call of `ovra_kb_init`", "init_call_ms", "init_call_ms"),
             ("total (with log lines)", "total_ms", "total_ms"),
             ("total without the two queries", "nonquery_ms", "total_ms")]
    for title, lib_key, embed_key in steps:
        cells = []
        for v in versions:
            lib = v.cold_value("cold_init/library", lib_key)
            embed = v.cold_value("cold_init/embedded", embed_key) if embed_key else None
            cells.append("%s | %s" % ("%.2f ms" % lib if lib is not None else "n/a",
                                      "%.2f ms" % embed if embed is not None else ""))
        lines.append("| %s | %s |" % (title, " | ".join(cells)))
    cells = []
    for v in versions:
        quiet = v.cold_value("cold_init/library_quiet", "total_ms")
        cells.append("%s | " % ("%.2f ms" % quiet if quiet is not None else "n/a"))
    lines.append("| total, quiet (log off) | %s |" % " | ".join(cells))
    lines.append("| child processes | %s |" % " | ".join(
        "%d | %d" % (v.cold_count("cold_init/library"), v.cold_count("cold_init/embedded")) for v in versions))
    lines += ["", "### A version manager's shim on the path", ""]
    lines.append("| Python | each query, `python3` found directly | each query, through `~/.pyenv/shims/python3` | "
                 "the shim adds per query | cold initialise, direct | cold initialise, shim |")
    lines.append("|---|---|---|---|---|---|")
    for v in versions:
        direct = [v.cold_value("query/direct", key) for key in ("q1_ms", "q2_ms")]
        shim = [v.cold_value("query/shim", key) for key in ("q1_ms", "q2_ms")]
        if None in direct or None in shim:
            lines.append("| %s | n/a | n/a | n/a | | |" % v.info["version"])
            continue
        lines.append("| %s | %.1f ms, %.1f ms | %.1f ms, %.1f ms | %.1f ms | %.1f ms | %.1f ms |" % (
            v.info["version"], direct[0], direct[1], shim[0], shim[1],
            statistics.mean(shim) - statistics.mean(direct),
            v.cold_value("cold_init/library", "total_ms"), v.cold_value("cold_init/library_shim", "total_ms")))
    lines += ["",
              "The library runs `python3 -c ...` twice through the shell at its first initialisation. With pyenv's "
              "shim directory first on `PATH`, each of them starts pyenv's shell script, which works out the "
              "version (here from `PYENV_VERSION`) and then runs the real interpreter: that is the difference "
              "above, paid twice per process. Putting the interpreter's own `bin` directory first on `PATH` "
              "avoids it.", ""]
    return lines


def reference_section(versions, meta):
    lines = ["## Reference knowledge base (%s records)" % "{:,}".format(meta["records"]), "",
             "The package in `python/` with its SQLite bank, filled through the library with `shape_000000` to "
             "`shape_%06d` (op type MatMul) before the run. Exact searches spread over the whole bank; a prefix "
             "search takes four digits (`shape_0123`) and finds 100 records, answered inside "
             "`ovra_kb_search_async`; writes replace one of 1,000 records of their own op type. Initialising "
             "thread, pinned, median time per call." % (meta["records"] - 1), ""]
    lines.append("| operation | " + " | ".join("%s library | %s C-API floor | ratio" % ((v.info["version"],) * 2)
                                                for v in versions) + " |")
    lines.append("|---|" + "---|---|---|" * len(versions))
    for name, title in [("ref_exact", "exact search"), ("ref_prefix", "prefix search (100 rows)"),
                        ("ref_write_flag0", "write, flag 0"), ("ref_write_flag1", "write, flag 1 (durable)")]:
        cells = []
        for v in versions:
            lib = v.ref_time(name, "library")
            floor = v.ref_time(name, "capi")
            cells.append("%s | %s | %s" % (fmt_time(lib), fmt_time(floor), fmt_ratio(ratio(lib, floor))))
        lines.append("| %s | %s |" % (title, " | ".join(cells)))
    bank = meta.get("bank", {})
    lines += ["",
              "A durable write is mostly `fsync`, whose time on this virtual disk varies from run to run; the "
              "bridge's part of it is lost in that.",
              "",
              "The bank on disk after filling and finalising: %s bytes in total (%s)." % (
                  "{:,}".format(bank.get("total", 0)),
                  ", ".join("`%s` %s bytes" % (name, "{:,}".format(size))
                            for name, size in sorted(bank.get("files", {}).items()))),
              ""]
    return lines


def summarise(goals, key, caller=None, versions=None):
    """"met", "missed", or where each was, for the cells of one goal (and caller)."""
    rows = [row for k, _goal, c, row in goals if k == key and (caller is None or c == caller)]
    oks = [ok for row in rows for _text, ok in row if ok is not None]
    if oks and all(oks):
        return "met"
    if oks and not any(oks):
        return "missed"
    if versions is None or len(rows) != 1:
        return "partly met"
    met = [v.info["version"] for v, (_text, ok) in zip(versions, rows[0]) if ok]
    missed = [v.info["version"] for v, (_text, ok) in zip(versions, rows[0]) if ok is False]
    return "met on %s, missed on %s" % (", ".join(met), ", ".join(missed))


def analysis_section(versions, goals):
    lines = ["## Where the time goes", ""]
    titles = dict((c[0], c[3]) for c in CALLERS)
    ratio_keys = [op for op, _limit in GOAL_RATIOS]
    for caller, phrase in (("init", "the initialising thread"), ("other", "another thread")):
        states = "; ".join("%s: %s" % (dict(OPS)[op], summarise(goals, op, titles[caller], versions))
                           for op in ratio_keys)
        lines.append("- Called from %s: %s." % (phrase, states))
    lines.append("- Search finished after 5 ms: %s; cold initialise: %s; exact search on the reference bank: %s."
                 % (summarise(goals, "search_after_5ms"), summarise(goals, "cold"), summarise(goals, "exact")))
    lines.append("")

    rows = []
    for v in versions:
        lib, mirror, floor = (v.calls.get(("write_flag0", b)) for b in ("library", "capi_mirror", "capi"))
        slib, smirror, sfloor = (v.calls.get(("search_first_poll", b)) for b in ("library", "capi_mirror", "capi"))
        if None in (lib, mirror, floor, slib, smirror, sfloor) or lib <= floor or slib <= sfloor:
            continue
        rows.append((v.info["version"], lib / floor, (mirror - floor) / (lib - floor), lib - mirror, slib / sfloor,
                     (smirror - sfloor) / (slib - sfloor), slib - smirror))
    intervals = [1.0 / v.faults[("write_flag0", "library")] for v in versions
                 if v.faults.get(("write_flag0", "library"))]
    page_text = ("every %.0f to %.0f calls" % (min(intervals), max(intervals))) if intervals else "every so many calls"
    lines += [
        "### From the initialising thread",
        "",
        "Here the lock is taken without creating anything, so the bridge's own work is most of a call. The "
        "instruction counts show the excess without the machine's noise: about twice the floor's instructions "
        "for every operation and interpreter. The times show more than that for write, delete and initialise, "
        "for the reason given in point 1. The C-API mirror splits the excess in two: it makes exactly the "
        "library's C-API calls, with its formats and the references it keeps, but runs none of the library's "
        "C++ code.",
        "",
        "1. **The C-API calls that the library's call sequence fixes** (mirror ÷ floor). Each call looks the "
        "module's function up by a C string (`PyObject_CallMethod` makes and hashes a new `str` for the name "
        "every time) and builds the argument tuple by parsing a format string; each dictionary value is made "
        "with `Py_BuildValue(\"s\")` and stored under a C-string key (`PyDict_SetItemString` makes, hashes and "
        "interns the key every time); the answer is read with `PyArg_Parse(\"i\")`; a search reads its rows "
        "through `PyDict_Keys` and `PyDict_GetItem`. The floor makes the same Python calls with names and keys "
        "made once, `PyObject_CallFunctionObjArgs`, `PyLong_AsLong` and `PyDict_Next`. On top of that, write, "
        "delete and initialise keep their argument dictionaries for the life of the process, on purpose: the "
        "resident set grows by the bytes shown in the instruction table on every such call, a fresh page is "
        "faulted in %s of a write, and the dictionaries are built in cold memory. "
        "That is why the library and the mirror lose more to the floor in time than in instructions on these "
        "three operations, and not on the search, which keeps no memory. The call sequence, the formats and "
        "the kept references are the library's required behaviour (its tests check them), so they stay."
        % page_text,
        "2. **The library's C++ code** (library ÷ mirror): the reference holders (every `PyObjectPtr` allocates "
        "a control block for its shared count, and the sequence holds the reply, the task handle, the search "
        "dictionary and each row's key list in one), the list through which the builders release their "
        "values, `std::string` temporaries for the map look-ups, and the indirect calls through the API table. "
        "Three avoidable allocations were removed (below); the rest is the required shape of those steps.",
        "",
    ]
    if rows:
        lines.append("| Python | write: library ÷ floor | share of the excess in the fixed C-API calls | C++ code "
                     "(instructions per call) | search: library ÷ floor | share in the fixed C-API calls | C++ code |")
        lines.append("|---|---|---|---|---|---|---|")
        for version, wr, ws, wc, sr, ss, sc in rows:
            lines.append("| %s | %.2f | %.0f %% | %.0f | %.2f | %.0f %% | %.0f |"
                         % (version, wr, 100 * ws, wc, sr, 100 * ss, sc))
        lines.append("")
    exact = [ratio(v.ref_time("ref_exact", "library"), v.ref_time("ref_exact", "capi")) for v in versions]
    exact = [x for x in exact if x is not None]
    exact_text = ("%.2f to %.2f" % (min(exact), max(exact))) if exact else "n/a"
    lines += [
        "pybind11 sits between the two: it also looks the function up by a C string on every call, but converts "
        "arguments and answers without format strings and keeps nothing.",
        "",
        "### From other threads",
        "",
    ]
    costs = []
    for v in versions:
        init = v.op_time("init", "write_flag0", "capi")
        other = v.op_time("other", "write_flag0", "capi")
        if init is not None and other is not None:
            costs.append("%s on CPython %s" % (fmt_time(other - init), v.info["version"]))
    lines += [
        "Every `PyGILState_Ensure` on a thread without a thread state creates one and the matching "
        "`PyGILState_Release` destroys it. Since CPython 3.11 that includes the first chunk of the thread's "
        "frame stack, an `mmap` and a `munmap` on every call (as `strace -c` shows); before, a thread state is "
        "a small allocation. The C-API floor, pybind11 and the mirror pay that on every call: the floor's extra "
        "time per call from another thread is %s." % "; ".join(costs),
        "",
        "The library does not (goals: kept thread states %s). A native thread keeps one Python thread state "
        "for as long as it calls: at its first call the library takes the lock once with `PyGILState_Ensure` "
        "and never gives that one back, which keeps the state alive, then parks it with `PyEval_SaveThread`. "
        "Every operation still takes the lock with `PyGILState_Ensure` and gives it back with "
        "`PyGILState_Release`; with the state kept, these only restore and park it, as on the initialising "
        "thread. A thread that held the lock already, or whose state is the interpreter's own, is left as it is. "
        "When the thread ends, a thread-local destructor gives the state back through the same two functions "
        "(if Python already deleted it, the first release deletes the fresh one that the ensure made, and a "
        "`PyGILState_Check` tells the two apart); when the library finalises the interpreter, `Py_Finalize` "
        "deletes every kept state and a generation count makes the threads forget theirs, so that a thread "
        "that calls again after a new start-up gets a fresh one, and a thread that ends afterwards touches "
        "nothing of Python (a mutex taken before the interpreter lock keeps a thread's end and the "
        "finalisation apart). A thread that calls once and ends pays the state's creation and deletion once, "
        "as before, plus one more restore and park: goal %s. With 2 and 8 threads the calls are serialised "
        "by the interpreter lock; the figure is the wall time of the run divided by the calls of all threads, "
        "and the hand-overs of the lock between threads are most of what it adds to the one-thread figure."
        % (summarise(goals, "kept_write_flag0"), summarise(goals, "one_call")),
        "",
        "### Searches that wait, start-up, the reference bank",
        "",
        "A search that the module finishes after 5 ms returns about one poll interval later at most (1 ms of "
        "sleep plus the timer's slack and one poll); that goal is %s, and the C-API floor and pybind11, which "
        "poll the same way, take the same time. The cold-initialise goal is %s: beside its two queries the "
        "library costs what a plain embedded start-up costs; binding the 47 entry points takes well under a "
        "millisecond, and most of either is `Py_Initialize` (which imports `site`; in the pyenv 3.11 build of "
        "this machine `site` also imports `certifi` through a `.pth` file, about 30 ms by `python3 -X "
        "importtime -c pass`, which the two queries pay as well). The exact-search goal is "
        "%s: most of a search is the package's own Python and SQLite work, so the library ÷ floor ratio there "
        "is only %s." % (summarise(goals, "search_after_5ms"), summarise(goals, "cold"), summarise(goals, "exact"),
                         exact_text),
        "",
        "### Changes made to the library",
        "",
        "Three allocations that served nothing were removed, without changing any call, log line, status or "
        "reference (callgrind, CPython 3.11, `PYTHONHASHSEED=0`, instructions per call before → after, measured "
        "when the change was made: write "
        "6,473 → 6,268, delete 6,048 → 5,843, search answered at the first poll 20,065 → 18,014):",
        "",
        "- `src/interface/py_interface.cpp`, `RunChange` (write and delete): the reply holder is built once, "
        "from the reply or empty, instead of being built empty and then assigned, which allocated a second "
        "control block on every call.",
        "- `src/interface/py_interface.cpp`, `PollSearchOnce`: the same for the reply holder of every poll.",
        "- `src/pywrapper/pywrapper.cpp`, `PylistToVec`: each row's map is moved into the caller's list "
        "instead of copied; the copy allocated every node and every long string of the row a second time.",
        "",
        "Kept thread states (measured when the change was made, by the same programs built from the commit "
        "before it and from the change, on this machine): a thread that makes one write and ends runs 11,951 → "
        "13,596 instructions on CPython 3.8, 11,913 → 13,653 on 3.11 and 13,205 → 14,131 on 3.13 in user space "
        "(callgrind, `--ovra_mode=calls --ovra_op=write_on_new_thread`, 400 threads, the difference of two run "
        "lengths), the price of one more restore and park of the state and of its hand-back as the thread ends. "
        "Next to the thread's own start and end (35 to 70 µs of wall time here, mostly in the kernel) that is "
        "about half a microsecond, below what the wall-time medians can tell apart (new ÷ old medians of three "
        "interleaved pinned runs: 1.03, 1.22 and 0.96, with the unchanged C-API floor at 1.22, 1.03 and 0.91 "
        "between the same two programs).",
        "",
        "`CheckLogLevel` does not show in any profile: the operations write no line on success, and the few "
        "start-up and tear-down lines of a warm initialise are checked against settings that the default "
        "platform library reads once.",
        "",
    ]
    return lines


def spread(versions):
    """The median, over the single-thread benchmarks, of their repetitions' coefficient of variation."""
    cvs = []
    for v in versions:
        for caller in ("init", "other"):
            for entries in v.ops[caller].values():
                times = [entry["real_ns"] for entry in entries]
                if len(times) > 1 and statistics.mean(times) > 0:
                    cvs.append(statistics.stdev(times) / statistics.mean(times))
    return "%.0f %%" % (100 * statistics.median(cvs)) if cvs else "n/a"


def main():
    results, output = sys.argv[1], sys.argv[2]
    meta = read_json(os.path.join(results, "meta.json"))
    loads = []
    load_path = os.path.join(results, "load.txt")
    if os.path.exists(load_path):
        with open(load_path) as handle:
            loads = [line.strip() for line in handle if line.strip()]
    versions = [Version(os.path.join(results, label)) for label in meta["labels"]]
    lines = [
        "# Benchmarks",
        "",
        "Produced by `bash scripts/bench.sh` (every number below comes from that one run; see the end for how "
        "to read it). The library is measured through its exported functions, side by side in the same process "
        "and against the same `libpython` with:",
        "",
        "- **C-API floor**: the same Python calls written by hand against the C-API, the least any bridge can do "
        "(function looked up by name on every call, names and constant keys made once, arguments built "
        "directly, everything released);",
        "- **pybind11**: the same calls through pybind11's embedding API (`py::dict`, `module.attr(name)(...)`, "
        "its STL casters);",
        "- **C-API mirror**: the library's own sequence of C-API calls, formats and kept references written out by "
        "hand, without its C++ layers (used to tell where the library's time goes).",
        "",
        "All of them take and give back the interpreter lock with `PyGILState_Ensure`/`PyGILState_Release` around "
        "every call, as the library does, build the same argument dictionaries and poll a search every "
        "millisecond with the lock given back. The Python module is `bench/pypkg`, whose functions only return "
        "prebuilt answers, so that the bridges are what is measured.",
        "",
    ]
    goals = evaluate_goals(versions, meta)
    lines += machine_section(meta, loads)
    lines += goals_section(versions, goals)
    lines += ["## Operations through the exported functions", "",
              "Median time per call. \"initialising thread\": the thread that ran the first `OvraKbInit`, whose "
              "thread state is the interpreter's own; \"another thread\": every call comes from a native thread "
              "that the interpreter had no state for before its first call (the library keeps the one it makes "
              "then; the other bridges make and drop one on every call). For 2 and 8 threads the time is wall "
              "time ÷ calls of all threads together. For the 5 ms search the figure is the median time of one "
              "search. \"a new thread\": each call is made by a thread started for it, which ends after it; the "
              "figure includes the thread's start and end.", ""]
    for v in versions:
        lines += ops_section(v)
    lines += calls_section(versions)
    lines += cold_section(versions)
    lines += report_scale.scaling_section(versions, meta, find, median_of, ratio, fmt_ratio)
    lines += reference_section(versions, meta)
    lines += report_scale.lookup_section(versions, fmt_time, ratio, fmt_ratio)
    lines += report_scale.kept_section(versions, meta)
    lines += report_scale.import_section(results, meta)
    lines += analysis_section(versions, goals)
    lines += report_scale.analysis_section(versions, goals, summarise, find, median_of)
    problems = [(v.info["version"], error) for v in versions for error in v.errors]
    if problems:
        lines += ["## Benchmarks that failed", ""] + ["- %s: %s" % problem for problem in problems] + [""]
    lines += [
        "## How to run and read it",
        "",
        "```sh",
        "bash scripts/bench.sh        # builds build-bench/ with -DOVRA_KB_BUILD_BENCH=ON, runs everything, "
        "writes BENCHMARKS.md",
        "```",
        "",
        "This run took %s. Options are environment variables described at the top of the script "
        "(interpreters, repetitions, time per repetition, bank size). The raw Google Benchmark JSON files stay "
        "in `build-bench/bench-results/`. Run one program by hand with, for example, "
        "`build-bench/bench/ovra_kb_bench_py311 --benchmark_filter=write_flag0` (see the comment at the top of "
        "`bench/bench_main.cpp` for its own options)." % meta.get("duration", "n/a"),
        "",
        "This is a shared two-CPU virtual machine whose CPUs do not run at the same speed, and others build on "
        "it: the single-thread runs are pinned to one CPU at a time and repeated on each, the programs in one "
        "process are interleaved at random, and every figure is a median over all repetitions. In this run the "
        "repetitions of one single-thread benchmark spread by a median coefficient of variation of %s; the "
        "instruction counts (taken with `PYTHONHASHSEED=0`) do not vary. Python's bytecode cache is on "
        "(`PYTHONDONTWRITEBYTECODE` is unset for the run), as it is in normal use." % spread(versions),
        "",
    ]
    with open(output, "w") as handle:
        handle.write("\n".join(lines))


if __name__ == "__main__":
    main()
