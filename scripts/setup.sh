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
  # the WebDAV provider, and the servers its tests start (never as services; see below)
  libcurl4-openssl-dev libexpat1-dev openssl
  apache2 nginx libnginx-mod-http-dav-ext rclone
  # benchmark peers
  libglib2.0-dev libpoco-dev
  # docs
  doxygen
  # measuring the suite: scripts/coverage.sh and scripts/mutation.sh
  gcovr python3
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
# The web servers are test servers only: the tests start them in the foreground on free
# loopback ports. A policy-rc.d that refuses every start keeps the packages' scripts from
# starting them as services; ours is removed again afterwards.
policy=/usr/sbin/policy-rc.d
own_policy=""
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
  $sudo chmod 755 "$policy"
  own_policy=1
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
[ -z "$own_policy" ] || $sudo rm -f "$policy"
# Where a service manager runs, make sure the servers are neither running nor enabled.
if [ -d /run/systemd/system ]; then
  $sudo systemctl disable --now apache2 nginx >/dev/null 2>&1 || true
fi
echo "setup: done"
