#!/usr/bin/env bash
# Extraction time per page over the corpus of real article pages, for Lectern and, in the same
# run and over the same pages, python3-readability (Debian) and Mozilla's readability on jsdom
# (npm, installed into the build folder at run time). Each tool reads every page into memory
# first and times the extraction alone, REPEATS runs per page; a page's time is the median of
# its runs, and the table gives the median over the pages and their sum, as wall-clock and as
# CPU time (the figure that holds up on a busy machine). Lectern's decoding and parse of the same
# pages alone (libxml2's HTML parser, no rules) is the floor of its extraction. Each figure is also
# a line of LECTERN_BENCH_RESULTS, with each extractor as its peer.
#
# Usage: bench/content/run.sh [BUILD_DIR]   (env: REPEATS=3, PAGES=<corpus>/pages;
#        CONTENT_REPEATS overrides REPEATS here alone, as bench/run-all.sh does)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-build-bench}" && pwd)
pages=${PAGES:-$root/../shared/corpus/pages}
repeats=${CONTENT_REPEATS:-${REPEATS:-3}}
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT

if ! ls "$pages"/*.html > /dev/null 2>&1; then
  echo "shared corpus not found at $pages (no .html pages): the extraction comparison is skipped;" \
    "put the shared folder beside the checkout or set PAGES" >&2
  exit 0
fi

bench="$build/bench/content/content_bench"
[ -x "$bench" ] || cmake --build "$build" --target content_bench
echo "Pages: $pages ($(ls "$pages"/*.html | wc -l) files), $repeats runs each" >&2

echo "lectern ..." >&2
LECTERN_BENCH_PAGES="$pages" LECTERN_BENCH_REPEATS="$repeats" "$bench" --benchmark_filter='BM_(Extract|Parse)Corpus' \
  --benchmark_format=json > "$results/lectern.json" 2>/dev/null

python_missing=
node_missing=
if /usr/bin/python3 -c "import readability" 2>/dev/null; then
  echo "python3-readability ..." >&2
  /usr/bin/python3 "$here/readability_lxml_bench.py" "$pages" "$repeats" > "$results/python.json"
else
  echo "python3-readability is missing (apt-get install python3-readability): skipped" >&2
  python_missing="the readability module is missing under /usr/bin/python3"
fi

modules="$build/content-baselines/node_modules"
if command -v node > /dev/null && command -v npm > /dev/null; then
  if [ ! -d "$modules/jsdom" ] || [ ! -d "$modules/@mozilla/readability" ]; then
    echo "installing @mozilla/readability and jsdom into $build/content-baselines ..." >&2
    npm install --prefix "$build/content-baselines" --no-audit --no-fund --loglevel=error \
      @mozilla/readability jsdom > /dev/null || node_missing="npm install of @mozilla/readability and jsdom failed"
  fi
  if [ -z "$node_missing" ]; then
    echo "readability.js on jsdom ..." >&2
    node "$here/readability_js_bench.cjs" "$modules" "$pages" "$repeats" > "$results/node.json" ||
      node_missing="readability_js_bench.cjs failed"
  fi
else
  echo "node and npm are missing: readability.js skipped" >&2
  node_missing="$(command -v node > /dev/null && echo npm || echo node) is missing"
fi

/usr/bin/python3 - "$results" "$modules" "$here/.." "$python_missing" "$node_missing" <<'PY'
import json, pathlib, subprocess, sys
results, modules = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, sys.argv[3])
import results as lines
python_missing, node_missing = sys.argv[4], sys.argv[5]

def version(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "?"

rows = []
runs = {run["name"].split("/")[0]: run for run in json.loads((results / "lectern.json").read_text())["benchmarks"]}
counters = runs["BM_ExtractCorpus"]
parse = runs.get("BM_ParseCorpus")
rows.append(("lectern (QKContentParser)", counters))
peers = []
if (results / "python.json").exists():
    rows.append(("python3-readability " + version(["dpkg-query", "-W", "-f=${Version}", "python3-readability"]),
                 json.loads((results / "python.json").read_text())))
    peers.append((rows[-1][0], rows[-1][1]))
else:
    peers.append(("python3-readability", python_missing or "not measured"))
if (results / "node.json").exists():
    package = json.loads((modules / "@mozilla/readability/package.json").read_text())["version"]
    jsdom = json.loads((modules / "jsdom/package.json").read_text())["version"]
    rows.append((f"readability.js {package} + jsdom {jsdom}", json.loads((results / "node.json").read_text())))
    peers.append((rows[-1][0], rows[-1][1]))
else:
    peers.append(("readability.js", node_missing or "not measured"))

# The table's lines: per page (median) and for every page (sum), in CPU time, each with each peer.
pages = int(counters["pages"])
repeats = int(counters.get("iterations", 0))
runs_note = "one run per page" if repeats == 1 else f"median of {repeats} runs per page"
for key, name in (("cpu_median_ms", f"extraction, CPU per page (median of {pages} pages)"),
                  ("cpu_total_ms", f"extraction, CPU for all {pages} pages")):
    for peer, figures in peers:
        line = {"group": "extraction", "name": name, "value": counters[key], "unit": "ms", "peer": peer,
                "note": runs_note}
        if parse:
            line.update({"floor": parse[key], "floor_name": "decoding and HTML parse alone"})
        if isinstance(figures, dict):
            line["peer_value"] = figures[key]
        else:
            line.update({"peer_value": None, "peer_note": figures})
        lines.append(line)

print(f"{'extractor':44} {'pages':>5} {'median ms':>10} {'total ms':>10} {'cpu median':>11} {'cpu total':>10}")
for name, r in rows:
    print(f"{name:44} {int(r['pages']):5d} {r['median_ms']:10.2f} {r['total_ms']:10.0f} "
          f"{r['cpu_median_ms']:11.2f} {r['cpu_total_ms']:10.0f}")
    for failure in r.get("failed", []):
        print(f"    not timed: {failure}")
if len(rows) > 1:
    ours = rows[0][1]
    for key, label in (("cpu_median_ms", "cpu median"), ("cpu_total_ms", "cpu total"),
                       ("median_ms", "wall median"), ("total_ms", "wall total")):
        fastest = min(r[key] for _, r in rows[1:])
        print(f"speed-up over the faster baseline, {label}: {fastest / ours[key]:.1f}x")
PY
