#!/usr/bin/env bash
# Installs what the build needs (Debian 12, as root), then configures and builds into $BUILD_DIR.
# Usage: tools/setup.sh [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
packages=(cmake g++ make pkg-config libspdlog-dev libfmt-dev libeigen3-dev libgtest-dev libgmock-dev
          libbenchmark-dev libpng-dev nlohmann-json3-dev libcli11-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-Release} "$@" >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
