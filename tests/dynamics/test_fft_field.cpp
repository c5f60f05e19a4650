// The convolution field against the direct sum, which reads the tensor cell
// pair by cell pair: both must give the same H to rounding for any mask,
// any mix of materials and any grid shape.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "dynamics/direct_field.hpp"
#include "dynamics/fft_field.hpp"
#include "dynamics/fft_slab.hpp"
#include "eigen/slepc_solve.hpp"
#include "tensor/dmi.hpp"
#include "tensor/lattice_sum.hpp"
#include "tensor/newell.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

struct Problem {
    int nx, ny, nz, nmat;
    double dx = 5e-7, dy = 4e-7, dz = 3e-7;
    Array<double, 1> MS, A;
    IntGrid mask;
    TensorArray AIJ;
    VecGrid M, Happ;
    std::array<double, 3> MP{0.0, 0.0, 0.0};
    double s = 0.0;

    Problem(int nx_, int ny_, int nz_, int nmat_) : nx(nx_), ny(ny_), nz(nz_), nmat(nmat_) {
        MS = Array<double, 1>({Range{1, nmat}});
        A = Array<double, 1>({Range{1, nmat}});
        for (int m = 1; m <= nmat; ++m) {
            MS(m) = 800.0 - 170.0 * (m - 1);
            A(m) = 1.3e-6 * (1.0 + 0.6 * (m - 1));
        }
        mask = make_int_grid(nx, ny, nz);
        AIJ = make_tensor(nx, ny, nz, nmat);
        for (int m = 1; m <= nmat; ++m) tensornewall(A, MS, AIJ, nx, ny, nz, dx, dy, dz, m, nmat);
        M = make_vec_grid(nx, ny, nz);
        Happ = make_vec_grid(nx, ny, nz);
    }

    // The Fourier form of AIJ, single-layer or whole-volume.
    [[nodiscard]] FourierTensor fourier(bool two_d = false) const {
        FourierTensor F;
        if (two_d)
            aijfft2d(AIJ, F, nx, ny, nmat);
        else
            aijfft(AIJ, F, nx, ny, nz, nmat);
        return F;
    }

    // Random mask (holes with probability `hole`), materials at random;
    // random directions at length MS; junk in empty cells, which must not
    // act as sources; a random applied field.
    void randomize(unsigned seed, double hole) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<double> u(0.0, 1.0);
        std::normal_distribution<double> g(0.0, 1.0);
        for (int k = 0; k <= nz; ++k)
            for (int j = 0; j <= ny; ++j)
                for (int i = 0; i <= nx; ++i) {
                    const bool empty = u(rng) < hole;
                    const int q = empty ? 0 : 1 + static_cast<int>(u(rng) * nmat) % nmat;
                    mask(i, j, k) = q;
                    double v[3] = {g(rng), g(rng), g(rng)};
                    const double len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
                    for (int a = 1; a <= 3; ++a) {
                        M(i, j, k, a) = q == 0 ? 1e3 * g(rng) : MS(q) * v[a - 1] / len;
                        Happ(i, j, k, a) = 100.0 * g(rng);
                    }
                }
    }
};

double max_abs_magnetic(const Problem& p, const VecGrid& H) {
    double big = 0.0;
    for_cells(p.nx, p.ny, p.nz, [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a)
            if (p.mask(i, j, k) != 0) big = std::max(big, std::abs(H(i, j, k, a)));
    });
    return big;
}

// Runs both routes and compares: relative 1e-10 on magnetic cells, and
// empty cells keep the applied field exactly.
void expect_same_field(const Problem& p, const FourierTensor& F, const TensorArray& AIJ) {
    VecGrid Hd = p.Happ, Hf = p.Happ;
    calcfields(p.M, p.MS, p.MP, p.s, p.mask, AIJ, Hd, p.nx, p.ny, p.nz, p.nmat);
    calcfieldsfft(p.M, p.MS, p.MP, p.s, p.mask, F, Hf, p.nx, p.ny, p.nz, p.nmat);
    const double scale = std::max(max_abs_magnetic(p, Hd), 1e-300);
    double worst = 0.0;
    for_cells(p.nx, p.ny, p.nz, [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a) {
            if (p.mask(i, j, k) == 0)
                EXPECT_EQ(Hf(i, j, k, a), p.Happ(i, j, k, a)) << "empty cell " << i << ' ' << j << ' ' << k;
            else
                worst = std::max(worst, std::abs(Hf(i, j, k, a) - Hd(i, j, k, a)) / scale);
        }
    });
    EXPECT_LE(worst, 1e-10);
}

TEST(FftField, ThreeDimensionalTwoMaterialsWithHolesOddAndEvenSizes) {
    for (auto [nx, ny, nz] : {std::array<int, 3>{4, 5, 2}, std::array<int, 3>{5, 3, 3}, std::array<int, 3>{2, 6, 1}}) {
        Problem p(nx, ny, nz, 2);
        p.randomize(17u + nx, 0.3);
        FourierTensor F = p.fourier();
        EXPECT_TRUE(F.real_spectrum);  // the Newell tensor is even under r -> -r
        EXPECT_EQ(F.Ky, ny + 2);       // and has a parity along y and z: half planes kept
        EXPECT_EQ(F.Kz, nz + 2);
        ASSERT_EQ(F.set_material.size(), 1u);
        EXPECT_EQ(F.stencil[2].size(), 6u);  // exchange differs on six offsets
        expect_same_field(p, F, p.AIJ);
        // Evaluations reuse the plans and buffers: a second one is identical.
        p.randomize(99u + nx, 0.1);
        expect_same_field(p, F, p.AIJ);
    }
}

// A periodic body: the lattice-summed tensor (images of every source cell,
// exchange across the boundary) is convolved like any other.
TEST(FftField, PeriodicTensorAlongOneAndTwoAxes) {
    for (const Periodicity per : {Periodicity{1, 0, 0}, Periodicity{0, 1, 1}}) {
        Problem p(3, 2, 1, 2);
        p.AIJ = make_tensor(p.nx, p.ny, p.nz, p.nmat);
        tensor_periodic(p.A, p.MS, p.AIJ, Lattice{per, p.nx, p.ny, p.nz, p.dx, p.dy, p.dz}, p.nmat);
        p.randomize(41u + per.px, 0.2);
        FourierTensor F = p.fourier();
        expect_same_field(p, F, p.AIJ);
    }
}

// Odd shapes, the single-layer and whole-volume forms, the vector-product
// term with a current vector, and an empty mask (field left as applied).
TEST(FftField, LayersColumnsRowsOneCellAndDriveTerms) {
    struct Shape {
        int nx, ny, nz, nmat;
        bool two_d;
        double hole, s;
    };
    for (const Shape c : {Shape{3, 4, 2, 2, false, 0.2, 0.37}, Shape{8, 5, 0, 2, true, 0.25, 0.0},
                          Shape{8, 5, 0, 2, false, 0.25, 0.0}, Shape{0, 0, 6, 2, false, 0.2, 0.0},
                          Shape{9, 0, 0, 1, true, 0.0, 0.0}, Shape{0, 0, 0, 1, true, 0.0, 0.2},
                          Shape{3, 3, 1, 1, false, 1.0, 0.0}}) {
        SCOPED_TRACE(testing::Message() << c.nx << 'x' << c.ny << 'x' << c.nz << (c.two_d ? " 2d" : " 3d"));
        Problem p(c.nx, c.ny, c.nz, c.nmat);
        p.randomize(5u + c.nx + 7u * c.nz, c.hole);
        p.s = c.s;
        if (c.s != 0.0) p.MP = {12.0, -40.0, 7.5};
        const FourierTensor F = p.fourier(c.two_d);
        EXPECT_EQ(F.two_d, c.two_d);
        expect_same_field(p, F, p.AIJ);
    }
}

TEST(FftField, MaterialsWithUnrelatedSlicesGetTheirOwnConvolution) {
    // Slice 2 built for other cell sizes differs from slice 1 at every
    // offset: the Fourier form must convolve it separately.
    Problem p(4, 3, 2, 3);
    p.AIJ.fill(0.0);
    tensornewall(p.A, p.MS, p.AIJ, 4, 3, 2, p.dx, p.dy, p.dz, 1, 3);
    tensornewall(p.A, p.MS, p.AIJ, 4, 3, 2, 2.0 * p.dx, p.dy, 0.7 * p.dz, 2, 3);
    tensornewall(p.A, p.MS, p.AIJ, 4, 3, 2, p.dx, p.dy, p.dz, 3, 3);
    p.randomize(31, 0.15);
    FourierTensor F = p.fourier();
    ASSERT_EQ(F.set_material.size(), 2u);
    EXPECT_EQ(F.set_material[1], 2);
    EXPECT_EQ(F.stencil[3].size(), 6u);
    expect_same_field(p, F, p.AIJ);
}

TEST(FftField, KernelNotEvenUsesComplexSpectra) {
    Problem p(3, 2, 1, 2);
    for (int m = 1; m <= 2; ++m)  // symmetric block, but only at +d, not at -d
        for (auto [c, v] : {std::pair{1, 0.3}, std::pair{2, 0.5}, std::pair{4, 0.5}, std::pair{9, 0.8}})
            p.AIJ(1, 1, 0, c, m) += v;
    p.randomize(12, 0.2);
    FourierTensor F = p.fourier();
    EXPECT_FALSE(F.real_spectrum);
    EXPECT_EQ(F.Ky, F.L2);
    expect_same_field(p, F, p.AIJ);
}

// The DMI blocks are antisymmetric and odd in the offset: the convolution
// takes the symmetric part, the stencils of their materials the rest; the
// spectra stay real and folded.  Both kinds, on two materials (one with both
// kinds), also across a periodic boundary (the images of the neighbour
// offsets) and on a single layer.
TEST(FftField, DmiIsAddedByTheStencilsOfItsMaterials) {
    struct Shape {
        int nx, ny, nz;
        Periodicity p;
    };
    for (const Shape c : {Shape{5, 4, 2, {}}, Shape{4, 3, 3, {1, 0, 0}}, Shape{6, 5, 0, {0, 1, 0}}}) {
        SCOPED_TRACE(testing::Message() << c.nx << 'x' << c.ny << 'x' << c.nz);
        Problem p(c.nx, c.ny, c.nz, 2);
        NeighbourBlocks nb({Range{1, 9}, Range{1, 6}, Range{1, 2}}, 0.0);
        adddmi(p.AIJ, nb, p.MS, c.p, c.nx, c.ny, c.nz, p.dx, p.dy, p.dz, kDmiInterfacial, 40.0, 1);
        adddmi(p.AIJ, nb, p.MS, c.p, c.nx, c.ny, c.nz, p.dx, p.dy, p.dz, kDmiBulk, -30.0, 2);
        adddmi(p.AIJ, nb, p.MS, c.p, c.nx, c.ny, c.nz, p.dx, p.dy, p.dz, kDmiInterfacial, 15.0, 2);
        p.randomize(71u + c.nx, 0.2);
        const FourierTensor F = p.fourier(c.nz == 0);
        EXPECT_TRUE(F.real_spectrum);
        EXPECT_EQ(F.Ky, c.ny + 2);
        EXPECT_FALSE(F.stencil[1].empty());
        expect_same_field(p, F, p.AIJ);
        // Without the stencils the fields differ: the test sees the DMI.
        FourierTensor G = F;
        G.stencil.assign(3, {});
        VecGrid Hd = p.Happ, Hg = p.Happ;
        calcfields(p.M, p.MS, p.MP, p.s, p.mask, p.AIJ, Hd, c.nx, c.ny, c.nz, 2);
        calcfieldsfft(p.M, p.MS, p.MP, p.s, p.mask, G, Hg, c.nx, c.ny, c.nz, 2);
        double diff = 0.0;
        for_cells(c.nx, c.ny, c.nz, [&](int i, int j, int k) {
            for (int a = 1; a <= 3; ++a) diff = std::max(diff, std::abs(Hd(i, j, k, a) - Hg(i, j, k, a)));
        });
        EXPECT_GT(diff, 1e-3 * max_abs_magnetic(p, Hd));
    }
    // An antisymmetric part at many offsets is not a short-range term.
    Problem q(5, 4, 2, 1);
    for_cells(q.nx, q.ny, q.nz, [&](int i, int j, int k) {
        if (i <= 4) q.AIJ(i - 1, j - 2, k - 1, 4, 1) += 0.1;  // 75 offsets
    });
    FourierTensor F;
    EXPECT_NE(fatal_message([&] { aijfft(q.AIJ, F, 5, 4, 2, 1); }).find("antisymmetric part"), std::string::npos);
}

TEST(FftField, AnisotropyAddedToTheFourierFormOnly) {
    // The field-only anisotropy of material 2 acts like K' u u^T added to
    // that material's self block, with K' = K / MS^2.
    Problem p(5, 4, 1, 2);
    p.randomize(44, 0.2);
    FourierTensor F = p.fourier();
    const TensorArray before = p.AIJ;
    const double u[3] = {1.0, 1.0, 0.5}, K = 2.0e5;
    add_anisotropy_fourier(F, p.MS, 2, u[0], u[1], u[2], K);
    EXPECT_TRUE(p.AIJ == before);
    TensorArray withK = p.AIJ;
    const double kp = K / (p.MS(2) * p.MS(2));
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) withK(0, 0, 0, 1 + a + 3 * b, 2) += kp * u[a] * u[b];
    expect_same_field(p, F, withK);
}

// The convolution on slabs of the grid (here on one rank: the two-rank
// split is checked end to end in test_ranks) against the direct sum, for
// both lanes at once: a volume, a single layer, and a periodic tensor.
TEST(FftField, SlabConvolutionEqualsTheDirectSum) {
    start_petsc();  // MPI
    struct Shape {
        int nx, ny, nz;
        Periodicity per;
    };
    for (const Shape& g : {Shape{4, 5, 2, {0, 0, 0}}, Shape{6, 3, 0, {0, 0, 0}}, Shape{3, 2, 1, {1, 0, 1}}}) {
        Problem p(g.nx, g.ny, g.nz, 1);
        if (g.per.px || g.per.py || g.per.pz) {
            p.AIJ = make_tensor(p.nx, p.ny, p.nz, 1);
            tensor_periodic(p.A, p.MS, p.AIJ, Lattice{g.per, p.nx, p.ny, p.nz, p.dx, p.dy, p.dz}, 1);
        }
        ASSERT_TRUE(SlabConvolution::applicable(p.AIJ, 1, p.nx, p.ny, p.nz));
        std::vector<int> cx, cy, cz;
        VecGrid lane[2];
        VecGrid H[2];
        for (int l = 0; l < 2; ++l) {
            p.randomize(7u + 3u * l + p.nx, 0.25);
            lane[l] = p.M;
        }
        // Both lanes read the mask of the last draw; cells in the cell
        // list's order (x outermost).
        for (int i = 0; i <= p.nx; ++i)
            for (int j = 0; j <= p.ny; ++j)
                for (int k = 0; k <= p.nz; ++k)
                    if (p.mask(i, j, k) != 0) cx.push_back(i), cy.push_back(j), cz.push_back(k);
        std::vector<double> src(6 * cx.size()), out(6 * cx.size(), 0.0);
        for (int l = 0; l < 2; ++l) {
            H[l] = make_vec_grid(p.nx, p.ny, p.nz, 0.0);
            calcfields(lane[l], p.MS, p.MP, 0.0, p.mask, p.AIJ, H[l], p.nx, p.ny, p.nz, 1);
            for (std::size_t c = 0; c < cx.size(); ++c)
                for (int k = 0; k < 3; ++k) src[6 * c + 3 * l + k] = lane[l](cx[c], cy[c], cz[c], k + 1);
        }
        SlabConvolution S(MPI_COMM_WORLD, p.AIJ, 1, p.nx, p.ny, p.nz, cx, cy, cz);
        S.convolve(src.data(), out.data());
        double big = 0.0, worst = 0.0;
        for (std::size_t c = 0; c < cx.size(); ++c)
            for (int l = 0; l < 2; ++l)
                for (int k = 0; k < 3; ++k) {
                    const double h = H[l](cx[c], cy[c], cz[c], k + 1);
                    big = std::max(big, std::abs(h));
                    worst = std::max(worst, std::abs(out[6 * c + 3 * l + k] - h));
                }
        EXPECT_LE(worst, 1e-10 * big) << g.nx << " " << g.ny << " " << g.nz;
    }
    // A slice with an antisymmetric part (the DMI) is not for this route.
    Problem q(3, 3, 0, 1);
    q.AIJ(1, 0, 0, 2, 1) += 1e-3;
    EXPECT_FALSE(SlabConvolution::applicable(q.AIJ, 1, q.nx, q.ny, q.nz));
}

TEST(FftField, GridChangedWithoutNewFourierFormIsRefused) {
    Problem p(3, 3, 1, 1);
    FourierTensor F = p.fourier();
    Problem q(4, 3, 1, 1);
    VecGrid H = q.Happ;
    EXPECT_THROW(calcfieldsfft(q.M, q.MS, q.MP, q.s, q.mask, F, H, 4, 3, 1, 1), std::exception);
}

}  // namespace
}  // namespace torix
