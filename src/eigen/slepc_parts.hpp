#pragma once
// The parts of the matrix-free solve (slepc_solve.cpp) that live in files
// of their own: PETSc's start and error checks, the owners of its objects,
// the turn that keeps one thread at a time inside it, the shell matrix of an
// operator, and the preconditioner (the sparse local part, its band, the
// hooks of the inner solves).
#include <slepceps.h>

#include <array>
#include <atomic>
#include <complex>
#include <exception>
#include <thread>
#include <type_traits>

#include "eigen/mode_product.hpp"

static_assert(std::is_same_v<PetscScalar, std::complex<double>>, "SOLVE_MODES needs the complex double build of PETSc");

namespace torix::slepc {

// A PETSc error code as a FatalError "SOLVE_MODES: <what> failed: <PETSc's text>".
void check(PetscErrorCode e, const char* what);

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

// Shell matrices: the operator (transposed: A^T) and the count of its products.
struct ShellContext {
    const ModeProduct* op = nullptr;
    bool transposed = false;  // the shell is A^T
    std::int64_t products = 0;
    Turn* turn = nullptr;     // given up during the product
};
// A shell matrix of order n on `comm` whose products (and transposed
// products) are those of ctx's operator, the turn given up while they run.
void make_shell(MPI_Comm comm, int n, ShellContext* ctx, OwnedMat& A);

// Fill levels of the incomplete LU for a grid of `layers` layers of cells.
int fill_levels(int layers);

// The sparse local part with -sigma on the diagonal, as a PETSc matrix of
// 2 x 2 blocks.
void local_matrix(const ComplexSparse& S, PetscScalar sigma, OwnedMat& P, MPI_Comm comm = PETSC_COMM_WORLD);

// The lowest positive frequency of the local part L0 and its count-th
// lowest (0 where there are fewer or the lowest has not settled).
std::array<double, 2> local_band(Mat L0, int count);

// What the hooks of one side's inner solves need: the incomplete LU of the
// local part (the preconditioner: its triangular solves) and the turn they
// give up (see Turn).
struct InnerContext {
    Mat factor = nullptr;
    Turn* turn = nullptr;
};
PetscErrorCode inner_apply(PC pc, Vec x, Vec y);
PetscErrorCode inner_converged(KSP ksp, Vec, Vec, void*);
PetscErrorCode orthogonalize(KSP ksp, PetscInt it);

}  // namespace torix::slepc
