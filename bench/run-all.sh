#!/usr/bin/env bash
# Runs every benchmark: the Google Benchmark programs in the build tree, then each
# bench/<subsystem>/run.sh script (comparisons with other tools, end-to-end runs) and
# bench/startup.sh, and ends with one table of every figure beside its goal, its floor and the
# peer measured in the same run (docs/benchmarks.md says what each figure is).
#
# Each part appends one JSON line per figure to the file LECTERN_BENCH_RESULTS names
# (bench/results.py add; the programs' JSON output goes through bench/results.py gbench).
# A part that fails or cannot run is named at the end; the others still run.
#
# Usage: bench/run-all.sh [BUILD_DIR]
#   env: BENCH_FULL=1  the long cases too (the engine scan and index build of smart_bench, the
#                      middle insert variant of store_bench, scale at 50,000 and 500,000 stories,
#                      three extraction runs per page instead of one);
#                      the default run takes about 7.5 minutes on 2 cores
#        LECTERN_BENCH_RESULTS=FILE  where the lines go (default BUILD_DIR/bench-results.jsonl)
set -uo pipefail
build=$(cd "${1:-build-bench}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
full=${BENCH_FULL:-0}
export LECTERN_BENCH_RESULTS=${LECTERN_BENCH_RESULTS:-$build/bench-results.jsonl}
: > "$LECTERN_BENCH_RESULTS"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
started=$(date +%s)
load_at_start=$(cut -d' ' -f1-3 /proc/loadavg)
failed=()

# Extra arguments of a program. Cases a run.sh script runs itself, beside its floor or peers, are
# not run twice; without BENCH_FULL the longest cases wait.
program_args() {
  case "$1" in
    content_bench) echo "--benchmark_filter=BM_Extract20MBPage" ;;
    feeds_bench) echo "--benchmark_filter=-BM_(BareSax|DictionaryPath)/" ;;
    smart_bench) [ "$full" = 1 ] || echo "--benchmark_filter=-(EngineScan|InsertWithoutIndex) --benchmark_min_time=0.1" ;;
    store_bench) [ "$full" = 1 ] || echo "--benchmark_filter=-BM_InsertStoriesPlainSqlite/" ;;
  esac
}

part_started() { echo; echo "== $1 ($(date -u +%H:%M:%S), load $(cut -d' ' -f1 /proc/loadavg))"; }

for program in "$build"/bench/*/*_bench; do
  [ -x "$program" ] || continue
  name=$(basename "$program")
  part_started "$name"
  # shellcheck disable=SC2046 # the arguments are words on purpose
  if ! "$program" $(program_args "$name") --benchmark_counters_tabular=true \
    --benchmark_out="$out/$name.json" --benchmark_out_format=json; then
    failed+=("$name")
  fi
  /usr/bin/python3 "$here/results.py" gbench "$name" "$out/$name.json"
done

if [ "$full" != 1 ]; then
  export SIZES=${SIZES:-50000}           # bench/scale: the 500,000-story library takes 8 minutes to make
  export CONTENT_REPEATS=${CONTENT_REPEATS:-1}  # bench/content: readability.js takes 40 s a pass
fi
for script in "$here"/*/run.sh "$here/startup.sh"; do
  [ -x "$script" ] || continue
  part_started "${script#"$here"/}"
  "$script" "$build" || failed+=("${script#"$here"/}")
done

minutes=$(awk -v s=$(($(date +%s) - started)) 'BEGIN { printf "%.1f", s / 60 }')
{
  echo
  echo "## Figures"
  echo
  echo "$(nproc) CPUs ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')), load $load_at_start" \
    "at the start and $(cut -d' ' -f1-3 /proc/loadavg) at the end; $minutes minutes" \
    "$([ "$full" = 1 ] && echo "(BENCH_FULL=1)" || echo "(default sizes)")."
  echo "Ratios are of costs: Lectern/floor above 1 is how far Lectern is from the floor, peer/Lectern"
  echo "above 1 how much more the peer costs (for figures where higher is better, both are inverted)."
  /usr/bin/python3 "$here/results.py" table "$LECTERN_BENCH_RESULTS"
  if [ ${#failed[@]} -gt 0 ]; then
    echo
    echo "Failed: ${failed[*]} (their output is above)."
  fi
} | tee "$build/bench-results.md"
echo
echo "(the lines: $LECTERN_BENCH_RESULTS; the table: $build/bench-results.md)"
[ ${#failed[@]} -eq 0 ]
