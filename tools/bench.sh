#!/usr/bin/env bash
# Measures the server on a busy day: three million lines of the sample station. Prints for each row
# what the server takes and what the least that can be done takes, in turn: medians, and median and
# quartiles of the ratios of the pairs. docs/performance.md tells what the rows mean.
#
#   tools/bench.sh         against the limit programs in bench/; takes four minutes
#   tools/bench.sh BASE    against the server of another commit, the same rows
#
# ROUNDS in the environment: pairs of starts, 11 when unset. Everything lies in build-bench, and may
# be deleted. The figures mean something when the computer does nothing else.
set -euo pipefail

checkout=$(dirname -- "$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

(($# <= 1)) || { say "Usage: tools/bench.sh [BASE]"; exit 2; }
rounds=${ROUNDS:-11}
lines=3000000
token=bench
ready='Press Ctrl-C'

need_packages "${build_packages[@]}" libbenchmark-dev ninja-build curl git
use_preset bench
build corvane-spot-server sample_station limit_start constant_body written_body starts poll \
  refresh_bench history_window_bench activity_bench

# The server of another commit: a work tree of its own below the build folder.
build_base() {
  local tree=$build/base
  git -C "$checkout" worktree remove --force "$tree" 2>/dev/null || true
  git -C "$checkout" worktree add --quiet --force --detach "$tree" "$1" >&2
  cmake -S "$tree" -B "$tree/build" -G Ninja -D CMAKE_BUILD_TYPE=Release -D BUILD_TESTING=OFF >&2
  cmake --build "$tree/build" --parallel "$(nproc)" --target corvane-spot-server >&2
  base_server=$tree/build/corvane-spot-server
}

base_server=
[[ $# == 0 ]] || build_base "$1"

# The servers look for nothing of this user's.
export HOME=$build/home XDG_STATE_HOME=$build/home XDG_CONFIG_HOME=$build/home
mkdir -p "$HOME"
cd -- "$checkout/data"  # here is cty.dat

started=()  # process numbers
stop_all() {
  ((${#started[@]} == 0)) || kill -- "${started[@]}" 2>/dev/null || true
  started=()
}
trap stop_all EXIT

# A port on which nobody listens, in $port.
free_port() {
  while port=$((20000 + RANDOM % 20000)); (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
}

# start READY PROGRAM...: waits until it has printed a line that begins so; its number in $pid.
start() {
  local line fd wanted=$1
  shift
  exec {fd}< <(exec "$@")
  pid=$!
  started+=("$pid")
  while IFS= read -r line <&"$fd"; do
    [[ $line != "$wanted"* ]] || return 0
  done
  say "Did not start: $*"
  exit 1
}

log=$build/day.txt
history=$build/day.sqlite3
make_day() { "$build/corvane-sample-station" --out "$log" --history "$history" --lines $lines >&2; }

# What a server is started with, but for its port.
server_options() { options=(--all-txt "$log" --history-db "$1" --token "$token" --reload "$2"); }

row() { printf '\n== %s\n' "$*"; }

# start_rows NAME HISTORY: until the banner.
start_rows() {
  row "start, $1 source"
  free_port
  server_options "$2" 15
  local other=("$build/limit_start" "$log" cty.dat)
  [[ -z $base_server ]] || other=("$base_server" "${options[@]}" --port "$port")
  "$build/starts" "$rounds" "$ready" "$build/corvane-spot-server" "${options[@]}" --port "$port" \
    -- "${other[@]}"
}

# start_pair HISTORY RELOAD OTHER...: the server and what it is compared with, in $ours and $theirs
# as port and process number. OTHER, behind which its port, certificate and key are put: a limit
# program, the rest of its arguments in $rest. With a base it is the other server instead.
start_pair() {
  server_options "$1" "$2"
  free_port
  start "$ready" "$build/corvane-spot-server" "${options[@]}" --port "$port"
  ours=("$port" "$pid")
  free_port
  if [[ -n $base_server ]]; then
    start "$ready" "$base_server" "${options[@]}" --port "$port"
  else
    start ready "$3" "$port" "$HOME/corvane/spot-server.crt" "$HOME/corvane/spot-server.key" "${rest[@]}"
  fi
  theirs=("$port" "$pid")
}

ask() { curl -sk -H "X-Spot-Token: $token" "https://127.0.0.1:${ours[0]}$1"; }
resident() { awk '/^VmRSS/ { printf "%.1f MB\n", $2 / 1024 }' "/proc/${ours[1]}/status"; }

poll() {  # ROUNDS PATH HEADER...
  "$build/poll" "$1" "$2" "${ours[@]}" "${theirs[@]}" "X-Spot-Token: $token" "${@:3}"
}

# cold_rows NAME HISTORY: every question finds a new line in the log.
cold_rows() {
  rest=("$log" "$2" cty.dat)
  start_pair "$2" 0 "$build/written_body"
  row "memory, $1 source"
  printf 'at the banner %s\n' "$(resident)"
  ask '/api/v1/activity?hours=24' >/dev/null
  printf 'after a first 24-hour answer %s\n' "$(resident)"
  row "cold 24-hour answer, $1 source"
  poll 50 '/api/v1/activity?hours=24' "append:$log"
  stop_all
}

# cached_rows PATH NAME HEADER...: the same bytes again and again.
cached_rows() {
  row "$2"
  free_port
  server_options off 15
  start "$ready" "$build/corvane-spot-server" "${options[@]}" --port "$port"
  ours=("$port" "$pid")
  ask "$1" >"$build/activity.json"
  ask /api/v1/health >"$build/health.json"
  stop_all
  rest=("$build/health.json" "$build/activity.json")
  start_pair off 15 "$build/constant_body"
  poll 1000 "$1" "${@:3}"
  stop_all
}

make_day
start_rows log off
start_rows history "$history"
cold_rows log off
cold_rows history "$history"
cached_rows '/api/v1/activity?hours=24' 'cached 24-hour answer'
cached_rows '/api/v1/activity?hours=1' 'cached 1-hour answer'
cached_rows /api/v1/health 'health'
if [[ -n $base_server ]]; then
  cached_rows '/api/v1/activity?hours=24' 'cached 24-hour answer, compressed' \
    'Accept-Encoding: gzip, deflate, br'
  exit
fi
cached_rows '/api/v1/activity?hours=24' 'cached 24-hour answer, compressed, against plain' \
  '1:Accept-Encoding: gzip, deflate, br'
row 'under the lock'
for name in refresh history_window activity; do
  "$build/${name}_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only 2>/dev/null |
    grep -E '_(median|BigO)'
done
