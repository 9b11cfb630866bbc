#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, benchmark and fuzz.
# Non-interactive and idempotent: packages already present are left alone.
set -euo pipefail

packages=(
  # toolchain
  cmake ninja-build g++ clang pkg-config git
  # libraries the code is built on
  libboost1.81-dev libboost-url1.81-dev libboost-date-time1.81-dev libboost-iostreams1.81-dev
  libicu-dev libzip-dev libcli11-dev libfmt-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev zip unzip
  # benchmark peers
  libglib2.0-dev libpoco-dev
  # docs
  doxygen
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
echo "setup: installing ${missing[*]}"
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
