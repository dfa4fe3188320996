#!/bin/bash
# Builds the benchmarks (bench/, Google Benchmark) in build-bench/ and runs
# each: the library side by side with the raw system calls. Prints the
# ratios that the README's performance table gives; the full tables go to
# build-bench/<name>.txt. Timing is the VM's own and varies from run to run,
# so the ratios are reported, never judged here.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
bash scripts/install-deps.sh

build_tree . build-bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_UTIL_BUILD_BENCH=ON \
  -DBUILD_TESTING=OFF -DQEL_UTIL_BUILD_EXAMPLES=OFF -DQEL_UTIL_BUILD_TOOLS=OFF
for bench in msgq_bench socket_bench daemonize_bench start_race_bench; do
  note "$bench"
  build-bench/bench/$bench --benchmark_color=false >"build-bench/$bench.txt" 2>&1
  grep -E 'target|throughput ratio' "build-bench/$bench.txt" |
    sed -e 's/\x1b\[[0-9;]*m//g' -e 's/^/    /'
done
