#!/usr/bin/env bash
# Builds the benchmarks, runs them for every benchmarked CPython and writes BENCHMARKS.md.
#
#   bash scripts/bench.sh
#
# Optional environment:
#   OVRA_KB_BENCH_BUILD_DIR         build directory (default: build-bench at the top of the tree)
#   OVRA_KB_BENCH_PYTHONS           "label=/path/to/python3;..." (default: pyenv's 3.8, 3.11 and 3.13)
#   OVRA_KB_BENCH_REPETITIONS       repetitions of each in-process benchmark, per CPU (default 15)
#   OVRA_KB_BENCH_MIN_TIME          seconds per repetition (default 0.05)
#   OVRA_KB_BENCH_COLD_REPETITIONS  child processes per cold start-up benchmark, per CPU (default 10)
#   OVRA_KB_BENCH_RECORDS           records in the reference bank (default 100000)
#   OVRA_KB_BENCH_CALLGRIND         0 to skip the instruction counts (default 1)
#   OVRA_KB_BENCH_OUT               the report (default: BENCHMARKS.md at the top of the tree)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BENCH_BUILD_DIR:-$root/build-bench}"
repetitions="${OVRA_KB_BENCH_REPETITIONS:-15}"
min_time="${OVRA_KB_BENCH_MIN_TIME:-0.05}"
cold_repetitions="${OVRA_KB_BENCH_COLD_REPETITIONS:-10}"
records="${OVRA_KB_BENCH_RECORDS:-100000}"
callgrind="${OVRA_KB_BENCH_CALLGRIND:-1}"
out="${OVRA_KB_BENCH_OUT:-$root/BENCHMARKS.md}"
results="$build/bench-results"
bank="$build/bench-bank"

note() { printf '\n== %s\n' "$*"; }

# Others may be building on this machine: before each step, wait for the load to settle (ten minutes at
# most over the whole run), then note it.
wait_budget=600
settle() {
    while awk -v cores="$(nproc)" '{ exit !($1 > cores * 0.75) }' /proc/loadavg && [ "$wait_budget" -gt 0 ]; do
        echo "load $(cut -d' ' -f1 /proc/loadavg): waiting for it to fall (${wait_budget} s of waiting left)"
        sleep 15
        wait_budget=$((wait_budget - 15))
    done
    echo "$(date +%s) $1 $(cut -d' ' -f1-3 /proc/loadavg)" >>"$results/load.txt"
}

started="$(date +%s)"
note "configure and build ($build)"
configure=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVRA_KB_BUILD_TESTS=OFF -DOVRA_KB_BUILD_BENCH=ON)
if [ -n "${OVRA_KB_BENCH_PYTHONS:-}" ]; then
    configure+=("-DOVRA_KB_BENCH_PYTHONS=$OVRA_KB_BENCH_PYTHONS")
fi
cmake -S "$root" -B "$build" -G Ninja "${configure[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"

rm -rf "$results" "$bank"
mkdir -p "$results"
# The interpreters start as they do in normal use: with their bytecode cache, from their own installation.
unset PYTHONDONTWRITEBYTECODE PYTHONPYCACHEPREFIX PYTHONHOME PYTHONPATH PYTHONSTARTUP

cpus=(0)
if [ "$(nproc)" -ge 2 ]; then
    cpus=(0 1)
fi
common=(--benchmark_repetitions="$repetitions" --benchmark_min_time="$min_time"
    --benchmark_enable_random_interleaving=true --benchmark_out_format=json)

labels=()
bridge_groups=("library=/library(/|$)" "peers=/(capi|pybind11|capi_mirror)(/|$)")
while IFS='=' read -r label program; do
    [ -n "$label" ] || continue
    labels+=("$label")
    exe="$build/bench/$program"
    dir="$results/$label"
    mkdir -p "$dir"
    "$exe" --ovra_mode=info >"$dir/info.json"
    version="$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["version"])' "$dir/info.json")"

    note "CPython $version: warm-up (bytecode caches of the benchmark packages)"
    bin_dir="$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["bin_dir"])' "$dir/info.json")"
    PYTHONPATH="$root/bench/pypkg" "$bin_dir/python3" -c 'import oxe.common.repository_manager.interface'
    PYTHONPATH="$root/python" "$bin_dir/python3" -c 'import oxe.common.repository_manager.interface'

    for cpu in "${cpus[@]}"; do
        note "CPython $version: operations, initialising thread, CPU $cpu"
        settle "ops_init_cpu$cpu"
        taskset -c "$cpu" "$exe" --ovra_mode=ops --ovra_init_thread=main --ovra_threads=1 "${common[@]}" \
            --benchmark_out="$dir/ops_init_cpu$cpu.json" >"$dir/ops_init_cpu$cpu.log"
        # The library keeps a thread state for a native thread that calls it, and every later bridge on that
        # thread would find it: from threads other than the initialising one, the library and its peers run
        # in processes of their own.
        for group in "${bridge_groups[@]}"; do
            note "CPython $version: operations, another thread, CPU $cpu, ${group%%=*}"
            settle "ops_other_cpu$cpu.${group%%=*}"
            taskset -c "$cpu" "$exe" --ovra_mode=ops --ovra_init_thread=helper --ovra_threads=1 "${common[@]}" \
                --benchmark_filter="${group#*=}" --benchmark_out="$dir/ops_other_cpu$cpu.${group%%=*}.json" \
                >"$dir/ops_other_cpu$cpu.${group%%=*}.log"
        done
    done
    for group in "${bridge_groups[@]}"; do
        note "CPython $version: operations, 2 and 8 threads, ${group%%=*}"
        settle "ops_multi.${group%%=*}"
        "$exe" --ovra_mode=ops --ovra_init_thread=helper --ovra_threads=2,8 "${common[@]}" \
            --benchmark_filter="${group#*=}" --benchmark_out="$dir/ops_multi.${group%%=*}.json" \
            >"$dir/ops_multi.${group%%=*}.log"
    done

    for cpu in "${cpus[@]}"; do
        note "CPython $version: cold start-up, CPU $cpu"
        settle "cold_cpu$cpu"
        taskset -c "$cpu" "$exe" --ovra_mode=cold --benchmark_repetitions="$cold_repetitions" \
            --benchmark_enable_random_interleaving=true --benchmark_out_format=json \
            --benchmark_out="$dir/cold_cpu$cpu.json" >"$dir/cold_cpu$cpu.log"
    done

    if [ ! -d "$bank" ]; then
        note "reference bank: $records records"
        "$exe" --ovra_mode=fill_bank --ovra_bank="$bank" --ovra_records="$records"
        python3 - "$bank" "$results/bank.json" <<'EOF'
import json, os, sys
files = dict((name, os.path.getsize(os.path.join(sys.argv[1], name))) for name in os.listdir(sys.argv[1]))
json.dump({"total": sum(files.values()), "files": files}, open(sys.argv[2], "w"))
EOF
    fi
    for cpu in "${cpus[@]}"; do
        note "CPython $version: reference knowledge base, CPU $cpu"
        settle "reference_cpu$cpu"
        taskset -c "$cpu" "$exe" --ovra_mode=reference --ovra_bank="$bank" --ovra_records="$records" \
            --ovra_threads=1 "${common[@]}" --benchmark_out="$dir/reference_cpu$cpu.json" >"$dir/reference_cpu$cpu.log"
    done

    # The counted runs hash strings with a fixed seed, so that dictionary probes are the same in every run.
    note "CPython $version: memory kept per call"
    : >"$dir/resident.tsv"
    for op in write_flag0 delete search_first_poll init_finalize; do
        for bridge in library capi pybind11 capi_mirror; do
            kept="$(PYTHONHASHSEED=0 "$exe" --ovra_mode=calls --ovra_op="$op" --ovra_bridge="$bridge" --ovra_calls=100000 |
                awk '$1 == "resident_bytes_per_call" { bytes = $2 } $1 == "minor_faults_per_call" { faults = $2 }
                     END { print bytes, faults }')"
            echo "$op $bridge $kept" >>"$dir/resident.tsv"
        done
    done

    if [ "$callgrind" = "1" ] && command -v valgrind >/dev/null; then
        note "CPython $version: instructions per call (callgrind)"
        : >"$dir/calls.tsv"
        calls=10000
        for op in write_flag0 delete search_first_poll init_finalize; do
            for bridge in library capi pybind11 capi_mirror; do
                profile="$dir/callgrind.$op.$bridge"
                PYTHONHASHSEED=0 valgrind --tool=callgrind --callgrind-out-file="$profile" \
                    '--toggle-collect=OvraBench::MeasuredCalls*' \
                    "$exe" --ovra_mode=calls --ovra_op="$op" --ovra_bridge="$bridge" --ovra_calls="$calls" \
                    >"$profile.log" 2>&1
                total="$(awk '$1 == "summary:" { print $2 }' "$profile")"
                echo "$op $bridge $(awk -v total="$total" -v calls="$calls" 'BEGIN { print total / calls }')" \
                    >>"$dir/calls.tsv"
                echo "$op $bridge: $(tail -1 "$dir/calls.tsv" | cut -d' ' -f3) instructions per call"
            done
        done
    fi
done <"$build/bench/programs.txt"
settle "end"

note "report"
python3 - "$root" "$results" "$build" "$records" "$repetitions" "$min_time" "$cold_repetitions" "${cpus[*]}" \
    "$started" "${labels[@]}" <<'EOF'
import datetime, json, os, re, subprocess, sys, time
root, results, build, records, repetitions, min_time, cold_repetitions, cpus, started = sys.argv[1:10]
labels = sys.argv[10:]

def run(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ""

cpuinfo = open("/proc/cpuinfo").read()
models = re.findall(r"^model name\s*:\s*(.*)$", cpuinfo, re.M)
mhz = re.findall(r"^cpu MHz\s*:\s*(.*)$", cpuinfo, re.M)
cache = dict(line.split("=", 1) for line in open(os.path.join(build, "CMakeCache.txt"))
             if "=" in line and not line.startswith(("#", "//")))
compiler = cache.get("CMAKE_CXX_COMPILER:FILEPATH", "c++").strip()
pybind11 = "pybind11 (version unknown)"
for include in ("/usr/include", "/usr/local/include"):
    header = os.path.join(include, "pybind11/detail/common.h")
    if os.path.exists(header):
        text = open(header).read()
        parts = [re.search(r"#define PYBIND11_VERSION_%s (\S+)" % part, text) for part in ("MAJOR", "MINOR", "PATCH")]
        pybind11 = "pybind11 " + ".".join(p.group(1) for p in parts if p)
        break
commit = run("git", "-C", root, "describe", "--always", "--dirty")
pythons = []
for label in labels:
    info = json.load(open(os.path.join(results, label, "info.json")))
    pythons.append("CPython %s (`%s`)" % (info["version"], info["library"]))
meta = {
    "date": datetime.datetime.now().astimezone().strftime("%Y-%m-%d %H:%M %Z"),
    "cpu_model": models[0] if models else "unknown",
    "cores": os.cpu_count(),
    "cpu_mhz": "reported clock " + ", ".join("%.0f MHz" % float(m) for m in mhz) if mhz else "clock unknown",
    "memory": "%.0f GiB" % (os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30),
    "kernel": os.uname().release,
    "compiler": run(compiler, "--version").splitlines()[0] if run(compiler, "--version") else compiler,
    "build_type": cache.get("CMAKE_BUILD_TYPE:STRING", "").strip(),
    "gbench": "Google Benchmark " + (run("dpkg-query", "-W", "-f=${Version}", "libbenchmark-dev") or "?"),
    "pybind11": pybind11,
    "commit": commit or "unknown",
    "pythons": pythons,
    "labels": labels,
    "records": int(records),
    "repetitions": repetitions,
    "min_time": min_time,
    "cold_repetitions": cold_repetitions,
    "cpus": cpus.split(),
    "duration": "%d minutes" % round((time.time() - int(started)) / 60),
    "bank": json.load(open(os.path.join(results, "bank.json"))) if os.path.exists(os.path.join(results, "bank.json")) else {},
}
json.dump(meta, open(os.path.join(results, "meta.json"), "w"), indent=1)
EOF
python3 "$root/bench/report.py" "$results" "$out"
echo "wrote $out"
