#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy over every .cpp of common/
# and qm/ (subfolders included), with the compile commands of build/, one
# file per core; fails on any finding.
#   scripts/tidy.sh               every source
#   scripts/tidy.sh qm/qm_job.cpp the named sources only
#   KD_TIDY_BUILD=<dir>           takes the compile commands from elsewhere than build/
# A finding that is deliberate is suppressed where it is, with its reason:
#   // NOLINT(check-name): reason
set -euo pipefail
cd "$(dirname "$0")/.."

build=${KD_TIDY_BUILD:-build}
if ! command -v clang-tidy >/dev/null 2>&1; then
  scripts/install-deps.sh
fi
# The same configuration as scripts/test.sh: an existing build keeps its
# cache, and files added or moved since its last run are in the database.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

files=("$@")
if [ ${#files[@]} -eq 0 ]; then
  mapfile -t files < <(find common qm -name '*.cpp' | sort)
fi

# Each file's output is held until it is done, so parallel reports do not
# interleave. The commands are g++'s: clang does not know -Wno-restrict.
# The run-clang-tidy wrapper cannot pass --warnings-as-errors, hence xargs.
export KD_TIDY_DB=$build
tidy_one() {
  local out
  if ! out=$(clang-tidy -p "$KD_TIDY_DB" --quiet --warnings-as-errors='*' \
               --extra-arg=-Wno-unknown-warning-option "$1" 2>&1); then
    printf '%s\n' "$out" | grep -v -E '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$'
    return 1
  fi
}
export -f tidy_one

start=$SECONDS
if printf '%s\0' "${files[@]}" | xargs -0 -n1 -P"$(nproc)" bash -c 'tidy_one "$1"' tidy; then
  echo "tidy: ${#files[@]} files clean in $((SECONDS - start))s"
else
  echo "tidy: findings above" >&2
  exit 1
fi
