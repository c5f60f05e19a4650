// Krylov-Schur with shift-and-invert on the matrix-free dynamic matrix.
//
// The complex build of PETSc is used so that the shift i f0 is a plain
// scalar and A - sigma I a plain operator; the real operator then costs two
// real convolutions per complex product (ModeOperator).
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define TORIX_LEAK_CHECKER 1
#endif
#endif
#ifndef TORIX_LEAK_CHECKER
#define TORIX_LEAK_CHECKER 0
#endif
#include "eigen/slepc_solve.hpp"

#include <slepceps.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <exception>
#include <mutex>
#include <optional>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <omp.h>

#include "core/error.hpp"
#include "eigen/mode_operator.hpp"

extern "C" void zgesv_(const int* n, const int* nrhs, std::complex<double>* a, const int* lda, int* ipiv,
                       std::complex<double>* b, const int* ldb, int* info);

static_assert(std::is_same_v<PetscScalar, std::complex<double>>, "SOLVE_MODES needs the complex double build of PETSc");

namespace torix {

namespace {

void check(PetscErrorCode e, const char* what) {
    if (e == 0) return;
    const char* text = nullptr;
    PetscErrorMessage(e, &text, nullptr);
    throw FatalError(std::string("SOLVE_MODES: ") + what + " failed: " +
                     (text ? text : "PETSc error " + std::to_string(static_cast<int>(e))));
}

// Owners of PETSc objects.
template <class T, PetscErrorCode (*Destroy)(T*)>
struct Owned {
    T h = nullptr;
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() {
        if (h) Destroy(&h);
    }
};
using OwnedMat = Owned<Mat, MatDestroy>;
using OwnedVec = Owned<Vec, VecDestroy>;
using OwnedEPS = Owned<EPS, EPSDestroy>;

// While two solves run side by side only one thread at a time may be inside
// PETSc or SLEPc: this build is not thread-safe.  Process-wide state that
// the solves' own calls change without a lock includes the object count of
// PETSC_COMM_SELF, on which SLEPc's projected problems make and drop small
// matrices at every restart (a lost count frees the communicator under live
// objects), the stack of floating-point trap modes that the dense kernels
// push and pop, and KSPSolve's count of nested solves.  Each thread holds
// the turn for the whole of its solve and gives it up only for work that
// touches none of it: the operator product (this program's own loops and
// FFTW's plans, one set per side), the triangular solves of the incomplete
// LU (MatSolve on a factor of its own side) and GMRES's orthogonalisation
// (vector operations on its own vectors, a reduction on its own
// communicator).  Those are most of a solve, so the two still run mostly at
// the same time.  The turn changes hands several times per inner
// iteration, so a waiting thread spins a little before it yields: with a
// mutex's sleep and wake-up the FMR problem took 1.25 s instead of 1.0 s.
class Turn {
public:
    void lock() {
        for (int spins = 0; flag_.test_and_set(std::memory_order_acquire); ++spins)
            if (spins > kSpins) std::this_thread::yield();
    }
    void unlock() { flag_.clear(std::memory_order_release); }

private:
    static constexpr int kSpins = 4000;
    std::atomic_flag flag_ = ATOMIC_FLAG_INIT;
};

// Gives the turn up for the lifetime of the guard.  (A solve that runs
// alone holds and gives up a turn nobody else asks for.)
class TurnGivenUp {
public:
    explicit TurnGivenUp(Turn* t) : t_(t) { t_->unlock(); }
    ~TurnGivenUp() { t_->lock(); }
    TurnGivenUp(const TurnGivenUp&) = delete;
    TurnGivenUp& operator=(const TurnGivenUp&) = delete;

private:
    Turn* t_;
};

struct ShellContext {
    const ModeOperator* op = nullptr;
    bool transposed = false;  // the shell is A^T
    std::int64_t products = 0;
    Turn* turn = nullptr;     // given up during the product
};

// Shell products.  Nothing may be thrown through PETSc's C frames: failures
// become PETSc error codes, which the caller turns into a message.
PetscErrorCode shell_product(Mat A, Vec x, Vec y, bool transpose) {
    void* raw = nullptr;
    PetscErrorCode e = MatShellGetContext(A, &raw);
    if (e) return e;
    auto* c = static_cast<ShellContext*>(raw);
    const PetscScalar* px = nullptr;
    PetscScalar* py = nullptr;
    if ((e = VecGetArrayRead(x, &px))) return e;
    if ((e = VecGetArrayWrite(y, &py))) {
        VecRestoreArrayRead(x, &px);
        return e;
    }
    PetscErrorCode status = 0;
    try {
        const TurnGivenUp free_turn(c->turn);
        if (transpose != c->transposed)
            c->op->apply_transpose(px, py);
        else
            c->op->apply(px, py);
        ++c->products;
    } catch (const std::bad_alloc&) {
        status = PETSC_ERR_MEM;
    } catch (...) {
        status = PETSC_ERR_LIB;
    }
    VecRestoreArrayWrite(y, &py);
    VecRestoreArrayRead(x, &px);
    return status;
}
PetscErrorCode mult(Mat A, Vec x, Vec y) { return shell_product(A, x, y, false); }
PetscErrorCode mult_transpose(Mat A, Vec x, Vec y) { return shell_product(A, x, y, true); }

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
// Fill levels of the incomplete LU that preconditions the inner solves, by
// the layers of cells of the grid.  Each level adds far more entries to a
// factor of a three-dimensional stencil than to one of a single layer, so
// the best level falls with the layers.  Against the exact LU (nested
// dissection), wall time on films of 100 x 100 and 200 x 200 cells in one
// layer: ILU(4) 0.62 and 0.59, ILU(6) 0.57 and 0.53, ILU(8) or (9) 0.59 and
// 0.61, with 8 % and 15 % more operator products for ILU(6).  Inner solves
// of both sides on one thread, seconds for ILU(0, 1, 2, 3, 6): FMR problem
// (24 x 24 x 2 cells) 1.78, 1.57, 1.45, 1.49, 1.60; 70 x 70 x 2 cells -,
// 13.6, 13.4, 14.4, 14.6; 50 x 50 x 4 cells 16.8, 16.3, 19.2, 20.8, 31.3; a
// 100 x 100 film in one layer 9.7 with ILU(2) against 8.1 with ILU(6).
int fill_levels(int layers) { return layers <= 1 ? 6 : layers == 2 ? 2 : 1; }

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

// The sparse local part with -sigma on the diagonal, as a PETSc matrix.
//
// Stored in 2 x 2 blocks (one per pair of numbers), so that the LU and ILU
// factorisations pivot on whole blocks: without damping a number's diagonal
// block is [[0, b], [c, 0]] at a shift of 0, a zero pivot for a scalar
// factorisation though the block is regular.
void local_matrix(const SparseMatrix& S, PetscScalar sigma, OwnedMat& P, MPI_Comm comm = PETSC_COMM_WORLD) {
    const PetscInt n = S.n;
    check(MatCreate(comm, &P.h), "MatCreate");
    check(MatSetSizes(P.h, n, n, n, n), "MatSetSizes");
    check(MatSetType(P.h, MATBAIJ), "MatSetType");
    // Both rows of a number hold the same source numbers, two columns each.
    std::vector<PetscInt> nnz(static_cast<std::size_t>(n / 2));
    for (PetscInt b = 0; b < n / 2; ++b) nnz[b] = static_cast<PetscInt>(S.row_start[2 * b + 1] - S.row_start[2 * b]) / 2;
    check(MatSeqBAIJSetPreallocation(P.h, 2, 0, nnz.data()), "MatSeqBAIJSetPreallocation");
    check(MatMPIBAIJSetPreallocation(P.h, 2, 0, nnz.data(), 0, nullptr), "MatMPIBAIJSetPreallocation");
    std::vector<PetscInt> cols;
    std::vector<PetscScalar> vals;
    for (PetscInt r = 0; r < n; ++r) {
        cols.clear(), vals.clear();
        for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) {
            cols.push_back(S.col[k] - 1);
            vals.push_back(PetscScalar(S.val[k]) - (S.col[k] - 1 == r ? sigma : PetscScalar(0.0)));
        }
        check(MatSetValues(P.h, 1, &r, static_cast<PetscInt>(cols.size()), cols.data(), vals.data(), INSERT_VALUES),
              "MatSetValues");
    }
    check(MatAssemblyBegin(P.h, MAT_FINAL_ASSEMBLY), "MatAssemblyBegin");
    check(MatAssemblyEnd(P.h, MAT_FINAL_ASSEMBLY), "MatAssemblyEnd");
}

// The Ritz values of the last Krylov-Schur iteration, converged or not,
// back-transformed (the monitor sees those of the spectral transformation).
struct RitzValues {
    ST st = nullptr;
    std::vector<cplx> values;
    std::vector<double> errors;  // SLEPc's error estimates of the values
};

PetscErrorCode ritz_monitor(EPS, PetscInt, PetscInt, PetscScalar* eigr, PetscScalar* eigi, PetscReal* errest,
                            PetscInt nest, void* ctx) {
    auto* r = static_cast<RitzValues*>(ctx);
    try {
        r->values.clear();
        r->errors.clear();
        for (PetscInt i = 0; i < nest; ++i) {
            PetscScalar re = eigr[i], im = eigi[i];
            if (const PetscErrorCode e = STBackTransform(r->st, 1, &re, &im)) return e;
            r->values.push_back(re);
            r->errors.push_back(errest[i]);
        }
    } catch (const std::bad_alloc&) {
        return PETSC_ERR_MEM;
    }
    return 0;
}

// The band of the sparse local part: its lowest positive frequency and the
// count-th lowest (0 where there are fewer), from one Krylov-Schur pass
// (2 count values, SLEPc's default basis, no restart) with
// shift-and-invert at 0 whose inner solves are the exact LU of the local
// part: triangular solves only, no convolution (faster here than GMRES with
// the incomplete LU: 8.3 s against 10.9 s on a 200 x 200 film).  The band
// only places the shift of the real solve, and it takes the Ritz values of
// that one pass, converged or not.  The lowest frequency is the extreme
// value of the inverse, the first to converge: after one pass it equals the
// converged value to 0.1 Oe on the FMR problem and films of 100 x 100 and
// 200 x 200 cells.  The count-th comes out too high if anything (2807 Oe
// against 2122 Oe on the 200 x 200 film, whose band the converged run took
// 11 passes and 6 s to resolve), which can only keep a narrow band's shift
// at 0, never misplace it.
constexpr double kBandSettled = 1e-2;  // largest error estimate of the lowest value the band uses
std::array<double, 2> local_band(Mat L0, int count) {
    OwnedEPS eps;
    check(EPSCreate(PETSC_COMM_WORLD, &eps.h), "EPSCreate");
    check(EPSSetOperators(eps.h, L0, nullptr), "EPSSetOperators");
    check(EPSSetProblemType(eps.h, EPS_NHEP), "EPSSetProblemType");
    check(EPSSetType(eps.h, EPSKRYLOVSCHUR), "EPSSetType");
    check(EPSSetTarget(eps.h, PetscScalar(0.0)), "EPSSetTarget");
    check(EPSSetWhichEigenpairs(eps.h, EPS_TARGET_MAGNITUDE), "EPSSetWhichEigenpairs");
    PetscInt order = 0;
    check(MatGetSize(L0, &order, nullptr), "MatGetSize");
    // Both members of every conjugate pair are equally near 0.
    check(EPSSetDimensions(eps.h, std::min<PetscInt>(order, 2 * count), PETSC_DEFAULT, PETSC_DEFAULT),
          "EPSSetDimensions");
    check(EPSSetTolerances(eps.h, 1e-4, 1), "EPSSetTolerances");
    ST st;
    check(EPSGetST(eps.h, &st), "EPSGetST");
    check(STSetType(st, STSINVERT), "STSetType");
    RitzValues ritz;
    ritz.st = st;
    check(EPSMonitorSet(eps.h, ritz_monitor, &ritz, nullptr), "EPSMonitorSet");
    KSP ksp;
    check(STGetKSP(st, &ksp), "STGetKSP");
    PC pc;
    check(KSPGetPC(ksp, &pc), "KSPGetPC");
    check(KSPSetType(ksp, KSPPREONLY), "KSPSetType");
    check(PCSetType(pc, PCLU), "PCSetType");
    check(PCFactorSetMatOrderingType(pc, MATORDERINGND), "PCFactorSetMatOrderingType");
    check(EPSSolve(eps.h), "EPSSolve (the local part may be singular at 0)");
    std::vector<std::pair<double, double>> f;  // frequency, error estimate
    for (std::size_t i = 0; i < ritz.values.size(); ++i) {
        const cplx k = ritz.values[i];
        // Real values (a rounding-level imaginary part) are not frequencies.
        if (k.imag() > 1e-3 * std::abs(k)) f.emplace_back(k.imag(), ritz.errors[i]);
    }
    std::sort(f.begin(), f.end());
    // The lowest value places the shift: it must have settled (a Ritz value
    // of a non-normal matrix far from converged can lie outside its
    // spectrum); otherwise no band is reported and the shift stays at 0.
    if (f.empty() || !(f.front().second <= kBandSettled)) return {0.0, 0.0};
    return {f.front().first, static_cast<int>(f.size()) >= count ? f[count - 1].first : 0.0};
}

// Converged eigenpairs of one solve.
struct Pairs {
    std::vector<cplx> lambda;
    std::vector<std::vector<cplx>> vec;  // unit norm
    std::vector<double> residual;        // |A v - lambda v| / (|lambda| |v|) with the operator itself
    std::int64_t inner = 0;
    int iterations = 0;
};

// What the hooks of one side's inner solves need: the incomplete LU of the
// local part (the preconditioner: its triangular solves) and the turn they
// give up (see Turn).
struct InnerContext {
    Mat factor = nullptr;
    Turn* turn = nullptr;
};

PetscErrorCode inner_apply(PC pc, Vec x, Vec y) {
    void* raw = nullptr;
    if (const PetscErrorCode e = PCShellGetContext(pc, &raw)) return e;
    const auto* c = static_cast<const InnerContext*>(raw);
    const TurnGivenUp free_turn(c->turn);
    return MatSolve(c->factor, x, y);
}

// An inner solve that stops short of its tolerance is an error.  (PETSc's
// own check, KSPSetErrorIfNotConverged, looks at a process-wide count of
// nested solves, which two solves side by side raise.)
PetscErrorCode inner_converged(KSP ksp, Vec, Vec, void*) {
    KSPConvergedReason reason = KSP_CONVERGED_ITERATING;
    if (const PetscErrorCode e = KSPGetConvergedReason(ksp, &reason)) return e;
    return reason < 0 ? PETSC_ERR_NOT_CONVERGED : 0;
}

// GMRES's orthogonalisation of its new basis vector (PETSc's classical
// Gram-Schmidt, its default), with the turn given up: vector operations on
// the side's own vectors and a reduction over the side's own communicator.
PetscErrorCode orthogonalize(KSP ksp, PetscInt it) {
    void* raw = nullptr;
    if (const PetscErrorCode e = KSPGetApplicationContext(ksp, &raw)) return e;
    const TurnGivenUp free_turn(static_cast<const InnerContext*>(raw)->turn);
    return KSPGMRESClassicalGramSchmidtOrthogonalization(ksp, it);
}

// One Krylov-Schur solve with shift-and-invert, set up in full (the
// incomplete LU included) by the constructor; solve() then runs it,
// possibly beside another one.  Every call into PETSc holds `turn` (see
// Turn): the hooks that give it up (products, triangular solves,
// orthogonalisation) may be reached from any of them.
class KrylovSchur {
public:
    KrylovSchur(Mat A, Mat P, int n, int nev, PetscScalar sigma, double tol, int levels, Turn& turn,
                const char* label)
        : n_(n), turn_(&turn) {
        const std::lock_guard<Turn> hold(turn);
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
        check(EPSSetConvergenceTest(eps_.h, EPS_CONV_REL), "EPSSetConvergenceTest");
        // The Ritz estimate of the transformed problem is not the residual of
        // A itself: converge a decade tighter, then check with A.
        check(EPSSetTolerances(eps_.h, tol / 10.0, 1000), "EPSSetTolerances");
        ST st;
        check(EPSGetST(eps_.h, &st), "EPSGetST");
        check(STSetType(st, STSINVERT), "STSetType");
        check(STSetMatMode(st, ST_MATMODE_SHELL), "STSetMatMode");
        check(STSetPreconditionerMat(st, P), "STSetPreconditionerMat");
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
        // Incomplete LU of the local part with `levels` fill levels, natural
        // (grid) ordering, on 2 x 2 blocks, factored here (as PETSc's ILU
        // preconditioner would) so that its triangular solves can run with
        // the turn given up.  The triangular solves of an exact LU cost
        // several operator products once the grid is large (its fill grows
        // faster than the cells), while ILU(6) needs hardly more iterations:
        // see fill_levels.  A singular pivot block is an error (a shifted
        // pivot made GMRES report convergence of wrong solutions).
        check(MatGetFactor(P, MATSOLVERPETSC, MAT_FACTOR_ILU, &factor_.h), "MatGetFactor");
        {
            IS row = nullptr, col = nullptr;
            check(MatGetOrdering(P, MATORDERINGNATURAL, &row, &col), "MatGetOrdering");
            MatFactorInfo info;
            check(MatFactorInfoInitialize(&info), "MatFactorInfoInitialize");
            info.levels = levels;
            info.fill = 1.0;
            info.zeropivot = 100.0 * PETSC_MACHINE_EPSILON;
            const PetscErrorCode e = MatILUFactorSymbolic(factor_.h, P, row, col, &info);
            ISDestroy(&row);
            ISDestroy(&col);
            check(e, "MatILUFactorSymbolic");
            check(MatLUFactorNumeric(factor_.h, P, &info), "MatLUFactorNumeric");
        }
        MatFactorError failed = MAT_FACTOR_NOERROR;
        check(MatFactorGetError(factor_.h, &failed), "MatFactorGetError");
        if (failed != MAT_FACTOR_NOERROR)
            throw FatalError("SOLVE_MODES: the incomplete LU of the local part has a singular pivot block at the "
                             "shift");
        inner_.factor = factor_.h;
        inner_.turn = &turn;
        PC pc;
        check(KSPGetPC(ksp_, &pc), "KSPGetPC");
        check(PCSetType(pc, PCSHELL), "PCSetType");
        check(PCShellSetContext(pc, &inner_), "PCShellSetContext");
        check(PCShellSetApply(pc, inner_apply), "PCShellSetApply");
        check(KSPSetApplicationContext(ksp_, &inner_), "KSPSetApplicationContext");
        check(KSPGMRESSetOrthogonalization(ksp_, orthogonalize), "KSPGMRESSetOrthogonalization");
        mon_.label = label;
        mon_.nev = nev;
        check(EPSMonitorSet(eps_.h, eps_monitor, &mon_, nullptr), "EPSMonitorSet");
        check(KSPMonitorSet(ksp_, ksp_monitor, &mon_, nullptr), "KSPMonitorSet");
        check(EPSSetUp(eps_.h), "EPSSetUp");
    }
    KrylovSchur(const KrylovSchur&) = delete;
    KrylovSchur& operator=(const KrylovSchur&) = delete;

    void solve() {
        const std::lock_guard<Turn> hold(*turn_);
        check(EPSSolve(eps_.h), "EPSSolve (the operator may be singular at the shift)");
    }

    [[nodiscard]] Pairs pairs() const {
        const std::lock_guard<Turn> hold(*turn_);
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
            out.vec.emplace_back(px, px + n_);
            out.residual.push_back(err);
            check(VecRestoreArrayRead(x.h, &px), "VecRestoreArrayRead");
        }
        return out;
    }

private:
    int n_;
    Turn* turn_;
    // Declared before the EPS, which refers to them and goes first.
    OwnedMat factor_;
    InnerContext inner_;
    Monitor mon_;
    OwnedEPS eps_;
    KSP ksp_ = nullptr;  // owned by the EPS
};

// A duplicate of PETSC_COMM_WORLD (the same processes), freed at the end of
// its scope.  The left solve's objects live there, so that the reductions
// the two sides run with the turn given up (GMRES's orthogonalisation) are
// never on one communicator at the same time.
struct OwnedComm {
    MPI_Comm c = MPI_COMM_NULL;
    OwnedComm() {
        if (MPI_Comm_dup(PETSC_COMM_WORLD, &c) != MPI_SUCCESS) throw FatalError("SOLVE_MODES: MPI_Comm_dup failed");
    }
    OwnedComm(const OwnedComm&) = delete;
    OwnedComm& operator=(const OwnedComm&) = delete;
    ~OwnedComm() {
        if (c != MPI_COMM_NULL) MPI_Comm_free(&c);
    }
};

// first() and second(), at the same time when `together` (second() on a
// thread of its own; each with `each` threads for its own OpenMP loops and
// transforms, whose teams then start from two separate threads), one after
// the other otherwise.  An exception of either is thrown after both ended.
template <class First, class Second>
void side_by_side(bool together, int each, const First& first, const Second& second) {
    std::exception_ptr failed[2];
    const auto guarded = [&failed](int k, const auto& work) {
        try {
            work();
        } catch (...) {
            failed[k] = std::current_exception();
        }
    };
    std::thread other;
    const int saved = omp_get_max_threads();
    if (together) {
        omp_set_num_threads(each);
        try {
            other = std::thread([&] {
                omp_set_num_threads(each);
                guarded(1, second);
            });
        } catch (const std::system_error&) {
            omp_set_num_threads(saved);  // no second thread: one after the other
        }
    }
    guarded(0, first);
    if (other.joinable())
        other.join();
    else if (!failed[0])
        guarded(1, second);
    omp_set_num_threads(saved);
    for (const std::exception_ptr& e : failed)
        if (e) std::rethrow_exception(e);
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

}  // namespace

// Switches the sanitizer build's leak checker off and on (no-op elsewhere).
static void leak_check(bool on) {
#if TORIX_LEAK_CHECKER
    if (on)
        __lsan_enable();
    else
        __lsan_disable();
#else
    (void)on;
#endif
}

// A process that no MPI launcher started runs as a singleton of one rank.
// Open MPI would then start a daemon process beside it and probe every
// network transport it knows (0.3 s of each solve's start, and a second
// process on a shared machine); one rank needs neither.  Settings the
// environment makes are kept, and a launched job is left as the launcher
// set it up.
static void settle_singleton_mpi() {
#if defined(OPEN_MPI)
    for (const char* launched : {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK", "PMI_SIZE"})
        if (std::getenv(launched) != nullptr) return;
    setenv("OMPI_MCA_ess_singleton_isolated", "1", 0);
    setenv("OMPI_MCA_pml", "ob1", 0);
#endif
}

bool start_petsc() {
    // PETSc and MPI are process-wide; they are started once and finished at
    // exit.
    static const bool concurrent = [] {
        unsetenv("PETSC_OPTIONS");
        unsetenv("PETSC_OPTIONS_YAML");
        settle_singleton_mpi();
        static char a0[] = "torix", a1[] = "-skip_petscrc", a2[] = "-no_signal_handler";
        static char* args[] = {a0, a1, a2, nullptr};
        int argc = 3;
        char** argv = args;
        // MPI's start keeps process-wide tables (some in plug-ins it loads
        // and unloads) until the process ends: not leaks of ours, so the
        // leak checker of the sanitizer build looks away while it runs.
        leak_check(false);
        // MPI is started here, not by PETSc, to ask for calls from several
        // threads at once (the two sides' reductions, each on its own
        // communicator: see Turn); PETSc then leaves its end to the program.
        int mpi_running = 0, provided = MPI_THREAD_SINGLE;
        MPI_Initialized(&mpi_running);
        const bool own_mpi = !mpi_running;
        if (own_mpi && MPI_Init_thread(&argc, &argv, MPI_THREAD_MULTIPLE, &provided) != MPI_SUCCESS) {
            leak_check(true);
            throw FatalError("SOLVE_MODES: MPI could not be started");
        }
        if (!own_mpi) MPI_Query_thread(&provided);
        const PetscErrorCode started_ok = SlepcInitialize(&argc, &argv, nullptr, nullptr);
        leak_check(true);
        if (started_ok != 0) throw FatalError("SOLVE_MODES: PETSc/SLEPc could not be started");
        PetscPushErrorHandler(PetscReturnErrorHandler, nullptr);
        static bool finish_mpi = own_mpi;
        std::atexit([] {
            leak_check(false);
            SlepcFinalize();
            if (finish_mpi) MPI_Finalize();
        });
#if defined(PETSC_USE_DEBUG)
        // A debugging build keeps a process-wide stack of the functions
        // entered, which two threads would interleave even one at a time in
        // PETSc (a thread enters MatSolve with the turn given up).
        return false;
#else
        return provided >= MPI_THREAD_MULTIPLE;
#endif
    }();
    return concurrent;
}

ModesStats solve_modes(const MatrixInput& in, int nmodes, double f0, double tol, ModeOutput out) {
    if (tol <= 0.0) tol = 1e-10;
    const bool concurrent = start_petsc();
    const int N = in.N, n = 2 * N;
    // The right and the left solve are independent (the same shift and
    // count): with two threads or more they run side by side, each on half
    // of the threads with an operator of its own.  Most of a solve's work
    // (the triangular solves of the incomplete LU, GMRES's
    // orthogonalisation, the convolutions of a small grid) does not share
    // out over threads within one solve.  Either way each side does the
    // same arithmetic.
    const int threads = omp_get_max_threads();
    const bool together = threads >= 2 && concurrent;
    const int each = together ? threads / 2 : threads;
    // Both operators' transforms are planned here, for the threads each
    // side will have.
    std::optional<ModeOperator> op_right, twin;
    {
        omp_set_num_threads(each);
        try {
            op_right.emplace(in, each);
            if (together) twin.emplace(*op_right, each);
        } catch (...) {
            omp_set_num_threads(threads);
            throw;
        }
        omp_set_num_threads(threads);
    }
    const ModeOperator& op = *op_right;
    if (!op.even_tensor())
        throw FatalError("SOLVE_MODES: the interaction tensor is not symmetric and even under r -> -r, so the "
                         "left vectors cannot be formed from its Fourier form (use SOLVE_MATRIX)");
    const ModeOperator& op_left = twin ? *twin : op;
    const SparseMatrix local = op.local_part(1, true);

    Turn turn;
    // The left solve's communicator, declared first: it is freed after the
    // objects that live on it.
    const OwnedComm left_comm;
    ShellContext right_ctx{&op, false, 0, &turn}, left_ctx{&op_left, true, 0, &turn};
    OwnedMat A, At, P, Pt;
    check(MatCreateShell(PETSC_COMM_WORLD, n, n, n, n, &right_ctx, &A.h), "MatCreateShell");
    check(MatShellSetOperation(A.h, MATOP_MULT, reinterpret_cast<void (*)(void)>(mult)), "MatShellSetOperation");
    check(MatShellSetOperation(A.h, MATOP_MULT_TRANSPOSE, reinterpret_cast<void (*)(void)>(mult_transpose)),
          "MatShellSetOperation");
    check(MatCreateShell(left_comm.c, n, n, n, n, &left_ctx, &At.h), "MatCreateShell");
    check(MatShellSetOperation(At.h, MATOP_MULT, reinterpret_cast<void (*)(void)>(mult)), "MatShellSetOperation");
    check(MatShellSetOperation(At.h, MATOP_MULT_TRANSPOSE, reinterpret_cast<void (*)(void)>(mult_transpose)),
          "MatShellSetOperation");
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
    // the shift at 0; the real solve then fails there with PETSc's message.
    // The local part at 0 is the preconditioner's matrix when the shift
    // stays there.
    double aim = f0;
    if (f0 == 0.0) {
        local_matrix(local, PetscScalar(0.0), P);
        try {
            // At least three values: the band of a single mode says nothing
            // of how far the next one lies.
            const auto band = local_band(P.h, std::min(N, std::max(nmodes, 3)));
            if (band[0] > 0.0 && band[1] > 0.0 && band[1] < kNarrowBand * band[0]) aim = kAimFraction * band[0];
        } catch (const FatalError&) {
            aim = 0.0;
        }
    }
    const PetscScalar sigma(0.0, aim);
    ModesStats stats;
    stats.shift = aim;
    stats.side_by_side = together;
    if (aim != 0.0) {
        OwnedMat shifted;
        local_matrix(local, sigma, shifted);
        std::swap(P.h, shifted.h);
    }
    {
        OwnedMat P_left;
        local_matrix(local, sigma, P_left, left_comm.c);
        check(MatTranspose(P_left.h, MAT_INITIAL_MATRIX, &Pt.h), "MatTranspose");
    }

    // Eigenvalues come in conjugate pairs; at a shift of 0 both members of a
    // pair are equally near, so twice the count is asked for.  Above 0 a few
    // extra cover the conjugates of modes near 0; the count grows until
    // enough positive frequencies have converged.
    const auto positive = [tol](cplx l) { return l.imag() > 100.0 * tol * std::abs(l); };
    const cplx target(0.0, f0);
    int nev = std::min(n, aim == 0.0 ? 2 * nmodes : nmodes + 2);
    Pairs R, L;
    std::vector<int> keep;
    // Left vectors: A^T w = lambda w gives u = conj(w) with u^H A = lambda u^H.
    // Side by side the left solve runs with each right one (a right solve
    // that must be repeated with a larger count costs a left one as well,
    // on the other thread); one after the other it runs once, after the last.
    const int levels = fill_levels(in.nz + 1);
    const auto make_left = [&](std::optional<KrylovSchur>& left) {
        left.emplace(At.h, Pt.h, n, nev, sigma, tol, levels, turn, "left");
    };
    for (;;) {
        // Both solves are set up before either runs (see KrylovSchur).
        KrylovSchur right(A.h, P.h, n, nev, sigma, tol, levels, turn, "right");
        std::optional<KrylovSchur> left;
        if (together) make_left(left);
        side_by_side(together, each, [&] { right.solve(); }, [&] {
            if (left) left->solve();
        });
        R = right.pairs();
        stats.inner_iterations += R.inner;
        stats.outer_iterations += R.iterations;
        if (left) {
            L = left->pairs();
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
    if (!together && kept > 0) {
        std::optional<KrylovSchur> left;
        make_left(left);
        left->solve();
        L = left->pairs();
        stats.inner_iterations += L.inner;
        stats.outer_iterations += L.iterations;
    }
    std::vector<bool> used(L.lambda.size(), false);
    std::vector<int> partner(static_cast<std::size_t>(kept), -1);
    for (int p = 0; p < kept; ++p) {
        const cplx l = R.lambda[keep[p]];
        double best = 1e300;
        for (std::size_t k = 0; k < L.lambda.size(); ++k)
            if (!used[k] && std::abs(L.lambda[k] - l) < best) best = std::abs(L.lambda[k] - l), partner[p] = static_cast<int>(k);
        // A partner must be the same eigenvalue, to the accuracy asked for.
        if (partner[p] >= 0 && best > 1e3 * tol * std::abs(l)) partner[p] = -1;
        if (partner[p] >= 0) used[partner[p]] = true;
    }

    std::vector<cplx> lam(static_cast<std::size_t>(kept));
    std::vector<std::vector<cplx>> vr(static_cast<std::size_t>(kept)), vl(static_cast<std::size_t>(kept));
    int missing_left = 0;
    for (int p = 0; p < kept; ++p) {
        const int i = keep[p];
        lam[p] = R.lambda[i];
        vr[p] = R.vec[i];
        normalise(vr[p]);
        stats.worst_residual = std::max(stats.worst_residual, R.residual[i]);
        vl[p].assign(static_cast<std::size_t>(n), cplx{});
        if (const int k = partner[p]; k >= 0) {
            for (int r = 0; r < n; ++r) vl[p][r] = std::conj(L.vec[k][r]);
            normalise(vl[p]);
            stats.worst_residual = std::max(stats.worst_residual, L.residual[k]);
        } else {
            ++missing_left;
        }
    }
    biorthogonalise(lam, vr, vl, 1e3 * tol);

    out.W.allocate({Range{1, kept}, Range{1, 2}}, 0.0);
    out.MODES.allocate({Range{1, N}, Range{1, 2}, Range{1, kept}}, cplx{});
    out.MODESL.allocate({Range{1, N}, Range{1, 2}, Range{1, kept}}, cplx{});
    out.ZOUT.allocate({Range{1, kept}}, 0.0);
    out.PHASES.allocate({Range{1, kept}}, 0.0);
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
    out.nmodes = kept;
    if (missing_left > 0)
        std::fprintf(stderr, " SOLVE_MODES: warning: %d modes have no converged left vector (stored as zero)\n",
                     missing_left);
    if (stats.worst_residual > tol)
        std::fprintf(stderr, " SOLVE_MODES: warning: the worst residual %.3g is above the tolerance %.3g\n",
                     stats.worst_residual, tol);
    stats.products = right_ctx.products + left_ctx.products;
    stats.converged = kept;
    return stats;
}

}  // namespace torix
