#!/usr/bin/env bash
# Runs the scenario tests (engine, start-up restore and data repair, and a
# slice of the fault matrix) under valgrind memcheck, each test in a process
# of its own as ctest runs them, two at a time.  Any memcheck error or leak
# fails the script.  Uses the default build (build/default), building it if
# it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v valgrind >/dev/null; then
  if [ "$(id -u)" -eq 0 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq valgrind >/dev/null
  else
    echo "valgrind is not installed (apt-get install valgrind)" >&2
    exit 1
  fi
fi
build=${VALGRIND_BUILD_DIR:-build/default}
if [ ! -x "$build/tests/sbacc_tests" ]; then
  bash scripts/deps.sh
  cmake --preset default >/dev/null
  cmake --build "$build" --target sbacc_tests
fi
tests=$build/tests/sbacc_tests
filter='EngineTest.*:*CopiesTest.*:RestoreTest.*:*VerdictTest.*'
filter+=':DataRepair*:FaultMatrix.NvTransfersFailing:Matrix/Corruption.*/data_byte_2copies_bad0'
filter+=':Ops/HddFaults.EveryCallOnEveryCopy/write:Ops/HddFaults.EveryCallOnEveryCopy/restore'
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
# GoogleTest prints the raw bytes of a test parameter that has padding when it
# names the instantiation; those padding bytes were never written.  That is
# the harness, not the code under test.
cat >"$logs/gtest.supp" <<'SUPP'
{
   gtest-prints-parameter-padding
   Memcheck:Value8
   ...
   fun:*PrintByteSegmentInObjectTo*
}
{
   gtest-prints-parameter-padding-cond
   Memcheck:Cond
   ...
   fun:*PrintByteSegmentInObjectTo*
}
SUPP
# gtest's listing: suite lines end in '.', test lines are indented.
"$tests" --gtest_list_tests --gtest_filter="$filter" | awk '
  /^[^ ]/ { suite = $1; next }
  /^  /   { print suite $1 }' >"$logs/list"
count=$(wc -l <"$logs/list")
echo "valgrind memcheck: $count tests"
export SBACC_ALLOC_TRACK=1 MC_TRACE_LEVEL=5
run_one() {
  local name=$1 log
  log="$2/$(echo "$name" | tr '/' '_').log"
  if valgrind -q --error-exitcode=99 --suppressions="$2/gtest.supp" --leak-check=full --errors-for-leak-kinds=definite,indirect \
      --show-leak-kinds=definite,indirect "$3" --gtest_filter="$name" >"$log" 2>&1; then
    echo "ok    $name"
  else
    echo "FAIL  $name"
    tail -n 60 "$log"
    return 1
  fi
}
export -f run_one
status=0
xargs -P 2 -I{} bash -c 'run_one "$@"' _ {} "$logs" "$tests" <"$logs/list" >"$logs/out" || status=1
grep -v '^ok' "$logs/out" || true
passed=$(grep -c '^ok' "$logs/out" || true)
echo "valgrind: $passed passed, $((count - passed)) failed"
exit $status
