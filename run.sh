#!/usr/bin/env bash
# Installs what is missing, builds the server and runs it until it is stopped.
#
#   ./run.sh               serves this user's station; a station without a decode log gets an
#                          invented one, so that there is something to see
#   ./run.sh --port 7400   options go to the server as they are; --help lists them
set -euo pipefail

checkout=$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

# The server looks for the country file in these places. Where there is none it gets ours, once.
install_country_file() {
  local installed=/usr/share/corvane/cty.dat
  [[ ! -f cty.dat && ! -f $installed && ! -f /build/src/corvane/data/cty.dat ]] || return 0
  as_root install -D -m 0644 -- "$checkout/data/cty.dat" "$installed" && return 0
  say "Cannot write $installed: callsigns are counted without a look at their country."
  say "To have it, run as root: install -D -m 0644 $checkout/data/cty.dat $installed"
}

# Whether there is anything of that name, a link that leads nowhere included.
is_there() { [[ -e $1 || -L $1 ]]; }

# Starts writing a sample station anew. It lives as long as this process, which becomes the server.
# Returns once the day up to now is written.
start_sample_station() {
  local writer
  mkdir -p -- "$sample"
  exec {writer}< <(exec "$build/corvane-sample-station" --out "$sample/ALL.TXT" \
    --history "$sample/history.sqlite3" --follow --parent $$)
  read -r -u "$writer" || exit 1
  exec {writer}<&-
}

need_packages "${build_packages[@]}"
is_configured || configure
build corvane-spot-server sample_station
install_country_file

# The server moves the directories of its former name first thing, whatever it is asked for.
"$build/corvane-spot-server" --version >/dev/null
state=${XDG_STATE_HOME:-${HOME:-/root}/.local/state}/corvane
log=$state/ALL.TXT
sample=$build/sample-station
if (($# == 0)) && ! is_there "$log" && ! is_there "$state/history.sqlite3"; then
  say "There is no decode log at $log: serving a sample station from $sample"
  start_sample_station
  set -- --all-txt "$sample/ALL.TXT" --history-db "$sample/history.sqlite3"
fi
exec "$build/corvane-spot-server" "$@"
