#!/usr/bin/env bash
# Builds what the demo runs (the library and qbt; the data file ships in data/) and runs it.
# tools/test.sh builds the rest.
set -euo pipefail
cd "$(dirname "$0")/.."
QBT_TARGETS=qbt_cmd tools/setup.sh
exec build/tools/cli/qbt demo "$@"
