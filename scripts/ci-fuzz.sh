#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset: clang, ASan+UBSan) and runs each
# briefly on a copy of its committed seed corpus.  A crash, a sanitizer report,
# a failed check or a unit past the timeout fails the script; the input that
# did it is kept under build/fuzz/artifacts.  FUZZ_SECONDS sets the time per
# target (default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
seconds=${FUZZ_SECONDS:-60}
build=${FUZZ_BUILD_DIR:-build/fuzz}
cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" --target fuzz_api fuzz_startup
mkdir -p "$build/artifacts"
status=0
for target in api startup; do
  work=$(mktemp -d)
  cp fuzz/corpus/$target/* "$work/"
  echo "fuzz_$target: ${seconds}s"
  # The disks and NV are in memory and a unit takes milliseconds: one that
  # runs for 30 s hangs.  No area is larger than a few KiB: an allocation
  # over 64 MiB took a size from a header it should not have trusted.  Leaks
  # are the rig's to find (no descriptor or block of the library may outlive
  # an input): LeakSanitizer, between inputs and at exit, takes the trace
  # stand-in's thread-local strings of a live or retiring worker (dynamic TLS
  # of a shared library) for a leak.
  if ! (cd "$build/artifacts" && ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" \
          "../fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=30 -malloc_limit_mb=64 -detect_leaks=0 \
          -print_final_stats=1 "$work" >"fuzz_$target.log" 2>&1); then
    echo "fuzz_$target FAILED; last lines of its log:"
    tail -n 40 "$build/artifacts/fuzz_$target.log"
    status=1
  else
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec)|DONE' "$build/artifacts/fuzz_$target.log" || true
  fi
  rm -rf "$work"
done
exit $status
