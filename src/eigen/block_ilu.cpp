#include "eigen/block_ilu.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include <omp.h>

#include "core/error.hpp"

namespace torix {

namespace {

using Block = BlockILU::Block;
using Pair = std::array<cplx, 2>;

// Complex products written out, without the library's checks for
// infinities and NaN on every product (the factor's entries are finite).
inline cplx cm(cplx a, cplx b) {
    return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

// C = A B, C -= A B (column-major 2 x 2).
Block mul(const Block& a, const Block& b) {
    return {cm(a[0], b[0]) + cm(a[2], b[1]), cm(a[1], b[0]) + cm(a[3], b[1]), cm(a[0], b[2]) + cm(a[2], b[3]),
            cm(a[1], b[2]) + cm(a[3], b[3])};
}
void sub_mul(Block& c, const Block& a, const Block& b) {
    c[0] -= cm(a[0], b[0]) + cm(a[2], b[1]);
    c[1] -= cm(a[1], b[0]) + cm(a[3], b[1]);
    c[2] -= cm(a[0], b[2]) + cm(a[2], b[3]);
    c[3] -= cm(a[1], b[2]) + cm(a[3], b[3]);
}
// y -= A x and y -= A^T x.
void sub_apply(Pair& y, const Block& a, const Pair& x) {
    y[0] -= cm(a[0], x[0]) + cm(a[2], x[1]);
    y[1] -= cm(a[1], x[0]) + cm(a[3], x[1]);
}
void sub_apply_t(Pair& y, const Block& a, const Pair& x) {
    y[0] -= cm(a[0], x[0]) + cm(a[1], x[1]);
    y[1] -= cm(a[2], x[0]) + cm(a[3], x[1]);
}
Pair apply(const Block& a, const Pair& x) { return {cm(a[0], x[0]) + cm(a[2], x[1]), cm(a[1], x[0]) + cm(a[3], x[1])}; }
Pair apply_t(const Block& a, const Pair& x) { return {cm(a[0], x[0]) + cm(a[1], x[1]), cm(a[2], x[0]) + cm(a[3], x[1])}; }

// The inverse of a pivot block; a block whose determinant is below the
// rounding of its entries is singular.
Block inverse(const Block& d) {
    const cplx det = d[0] * d[3] - d[1] * d[2];
    double big = 0.0;
    for (const cplx& z : d) big = std::max(big, std::abs(z));
    if (!(std::abs(det) > 100.0 * std::numeric_limits<double>::epsilon() * big * big))
        throw FatalError("SOLVE_MODES: the incomplete LU of the local part has a singular pivot block at the shift");
    return {d[3] / det, -d[1] / det, -d[2] / det, d[0] / det};
}

// The block rows of S - sigma I: for each, its block columns (increasing)
// and blocks.
struct BlockRows {
    std::vector<std::int64_t> start;
    std::vector<int> col;
    std::vector<Block> val;
};
BlockRows block_rows(const ComplexSparse& S, cplx sigma) {
    const int nb = S.n / 2;
    BlockRows B;
    B.start.assign(static_cast<std::size_t>(nb) + 1, 0);
    std::vector<int> cols;
    for (int b = 0; b < nb; ++b) {
        cols.clear();
        for (int r = 2 * b; r <= 2 * b + 1; ++r)
            for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) cols.push_back(S.col[k] / 2);
        cols.push_back(b);
        std::sort(cols.begin(), cols.end());
        cols.erase(std::unique(cols.begin(), cols.end()), cols.end());
        const auto first = static_cast<std::int64_t>(B.col.size());
        B.col.insert(B.col.end(), cols.begin(), cols.end());
        B.val.resize(B.col.size(), Block{});
        for (int i = 0; i < 2; ++i) {
            const int r = 2 * b + i;
            for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) {
                const auto at = std::lower_bound(cols.begin(), cols.end(), S.col[k] / 2) - cols.begin();
                B.val[first + at][i + 2 * (S.col[k] % 2)] += S.val[k];
            }
        }
        const auto d = std::lower_bound(cols.begin(), cols.end(), b) - cols.begin();
        B.val[first + d][0] -= sigma;
        B.val[first + d][3] -= sigma;
        B.start[b + 1] = static_cast<std::int64_t>(B.col.size());
    }
    return B;
}

}  // namespace

// Each cut costs the factor some fill across it: 15 cuts of a 1000 x 1000
// film (16 parts) took 8 % more operator products than one part, one cut
// of a 316 x 316 film none.  Four parts keep two or four threads busy.
int ilu_parts(int nb) { return nb < 50000 ? 1 : nb < 200000 ? 2 : 4; }

BlockILU::BlockILU(const ComplexSparse& S, cplx sigma, int levels, int parts) : nb_(S.n / 2) {
    const BlockRows A = block_rows(S, sigma);
    const int nb = nb_;
    if (parts <= 0) parts = ilu_parts(nb);
    parts = std::max(1, std::min(parts, nb));

    // Ranges and separator.  A numbering that scatters neighbours (the
    // separator above a quarter of the rows) halves the parts until it does
    // not.
    std::vector<char> sep;
    const auto owner = [&](int b, int p) { return static_cast<int>(static_cast<std::int64_t>(b) * p / nb); };
    for (;; parts /= 2) {
        sep.assign(static_cast<std::size_t>(nb), 0);
        if (parts == 1) break;
        std::int64_t count = 0;
        for (int b = 0; b < nb; ++b)
            for (std::int64_t k = A.start[b]; k < A.start[b + 1]; ++k)
                if (owner(A.col[k], parts) != owner(b, parts)) {
                    count += !sep[b] + !sep[A.col[k]];
                    sep[b] = sep[A.col[k]] = 1;
                }
        if (4 * count <= nb) break;
    }
    std::vector<int> pos(static_cast<std::size_t>(nb));
    old_.clear();
    range_.assign(1, 0);
    for (int p = 0; p < parts; ++p) {
        for (int b = 0; b < nb; ++b)
            if (!sep[b] && owner(b, parts) == p) old_.push_back(b);
        range_.push_back(static_cast<int>(old_.size()));
    }
    for (int b = 0; b < nb; ++b)
        if (sep[b]) old_.push_back(b);
    range_.push_back(nb);
    for (int i = 0; i < nb; ++i) pos[old_[i]] = i;

    // Symbolic factor, row by row in the new order: the pattern of row i
    // (new columns, increasing) in a linked list, each entry with its level.
    constexpr int kNone = -1, kEnd = std::numeric_limits<int>::max();
    std::vector<int> next(static_cast<std::size_t>(nb) + 1, kNone), lev(static_cast<std::size_t>(nb), 0);
    std::vector<std::int64_t> us(static_cast<std::size_t>(nb) + 1, 0), ls(static_cast<std::size_t>(nb) + 1, 0);
    std::vector<int> ucol, ulev, lcol;
    std::vector<int> row;
    for (int i = 0; i < nb; ++i) {
        const int b = old_[i];
        row.clear();
        for (std::int64_t k = A.start[b]; k < A.start[b + 1]; ++k) row.push_back(pos[A.col[k]]);
        std::sort(row.begin(), row.end());
        // The list starts at the head `nb`.
        int tail = nb;
        for (int c : row) next[tail] = c, lev[c] = 0, tail = c;
        next[tail] = kEnd;
        for (int j = next[nb]; j < i; j = next[j]) {
            // Merge U row j (increasing) into the list after j.
            int at = j;
            for (std::int64_t k = us[j]; k < us[j + 1]; ++k) {
                const int m = ucol[k], l = lev[j] + ulev[k] + 1;
                if (l > levels) continue;
                while (next[at] < m) at = next[at];
                if (next[at] == m) {
                    lev[m] = std::min(lev[m], l);
                } else {
                    next[m] = next[at], next[at] = m, lev[m] = l;
                }
                at = m;
            }
        }
        for (int c = next[nb]; c != kEnd; c = next[c]) {
            if (c < i) lcol.push_back(c);
            if (c > i) ucol.push_back(c), ulev.push_back(lev[c]);
        }
        ls[i + 1] = static_cast<std::int64_t>(lcol.size());
        us[i + 1] = static_cast<std::int64_t>(ucol.size());
    }
    std::vector<int>().swap(ulev);

    // Numeric factor (the IKJ form): L_ij = w_ij U_jj^-1, w_im -= L_ij U_jm.
    std::vector<Block> lval(lcol.size()), uval(ucol.size()), dinv(static_cast<std::size_t>(nb));
    std::vector<Block> w(static_cast<std::size_t>(nb), Block{});
    std::vector<int> stamp(static_cast<std::size_t>(nb), -1);
    for (int i = 0; i < nb; ++i) {
        for (std::int64_t k = ls[i]; k < ls[i + 1]; ++k) w[lcol[k]] = Block{}, stamp[lcol[k]] = i;
        for (std::int64_t k = us[i]; k < us[i + 1]; ++k) w[ucol[k]] = Block{}, stamp[ucol[k]] = i;
        w[i] = Block{}, stamp[i] = i;
        const int b = old_[i];
        for (std::int64_t k = A.start[b]; k < A.start[b + 1]; ++k) w[pos[A.col[k]]] = A.val[k];
        for (std::int64_t k = ls[i]; k < ls[i + 1]; ++k) {
            const int j = lcol[k];
            const Block l = mul(w[j], dinv[j]);
            lval[k] = l;
            for (std::int64_t q = us[j]; q < us[j + 1]; ++q)
                if (stamp[ucol[q]] == i) sub_mul(w[ucol[q]], l, uval[q]);
        }
        dinv[i] = inverse(w[i]);
        for (std::int64_t k = us[i]; k < us[i + 1]; ++k) uval[k] = w[ucol[k]];
    }
    // Columns stored as the rows of S they stand for, so that the solves
    // read and write the vectors in place.
    for (int& c : lcol) c = old_[c];
    for (int& c : ucol) c = old_[c];
    ls_ = std::move(ls), lcol_ = std::move(lcol), lval_ = std::move(lval);
    // The upper rows stored last row first, so that the backward solve
    // streams through memory forwards (a row at a time backwards, as they
    // were, defeated the processor's prefetch: the solve took 1.6 times as
    // long).
    us_.assign(static_cast<std::size_t>(nb) + 1, 0);
    ucol_.reserve(ucol.size());
    uval_.reserve(uval.size());
    for (int t = 0; t < nb; ++t) {
        const int i = nb - 1 - t;
        ucol_.insert(ucol_.end(), ucol.begin() + us[i], ucol.begin() + us[i + 1]);
        uval_.insert(uval_.end(), uval.begin() + us[i], uval.begin() + us[i + 1]);
        us_[t + 1] = static_cast<std::int64_t>(ucol_.size());
    }
    dinv_ = std::move(dinv);
    slot_.assign(static_cast<std::size_t>(nb), -1);
    for (int i = range_[parts]; i < nb; ++i) slot_[old_[i]] = i - range_[parts];
}

void BlockILU::solve(const cplx* x, cplx* y) const {
    auto* Y = reinterpret_cast<Pair*>(y);
    const auto* X = reinterpret_cast<const Pair*>(x);
    const int P = parts();
    // L z = x: the parts, then the separator (whose rows reach any part).
    const auto forward = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            Pair z = X[old_[i]];
            for (std::int64_t k = ls_[i]; k < ls_[i + 1]; ++k) sub_apply(z, lval_[k], Y[lcol_[k]]);
            Y[old_[i]] = z;
        }
    };
    // U y = z: the separator (its columns are separator rows), then the parts.
    const auto backward = [&](int from, int to) {
        for (int i = to - 1; i >= from; --i) {
            Pair z = Y[old_[i]];
            const int t = nb_ - 1 - i;
            for (std::int64_t k = us_[t]; k < us_[t + 1]; ++k) sub_apply(z, uval_[k], Y[ucol_[k]]);
            Y[old_[i]] = apply(dinv_[i], z);
        }
    };
#pragma omp parallel for schedule(static) if (P > 1)
    for (int p = 0; p < P; ++p) forward(range_[p], range_[p + 1]);
    forward(range_[P], nb_);
    backward(range_[P], nb_);
#pragma omp parallel for schedule(static) if (P > 1)
    for (int p = 0; p < P; ++p) backward(range_[p], range_[p + 1]);
}

void BlockILU::solve_transpose(const cplx* x, cplx* y) const {
    auto* Y = reinterpret_cast<Pair*>(y);
    const auto* X = reinterpret_cast<const Pair*>(x);
    const int P = parts(), s0 = range_[P], ns = nb_ - s0;
    std::copy(X, X + nb_, Y);
    // U^T z = x, by columns: a row, once final, is taken off the rows its
    // U row reaches.  A part reaches its own rows and the separator's; what
    // it takes off the separator is gathered per part and added in the
    // order of the parts.
    std::vector<Pair> gathered(static_cast<std::size_t>(P) * ns, Pair{});
#pragma omp parallel for schedule(static) if (P > 1)
    for (int p = 0; p < P; ++p) {
        Pair* mine = gathered.data() + static_cast<std::ptrdiff_t>(p) * ns;
        for (int i = range_[p]; i < range_[p + 1]; ++i) {
            const Pair z = apply_t(dinv_[i], Y[old_[i]]);
            Y[old_[i]] = z;
            const int t = nb_ - 1 - i;
            for (std::int64_t k = us_[t]; k < us_[t + 1]; ++k) {
                const int c = ucol_[k];
                sub_apply_t(slot_[c] < 0 ? Y[c] : mine[slot_[c]], uval_[k], z);
            }
        }
    }
    for (int p = 0; p < P; ++p)
        for (int s = 0; s < ns; ++s) {
            Pair& t = Y[old_[s0 + s]];
            const Pair& g = gathered[static_cast<std::size_t>(p) * ns + s];
            t[0] += g[0], t[1] += g[1];
        }
    for (int i = s0; i < nb_; ++i) {
        const Pair z = apply_t(dinv_[i], Y[old_[i]]);
        Y[old_[i]] = z;
        const int t = nb_ - 1 - i;
        for (std::int64_t k = us_[t]; k < us_[t + 1]; ++k) sub_apply_t(Y[ucol_[k]], uval_[k], z);
    }
    // L^T y = z, by columns from the last row: the separator first (its L
    // rows reach any part, one thread), then the parts.
    const auto backward = [&](int from, int to) {
        for (int i = to - 1; i >= from; --i) {
            const Pair z = Y[old_[i]];
            for (std::int64_t k = ls_[i]; k < ls_[i + 1]; ++k) sub_apply_t(Y[lcol_[k]], lval_[k], z);
        }
    };
    backward(s0, nb_);
#pragma omp parallel for schedule(static) if (P > 1)
    for (int p = 0; p < P; ++p) backward(range_[p], range_[p + 1]);
}

}  // namespace torix
