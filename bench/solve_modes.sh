#!/bin/bash
# Matrix-free modes (SOLVE_MODES) against the dense solve, and film sizes.
#
#   bench/solve_modes.sh TORIX fmr [TOL]      FMR problem: SOLVE_MATRIX and SOLVE_MODES, 12 modes
#                                             (SOLVE_MODES with tolerance TOL, default 0: 1e-10)
#   bench/solve_modes.sh TORIX film N [K]     film of N x N x 1 cells, K modes (default 10)
#
# Each solve runs as a program of its own on a state saved by a first run
# (relaxation), so that its wall time and peak RSS (GNU time) are its own.
# Prints one line per run: what, wall seconds, peak RSS in MB, processor
# seconds, the solver's own summary, and the load average at the start.
# On a busy machine run it with OMP_WAIT_POLICY=passive: spinning threads
# wait for a core that other jobs hold (2 threads ran 5x slower than 1).
# BETA (default 0.008) is the damping of the solves (0: undamped, whose left
# vectors follow from the right ones); LAUNCHER (e.g. "mpirun -n 2") starts
# the solves; the relaxations always run as one plain process.
set -euo pipefail
TORIX=$(realpath "$1")
what=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

run() {  # label [launcher]
    local load
    load=$(cut -d' ' -f1-3 /proc/loadavg)
    # GNU time sees the launcher; its peak RSS is then that of the largest
    # process (a rank), reported as such.
    /usr/bin/time -f "%e %M" -o time.txt ${2:-} "$TORIX" > out.txt 2> err.txt
    read -r wall rss < time.txt
    printf '%-28s wall %8.2f s  rss %7.1f MB  cpu %s  %s  load %s\n' "$1" "$wall" "$(awk -v r="$rss" 'BEGIN {print r / 1024}')" \
        "$(awk '/ time spent| matrix (prepared|solved) in/ {s += $NF} END {print s}' out.txt)" \
        "$(grep ' modes .* operator products' out.txt || true)" "$load"
}

# Permalloy, 5 nm cubic cells.
model() {  # nx ny nz (cells), then the field lines
    cat <<EOF
SET_CELL
5e-7 5e-7 5e-7
MASQUE_CREATE
$(awk -v a="$1" -v b="$2" -v c="$3" 'BEGIN {printf "%.6e %.6e %.6e", a * 5e-7, b * 5e-7, c * 5e-7}')
LOAD_MAT
1
1.3e-6 800
ADD_SHAPE
3
$(awk -v a="$1" -v b="$2" -v c="$3" 'BEGIN {printf "%.6e %.6e %.6e", a * 5e-7, b * 5e-7, c * 5e-7}') 0 0 0 1
TENSOR_CREATE
0
EOF
}

load_state() {
    printf 'M_LOAD\n2 m.bin\nH_LOAD\n2 h.bin\nSET_BETA\n%s\n' "${BETA:-0.008}"
}

case "$what" in
fmr)
    # 120 x 120 x 10 nm, relaxed in 1005 Oe along (1, 0.7, 0).
    { model 24 24 2
      printf 'INIT_M\n2\n1 0.7 0\nADD_EXT_FIELD\n1\n823.3217 576.3252 0\nRELAX\n1 1e-9 0.01\n'
      printf 'M_SAVE\n2 m.bin\nH_SAVE\n2 h.bin\nEND\n'; } > input.dat
    run "fmr relax"
    { model 24 24 2; load_state; printf 'SOLVE_MATRIX\n12\nOMEGA_PRINT\ndense.txt\nEND\n'; } > input.dat
    run "fmr SOLVE_MATRIX 12"
    tol=${3:-0}
    { model 24 24 2; load_state; printf 'SOLVE_MODES\n12 0 %s\nOMEGA_PRINT\nmodes.txt\nEND\n' "$tol"; } > input.dat
    run "fmr SOLVE_MODES 12 tol $tol" "${LAUNCHER:-}"
    paste dense.txt modes.txt | awk '{d = ($5 - $2) / $2; if (d < 0) d = -d; if (d > w) w = d}
        END {printf "largest relative difference of f: %.3g\n", w}'
    ;;
film)
    n=$3
    k=${4:-10}
    # Saturated perpendicular to the film: 12 kOe along z (above 4 pi MS).
    { model "$n" "$n" 1
      printf 'INIT_M\n4\nADD_EXT_FIELD\n1\n0 0 12000\nRELAX\n1 1e-8 0.1\n'
      printf 'M_SAVE\n2 m.bin\nH_SAVE\n2 h.bin\nEND\n'; } > input.dat
    run "film $n relax"
    { model "$n" "$n" 1; load_state; printf 'SOLVE_MODES\n%d 0 0\nEND\n' "$k"; } > input.dat
    run "film ${n}x${n} SOLVE_MODES $k" "${LAUNCHER:-}"
    ;;
*)
    echo "usage: $0 TORIX fmr [TOL] | film N [K]" >&2
    exit 2
    ;;
esac
