#!/usr/bin/env bash
# `lectern sync` of a Feedbin, a Fever and a Feedly account played by their mock servers, as a person runs
# it: wall time and peak memory (/usr/bin/time) of the first sync (everything new) and of a second
# one with nothing new, for an account of 10,000 unread entries in 200 feeds (2,000 starred) and
# for one twice as large, to show that memory does not grow with the number of entries. Each sync
# is also a line of LECTERN_BENCH_RESULTS (goals for 10,000 entries: first sync under 5 s, second
# under 1 s).
#
# Usage: bench/services/run.sh [BUILD_DIR]   (env: PORT=8792)
set -euo pipefail
build=$(cd "${1:-build-bench}" && pwd)
port=${PORT:-8792}
lectern="$build/lectern"
results="/usr/bin/python3 $(cd "$(dirname "$0")/.." && pwd)/results.py"
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
  local service=$1 feeds=$2
  local entries=$((feeds * 50))
  local user endpoint
  if [ "$service" = feedbin ]; then
    user=me@example.org
    "$mock" feedbin --port "$port" --feeds "$feeds" --entries-per-feed 50 --unread "$entries" --starred-every 5 \
      > "$work/mock.out" &
    endpoint="http://127.0.0.1:$port/"
  elif [ "$service" = feedly ]; then
    "$mock" feedly --port "$port" --feeds "$feeds" --entries-per-feed 50 --unread "$entries" --saved-every 5 \
      > "$work/mock.out" &
    endpoint="http://127.0.0.1:$port/"
  else
    user=me
    "$mock" fever --port "$port" --feeds "$feeds" --items-per-feed 50 --unread "$entries" --saved-every 5 \
      > "$work/mock.out" &
    endpoint="http://127.0.0.1:$port/fever/"
  fi
  server=$!
  for _ in $(seq 100); do
    grep -q "mock at" "$work/mock.out" 2> /dev/null && break
    sleep 0.1
  done
  export LECTERN_HOME="$work/home-$service-$feeds"
  if [ "$service" = feedly ]; then
    for _ in $(seq 50); do
      grep -q -- '--token' "$work/mock.out" && break
      sleep 0.1
    done
    token=$(grep -o -- '--token [^ ]*' "$work/mock.out" | cut -d' ' -f2)
    "$lectern" account add feedly --endpoint "$endpoint" --token "$token" > /dev/null
  else
    printf 'secret\n' | "$lectern" account add "$service" --username "$user" --password-stdin \
      --endpoint "$endpoint" > /dev/null
  fi
  read -r cold_s cold_kb < <(measure "$lectern" sync)
  read -r warm_s warm_kb < <(measure "$lectern" sync)
  stories=$("$lectern" list --json --limit 0 | grep -c '"bookmark_id"')
  printf '| %s, %d feeds, %d unread | %s s | %d MB | %s s | %d MB | %d |\n' "$service" "$feeds" "$entries" "$cold_s" \
    $((cold_kb / 1024)) "$warm_s" $((warm_kb / 1024)) "$stories"
  local count goal_first=() goal_second=()
  count=$(printf '%d,%03d' $((entries / 1000)) $((entries % 1000)))
  if [ "$feeds" = 200 ]; then
    goal_first=(--goal "< 5 s")
    goal_second=(--goal "< 1 s")
  fi
  $results add --group "services" --name "$service: first sync, $count unread in $feeds feeds" --value "$cold_s" \
    --unit s "${goal_first[@]}" --note "lectern sync against its mock; peak $((cold_kb / 1024)) MB, $stories stories"
  $results add --group "services" --name "$service: second sync, nothing new ($count unread)" --value "$warm_s" \
    --unit s "${goal_second[@]}" --note "peak $((warm_kb / 1024)) MB"
  kill "$server"
  wait "$server" 2> /dev/null || true
  server=
}

echo "| account | first sync | peak RSS | second sync | peak RSS | stories |"
echo "| --- | --- | --- | --- | --- | --- |"
for service in feedbin fever feedly; do
  run_account "$service" 200
  run_account "$service" 400
done
