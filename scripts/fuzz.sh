#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the fuzz targets (preset "fuzz": clang, libFuzzer, ASan + UBSan), replays every
# committed corpus once, then fuzzes each target for FUZZ_SECONDS seconds.
#
#   FUZZ_SECONDS   seconds of fuzzing per target (default 60; 0 replays only)
#   FUZZ_TARGETS   which targets (default: all of them)
#   FUZZ_PARALLEL  targets fuzzed at once (default: 2, or 1 on a single core)
#
# The committed corpus (fuzz/corpus/<target>/) only seeds a run: what a run finds goes to
# build/fuzz/work/<target>/, crash inputs to build/fuzz/artifacts/<target>/, the log to
# build/fuzz/logs/<target>.log. Any crash or failed check fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-60}
read -r -a targets <<<"${FUZZ_TARGETS:-udp selfloop hdc_pipe hdc_session ipc}"
cores=$(nproc)
parallel=${FUZZ_PARALLEL:-$((cores >= 2 ? 2 : 1))}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

bin=build/fuzz/fuzz
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Frames are at most 4156 bytes (the self-loop's); the IPC channel's datagrams 263.
max_len() { if [ "$1" = ipc ]; then echo 300; else echo 4200; fi; }

for t in "${targets[@]}"; do
  mapfile -t inputs < <(find "fuzz/corpus/$t" -type f | sort)
  echo "fuzz: replaying ${#inputs[@]} inputs of $t"
  "$bin/fuzz_$t" -max_len="$(max_len "$t")" "${inputs[@]}" >"build/fuzz/replay-$t.log" 2>&1 || {
    cat "build/fuzz/replay-$t.log"; echo "fuzz: replay of $t failed" >&2; exit 1; }
done
[ "$seconds" -gt 0 ] || exit 0

mkdir -p build/fuzz/logs
run_one() {
  local t=$1 work=build/fuzz/work/$1 art=build/fuzz/artifacts/$1/
  mkdir -p "$work" "$art"
  nice -n "${FUZZ_NICE:-10}" "$bin/fuzz_$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" \
    -timeout=30 -print_final_stats=1 -artifact_prefix="$art" "$work" "fuzz/corpus/$t" \
    >"build/fuzz/logs/$t.log" 2>&1
}

summary() {
  local t=$1 log=build/fuzz/logs/$1.log
  local done_line execs rate
  done_line=$(grep -E '#[0-9]+.*(DONE|cov:)' "$log" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  execs=$(grep -oE 'number_of_executed_units: [0-9]+' "$log" | grep -oE '[0-9]+' || echo '?')
  rate=$(grep -oE 'average_exec_per_sec: +[0-9]+' "$log" | grep -oE '[0-9]+$' || echo '?')
  printf 'fuzz: %-12s %ss  %s execs  %s exec/s  %s\n' "$t" "$seconds" "$execs" "$rate" "$done_line"
}

status=0
declare -A running=()
finish_one() {
  local pid
  wait -n -p pid "${!running[@]}" || { status=1; echo "fuzz: ${running[$pid]} FAILED, see build/fuzz/logs/${running[$pid]}.log" >&2; }
  summary "${running[$pid]}"
  unset "running[$pid]"
}
for t in "${targets[@]}"; do
  [ ${#running[@]} -lt "$parallel" ] || finish_one
  run_one "$t" &
  running[$!]=$t
done
while [ ${#running[@]} -gt 0 ]; do finish_one; done
exit $status
