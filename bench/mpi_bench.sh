#!/usr/bin/env bash
# The medium stack (1000 x 1000 pixels, 60 dates, about 230 interferograms,
# the job sbas-bench makes) run by sbas-ts under mpirun with 1, 2, ... ranks:
# the default pipeline with stacking, maxcap 100000 so that every rank has
# batches, and the wall time and bytes read of every stage for every rank
# (sbas-ts --stage-report). Every run's results are compared byte for byte
# with the run of one rank.
#   bench/mpi_bench.sh [RANKS...]        (default: 1 2)
# THREADS (default 1) sets max_parallel_threads of each rank; JOB (default
# /tmp/sbas-mpi-bench-job) is where the job is made once.
set -euo pipefail
cd "$(dirname "$0")/.."
ranks=("$@")
[ ${#ranks[@]} -gt 0 ] || ranks=(1 2)
threads=${THREADS:-1}
job=${JOB:-/tmp/sbas-mpi-bench-job}
sbas_ts=$PWD/build/sbas-ts
synth=$PWD/build/tools/synth/sbas-synth
[ -x "$sbas_ts" ] && [ -x "$synth" ] || { echo "build sbas-ts and sbas-synth first"; exit 1; }
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
export OMPI_MCA_btl_vader_single_copy_mechanism=${OMPI_MCA_btl_vader_single_copy_mechanism:-none}
if [ ! -f "$job/config.txt" ]; then
    echo "making the medium stack in $job ..."
    "$synth" --out "$job" --force --width 1000 --length 1000 --dates 60 --neighbours 4 --deformation mixed \
        --noise 0.5 --nodata-fraction 0.2 >/dev/null
fi
for r in "${ranks[@]}"; do
    result=$job/result_$r
    rm -rf "$result"
    mkdir -p "$result"
    { cat "$job/config.txt"
      printf 'resultfolder %s\nref_row 0\nref_col 0\nif_check_loop_closure 1\nif_use_existing_phasemask 0\nif_apply_filter 1\n' "$result"
      printf 'if_stacking 1\nmaxcap 100000\nmax_parallel_threads %s\n' "$threads"; } >"$job/run_$r.txt"
    start=$(date +%s.%N)
    mpirun -q --oversubscribe -n "$r" "$sbas_ts" --stage-report "$job/run_$r.txt" 2>"$job/log_$r.txt"
    end=$(date +%s.%N)
    echo "== $r rank(s) x $threads thread(s): $(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.1f", b - a}') s wall"
    sed -n '/^Stage report/,/^Total time/p' "$job/log_$r.txt" | grep -v '^Total time'
    if [ "$r" != "${ranks[0]}" ]; then
        if diff -rq "$job/result_${ranks[0]}" "$result" >/dev/null; then echo "results: identical to ${ranks[0]} rank(s)"
        else echo "results: DIFFERENT from ${ranks[0]} rank(s)"; fi
    fi
done
