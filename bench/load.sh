#!/usr/bin/env bash
# Wall-clock time of whole runs of the program, idle and with one busy-loop
# process beside it, on 1 and 2 OpenMP threads:
#   solve    SOLVE_MATRIX on the FMR standard problem's platelet (120 x 120 x
#            10 nm Permalloy, 5 nm cells: 1152 cells, order 2304), relaxed
#            in 1005 Oe along (1, 0.7, 0)
#   relax    damped alignment of a 64 x 64 x 4 box (FFT field)
#   tensor   TENSOR_CREATE on 128 x 128 x 8 cells (with its Fourier form)
#   tensor64 TENSOR_CREATE on 64 x 64 x 4 cells
# and, for comparison, with 2 threads: the same program with spinning OpenMP
# threads (OMP_WAIT_POLICY=ACTIVE, which the program leaves as it is), and
# an earlier build of the program (third argument) with the environment as
# it is, as a user would run it.
#
# Usage: bench/load.sh [path/to/torix] [repetitions] [path/to/earlier/torix]
#        (default build/torix, 1 repetition, no earlier build)
# Prints one line per case and condition: case, load, threads, policy or
# build, seconds (the best of the repetitions).
set -euo pipefail
BIN=$(realpath "${1:-build/torix}")
REPS=${2:-1}
BEFORE=${3:+$(realpath "$3")}
WORK=$(mktemp -d)
trap 'kill ${LOADPID:-} 2>/dev/null || true; rm -rf "$WORK"' EXIT

box() {  # Lx Ly Lz (nm): a Permalloy box of 5 nm cells
    printf 'SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\nMASQUE_CREATE\n%se-7 %se-7 %se-7\nADD_SHAPE\n3\n%se-7 %se-7 %se-7 0 0 0 1\n' \
        "$1" "$2" "$3" "$1" "$2" "$3"
}
mkcase() {
    mkdir -p "$WORK/$1"
    cat > "$WORK/$1/input.dat"
}
{ box 120 120 10; printf 'TENSOR_CREATE\n0\nINIT_M\n2\n1 0.7 0\nADD_EXT_FIELD\n1\n823.3 576.3 0\nRELAX\n1 1e-6 0.1\nSOLVE_MATRIX\n10\nEND\n'; } | mkcase solve
{ box 320 320 20; printf 'TENSOR_CREATE\n0\nINIT_M\n2\n1 0.7 0\nADD_EXT_FIELD\n1\n823.3 576.3 0\nRELAX\n1 1e-5 0.1\nEND\n'; } | mkcase relax
{ box 640 640 40; printf 'TENSOR_CREATE\n0\nEND\n'; } | mkcase tensor
{ box 320 320 20; printf 'TENSOR_CREATE\n0\nEND\n'; } | mkcase tensor64
{ box 5 5 5; printf 'END\n'; } | mkcase empty

run() {  # case threads policy [binary] -> seconds (best of REPS)
    local best="" bin=${4:-$BIN}
    for ((r = 0; r < REPS; r++)); do
        local t0 t1
        t0=$(date +%s.%N)
        (cd "$WORK/$1" && env OMP_NUM_THREADS="$2" ${3:+OMP_WAIT_POLICY=$3} "$bin" > out.txt 2> err.txt) ||
            { echo "run of $1 failed" >&2; cat "$WORK/$1/err.txt" >&2; exit 1; }
        t1=$(date +%s.%N)
        local dt
        dt=$(echo "$t1 - $t0" | bc)
        if [[ -z $best ]] || (( $(echo "$dt < $best" | bc) )); then best=$dt; fi
    done
    echo "$best"
}

echo "# $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg) at start, $(date -u +%FT%TZ)"
echo "# case load threads policy seconds"
for load in idle loaded; do
    if [[ $load == loaded ]]; then
        sh -c 'while :; do :; done' &
        LOADPID=$!
        sleep 1
    fi
    for c in empty tensor64 tensor relax solve; do
        for th in 1 2; do
            echo "$c $load $th passive $(run $c $th "")"
        done
        echo "$c $load 2 spinning $(run $c 2 ACTIVE)"
        [[ -n $BEFORE ]] && echo "$c $load 2 earlier-build $(run $c 2 "" "$BEFORE")"
    done
    if [[ $load == loaded ]]; then kill $LOADPID; wait $LOADPID 2>/dev/null || true; unset LOADPID; fi
done
echo "# load average $(cut -d' ' -f1-3 /proc/loadavg) at end"
