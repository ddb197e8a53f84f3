#!/usr/bin/env bash
# Builds the libFuzzer harnesses of the readers (the four text readers, the
# raster reader, the DEM reader and sbas-view's command line) with clang
# (build-fuzz/) and runs each for SECONDS seconds (default 60), one after
# another, starting
# from the seed files of tests/fuzz/corpus. New inputs the fuzzer keeps go to
# build-fuzz/corpus/, never into the repository; an input that crashes, hangs
# or leaks is written to build-fuzz/findings/ and the script fails.
#
#   scripts/fuzz.sh [SECONDS] [HARNESS...]
#   harnesses: config header list baselines raster dem view_args
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
harnesses=("$@")
[ ${#harnesses[@]} -eq 0 ] && harnesses=(config header list baselines raster dem view_args)

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSBAS_FUZZ=ON \
    -DSBAS_BUILD_TESTS=OFF > /dev/null
targets=()
for h in "${harnesses[@]}"; do targets+=("fuzz_$h"); done
cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]}"

# The harnesses work in a job folder of their own: every path they are
# given is absolute.
root=$PWD
mkdir -p build-fuzz/findings
for h in "${harnesses[@]}"; do
    work=$root/build-fuzz/corpus/$h
    mkdir -p "$work"
    echo "== fuzz_$h for ${seconds} s"
    # -close_fd_mask=3: the readers' own messages are expected outcomes; the
    # fuzzer's and the sanitizers' reports still reach standard error.
    "build-fuzz/tests/fuzz/fuzz_$h" -max_total_time="$seconds" -timeout=10 -close_fd_mask=3 \
        -print_final_stats=1 -artifact_prefix="$root/build-fuzz/findings/$h-" "$work" "$root/tests/fuzz/corpus/$h"
done
