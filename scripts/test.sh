#!/usr/bin/env bash
# Builds sbas-ts and runs every test through ctest, twice: an optimised
# build, and a build under AddressSanitizer and UndefinedBehaviorSanitizer;
# then each fuzz harness of the readers for a few seconds, so that a reader
# that crashes or hangs on its seed files or near them is caught here.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
sbas_install_packages

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

# The sanitized build also runs the portable two-lane vector kernels, which a
# machine with wider vectors never picks at run time.
cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSBAS_SANITIZE=ON -DSBAS_LANE_WIDTH=2
cmake --build build-sanitize -j"$jobs"
ctest --test-dir build-sanitize --output-on-failure -j"$jobs"

scripts/fuzz.sh 5
