#!/usr/bin/env bash
# Prints the size of the test suite against the rest of the code: non-blank lines that are not
# '//' comments, of the C++ files git tracks (.cpp .h under tests/ against every other .cpp .h
# .hpp .cc). With --max R it exits 1 when the ratio is above R.
set -euo pipefail
cd "$(dirname "$0")/.."

max=""
[ "${1:-}" = "--max" ] && max=${2:?--max takes a ratio}

lines() { xargs -0 -r cat | grep -c -v -E '^\s*(//.*)?$' || true; }
tests=$(git ls-files -z -- 'tests/*.cpp' 'tests/*.h' | lines)
code=$(git ls-files -z -- '*.cpp' '*.h' '*.hpp' '*.cc' ':!tests/' | lines)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", t / c }')
echo "test-ratio: $tests test lines, $code other lines, ratio $ratio"
if [ -n "$max" ] && awk -v r="$ratio" -v m="$max" 'BEGIN { exit !(r > m) }'; then
  echo "test-ratio: above $max" >&2
  exit 1
fi
