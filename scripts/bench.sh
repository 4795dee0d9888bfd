#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every benchmark program of a build folder, one after the other.
set -euo pipefail
# Pollers started and stopped by the benchmarks would otherwise print their specified
# stop warning hundreds of times between the results.
export VELMAR_LOG_LEVEL=${VELMAR_LOG_LEVEL:-error}
build=${1:-build/release}
found=0
for bench in "$build"/bench/bench_*; do
  [ -x "$bench" ] || continue
  found=1
  echo "=== $(basename "$bench")"
  "$bench" --benchmark_min_time=0.2
done
[ "$found" -eq 1 ] || { echo "bench: no benchmark programs in $build/bench" >&2; exit 1; }
