#!/usr/bin/env bash
# The soak with the thread sanitizer in server and clients: 64 clients for each of the two servers.
# Any report ends the server, which the soak prints and fails for.
#
#   tools/tsan.sh MINUTES [options of the program soak]
#   tools/tsan.sh 10
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

seconds=$(in_seconds "${1:?Usage: tools/tsan.sh MINUTES [options]}")
shift
need_packages "${build_packages[@]}" "${test_packages[@]}" ninja-build
use_preset tsan
build soak
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
  exec "$build/soak" --seconds "$seconds" --clients 128 "$@"
