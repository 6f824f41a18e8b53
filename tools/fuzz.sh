#!/usr/bin/env bash
# Runs the fuzz targets with libFuzzer: builds them, divides MINUTES among them, as many at a time
# as there are processors, and prints executions and findings of each. Exit status 1 when one found
# something; the input lies in its folder and belongs into tests/corpus once the fault is mended.
#
#   tools/fuzz.sh MINUTES [TARGET...]
#   tools/fuzz.sh 60                  all of them
#   tools/fuzz.sh 10 settings cty     these two
#
# New inputs stay below build-fuzz/corpus, so that the next run goes on from there.
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

# Every rule of every input fits into this, and longer ones run that much slower.
longest_input=1024

every_target() { ninja -C "$build" -t targets all | sed -n 's/^\([a-z_0-9]*\)_fuzz: CXX.*/\1/p'; }

# One target for some seconds; what it says goes to its log, how it ended behind it.
run_target() {
  local name=$1 seconds=$2 dictionary=()
  local found=$build/corpus/$name findings=$build/findings/$name/ seeds=$checkout/tests/corpus/$name
  [[ ! -f $seeds.dict ]] || dictionary=("-dict=$seeds.dict")
  mkdir -p -- "$found" "$findings"
  "$build/${name}_fuzz" -max_total_time="$seconds" -max_len="$longest_input" -print_final_stats=1 \
    -timeout=25 -rss_limit_mb=4096 -artifact_prefix="$findings" "${dictionary[@]}" \
    "$found" "$seeds" >"$build/corpus/$name.log" 2>&1 && echo "no finding" >"$found.outcome"
}

# The last of the lines "stat::<key>: <value>" in a target's log.
statistic() { sed -n "s/^stat::$2: *//p" "$build/corpus/$1.log" | tail -1; }

seconds=$(in_seconds "${1:?Usage: tools/fuzz.sh MINUTES [TARGET...]}")
shift
need_packages "${build_packages[@]}" "${test_packages[@]}" ninja-build clang libclang-rt-14-dev
use_preset fuzz
targets=("$@")
((${#targets[@]} > 0)) || mapfile -t targets < <(every_target)
build "${targets[@]/%/_fuzz}"

share=$((seconds * $(nproc) / ${#targets[@]}))
((share <= seconds)) || share=$seconds
((share > 0)) || share=1
mkdir -p -- "$build/corpus"
rm -f -- "$build"/corpus/*.outcome
for name in "${targets[@]}"; do
  while (($(jobs -rp | wc -l) >= $(nproc))); do wait -n || true; done
  run_target "$name" "$share" &
done
wait

status=0
for name in "${targets[@]}"; do
  outcome=$(cat -- "$build/corpus/$name.outcome" 2>/dev/null) ||
    { outcome="FOUND, see $build/corpus/$name.log"; status=1; }
  printf '%-18s %12s executions %8s a second   %s\n' "$name" \
    "$(statistic "$name" number_of_executed_units)" "$(statistic "$name" average_exec_per_sec)" \
    "$outcome"
done
exit $status
