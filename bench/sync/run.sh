#!/usr/bin/env bash
# End-to-end refresh of 300 synthetic feeds of 50 items (gen-feeds.py, about 95 MB) served from
# 127.0.0.1 by bench/sync/feed_server, by `lectern sync` and by newsboat (`reload-threads 3`, its
# own cache) in the same run: wall time and peak memory (/usr/bin/time), median of REPEATS runs, of
#   cold      an empty library, every story new
#   warm      the same documents again, nothing new, every request answered in full
#   warm 304  the same, the server answering 304 to the validators each reader sends
#   shifted   the next state of the set: SHIFT new items per feed, SHIFT old ones gone
# and, with BENCH_FULL=1 (or LARGE_FEEDS=N), Lectern alone over 3,000 feeds of 50 items (cold, warm,
# warm 304): the refresh must stay flat in memory as the number of feeds grows.
# Each figure also becomes a line of the `make bench` table (bench/results.py).
#
# Usage: bench/sync/run.sh [BUILD_DIR]
#   env: FEEDS=300 ITEMS=50 SHIFT=5 REPEATS=3 PORT=8791 LARGE_FEEDS (3000 with BENCH_FULL=1)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-build-bench}" && pwd)
feeds=${FEEDS:-300}
items=${ITEMS:-50}
shift_items=${SHIFT:-5}
repeats=${REPEATS:-3}
port=${PORT:-8791}
large=${LARGE_FEEDS:-$([ "${BENCH_FULL:-0}" = 1 ] && echo 3000 || echo 0)}
generator=$root/../shared/corpus/gen-feeds.py
results="/usr/bin/python3 $here/../results.py"
if [ ! -f "$generator" ]; then
  echo "the synthetic feed generator is not at $generator (the shared folder beside the checkout):" \
    "the end-to-end refresh is skipped" >&2
  exit 0
fi
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

lectern="$build/lectern"
feed_server="$build/bench/sync/feed_server"
[ -x "$lectern" ] && [ -x "$feed_server" ] || cmake --build "$build" --target lectern feed_server
have_newsboat() { command -v newsboat > /dev/null; }
have_newsboat || echo "newsboat is missing (apt-get install newsboat): only Lectern is measured" >&2

# One measured run: "seconds kilobytes" of a command.
measure() {
  local out="$work/time.txt"
  /usr/bin/time -f '%e %M' -o "$out" "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; return 1; }
  cat "$out"
}
# The median (by time) of REPEATS runs; `prepare` (if set) runs before each, unmeasured.
median() {
  local runs=()
  for _ in $(seq "$repeats"); do
    [ -n "${prepare:-}" ] && $prepare
    runs+=("$(measure "$@")")
  done
  printf '%s\n' "${runs[@]}" | sort -n | sed -n "$(((repeats + 1) / 2))p"
}
mb() { [ "$1" = - ] && echo - || awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }

# A feed set in $1 (state0, state1, feeds.opml, newsboat-urls) and its server.
serve_set() {  # folder feeds [--no-shift]
  python3 "$here/feedset.py" prepare --generator "$generator" --out "$1" --port "$port" \
    --feeds "$2" --items "$items" --shift "$shift_items" ${3:-} >&2
  ln -sfn state0 "$1/current"
  [ -n "$server" ] && kill "$server" 2> /dev/null && wait "$server" 2> /dev/null || true
  "$feed_server" "$1/current" "$port" &
  server=$!
  for _ in $(seq 50); do
    curl -sf -o /dev/null "http://127.0.0.1:$port/urls.txt" && return 0
    sleep 0.1
  done
  echo "the feed server did not start" >&2
  return 1
}
# Lectern in a fresh LECTERN_HOME over the set in $1: the feeds arrive by OPML import. (Called in a
# subshell by `median`: the caller exports LECTERN_HOME.)
lectern_home() {  # set
  rm -rf "$LECTERN_HOME"
  "$lectern" account add localrss > /dev/null
  # Keep two weeks of stories, so that every item of the set is new to the first sync.
  "$lectern" config set DaysKeepFeedReadItemsIndex 5 > /dev/null
  "$lectern" opml import "$1/feeds.opml" > /dev/null
}

set0="$work/set"
serve_set "$set0" "$feeds"
export LECTERN_HOME="$work/lectern-home"
fresh_lectern() { lectern_home "$set0"; }
nb_home="$work/newsboat-home"
fresh_newsboat() {
  rm -rf "$nb_home"
  mkdir -p "$nb_home"
  printf 'reload-threads 3\n' > "$nb_home/config"
}
newsboat_reload=(env HOME="$nb_home" XDG_CONFIG_HOME="$nb_home" XDG_DATA_HOME="$nb_home" newsboat -q
  -C "$nb_home/config" -u "$set0/newsboat-urls" -c "$nb_home/cache.db" -x reload)
lectern_sync=("$lectern" sync)
none="- -"

echo "cold ..." >&2
l_cold=$(prepare=fresh_lectern median "${lectern_sync[@]}")
n_cold=$(have_newsboat && prepare=fresh_newsboat median "${newsboat_reload[@]}" || echo "$none")
echo "warm ..." >&2
l_warm=$(median "${lectern_sync[@]}")
n_warm=$(have_newsboat && median "${newsboat_reload[@]}" || echo "$none")
touch "$set0/conditional"
l_304=$(median "${lectern_sync[@]}")
n_304=$(have_newsboat && median "${newsboat_reload[@]}" || echo "$none")
rm "$set0/conditional"
echo "shifted ..." >&2
ln -sfn state1 "$set0/current"
l_shift=$(measure "${lectern_sync[@]}")
n_shift=$(have_newsboat && measure "${newsboat_reload[@]}" || echo "$none")
ln -sfn state0 "$set0/current"
stories=$("$lectern" list --limit 0 --json | python3 -c 'import json,sys; print(len(json.load(sys.stdin)))')

describe="$feeds feeds x $items items ($(du -sh "$set0/state0" | cut -f1) of documents)"
echo "$describe, $(nproc) CPUs, load $(cut -d' ' -f1 /proc/loadavg); Lectern library: $stories stories"
echo
echo "| run                                  | Lectern    | peak RSS  | newsboat   | peak RSS  |"
echo "|--------------------------------------|------------|-----------|------------|-----------|"
row() {  # name, goal, lectern "s kb", newsboat "s kb"
  local ls lk ns nk peer=()
  read -r ls lk <<< "$3"
  read -r ns nk <<< "$4"
  printf '| %-36s | %8s s | %6s MB | %8s s | %6s MB |\n' "$1" "$ls" "$(mb "$lk")" "$ns" "$(mb "$nk")"
  if [ "$ns" = - ]; then
    peer=(--peer newsboat --peer-note "newsboat not installed")
  else
    peer=(--peer newsboat --peer-value "$ns")
  fi
  $results add --group "refresh, $describe" --name "$1" --value "$ls" --unit s ${2:+--goal "$2"} \
    "${peer[@]}" --note "median of $repeats, from 127.0.0.1"
  if [ "$ns" = - ]; then
    peer=(--peer newsboat --peer-note "newsboat not installed")
  else
    peer=(--peer newsboat --peer-value "$(mb "$nk")")
  fi
  $results add --group "refresh, $describe" --name "$1, peak memory" --value "$(mb "$lk")" --unit MB \
    --goal "< 40 MB" "${peer[@]}"
}
row "cold (all new)" "< 1.2 s" "$l_cold" "$n_cold"
row "warm (nothing new), answered in full" "< 0.3 s" "$l_warm" "$n_warm"
row "warm, answered 304" "< 0.2 s" "$l_304" "$n_304"
row "shifted ($shift_items new per feed)" "" "$l_shift" "$n_shift"

if [ "$large" -gt 0 ]; then
  echo >&2
  echo "$large feeds ..." >&2
  large_set="$work/large"
  serve_set "$large_set" "$large" --no-shift
  export LECTERN_HOME="$work/lectern-large"
  fresh_large() { lectern_home "$large_set"; }
  r_cold=$(prepare=fresh_large median "${lectern_sync[@]}")
  r_warm=$(median "${lectern_sync[@]}")
  touch "$large_set/conditional"
  r_304=$(median "${lectern_sync[@]}")
  rm "$large_set/conditional"
  large_describe="$large feeds x $items items ($(du -sh "$large_set/state0" | cut -f1) of documents)"
  echo
  echo "$large_describe, Lectern alone"
  echo
  echo "| run                                  | Lectern    | peak RSS  |"
  echo "|--------------------------------------|------------|-----------|"
  for entry in "cold (all new)|$r_cold" "warm (nothing new), answered in full|$r_warm" "warm, answered 304|$r_304"; do
    IFS='|' read -r name figures <<< "$entry"
    read -r s k <<< "$figures"
    printf '| %-36s | %8s s | %6s MB |\n' "$name" "$s" "$(mb "$k")"
    $results add --group "refresh, $large_describe" --name "$name" --value "$s" --unit s \
      --note "median of $repeats, from 127.0.0.1"
    $results add --group "refresh, $large_describe" --name "$name, peak memory" --value "$(mb "$k")" --unit MB \
      --goal "< 40 MB"
  done
fi
