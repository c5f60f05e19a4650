#pragma once
// Initial magnetization states.  Positions are grid indices (cell (i, j, k)
// sits at (i, j, k)); every magnetic cell ends with length MS(mask value).
#include "core/array.hpp"

namespace torix {

// Uniform state: every grid point gets (ux, uy, uz); magnetic cells are then
// rescaled to length MS.  (0, 0, 0) is not guarded (0/0 on magnetic cells).
void initdir(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz, double ux,
             double uy, double uz);

// One vortex about the axis parallel to z through (x0, y0): cells within 0.9
// of the axis point along +z, the others circulate in-plane
// (M = MS (ry, -rx, 0) / rho, clockwise seen from +z).  Empty cells are zero.
void initvortex(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz, double x0,
                double y0);

// Two vortices side by side along x with opposite senses of circulation.
// Cells with i < (x1 + x2) / 2 form the first vortex, about (x1, y1),
// circulating clockwise seen from +z like initvortex; the other cells form
// the second, about (x2, y2), circulating anticlockwise.  Cores (rho <= 0.9)
// point along +z in both.  Empty cells are zero.
void initvortex9(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz, double x1,
                 double y1, double x2, double y2);

// Random state, reproducible: the generator restarts from one fixed seed at
// every call.  Magnetic cells are visited serially in storage order (i
// fastest, then j, then k); each draws u1, u2, u3 uniform in [0, 1) and gets
// M = MS v / |v| with v = (u1 - 0.5, u2 - 0.5, u3 - 0.5).  Empty cells are 0.
void initrandom(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz);

// The fixed seed of initrandom and its uniform draw: the top 53 bits of one
// 64-bit Mersenne Twister output, times 2^-53.
inline constexpr unsigned long long kRandomSeed = 5489ULL;

}  // namespace torix
