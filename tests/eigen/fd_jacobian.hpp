#pragma once
// The dynamic matrix by finite differences of the torque: an independent
// route to the linearisation of any field term.  Only the field code is
// used: `field(M, H)` must set H to the full effective field of M (applied
// field included), as the relaxation sees it.
//
// The dynamic matrix is the linearisation of F_i(M) = P_i (M_i x H_i(M)),
// P_i = I + alpha/Ms_i [M0_i x] with the equilibrium M0 frozen, in the local
// frames R of M0: column (n, c) of the matrix is, row by row,
//     R_i^T P_i dF_i/dt,   t the amplitude of M_j += t R_j e_c,
// for the cell j of number n.  The derivative is a central difference with
// steps t = h Ms_j and t/2, combined by Richardson extrapolation (error of
// order h^4), so a field that is linear in M (the tensor) gives the matrix to
// rounding and a cubic or quartic one to about h^4.  Needs a numbering with
// one grid cell per number and no applied vector (happ = 0, the c_i term of
// SET_CURRENT is not a field).
#include <functional>
#include <stdexcept>
#include <vector>

#include "eigen_model.hpp"

namespace torix::test {

using FieldFn = std::function<void(const VecGrid& M, VecGrid& H)>;

inline std::vector<double> fd_matrix(const Model& m, const FieldFn& field, double h = 1e-3) {
    if (m.happ[0] != 0.0 || m.happ[1] != 0.0 || m.happ[2] != 0.0)
        throw std::logic_error("fd_matrix: the applied vector of the c_i term must be zero");
    struct Cell {
        int x, y, z, num;
        double ms;
        double R[9];
    };
    std::vector<Cell> cells;
    std::vector<int> of_number(static_cast<std::size_t>(m.N) + 1, -1);
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        const int mat = m.MASQUE(x, y, z);
        if (mat == 0) return;
        Cell c{x, y, z, m.NUM(x, y, z), m.MS(mat), {}};
        const double v[3] = {m.M(x, y, z, 1), m.M(x, y, z, 2), m.M(x, y, z, 3)};
        local_frame(v, c.R);
        if (of_number[c.num] >= 0) throw std::logic_error("fd_matrix: a number carries several grid cells");
        of_number[c.num] = static_cast<int>(cells.size());
        cells.push_back(c);
    });
    const std::size_t n2 = 2 * static_cast<std::size_t>(m.N);
    std::vector<double> A(n2 * n2, 0.0);
    VecGrid Mt = m.M, H = make_vec_grid(m.nx, m.ny, m.nz);
    // F over all cells (3 per cell) for the state Mt.
    auto torque = [&](std::vector<double>& F) {
        field(Mt, H);
        F.assign(3 * cells.size(), 0.0);
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const Cell& c = cells[i];
            const double a[3] = {Mt(c.x, c.y, c.z, 1), Mt(c.x, c.y, c.z, 2), Mt(c.x, c.y, c.z, 3)};
            const double b[3] = {H(c.x, c.y, c.z, 1), H(c.x, c.y, c.z, 2), H(c.x, c.y, c.z, 3)};
            F[3 * i] = a[1] * b[2] - a[2] * b[1];
            F[3 * i + 1] = a[2] * b[0] - a[0] * b[2];
            F[3 * i + 2] = a[0] * b[1] - a[1] * b[0];
        }
    };
    std::vector<double> Fp, Fm, D1, D2;
    auto derivative = [&](const Cell& cj, int comp, double t, std::vector<double>& D) {
        for (int s = 0; s < 2; ++s) {
            const double sign = s == 0 ? 1.0 : -1.0;
            for (int k = 0; k < 3; ++k)
                Mt(cj.x, cj.y, cj.z, k + 1) = m.M(cj.x, cj.y, cj.z, k + 1) + sign * t * cj.R[k + 3 * comp];
            torque(s == 0 ? Fp : Fm);
        }
        for (int k = 0; k < 3; ++k) Mt(cj.x, cj.y, cj.z, k + 1) = m.M(cj.x, cj.y, cj.z, k + 1);
        D.resize(Fp.size());
        for (std::size_t k = 0; k < Fp.size(); ++k) D[k] = (Fp[k] - Fm[k]) / (2.0 * t);
    };
    for (int n = 1; n <= m.N; ++n) {
        const Cell& cj = cells[of_number[n]];
        for (int comp = 0; comp < 2; ++comp) {
            const double t = h * cj.ms;
            derivative(cj, comp, t, D1);
            derivative(cj, comp, t / 2.0, D2);
            const std::size_t col = 2 * static_cast<std::size_t>(n - 1) + comp;
            for (std::size_t i = 0; i < cells.size(); ++i) {
                const Cell& ci = cells[i];
                double d[3];
                for (int k = 0; k < 3; ++k) d[k] = (4.0 * D2[3 * i + k] - D1[3 * i + k]) / 3.0;
                // P_i d = d + alpha/Ms [M0 x] d
                const double a[3] = {m.M(ci.x, ci.y, ci.z, 1), m.M(ci.x, ci.y, ci.z, 2), m.M(ci.x, ci.y, ci.z, 3)};
                const double f = m.alpha / ci.ms;
                const double pd[3] = {d[0] + f * (a[1] * d[2] - a[2] * d[1]), d[1] + f * (a[2] * d[0] - a[0] * d[2]),
                                      d[2] + f * (a[0] * d[1] - a[1] * d[0])};
                for (int r = 0; r < 2; ++r) {
                    const std::size_t row = 2 * static_cast<std::size_t>(ci.num - 1) + r;
                    A[row + col * n2] =
                        ci.R[3 * r] * pd[0] + ci.R[3 * r + 1] * pd[1] + ci.R[3 * r + 2] * pd[2];
                }
            }
        }
    }
    return A;
}

}  // namespace torix::test
