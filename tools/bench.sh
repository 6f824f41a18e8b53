#!/usr/bin/env bash
# Measures the server on a busy day: three million lines of the sample station. Prints for each row
# what the server takes and what the least that can be done takes, in turn: medians, and median and
# quartiles of the ratios of the pairs. docs/performance.md tells what the rows mean.
#
#   tools/bench.sh         against the limit programs in bench/; takes ten minutes
#   tools/bench.sh BASE    against the server of another commit, the rows that compare
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
# The benchmarks of single parts: those of what the lock is held for, then the yardsticks.
locked=(refresh history_window activity)
yardsticks=(log_reader all_txt message country heard_callsigns spot_queue rate_series history_reader
  activity_document activity_answer)
benches=("${locked[@]}" "${yardsticks[@]}")
build corvane-spot-server sample_station limit_start constant_body written_body starts poll clients \
  "${benches[@]/%/_bench}"

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

# client_rows PATH NAME: one server and more and more clients at once.
client_rows() {
  row "$2"
  server_options off 15
  free_port
  start "$ready" "$build/corvane-spot-server" "${options[@]}" --port "$port"
  "$build/clients" 3 "$1" "$port" "$pid" "X-Spot-Token: $token"
  stop_all
}

# off_plan_log FREQUENCIES: a million lines of the last day, which go round so many dial frequencies
# outside every band.
off_plan_log() {
  awk -v frequencies="$1" 'BEGIN {
    begin = systime() - 86400
    for (line = 0; line < 1000000; ++line) {
      slot = int(begin / 15 + line * 5760 / 1000000) * 15
      if (slot != last) stamp = strftime("%y%m%d_%H%M%S", slot, 1)
      last = slot
      printf "%s %.3f Rx FT8 -12 0.2 1234 CQ N0CALL FN42\n", stamp, 200 + line % frequencies / 1000
    }
  }'
}

processor_ms() { awk -v ticks="$(getconf CLK_TCK)" '{ print ($14 + $15) * 1000 / ticks }' "/proc/$1/stat"; }

# off_plan_row NAME SERVER FREQUENCIES: the first 24-hour answer, and the most memory that took.
off_plan_row() {
  free_port
  server_options off 15
  start "$ready" "$2" "${options[@]}" --all-txt "$build/off_plan.txt" --port "$port"
  ours=("$port" "$pid")
  local before seconds
  before=$(processor_ms "$pid")
  seconds=$(curl -sk -o /dev/null -w '%{time_total}' -H "X-Spot-Token: $token" \
    "https://127.0.0.1:$port/api/v1/activity?hours=24")
  awk -v name="$1" -v frequencies="$3" -v seconds="$seconds" -v before="$before" \
    -v after="$(processor_ms "$pid")" '/^VmHWM/ {
      printf "%s %5d frequencies: %.3f s, processor %4.0f ms, at most %4.0f MB\n",
             name, frequencies, seconds, after - before, $2 / 1024 }' "/proc/$pid/status"
  stop_all
}

off_plan_rows() {
  row '24-hour view of off-plan frequencies, a million lines; at most 3 s and 1024 MB'
  for frequencies in 720 1440 2880 5760; do
    off_plan_log $frequencies >"$build/off_plan.txt"
    off_plan_row server "$build/corvane-spot-server" $frequencies
    [[ -z $base_server ]] || off_plan_row base "$base_server" $frequencies
  done
}

# bench_rows NAME BENCHMARK...: medians of five, and what they count.
bench_rows() {
  row "$1"
  shift
  for name in "$@"; do
    "$build/${name}_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only \
      --benchmark_min_time=0.2 2>/dev/null | grep -E '_(median|BigO|RMS)'
  done
}

make_day
start_rows log off
start_rows history "$history"
cold_rows log off
cold_rows history "$history"
cached_rows '/api/v1/activity?hours=24' 'cached 24-hour answer'
cached_rows '/api/v1/activity?hours=1' 'cached 1-hour answer'
cached_rows /api/v1/health 'health'
off_plan_rows
if [[ -n $base_server ]]; then
  cached_rows '/api/v1/activity?hours=24' 'cached 24-hour answer, compressed' \
    'Accept-Encoding: gzip, deflate, br'
  exit
fi
cached_rows '/api/v1/activity?hours=24' 'cached 24-hour answer, compressed, against plain' \
  '1:Accept-Encoding: gzip, deflate, br'
client_rows '/api/v1/activity?hours=24' 'cached 24-hour answer to many clients'
client_rows '/api/v1/activity?hours=1' 'cached 1-hour answer to many clients'
bench_rows 'under the lock, and how it grows' "${locked[@]}"
bench_rows 'yardsticks' "${yardsticks[@]}"
