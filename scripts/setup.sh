#!/usr/bin/env bash
# Installs every Debian package the project needs, only what is missing.
# Idempotent; needs no standard input.
set -euo pipefail

PACKAGES=(
  build-essential g++ cmake ninja-build pkg-config make
  libssl-dev libjansson-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  util-linux coreutils procps python3 jq
  libmicrohttpd-dev prometheus curl
  prometheus-node-exporter iproute2
  debhelper dpkg-dev fakeroot lintian help2man systemd
)
# Optional extras are named on the command line and installed only then, e.g.
# `bash scripts/setup.sh gnuplot-nox` for bench/cost_curve.sh's PNGs (not CI).
PACKAGES+=("$@")

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
