#!/usr/bin/env bash
# check.sh subdirectory|package|pkgconfig SOURCE_DIR WORK_DIR [QKFL_BUILD_DIR]
# Builds the consumer programs against the library and runs them: through add_subdirectory,
# through find_package or through pkg-config after cmake --install. The installed tree is
# also checked for the library's SONAME and a working qkfl.
set -euo pipefail
mode=$1 src=$2 work=$3 build=${4:-}
rm -rf "$work" && mkdir -p "$work"

install_tree() {
  cmake --install "$build" --prefix "$work/prefix" >/dev/null
  local lib
  lib=$(find "$work/prefix" -name 'libqkflstorageprovider.so.*.*' | head -n 1)
  readelf -d "$lib" | grep -q 'SONAME.*\[libqkflstorageprovider\.so\.[0-9]*\]' \
    || { echo "no SONAME in $lib" >&2; exit 1; }
  [ -L "$(dirname "$lib")/libqkflstorageprovider.so" ] || { echo "no development symlink" >&2; exit 1; }
  "$work/prefix/bin/qkfl" ls "$work/prefix" | grep -q '^include/$' || { echo "installed qkfl fails" >&2; exit 1; }
}

case "$mode" in
  subdirectory)
    cmake -S "$src/tests/consumer" -B "$work/build" -G Ninja -DQKFL_SOURCE_DIR="$src" >/dev/null
    ;;
  package)
    install_tree
    cmake -S "$src/tests/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
    ;;
  pkgconfig)
    install_tree
    pc=$(dirname "$(find "$work/prefix" -name qkflstorageprovider.pc | head -n 1)")
    mkdir -p "$work/build"
    # shellcheck disable=SC2046
    c++ -std=c++20 "$src/tests/consumer/main.cpp" -o "$work/build/consumer" \
      $(PKG_CONFIG_PATH="$pc" pkg-config --cflags --libs qkflstorageprovider)
    LD_LIBRARY_PATH="$(PKG_CONFIG_PATH="$pc" pkg-config --variable=libdir qkflstorageprovider)" \
      "$work/build/consumer"
    exit 0
    ;;
  *) echo "usage: check.sh subdirectory|package|pkgconfig SOURCE WORK [BUILD]" >&2; exit 2 ;;
esac
# Two jobs: the machines that run this suite share their cores.
cmake --build "$work/build" --parallel 2 >/dev/null
"$work/build/consumer"
"$work/build/consumer_providers"
