#!/bin/sh
# Builds the LAN message fuzz target with clang (ASan + UBSan), runs it for a
# bounded time from the seed corpus, then measures the line coverage the
# corpus reaches with a second, coverage-instrumented build.
#   scripts/fuzz.sh [SECONDS] [BUILD_DIR]
# Findings (crash-*, leak-*, timeout-*) are written to BUILD_DIR/fuzz-findings
# and make the script fail; inputs found are kept in BUILD_DIR/fuzz-corpus
# between runs (fuzz/corpus, checked in, is only read).
set -eu
seconds=${1:-120}
build=${2:-build-fuzz}
cd "$(dirname "$0")/.."
configure() {
  CC=clang CXX=clang++ cmake -S . -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTRIX_BUILD_FUZZ=ON -DKESTRIX_BUILD_TESTS=OFF "$2" >/dev/null
  cmake --build "$1" --target lan_message_fuzz
}
configure "$build" -DKESTRIX_FUZZ_COVERAGE=OFF
mkdir -p "$build/fuzz-corpus" "$build/fuzz-findings"
# Undefined behaviour counts as a finding unless the caller says otherwise.
UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export UBSAN_OPTIONS
status=0
"$build/fuzz/lan_message_fuzz" -max_total_time="$seconds" -max_len=65536 -timeout=10 \
  -print_final_stats=1 -artifact_prefix="$build/fuzz-findings/" \
  "$build/fuzz-corpus" fuzz/corpus || status=$?
if [ "$status" -ne 0 ] || [ -n "$(ls -A "$build/fuzz-findings")" ]; then
  echo "fuzz: findings in $build/fuzz-findings (status $status)"
  exit 1
fi

# Line coverage of the daemon's code reached by the whole corpus.
cov="$build-cov"
configure "$cov" -DKESTRIX_FUZZ_COVERAGE=ON
rm -f "$cov"/*.profraw
LLVM_PROFILE_FILE="$cov/fuzz-%p.profraw" "$cov/fuzz/lan_message_fuzz" -runs=0 \
  "$build/fuzz-corpus" fuzz/corpus >/dev/null 2>&1
llvm-profdata merge -sparse "$cov"/*.profraw -o "$cov/fuzz.profdata"
scripts/fuzz-coverage.py "$cov/fuzz/lan_message_fuzz" "$cov/fuzz.profdata" | tee "$cov/coverage.txt"
