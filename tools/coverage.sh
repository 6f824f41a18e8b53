#!/usr/bin/env bash
# Coverage of src/ by the tests: builds with counters, runs every test, prints lines and branches
# of each file and every line that no test reached. Branches that only an exception takes, and those
# the compiler proves dead, do not count.
#
#   tools/coverage.sh             all tests
#   tools/coverage.sh -LE soak    arguments go to ctest as they are
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

need_packages "${build_packages[@]}" "${test_packages[@]}" ninja-build gcovr
use_preset coverage
build
# The counters of the last run would be added to.
find "$build" -name '*.gcda' -delete
# The tests of format and layers run nothing of src/.
ctest --test-dir "$build" --output-on-failure --no-tests=error --parallel "$(nproc)" \
  -E '^(format|Layers)' "$@" >&2 || say "Some tests failed: the figures are too low."

gcovr -j "$(nproc)" --root "$checkout" --filter "$checkout/src/" \
  --exclude '.*_(test|fuzz|reference)\..pp' --exclude-throw-branches \
  --exclude-unreachable-branches --json "$build/coverage.json" "$build/src" "$build/tests"
for kind in --branches ""; do
  gcovr --root "$checkout" --add-tracefile "$build/coverage.json" $kind
done
