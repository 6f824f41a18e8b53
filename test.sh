#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the tests, then the fuzz corpora once more with
# the other compiler.
#
#   ./test.sh              all of them
#   ./test.sh -R Layers    arguments go to ctest as they are, and the other compiler rests
#
# With CI=true in the environment compiler warnings are errors.
set -euo pipefail

checkout=$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

warnings_are_errors=OFF
[[ ${CI:-} != true ]] || warnings_are_errors=ON

need_packages "${build_packages[@]}" "${test_packages[@]}" "${suite_packages[@]}"
configure -D BUILD_TESTING=ON -D SPOT_WERROR=$warnings_are_errors
build
ctest --test-dir "$build" --output-on-failure --no-tests=error --parallel "$(nproc)" "$@"
(($# > 0)) || exec "$checkout/tools/corpora.sh"
