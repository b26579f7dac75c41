#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset: clang, ASan+UBSan) and runs each
# briefly on a copy of its committed seed corpus.  A crash, a sanitizer report
# or a failed check fails the script; the input that did it is kept under
# build/fuzz/artifacts.  FUZZ_SECONDS sets the time per target (default 30).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
seconds=${FUZZ_SECONDS:-30}
build=${FUZZ_BUILD_DIR:-build/fuzz}
cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" --target fuzz_records fuzz_api fuzz_startup
mkdir -p "$build/artifacts"
status=0
for target in records api startup; do
  work=$(mktemp -d)
  cp fuzz/corpus/$target/* "$work/"
  echo "fuzz_$target: ${seconds}s"
  # A unit that runs past the timeout is reported, not fatal: on a loaded
  # machine durable I/O can be slow.  Crashes and sanitizer reports fail.
  if ! (cd "$build/artifacts" && "../fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=60 \
          -timeout_exitcode=0 -print_final_stats=1 "$work" >"fuzz_$target.log" 2>&1); then
    echo "fuzz_$target FAILED; last lines of its log:"
    tail -n 40 "$build/artifacts/fuzz_$target.log"
    status=1
  else
    grep -E '^stat::number_of_executed_units|^Done|libFuzzer: timeout' "$build/artifacts/fuzz_$target.log" || true
  fi
  rm -rf "$work"
done
exit $status
