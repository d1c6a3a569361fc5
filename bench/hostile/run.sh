#!/usr/bin/env bash
# Hostile servers against an uninstrumented `lectern`: the end-to-end tests of tests/hostile run
# the program of the given build (Release by default) instead of the sanitized one, which makes
# them check the 200 MB memory bound, and print per case the time to the error and the peak
# resident memory of the program (wait4's ru_maxrss).
# Usage: bench/hostile/run.sh [BUILD_DIR]   (the test harness comes from build-test)
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-build-bench}
program=$(realpath "$build/lectern")
harness=${HOSTILE_TESTS:-$here/build-test/tests/hostile/hostile_tests}
if [ ! -x "$program" ] || [ ! -x "$harness" ]; then
  echo "hostile: needs $build/lectern and $harness (make build-bench; cmake --build build-test --target hostile_tests)" >&2
  exit 1
fi
LECTERN_HOSTILE_PROGRAM="$program" "$harness" --gtest_filter='HostileFeedTest.*' | grep -E '^\[( figures|  FAILED|       OK|  PASSED)'
