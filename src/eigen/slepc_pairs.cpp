// What the matrix-free solve does with its converged pairs: the left
// vectors of undamped models formed from the right ones and checked, the
// form of every vector, and the biorthogonal left vectors of clusters.
#include <algorithm>
#include <cmath>
#include <complex>
#include <utility>
#include <vector>

#include "core/ranks.hpp"
#include "eigen/slepc_parts.hpp"

extern "C" void zgesv_(const int* n, const int* nrhs, std::complex<double>* a, const int* lda, int* ipiv,
                       std::complex<double>* b, const int* ldb, int* info);

namespace torix::slepc {

// The left vector of a right pair (v, lambda) of an undamped model without
// the current vector.  There A = W^-1 J K: per number, J the quarter turn
// of the local plane (the [m x] of the frame), W the multiplicity, and K
// Hermitian (reciprocal tensor blocks, the self blocks of the equilibrium
// field along m).  Then A^H (W J^-1) = -(W J^-1) A, so for an imaginary
// lambda u = W J^-1 v gives A^H u = conj(lambda) u: u^H A = lambda u^H.
std::vector<cplx> left_from_right(const std::vector<cplx>& v, const std::vector<int>& w) {
    std::vector<cplx> u(v.size());
    for (std::size_t n = 0; 2 * n + 1 < v.size(); ++n) {
        u[2 * n] = static_cast<double>(w[n]) * v[2 * n + 1];
        u[2 * n + 1] = -static_cast<double>(w[n]) * v[2 * n];
    }
    return u;
}

// |A^H u - conj(lambda) u| / (|lambda| |u|), by one transposed product:
// A^T conj(u) - lambda conj(u) is its conjugate.
double left_residual(const ModeProduct& op, const std::vector<cplx>& u, cplx lambda) {
    const auto first = static_cast<std::size_t>(op.first_row()), rows = static_cast<std::size_t>(op.local_rows());
    std::vector<cplx> x(rows), y(rows);
    for (std::size_t r = 0; r < rows; ++r) x[r] = std::conj(u[first + r]);
    op.apply_transpose(x.data(), y.data());
    double rr = 0.0, uu = 0.0;
    for (std::size_t r = 0; r < rows; ++r) rr += std::norm(y[r] - lambda * x[r]), uu += std::norm(x[r]);
    if (op.shared()) rr = sum_over_ranks(rr), uu = sum_over_ranks(uu);
    return std::sqrt(rr / uu) / std::abs(lambda);
}

// Unit norm, the component of largest modulus real and positive (the form
// in which the dense solve returns its vectors).
void normalise(std::vector<cplx>& v) {
    double s = 0.0, big = -1.0;
    cplx at = 1.0;
    for (const cplx& z : v) {
        s += std::norm(z);
        if (std::abs(z) > big) big = std::abs(z), at = z;
    }
    if (s == 0.0) return;
    const cplx f = std::conj(at) / (std::abs(at) * std::sqrt(s));
    for (cplx& z : v) z *= f;
}

// Within a cluster of equal eigenvalues the left vectors of the two solves
// span the right space but need not be biorthogonal to the right vectors:
// U := U (V^H U)^-1 makes U^H V diagonal there, columns then normalised.
// Distinct eigenvalues are biorthogonal already and are left alone.
void biorthogonalise(const std::vector<cplx>& lambda, std::vector<std::vector<cplx>>& V,
                     std::vector<std::vector<cplx>>& U, double same) {
    const int m = static_cast<int>(lambda.size());
    std::vector<bool> done(static_cast<std::size_t>(m), false);
    for (int p = 0; p < m; ++p) {
        if (done[p]) continue;
        std::vector<int> c;
        for (int q = p; q < m; ++q)
            if (!done[q] && std::abs(lambda[q] - lambda[p]) <= same * std::abs(lambda[p])) c.push_back(q);
        for (int q : c) done[q] = true;
        const int k = static_cast<int>(c.size());
        if (k < 2) continue;
        bool zero = false;
        for (int q : c) zero = zero || std::all_of(U[q].begin(), U[q].end(), [](cplx z) { return z == cplx{}; });
        if (zero) continue;
        // G = V^H U (k x k, column-major); X solves G X = I.
        std::vector<cplx> G(static_cast<std::size_t>(k * k)), X(static_cast<std::size_t>(k * k), cplx{});
        for (int a = 0; a < k; ++a)
            for (int b = 0; b < k; ++b) {
                cplx s = 0.0;
                for (std::size_t r = 0; r < V[c[a]].size(); ++r) s += std::conj(V[c[a]][r]) * U[c[b]][r];
                G[a + k * b] = s;
            }
        for (int a = 0; a < k; ++a) X[a + k * a] = 1.0;
        std::vector<int> ipiv(static_cast<std::size_t>(k));
        int info = 0;
        zgesv_(&k, &k, G.data(), &k, ipiv.data(), X.data(), &k, &info);
        if (info != 0) continue;
        std::vector<std::vector<cplx>> Un(static_cast<std::size_t>(k), std::vector<cplx>(U[c[0]].size(), cplx{}));
        for (int b = 0; b < k; ++b)
            for (int a = 0; a < k; ++a)
                for (std::size_t r = 0; r < Un[b].size(); ++r) Un[b][r] += U[c[a]][r] * X[a + k * b];
        for (int b = 0; b < k; ++b) {
            normalise(Un[b]);
            U[c[b]] = std::move(Un[b]);
        }
    }
}

}  // namespace torix::slepc
