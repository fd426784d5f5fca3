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
#   OVRA_KB_BENCH_SCALING_VERSIONS  the CPython versions whose searches from many threads are measured
#                                   (default "3.11 3.13")
#   OVRA_KB_BENCH_SCALING_REPETITIONS  repetitions of each of those (default 3)
#   OVRA_KB_BENCH_POSTGRES          0 to skip the PostgreSQL bank (default 1: a throwaway server of its own)
#   OVRA_KB_BENCH_KEPT_CALLS        calls of each operation and outcome for the memory kept (default 20000)
#   OVRA_KB_BENCH_IMPORT_RECORDS    record counts of the measured imports (default "100000 1000000"; "" skips)
#   OVRA_KB_BENCH_SETTLE            seconds the whole run may wait for the machine's load to fall (default 600)
#   OVRA_KB_BENCH_OUT               the report (default: BENCHMARKS.md at the top of the tree)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BENCH_BUILD_DIR:-$root/build-bench}"
repetitions="${OVRA_KB_BENCH_REPETITIONS:-15}"
min_time="${OVRA_KB_BENCH_MIN_TIME:-0.05}"
cold_repetitions="${OVRA_KB_BENCH_COLD_REPETITIONS:-10}"
records="${OVRA_KB_BENCH_RECORDS:-100000}"
callgrind="${OVRA_KB_BENCH_CALLGRIND:-1}"
scaling_versions="${OVRA_KB_BENCH_SCALING_VERSIONS:-3.11 3.13}"
scaling_repetitions="${OVRA_KB_BENCH_SCALING_REPETITIONS:-3}"
postgres="${OVRA_KB_BENCH_POSTGRES:-1}"
kept_calls="${OVRA_KB_BENCH_KEPT_CALLS:-20000}"
import_records="${OVRA_KB_BENCH_IMPORT_RECORDS-100000 1000000}"
out="${OVRA_KB_BENCH_OUT:-$root/BENCHMARKS.md}"
results="$build/bench-results"
bank="$build/bench-bank"
scaling_bank="$build/bench-scaling-bank"

note() { printf '\n== %s\n' "$*"; }

# Others may be building on this machine: before each step, wait for the load to settle (ten minutes at
# most over the whole run), then note it.
wait_budget="${OVRA_KB_BENCH_SETTLE:-600}"
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

rm -rf "$results" "$bank" "$scaling_bank"
mkdir -p "$results"
# The interpreters start as they do in normal use: with their bytecode cache, from their own installation.
unset PYTHONDONTWRITEBYTECODE PYTHONPYCACHEPREFIX PYTHONHOME PYTHONPATH PYTHONSTARTUP

cpus=(0)
if [ "$(nproc)" -ge 2 ]; then
    cpus=(0 1)
fi
common=(--benchmark_repetitions="$repetitions" --benchmark_min_time="$min_time"
    --benchmark_enable_random_interleaving=true --benchmark_out_format=json)

# The PostgreSQL bank of the searches from many threads: a throwaway server, stopped and removed at the end.
pg_work=""
pg_note=""
stop_postgres() {
    if [ -n "$pg_work" ]; then
        pg_server_stop "$pg_work"
        rm -rf "$pg_work"
    fi
}
trap stop_postgres EXIT
if [ "$postgres" = "1" ]; then
    # shellcheck source=pg_server.sh
    . "$root/scripts/pg_server.sh"
    pg_work="$(mktemp -d "${TMPDIR:-/tmp}/ovra-kb-bench-pg.XXXXXX")"
    if ! pg_server_start "$pg_work" >"$results/postgres.log" 2>&1; then
        pg_note="no PostgreSQL server could be started ($(tail -n 1 "$results/postgres.log"))"
        echo "$pg_note"
    fi
else
    pg_note="skipped (OVRA_KB_BENCH_POSTGRES=0)"
fi
pg_filled=0

# A path from which `python` imports Debian's psycopg 3 and nothing else of Debian's; where the typing_extensions
# that comes with it does not import (CPython 3.13), a stand-in that hands out the typing module's names. Empty
# when psycopg does not import either way.
psycopg_path() {
    local python="$1" dir="$2"
    local dist=/usr/lib/python3/dist-packages
    [ -d "$dist/psycopg" ] || return 0
    mkdir -p "$dir"
    ln -sfn "$dist/psycopg" "$dir/psycopg"
    ln -sfn "$dist/typing_extensions.py" "$dir/typing_extensions.py"
    if ! PYTHONPATH="$dir" "$python" -c 'import psycopg' 2>/dev/null; then
        rm -f "$dir/typing_extensions.py"
        printf 'import typing\n\n\ndef __getattr__(name):\n    return getattr(typing, name)\n' \
            >"$dir/typing_extensions.py"
        PYTHONPATH="$dir" "$python" -c 'import psycopg' 2>/dev/null || return 0
        echo "stand-in" >"$dir/STAND_IN"
    fi
    echo "$dir"
}

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

    scaling_common=(--ovra_mode=scaling --ovra_threads=1,2,8,64 --benchmark_repetitions="$scaling_repetitions"
        --benchmark_min_time=0.5 --benchmark_out_format=json)
    if [[ " $scaling_versions " == *" ${version%.*} "* ]]; then
        if [ ! -d "$scaling_bank" ]; then
            "$exe" --ovra_mode=fill_scaling --ovra_bank="$scaling_bank"
        fi
        note "CPython $version: searches from many threads, SQLite"
        settle "scaling_sqlite"
        "$exe" "${scaling_common[@]}" --ovra_bank="$scaling_bank" --benchmark_out="$dir/scaling_sqlite.json" \
            >"$dir/scaling_sqlite.log"
        driver=""
        if [ -n "${PG_SERVER_URL:-}" ] && [ -z "$pg_note" ]; then
            driver="$(psycopg_path "$bin_dir/python3" "$build/bench-psycopg/$label")"
        fi
        if [ -n "$driver" ]; then
            [ -f "$driver/STAND_IN" ] && echo "typing_extensions stand-in" >"$dir/psycopg_stand_in"
            if [ "$pg_filled" = "0" ]; then
                PYTHONPATH="$driver" "$exe" --ovra_mode=fill_scaling --ovra_bank="$PG_SERVER_URL"
                pg_filled=1
            fi
            note "CPython $version: searches from many threads, PostgreSQL"
            settle "scaling_postgres"
            PYTHONPATH="$driver" "$exe" "${scaling_common[@]}" --ovra_bank="$PG_SERVER_URL" \
                --benchmark_out="$dir/scaling_postgres.json" >"$dir/scaling_postgres.log"
        elif [ -z "$pg_note" ]; then
            echo "CPython $version cannot import psycopg 3" >"$dir/postgres_skipped"
        fi
    fi

    # Memory kept per call on the reference package, in the default mode and in release mode.
    for release in 0 1; do
        note "CPython $version: memory kept per call by the reference package, OVRA_KB_RELEASE_KEPT=$release"
        kept_bank="$(mktemp -d "${TMPDIR:-/tmp}/ovra-kb-bench-kept.XXXXXX")"
        OVRA_LOG_LEVEL=off OVRA_KB_RELEASE_KEPT="$release" "$exe" --ovra_mode=kept --ovra_bank="$kept_bank/bank" \
            --ovra_calls="$kept_calls" | awk '$1 == "kept" { print $2, $3, $4 }' >"$dir/kept_release$release.tsv"
        rm -rf "$kept_bank"
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

# The peak resident set of `ovra-kb import`, with the python3 of the benchmarked CPython 3.11 (else of the first
# one) first on PATH.
if [ -n "$import_records" ]; then
    first_bin="$(python3 - "$results" "${labels[@]}" <<'EOF'
import json, os, sys
infos = [json.load(open(os.path.join(sys.argv[1], label, "info.json"))) for label in sys.argv[2:]]
print(([info for info in infos if info["version"].startswith("3.11.")] or infos)[0]["bin_dir"])
EOF
)"
    import_dir="$build/bench-import"
    : >"$results/import.tsv"
    for count in $import_records; do
        note "ovra-kb import of $count records"
        rm -rf "$import_dir"
        mkdir -p "$import_dir"
        python3 -c '
import json, sys
with open(sys.argv[1], "w") as out:
    for number in range(int(sys.argv[2])):
        out.write(json.dumps({"keyword": "shape_%07d" % number, "op_type": "MatMul",
                              "knowledge": "tiling=%d;block=%d" % (number, number % 64)}) + "\n")
' "$import_dir/records.jsonl" "$count"
        settle "import_$count"
        PATH="$first_bin:$PATH" /usr/bin/time -v "$build/tools/ovra-kb" import "$import_dir/records.jsonl" \
            --bank "$import_dir/bank" --soc soc-a1 --cores 32 >"$results/import_$count.log" 2>&1 || true
        awk -v count="$count" '
            /Maximum resident set size/ { peak = $NF }
            /Elapsed \(wall clock\)/ { elapsed = $NF }
            /Exit status/ { status = $NF }
            END { print count, peak, elapsed, status }' "$results/import_$count.log" >>"$results/import.tsv"
        tail -n 1 "$results/import.tsv"
    done
    rm -rf "$import_dir"
fi
settle "end"

note "report"
OVRA_BENCH_PG_NOTE="$pg_note" OVRA_BENCH_IMPORT_PYTHON="${first_bin:-}" \
    OVRA_BENCH_SCALING_REPETITIONS="$scaling_repetitions" OVRA_BENCH_KEPT_CALLS="$kept_calls" \
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
    "postgres": os.environ.get("OVRA_BENCH_PG_NOTE", ""),
    "postgres_version": run("bash", "-c", "ls -d /usr/lib/postgresql/*/bin | sort -V | tail -n 1 | "
                            "xargs -I{} {}/postgres --version"),
    "import_python": os.environ.get("OVRA_BENCH_IMPORT_PYTHON", ""),
    "scaling_repetitions": os.environ.get("OVRA_BENCH_SCALING_REPETITIONS", ""),
    "kept_calls": os.environ.get("OVRA_BENCH_KEPT_CALLS", ""),
}
json.dump(meta, open(os.path.join(results, "meta.json"), "w"), indent=1)
EOF
python3 "$root/bench/report.py" "$results" "$out"
echo "wrote $out"
