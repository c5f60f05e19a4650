#!/usr/bin/env python3
"""Writes seed.txt: a Neel skyrmion centred on the grid of input.dat, in the
text form that M_LOAD 1 reads (count, then "i j k Mx My Mz" per cell).
Every cell of the grid is written; the values of empty cells are never read.

Core down, background up, the in-plane part along +r (the chirality that
interfacial D > 0 favours: the polar angle falls outwards).  A rough start:
RELAX finds the profile."""
import math

ms = 1100.0      # emu/cm^3, as in input.dat
n = 40           # cells along x and y (2 nm each)
core = 5.0       # skyrmion radius in cells
width = 2.0      # wall width in cells

rows = []
c = (n - 1) / 2.0
for j in range(n):
    for i in range(n):
        x, y = i - c, j - c
        r = math.hypot(x, y)
        theta = 2.0 * math.atan(math.exp(-(r - core) / width))
        phi = math.atan2(y, x)
        rows.append((i, j, 0, ms * math.sin(theta) * math.cos(phi), ms * math.sin(theta) * math.sin(phi),
                     ms * math.cos(theta)))
with open("seed.txt", "w") as f:
    f.write("%9d\n" % len(rows))
    for i, j, k, mx, my, mz in rows:
        f.write("%d %d %d %.6g %.6g %.6g\n" % (i, j, k, mx, my, mz))
