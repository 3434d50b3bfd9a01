#!/bin/sh
# Builds the LAN message fuzz target with clang and runs it.
#   scripts/fuzz.sh [SECONDS] [BUILD_DIR]
# Findings (crash-*, leak-*, timeout-*) are written to BUILD_DIR/fuzz-findings;
# the growing corpus is kept in BUILD_DIR/fuzz-corpus between runs.
set -eu
seconds=${1:-60}
build=${2:-build-fuzz}
cd "$(dirname "$0")/.."
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKESTRIX_BUILD_FUZZ=ON -DKESTRIX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target lan_message_fuzz
mkdir -p "$build/fuzz-corpus" "$build/fuzz-findings"
# Undefined behaviour counts as a finding unless the caller says otherwise.
UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export UBSAN_OPTIONS
exec "$build/fuzz/lan_message_fuzz" -max_total_time="$seconds" -max_len=65536 \
  -artifact_prefix="$build/fuzz-findings/" "$build/fuzz-corpus"
