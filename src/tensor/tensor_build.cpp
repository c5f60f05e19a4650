#include "tensor/tensor_build.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <omp.h>

#include "core/progress.hpp"

namespace torix {

namespace {

// The point functions are evaluated in extended precision (the x87 80-bit
// format), with the thresholds of fs and gs.  Far from the origin a tensor
// entry is a small difference of point-function values that grow like r^3;
// in extended precision the rounding of that difference stays far below the
// rounding of the double-precision reference.
using Real = long double;

Real phl(Real a) { return std::log(a + std::sqrt(a * a + 1.0L)); }

// The six tables of point-function values, in offset-index space: entry
// (p, q, r) belongs to the point x = p dx, y = q dy, z = r dz and holds the
// point function with its arguments in the order in which the reference
// passes them for that component:
//   XX: fs(x, y, z)   YY: fs(y, x, z)   ZZ: fs(z, x, y)
//   XY: gs(x, y, z)   XZ: gs(x, z, y)   YZ: gs(y, z, x)
// fs is even in each argument; gs is odd in its first two and even in its
// third, so a negative index maps onto the positive one with a sign; only
// p, q, r >= 0 are evaluated.
enum Fn { XX = 0, YY, ZZ, XY, XZ, YZ, NFN };
constexpr bool kOddP[NFN] = {false, false, false, true, true, false};
constexpr bool kOddQ[NFN] = {false, false, false, true, false, true};
constexpr bool kOddR[NFN] = {false, false, false, false, true, true};

// All six table values at one point (x, y, z >= 0).  The six functions
// share one R, three inverse hyperbolic sines and three arc tangents:
//   h[a] = ph(v[a] / sqrt(sum of the squares of the other two)),
//   t[a] = atan(product of the other two / (v[a] R));
// each function applies its own thresholds to them.
void point_values(Real x, Real y, Real z, Real out[NFN]) {
    const Real v[3] = {x, y, z};
    const Real sq[3] = {x * x, y * y, z * z};
    const Real R = std::sqrt(sq[0] + sq[1] + sq[2]);
    Real h[3], t[3];
    bool big[3], nonzero[3];
    for (int a = 0; a < 3; ++a) {
        const int b = (a + 1) % 3, c = (a + 2) % 3;
        const Real den = std::sqrt(sq[b] + sq[c]);
        h[a] = den > 0.0L ? phl(v[a] / den) : 0.0L;
        t[a] = v[a] != 0.0L ? std::atan(v[b] * v[c] / (v[a] * R)) : 0.0L;
        big[a] = std::fabs(v[a]) >= 1e-10L;
        nonzero[a] = std::fabs(v[a]) >= 1e-200L;
    }
    // fs with its arguments (v[a], v[b], v[c]).
    const auto fsp = [&](int a, int b, int c) {
        const Real P1 = (big[a] || big[c]) ? h[b] : 0.0L;
        const Real P2 = (nonzero[a] || nonzero[b]) ? h[c] : 0.0L;
        const Real Q = big[a] ? t[a] : 0.0L;
        return (v[b] / 2.0L) * (sq[c] - sq[a]) * P1 + (v[c] / 2.0L) * (sq[b] - sq[a]) * P2 - v[a] * v[b] * v[c] * Q +
               (R / 6.0L) * (2.0L * sq[a] - sq[b] - sq[c]);
    };
    // gs with its arguments (v[a], v[b], v[c]).
    const auto gsp = [&](int a, int b, int c) {
        const Real Pz = (big[a] && big[b]) ? h[c] : 0.0L;
        const Real Px = big[b] ? h[a] : 0.0L;
        const Real Py = big[a] ? h[b] : 0.0L;
        const Real Qz = big[c] ? t[c] : 0.0L;
        const Real Qy = big[b] ? t[b] : 0.0L;
        const Real Qx = big[a] ? t[a] : 0.0L;
        return (v[a] / 6.0L) * (3.0L * sq[c] - sq[a]) * Py + (v[b] / 6.0L) * (3.0L * sq[c] - sq[b]) * Px +
               v[a] * v[b] * v[c] * Pz - v[a] * v[b] * R / 3.0L - (sq[c] * v[c] / 6.0L) * Qz -
               (v[c] * sq[b] / 2.0L) * Qy - (v[c] * sq[a] / 2.0L) * Qx;
    };
    out[XX] = fsp(0, 1, 2);
    out[YY] = fsp(1, 0, 2);
    out[ZZ] = fsp(2, 0, 1);
    out[XY] = gsp(0, 1, 2);
    out[XZ] = gsp(0, 2, 1);
    out[YZ] = gsp(1, 2, 0);
}

// Every entry of the reference is the same second-difference stencil of its
// table: expanding the differences f2, f1, f and the outer three-point
// difference (or g2, g1, g and the outer four-point difference), the
// subtracted point values at y = 0 or z = 0 cancel and what remains is
//   S(i, j, k) = sum over t, u, v in {-1, 0, 1} of w(t) w(u) w(v) T(i+t, j+u, k+v)
// with w(0) = 2, w(+-1) = -1, for all six components alike; the entry is
// S / V, subtracted.  The stencil is separable: it is applied along r and q
// within each plane p, then along p across three planes.
//
// Per-thread rolling window: the (q, r)-differenced planes U(p) for
// p = i-1, i, i+1 in a ring of three slots.
class Window {
public:
    Window(int ny, int nz, double dx, double dy, double dz)
        : ny_(ny), nz_(nz), dx_(dx), dy_(dy), dz_(dz), nq_(ny + 3), nr_(nz + 3), nj_(ny + 2), nk_(nz + 2),
          t_(static_cast<std::size_t>(NFN) * nq_ * nr_), tr_(static_cast<std::size_t>(NFN) * nq_ * nk_),
          u_(3 * static_cast<std::size_t>(NFN) * nj_ * nk_) {}

    // Makes the planes i-1 (if i >= 1), i and i+1 available.
    void advance_to(int i) {
        for (int p = std::max(0, i - 1); p <= i + 1; ++p) {
            const int s = p % 3;
            if (held_[s] != p) {
                fill(p, slot(s));
                held_[s] = p;
            }
        }
        i_ = i;
    }

    // S(i, j, k) of all six tables (0 <= j <= ny+1, 0 <= k <= nz+1).
    void stencil(int j, int k, Real out[NFN]) const {
        const Real* u0 = slot_c(i_ % 3);
        const Real* up = slot_c((i_ + 1) % 3);
        const Real* um = i_ >= 1 ? slot_c((i_ - 1) % 3) : up;  // U(-1) = +-U(1)
        const std::size_t plane = static_cast<std::size_t>(nj_) * nk_;
        const std::size_t o = static_cast<std::size_t>(j) * nk_ + k;
        for (int c = 0; c < NFN; ++c) {
            const Real m = (i_ == 0 && kOddP[c]) ? -um[c * plane + o] : um[c * plane + o];
            out[c] = 2.0L * u0[c * plane + o] - up[c * plane + o] - m;
        }
    }

private:
    Real* slot(int s) { return u_.data() + static_cast<std::size_t>(s) * NFN * nj_ * nk_; }
    [[nodiscard]] const Real* slot_c(int s) const { return u_.data() + static_cast<std::size_t>(s) * NFN * nj_ * nk_; }

    // U(p): point values of plane p, differenced along r, then along q.
    void fill(int p, Real* u) {
        const Real x = p * static_cast<Real>(dx_);
        const std::size_t tpl = static_cast<std::size_t>(nq_) * nr_;
        for (int q = 0; q < nq_; ++q) {
            const Real y = q * static_cast<Real>(dy_);
            for (int r = 0; r < nr_; ++r) {
                Real val[NFN];
                point_values(x, y, r * static_cast<Real>(dz_), val);
                for (int c = 0; c < NFN; ++c) t_[c * tpl + static_cast<std::size_t>(q) * nr_ + r] = val[c];
            }
        }
        // Along r: tr(q, k) = 2 T(q, k) - T(q, k+1) - T(q, k-1), T(q, -1) = +-T(q, 1).
        const std::size_t trpl = static_cast<std::size_t>(nq_) * nk_;
        for (int c = 0; c < NFN; ++c)
            for (int q = 0; q < nq_; ++q) {
                const Real* row = &t_[c * tpl + static_cast<std::size_t>(q) * nr_];
                Real* out = &tr_[c * trpl + static_cast<std::size_t>(q) * nk_];
                for (int k = 0; k <= nz_ + 1; ++k) {
                    const Real below = k >= 1 ? row[k - 1] : (kOddR[c] ? -row[1] : row[1]);
                    out[k] = 2.0L * row[k] - row[k + 1] - below;
                }
            }
        // Along q: U(j, k) = 2 tr(j, k) - tr(j+1, k) - tr(j-1, k), tr(-1, k) = +-tr(1, k).
        const std::size_t upl = static_cast<std::size_t>(nj_) * nk_;
        for (int c = 0; c < NFN; ++c)
            for (int j = 0; j <= ny_ + 1; ++j) {
                const Real* mid = &tr_[c * trpl + static_cast<std::size_t>(j) * nk_];
                const Real* above = mid + nk_;
                const Real* below = j >= 1 ? mid - nk_ : above;
                const Real sb = (j == 0 && kOddQ[c]) ? -1.0L : 1.0L;
                Real* out = &u[c * upl + static_cast<std::size_t>(j) * nk_];
                for (int k = 0; k <= nz_ + 1; ++k) out[k] = 2.0L * mid[k] - above[k] - sb * below[k];
            }
    }

    int ny_, nz_;
    double dx_, dy_, dz_;
    int nq_, nr_, nj_, nk_;
    std::vector<Real> t_, tr_, u_;
    int held_[3] = {-1, -1, -1};
    int i_ = 0;
};

}  // namespace

void tensorbuild(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, int nx, int ny, int nz,
                 double dx, double dy, double dz, int nmat) {
    if (nx < 0 || ny < 0 || nz < 0 || nmat < 1) return;
    const double V = dx * dy * dz;
    std::vector<double> ex(nmat + 1), ey(nmat + 1), ez(nmat + 1);
    for (int m = 1; m <= nmat; ++m) {
        const double ms2 = MS(m) * MS(m);
        ex[m] = 2.0 * A(m) / (ms2 * dx * dx);
        ey[m] = 2.0 * A(m) / (ms2 * dy * dy);
        ez[m] = 2.0 * A(m) / (ms2 * dz * dz);
    }
    double* const a = AIJ.data();
    const std::ptrdiff_t sc = AIJ.stride(3), sm = AIJ.stride(4);
    const std::ptrdiff_t base0 = AIJ.linear(0, 0, 0, 1, 1);
    const std::ptrdiff_t si = AIJ.stride(0), sj = AIJ.stride(1), sk = AIJ.stride(2);

    // The first thread reports the fraction of its own planes, which under
    // the static schedule is the fraction of all.
    Progress progress("building the tensor");
#pragma omp parallel
    {
        Window w(ny, nz, dx, dy, dz);
        const bool reporter = omp_get_thread_num() == 0;
        const int share = (nx + 2 + omp_get_num_threads() - 1) / omp_get_num_threads();
        int planes_done = 0;
        Real vl[NFN];
        double v[NFN];
#pragma omp for schedule(static)
        for (int i = 0; i <= nx + 1; ++i) {
            if (reporter) progress.fraction(static_cast<double>(planes_done++) / share);
            w.advance_to(i);
            for (int j = 0; j <= ny + 1; ++j)
                for (int k = 0; k <= nz + 1; ++k) {
                    w.stencil(j, k, vl);
                    for (int c = 0; c < 6; ++c) v[c] = static_cast<double>(vl[c] / static_cast<Real>(V));
                    // Mirror images: -i exists for 1 <= i <= nx, likewise j, k.
                    const int ni = (i >= 1 && i <= nx) ? 2 : 1;
                    const int nj = (j >= 1 && j <= ny) ? 2 : 1;
                    const int nk = (k >= 1 && k <= nz) ? 2 : 1;
                    for (int a1 = 0; a1 < ni; ++a1)
                        for (int a2 = 0; a2 < nj; ++a2)
                            for (int a3 = 0; a3 < nk; ++a3) {
                                const int I = a1 ? -i : i, J = a2 ? -j : j, K = a3 ? -k : k;
                                const double s1 = a1 ? -1.0 : 1.0, s2 = a2 ? -1.0 : 1.0, s3 = a3 ? -1.0 : 1.0;
                                const double xy = v[3] * (s1 * s2), xz = v[4] * (s1 * s3), yz = v[5] * (s2 * s3);
                                const int aI = std::abs(I), aJ = std::abs(J), aK = std::abs(K);
                                double e = 0.0;
                                int which = 0;
                                if (aI == 1 && J == 0 && K == 0) which = 1;
                                else if (I == 0 && aJ == 1 && K == 0) which = 2;
                                else if (I == 0 && J == 0 && aK == 1) which = 3;
                                const std::ptrdiff_t off = base0 + I * si + J * sj + K * sk;
                                for (int m = 1; m <= nmat; ++m) {
                                    double* c = a + off + (m - 1) * sm;
                                    c[0 * sc] -= v[0];
                                    c[4 * sc] -= v[1];
                                    c[8 * sc] -= v[2];
                                    c[3 * sc] -= xy;
                                    c[6 * sc] -= xz;
                                    c[7 * sc] -= yz;
                                    c[1 * sc] = c[3 * sc];
                                    c[2 * sc] = c[6 * sc];
                                    c[5 * sc] = c[7 * sc];
                                    if (which) {
                                        e = which == 1 ? ex[m] : which == 2 ? ey[m] : ez[m];
                                        c[0 * sc] += e;
                                        c[4 * sc] += e;
                                        c[8 * sc] += e;
                                    }
                                }
                            }
                }
        }
    }
}

}  // namespace torix
