#!/usr/bin/env bash
# Runs the server under Valgrind, from its first start to SIGTERM, on a sample station with log and
# history. Asks it for every view, plain and as gzip, with a log that grows and is replaced; for
# health, ranges and what it refuses: bodies, requests without sense, wrong tokens, what is no TLS.
#
#   tools/valgrind.sh     takes two minutes
#
# Exit status 0: every answer was of its kind, the server ended well, and Valgrind found neither an
# error nor a lost block.
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

need_packages "${build_packages[@]}" curl valgrind
is_configured || configure
build corvane-spot-server sample_station

scratch=$(mktemp -d)
server=
tidy_up() {
  [[ -z $server ]] || kill -KILL "$server" 2>/dev/null || true
  rm -rf -- "$scratch"
}
trap tidy_up EXIT

# The server looks for nothing of this user's.
export HOME=$scratch XDG_STATE_HOME=$scratch XDG_CONFIG_HOME=$scratch
cd -- "$checkout/data"  # here is cty.dat
log=$scratch/ALL.TXT
history=$scratch/history.sqlite3
token=valgrind
failed=0

complain() {
  say "$*"
  failed=1
}

# Returns once the banner is there; the server's number in $server.
start_server() {
  local line
  free_port
  exec {banner}< <(exec valgrind --error-exitcode=9 --leak-check=full --log-file="$scratch/valgrind" \
    "$build/corvane-spot-server" --all-txt "$log" --history-db "$history" --token "$token" \
    --reload 0 --bind 127.0.0.1 --port "$port")
  server=$!
  while IFS= read -r line <&"$banner"; do
    [[ $line != 'Press Ctrl-C'* ]] || return 0
  done
  say "The server did not start."
  exit 1
}

# expect STATUS PATH CURL_ARGUMENTS...: one request, and the status of its answer.
expect() {
  local wanted=$1 path=$2 got
  shift 2
  got=$(curl -sk --max-time 300 -o "$scratch/answer" -w '%{http_code}' "$@" \
    "https://127.0.0.1:$port$path") || true
  [[ $got == "$wanted" ]] || complain "$path answered $got instead of $wanted: $*"
}

ask() { expect 200 "$@" -H "X-Spot-Token: $token"; }

# A decode of this moment.
add_line() {
  printf '%s    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42\n' "$(date -u +%y%m%d_%H%M%S)" >>"$log"
}

ask_for_every_view() {
  local hours smoothing view
  for hours in 1 6 24; do
    for smoothing in 1 3 5; do
      view="/api/v1/activity?hours=$hours&smoothing=$smoothing"
      add_line
      ask "$view"
      ask "$view"  # held by now
      ask "$view" --compressed
      ask "$view" -I
    done
  done
  ask '/api/v1/activity?hours=nonsense&smoothing=&&=%4'
}

replace_log() {
  tail -n 2000 -- "$log" >"$log.new"
  mv -- "$log.new" "$log"
  ask /api/v1/activity
  : >"$log"
  ask /api/v1/activity
}

ask_for_parts() {
  local range
  for range in bytes=0-99 bytes=-99 bytes=0-9,20-29; do
    expect 206 /api/v1/activity -H "X-Spot-Token: $token" -H "Range: $range"
  done
  expect 200 /api/v1/activity -H "X-Spot-Token: $token" -H 'Range: bytes=9-,5-,0-'
  expect 416 /api/v1/health -H 'Range: nonsense'
}

# Bodies: of a size that is read, too large, without a size, in pieces.
send_bodies() {
  head -c 70000 /dev/zero >"$scratch/body"
  expect 404 /api/v1/health -d small
  expect 404 /api/v1/health -H Expect: --data-binary "@$scratch/body"
  expect 404 /api/v1/health -H Expect: -H 'Transfer-Encoding: chunked' --data-binary "@$scratch/body"
  expect 404 /api/v1/health -F "part=@$scratch/body"
}

send_nonsense() {
  expect 404 /nothing
  expect 400 '/api/v1/health?a?b'
  expect 400 /api/v1/health -X NONSENSE
  expect 414 "/$(printf 'u%.0s' {1..9000})"
  ! curl -s --max-time 300 "http://127.0.0.1:$port/" >/dev/null || complain "It speaks without TLS."
  : >"/dev/tcp/127.0.0.1/$port"
}

# From an address of its own, which is locked out.
try_wrong_tokens() {
  local try
  for try in 1 2 3 4 5; do
    expect 401 /api/v1/activity --interface 127.0.0.2 -H "Authorization: Bearer wrong $try"
  done
  expect 429 /api/v1/activity --interface 127.0.0.2 -H "X-Spot-Token: $token"
  expect 401 /api/v1/activity --interface 127.0.0.3
}

stop_server() {
  local status=0
  kill -TERM "$server"
  wait "$server" || status=$?
  server=
  ((status == 0)) || complain "The server ended with status $status."
}

"$build/corvane-sample-station" --out "$log" --history "$history" --lines 100000 >&2
start_server
ask_for_every_view
expect 200 /api/v1/health
send_bodies
send_nonsense
try_wrong_tokens
ask_for_parts
replace_log
rm -f -- "$history"  # the log alone from here on
add_line
ask_for_every_view
stop_server

((failed == 0)) || { cat -- "$scratch/valgrind" >&2; exit 1; }
sed 's/^==[0-9]*== *//' "$scratch/valgrind" | grep -E 'lost:|ERROR SUMMARY|All heap blocks|in use at exit'
