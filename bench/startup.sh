#!/bin/sh
# Fixed cost of a `lectern` command: the median wall time of `--version`, `--help` and `list` on an
# empty library, with `xmllint --version` beside them for the machine's own floor (a small program
# of a few shared libraries doing next to nothing). Uses hyperfine when installed, else times RUNS
# runs itself; each median is also a line of LECTERN_BENCH_RESULTS, goal 5 ms.
# Usage: bench/startup.sh [BUILD_DIR] (default build-bench; a Release build is what counts)
set -eu
build=${1:-build-bench}
lectern="$build/lectern"
runs=${RUNS:-100}
[ -x "$lectern" ] || { echo "no $lectern: build it first (make build-bench)" >&2; exit 1; }
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
# An empty library: the first `list` creates the folders and the store.
"$lectern" --home "$home" list > /dev/null

echo "shared libraries loaded: $(ldd "$lectern" | grep -c '=>')"

results=$(dirname "$0")/results.py
if command -v hyperfine > /dev/null 2>&1; then
  hyperfine -N --warmup 10 --runs "$runs" --export-json "$home/hyperfine.json" \
    "$lectern --version" "$lectern --help" "$lectern --home $home list" \
    "$( command -v xmllint > /dev/null && echo 'xmllint --version' || echo true)"
  /usr/bin/python3 - "$home/hyperfine.json" "$results" "$lectern" "$home" <<'PY'
import json, subprocess, sys
runs = json.load(open(sys.argv[1]))["results"]
medians = {r["command"]: r["median"] * 1000 for r in runs}
floor = medians.get("xmllint --version")
for command, ms in medians.items():
    if not command.startswith(sys.argv[3]):
        continue
    label = "lectern" + command[len(sys.argv[3]):].replace(sys.argv[4], "HOME")
    line = ["add", "--group", "start-up", "--name", f"{label} (median)", "--value", str(ms), "--unit", "ms",
            "--goal", "< 5 ms", "--note", f"hyperfine, {len(runs[0]['times'])} runs"]
    if floor is not None:
        line += ["--floor", str(floor), "--floor-name", "xmllint --version"]
    subprocess.run([sys.executable, sys.argv[2], *line], check=True)
PY
  exit 0
fi

# Median of RUNS wall times in milliseconds, measured by Python around each spawn.
/usr/bin/python3 - "$runs" "$lectern" "$home" "$(dirname "$0")" <<'PY'
import shutil, subprocess, sys, time
runs, lectern, home = int(sys.argv[1]), sys.argv[2], sys.argv[3]
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, sys.argv[4])
import results
medians = {}
commands = [[lectern, "--version"], [lectern, "--help"], [lectern, "--home", home, "list"]]
if shutil.which("xmllint"):
    commands.append(["xmllint", "--version"])
for command in commands:
    for _ in range(5):  # warm the page cache
        subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        times.append((time.perf_counter() - start) * 1000)
    times.sort()
    label = " ".join(c if c != home else "HOME" for c in command[1:])
    print(f"{command[0].split('/')[-1]} {label:<20} median {times[len(times) // 2]:6.2f} ms   min {times[0]:6.2f} ms")
    medians[f"{command[0].split('/')[-1]} {label}"] = times[len(times) // 2]
floor = medians.get("xmllint --version")
for label, ms in medians.items():
    if label.startswith("lectern"):
        line = {"group": "start-up", "name": f"{label} (median)", "value": ms, "unit": "ms", "goal": "< 5 ms",
                "note": f"{runs} runs, timed around each spawn"}
        if floor is not None:
            line.update({"floor": floor, "floor_name": "xmllint --version"})
        results.append(line)
PY
