#!/usr/bin/env bash
# Peak memory (max RSS) of a single parse, each in a process of its own, with both parsers:
# a tiny feed (the program's own floor), the largest feed of the shared corpus and a generated
# feed of about 50 MB. Usage: bench/feeds/run.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build-bench}
here=$(cd "$(dirname "$0")" && pwd)
corpus=${LECTERN_CORPUS_DIR:-$here/../../../shared/corpus}
peak="$build/bench/feeds/feed_parse_peak"
if [ ! -x "$peak" ]; then
  echo "feed_parse_peak is not built in $build" >&2
  exit 1
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
printf '<rss><channel><title>t</title><item><title>i</title></item></channel></rss>' > "$tmp/tiny.rss"
files=("$tmp/tiny.rss")
if [ -d "$corpus/feeds" ]; then
  python3 "$corpus/gen-feeds.py" -n 1 -m 8000 -o "$tmp/big" > /dev/null 2>&1
  files+=("$corpus/feeds/$(ls -S "$corpus/feeds" | sed -n 1p)" "$tmp/big/feed000.rss")
else
  echo "shared corpus not found at $corpus: the corpus and generated feeds are skipped" >&2
fi

measure() {  # parser file -> "max RSS in MB, seconds"
  /usr/bin/time -f "%M %e" "$peak" "$1" "$2" 2>&1 >/dev/null | tail -1 | awk '{printf "%7.1f MB %5.2f s", $1 / 1024, $2}'
}
printf "%-36s %9s   %-20s %-20s\n" document MB dictionary stream
for file in "${files[@]}"; do
  printf "%-36s %9.1f   %-20s %-20s\n" "$(basename "$file")" "$(stat -c %s "$file" | awk '{print $1 / 1e6}')" \
    "$(measure dictionary "$file")" "$(measure stream "$file")"
done
