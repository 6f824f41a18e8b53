#!/usr/bin/env bash
# Replays the corpora of the fuzz targets in a build by Clang. test.sh ends with it.
#
#   tools/corpora.sh
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

need_packages "${build_packages[@]}" "${test_packages[@]}" ninja-build clang
use_preset clang
build corpora
exec ctest --test-dir "$build" --output-on-failure --no-tests=error -R '_corpus$'
