#!/usr/bin/env bash
# Measures whether comparing a token takes longer the later the first wrong byte lies.
# Exit status 1 when it does. Run it on a quiet machine.
#
#   tools/timing.sh [SAMPLES]
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

need_packages "${build_packages[@]}" "${test_packages[@]}"
configure
build token_timing
exec "$build/token_timing" "$@"
