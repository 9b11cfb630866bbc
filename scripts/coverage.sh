#!/usr/bin/env bash
# Line and branch coverage of the whole debug test suite (the WebDAV tests included) over the
# library's own code: src/, providers/ and platform/ (not tests, bench, fuzz or tools).
#
# Builds the debug configuration with --coverage in build/coverage, runs every ctest test,
# then prints
#   coverage: lines NN.N%
#   coverage: branches NN.N%
# and leaves build/coverage/coverage.txt (per file) and build/coverage/html/index.html.
# A failing test is reported (and makes the exit status 1), but the coverage is still
# computed from what ran.
#
# Environment: CMAKE_CXX_COMPILER_LAUNCHER (e.g. ccache) is passed on to the build;
# JOBS (default 2) bounds the build and ctest.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2

build=build/coverage
jobs=${JOBS:-2}
launcher=${CMAKE_CXX_COMPILER_LAUNCHER:-}

# -fprofile-update=atomic: the watch and stress tests run threads; without it their counters
# race and gcov reports impossible counts.
flags="--coverage -fprofile-update=atomic"
cmake --preset debug -B "$build" \
  -DQKFL_BUILD_BENCHMARKS=OFF \
  -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  ${launcher:+-DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"} >/dev/null || exit 2
cmake --build "$build" -- -j"$jobs" || exit 2

# Counters of an earlier run would add to this one.
find "$build" -name '*.gcda' -delete

# packaging.exports and consumer.find_package are left out: the gcov runtime linked into the
# library exports symbols of its own (__gcov_*), which the first rightly refuses and which the
# installed package's consumer, built without --coverage, cannot resolve.
tests_ok=1
ctest --test-dir "$build" -j "$jobs" -E '^(packaging\.exports|consumer\.find_package)$' --output-on-failure --timeout 600 \
  >"$build/ctest.log" 2>&1 || tests_ok=0
grep -E '^[0-9]+% tests passed|^\s+[0-9]+ - .*\((Failed|Timeout|SEGFAULT|Subprocess|Exception)' \
  "$build/ctest.log"
[ "$tests_ok" = 1 ] || echo "coverage: some tests failed (see $build/ctest.log); coverage counts what ran"

# Branches the compiler adds for exception unwinding (--exclude-throw-branches) and branches on
# lines with no code of their own, such as a closing brace (--exclude-unreachable-branches), are
# not decisions of the code, so neither side of them is counted.
mkdir -p "$build/html"
gcovr --root . --object-directory "$build" \
  --filter 'src/' --filter 'providers/' --filter 'platform/' \
  --exclude-unreachable-branches --exclude-throw-branches \
  -j "$jobs" \
  --txt "$build/coverage.txt" \
  --html-details "$build/html/index.html" \
  --json-summary "$build/coverage.json" \
  "$build" || exit 2

python3 - "$build/coverage.json" <<'EOF'
import json, sys
s = json.load(open(sys.argv[1]))
print("coverage: lines %.1f%%" % s["line_percent"])
print("coverage: branches %.1f%%" % s["branch_percent"])
EOF

[ "$tests_ok" = 1 ]
