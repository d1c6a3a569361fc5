#!/usr/bin/env bash
# The built-in reader at scale: FEEDS feeds (in 50 folders, subscribed by OPML import and served
# from 127.0.0.1) and a library of STORIES stories, for each size in SIZES. Wall time and peak RSS
# (/usr/bin/time) of: list (default, --unread, --limit 500, a folder, a smart folder), search with
# a few expressions, smart list (every smart folder's count), folders and feeds (unread counts),
# the start of the terminal reader (under `script`, quitting at once), and last a refresh of
# every feed (each answers in full: ten known entries, and two new ones for every twentieth feed).
# Each command is also a line of LECTERN_BENCH_RESULTS.
#
# Usage: bench/scale/run.sh [BUILD_DIR]
#   env: SIZES="50000 500000" FEEDS=5000 PORT=8792
#        LECTERN=PROGRAM  measure another build of the program (the generator stays this build's)
#        KEEP=DIR  keep each generated library in DIR/<stories> and reuse it on the next run
#                  (every run measures a copy, so the refresh always finds the same new entries)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-build-bench}" && pwd)
sizes=${SIZES:-50000 500000}
feeds=${FEEDS:-5000}
port=${PORT:-8792}
keep=${KEEP:-}
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

lectern=${LECTERN:-$build/lectern}
results="/usr/bin/python3 $here/../results.py"
generator="$build/bench/scale/scale_library"
[ -x "$lectern" ] || cmake --build "$build" --target lectern
[ -x "$generator" ] || cmake --build "$build" --target scale_library

# A library of $1 stories, generated into $2 (a --home folder, with the feeds' documents in docs/).
generate() {
  local stories=$1 home=$2
  mkdir -p "$home"
  python3 - "$feeds" "$port" > "$home/feeds.opml" <<'PY'
import sys
feeds, port = int(sys.argv[1]), int(sys.argv[2])
print('<?xml version="1.0" encoding="UTF-8"?>\n<opml version="1.0"><head><title>scale</title></head><body>')
per = (feeds + 49) // 50
for folder in range(0, feeds, per):
    print(f'  <outline text="Folder {folder // per:02d}">')
    for n in range(folder, min(folder + per, feeds)):
        print(f'    <outline type="rss" text="Feed {n}" xmlUrl="http://127.0.0.1:{port}/feed{n}.xml"/>')
    print('  </outline>')
print('</body></opml>')
PY
  "$lectern" --home "$home" account add localrss > /dev/null
  # The longest keep period (70 days): the generated stories span 60, so none is obsolete.
  "$lectern" --home "$home" config set DaysKeepFeedReadItemsIndex 7 > /dev/null
  "$lectern" --home "$home" opml import "$home/feeds.opml" > /dev/null
  "$lectern" --home "$home" smart add "Rare names" --search "zeppelin OR quasar" > /dev/null
  "$lectern" --home "$home" smart add "Last two weeks" --rule "date_added in-last 2 weeks" > /dev/null
  "$lectern" --home "$home" smart add "Starred climate" --rule "is_favorited is yes" --rule "title contains climate" > /dev/null
  /usr/bin/time -f "generated $stories stories in %e s, peak %M KB" "$generator" "$home" "$stories" "$home/docs" > /dev/null
}

# "seconds kilobytes" of one run of a command.
measure() {
  local out="$work/time.txt"
  /usr/bin/time -f '%e %M' -o "$out" "$@" > /dev/null 2> "$work/stderr" || {
    echo "failed: $*" >&2
    cat "$work/stderr" >&2
    echo "- -"
    return 0
  }
  cat "$out"
}
row() { # label, "seconds kilobytes"
  read -r s k <<< "$2"
  printf '| %-44s | %7s s | %6s MB |\n' "$1" "$s" "$([ "$k" = - ] && echo - || echo $((k / 1024)))"
  [ "$s" = - ] || $results add --group "scale: $stories stories, $feeds feeds" --name "$1" --value "$s" --unit s \
    --note "peak $((k / 1024)) MB; one run"
}

echo "$(nproc) CPUs, load $(cut -d' ' -f1 /proc/loadavg) at the start; $feeds feeds"
for stories in $sizes; do
  home="$work/home-$stories"
  if [ -n "$keep" ] && [ -f "$keep/$stories/done" ]; then
    cp -a "$keep/$stories/home" "$home"
  else
    generate "$stories" "$home" >&2
    if [ -n "$keep" ]; then
      rm -rf "${keep:?}/$stories"
      mkdir -p "$keep/$stories"
      cp -a "$home" "$keep/$stories/home"
      touch "$keep/$stories/done"
    fi
  fi
  python3 "$root/bench/sync/feedset.py" serve --root "$home/docs" --port "$port" &
  server=$!
  for _ in $(seq 50); do
    curl -sf -o /dev/null "http://127.0.0.1:$port/feed0.xml" && break
    sleep 0.1
  done
  l=("$lectern" --home "$home")
  folder=$("${l[@]}" folders --json | python3 -c 'import json,sys; print(next(f["id"] for f in json.load(sys.stdin) if f["title"] == "Folder 07"))')
  smart=$("${l[@]}" smart list --json | python3 -c 'import json,sys; print(next(f["id"] for f in json.load(sys.stdin) if f["title"] == "Last two weeks"))')

  echo
  echo "### $stories stories ($(du -m "$home/data/Lectern.storedata" | cut -f1) MB library)"
  echo
  echo "| command                                      | wall      | peak RSS  |"
  echo "|----------------------------------------------|-----------|-----------|"
  row "list" "$(measure "${l[@]}" list)"
  row "list --unread" "$(measure "${l[@]}" list --unread)"
  row "list --limit 500" "$(measure "${l[@]}" list --limit 500)"
  row "list --folder (one folder of 50)" "$(measure "${l[@]}" list --folder "$folder")"
  row "list --smart (last two weeks)" "$(measure "${l[@]}" list --smart "$smart")"
  row "search zeppelin" "$(measure "${l[@]}" search zeppelin)"
  row "search '\"city council\"'" "$(measure "${l[@]}" search '"city council"')"
  row "search 'climate AND NOT football'" "$(measure "${l[@]}" search 'climate AND NOT football')"
  row "search --unread 'brulee OR kraken'" "$(measure "${l[@]}" search --unread 'brulee OR kraken')"
  row "smart list (6 counts)" "$(measure "${l[@]}" smart list)"
  row "folders (unread counts)" "$(measure "${l[@]}" folders)"
  row "feeds (unread counts, health)" "$(measure "${l[@]}" feeds)"
  if command -v script > /dev/null; then
    # The reader opens on a pseudo-terminal, draws its list and quits at the first key.
    row "read (start, then quit)" "$(measure sh -c 'printf q | script -qec "$0 --home $1 read" /dev/null' "$lectern" "$home")"
  fi
  row "sync: refresh of $feeds feeds" "$(measure "${l[@]}" sync)"
  new=$(python3 -c 'import sqlite3,sys; print(sqlite3.connect(sys.argv[1]).execute("SELECT count(*) FROM Bookmark WHERE bookmark_id LIKE ?", ("%/new_",)).fetchone()[0])' "$home/data/Lectern.storedata")
  echo
  echo "The refresh added $new new stories."
  kill "$server" 2> /dev/null || true
  wait "$server" 2> /dev/null || true
  server=
  rm -rf "$home"
done
