#!/usr/bin/env bash
# Hostile servers against an uninstrumented `lectern`: the end-to-end tests of tests/hostile run
# the program of the given build (Release by default) instead of the sanitized one, which makes
# them check the 200 MB memory bound, and print per case the time to the error and the peak
# resident memory of the program (wait4's ru_maxrss). Each case is a line of
# LECTERN_BENCH_RESULTS, its memory beside that of a sync of one good feed.
# Usage: bench/hostile/run.sh [BUILD_DIR]   (the test harness comes from build-test; without it
#        the run is skipped: cmake --build build-test --target hostile_tests)
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-build-bench}
program=$(realpath "$build/lectern")
harness=${HOSTILE_TESTS:-$here/build-test/tests/hostile/hostile_tests}
if [ ! -x "$program" ]; then
  echo "hostile: needs $build/lectern (make build-bench)" >&2
  exit 1
fi
if [ ! -x "$harness" ]; then
  echo "hostile: skipped, the test harness $harness is not built" \
    "(make build-test, or cmake --build build-test --target hostile_tests)" >&2
  exit 0
fi
figures=$(mktemp)
trap 'rm -f "$figures"' EXIT
status=0
LECTERN_HOSTILE_PROGRAM="$program" "$harness" --gtest_filter='HostileFeedTest.*' > "$figures" || status=$?
grep -E '^\[( figures|  FAILED|       OK|  PASSED)' "$figures" || true
/usr/bin/python3 - "$here/bench" "$figures" <<'PY'
import re, sys
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, sys.argv[1])
import results
text = open(sys.argv[2], encoding="utf-8", errors="replace").read()
baseline = re.search(r"^\[ figures  \] \(one good feed only\)\s+([\d.]+)\s+(\d+)", text, re.M)
floor = {"floor": float(baseline.group(2)), "floor_name": "a sync of one good feed"} if baseline else {}
everything = re.search(r"^\[ figures  \] all cases in one sync: ([\d.]+) s, peak (\d+) MiB", text, re.M)
if everything:
    results.append({"group": "hostile servers", "name": "every hostile case in one sync: peak memory",
                    "value": float(everything.group(2)), "unit": "MB", "goal": "< 200 MB", **floor,
                    "note": f"{everything.group(1)} s"})
for case, seconds, peak, error in re.findall(
        r"^\[ figures  \] (\S.*?)\s+([\d.]+)\s+(\d+)  (.*)$", text, re.M):
    results.append({"group": "hostile servers", "name": f"{case}: peak memory", "value": float(peak),
                    "unit": "MB", "goal": "< 200 MB", **floor, "note": f"error after {seconds} s: {error[:60]}"})
PY
exit "$status"
