#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer,
# UndefinedBehaviorSanitizer) in build-fuzz/ and runs each for a bounded time.
#   scripts/fuzz.sh              every target, 60 seconds each
#   KD_FUZZ_SECONDS=300 scripts/fuzz.sh request_fuzz
#   KD_FUZZ_BUILD=<dir> builds elsewhere than build-fuzz/
# The seed corpus in fuzz/corpus/<target>/ is read, never written: what a run
# finds goes to build-fuzz/corpus/<target>/, a crashing input to
# build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${KD_FUZZ_SECONDS:-60}
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(request_fuzz grammar_fuzz)

# clang++ and its libFuzzer runtime come with install-deps.sh.
if ! clang++ --version >/dev/null 2>&1 || ! ls "$(clang++ --print-runtime-dir)"/libclang_rt.fuzzer-*.a >/dev/null 2>&1; then
  scripts/install-deps.sh
fi

build=${KD_FUZZ_BUILD:-build-fuzz}
cmake -S fuzz -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
mkdir -p "$build/artifacts"
for target in "${targets[@]}"; do
  mkdir -p "$build/corpus/$target"
  echo "fuzzing $target for ${seconds}s"
  # The daemon's own error lines would flood the output: the target's
  # standard output and error are closed, the fuzzer's reports still come.
  "$build/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=3072 -close_fd_mask=3 \
    -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
    "$build/corpus/$target" "fuzz/corpus/$target" </dev/null
done
