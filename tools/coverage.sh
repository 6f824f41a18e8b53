#!/usr/bin/env bash
# Coverage of src/ by the tests, as Clang counts in the source: builds with counters, runs every
# test, prints lines and branches of each file and every line that no test reached.
#
#   tools/coverage.sh             all tests
#   tools/coverage.sh -LE soak    arguments go to ctest as they are
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

# llvm-cov on all test programs and the server, for what lies in src/ and is no test.
measure() {
  local command=$1 program objects=()
  shift
  for program in "$build"/*_test "$build"/*_fuzz "$build/soak"; do
    objects+=("-object=$program")
  done
  llvm-cov-14 "$command" "$build/corvane-spot-server" "${objects[@]}" \
    -instr-profile="$build/profile/all" \
    -ignore-filename-regex='/(bench|tests|tools)/|_(test|fuzz|reference)\.|^/usr/' "$@"
}

report() {
  measure report | awk '$NF ~ /^(-|[0-9.]+%)$/ {
    printf "%-32s %5d lines, %3d missed %8s   %5d branches, %3d missed %8s\n",
           $1, $8, $9, $10, $11, $12, $13 }'
}

# The lines with a count of 0, as "<file>:<number>: <text>".
unreached_lines() {
  measure export -format=lcov | awk -F '[:,]' '
    /^SF:/ {
      file = substr($0, 4)
      for (number = 1; (getline text[number] < file) > 0; ++number);
      close(file)
      sub(/.*\/src\//, "src/", file)
    }
    /^DA:/ && $3 == 0 { printf "%s:%d:%s\n", file, $2, text[$2] }'
}

need_packages "${build_packages[@]}" "${test_packages[@]}" "${suite_packages[@]}" ninja-build clang \
  llvm-14
use_preset coverage
build
# The counters of the last run would be added to.
rm -rf -- "$build/profile"
# Several processes at a time write into one file, by turns. Format and layers run nothing of src/;
# where the memory of a migration fails, the counters complain on standard error as well.
LLVM_PROFILE_FILE=$build/profile/%4m.profraw \
  ctest --test-dir "$build" --output-on-failure --no-tests=error --parallel "$(nproc)" \
  -E '^(format|Layers)|MemoryOfAMigration' "$@" >&2 || say "Some tests failed: the figures are too low."
llvm-profdata-14 merge -sparse -o "$build/profile/all" "$build"/profile/*.profraw
report
printf '\nNot reached:\n'
unreached_lines
