#!/usr/bin/env bash
# check.sh subdirectory|package SOURCE_DIR WORK_DIR [QKFL_BUILD_DIR]
# Builds the consumer project against the library and runs it.
set -euo pipefail
mode=$1 src=$2 work=$3 build=${4:-}
rm -rf "$work" && mkdir -p "$work"
case "$mode" in
  subdirectory)
    cmake -S "$src/tests/consumer" -B "$work/build" -G Ninja -DQKFL_SOURCE_DIR="$src" >/dev/null
    ;;
  package)
    cmake --install "$build" --prefix "$work/prefix" >/dev/null
    cmake -S "$src/tests/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
    ;;
  *) echo "usage: check.sh subdirectory|package SOURCE WORK [BUILD]" >&2; exit 2 ;;
esac
cmake --build "$work/build" >/dev/null
"$work/build/consumer"
