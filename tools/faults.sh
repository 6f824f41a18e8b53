#!/usr/bin/env bash
# Lets every call of every kind fail, one run for each, and kills the server at every system call of
# a start. Takes forty minutes on four cores, most of them for the memory of a first start, which
# makes a new key each time; `ctest -L faults` visits a few places of each kind in a minute.
#
#   tools/faults.sh                 all of them
#   tools/faults.sh 'Killed.*'      those that GoogleTest's filter lets through
#   tools/faults.sh 'Killed.*' 10   every tenth place
#
# Prints how each kind of run ended. Exit status 0: every run ended as it may.
set -euo pipefail

checkout=$(dirname -- "$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"
filter=${1:-*}
every=${2:-1}

need_packages "${build_packages[@]}" "${test_packages[@]}"
configure -D BUILD_TESTING=ON
build faults_test

shards=$(nproc)
reports=$(mktemp -d)
trap 'rm -rf -- "$reports"' EXIT
running=()
for ((shard = 0; shard < shards; ++shard)); do
  SPOT_FAULTS_STEP=$((shards * every)) SPOT_FAULTS_FROM=$((shard * every)) \
    "$build/faults_test" --gtest_filter="$filter" >"$reports/$shard" 2>&1 &
  running+=($!)
done
status=0
for shard in "${!running[@]}"; do
  wait "${running[shard]}" || { status=1; cat -- "$reports/$shard" >&2; }
done

# The shards' lines "what: 3 served, 2 told why not, 0 aborted" and the like, added up.
cat -- "$reports"/* | awk -F': ' '
  /: [0-9]+ (served|kills)/ {
    what = $1; for (i = 2; i < NF; ++i) what = what ": " $i
    count = split($NF, part, ", ")
    if (!(what in seen)) { seen[what] = 1; order[++kinds] = what }
    for (i = 1; i <= count; ++i) {
      number = part[i] + 0; word = part[i]; sub(/^[0-9]+ /, "", word)
      key = what SUBSEP i; words[key] = word; sums[key] += number; size[what] = count
    }
  }
  END {
    for (k = 1; k <= kinds; ++k) {
      what = order[k]; line = what ":"
      for (i = 1; i <= size[what]; ++i) {
        line = line (i > 1 ? "," : "") " " sums[what, i] " " words[what, i]
      }
      print line
    }
  }'
exit "$status"
