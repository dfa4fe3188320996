#!/bin/bash
# Builds the fuzz targets with clang in build-fuzz/ and runs each for a
# bounded time (seconds per target, default 30). A finding stops the script
# with the fuzzer's report and leaves the crashing input in build-fuzz/.
#   scripts/fuzz.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
bash scripts/install-deps.sh

seconds=${1:-30}
fuzzers=(barcode_fuzzer key_value_fuzzer syslog_line_fuzzer text_reader_fuzzer
         neighbour_fuzzer device_id_fuzzer)

step "configuring build-fuzz" env CC=clang CXX=clang++ \
  cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_UTIL_BUILD_EXAMPLES=OFF
step "building the fuzz targets" cmake --build build-fuzz -j 2 --target "${fuzzers[@]}"

for fuzzer in "${fuzzers[@]}"; do
  name=${fuzzer%_fuzzer}
  corpus=build-fuzz/corpus/$name
  mkdir -p "$corpus"
  note "fuzzing $name for ${seconds}s"
  # The library reports every bad input on standard error, hundreds of
  # thousands of lines a run: kept in a log, shown when the fuzzer failed.
  log=build-fuzz/$name.log
  if ! (cd build-fuzz && "tests/fuzz/$fuzzer" -max_total_time="$seconds" \
        -print_final_stats=1 "corpus/$name" "../tests/fuzz/seeds/$name") >"$log" 2>&1; then
    grep -v '^# ' "$log" | tail -n 80 >&2
    echo "fuzz: $name failed (its whole output: $log)" >&2
    exit 1
  fi
  grep -E '^stat::(number_of_executed_units|new_units_added):' "$log" | sed 's/^/    /'
done
