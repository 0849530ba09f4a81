#!/usr/bin/env bash
# Installs what the build needs (Debian 12, as root), then configures and builds into $BUILD_DIR.
# Usage: tools/setup.sh [extra cmake arguments...]
# QBT_TARGETS="a b" builds only those targets (and what they need) instead of everything.
set -euo pipefail
cd "$(dirname "$0")/.."
packages=(cmake g++ make pkg-config libspdlog-dev libfmt-dev libeigen3-dev libgtest-dev libgmock-dev
          libbenchmark-dev libpng-dev nlohmann-json3-dev libcli11-dev
          python3-dev pybind11-dev python3-numpy python3-pytest
          libopenni2-dev libfreenect-dev libfreenect-bin libsdl2-dev libx11-dev xvfb xauth xdotool)
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
if [ -n "${QBT_TARGETS:-}" ]; then
  # shellcheck disable=SC2086  # a list of target names
  cmake --build "$BUILD_DIR" -j"$(nproc)" --target $QBT_TARGETS
else
  cmake --build "$BUILD_DIR" -j"$(nproc)"
fi
# The system's python3 (the one Debian's NumPy is for) imports the built Python package from
# here on; `cmake --install` installs a copy that takes precedence over it.
if [ -d "$BUILD_DIR/python/quorvik_body_tracking" ] && [ -x /usr/bin/python3 ] && [ "$(id -u)" = 0 ] &&
   grep -q '^QBT_SANITIZE:STRING=$' "$BUILD_DIR/CMakeCache.txt"; then
  site=$(/usr/bin/python3 -c 'import sysconfig; print(sysconfig.get_path("platlib"))')
  mkdir -p "$site" && echo "$(cd "$BUILD_DIR" && pwd)/python" >"$site/quorvik_body_tracking_build.pth"
fi
