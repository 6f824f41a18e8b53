#!/usr/bin/env bash
# Runs the tests once for each of the surroundings that a server may be started in: locales with a
# decimal comma and with a dotless i, odd time zones, any umask, no home and one that nobody can
# write to.
#
#   tools/surroundings.sh            all tests, some minutes each
#   tools/surroundings.sh -L e2e     arguments go to ctest as they are
#
# Exit status 0: all passed everywhere.
set -euo pipefail

checkout=$(dirname -- "$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

need_packages "${build_packages[@]}" "${test_packages[@]}" "${suite_packages[@]}" tzdata
configure -D BUILD_TESTING=ON
build

failed=()
# run_tests NAME ENV_ARGUMENTS... -- CTEST_ARGUMENTS...
run_tests() {
  local name=$1 surroundings=()
  shift
  while [[ $1 != -- ]]; do
    surroundings+=("$1")
    shift
  done
  shift
  say "== $name"
  env "${surroundings[@]}" ctest --test-dir "$build" --output-on-failure --no-tests=error \
    --parallel "$(nproc)" "$@" || failed+=("$name")
}

for locale in de_DE tr_TR; do
  # Without it the run would be one of the C locale.
  locale -a | grep -qi "^$locale.utf-\?8$" ||
    { say "The locale $locale.UTF-8 is missing: install the package locales-all."; exit 1; }
  run_tests "locale $locale" "LC_ALL=$locale.UTF-8" -- "$@"
done
run_tests "time zone of Chatham" TZ=Pacific/Chatham -- "$@"
run_tests "time zone of nowhere" TZ=garbage -- "$@"
run_tests "no home" -u HOME -- "$@"
run_tests "read-only home" HOME=/proc -- "$@"
for mask in 000 077; do
  before=$(umask)
  umask "$mask"
  run_tests "umask $mask" -- "$@"
  umask "$before"
done

((${#failed[@]} == 0)) || { printf 'Failed with: %s\n' "${failed[@]}" >&2; exit 1; }
say "All passed everywhere."
