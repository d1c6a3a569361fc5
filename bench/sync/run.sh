#!/usr/bin/env bash
# End-to-end refresh of 300 synthetic feeds of 50 items (gen-feeds.py) served from 127.0.0.1, by
# `lectern sync` and by newsboat (`reload-threads 3`, its own cache) in the same run: wall time
# and peak memory (/usr/bin/time) of
#   cold    an empty library, every story new
#   warm    the same documents again, nothing new (median of REPEATS runs)
#   shifted the next state of the set: SHIFT new items per feed, SHIFT old ones gone
# Every request is answered in full (the server ignores If-Modified-Since), so both readers
# download and read every document; newsboat's warm run with 304 answers is shown as well.
#
# Usage: bench/sync/run.sh [BUILD_DIR]   (env: FEEDS=300 ITEMS=50 SHIFT=5 REPEATS=3 PORT=8791)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-build-bench}" && pwd)
feeds=${FEEDS:-300}
items=${ITEMS:-50}
shift_items=${SHIFT:-5}
repeats=${REPEATS:-3}
port=${PORT:-8791}
generator=$root/../shared/corpus/gen-feeds.py
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

lectern="$build/lectern"
[ -x "$lectern" ] || cmake --build "$build" --target lectern
if ! command -v newsboat > /dev/null; then
  echo "newsboat is missing (apt-get install newsboat): only Lectern is measured" >&2
fi

python3 "$here/feedset.py" prepare --generator "$generator" --out "$work" --port "$port" \
  --feeds "$feeds" --items "$items" --shift "$shift_items" >&2
ln -s state0 "$work/current"
python3 "$here/feedset.py" serve --root "$work/current" --port "$port" &
server=$!
for _ in $(seq 50); do
  curl -sf -o /dev/null "http://127.0.0.1:$port/urls.txt" && break
  sleep 0.1
done

# Lectern: its own home; the feeds arrive by OPML import.
export LECTERN_HOME="$work/lectern-home"
"$lectern" account add localrss > /dev/null
# Keep two weeks of stories, so that every item of the set is new to the first sync.
"$lectern" config set DaysKeepFeedReadItemsIndex 5 > /dev/null
"$lectern" opml import "$work/feeds.opml" > /dev/null
# newsboat: its own home, config and cache.
nb_home="$work/newsboat-home"
mkdir -p "$nb_home"
printf 'reload-threads 3\n' > "$nb_home/config"
newsboat_reload=(env HOME="$nb_home" XDG_CONFIG_HOME="$nb_home" XDG_DATA_HOME="$nb_home" newsboat -q
  -C "$nb_home/config" -u "$work/newsboat-urls" -c "$nb_home/cache.db" -x reload)
lectern_sync=("$lectern" sync)

# One measured run: "seconds kilobytes" of a command.
measure() {
  local out="$work/time.txt"
  /usr/bin/time -f '%e %M' -o "$out" "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; return 1; }
  cat "$out"
}
# The median (by time) of REPEATS runs.
median() {
  local runs=()
  for _ in $(seq "$repeats"); do runs+=("$(measure "$@")"); done
  printf '%s\n' "${runs[@]}" | sort -n | sed -n "$(((repeats + 1) / 2))p"
}
mb() { [ "$1" = - ] && echo - || echo "$(($1 / 1024))"; }
row() { # name, lectern "s kb", newsboat "s kb" ("- -" when not measured)
  read -r ls lk <<< "$2"
  read -r ns nk <<< "$3"
  printf '| %-30s | %8s s | %6s MB | %8s s | %6s MB |\n' "$1" "$ls" "$(mb "$lk")" "$ns" "$(mb "$nk")"
}

have_newsboat() { command -v newsboat > /dev/null; }
echo "cold ..." >&2
l_cold=$(measure "${lectern_sync[@]}")
n_cold=$(have_newsboat && measure "${newsboat_reload[@]}" || echo "- -")
echo "warm ..." >&2
l_warm=$(median "${lectern_sync[@]}")
n_warm=$(have_newsboat && median "${newsboat_reload[@]}" || echo "- -")
touch "$work/conditional"
n_warm304=$(have_newsboat && median "${newsboat_reload[@]}" || echo "- -")
rm "$work/conditional"
echo "shifted ..." >&2
ln -sfn state1 "$work/current"
l_shift=$(measure "${lectern_sync[@]}")
n_shift=$(have_newsboat && measure "${newsboat_reload[@]}" || echo "- -")

stories=$("$lectern" list --limit 0 --json | python3 -c 'import json,sys; print(len(json.load(sys.stdin)))')
echo "$feeds feeds x $items items ($(du -sh "$work/state0" | cut -f1) of documents), $(nproc) CPUs, load $(cut -d' ' -f1 /proc/loadavg); Lectern library: $stories stories"
echo
echo "| run                            | Lectern    | peak RSS  | newsboat   | peak RSS  |"
echo "|--------------------------------|------------|-----------|------------|-----------|"
row "cold (all new)" "$l_cold" "$n_cold"
row "warm (nothing new), median" "$l_warm" "$n_warm"
row "warm, newsboat with 304s" "- -" "$n_warm304"
row "shifted ($shift_items new per feed)" "$l_shift" "$n_shift"
