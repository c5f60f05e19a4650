#include "eigen/arnoldi.hpp"

#include <arpack/arpack.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <limits>
#include <numeric>
#include <vector>

#include "core/console.hpp"

extern "C" {
double dnrm2_(const int* n, const double* x, const int* incx);
void daxpy_(const int* n, const double* alpha, const double* x, const int* incx, double* y, const int* incy);
double dlapy2_(const double* x, const double* y);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a, const int* lda,
            const double* x, const int* incx, const double* beta, double* y, const int* incy, std::size_t);
}

namespace torix {

namespace {

void line(const std::string& s) { std::cout << s << '\n'; }

void dense_product(const double* A, int n, bool transposed, const double* x, double* y) {
    const double one = 1.0, zero = 0.0;
    const int inc = 1;
    dgemv_(transposed ? "T" : "N", &n, &n, &one, A, &n, x, &inc, &zero, y, &inc, 1);
}

// Runs the transposed problem silently and gives each right mode its left
// vector: the conjugate of the transposed-operator eigenvector whose
// eigenvalue lies nearest.
void left_vectors(const Product& opt, int n, int nev, int ncv, int N, ModeOutput out) {
    // Beyond n vectors the solver refuses the request before using the arrays.
    Array<double, 2> V2({Range{1, n}, Range{1, std::min(ncv, n)}}, 0.0);
    Array<double, 2> D2({Range{1, std::min(ncv, n)}, Range{1, 3}}, 0.0);
    const int nconv = arnoldi(opt, n, nev, ncv, V2, D2, false);
    Array<double, 2> W2;
    Array<cplx, 3> L2;
    Array<double, 1> Z2;
    const int m2 = sort_ar(D2, V2, nconv, N, nconv, W2, L2, Z2);
    out.MODESL.allocate({Range{1, N}, Range{1, 2}, Range{1, out.nmodes}}, cplx{0.0, 0.0});
    std::vector<bool> used(static_cast<std::size_t>(m2) + 1, false);
    for (int p = 1; p <= out.nmodes; ++p) {
        int best = 0;
        double dist = std::numeric_limits<double>::infinity();
        for (int k = 1; k <= m2; ++k) {
            if (used[k]) continue;
            const double d = std::hypot(W2(k, 1) - out.W(p, 1), W2(k, 2) - out.W(p, 2));
            if (d < dist) dist = d, best = k;
        }
        if (best == 0) continue;
        used[best] = true;
        for (int nn = 1; nn <= N; ++nn)
            for (int c = 1; c <= 2; ++c) out.MODESL(nn, c, p) = std::conj(L2(nn, c, best));
    }
}

}  // namespace

int arnoldi(const Product& op, int n, int nev, int ncv, Array<double, 2>& V, Array<double, 2>& D, bool verbose) {
    const char* bmat = "I";
    const char* which = "SM";
    const double tol = 0.0;
    // The solver's own first checks (n, nev, then nev + 2 <= ncv <= n), made
    // here before the work arrays are sized from ncv.
    const int bad = n <= 0 ? -1 : nev <= 0 ? -2 : (ncv <= nev + 1 || ncv > n) ? -3 : 0;
    if (bad != 0) {
        if (verbose) {
            say("Error with _naupd, info =", bad);
            line(" Check the documentation of _naupd");
        }
        return 0;
    }
    const std::size_t nn = static_cast<std::size_t>(std::max(n, 0));
    const std::size_t nc = static_cast<std::size_t>(std::max(ncv, 0));
    std::vector<double> resid(nn), workd(3 * nn), workev(3 * nc);
    const int lworkl = 3 * ncv * ncv + 6 * ncv;
    std::vector<double> workl(static_cast<std::size_t>(std::max(lworkl, 1)));
    std::vector<int> select(std::max<std::size_t>(nc, 1));
    int iparam[11] = {0};
    int ipntr[14] = {0};
    iparam[0] = 1;      // exact shifts
    iparam[2] = 10000;  // maximum number of update iterations
    iparam[6] = 1;      // regular mode
    int ido = 0, info = 0;
    double* v = V.data();
    for (;;) {
        dnaupd_c(&ido, bmat, n, which, nev, tol, resid.data(), ncv, v, n, iparam, ipntr, workd.data(), workl.data(),
                 lworkl, &info);
        if (ido != -1 && ido != 1) break;
        op(workd.data() + ipntr[0] - 1, workd.data() + ipntr[1] - 1);
    }
    if (info < 0) {
        if (verbose) {
            say("Error with _naupd, info =", info);
            line(" Check the documentation of _naupd");
        }
        return 0;
    }
    double* dr = &D(1, 1);
    double* di = &D(1, 2);
    double* dres = &D(1, 3);
    int ierr = 0;
    dneupd_c(1, "A", select.data(), dr, di, v, n, 0.0, 0.0, workev.data(), bmat, n, which, nev, tol, resid.data(),
             ncv, v, n, iparam, ipntr, workd.data(), workl.data(), lworkl, &ierr);
    int nconv = 0;
    if (ierr != 0) {
        if (verbose) {
            say("Error with _neupd, info =", ierr);
            line(" Check the documentation of _neupd. ");
        }
    } else {
        nconv = std::min(iparam[4], ncv);
        std::vector<double> ax(nn), ay(nn);
        const int inc = 1;
        bool first = true;
        for (int j = 0; j < nconv; ++j) {
            const double* x = v + static_cast<std::size_t>(j) * nn;
            if (di[j] == 0.0) {
                op(x, ax.data());
                const double a = -dr[j];
                daxpy_(&n, &a, x, &inc, ax.data(), &inc);
                dres[j] = dnrm2_(&n, ax.data(), &inc) / std::abs(dr[j]);
            } else if (first) {
                if (j + 1 >= ncv) break;
                const double* y = x + nn;
                op(x, ax.data());
                double a = -dr[j];
                daxpy_(&n, &a, x, &inc, ax.data(), &inc);
                a = di[j];
                daxpy_(&n, &a, y, &inc, ax.data(), &inc);
                const double r1 = dnrm2_(&n, ax.data(), &inc);
                op(y, ay.data());
                a = -di[j];
                daxpy_(&n, &a, x, &inc, ay.data(), &inc);
                a = -dr[j];
                daxpy_(&n, &a, y, &inc, ay.data(), &inc);
                const double r2 = dnrm2_(&n, ay.data(), &inc);
                dres[j] = dlapy2_(&r1, &r2) / dlapy2_(&dr[j], &di[j]);
                dres[j + 1] = dres[j];
                first = false;
            } else {
                first = true;
            }
        }
        if (verbose) {
            line(" Ritz values (Real,Imag) and relative residuals");
            line(" ----------------------------------------------");
            char buf[128];
            std::snprintf(buf, sizeof buf, " %6s %24s %24s %24s", "j", "real", "imag", "residual");
            line(buf);
            for (int j = 0; j < nconv; ++j) {
                std::snprintf(buf, sizeof buf, " %6d %24.15E %24.15E %24.15E", j + 1, dr[j], di[j], dres[j]);
                line(buf);
            }
        }
    }
    if (verbose) {
        if (info == 1) line(" Maximum number of iterations reached.");
        if (info == 3) {
            line(" No shifts could be applied during implicit");
            line(" Arnoldi update, try increasing NCV.");
        }
        // dnaupd works to machine precision when TOL <= 0.
        const double eff_tol = tol > 0.0 ? tol : std::numeric_limits<double>::epsilon() / 2;
        line(" _NDRV1 ");
        line(" ====== ");
        say("Size of the matrix is", n);
        say("The number of Ritz values requested is", nev);
        say("The number of Arnoldi vectors generated (NCV) is", ncv);
        say("What portion of the spectrum:", which);
        say("The number of converged Ritz values is", nconv);
        say("The number of Implicit Arnoldi update iterations taken is", iparam[2]);
        say("The number of OP*x is", iparam[8]);
        say("The convergence criterion is", eff_tol);
    }
    std::cout << std::flush;
    return nconv;
}

int solvear(const double* A, int n, int nev, int ncv, Array<double, 2>& V, Array<double, 2>& D) {
    return arnoldi([&](const double* x, double* y) { dense_product(A, n, false, x, y); }, n, nev, ncv, V, D, true);
}

int solvears(const SparseMatrix& S, int n, int nev, int ncv, Array<double, 2>& V, Array<double, 2>& D) {
    return arnoldi([&](const double* x, double* y) { sparse_product(S, x, y); }, n, nev, ncv, V, D, true);
}

int sort_ar(const Array<double, 2>& D, const Array<double, 2>& V, int nconv, int N, int nsel, Array<double, 2>& W,
            Array<cplx, 3>& vectors, Array<double, 1>& ZOUT) {
    struct Cand {
        double f, g;
        int col;     // first column of the pair (1-based)
        double sgn;  // +1: x + i y is the +f vector; -1: its conjugate
    };
    std::vector<Cand> cand;
    for (int j = 1; j <= nconv; ++j) {
        const double im = D(j, 2);
        if (im == 0.0) continue;
        if (j + 1 > V.hi(1)) break;
        cand.push_back({std::abs(im), -D(j, 1), j, im > 0.0 ? 1.0 : -1.0});
        ++j;  // the partner column
    }
    std::stable_sort(cand.begin(), cand.end(), [](const Cand& a, const Cand& b) { return a.f < b.f; });
    const int nmodes = std::clamp(nsel, 0, static_cast<int>(cand.size()));
    W.allocate({Range{1, nmodes}, Range{1, 2}}, 0.0);
    vectors.allocate({Range{1, N}, Range{1, 2}, Range{1, nmodes}}, cplx{0.0, 0.0});
    ZOUT.allocate({Range{1, nmodes}}, 0.0);
    for (int p = 1; p <= nmodes; ++p) {
        const Cand& c = cand[p - 1];
        W(p, 1) = c.f;
        W(p, 2) = c.g;
        ZOUT(p) = c.col;
        for (int n = 1; n <= N; ++n)
            for (int k = 1; k <= 2; ++k) {
                const int r = 2 * (n - 1) + k;
                vectors(n, k, p) = cplx(V(r, c.col), c.sgn * V(r, c.col + 1));
            }
    }
    return nmodes;
}

void calcmatrix_ns(const MatrixInput& in, int nev, int ncv, ModeOutput out, Array<double, 2>& D,
                   Array<double, 2>& V) {
    const int n = 2 * in.N;
    std::vector<double> A(static_cast<std::size_t>(n) * static_cast<std::size_t>(n), 0.0);
    assemble_dense(in, A.data());
    say("matrix created");
    const int nconv = solvear(A.data(), n, nev, ncv, V, D);
    say("matrix solved");
    out.nmodes = sort_ar(D, V, nconv, in.N, nev / 2, out.W, out.MODES, out.ZOUT);
    out.PHASES.allocate({Range{1, out.nmodes}}, 0.0);
    left_vectors([&](const double* x, double* y) { dense_product(A.data(), n, true, x, y); }, n, nev, ncv, in.N, out);
}

void calcmatrix_s(const MatrixInput& in, int nev, int ncv, double threshold, ModeOutput out, Array<double, 2>& D,
                  Array<double, 2>& V) {
    const int n = 2 * in.N;
    SparseMatrix S;
    assemble_sparse(in, threshold, S);
    say("elements", S.count());
    say("matrix created");
    const int nconv = solvears(S, n, nev, ncv, V, D);
    say("matrix solved");
    out.nmodes = sort_ar(D, V, nconv, in.N, nev / 2, out.W, out.MODES, out.ZOUT);
    out.PHASES.allocate({Range{1, out.nmodes}}, 0.0);
    const SparseMatrix T = transpose(S);
    S = SparseMatrix{};
    left_vectors([&](const double* x, double* y) { sparse_product(T, x, y); }, n, nev, ncv, in.N, out);
}

}  // namespace torix
