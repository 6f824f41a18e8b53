#!/usr/bin/env bash
# Runs the server under everything at once and checks each of its answers: many clients, resets,
# wrong tokens, while log, history and country file change.
#
#   tools/soak.sh MINUTES [options of the program soak]
#   tools/soak.sh 30
#   tools/soak.sh 5 --clients 100 --rate 400
#   tools/soak.sh 30 --reserves 1    with the C library as the server usually has it
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

seconds=$(in_seconds "${1:?Usage: tools/soak.sh MINUTES [options]}")
shift
need_packages "${build_packages[@]}" "${test_packages[@]}"
configure -D BUILD_TESTING=ON
build soak
exec "$build/soak" --seconds "$seconds" "$@"
