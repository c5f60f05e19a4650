#!/bin/bash
# Field sweep (SWEEP_FIELD) of the FMR problem's box: 120 x 120 x 10 nm,
# 1152 cells of 5 nm, relaxed at 2000 Oe along (1, 0.7, 0), then swept to
# 200 Oe along the same direction in 50 steps with the 12 lowest modes
# (matrix-free solver), the absorption at 8 GHz and the pictures.
#
#   bench/sweep_field.sh TORIX [SOLVER]     SOLVER 0 matrix-free (default), 1 dense
#
# Prints: wall and processor seconds (user + system), peak RSS in MB, the load average at the start, and
# the number of resonances found.  On a busy machine run it with
# OMP_WAIT_POLICY=passive.
set -euo pipefail
TORIX=$(realpath "$1")
solver=${2:-0}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
cat > input.dat <<EOF
SET_CELL
5e-7 5e-7 5e-7
MASQUE_CREATE
120e-7 120e-7 10e-7
LOAD_MAT
1
1.3e-6 800
ADD_SHAPE
3
120e-7 120e-7 10e-7 0 0 0 1
TENSOR_CREATE
0
SET_BETA
0.008
INIT_M
2
1 0.7 0
SET_HRF
2
0 0 1
ADD_EXT_FIELD
1
1638.3918 1146.8743 0
RELAX
1 1e-7 0.1
SWEEP_FIELD
1638.3918 1146.8743 0 163.83918 114.68743 0 50
12 $solver 8
sweep.txt
END
EOF
load=$(cut -d' ' -f1-3 /proc/loadavg)
/usr/bin/time -f "%e %M %U %S" -o time.txt "$TORIX" > out.txt 2> err.txt
read -r wall rss user sys < time.txt
printf 'sweep 50 steps, 12 modes, solver %s: wall %.2f s  cpu %.2f s  rss %.1f MB  load %s  %s\n' "$solver" "$wall" \
    "$(awk -v u="$user" -v s="$sys" 'BEGIN {print u + s}')" "$(awk -v r="$rss" 'BEGIN {print r / 1024}')" "$load" \
    "$(grep '# resonances' sweep.txt_fmr.txt)"
