#include "eigen/branch_match.hpp"

#include <cmath>
#include <limits>

namespace torix {

namespace {

// <a_p, b_q> = sum over cells and components of conj(a) b.
cplx inner(const Array<cplx, 3>& a, int p, const Array<cplx, 3>& b, int q) {
    cplx s{0.0, 0.0};
    for (int c = 1; c <= 2; ++c)
        for (int n = a.lo(0); n <= a.hi(0); ++n) s += std::conj(a(n, c, p)) * b(n, c, q);
    return s;
}

}  // namespace

std::vector<double> branch_weights(const Array<cplx, 3>& old_right, int nold, const Array<cplx, 3>& new_right,
                                   const Array<cplx, 3>& new_left, int nnew) {
    std::vector<double> w(static_cast<std::size_t>(nnew) * static_cast<std::size_t>(nold), 0.0);
    std::vector<double> old_norm(static_cast<std::size_t>(nold) + 1);
    for (int j = 1; j <= nold; ++j) old_norm[j] = std::sqrt(std::abs(inner(old_right, j, old_right, j)));
    for (int i = 1; i <= nnew; ++i) {
        const double norm_i = std::sqrt(std::abs(inner(new_right, i, new_right, i)));
        const double lr = std::abs(inner(new_left, i, new_right, i));
        if (!(lr > 0.0) || !(norm_i > 0.0)) continue;
        for (int j = 1; j <= nold; ++j) {
            if (!(old_norm[j] > 0.0)) continue;
            const double c = std::abs(inner(new_left, i, old_right, j)) / lr;
            w[static_cast<std::size_t>(i - 1) * nold + (j - 1)] = c * norm_i / old_norm[j];
        }
    }
    return w;
}

std::vector<int> match_branches(const std::vector<double>& weights, int nnew, int nold, double min_weight) {
    std::vector<int> out(static_cast<std::size_t>(nnew), 0);
    if (nnew <= 0 || nold <= 0) return out;
    // Kuhn-Munkres on the square cost matrix -w (padded with zeros), with
    // row and column potentials; rows are new modes, columns old modes.
    const int n = nnew > nold ? nnew : nold;
    auto cost = [&](int i, int j) {  // 1-based
        if (i > nnew || j > nold) return 0.0;
        return -weights[static_cast<std::size_t>(i - 1) * nold + (j - 1)];
    };
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<double> u(n + 1, 0.0), v(n + 1, 0.0);
    std::vector<int> p(n + 1, 0), way(n + 1, 0);  // p[j]: row matched to column j
    for (int i = 1; i <= n; ++i) {
        p[0] = i;
        int j0 = 0;
        std::vector<double> minv(n + 1, inf);
        std::vector<char> used(n + 1, 0);
        do {
            used[j0] = 1;
            const int i0 = p[j0];
            double delta = inf;
            int j1 = 0;
            for (int j = 1; j <= n; ++j) {
                if (used[j]) continue;
                const double cur = cost(i0, j) - u[i0] - v[j];
                if (cur < minv[j]) {
                    minv[j] = cur;
                    way[j] = j0;
                }
                if (minv[j] < delta) {
                    delta = minv[j];
                    j1 = j;
                }
            }
            for (int j = 0; j <= n; ++j) {
                if (used[j]) {
                    u[p[j]] += delta;
                    v[j] -= delta;
                } else {
                    minv[j] -= delta;
                }
            }
            j0 = j1;
        } while (p[j0] != 0);
        do {
            const int j1 = way[j0];
            p[j0] = p[j1];
            j0 = j1;
        } while (j0 != 0);
    }
    for (int j = 1; j <= nold; ++j) {
        const int i = p[j];
        if (i >= 1 && i <= nnew && -cost(i, j) >= min_weight) out[static_cast<std::size_t>(i - 1)] = j;
    }
    return out;
}

}  // namespace torix
