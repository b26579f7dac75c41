#!/usr/bin/env bash
# Builds the library, the tool and the tests with the default preset and runs
# the whole test suite.  With --sanitizers it also runs the AddressSanitizer +
# UndefinedBehaviorSanitizer and the ThreadSanitizer builds.  Ends with the
# size of the tests against the code.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --workflow --preset default
if [ "${1:-}" = "--sanitizers" ]; then
  cmake --workflow --preset asan
  cmake --workflow --preset tsan
fi
bash scripts/test-share.sh
