#!/usr/bin/env bash
# Runs tests on a machine where threads stand still: now and then a thread of a test or of its server
# that locks, reads, writes or waits does so before it or behind it, for up to 0.4 s. (But for servers
# that have a library of faults or of clocks preloaded.) What fails took an order of things for granted
# that nobody keeps, or gave an honest client too little time.
#
#   tools/stalls.sh              every test with clients, once: three minutes
#   tools/stalls.sh 5            five times
#   tools/stalls.sh -R Stop      arguments go to ctest, which then runs these tests
#
# Exit status 0: all passed each time.
set -euo pipefail

checkout=$(dirname -- "$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"
rounds=1
if [[ ${1:-} =~ ^[1-9][0-9]*$ ]]; then
  rounds=$1
  shift
fi
(($# > 0)) || set -- -L 'e2e|hostile|faults|soak'

need_packages "${build_packages[@]}" "${test_packages[@]}" "${suite_packages[@]}"
configure -D BUILD_TESTING=ON
build

failed=0
for ((round = 1; round <= rounds; ++round)); do
  say "== round $round of $rounds"
  LD_PRELOAD=$build/tests/stalls/libstall_preload.so ctest --test-dir "$build" --output-on-failure \
    --no-tests=error --parallel "$(nproc)" "$@" || failed=$((failed + 1))
done

((failed == 0)) || { say "$failed of $rounds rounds failed."; exit 1; }
say "All passed each time."
