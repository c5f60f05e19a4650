// The incomplete LU of the inner solves against PETSc's, and, with every
// fill level allowed, against the matrix it factors (it is then exact).
#include <gtest/gtest.h>

#include <omp.h>

#include <random>

#include "core/error.hpp"
#include "eigen/block_ilu.hpp"
#include "eigen/slepc_parts.hpp"
#include "eigen/slepc_solve.hpp"

using namespace torix;

namespace {

// A grid of gx x gy pairs of numbers, numbered along x first, coupled to
// their eight neighbours by random 2 x 2 blocks; the diagonal blocks are
// those of an undamped number, [[0, b], [c, 0]] (a zero scalar pivot), plus
// a little of everything.
ComplexSparse grid_matrix(int gx, int gy, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const int nb = gx * gy;
    ComplexSparse S;
    S.n = 2 * nb;
    S.row_start.push_back(0);
    for (int b = 0; b < nb; ++b) {
        const int x = b % gx, y = b / gx;
        std::vector<int> cols;
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                if (x + dx >= 0 && x + dx < gx && y + dy >= 0 && y + dy < gy) cols.push_back(b + dx + gx * dy);
        std::vector<cplx> blocks;
        for (std::size_t k = 0; k < 4 * cols.size(); ++k) blocks.emplace_back(0.3 * u(gen), 0.3 * u(gen));
        for (std::size_t k = 0; k < cols.size(); ++k)
            if (cols[k] == b) blocks[4 * k + 1] += 4.0, blocks[4 * k + 2] -= 5.0;
        for (int i = 0; i < 2; ++i) {
            for (std::size_t k = 0; k < cols.size(); ++k)
                for (int j = 0; j < 2; ++j) {
                    S.col.push_back(2 * cols[k] + j);
                    S.val.push_back(blocks[4 * k + i + 2 * j]);
                }
            S.row_start.push_back(static_cast<std::int64_t>(S.col.size()));
        }
    }
    return S;
}

// S with its pairs in the factor's order (pair `order[i]` of S becomes i).
ComplexSparse permuted(const ComplexSparse& S, const std::vector<int>& order) {
    std::vector<int> pos(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) pos[order[i]] = static_cast<int>(i);
    ComplexSparse P;
    P.n = S.n;
    P.row_start.push_back(0);
    for (int r = 0; r < S.n; ++r) {
        const int from = 2 * order[r / 2] + r % 2;
        std::vector<std::pair<int, cplx>> row;
        for (std::int64_t k = S.row_start[from]; k < S.row_start[from + 1]; ++k)
            row.emplace_back(2 * pos[S.col[k] / 2] + S.col[k] % 2, S.val[k]);
        std::sort(row.begin(), row.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        for (const auto& [c, v] : row) P.col.push_back(c), P.val.push_back(v);
        P.row_start.push_back(static_cast<std::int64_t>(P.col.size()));
    }
    return P;
}

std::vector<cplx> random_vector(int n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<cplx> x(static_cast<std::size_t>(n));
    for (cplx& z : x) z = cplx(u(gen), u(gen));
    return x;
}

double rel_diff(const std::vector<cplx>& a, const std::vector<cplx>& b) {
    double d = 0.0, s = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) d += std::norm(a[k] - b[k]), s += std::norm(b[k]);
    return std::sqrt(d / s);
}

// y = (S - sigma I) x, or its transpose.
std::vector<cplx> product(const ComplexSparse& S, cplx sigma, const std::vector<cplx>& x, bool transposed) {
    std::vector<cplx> y(x.size());
    for (int r = 0; r < S.n; ++r) {
        for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) {
            if (transposed) y[S.col[k]] += S.val[k] * x[r];
            else y[r] += S.val[k] * x[S.col[k]];
        }
        y[r] -= sigma * x[r];
    }
    return y;
}

}  // namespace

TEST(BlockILU, EqualsPetscsFactorInItsOrderAndIsExactWithFullFill) {
    start_petsc();
    const ComplexSparse S = grid_matrix(8, 40, 7);
    const cplx sigma(0.1, 2.0);
    for (int parts : {1, 3}) {
        SCOPED_TRACE(parts);
        const BlockILU ilu(S, sigma, 2, parts);
        ASSERT_EQ(ilu.parts(), parts);
        // PETSc's ILU(2) of the matrix in the factor's order, natural
        // ordering: the same factor, so the same solves.
        const ComplexSparse Sp = permuted(S, ilu.order());
        slepc::OwnedMat P, F;
        slepc::local_matrix(Sp, sigma, P, PETSC_COMM_SELF);
        slepc::ilu_factor(P.h, 2, F);
        slepc::OwnedVec xv, yv;
        slepc::check(MatCreateVecs(P.h, &xv.h, &yv.h), "MatCreateVecs");
        for (bool transposed : {false, true}) {
            SCOPED_TRACE(transposed);
            const std::vector<cplx> x = random_vector(S.n, 11);
            std::vector<cplx> y(x.size()), yp(x.size());
            transposed ? ilu.solve_transpose(x.data(), y.data()) : ilu.solve(x.data(), y.data());
            PetscScalar* px = nullptr;
            slepc::check(VecGetArray(xv.h, &px), "VecGetArray");
            for (int r = 0; r < S.n; ++r) px[r] = x[2 * ilu.order()[r / 2] + r % 2];
            slepc::check(VecRestoreArray(xv.h, &px), "VecRestoreArray");
            slepc::check(transposed ? MatSolveTranspose(F.h, xv.h, yv.h) : MatSolve(F.h, xv.h, yv.h), "MatSolve");
            const PetscScalar* py = nullptr;
            slepc::check(VecGetArrayRead(yv.h, &py), "VecGetArrayRead");
            for (int r = 0; r < S.n; ++r) yp[2 * ilu.order()[r / 2] + r % 2] = py[r];
            slepc::check(VecRestoreArrayRead(yv.h, &py), "VecRestoreArrayRead");
            EXPECT_LT(rel_diff(y, yp), 1e-12);
        }
        // Every fill level: the exact LU, whose solve undoes the matrix.
        const BlockILU lu(S, sigma, S.n, parts);
        for (bool transposed : {false, true}) {
            const std::vector<cplx> x = random_vector(S.n, 5);
            const std::vector<cplx> b = product(S, sigma, x, transposed);
            std::vector<cplx> y(x.size());
            transposed ? lu.solve_transpose(b.data(), y.data()) : lu.solve(b.data(), y.data());
            EXPECT_LT(rel_diff(y, x), 1e-11) << transposed;
        }
        // The same bits on one thread as on two.
        const std::vector<cplx> x = random_vector(S.n, 3);
        std::vector<cplx> y1(x.size()), y2(x.size()), t1(x.size()), t2(x.size());
        const int threads = omp_get_max_threads();
        omp_set_num_threads(1);
        ilu.solve(x.data(), y1.data()), ilu.solve_transpose(x.data(), t1.data());
        omp_set_num_threads(2);
        ilu.solve(x.data(), y2.data()), ilu.solve_transpose(x.data(), t2.data());
        omp_set_num_threads(threads);
        EXPECT_EQ(y1, y2);
        EXPECT_EQ(t1, t2);
    }
}

TEST(BlockILU, PartsFollowTheSizeAndASingularPivotIsAnError) {
    EXPECT_EQ(ilu_parts(49999), 1);
    EXPECT_EQ(ilu_parts(1'000'000), 4);
    // A numbering that scatters neighbours over the ranges keeps one part.
    ComplexSparse S = grid_matrix(40, 3, 1);
    EXPECT_EQ(BlockILU(S, 0.0, 1, 4).parts(), 1);
    // Pair 5 coupled to nothing, its block zero: no pivot.
    for (int r = 10; r <= 11; ++r)
        for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) S.val[k] = 0.0;
    EXPECT_THROW(BlockILU(S, 0.0, 1), FatalError);
}

