#pragma once
// Shape painters.  Positions, semi-axes and heights are in cell-index units
// (cell (i, j, k) has its centre at (i, j, k)); each painter writes `value`
// into every cell that passes its test, never clears a cell, and returns in
// `count` the number of cells written.
#include "core/array.hpp"

namespace torix {

// Ellipsoid with semi-axes (a, b, c) about (x0, y0, z0), with an
// ellipsoidal hole (ai, bi, ci) unless one of those is <= 0.
void calcsphere(IntGrid& MASQUE, int nx, int ny, int nz, double a, double b, double c, double ai, double bi, double ci,
                double x0, double y0, double z0, int value, int& count);

// Elliptic cylinder along z: semi-axes (a, b) about (x0, y0), hole (ai, bi)
// unless one is <= 0, covering the planes z0 <= k <= z0 + h.
void calcdisk(IntGrid& MASQUE, int nx, int ny, int nz, double a, double b, double ai, double bi, double h, double x0,
              double y0, double z0, int value, int& count);

// Index box i1..i2 x j1..j2 x k1..k2, inclusive.  The box is clipped to the
// grid, so no index outside the mask is ever written.
void calcslab2(IntGrid& MASQUE, int nx, int ny, int nz, int i1, int i2, int j1, int j2, int k1, int k2, int value,
               int& count);

}  // namespace torix
