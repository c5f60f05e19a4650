#pragma once
// Accurate builder of the interaction tensor (TENSOR_CREATE kind > 0).
//
// The same tensor as tensornewall (the exact interaction of two uniformly
// magnetized boxes, plus the nearest-neighbour exchange), computed so that
// every entry keeps its digits at any offset:
//  - near offsets: Newell's closed forms, the shared point values and their
//    27-point second difference evaluated in quadruple precision (113-bit
//    significand), so the cancellation of the difference stays far below
//    double rounding;
//  - far offsets: the moment expansion of the cell-pair average (after
//    Donahue and Porter, Physica B 343, 177 (2004)).  The interaction of two
//    uniform boxes at offset r is the point-dipole kernel d_a d_b (1/|r|)
//    averaged over the autocorrelation of the box, a product of triangle
//    distributions on [-d, d] per axis, so
//      T_ab(r) = V sum over even p, q, s of
//                w_p(dx) w_q(dy) w_s(dz) d_x^p d_y^q d_z^s d_a d_b (1/|r|),
//      w_p(d) = 2 d^p / (p + 2)!,
//    the derivatives of 1/|r| coming from a three-term recurrence.  The terms
//    fall like (largest cell side / |r|)^2 per order.
//
// Lengths in cm; a tensor entry is -4 pi times Newell's dimensionless factor
// (Oe per emu/cm^3).
#include "core/array.hpp"

namespace torix {

// The most terms of the expansion (orders 0, 2, .., 2 (kMaxTerms - 1) of
// the cell size over the distance).
inline constexpr int kMaxTerms = 13;

// How calctensorc splits the offsets and how many terms it keeps.
struct AccuratePlan {
    double dx = 0.0, dy = 0.0, dz = 0.0;  // cell sizes (cm)
    int switch_cells = 0;     // the expansion is used from this distance on, in largest cell sides
    double switch_dist = 0.0; // the same in cm
    int terms = 0;            // fixed number of terms, 0: chosen per offset
    double rtol = 1e-12;      // relative accuracy wanted
};

// The plan for the TENSOR_CREATE line "n1 n2 r": n1 the switch distance in
// largest cell sides (<= 0: the smallest at which kMaxTerms terms reach r),
// n2 the number of terms (<= 0: per offset, the fewest that reach r; above
// kMaxTerms: kMaxTerms), r the relative accuracy (<= 0: 1e-12), relative
// to the size of the block's entries, V / |r|^3.  "Reach r" keeps the
// estimated truncation error 1e-4 below r, since truncation errors of
// neighbouring offsets add up in sums over a body.
AccuratePlan plan_accurate(double dx, double dy, double dz, int n1, int n2, double r);

// Terms of the expansion used at distance dist (cm) >= switch_dist.
int expansion_terms(const AccuratePlan& plan, double dist);

// Estimated truncation error of `terms` terms at distance dist (cm),
// relative to V / dist^3.
double expansion_error(const AccuratePlan& plan, double dist, int terms);

// Dipolar block of offset (i, j, k) by the expansion with `terms` terms, as
// the tensor holds it: xx, yy, zz, xy, xz, yz.  (i, j, k) != (0, 0, 0).
void expansion_block(int i, int j, int k, double dx, double dy, double dz, int terms, double out[6]);
// The same at any displacement (X, Y, Z) in cm, not only whole cell offsets.
void expansion_block_at(double X, double Y, double Z, double dx, double dy, double dz, int terms, double out[6]);

// Dipolar block of offset (i, j, k) by Newell's formulas in quadruple
// precision (xx, yy, zz, xy, xz, yz).
void newell_block_quad(int i, int j, int k, double dx, double dy, double dz, double out[6]);

// Dipolar block of offset (i, j, k) as calctensorc computes it: Newell below
// the switch distance, the expansion from it on.
void accurate_block(const AccuratePlan& plan, int i, int j, int k, double out[6]);

// Adds slice m (1..nmat) of the tensor to AIJ exactly as tensornewall lays it
// out (the dipolar entries subtracted, entries 2, 3, 6 set to 4, 7, 8, the
// exchange 2 A(m) / (MS(m)^2 d^2) added on the six nearest-neighbour
// offsets), with the dipolar entries of accurate_block for plan_accurate(dx,
// dy, dz, n1, n2, r).  A in erg/cm, MS in emu/cm^3.
void calctensorc(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, int nx, int ny, int nz,
                 double dx, double dy, double dz, int m, int nmat, int n1, int n2, double r);

}  // namespace torix
