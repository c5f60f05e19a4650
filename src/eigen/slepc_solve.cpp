// Krylov-Schur with shift-and-invert on the matrix-free dynamic matrix.
//
// The complex build of PETSc is used so that the shift i f0 is a plain
// scalar and A - sigma I a plain operator; the real operator then costs two
// real convolutions per complex product (ModeOperator).
#include "eigen/slepc_solve.hpp"

#include <slepceps.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <omp.h>

#include "core/error.hpp"
#include "core/ranks.hpp"
#include "eigen/mode_operator.hpp"
#include "eigen/mode_operator_mpi.hpp"
#include "eigen/slepc_parts.hpp"

namespace torix {

using namespace slepc;

namespace {

// Progress on stderr at most every few seconds: the last Krylov-Schur state
// and the inner iterations so far (a restart can take minutes on a large
// model, so the inner solver reports as well).
struct Monitor {
    const char* label = "";
    int nev = 0;
    int iterations = 0, converged = 0;
    double worst = 0.0;
    std::int64_t inner = 0;
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
};
constexpr double kProgressSeconds = 3.0;
// The shift for the lowest modes, as a fraction of the bottom of the local
// part's band, and the band width (top over bottom) below which it is used.
// Operator products against a shift at 0 (both sides): a 100 x 100 film,
// band ratio 1.15, 45 % fewer (0.9 of the bottom: 41 % fewer); the FMR
// problem, ratio 2.1, 12 % fewer; a 150 nm vortex disk, ratio 3.8, 40 % more
// (its lowest mode lies far below the local part's).
constexpr double kAimFraction = 0.75;
constexpr double kNarrowBand = 2.5;
// The shift sigma = s (kOffAxis + i) for an aim s > 0.  Undamped modes lie
// on the imaginary axis and damped ones to its left, so a shift a little to
// the right of i s is never an eigenvalue, even when s is exactly a mode's
// frequency (A - i s I is then singular and the inner solves cannot
// converge); it stays nearer that mode than to any other mode more than
// kOffAxis s away.
constexpr double kOffAxis = 1e-4;

void report(Monitor& m) {
    const auto now = std::chrono::steady_clock::now();
    if (std::chrono::duration<double>(now - m.last).count() < kProgressSeconds) return;
    m.last = now;
    std::fprintf(stderr,
                 " SOLVE_MODES: %s vectors: iteration %d, %d of %d converged, worst residual %.3g, %lld inner "
                 "iterations\n",
                 m.label, m.iterations, m.converged, m.nev, m.worst, static_cast<long long>(m.inner));
    std::fflush(stderr);
}

PetscErrorCode eps_monitor(EPS, PetscInt its, PetscInt nconv, PetscScalar*, PetscScalar*, PetscReal* errest,
                           PetscInt nest, void* ctx) {
    auto* m = static_cast<Monitor*>(ctx);
    m->iterations = static_cast<int>(its);
    m->converged = static_cast<int>(nconv);
    m->worst = 0.0;
    for (PetscInt k = 0; k < std::min<PetscInt>(nest, m->nev); ++k) m->worst = std::max(m->worst, errest[k]);
    report(*m);
    return 0;
}

PetscErrorCode ksp_monitor(KSP, PetscInt its, PetscReal, void* ctx) {
    auto* m = static_cast<Monitor*>(ctx);
    if (its > 0) ++m->inner;
    report(*m);
    return 0;
}

// Converged eigenpairs of one solve.
struct Pairs {
    std::vector<cplx> lambda;
    std::vector<std::vector<cplx>> vec;  // unit norm
    std::vector<double> residual;        // |A v - lambda v| / (|lambda| |v|) with the operator itself
    std::int64_t inner = 0;
    int iterations = 0;
    std::int64_t products = 0;  // operator products of the side so far
};

// One Krylov-Schur solve with shift-and-invert, set up in full (the
// incomplete LU included) by the constructor; solve() then runs it.
class KrylovSchur {
public:
    // `inner` holds the factor of the inner solves' preconditioner, which
    // must outlive the solve.
    KrylovSchur(Mat A, const InnerContext& inner, int n, int nev, PetscScalar sigma, double tol, const char* label,
                const std::vector<std::vector<cplx>>& start = {})
        : n_(n), inner_(inner) {
        PetscInt first = 0, last = 0;
        check(MatGetOwnershipRange(A, &first, &last), "MatGetOwnershipRange");
        first_ = static_cast<int>(first);
        local_ = static_cast<int>(last - first);
        MPI_Comm comm = MPI_COMM_NULL;
        check(PetscObjectGetComm(reinterpret_cast<PetscObject>(A), &comm), "PetscObjectGetComm");
        check(EPSCreate(comm, &eps_.h), "EPSCreate");
        check(EPSSetOperators(eps_.h, A, nullptr), "EPSSetOperators");
        check(EPSSetProblemType(eps_.h, EPS_NHEP), "EPSSetProblemType");
        check(EPSSetType(eps_.h, EPSKRYLOVSCHUR), "EPSSetType");
        check(EPSSetTarget(eps_.h, sigma), "EPSSetTarget");
        check(EPSSetWhichEigenpairs(eps_.h, EPS_TARGET_MAGNITUDE), "EPSSetWhichEigenpairs");
        // A basis 30 vectors beyond the wanted count (SLEPc's default: 15) took
        // 5 to 10 % fewer products on the FMR problem and a 64 x 64 film.
        check(EPSSetDimensions(eps_.h, nev, std::min(n, std::max(2 * nev, nev + 30)), PETSC_DEFAULT),
              "EPSSetDimensions");
        if (!start.empty()) {
            // The first basis vectors: eigenvectors of a neighbouring problem.
            std::vector<Vec> v;
            for (const auto& s0 : start) {
                if (static_cast<int>(s0.size()) != n) continue;
                Vec x = nullptr;
                check(MatCreateVecs(A, &x, nullptr), "MatCreateVecs");
                v.push_back(x);
                PetscScalar* px = nullptr;
                check(VecGetArrayWrite(x, &px), "VecGetArrayWrite");
                std::copy(s0.begin() + first_, s0.begin() + first_ + local_, px);
                check(VecRestoreArrayWrite(x, &px), "VecRestoreArrayWrite");
            }
            const PetscErrorCode e = EPSSetInitialSpace(eps_.h, static_cast<PetscInt>(v.size()), v.data());
            for (Vec& x : v) VecDestroy(&x);
            check(e, "EPSSetInitialSpace");
        }
        check(EPSSetConvergenceTest(eps_.h, EPS_CONV_REL), "EPSSetConvergenceTest");
        // The Ritz estimate of the transformed problem is not the residual of
        // A itself: converge a decade tighter, then check with A.
        check(EPSSetTolerances(eps_.h, tol / 10.0, 1000), "EPSSetTolerances");
        ST st;
        check(EPSGetST(eps_.h, &st), "EPSGetST");
        check(STSetType(st, STSINVERT), "STSetType");
        check(STSetMatMode(st, ST_MATMODE_SHELL), "STSetMatMode");
        check(STGetKSP(st, &ksp_), "STGetKSP");
        check(KSPSetType(ksp_, KSPGMRES), "KSPSetType");
        check(KSPGMRESSetRestart(ksp_, 60), "KSPGMRESSetRestart");
        // Preconditioned on the right, so that GMRES stops on the true residual
        // of (A - sigma I) y = x.  On the left it stops on the residual seen
        // through the incomplete LU, which can be far smaller: a 40 x 40
        // in-plane film then left a mode at 159 Oe with residual 1.5e-10 for a
        // tol of 1e-10 however the tolerances were set (3e-11 on the right, with
        // a tenth of tol).  A tenth of the wanted residual suffices here; three
        // tenths do not (that film: 1.9e-10).
        check(KSPSetPCSide(ksp_, PC_RIGHT), "KSPSetPCSide");
        check(KSPSetTolerances(ksp_, std::max(1e-14, tol * 1e-1), PETSC_DEFAULT, PETSC_DEFAULT, 5000),
              "KSPSetTolerances");
        check(KSPSetPostSolve(ksp_, inner_converged, nullptr), "KSPSetPostSolve");
        PC pc;
        check(KSPGetPC(ksp_, &pc), "KSPGetPC");
        check(PCSetType(pc, PCSHELL), "PCSetType");
        check(PCShellSetContext(pc, &inner_), "PCShellSetContext");
        check(PCShellSetApply(pc, inner_apply), "PCShellSetApply");
        check(KSPSetApplicationContext(ksp_, &inner_), "KSPSetApplicationContext");
        mon_.label = label;
        mon_.nev = nev;
        check(EPSMonitorSet(eps_.h, eps_monitor, &mon_, nullptr), "EPSMonitorSet");
        check(KSPMonitorSet(ksp_, ksp_monitor, &mon_, nullptr), "KSPMonitorSet");
        check(EPSSetUp(eps_.h), "EPSSetUp");
    }
    KrylovSchur(const KrylovSchur&) = delete;
    KrylovSchur& operator=(const KrylovSchur&) = delete;

    void solve() {
        check(EPSSolve(eps_.h), "EPSSolve (the operator may be singular at the shift)");
    }

    [[nodiscard]] Pairs pairs() const {
        Pairs out;
        PetscInt nconv = 0, its = 0;
        check(EPSGetConverged(eps_.h, &nconv), "EPSGetConverged");
        check(EPSGetIterationNumber(eps_.h, &its), "EPSGetIterationNumber");
        out.iterations = static_cast<int>(its);
        PetscInt lits = 0;
        check(KSPGetTotalIterations(ksp_, &lits), "KSPGetTotalIterations");
        out.inner = lits;
        Mat A;
        check(EPSGetOperators(eps_.h, &A, nullptr), "EPSGetOperators");
        OwnedVec x;
        check(MatCreateVecs(A, &x.h, nullptr), "MatCreateVecs");
        for (PetscInt i = 0; i < nconv; ++i) {
            PetscScalar k;
            check(EPSGetEigenpair(eps_.h, i, &k, nullptr, x.h, nullptr), "EPSGetEigenpair");
            PetscReal err = 0.0;
            check(EPSComputeError(eps_.h, i, EPS_ERROR_RELATIVE, &err), "EPSComputeError");
            const PetscScalar* px = nullptr;
            check(VecGetArrayRead(x.h, &px), "VecGetArrayRead");
            out.lambda.push_back(k);
            out.vec.emplace_back(static_cast<std::size_t>(n_), cplx{});
            std::copy(px, px + local_, out.vec.back().begin() + first_);
            out.residual.push_back(err);
            check(VecRestoreArrayRead(x.h, &px), "VecRestoreArrayRead");
            if (local_ < n_) {  // rows shared out: every rank gets the whole vector
                const PetscInt* ranges = nullptr;
                check(VecGetOwnershipRanges(x.h, &ranges), "VecGetOwnershipRanges");
                std::vector<std::size_t> start(static_cast<std::size_t>(rank_count()) + 1);
                for (std::size_t r = 0; r < start.size(); ++r) start[r] = 2 * static_cast<std::size_t>(ranges[r]);
                gather_pieces(reinterpret_cast<double*>(out.vec.back().data()), start);
            }
        }
        return out;
    }

private:
    int n_;
    int first_ = 0, local_ = 0;  // this rank's rows
    // Declared before the EPS, which refers to them and goes first.
    InnerContext inner_;
    Monitor mon_;
    OwnedEPS eps_;
    KSP ksp_ = nullptr;  // owned by the EPS
};

// Pairs of the rank `root` on every rank (collective).  A solve shared
// over the ranks has every vector on every rank already; its values are
// made the same bits everywhere.
void share(Pairs& p, int root, bool shared) {
    if (rank_count() == 1) return;
    broadcast(p.lambda, root);
    broadcast(p.residual, root);
    if (shared) return;
    broadcast(p.inner, root);
    broadcast(p.iterations, root);
    broadcast(p.products, root);
    auto count = static_cast<std::uint64_t>(p.vec.size());
    broadcast(count, root);
    p.vec.resize(static_cast<std::size_t>(count));
    for (auto& v : p.vec) broadcast(v, root);
}

}  // namespace

std::vector<std::vector<cplx>> mode_columns(const Array<cplx, 3>& modes, int nmodes) {
    std::vector<std::vector<cplx>> v;
    if (!modes.allocated()) return v;
    const int N = modes.extent(0);
    for (int p = 1; p <= std::min(nmodes, modes.extent(2)); ++p) {
        v.emplace_back(2 * static_cast<std::size_t>(N));
        for (int c = 1; c <= N; ++c)
            for (int k = 1; k <= 2; ++k) v.back()[2 * (c - 1) + (k - 1)] = modes(c, k, p);
    }
    return v;
}

ModesStats solve_mode_products(const ModeProduct& op, ComplexSparse local, int layers,
                               const std::vector<int>* undamped, int nmodes, double f0, double tol, ModeOutput out,
                               const ModeStart* start) {
    if (tol <= 0.0) tol = 1e-10;
    const int n = op.order(), N = n / 2;
    // Which rank solves which side: one rank both, one after the other; with
    // two or more, rank 0 the right vectors and rank 1 the left ones at the
    // same time (the others wait for the pairs).  An undamped model forms
    // its left vectors from the right ones and solves for them only if one
    // fails its residual (left_from_right).
    // An operator whose rows are shared out puts every rank on each side in
    // turn, each with its rows of the vectors and its own factor.
    const int ranks = rank_count(), me = my_rank();
    const bool shared = op.shared();
    const int left_rank = ranks > 1 && !shared ? 1 : 0;
    const bool right_here = me == 0 || shared, left_here = me == left_rank || shared;
    const bool left_beside = ranks > 1 && undamped == nullptr && !shared;
    const MPI_Comm comm = shared ? MPI_COMM_WORLD : PETSC_COMM_SELF;
    // Start vectors: right vectors for A; for A^T the conjugates of left
    // vectors (A^T conj(u) = lambda conj(u)).
    std::vector<std::vector<cplx>> start_right, start_left;
    if (start != nullptr) {
        start_right = start->right;
        for (const auto& u : start->left) {
            start_left.emplace_back(u.size());
            for (std::size_t r = 0; r < u.size(); ++r) start_left.back()[r] = std::conj(u[r]);
        }
    }
    ShellContext right_ctx{&op, false, 0}, left_ctx{&op, true, 0};
    OwnedMat A, At;
    // Where the solve aims.  For the lowest modes (f0 = 0) a shift at 0 is
    // a poor one when the wanted modes form a narrow band well above 0 (the
    // ten lowest of a saturated film lie within 5 to 20 % of each other,
    // closer the larger the film): the transformed values
    // 1/lambda of the band are then nearly equal, which makes Krylov-Schur
    // restart many times, and both members of every conjugate pair are
    // equally near, so twice the modes must converge.  The band is located
    // on the sparse local part, whose spectrum is cheap to compute (its far
    // field is exact for a uniform mode, so a film's band comes out within
    // 2 %); for a narrow band (its top below kNarrowBand times its bottom)
    // the solve aims at i s with s = kAimFraction times the bottom.  A
    // broad band keeps the shift at 0; so does, through its broad band, a
    // vortex, whose lowest mode the local part misplaces (the gyrotropic
    // mode is set by the long-range field: 304 Oe in the local part, 89 Oe
    // in the operator).  The modes kept are those nearest i f0 in either
    // case.
    // A local part that cannot be factored at 0 (a singular block) leaves
    // the shift at 0; the real solve then fails there with the factor's
    // message.  The band's factor at 0 is the preconditioner when the shift
    // stays there.  Rank 0 places the shift for every rank (with the rows
    // shared, all ranks search together and rank 0's value is sent).
    //
    // Rows shared out: each rank's factor reaches past its own rows on
    // either side (slepc_parts.hpp, Overlap), and `local` holds those rows
    // only.
    const bool split_rows = shared && ranks > 1;
    Overlap overlap;
    int ext_rows = 0;
    if (split_rows) {
        overlap.first = op.first_row();
        overlap.rows = op.local_rows();
        const int reach = op.overlap_rows();
        overlap.ext_first = std::max(0, overlap.first - reach);
        ext_rows = std::min(n, overlap.first + overlap.rows + reach) - overlap.ext_first;
        std::vector<double> first(static_cast<std::size_t>(ranks), 0.0);  // every rank's first row
        first[me] = overlap.first;
        gather_pieces(first.data(), split_evenly(static_cast<std::size_t>(ranks), ranks));
        overlap.starts.resize(static_cast<std::size_t>(ranks) + 1);
        for (int r = 0; r < ranks; ++r) overlap.starts[r] = 2 * static_cast<std::size_t>(first[r]);
        overlap.starts[ranks] = 2 * static_cast<std::size_t>(n);
    }
    const int levels = fill_levels(layers);
    const auto factor_of = [&](cplx at) {
        return split_rows ? BlockILU(diagonal_block(local, overlap.ext_first, ext_rows), at, levels)
                          : BlockILU(local, at, levels);
    };
    double aim = f0;
    std::optional<BlockILU> F;
    if ((me == 0 || split_rows) && f0 == 0.0) {
        // Every rank of a shared solve must have its factor before the
        // collective band search starts.
        bool factored = true;
        try {
            F.emplace(factor_of(0.0));
        } catch (const FatalError&) {
            factored = false;
        }
        if (split_rows) factored = sum_over_ranks(factored ? 0.0 : 1.0) == 0.0;
        try {
            // At least three values: the band of a single mode says
            // nothing of how far the next one lies.
            if (factored) {
                const auto band = local_band(local, *F, std::min(N, std::max(nmodes, 3)), split_rows ? &overlap : nullptr);
                if (band[0] > 0.0 && band[1] > 0.0 && band[1] < kNarrowBand * band[0]) aim = kAimFraction * band[0];
            }
        } catch (const FatalError&) {
            aim = 0.0;
        }
    }
    broadcast(aim, 0);
    const PetscScalar sigma(kOffAxis * aim, aim);
    ModesStats stats;
    stats.shift = aim;
    stats.ranks = shared ? ranks : std::min(ranks, 2);
    // The factor of the preconditioner, made once on each rank that solves
    // a side (the transposed solves of rank 0's serve its left solve, if
    // one is needed; the band's at 0 serves when the shift stays there);
    // the local part is then dropped, as it would otherwise stay beside
    // the factor and the Krylov bases for the whole solve.
    {
        std::string failed;
        try {
            if (aim != 0.0 || !(right_here && F)) F.reset();
            if ((right_here || (left_beside && left_here)) && !F) F.emplace(factor_of(sigma));
        } catch (const FatalError& e) {
            failed = e.what();
        }
        local = ComplexSparse{};
        agree_on_failure(failed.empty() ? nullptr : &failed);
    }
    const Overlap* o = split_rows ? &overlap : nullptr;
    const InnerContext right_inner{F ? &*F : nullptr, false, o, {}, {}}, left_inner{F ? &*F : nullptr, true, o, {}, {}};
    if (right_here) make_shell(comm, n, &right_ctx, A, op.local_rows());
    // Left vectors: A^T w = lambda w gives u = conj(w) with u^H A = lambda u^H.
    const auto solve_left = [&](int nev, Pairs& L) {
        if (At.h == nullptr) make_shell(comm, n, &left_ctx, At, op.local_rows());
        KrylovSchur left(At.h, left_inner, n, nev, sigma, tol, "left", start_left);
        left.solve();
        L = left.pairs();
        L.products = left_ctx.products;
    };

    // Eigenvalues come in conjugate pairs; at a shift of 0 both members of a
    // pair are equally near, so twice the count is asked for.  Above 0 a few
    // extra cover the conjugates of modes near 0; the count grows until
    // enough positive frequencies have converged.  Beside the right solve,
    // the left one runs with each count.
    const auto positive = [tol](cplx l) { return l.imag() > 100.0 * tol * std::abs(l); };
    const cplx target(0.0, f0);
    int nev = std::min(n, aim == 0.0 ? 2 * nmodes : nmodes + 2);
    Pairs R, L;
    bool have_left = false;
    std::vector<int> keep;
    for (;;) {
        std::string failed;
        try {
            if (right_here) {
                KrylovSchur right(A.h, right_inner, n, nev, sigma, tol, "right", start_right);
                right.solve();
                R = right.pairs();
                R.products = right_ctx.products;
            }
            if (left_beside && left_here) solve_left(nev, L);
        } catch (const FatalError& e) {
            failed = e.what();
        }
        agree_on_failure(failed.empty() ? nullptr : &failed);
        share(R, 0, shared);
        stats.inner_iterations += R.inner;
        stats.outer_iterations += R.iterations;
        if (left_beside) {
            share(L, left_rank, shared);
            have_left = true;
            stats.inner_iterations += L.inner;
            stats.outer_iterations += L.iterations;
        }
        keep.clear();
        for (std::size_t i = 0; i < R.lambda.size(); ++i)
            if (positive(R.lambda[i])) keep.push_back(static_cast<int>(i));
        const bool all_converged = static_cast<int>(R.lambda.size()) >= nev;
        if (static_cast<int>(keep.size()) >= nmodes || !all_converged || nev >= n) break;
        nev = std::min(n, 2 * nev);
    }
    std::stable_sort(keep.begin(), keep.end(),
                     [&](int a, int b) { return std::abs(R.lambda[a] - target) < std::abs(R.lambda[b] - target); });
    if (static_cast<int>(keep.size()) > nmodes) keep.resize(nmodes);
    if (static_cast<int>(keep.size()) < nmodes)
        std::fprintf(stderr, " SOLVE_MODES: warning: %d of %d modes converged; the converged ones are kept\n",
                     static_cast<int>(keep.size()), nmodes);
    // Modes by increasing f, as the dense solve orders them.
    std::stable_sort(keep.begin(), keep.end(), [&](int a, int b) { return R.lambda[a].imag() < R.lambda[b].imag(); });
    const int kept = static_cast<int>(keep.size());

    std::vector<cplx> lam(static_cast<std::size_t>(kept));
    std::vector<std::vector<cplx>> vr(static_cast<std::size_t>(kept)), vl(static_cast<std::size_t>(kept));
    for (int p = 0; p < kept; ++p) {
        lam[p] = R.lambda[keep[p]];
        vr[p] = R.vec[keep[p]];
        normalise(vr[p]);
        stats.worst_residual = std::max(stats.worst_residual, R.residual[keep[p]]);
    }
    // Undamped: the left vectors from the right ones, each checked with one
    // transposed product (a model outside the conditions of left_from_right,
    // or an unstable state, fails the check and is solved for).
    std::vector<double> derived_residual(static_cast<std::size_t>(kept), 0.0);
    bool derived = undamped != nullptr && kept > 0;
    for (int p = 0; p < kept && derived; ++p) {
        vl[p] = left_from_right(vr[p], *undamped);
        derived_residual[p] = left_residual(op, vl[p], lam[p]);
        derived = derived_residual[p] <= tol;
    }
    if (!derived && !have_left && kept > 0) {
        std::string failed;
        try {
            if (left_here) solve_left(nev, L);
        } catch (const FatalError& e) {
            failed = e.what();
        }
        agree_on_failure(failed.empty() ? nullptr : &failed);
        share(L, left_rank, shared);
        stats.inner_iterations += L.inner;
        stats.outer_iterations += L.iterations;
    }
    stats.left_from_right = derived;
    int missing_left = 0;
    if (derived) {
        for (int p = 0; p < kept; ++p) {
            normalise(vl[p]);
            stats.worst_residual = std::max(stats.worst_residual, derived_residual[p]);
        }
    } else {
        std::vector<bool> used(L.lambda.size(), false);
        for (int p = 0; p < kept; ++p) {
            const cplx l = lam[p];
            double best = 1e300;
            int partner = -1;
            for (std::size_t k = 0; k < L.lambda.size(); ++k)
                if (!used[k] && std::abs(L.lambda[k] - l) < best) best = std::abs(L.lambda[k] - l), partner = static_cast<int>(k);
            // A partner must be the same eigenvalue, to the accuracy asked for.
            if (partner >= 0 && best > 1e3 * tol * std::abs(l)) partner = -1;
            vl[p].assign(static_cast<std::size_t>(n), cplx{});
            if (partner < 0) {
                ++missing_left;
                continue;
            }
            used[partner] = true;
            for (int r = 0; r < n; ++r) vl[p][r] = std::conj(L.vec[partner][r]);
            normalise(vl[p]);
            stats.worst_residual = std::max(stats.worst_residual, L.residual[partner]);
        }
    }
    biorthogonalise(lam, vr, vl, 1e3 * tol);

    allocate_modes(out, N, kept);
    for (int p = 1; p <= kept; ++p) {
        out.W(p, 1) = lam[p - 1].imag();
        out.W(p, 2) = -lam[p - 1].real();
        out.ZOUT(p) = keep[p - 1] + 1;
        for (int c = 1; c <= N; ++c)
            for (int k = 1; k <= 2; ++k) {
                out.MODES(c, k, p) = vr[p - 1][2 * (c - 1) + (k - 1)];
                out.MODESL(c, k, p) = vl[p - 1][2 * (c - 1) + (k - 1)];
            }
    }
    if (missing_left > 0)
        std::fprintf(stderr, " SOLVE_MODES: warning: %d modes have no converged left vector (stored as zero)\n",
                     missing_left);
    if (stats.worst_residual > tol)
        std::fprintf(stderr, " SOLVE_MODES: warning: the worst residual %.3g is above the tolerance %.3g\n",
                     stats.worst_residual, tol);
    stats.products = R.products + L.products + (derived ? kept : 0);
    stats.converged = kept;
    return stats;
}

std::vector<int> undamped_multiplicities(const MatrixInput& in) {
    if (in.alpha != 0.0 || in.happ != std::array<double, 3>{0.0, 0.0, 0.0}) return {};
    std::vector<int> w(static_cast<std::size_t>(in.N));
    for (int k = 1; k <= in.N; ++k) w[k - 1] = in.w(k);
    return w;
}

ModesStats solve_modes(const MatrixInput& in, int nmodes, double f0, double tol, ModeOutput out) {
    start_petsc();
    const std::vector<int> w = undamped_multiplicities(in);
    // On several ranks an undamped model shares its rows out over all of
    // them (it has one side to solve); a damped one puts its two sides on
    // two ranks, each with the whole operator.
    const bool shared = rank_count() > 1 && !w.empty();
    std::optional<ModeOperator> whole;
    whole.emplace(in);
    if (!whole->reciprocal_tensor())
        throw FatalError("SOLVE_MODES: the interaction tensor is not the transpose of itself at the opposite "
                         "offset (D(-r) = D(r)^T), so the left vectors cannot be formed from its Fourier form "
                         "(use SOLVE_MATRIX)");
    const std::vector<int>* undamped = w.empty() ? nullptr : &w;
    if (!shared) {
        // The real local part goes before the solve starts.
        ComplexSparse local = complex_sparse(whole->local_part(1, true));
        return solve_mode_products(*whole, std::move(local), in.nz + 1, undamped, nmodes, f0, tol, out);
    }
    // Each rank's rows of the local part, and those its factor reaches.
    const std::vector<std::size_t> piece = split_evenly(static_cast<std::size_t>(in.N), rank_count());
    const int reach = SlabModeOperator::overlap_numbers(in), me = my_rank();
    ComplexSparse local = complex_sparse(whole->local_part(
            1, true, std::max(1, static_cast<int>(piece[me]) + 1 - reach),
            std::min(in.N + 1, static_cast<int>(piece[me + 1]) + 1 + reach)));
    whole.reset();
    const SlabModeOperator op(in);
    if (my_rank() == 0)
        std::fprintf(stderr, " SOLVE_MODES: rows shared over %d ranks, the convolution %s\n", rank_count(),
                     op.slabs() ? "on slabs of the grid" : "whole on every rank");
    return solve_mode_products(op, std::move(local), in.nz + 1, undamped, nmodes, f0, tol, out);
}

}  // namespace torix
