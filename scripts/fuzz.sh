#!/usr/bin/env bash
# Runs every fuzz target of the sanitizer build for a while.
#   scripts/fuzz.sh [seconds per target (20)] [build dir (build-fuzz)] [-- extra libFuzzer options]
# The build dir must be configured with -DTORIX_FUZZ=ON (scripts/test.sh does
# this).  Seeds come from the files of tests/cases; each target keeps its
# corpus in <build dir>/corpus/<target>, so later runs go on from there.
# A finding stops the run with a non-zero status and leaves the input as
# <build dir>/findings/<target>/crash-* (or leak-*, timeout-*, oom-*).
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_EACH=${1:-20}
BUILD=$(realpath "${2:-build-fuzz}")
shift $(( $# > 2 ? 2 : $# ))
[[ ${1:-} == -- ]] && shift
EXTRA=("$@")
CASES=tests/cases

seed() {  # target, then the prefixes to put before each file, then files via stdin
    local t=$1; shift
    local dir="$BUILD/corpus/$t"
    mkdir -p "$dir"
    local n=0
    while IFS= read -r f; do
        for p in "$@"; do
            { printf "$p"; cat "$f"; } > "$dir/seed-$n"
            n=$((n + 1))
        done
    done
}

# Prefixes: the mask target's first byte picks the format (text, binary,
# second text form); the others take two bytes of grid and selector
# (fuzz/fuzz_util.hpp).
find "$CASES" -name input.dat | seed fuzz_script ''
find "$CASES" -type f \( -name '*mask*' -o -path '*mask_binary*' \) ! -name expect.txt ! -name input.dat |
    seed fuzz_mask '\x00' '\x01' '\x02'
find "$CASES" -type f -path '*tensor*' ! -name expect.txt ! -name input.dat ! -name stderr.txt ! -name status |
    seed fuzz_tensor '\x3f\x05' '\x3f\x15' '\x09\x00' '\x09\x10'
find "$CASES" -type f \( -name 'm*.bin' -o -name 'm*.txt' -o -name 'h*.txt' -o -name 'cut.bin' \) |
    seed fuzz_field '\x3f\x05' '\x3f\x04' '\x09\x01' '\x09\x00'
find "$CASES" -type f -name 'eig*.dat' | seed fuzz_eigen '\x3f\x05' '\x3f\x04' '\x09\x01' '\x09\x00'
find "$CASES" -type f -name 'hrf*.txt' | seed fuzz_hrf '\x3f\x05' '\x09\x00'
# OVF files: the case files_ovf's grid is 3 x 1 x 1 cells (largest indices 2 0 0).
find "$CASES" -type f -name '*.ovf' | seed fuzz_ovf '\x02\x00' '\x3f\x05'

# The targets write their scratch files under TMPDIR: in memory where there
# is a tmpfs (on a disk the writes take ten times longer than the reads).
SCRATCH=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT
export TMPDIR=$SCRATCH
# One thread: the inputs are small, and the runs stay reproducible.
export OMP_NUM_THREADS=1
status=0
for exe in "$BUILD"/fuzz/fuzz_*; do
    [[ -x $exe && -f $exe ]] || continue
    t=$(basename "$exe")
    mkdir -p "$BUILD/corpus/$t" "$BUILD/findings/$t"
    echo "== $t: $SECONDS_EACH s"
    # Standard output (the console lines of scripts) is closed; one input may
    # take at most 60 s and 2 GB.
    if ! "$exe" -max_total_time="$SECONDS_EACH" -timeout=60 -rss_limit_mb=2048 -close_fd_mask=1 \
         -print_final_stats=1 -artifact_prefix="$BUILD/findings/$t/" "${EXTRA[@]}" "$BUILD/corpus/$t" \
         2> "$BUILD/findings/$t/log.txt"; then
        echo "$t: finding, see $BUILD/findings/$t/" >&2
        tail -40 "$BUILD/findings/$t/log.txt" >&2
        status=1
    fi
    grep -E 'stat::number_of_executed_units|stat::peak_rss_mb' "$BUILD/findings/$t/log.txt" | tr '\n' ' '
    echo
done
exit $status
