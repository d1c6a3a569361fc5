#!/usr/bin/env bash
# `lectern sync` of a Feedbin account played by the mock server, as a person runs it: wall time and
# peak memory (/usr/bin/time) of the first sync (everything new) and of a second one with nothing
# new, for an account of 10,000 unread entries in 200 feeds (2,000 starred) and for one twice as
# large, to show that memory does not grow with the number of entries.
#
# Usage: bench/services/run.sh [BUILD_DIR]   (env: PORT=8792)
set -euo pipefail
build=$(cd "${1:-build-bench}" && pwd)
port=${PORT:-8792}
lectern="$build/lectern"
mock="$build/tests/support/mocks/mock-server"
[ -x "$lectern" ] || cmake --build "$build" --target lectern
[ -x "$mock" ] || cmake --build "$build" --target mock-server
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# "seconds kilobytes" of a command.
measure() {
  /usr/bin/time -f "%e %M" -o "$work/time" "$@" > /dev/null
  cat "$work/time"
}

run_account() {
  local feeds=$1
  local entries=$((feeds * 50))
  "$mock" feedbin --port "$port" --feeds "$feeds" --entries-per-feed 50 --unread "$entries" --starred-every 5 \
    > "$work/mock.out" &
  server=$!
  for _ in $(seq 100); do
    grep -q "Feedbin mock at" "$work/mock.out" 2> /dev/null && break
    sleep 0.1
  done
  export LECTERN_HOME="$work/home-$feeds"
  printf 'secret\n' | "$lectern" account add feedbin --username me@example.org --password-stdin \
    --endpoint "http://127.0.0.1:$port/" > /dev/null
  read -r cold_s cold_kb < <(measure "$lectern" sync)
  read -r warm_s warm_kb < <(measure "$lectern" sync)
  stories=$("$lectern" list --json --limit 0 | grep -c '"bookmark_id"')
  printf '| %d feeds, %d unread | %s s | %d MB | %s s | %d MB | %d |\n' "$feeds" "$entries" "$cold_s" \
    $((cold_kb / 1024)) "$warm_s" $((warm_kb / 1024)) "$stories"
  kill "$server"
  wait "$server" 2> /dev/null || true
  server=
}

echo "| account | first sync | peak RSS | second sync | peak RSS | stories |"
echo "| --- | --- | --- | --- | --- | --- |"
run_account 200
run_account 400
