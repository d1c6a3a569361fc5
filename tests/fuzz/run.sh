#!/usr/bin/env bash
# Runs the libFuzzer programs of a LECTERN_FUZZ build: `run.sh BUILD SECONDS TARGET...`.
# SECONDS = 0 only replays each target's seeds and recorded crashes (what CI does).
# Each target keeps its growing corpus in BUILD/corpus/TARGET and writes what it finds to
# BUILD/findings/TARGET; the last lines are a table: executions per second, coverage, findings.
# FUZZ_JOBS runs that many targets at once (default 1).
set -uo pipefail
build=$1; seconds=$2; shift 2
here=$(cd "$(dirname "$0")" && pwd)
corpus_root="${LECTERN_CORPUS_DIR:-$here/../../../shared/corpus}"
jobs=${FUZZ_JOBS:-1}
mkdir -p "$build/fuzz-logs"

run_one() {
  local target=$1 program="$build/tests/fuzz/fuzz_$1"
  local seeds extra=()
  read -r -a seeds < "$program.seeds"
  # The shared corpus of real feeds and pages, when it is beside the checkout.
  case $target in
    feeds) [ -d "$corpus_root/feeds" ] && extra=("$corpus_root/feeds") ;;
    html) [ -d "$corpus_root/pages" ] && extra=("$corpus_root/pages") ;;
  esac
  local log="$build/fuzz-logs/$target.log"
  if [ "$seconds" = 0 ]; then
    "$program" -runs=0 -timeout=60 -rss_limit_mb=2048 "${seeds[@]}" > "$log" 2>&1
    return $?
  fi
  mkdir -p "$build/corpus/$target" "$build/findings/$target"
  # Whole pages are big; the interesting structure of every input fits well within this.
  local max_len=65536
  case $target in services|html) max_len=16384 ;; esac
  nice -n "${FUZZ_NICE:-0}" "$program" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
    -max_len=$max_len -print_final_stats=1 -artifact_prefix="$build/findings/$target/" \
    "$build/corpus/$target" "${seeds[@]}" "${extra[@]}" > "$log" 2>&1
}

status=0
pids=()
for target in "$@"; do
  run_one "$target" &
  pids+=($!)
  if [ ${#pids[@]} -ge "$jobs" ]; then
    wait "${pids[0]}" || status=1
    pids=("${pids[@]:1}")
  fi
done
for pid in "${pids[@]}"; do wait "$pid" || status=1; done

printf '%-12s %10s %10s %8s %8s %s\n' target runs exec/s cov ft findings
for target in "$@"; do
  log="$build/fuzz-logs/$target.log"
  runs=$(grep 'stat::number_of_executed_units:' "$log" | awk '{print $2}' | tail -1)
  speed=$(grep 'stat::average_exec_per_sec:' "$log" | awk '{print $2}' | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  found=$(ls "$build/findings/$target" 2>/dev/null | wc -l)
  if grep -q "ERROR: AddressSanitizer\|runtime error\|ERROR: libFuzzer\|fuzz: " "$log"; then found="$found (see $log)"; fi
  printf '%-12s %10s %10s %8s %8s %s\n' "$target" "${runs:--}" "${speed:--}" "${cov:--}" "${ft:--}" "$found"
done
exit $status
