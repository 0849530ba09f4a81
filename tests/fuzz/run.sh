#!/usr/bin/env bash
# Builds the two fuzzers with clang and runs them side by side for a bounded time: the
# forest data file reader, and depth maps through the C interface (the whole library built
# with ASan, UBSan and libFuzzer's coverage, in build-fuzz/depth).
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

# Clang warns about things GCC does not; the GCC builds keep the library free of warnings.
cmake -S "$root" -B "$out/depth" -DCMAKE_C_COMPILER="${CC_FUZZ:-clang}" -DCMAKE_CXX_COMPILER="$CXX" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQBT_SANITIZE=address,undefined -DQBT_WERROR=OFF \
  -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link -DQBT_BUILD_FUZZ=ON -DQBT_BUILD_TESTS=OFF \
  -DQBT_BUILD_BENCH=OFF -DQBT_BUILD_TOOLS=OFF -DQBT_BUILD_PYTHON=OFF >/dev/null
cmake --build "$out/depth" -j"$(nproc)" --target qbt_depth_fuzz >/dev/null
mkdir -p "$out/depth_corpus"

# New inputs go to the scratch corpora; the checked-in seeds stay as they are. The parser
# names unexpected chunks on standard output, and the tracker logs there, which is of no
# interest here; libFuzzer's own report goes to standard error.
"$out/forest_reader_fuzz" "$out/corpus" "$root/tests/fuzz/corpus" \
  -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=1024 \
  -print_final_stats=1 >/dev/null &
reader=$!
status=0
# The tracker runs threads of its own: a slow input is a hang only after 30 s.
"$out/depth/tests/fuzz/qbt_depth_fuzz" "$out/depth_corpus" "$root/tests/fuzz/depth_corpus" \
  -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -malloc_limit_mb=1024 -max_len=12000 \
  -print_final_stats=1 >/dev/null || status=$?
wait "$reader" || status=$?
exit "$status"
