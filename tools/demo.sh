#!/usr/bin/env bash
# Builds everything and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh
exec build/tools/cli/qbt demo "$@"
