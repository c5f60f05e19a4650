#include "tensor/lattice_sum.hpp"

#include <cmath>
#include <complex>

#include "tensor/tensor_accurate.hpp"

namespace torix {

namespace {

// Images summed by the first version: a fixed count along each periodic
// axis (to be replaced by the far-image tail).
int image_count(const Lattice& lat) { return lat.p.count() == 1 ? 200 : 20; }

std::array<int, 3> periods(const Lattice& lat) { return {lat.nx + 1, lat.ny + 1, lat.nz + 1}; }

}  // namespace

void lattice_block_direct(const Lattice& lat, int i, int j, int l, const std::array<double, 3>& k, int images,
                          cplx out[6]) {
    const AccuratePlan plan = plan_accurate(lat.dx, lat.dy, lat.dz, 0, 0, 1e-13);
    const auto P = periods(lat);
    const int ra = lat.p.px ? images : 0, rb = lat.p.py ? images : 0, rc = lat.p.pz ? images : 0;
    for (int c = 0; c < 6; ++c) out[c] = 0.0;
    for (int a = -ra; a <= ra; ++a)
        for (int b = -rb; b <= rb; ++b)
            for (int e = -rc; e <= rc; ++e) {
                double blk[6];
                accurate_block(plan, i - a * P[0], j - b * P[1], l - e * P[2], blk);
                const double phase = k[0] * a * P[0] * lat.dx + k[1] * b * P[1] * lat.dy + k[2] * e * P[2] * lat.dz;
                const cplx ph = std::polar(1.0, phase);
                for (int c = 0; c < 6; ++c) out[c] -= blk[c] * ph;
            }
}

void tensor_periodic(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, const Lattice& lat,
                     int nmat) {
    const int images = image_count(lat);
    const auto P = periods(lat);
    constexpr int comp[6][2] = {{1, 1}, {5, 5}, {9, 9}, {4, 2}, {7, 3}, {8, 6}};
    for (int l = -lat.nz; l <= lat.nz + 1; ++l)
        for (int j = -lat.ny; j <= lat.ny + 1; ++j)
            for (int i = -lat.nx; i <= lat.nx + 1; ++i) {
                cplx blk[6];
                lattice_block_direct(lat, i, j, l, {0.0, 0.0, 0.0}, images, blk);
                for (int m = 1; m <= nmat; ++m)
                    for (int c = 0; c < 6; ++c) {
                        AIJ(i, j, l, comp[c][0], m) += blk[c].real();
                        AIJ(i, j, l, comp[c][1], m) = AIJ(i, j, l, comp[c][0], m);
                    }
            }
    // Exchange on the nearest-neighbour offsets and their images.
    const double d2[3] = {lat.dx * lat.dx, lat.dy * lat.dy, lat.dz * lat.dz};
    const int n[3] = {lat.nx, lat.ny, lat.nz};
    for (int ax = 0; ax < 3; ++ax)
        for (int s = -1; s <= 1; s += 2) {
            std::array<int, 3> o{0, 0, 0};
            o[ax] = s;
            // Every image of the offset inside the tensor's range.
            for (int img = -2; img <= 2; ++img) {
                if (img != 0 && !lat.p.along(ax)) continue;
                std::array<int, 3> q = o;
                q[ax] += img * P[ax];
                if (q[ax] < -n[ax] || q[ax] > n[ax] + 1) continue;
                for (int m = 1; m <= nmat; ++m) {
                    const double e = 2.0 * A(m) / (MS(m) * MS(m) * d2[ax]);
                    for (int c : {1, 5, 9}) AIJ(q[0], q[1], q[2], c, m) += e;
                }
            }
        }
}

void bloch_dipolar(const Lattice& lat, const std::vector<std::array<double, 3>>& k, std::vector<BlochTensor>& out) {
    const int images = image_count(lat);
    out.assign(k.size(), BlochTensor{});
    for (auto& t : out)
        t.allocate({Range{-lat.nx, lat.nx + 1}, Range{-lat.ny, lat.ny + 1}, Range{-lat.nz, lat.nz + 1}, Range{1, 6}},
                   cplx{});
    for (std::size_t q = 0; q < k.size(); ++q)
        for (int l = -lat.nz; l <= lat.nz + 1; ++l)
            for (int j = -lat.ny; j <= lat.ny + 1; ++j)
                for (int i = -lat.nx; i <= lat.nx + 1; ++i) {
                    cplx a[6], b[6];
                    lattice_block_direct(lat, i, j, l, k[q], images, a);
                    lattice_block_direct(lat, i, j, l, {0.0, 0.0, 0.0}, images, b);
                    for (int c = 0; c < 6; ++c) out[q](i, j, l, c + 1) = a[c] - b[c];
                }
}

}  // namespace torix
