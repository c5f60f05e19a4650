#include "tensor/lattice_sum.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <map>
#include <numbers>
#include <tuple>

#include "core/error.hpp"

#include "tensor/polylog.hpp"
#include "tensor/tensor_accurate.hpp"

namespace torix {

// How the sum is taken (near images exact, far images by an asymptotic
// form, after K. M. Lebecki, M. J. Donahue, M. W. Gutowski, J. Phys. D 41,
// 175005 (2008)):
//  - the images are summed line by line along one periodic axis b (the only
//    one, or the inner one of two);
//  - on a line, the images |n| <= M are explicit: blocks from one accurate
//    tensor (Newell's formulas near, the moment expansion far;
//    tensor_accurate.hpp) over a grid that holds the offsets of the
//    nearest lines, or from the moment expansion beyond it;
//  - the far images of a line, g(n) = T(p - n L e_b), n > M, are smooth in
//    1/n: g(n) n^s0 is fitted by a polynomial of degree kFit in
//    x = (M + 1) / n on Chebyshev nodes of (0, 1], g taken from the moment
//    expansion at those real n, and the phased sum follows from the tails
//    of the polylogarithms sum_{n > M} e^{i n theta} n^-(s0 + p)
//    (polylog.hpp).  M is at least kReach times the distance of the line's
//    displacement p in periods: g is then analytic in x over a disc of
//    radius kReach, and the fit is good to about (2 (2 kReach + 1))^-kFit
//    of the tail;
//  - a line without phase whose distance from p is at least kFarLine
//    periods (plus the cell diagonal) is the continuous line integral of T
//    divided by the period: by Poisson's summation formula the rest falls
//    as e^{-2 pi distance / L}, below 1e-16 there;
//  - with two periodic axes the line sums along b at rows n_a, |n_a| <= M_a,
//    are explicit, and those beyond, which fall as n_a^-2, are fitted along
//    a in the same way with s0 = 2.  The inner axis b is the one without
//    phase where there is one: the line sums are then smooth in 1/n_a.  With
//    phases along both axes the line sums beyond the rows decay
//    exponentially and their fit is less accurate (see docs/eigen.md).
namespace {

constexpr int kMinImages = 8;
constexpr double kReach = 4.0;
constexpr int kFit = 8;
constexpr double kFarLine = 6.0;
constexpr int kLineNodes = 64;

using Block = std::array<double, 6>;  // xx yy zz xy xz yz, tensor sign
using CBlock = std::array<cplx, 6>;
constexpr int kComp[6] = {1, 5, 9, 4, 7, 8};  // tensor components of the six

std::array<int, 3> periods(const Lattice& lat) { return {lat.nx + 1, lat.ny + 1, lat.nz + 1}; }

// Chebyshev nodes on (0, 1] and the inverse of their Vandermonde matrix;
// Gauss-Legendre nodes on (-1, 1) for the line integrals.
struct Nodes {
    double x[kFit + 1];
    double inv[kFit + 1][kFit + 1];  // c = inv G
    double gx[kLineNodes], gw[kLineNodes];
    Nodes() {
        constexpr int n = kFit + 1;
        for (int j = 0; j < n; ++j) x[j] = 0.5 * (1.0 + std::cos(std::numbers::pi * (2 * j + 1) / (2.0 * n)));
        long double a[n][2 * n];
        for (int r = 0; r < n; ++r)
            for (int c = 0; c < 2 * n; ++c)
                a[r][c] = c < n ? std::pow(static_cast<long double>(x[r]), c) : (c - n == r ? 1.0L : 0.0L);
        for (int c = 0; c < n; ++c) {
            int piv = c;
            for (int r = c + 1; r < n; ++r)
                if (std::fabs(a[r][c]) > std::fabs(a[piv][c])) piv = r;
            for (int k = 0; k < 2 * n; ++k) std::swap(a[c][k], a[piv][k]);
            const long double d = a[c][c];
            for (int k = 0; k < 2 * n; ++k) a[c][k] /= d;
            for (int r = 0; r < n; ++r) {
                if (r == c) continue;
                const long double f = a[r][c];
                for (int k = 0; k < 2 * n; ++k) a[r][k] -= f * a[c][k];
            }
        }
        for (int r = 0; r < n; ++r)
            for (int c = 0; c < n; ++c) inv[r][c] = static_cast<double>(a[r][n + c]);
        // Gauss-Legendre by Newton's method on P_n.
        for (int i = 0; i < kLineNodes; ++i) {
            long double z = std::cos(std::numbers::pi * (i + 0.75) / (kLineNodes + 0.5)), pp = 0;
            for (int it = 0; it < 100; ++it) {
                long double p1 = 1, p2 = 0;
                for (int j = 1; j <= kLineNodes; ++j) {
                    const long double p3 = p2;
                    p2 = p1;
                    p1 = ((2 * j - 1) * z * p2 - (j - 1) * p3) / j;
                }
                pp = kLineNodes * (z * p1 - p2) / (z * z - 1);
                const long double dz = p1 / pp;
                z -= dz;
                if (std::fabs(dz) < 1e-19L) break;
            }
            gx[i] = static_cast<double>(z);
            gw[i] = static_cast<double>(2 / ((1 - z * z) * pp * pp));
        }
    }
};

const Nodes& nodes() {
    static const Nodes f;
    return f;
}

// Polynomial coefficients (per component) of the far images of one line.
using Coeffs = std::array<std::array<double, kFit + 1>, 6>;

// Everything shared by the offsets of one lattice.
class Summer {
public:
    explicit Summer(const Lattice& lat) : lat_(lat), P_(periods(lat)), d_{lat.dx, lat.dy, lat.dz} {
        for (int a = 0; a < 3; ++a) L_[a] = P_[a] * d_[a];
        plan_ = plan_accurate(lat.dx, lat.dy, lat.dz, 0, 0, 1e-13);
        double r2 = 0.0;
        for (int a = 0; a < 3; ++a) r2 += std::pow(P_[a] * d_[a], 2);  // offsets reach n + 1 cells
        diag_ = std::sqrt(lat.dx * lat.dx + lat.dy * lat.dy + lat.dz * lat.dz);
        reach_ = std::sqrt(r2) + 2.0 * diag_;
        for (int a = 0; a < 3; ++a) {
            if (!lat.p.along(a)) continue;
            axes_.push_back(a);
            M_[a] = std::max(kMinImages, static_cast<int>(std::ceil((kReach * reach_ + plan_.switch_dist) / L_[a])));
        }
        inner_ = axes_.back();
        outer_ = axes_.size() == 2 ? axes_[0] : -1;
        // Newell's blocks (the offsets nearer than the switch distance of the
        // moment expansion) come from one table; offsets beyond it take the
        // expansion directly.
        const int nn[3] = {lat.nx, lat.ny, lat.nz};
        int N[3];
        for (int a = 0; a < 3; ++a) {
            N[a] = nn[a];
            if (lat.p.along(a)) N[a] += static_cast<int>(std::ceil(plan_.switch_dist / d_[a])) + P_[a];
            N_[a] = N[a];
        }
        Array<double, 1> A({Range{1, 1}}, 0.0), MS({Range{1, 1}}, 1.0);
        near_ = make_tensor(N[0], N[1], N[2], 1);
        calctensorc(A, MS, near_, N[0], N[1], N[2], lat.dx, lat.dy, lat.dz, 1, 1, 0, 0, 1e-13);
    }

    // With two periodic axes, the inner one is the one without phase in
    // every wave vector, if there is one.
    void choose_inner(const std::vector<std::array<double, 3>>& k) {
        if (axes_.size() != 2) return;
        const auto phase_free = [&](int a) {
            for (const auto& q : k)
                if (q[a] != 0.0) return false;
            return true;
        };
        if (!phase_free(inner_) && phase_free(outer_)) std::swap(inner_, outer_);
    }

    // Sums at offset (i, j, l) for every wave vector; out[q] in the
    // tensor's sign.
    void sum(int i, int j, int l, const std::vector<std::array<double, 3>>& k, std::vector<CBlock>& out) {
        out.assign(k.size(), CBlock{});
        const int o[3] = {i, j, l};
        const double pos[3] = {i * d_[0], j * d_[1], l * d_[2]};
        if (outer_ < 0) {
            std::vector<double> th(k.size());
            for (std::size_t q = 0; q < k.size(); ++q) th[q] = theta(k[q], inner_);
            out = line_sum(pos, o, th);
            return;
        }
        const int a = outer_, b = inner_, Ma = M_[a];
        // Line sums depend on the inner phase only: one set per value.
        struct Lines {
            std::vector<CBlock> rows;  // n_a = -Ma..Ma
            Coeffs fit[2][2];          // side (-, +), real and imaginary parts
        };
        std::map<double, Lines> lines;
        for (const auto& kq : k) {
            const double tb = theta(kq, b);
            if (lines.count(tb)) continue;
            Lines& ls = lines[tb];
            ls.rows.resize(2 * Ma + 1);
            for (int n = -Ma; n <= Ma; ++n) {
                int c[3] = {o[0], o[1], o[2]};
                c[a] -= n * P_[a];
                double p[3] = {pos[0], pos[1], pos[2]};
                p[a] -= n * L_[a];
                ls.rows[n + Ma] = line_sum(p, c, {tb})[0];
            }
            for (int side = 0; side < 2; ++side) {
                CBlock vals[kFit + 1];
                const Nodes& F = nodes();
                for (int jn = 0; jn <= kFit; ++jn) {
                    const double n = (Ma + 1.0) / F.x[jn];
                    double p[3] = {pos[0], pos[1], pos[2]};
                    p[a] -= (side == 0 ? -1.0 : 1.0) * n * L_[a];
                    vals[jn] = line_sum(p, nullptr, {tb})[0];
                }
                int at = 0;
                ls.fit[side][0] = fit_line(Ma, 2, [&](double) {
                    Block r;
                    for (int c = 0; c < 6; ++c) r[c] = vals[at][c].real();
                    ++at;
                    return r;
                });
                at = 0;
                ls.fit[side][1] = fit_line(Ma, 2, [&](double) {
                    Block r;
                    for (int c = 0; c < 6; ++c) r[c] = vals[at][c].imag();
                    ++at;
                    return r;
                });
            }
        }
        for (std::size_t q = 0; q < k.size(); ++q) {
            const double ta = theta(k[q], a);
            const Lines& ls = lines.at(theta(k[q], b));
            CBlock s{};
            for (int n = -Ma; n <= Ma; ++n) {
                const cplx ph = std::polar(1.0, n * ta);
                for (int c = 0; c < 6; ++c) s[c] += ls.rows[n + Ma][c] * ph;
            }
            for (int side = 0; side < 2; ++side) {
                const double th = side == 0 ? -ta : ta;
                const CBlock re = tail(ls.fit[side][0], Ma, 2, th), im = tail(ls.fit[side][1], Ma, 2, th);
                for (int c = 0; c < 6; ++c) s[c] += re[c] + cplx(0.0, 1.0) * im[c];
            }
            out[q] = s;
        }
    }

private:
    double theta(const std::array<double, 3>& k, int a) const { return k[a] * L_[a]; }

    // Block at whole cell offset c: from the explicit table when it holds
    // it, else from the moment expansion.
    Block cell_block(const int c[3]) const {
        if (c[0] >= -N_[0] && c[0] <= N_[0] + 1 && c[1] >= -N_[1] && c[1] <= N_[1] + 1 && c[2] >= -N_[2] &&
            c[2] <= N_[2] + 1) {
            Block b;
            for (int n = 0; n < 6; ++n) b[n] = near_(c[0], c[1], c[2], kComp[n], 1);
            return b;
        }
        return far_block(c[0] * d_[0], c[1] * d_[1], c[2] * d_[2]);
    }
    // Block at a displacement in cm, far from the origin.
    Block far_block(double X, double Y, double Z) const {
        const double dist = std::sqrt(X * X + Y * Y + Z * Z);
        double out[6];
        expansion_block_at(X, Y, Z, lat_.dx, lat_.dy, lat_.dz, expansion_terms(plan_, dist), out);
        Block b;
        for (int n = 0; n < 6; ++n) b[n] = out[n];  // already in the tensor's sign
        return b;
    }

    // Fit of g(n) n^s0 for n = (M + 1) / x at the nodes (g called in node order).
    template <class G>
    Coeffs fit_line(int M, int s0, G&& g) const {
        const Nodes& F = nodes();
        Block vals[kFit + 1];
        for (int jn = 0; jn <= kFit; ++jn) {
            const double n = (M + 1.0) / F.x[jn];
            vals[jn] = g(n);
            const double w = std::pow(n, s0);
            for (double& v : vals[jn]) v *= w;
        }
        Coeffs c{};
        for (int comp = 0; comp < 6; ++comp)
            for (int p = 0; p <= kFit; ++p) {
                double s = 0.0;
                for (int jn = 0; jn <= kFit; ++jn) s += F.inv[p][jn] * vals[jn][comp];
                c[comp][p] = s;
            }
        return c;
    }
    // sum_{n > M} e^{i n theta} g(n) from the fit.
    CBlock tail(const Coeffs& c, int M, int s0, double th) {
        CBlock out{};
        double scale = 1.0;
        for (int p = 0; p <= kFit; ++p) {
            const cplx z = tail_cache(s0 + p, th, M) * scale;
            for (int comp = 0; comp < 6; ++comp) out[comp] += c[comp][p] * z;
            scale *= (M + 1.0);
        }
        return out;
    }
    cplx tail_cache(int s, double th, int M) {
        const auto key = std::make_tuple(s, th, M);
        auto it = tails_.find(key);
        if (it != tails_.end()) return it->second;
        const auto lk = std::make_pair(s, th);
        auto li = polylogs_.find(lk);
        if (li == polylogs_.end()) li = polylogs_.emplace(lk, polylog_exact(s, th)).first;
        const cplx v = phased_tail(s, th, M, li->second);
        tails_.emplace(key, v);
        return v;
    }

    // Phased sums over n of T(p - n L_b e_b) e^{i n theta}, p in cm, for
    // each theta of th; `cells` gives p in whole cells when it is a cell
    // offset.  The blocks and the fits of the tails do not depend on theta:
    // they are made once for all.
    std::vector<CBlock> line_sum(const double p[3], const int* cells, const std::vector<double>& th) {
        const int b = inner_;
        double perp2 = 0.0, full2 = 0.0;
        for (int a = 0; a < 3; ++a) {
            full2 += p[a] * p[a];
            if (a != b) perp2 += p[a] * p[a];
        }
        const double perp = std::sqrt(perp2);
        const bool phase_free = std::all_of(th.begin(), th.end(), [](double t) { return t == 0.0; });
        if (phase_free && perp >= kFarLine * L_[b] + 2.0 * diag_)
            return std::vector<CBlock>(th.size(), line_integral(p, perp));
        // Explicit images reach kReach times the displacement, in a few sizes
        // so that the polylogarithm tails are shared.
        int M = kMinImages;
        while (M * L_[b] < kReach * (std::sqrt(full2) + 2.0 * diag_) + plan_.switch_dist) M *= 4;
        std::vector<CBlock> out(th.size(), CBlock{});
        std::vector<cplx> rot(th.size()), ph(th.size());
        for (std::size_t q = 0; q < th.size(); ++q) rot[q] = std::polar(1.0, th[q]), ph[q] = std::polar(1.0, -M * th[q]);
        for (int n = -M; n <= M; ++n) {
            Block t;
            if (cells) {
                int c[3] = {cells[0], cells[1], cells[2]};
                c[b] -= n * P_[b];
                t = cell_block(c);
            } else {
                double q[3] = {p[0], p[1], p[2]};
                q[b] -= n * L_[b];
                t = far_block(q[0], q[1], q[2]);
            }
            for (std::size_t q = 0; q < th.size(); ++q) {
                // Fresh phases every 64 images keep the rotation's rounding small.
                if ((n & 63) == 0) ph[q] = std::polar(1.0, n * th[q]);
                for (int comp = 0; comp < 6; ++comp) out[q][comp] += t[comp] * ph[q];
                ph[q] *= rot[q];
            }
        }
        for (int side = -1; side <= 1; side += 2) {
            const Coeffs c = fit_line(M, 3, [&](double n) {
                double q[3] = {p[0], p[1], p[2]};
                q[b] -= side * n * L_[b];
                return far_block(q[0], q[1], q[2]);
            });
            for (std::size_t q = 0; q < th.size(); ++q) {
                const CBlock t = tail(c, M, 3, side * th[q]);
                for (int comp = 0; comp < 6; ++comp) out[q][comp] += t[comp];
            }
        }
        return out;
    }

    // (1 / L_b) times the integral of T along the whole line through p
    // parallel to b: with s = p_b + perp tan(phi), ds = perp sec^2(phi) dphi.
    CBlock line_integral(const double p[3], double perp) const {
        const Nodes& F = nodes();
        const int b = inner_;
        Block acc{};
        for (int i = 0; i < kLineNodes; ++i) {
            const double phi = 0.5 * std::numbers::pi * F.gx[i];
            const double t = std::tan(phi), sec = 1.0 / std::cos(phi);
            double q[3] = {p[0], p[1], p[2]};
            q[b] = -perp * t;
            const Block v = far_block(q[0], q[1], q[2]);
            const double w = F.gw[i] * 0.5 * std::numbers::pi * perp * sec * sec;
            for (int c = 0; c < 6; ++c) acc[c] += w * v[c];
        }
        CBlock out{};
        for (int c = 0; c < 6; ++c) out[c] = acc[c] / L_[b];
        return out;
    }

    Lattice lat_;
    std::array<int, 3> P_;
    double d_[3];
    double L_[3] = {0, 0, 0};
    int M_[3] = {0, 0, 0};
    int N_[3] = {0, 0, 0};
    double diag_ = 0.0, reach_ = 0.0;
    std::vector<int> axes_;
    int inner_ = -1, outer_ = -1;
    AccuratePlan plan_;
    TensorArray near_;
    std::map<std::tuple<int, double, int>, cplx> tails_;
    std::map<std::pair<int, double>, PolylogValue> polylogs_;
};

void check_lattice(const Lattice& lat) {
    if (lat.p.count() < 1 || lat.p.count() > 2)
        throw FatalError("lattice sums need one or two periodic axes, not " + std::to_string(lat.p.count()));
}

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
                for (int c = 0; c < 6; ++c) out[c] += blk[c] * ph;
            }
}

namespace {

// Visits the offsets of the tensor's range once per mirror class: along an
// axis whose wave vectors are all 0 the sum is even or odd under o_a -> -o_a
// (xy odd in x and y, xz in x and z, yz in y and z), so only o_a >= 0 is
// summed and fn's result is written to the mirrored offsets too, through
// put(i, j, l, c, value) with c = 0..5 (xx yy zz xy xz yz).
template <class Sum, class Put>
void each_offset(const Lattice& lat, const bool mirror[3], Sum&& sum, Put&& put) {
    const int lo[3] = {mirror[0] ? 0 : -lat.nx, mirror[1] ? 0 : -lat.ny, mirror[2] ? 0 : -lat.nz};
    constexpr int odd[6][2] = {{-1, -1}, {-1, -1}, {-1, -1}, {0, 1}, {0, 2}, {1, 2}};
    for (int l = lo[2]; l <= lat.nz + 1; ++l)
        for (int j = lo[1]; j <= lat.ny + 1; ++j)
            for (int i = lo[0]; i <= lat.nx + 1; ++i) {
                const auto vals = sum(i, j, l);
                const int n[3] = {lat.nx, lat.ny, lat.nz}, o[3] = {i, j, l};
                for (int r = 0; r < 8; ++r) {
                    int t[3];
                    bool skip = false;
                    for (int a = 0; a < 3; ++a) {
                        const bool flip = (r >> a) & 1;
                        if (flip && (!mirror[a] || o[a] == 0)) skip = true;
                        t[a] = flip ? -o[a] : o[a];
                        if (t[a] < -n[a]) skip = true;
                    }
                    if (skip) continue;
                    for (int c = 0; c < 6; ++c) {
                        double sign = 1.0;
                        if (c >= 3 && (((r >> odd[c][0]) & 1) != ((r >> odd[c][1]) & 1))) sign = -1.0;
                        put(t[0], t[1], t[2], c, vals, sign);
                    }
                }
            }
}

}  // namespace

void tensor_periodic(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, const Lattice& lat,
                     int nmat) {
    check_lattice(lat);
    Summer summer(lat);
    const std::vector<std::array<double, 3>> k0{{0.0, 0.0, 0.0}};
    const bool mirror[3] = {true, true, true};
    constexpr int mirror_comp[6] = {1, 5, 9, 2, 3, 6};
    std::vector<CBlock> blk;
    each_offset(
        lat, mirror,
        [&](int i, int j, int l) {
            summer.sum(i, j, l, k0, blk);
            return blk[0];
        },
        [&](int i, int j, int l, int c, const CBlock& v, double sign) {
            for (int m = 1; m <= nmat; ++m) {
                AIJ(i, j, l, kComp[c], m) += sign * v[c].real();
                AIJ(i, j, l, mirror_comp[c], m) = AIJ(i, j, l, kComp[c], m);
            }
        });
    // Exchange on the nearest-neighbour offsets and on their images inside
    // the tensor's range.
    const double d2[3] = {lat.dx * lat.dx, lat.dy * lat.dy, lat.dz * lat.dz};
    const int n[3] = {lat.nx, lat.ny, lat.nz};
    for (int ax = 0; ax < 3; ++ax)
        for (int s = -1; s <= 1; s += 2)
            for (int pos : neighbour_images(lat.p, ax, n[ax], s)) {
                std::array<int, 3> q{0, 0, 0};
                q[ax] = pos;
                for (int m = 1; m <= nmat; ++m) {
                    const double e = 2.0 * A(m) / (MS(m) * MS(m) * d2[ax]);
                    for (int c : {1, 5, 9}) AIJ(q[0], q[1], q[2], c, m) += e;
                }
            }
}

std::vector<int> neighbour_images(const Periodicity& p, int axis, int n_axis, int s) {
    std::vector<int> out;
    const int period = n_axis + 1;
    // |s + i period| <= n_axis + 1 needs |i| <= 2 for any period >= 1.
    for (int img = -2; img <= 2; ++img) {
        if (img != 0 && !p.along(axis)) continue;
        const int q = s + img * period;
        if (q >= -n_axis && q <= n_axis + 1) out.push_back(q);
    }
    return out;
}

void bloch_dipolar(const Lattice& lat, const std::vector<std::array<double, 3>>& k, std::vector<BlochTensor>& out) {
    check_lattice(lat);
    for (const auto& q : k)
        for (int a = 0; a < 3; ++a)
            if (q[a] != 0.0 && !lat.p.along(a))
                throw FatalError("a wave vector component along the non-periodic axis " +
                                 std::string(1, static_cast<char>('x' + a)));
    Summer sum(lat);
    std::vector<std::array<double, 3>> all(k);
    all.push_back({0.0, 0.0, 0.0});
    sum.choose_inner(all);
    out.assign(k.size(), BlochTensor{});
    for (auto& t : out)
        t.allocate({Range{-lat.nx, lat.nx + 1}, Range{-lat.ny, lat.ny + 1}, Range{-lat.nz, lat.nz + 1}, Range{1, 6}},
                   cplx{});
    bool mirror[3];
    for (int a = 0; a < 3; ++a) mirror[a] = std::all_of(all.begin(), all.end(), [a](const auto& q) { return q[a] == 0.0; });
    std::vector<CBlock> blk;
    each_offset(
        lat, mirror,
        [&](int i, int j, int l) {
            sum.sum(i, j, l, all, blk);
            for (std::size_t q = 0; q < k.size(); ++q)
                for (int c = 0; c < 6; ++c) blk[q][c] -= blk.back()[c];
            return blk;
        },
        [&](int i, int j, int l, int c, const std::vector<CBlock>& v, double sign) {
            for (std::size_t q = 0; q < k.size(); ++q) out[q](i, j, l, c + 1) = sign * v[q][c];
        });
}

}  // namespace torix
