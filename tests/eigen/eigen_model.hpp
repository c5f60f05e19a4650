#pragma once
// Small models for the eigenmode tests: mask, materials, tensor, uniform or
// given magnetization, the equilibrium field H = HINIT + sum AIJ M, the
// numbering and its multiplicities.
#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <sstream>
#include <vector>

#include "core/array.hpp"
#include "dynamics/direct_field.hpp"
#include "dynamics/local_terms.hpp"
#include "dynamics/relax.hpp"
#include "eigen/deg.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "geometry/numbering.hpp"
#include "tensor/newell.hpp"
#include "test_util.hpp"

namespace torix::test {

struct Model {
    int nx = 0, ny = 0, nz = 0;
    double dx = 5e-7, dy = 5e-7, dz = 5e-7;
    Array<double, 1> MS, A;
    IntGrid MASQUE, NUM;
    VecGrid M, H;
    TensorArray AIJ;
    Array<std::int32_t, 1> DEGR;
    int N = 0;
    std::array<double, 3> happ{0.0, 0.0, 0.0};
    double alpha = 0.0;
    LocalTerms terms;  // field terms beside the tensor

    [[nodiscard]] MatrixInput input() const {
        return MatrixInput{MASQUE, NUM, M, H, happ, alpha, MS, AIJ, DEGR, nx, ny, nz, N, &terms};
    }
};

// Grid (0:nx, 0:ny, 0:nz) with materials given as (A, MS) pairs; mask from
// `material(x, y, z)` (0 = empty).
inline Model make_model(int nx, int ny, int nz, double dx, double dy, double dz,
                        const std::vector<std::pair<double, double>>& mats,
                        const std::function<int(int, int, int)>& material) {
    Model m;
    m.nx = nx, m.ny = ny, m.nz = nz, m.dx = dx, m.dy = dy, m.dz = dz;
    const int nmat = static_cast<int>(mats.size());
    m.A.allocate({Range{1, nmat}}), m.MS.allocate({Range{1, nmat}});
    for (int i = 1; i <= nmat; ++i) m.A(i) = mats[i - 1].first, m.MS(i) = mats[i - 1].second;
    m.MASQUE = make_int_grid(nx, ny, nz, 0);
    for_cells(nx, ny, nz, [&](int x, int y, int z) { m.MASQUE(x, y, z) = material(x, y, z); });
    m.AIJ = make_tensor(nx, ny, nz, nmat);
    for (int i = 1; i <= nmat; ++i) tensornewall(m.A, m.MS, m.AIJ, nx, ny, nz, dx, dy, dz, i, nmat);
    m.M = make_vec_grid(nx, ny, nz, 0.0);
    m.H = make_vec_grid(nx, ny, nz, 0.0);
    return m;
}

// Magnetization from a direction function (scaled to MS of each cell).
inline void set_m(Model& m, const std::function<std::array<double, 3>(int, int, int)>& dir) {
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        if (const int mat = m.MASQUE(x, y, z); mat != 0) {
            const auto u = dir(x, y, z);
            const double r = std::hypot(u[0], u[1], u[2]);
            for (int c = 1; c <= 3; ++c) m.M(x, y, z, c) = m.MS(mat) * u[c - 1] / r;
        }
    });
}

// H = applied + sum over magnetic sources of AIJ(target - source, source
// material) M: the direct sum (checked against a literal sum of its own),
// plus the field of the model's local terms.
inline void set_field(Model& m, const std::array<double, 3>& applied) {
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        for (int c = 1; c <= 3; ++c) m.H(x, y, z, c) = applied[c - 1];
    });
    calcfields(m.M, m.MS, {0.0, 0.0, 0.0}, 0.0, m.MASQUE, m.AIJ, m.H, m.nx, m.ny, m.nz, m.MS.extent(0));
    add_local_fields(m.terms, m.M, m.MS, m.MASQUE, m.H);
}

// Relaxes m.M by the damped alignment in a uniform applied field with the
// model's terms (direct sum, or the Fourier form F when given), quietly;
// m.H is then the applied field plus the field of the relaxed state.
inline void relax_model(Model& m, const std::array<double, 3>& applied, double alpha, double threshold,
                        long max_passes = 0, const FourierTensor* F = nullptr) {
    static const FourierTensor none;
    VecGrid work = m.M;
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        for (int c = 1; c <= 3; ++c) m.H(x, y, z, c) = applied[c - 1];
    });
    (void)captured_cout([&] {
        relax(m.M, m.H, m.MS, {0.0, 0.0, 0.0}, 0.0, m.AIJ, m.MASQUE, m.nx, m.ny, m.nz, m.MS.extent(0), alpha,
              threshold, F ? kMethodFft : kMethodDirect, F ? *F : none, work, max_passes, m.terms);
    });
}

inline void set_numbering(Model& m, int bx = 1, int by = 1, int bz = 1) {
    m.NUM = make_int_grid(m.nx, m.ny, m.nz, 0);
    number(m.MASQUE, m.NUM, m.nx, m.ny, m.nz, m.N, bx, by, bz);
    std::ostringstream sink;
    deg(m.MASQUE, m.NUM, m.nx, m.ny, m.nz, m.N, m.DEGR, sink);
}

inline std::vector<double> dense_matrix(const Model& m) {
    const std::size_t n = 2 * static_cast<std::size_t>(m.N);
    std::vector<double> A(n * n, 0.0);
    assemble_dense(m.input(), A.data());
    return A;
}

// The stored ModeSet of one solve.
struct Modes {
    int nmodes = 0;
    Array<double, 2> W;
    Array<double, 1> PHASES, ZOUT;
    Array<cplx, 3> R, L;
    ModeOutput out() { return ModeOutput{nmodes, W, PHASES, ZOUT, R, L}; }
};

// Mode p as a vector of length 2N (row 2n-1+c-1 for cell n, component c).
inline std::vector<cplx> vec(const Array<cplx, 3>& v, int N, int p) {
    std::vector<cplx> r(2 * static_cast<std::size_t>(N));
    for (int n = 1; n <= N; ++n)
        for (int c = 1; c <= 2; ++c) r[2 * (n - 1) + (c - 1)] = v(n, c, p);
    return r;
}

inline double norm(const std::vector<cplx>& v) {
    double s = 0.0;
    for (const cplx& z : v) s += std::norm(z);
    return std::sqrt(s);
}

inline double frobenius(const std::vector<double>& A) {
    double fro = 0.0;
    for (double a : A) fro += a * a;
    return std::sqrt(fro);
}

// Relative errors of an operator's products against the assembled matrix A
// (real or complex, column-major, order n) for one fixed complex vector x:
// ||op x - A x|| / ||A x|| and ||opt x - A^T x|| / ||A^T x||.
template <class Op, class T>
std::array<double, 2> product_errors(const Op& op, const Op& opt, const std::vector<T>& A, int n) {
    std::vector<cplx> x(n), y(n), yt(n), want(n), wantt(n);
    for (int r = 0; r < n; ++r) x[r] = cplx(std::sin(1.3 * r + 0.2), std::cos(0.7 * r * r));
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) {
            want[r] += A[r + c * static_cast<std::size_t>(n)] * x[c];
            wantt[r] += A[c + r * static_cast<std::size_t>(n)] * x[c];
        }
    op.apply(x.data(), y.data());
    opt.apply_transpose(x.data(), yt.data());
    for (int r = 0; r < n; ++r) y[r] -= want[r], yt[r] -= wantt[r];
    return {norm(y) / norm(want), norm(yt) / norm(wantt)};
}

// ||A v - lambda v|| / (||A||_F ||v||) for a right vector v, or
// ||v^H A - lambda v^H|| / (||A||_F ||v||) for a left one; A real or
// complex, column-major.
template <class T>
double residual_of(const std::vector<T>& A, const std::vector<cplx>& v, cplx lambda, bool left) {
    const std::size_t n = v.size();
    double fro = 0.0;
    for (const T& a : A) fro += std::norm(a);
    std::vector<cplx> r(n, 0.0);
    for (std::size_t c = 0; c < n; ++c)
        for (std::size_t k = 0; k < n; ++k) {
            if (left)
                r[c] += std::conj(v[k]) * A[k + c * n];
            else
                r[k] += A[k + c * n] * v[c];
        }
    for (std::size_t k = 0; k < n; ++k) r[k] -= lambda * (left ? std::conj(v[k]) : v[k]);
    return norm(r) / (std::sqrt(fro) * norm(v));
}

}  // namespace torix::test
