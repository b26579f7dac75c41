#!/usr/bin/env bash
# Builds the Release benchmark build, runs the suite on a disk-backed and a
# memory-backed directory plus the memory probes, and writes a Markdown report
# with a chart to build/bench-report/report.md.
#
#   scripts/bench.sh             full run (about 5-10 minutes on 2 cores)
#   scripts/bench.sh --quick     short smoke run (fewer iterations and cycles)
#   scripts/bench.sh --publish   also copy the report to docs/benchmarks.md
#   scripts/bench.sh --report-only [--publish]
#                                rewrite the report from the last run's results
#
# Environment: SBACC_BENCH_DISK_DIR (default /var/tmp), SBACC_BENCH_MEM_DIR
# (default /dev/shm), SBACC_BENCH_BUILD (default build-bench), SBACC_BENCH_OUT
# (default build/bench-report), SBACC_BENCH_SCALE (iteration multiplier),
# SBACC_BENCH_CYCLES (open/write/close cycles of the growth probe, 100000),
# MC_TRACE_LEVEL (default 1: traces cost only their filter).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${SBACC_BENCH_BUILD:-$root/build-bench}
out=${SBACC_BENCH_OUT:-$root/build/bench-report}
disk_dir=${SBACC_BENCH_DISK_DIR:-/var/tmp}
mem_dir=${SBACC_BENCH_MEM_DIR:-/dev/shm}
scale=${SBACC_BENCH_SCALE:-1}
cycles=${SBACC_BENCH_CYCLES:-100000}
publish=0
report_only=0

for arg in "$@"; do
  case "$arg" in
    --quick) scale=${SBACC_BENCH_SCALE:-0.2}; cycles=${SBACC_BENCH_CYCLES:-5000} ;;
    --publish) publish=1 ;;
    --report-only) report_only=1 ;;
    -h|--help) sed -n '2,18p' "$0"; exit 0 ;;
    *) echo "unknown argument: $arg" >&2; exit 2 ;;
  esac
done

# ---- Build ---------------------------------------------------------------------
if [ "$report_only" -eq 0 ]; then
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DSBACC_BUILD_BENCH=ON -DSBACC_BUILD_TESTS=OFF -DSBACC_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" --target sbacc_bench sbacc_bench_mem -j 2

mkdir -p "$out"
rm -f "$out"/*.json "$out"/report.md "$out"/write_latency.png
fi

# ---- A python with matplotlib for the chart (the report works without it) -----
pick_python() {
  for py in python3 /usr/bin/python3; do
    if command -v "$py" >/dev/null 2>&1 && "$py" -c 'import matplotlib' >/dev/null 2>&1; then
      echo "$py"; return 0
    fi
  done
  return 1
}
if ! py=$(pick_python); then
  if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null 2>&1; then
    echo "installing python3-matplotlib for the chart"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq python3-matplotlib >/dev/null 2>&1 ||
      { apt-get update -qq >/dev/null 2>&1 && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq python3-matplotlib >/dev/null 2>&1; } || true
  fi
  py=$(pick_python) || { echo "no matplotlib: the report will have no chart" >&2; py=python3; }
fi

if [ "$report_only" -eq 0 ]; then
# ---- Machine facts ----------------------------------------------------------------
fs_of() { findmnt -n -o FSTYPE,SOURCE -T "$1" 2>/dev/null | head -1 | awk '{print $1" on "$2}'; }
loadavg() { cut -d' ' -f1-3 /proc/loadavg; }
load_before=$(loadavg)

export MC_TRACE_LEVEL=${MC_TRACE_LEVEL:-1}
unset MC_TRACE_FILE MC_TRACE_DIR SBACC_ALLOC_TRACK

run_suite() {  # backing dir
  echo "== benchmarks on $2 ($1)"
  SBACC_BENCH_DIR="$2" SBACC_BENCH_SCALE="$scale" "$build/bench/sbacc_bench" \
    --benchmark_out="$out/$1.json" --benchmark_out_format=json --benchmark_counters_tabular=false \
    | sed -n '/^---/,$p' | cut -c1-160
}
run_suite disk "$disk_dir"
run_suite memory "$mem_dir"

echo "== memory: start-up peak ($mem_dir)"
SBACC_BENCH_DIR="$mem_dir" SBACC_ALLOC_TRACK=1 "$build/bench/sbacc_bench_mem" startup >"$out/mem_startup.json"
cat "$out/mem_startup.json"
echo "== memory: $cycles open/write/close cycles ($mem_dir)"
SBACC_BENCH_DIR="$mem_dir" SBACC_ALLOC_TRACK=1 "$build/bench/sbacc_bench_mem" cycles "$cycles" >"$out/mem_cycles.json"
cut -c1-200 "$out/mem_cycles.json"

load_after=$(loadavg)
BENCH_ROOT="$root" LOAD_BEFORE="$load_before" LOAD_AFTER="$load_after" \
DISK_FS="$(fs_of "$disk_dir")" MEM_FS="$(fs_of "$mem_dir")" MEM_DIR="$mem_dir" \
  "$py" - "$out/machine.json" <<'EOF'
import datetime, json, os, subprocess, sys
def sh(c):
    try:
        return subprocess.run(c, shell=True, capture_output=True, text=True).stdout.strip()
    except Exception:
        return "?"
root = os.environ["BENCH_ROOT"]
dirty = sh(f"git -C '{root}' status --porcelain --untracked-files=no")
info = {
    "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
    "commit": sh(f"git -C '{root}' rev-parse --short HEAD") + (" + uncommitted changes" if dirty else ""),
    "nproc": sh("nproc"),
    "cpu_model": sh("grep -m1 'model name' /proc/cpuinfo | cut -d: -f2-").strip(),
    "memory": sh("free -h | awk '/^Mem:/{print $2}'"),
    "kernel": sh("uname -r"),
    "compiler": sh("c++ --version | head -1"),
    "load_before": os.environ["LOAD_BEFORE"],
    "load_after": os.environ["LOAD_AFTER"],
    "disk_fs_detail": os.environ["DISK_FS"],
    "memory_fs_detail": os.environ["MEM_FS"],
    "startup_probe_dir": os.environ["MEM_DIR"],
}
json.dump(info, open(sys.argv[1], "w"), indent=1)
EOF
fi

"$py" "$root/bench/report.py" "$out" --notes "$root/bench/notes.md"
echo "report: $out/report.md"

if [ "$publish" -eq 1 ]; then
  mkdir -p "$root/docs"
  "$py" "$root/bench/report.py" "$out" --notes "$root/bench/notes.md" --image-prefix benchmarks-
  cp "$out/report.md" "$root/docs/benchmarks.md"
  [ -f "$out/write_latency.png" ] && cp "$out/write_latency.png" "$root/docs/benchmarks-write_latency.png"
  "$py" "$root/bench/report.py" "$out" --notes "$root/bench/notes.md"
  echo "published: docs/benchmarks.md"
fi
