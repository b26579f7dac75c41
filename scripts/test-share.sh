#!/usr/bin/env bash
# Prints the size of the tests against the code they test, counted as
# non-blank lines that are not comments in C and C++ files: tests/, fuzz/ and
# tools/*_test.cc against common/, include/, platform/ and tools/ (benchmarks
# on neither side).  The project keeps tests at 25-35 % of the code.
set -euo pipefail
cd "$(dirname "$0")/.."
src() { git ls-files -co --exclude-standard -- "$@" | grep -E '\.(c|cc|cpp|h|hpp)$' || true; }
lines() { xargs -r cat | grep -cvE '^\s*($|//|/\*|\*)' || true; }
code=$(src common include platform tools | grep -vE '_test\.(c|cc|cpp)$' | lines)
tests=$( { src tests fuzz; src tools | grep -E '_test\.(c|cc|cpp)$'; } | lines)
echo "test share: ${tests} lines of tests for ${code} lines of code, $(( 100 * tests / code ))% (band 25-35%)"
