#pragma once
// Cubic magnetocrystalline anisotropy of one material.  With m = M / MS and
// the direction cosines a_i = m . c_i on orthonormal crystal axes c1, c2,
// c3 = c1 x c2, the energy density (erg/cm^3) is
//     w = K1 (a1^2 a2^2 + a2^2 a3^2 + a3^2 a1^2) + K2 a1^2 a2^2 a3^2,
// the field (Oe) H = -(1/MS) dw/dm, and its Jacobian (per emu/cm^3)
//     dH/dM = -(1/MS^2) sum_ik (d2w / da_i da_k) c_i c_k^T,
//     d2w/da_i^2     = 2 K1 (a_j^2 + a_k^2) + 2 K2 a_j^2 a_k^2,
//     d2w/da_i da_j  = 4 K1 a_i a_j + 4 K2 a_i a_j a_k^2     (i != j, k the third)
// (J. Smit and H. G. Beljers, Philips Res. Rep. 10, 113 (1955), for the
// resonance that follows from it).  The formulas take m = M / MS as it
// stands, without renormalising, so the field is a polynomial in M and the
// Jacobian is exactly its derivative; on a cell of length MS this is the
// physical term.  K1 > 0 makes the cube axes <100> easy, K1 < 0 the body
// diagonals <111>.
#include <array>
#include <string>
#include <vector>

#include "core/array.hpp"
#include "dynamics/field_jacobian.hpp"

namespace torix {

struct CubicAnisotropy {
    int material = 0;
    double K1 = 0.0, K2 = 0.0;          // erg/cm^3
    std::array<double, 3> c1{}, c2{}, c3{};  // orthonormal crystal axes
};

// The term of material m with the axes a1 and a2 as given: a1 normalised,
// a2 normalised after its (at most 1e-6) part along a1 is removed, c3 =
// c1 x c2.  Returns an empty text and fills `out` when the axes are usable,
// else what was found instead ("a first axis of zero length", or axes whose
// angle has a cosine beyond 1e-6).
std::string make_cubic_anisotropy(int m, double K1, double K2, const std::array<double, 3>& a1,
                                  const std::array<double, 3>& a2, CubicAnisotropy& out);

// Energy density w of the reduced magnetization m (erg/cm^3).
double cubic_energy_density(const CubicAnisotropy& t, const double m[3]);
// Adds the field of magnetization M (length MS) to h (Oe).
void cubic_add_field(const CubicAnisotropy& t, double ms, const double M[3], double h[3]);
// Adds dH/dM at M to J (column-major 3x3).
void cubic_add_jacobian(const CubicAnisotropy& t, double ms, const double M[3], double J[9]);

// Over the grid: the field added to H on every cell of the term's material,
// the energy summed over those cells (erg/cm^3 times cells: the energy
// divided by the cell volume), and one self block per such cell.
void cubic_field(const CubicAnisotropy& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                 VecGrid& H);
double cubic_energy(const CubicAnisotropy& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask);
void cubic_jacobian(const CubicAnisotropy& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                    std::vector<FieldJacobianBlock>& out);

}  // namespace torix
