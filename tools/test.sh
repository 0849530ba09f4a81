#!/usr/bin/env bash
# Builds everything and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh
ctest --test-dir build --output-on-failure -j"$(nproc)"
