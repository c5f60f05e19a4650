#pragma once
// The interaction kernel of the Bloch problem.
//
// A deviation m(r) = u(r) e^{i k.r} with u periodic (k in rad/cm, r the
// cell centre (x dx, y dy, z dz)) puts on cell i the field of every image of
// every cell j.  Written for u, the 3x3 block acting on u_j is
//     K(o) = e^{-i k.o} N_k(o),   N_k(o) = sum_n T(o - R_n) e^{i k.R_n},
// o = r_i - r_j, R_n the lattice of images (lattice_sum.hpp), T the tensor
// block of one image (dipolar, exchange, anisotropy, any nearest-neighbour
// term; the tensor's sign: T M is a field).  K is periodic in o along the
// periodic axes (N_k(o + R_m) = e^{i k.R_m} N_k(o)), and Hermitian,
// K(-o) = K(o)^H, since T(-r) = T(r)^T.
//
// N_k is built from what the model holds at k = 0: the periodic tensor AIJ
// (every image summed with phase 1, and everything added to it), plus the
// part of the dipolar sum that depends on k (bloch_dipolar), plus, for each
// nearest-neighbour block at offset e, (e^{i k.R_n} - 1) times the block at
// each of its images o = e + R_n (R_n != 0) inside the tensor's range: the
// same images that the periodic tensor holds with phase 1.
#include <array>

#include "core/array.hpp"
#include "tensor/lattice_sum.hpp"
#include "tensor/neighbour_blocks.hpp"

namespace torix {

// K over the offsets of the tensor (-nx:nx+1, -ny:ny+1, -nz:nz+1), the nine
// components 1..9 (column by column, as the tensor) and the source
// materials 1..nmat.  Oe per emu/cm^3.
using BlochKernel = Array<cplx, 5>;

// True when k has no component along an axis that is not periodic.
[[nodiscard]] bool wavevector_allowed(const Periodicity& p, const std::array<double, 3>& k);
[[nodiscard]] inline bool is_zero(const std::array<double, 3>& k) {
    return k[0] == 0.0 && k[1] == 0.0 && k[2] == 0.0;
}

// K from the periodic tensor AIJ, its nearest-neighbour blocks nb, and the
// k part of the dipolar sum `dipolar_k` (components xx yy zz xy xz yz over
// the tensor's offsets, as bloch_dipolar gives it; an unallocated array
// stands for zero).
BlochKernel bloch_kernel(const TensorArray& AIJ, const NeighbourBlocks& nb, const BlochTensor& dipolar_k,
                         const Lattice& lat, const std::array<double, 3>& k);

// The same with the k part of the dipolar sum from bloch_dipolar.
BlochKernel bloch_kernel(const TensorArray& AIJ, const NeighbourBlocks& nb, const Lattice& lat,
                         const std::array<double, 3>& k);

}  // namespace torix
