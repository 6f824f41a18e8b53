#!/usr/bin/env bash
# Mutation testing of the pure parts: COUNT small changes, one at a time, and whether the unit test
# and the fuzz corpus of the file notice each. Prints those that survived; exit status 1 when fewer
# than nine in ten were noticed. The checkout is only read.
#
#   tools/mutate.sh COUNT [SEED]
#   tools/mutate.sh 300
set -euo pipefail

checkout=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/..")
# shellcheck source=tools/setup.bash
source "$checkout/tools/setup.bash"

count=${1:?Usage: tools/mutate.sh COUNT [SEED]}
need_packages "${build_packages[@]}" "${test_packages[@]}" ninja-build python3
use_preset release
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
python3 "$checkout/tools/mutate.py" --checkout "$checkout" --build "$build" \
  --scratch "$scratch" --jobs "$(nproc)" --count "$count" --seed "${2:-1}"
