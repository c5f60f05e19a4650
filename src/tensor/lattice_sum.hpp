#pragma once
// Lattice sums of the interaction tensor for bodies repeated without end
// along one or two axes, and their Bloch-phased form.
//
// A grid of (nx+1) x (ny+1) x (nz+1) cells that is periodic along axis a
// repeats with the period L_a = (n_a + 1) d_a; the images of a cell sit at
// R_n = sum over periodic axes of n_a L_a e_a.  The periodic tensor at an
// offset o (target minus source, in cells) is the sum over all images
//     T_per(o) = sum_n T(o - R_n),
// and for a deviation m(r) = u(r) e^{i k.r} (u periodic, k in rad/cm) the
// field of cell j's images at cell i carries the phases of the images:
//     N_k(o) = sum_n T(o - R_n) e^{i k.R_n}.
// T is the exact interaction of two uniform boxes (Newell, in the tensor's
// sign: -4 pi times the demagnetizing factor).  The offsets o run over the
// tensor's range (-nx..nx+1, and so on), so offsets o and o + (n_a + 1) e_a
// along a periodic axis hold the same periodic value (and Bloch values that
// differ by the phase e^{i k_a L_a}).
#include <array>
#include <vector>

#include "core/array.hpp"
#include "core/periodic.hpp"

namespace torix {

struct Lattice {
    Periodicity p;
    int nx = 0, ny = 0, nz = 0;           // largest cell indices
    double dx = 0.0, dy = 0.0, dz = 0.0;  // cell sizes (cm)
};

// Complex tensor over the offsets (-nx:nx+1, -ny:ny+1, -nz:nz+1) and the six
// independent components 1..6 = xx, yy, zz, xy, xz, yz of the symmetric
// 3x3 block (each image's block is symmetric; the phased sum is symmetric
// in its components and Hermitian under o -> -o).
using BlochTensor = Array<cplx, 4>;

// Adds the periodic dipolar tensor to every slice of AIJ, as tensorbuild
// lays a slice out (entries subtracted, 2, 3, 6 equal to 4, 7, 8), and the
// exchange 2 A(m) / (MS(m)^2 d^2) on the nearest-neighbour offsets and their
// images along the periodic axes (so that exchange couples the cells on
// either side of a periodic boundary).  At most two periodic axes.
// The positions along axis `axis` (0..2, largest cell index n_axis) of a
// nearest-neighbour offset s = +-1 along that axis and, when the axis is
// periodic, of its images s + i (n_axis + 1), that lie in the tensor's range
// -n_axis..n_axis+1.  Every nearest-neighbour term (exchange, DMI) puts its
// block on all of them, so that it couples the cells on either side of a
// periodic boundary.
std::vector<int> neighbour_images(const Periodicity& p, int axis, int n_axis, int s);

void tensor_periodic(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, const Lattice& lat,
                     int nmat);

// The part of the phased dipolar sum that depends on the wave vector, for
// each wave vector k[q] (rad/cm; components along non-periodic axes must be
// 0):
//     out[q](o, c) = sum_{n != 0} T_c(o - R_n) (e^{i k_q.R_n} - 1),
// in the tensor's sign, so that the dipolar part of N_k is the periodic
// tensor's dipolar part plus out[q].  out is allocated afresh.
void bloch_dipolar(const Lattice& lat, const std::vector<std::array<double, 3>>& k, std::vector<BlochTensor>& out);

// The plain route, for tests: the phased sum over the images with
// |n_a| <= images along every periodic axis, of the dipolar blocks in the
// tensor's sign (components xx, yy, zz, xy, xz, yz) at offset (i, j, l).
void lattice_block_direct(const Lattice& lat, int i, int j, int l, const std::array<double, 3>& k, int images,
                          cplx out[6]);

}  // namespace torix
