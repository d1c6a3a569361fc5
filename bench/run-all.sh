#!/usr/bin/env bash
# Runs every benchmark: the Google Benchmark programs in the build tree, then each
# bench/<subsystem>/run.sh script (comparisons with other tools, end-to-end runs).
set -euo pipefail
build=${1:-build-bench}
here=$(cd "$(dirname "$0")" && pwd)
for program in "$build"/bench/*/*_bench; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  "$program" --benchmark_counters_tabular=true
done
for script in "$here"/*/run.sh; do
  [ -x "$script" ] || continue
  echo "== $script"
  "$script" "$build"
done
