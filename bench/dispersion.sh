#!/bin/bash
# Dispersion of a Permalloy waveguide (DISPERSION): 1 um wide, 30 nm thick,
# periodic along its length x, magnetized along x by 1 kOe; 8 branches at 60
# wave vectors from 0 to 0.1 rad/nm.
#
#   bench/dispersion.sh TORIX [CELL_NM] [NK] [NMODES]
#
# CELL_NM: the cell (cubic, nm; default 10): the period along x is one cell,
# the cross-section 1000/CELL x 30/CELL cells.  Prints the wall time, the
# processor seconds (user + system) and peak RSS (GNU time) of the whole
# run, the load average at the start, and the
# first and last lines of the table.  On a busy machine run it with
# OMP_WAIT_POLICY=passive.
set -euo pipefail
TORIX=$(realpath "$1")
cell=${2:-10}
nk=${3:-60}
nmodes=${4:-8}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
d=$(awk -v c="$cell" 'BEGIN {printf "%.6e", c * 1e-7}')
{
    printf 'SET_CELL\n%s %s %s\nMASQUE_CREATE\n%s 1e-4 3e-6\n' "$d" "$d" "$d" "$d"
    printf 'LOAD_MAT\n1\n1.3e-6 800\nADD_SHAPE\n3\n%s 1e-4 3e-6 0 0 0 1\n' "$d"
    printf 'SET_PERIODIC\n1 0 0\nTENSOR_CREATE\n0\nINIT_M\n2\n1 0 0\nADD_EXT_FIELD\n1\n1000 0 0\n'
    printf 'RELAX\n1 1e-9 0.1\n'
    printf 'DISPERSION\n0 0 0 1e6 0 0 %d\n%d 1e-8\nguide.txt\nEND\n' "$nk" "$nmodes"
} > input.dat
load=$(cut -d' ' -f1-3 /proc/loadavg)
/usr/bin/time -f "%e %M %U %S" -o time.txt "$TORIX" > out.txt 2> err.txt || { cat out.txt err.txt; exit 1; }
read -r wall rss user sys < time.txt
printf 'waveguide %s nm cells, %d k, %d modes: wall %.2f s  cpu %.2f s  rss %.1f MB  load %s\n' "$cell" "$nk" \
    "$nmodes" "$wall" "$(awk -v u="$user" -v s="$sys" 'BEGIN {print u + s}')" "$(awk -v r="$rss" 'BEGIN {print r / 1024}')" "$load"
grep -v '^#' guide.txt | sed -n '1p;$p' | awk '{printf "k %g rad/cm:", $1; for (i = 7; i <= NF; i += 3) printf " %.4g", $i; print " GHz"}'
head -1 guide.txt
