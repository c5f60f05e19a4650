#include "eigen/dispersion.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "eigen/branch_match.hpp"

namespace torix {

namespace {

// For each mode i of a later solve, the mode (1-based) of an earlier solve
// it continues, or 0; and the smallest overlap of the pairs continued.
struct Link {
    std::vector<int> from;
    double weakest = 1.0;
};

WaveVector midpoint(const WaveVector& a, const WaveVector& b) {
    return {0.5 * (a[0] + b[0]), 0.5 * (a[1] + b[1]), 0.5 * (a[2] + b[2])};
}

// Links the modes b (at kb) to the modes a (at ka), halving the step while
// the assignment is ambiguous.
Link link(const WaveVector& ka, const KModes& a, const WaveVector& kb, const KModes& b, int halvings,
          const KSolve& solve, int& extra) {
    const std::vector<double> w = branch_weights(a.R, a.nmodes, b.R, b.L, b.nmodes);
    const std::vector<int> pair = match_branches(w, b.nmodes, a.nmodes, 0.0);
    const auto weight = [&](int i) {
        return pair[i] > 0 ? w[static_cast<std::size_t>(i) * a.nmodes + (pair[i] - 1)] : 0.0;
    };
    // Clear: every chosen pair overlaps by kAccept or more, every other pair
    // by less than kUnrelated.  Two modes turning into each other can give
    // two confident-looking pairs that are both wrong (each new mode more
    // like the other's old self); their cross weights give them away.
    bool ambiguous = false;
    for (int i = 0; i < b.nmodes; ++i)
        for (int j = 1; j <= a.nmodes; ++j) {
            const double wij = w[static_cast<std::size_t>(i) * a.nmodes + (j - 1)];
            if (j == pair[i] ? (wij >= kUnrelated && wij < kAccept) : wij >= kUnrelated) ambiguous = true;
        }
    if (!ambiguous || halvings >= kMaxHalvings) {
        Link l;
        l.from.assign(static_cast<std::size_t>(b.nmodes), 0);
        for (int i = 0; i < b.nmodes; ++i)
            if (weight(i) >= kKeep) {
                l.from[i] = pair[i];
                l.weakest = std::min(l.weakest, weight(i));
            }
        return l;
    }
    const WaveVector km = midpoint(ka, kb);
    KModes mid;
    solve(km, &a, mid);
    ++extra;
    const Link first = link(ka, a, km, mid, halvings + 1, solve, extra);
    const Link second = link(km, mid, kb, b, halvings + 1, solve, extra);
    Link l;
    l.from.assign(static_cast<std::size_t>(b.nmodes), 0);
    for (int i = 0; i < b.nmodes; ++i)
        if (second.from[i] > 0) l.from[i] = first.from[static_cast<std::size_t>(second.from[i] - 1)];
    l.weakest = std::min(first.weakest, second.weakest);
    return l;
}

// Mode numbers 1..nmodes by increasing frequency (ties by number).
std::vector<int> by_frequency(const KModes& m) {
    std::vector<int> order(static_cast<std::size_t>(m.nmodes));
    std::iota(order.begin(), order.end(), 1);
    std::stable_sort(order.begin(), order.end(), [&](int p, int q) { return m.W(p, 1) < m.W(q, 1); });
    return order;
}

}  // namespace

std::vector<WaveVector> wavevector_path(const WaveVector& k1, const WaveVector& k2, int nk) {
    std::vector<WaveVector> path(static_cast<std::size_t>(std::max(nk, 0)));
    for (int q = 0; q < nk; ++q) {
        // t from the ends, so that the last point is k2 exactly.
        const double t = nk > 1 ? static_cast<double>(q) / (nk - 1) : 0.0;
        for (int a = 0; a < 3; ++a) path[q][a] = q == nk - 1 && nk > 1 ? k2[a] : k1[a] + t * (k2[a] - k1[a]);
    }
    return path;
}

Dispersion follow_dispersion(const std::vector<WaveVector>& path, const KSolve& solve,
                             const std::function<void(int)>& done) {
    Dispersion d;
    d.k = path;
    const int nk = static_cast<int>(path.size());
    for (const WaveVector& k : path)
        d.s.push_back(std::hypot(k[0] - path[0][0], k[1] - path[0][1], k[2] - path[0][2]));
    // Per wave vector, the (branch, mode) pairs found there.
    struct Entry {
        int branch;
        double f, g;
    };
    std::vector<std::vector<Entry>> rows(static_cast<std::size_t>(nk));
    KModes prev;
    std::vector<int> branch_of;  // branch of each mode of prev (0-based by mode number - 1)
    for (int q = 0; q < nk; ++q) {
        KModes cur;
        solve(path[q], q > 0 ? &prev : nullptr, cur);
        std::vector<int> from(static_cast<std::size_t>(cur.nmodes), 0);
        if (q > 0) {
            const Link l = link(path[q - 1], prev, path[q], cur, 0, solve, d.extra_solves);
            from = l.from;
            d.weakest = std::min(d.weakest, l.weakest);
        }
        std::vector<int> mine(static_cast<std::size_t>(cur.nmodes), -1);
        for (int p : by_frequency(cur)) {
            const int j = from[static_cast<std::size_t>(p - 1)];
            mine[static_cast<std::size_t>(p - 1)] = j > 0 ? branch_of[static_cast<std::size_t>(j - 1)] : d.branches++;
            rows[q].push_back({mine[static_cast<std::size_t>(p - 1)], cur.W(p, 1), cur.W(p, 2)});
        }
        branch_of = std::move(mine);
        prev = std::move(cur);
        if (done) done(q);
    }
    const double nan = std::numeric_limits<double>::quiet_NaN();
    d.f.assign(static_cast<std::size_t>(nk) * d.branches, nan);
    d.g.assign(static_cast<std::size_t>(nk) * d.branches, nan);
    for (int q = 0; q < nk; ++q)
        for (const Entry& e : rows[q]) {
            d.f[static_cast<std::size_t>(q) * d.branches + e.branch] = e.f;
            d.g[static_cast<std::size_t>(q) * d.branches + e.branch] = e.g;
        }
    return d;
}

}  // namespace torix
