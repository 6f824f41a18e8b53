#!/usr/bin/env bash
# Measures what hostile clients and bad surroundings can do to the built server, at full size.
# Prints each figure beside its limit; the status is 0 when all are kept.
#
#   tools/hostile.sh              everything; takes a quarter of an hour
#   tools/hostile.sh crowd stop   these subjects only
#   tools/hostile.sh --list       the subjects
set -euo pipefail

checkout=$(dirname -- "$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

need_packages "${build_packages[@]}" "${test_packages[@]}"
configure -D BUILD_TESTING=ON
build hostile_measure
exec "$build/hostile_measure" "$@"
