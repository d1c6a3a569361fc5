#!/bin/sh
# Fixed cost of a `lectern` command: the median wall time of `--version`, `--help` and `list` on an
# empty library, with `xmllint --version` beside them for the machine's own floor. Uses hyperfine
# when installed, else times RUNS runs itself.
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

if command -v hyperfine > /dev/null 2>&1; then
  hyperfine -N --warmup 10 --runs "$runs" \
    "$lectern --version" "$lectern --help" "$lectern --home $home list" \
    "$( command -v xmllint > /dev/null && echo 'xmllint --version' || echo true)"
  exit 0
fi

# Median of RUNS wall times in milliseconds, measured by Python around each spawn.
python3 - "$runs" "$lectern" "$home" <<'PY'
import shutil, subprocess, sys, time
runs, lectern, home = int(sys.argv[1]), sys.argv[2], sys.argv[3]
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
PY
