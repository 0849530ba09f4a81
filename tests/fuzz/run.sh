#!/usr/bin/env bash
# Builds the forest data file fuzzer with clang and runs it for a bounded time.
# Usage: tests/fuzz/run.sh [seconds]   (default 60)
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
out="$root/build-fuzz"
mkdir -p "$out/corpus"

CXX="${CXX_FUZZ:-clang++}"
"$CXX" -std=c++20 -O1 -g -fno-omit-frame-pointer \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
  -Wall -Wextra -Werror \
  -I"$root/src" \
  "$root/tests/fuzz/forest_reader_fuzz.cpp" \
  "$root/src/forest/forest_reader.cpp" \
  "$root/src/forest/forest_writer.cpp" \
  "$root/src/forest/input_stream.cpp" \
  "$root/src/forest/label_distribution.cpp" \
  "$root/src/forest/decision_forest.cpp" \
  -o "$out/forest_reader_fuzz"

# New inputs go to the scratch corpus; the checked-in seeds stay as they are. The parser
# names unexpected chunks on standard output, which is of no interest here.
"$out/forest_reader_fuzz" "$out/corpus" "$root/tests/fuzz/corpus" \
  -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=1024 \
  -print_final_stats=1 >/dev/null
