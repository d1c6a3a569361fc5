#!/usr/bin/env bash
# Feed parsing against its floor, over the shared corpus and a generated set (gen-feeds.py, 60
# feeds x 50 items): Lectern's parse as a refresh does it (feeds_bench BM_DictionaryPath: the
# tree, then the feed) beside `xmllint --noout` over the same files in one process, and
# libxml2's bare SAX parse in the benchmark's own process. Then the peak memory (max RSS) of a
# single parse, each in a process of its own, with both parsers: a tiny feed, the largest feed of
# the corpus and a generated feed of about 50 MB. The memory floor of a parse is the program with
# the tiny feed plus the document held once.
# Usage: bench/feeds/run.sh [BUILD_DIR]   (env: LECTERN_CORPUS_DIR=<shared>/corpus)
set -euo pipefail
build=${1:-build-bench}
here=$(cd "$(dirname "$0")" && pwd)
corpus=${LECTERN_CORPUS_DIR:-$here/../../../shared/corpus}
results="/usr/bin/python3 $here/../results.py"
peak="$build/bench/feeds/feed_parse_peak"
bench="$build/bench/feeds/feeds_bench"
for program in "$peak" "$bench"; do
  if [ ! -x "$program" ]; then
    echo "$(basename "$program") is not built in $build" >&2
    exit 1
  fi
done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

if [ ! -d "$corpus/feeds" ]; then
  echo "shared corpus not found at $corpus: the parse floors and the corpus and generated feeds are skipped" >&2
else
  if ! command -v xmllint > /dev/null; then
    echo "xmllint is missing (apt-get install libxml2-utils): the parse floors are not measured" >&2
  fi
  # The same documents feeds_bench makes for itself (gen-feeds.py is deterministic).
  /usr/bin/python3 "$corpus/gen-feeds.py" -n 60 -m 50 -o "$tmp/generated" > /dev/null
  LECTERN_CORPUS_DIR="$corpus" LECTERN_FEEDS_BENCH_GENERATED="$tmp/generated" "$bench" \
    --benchmark_filter='BM_(BareSax|DictionaryPath)/' --benchmark_out="$tmp/parse.json" \
    --benchmark_out_format=json
  # Seconds of one `xmllint --noout` over every document of a folder: the best of three, as
  # feeds_bench takes its figure from a second of repeated runs.
  xmllint_seconds() {
    local best=
    for _ in 1 2 3; do
      local start end
      start=$(date +%s.%N)
      find "$1" -maxdepth 1 -type f ! -name '*.txt' ! -name '*.tsv' -print0 | sort -z |
        xargs -0 xmllint --noout --nonet > /dev/null 2>&1 || true
      end=$(date +%s.%N)
      best=$(awk -v b="$best" -v t="$(awk -v s="$start" -v e="$end" 'BEGIN { print e - s }')" \
        'BEGIN { print (b == "" || t < b) ? t : b }')
    done
    echo "$best"
  }
  for set in 0 1; do
    folder=$([ "$set" = 0 ] && echo "$corpus/feeds" || echo "$tmp/generated")
    bytes=$(find "$folder" -maxdepth 1 -type f ! -name '*.txt' ! -name '*.tsv' -printf '%s\n' | awk '{ s += $1 } END { print s }')
    files=$(find "$folder" -maxdepth 1 -type f ! -name '*.txt' ! -name '*.tsv' | wc -l)
    seconds=$(command -v xmllint > /dev/null && xmllint_seconds "$folder" || echo 0)
    /usr/bin/python3 - "$here/.." "$tmp/parse.json" "$set" "$bytes" "$files" "$seconds" <<'PY'
import json, sys
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, sys.argv[1])
import results
document, which, size, files, seconds = sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5], float(sys.argv[6])
runs = {r["run_name"].split("/min_time")[0]: r for r in json.load(open(document))["benchmarks"]}
lectern = runs.get(f"BM_DictionaryPath/generated:{which}")
sax = runs.get(f"BM_BareSax/generated:{which}")
xmllint = size / 1e6 / seconds if seconds > 0 else None
if xmllint:
    print(f"xmllint --noout, {files} files, {size / 1e6:.1f} MB: {seconds:.3f} s, {xmllint:.0f} MB/s", file=sys.stderr)
if lectern and not lectern.get("error_occurred"):
    note = f"{files} documents, {size / 1e6:.1f} MB"
    if not xmllint:
        note += "; floor not measured: xmllint is missing"
    if sax and not sax.get("error_occurred"):
        note += f"; libxml2 SAX alone, in process: {sax['bytes_per_second'] / 1e6:.0f} MB/s"
    label = "shared corpus" if which == "0" else "generated feeds"
    results.append({"group": "feed parsing", "name": f"parse as a refresh does (tree, then feed), {label}",
                    "value": lectern["bytes_per_second"] / 1e6, "unit": "MB/s", "higher_is_better": True,
                    "note": note, **({"floor": xmllint, "floor_name": "xmllint --noout, same files"} if xmllint else {})})
PY
  done
fi

measure() {  # parser file -> "max RSS in KB, seconds"
  /usr/bin/time -f "%M %e" "$peak" "$1" "$2" 2>&1 >/dev/null | tail -1
}
files=("$tmp/tiny.rss")
printf '<rss><channel><title>t</title><item><title>i</title></item></channel></rss>' > "$tmp/tiny.rss"
if [ -d "$corpus/feeds" ]; then
  /usr/bin/python3 "$corpus/gen-feeds.py" -n 1 -m 8000 -o "$tmp/big" > /dev/null 2>&1
  files+=("$corpus/feeds/$(ls -S "$corpus/feeds" | sed -n 1p)" "$tmp/big/feed000.rss")
fi
declare -A tiny
printf "%-36s %9s   %-20s %-20s\n" document MB dictionary stream
for file in "${files[@]}"; do
  mb=$(stat -c %s "$file" | awk '{ printf "%.1f", $1 / 1e6 }')
  line="$(printf "%-36s %9s  " "$(basename "$file")" "$mb")"
  for parser in dictionary stream; do
    read -r kb seconds <<< "$(measure "$parser" "$file")"
    line+="$(printf " %7.1f MB %5.2f s   " "$(awk -v k="$kb" 'BEGIN { print k / 1024 }')" "$seconds")"
    if [ "$file" = "$tmp/tiny.rss" ]; then
      tiny[$parser]=$kb
    else
      $results add --group "feed parsing" --name "peak memory, one parse of a $mb MB feed ($parser parser)" \
        --value "$(awk -v k="$kb" 'BEGIN { print k / 1024 }')" --unit MB \
        --floor "$(awk -v k="${tiny[$parser]}" -v mb="$mb" 'BEGIN { print k / 1024 + mb }')" \
        --floor-name "the program with a tiny feed, plus the document once" --note "$(basename "$file"), $seconds s"
    fi
  done
  echo "$line"
done
