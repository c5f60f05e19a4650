// Anisotropy term and tensor files.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "core/error.hpp"
#include "tensor/anisotropy.hpp"
#include "tensor/tensor_files.hpp"
#include "tensor_test_util.hpp"
#include "test_util.hpp"

using namespace torix;
using namespace torix::testing;

namespace {

TensorArray random_tensor(int nx, int ny, int nz, int nmat, unsigned seed) {
    TensorArray T = make_tensor(nx, ny, nz, nmat);
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-10.0, 10.0);
    for (double& v : T) v = u(rng) * std::pow(10.0, static_cast<int>(u(rng)));
    return T;
}

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

// K / MS^2 times u u^T (u as given, not normalised) on the self block of
// the material's slice, nothing else; K is written back scaled, so a
// second call with the same variable adds the scaled value scaled again.
TEST(Anisotropy, AddsUUOnTheSelfBlockOfItsMaterialOnly) {
    const auto MS = table({800.0, 500.0});
    TensorArray T = random_tensor(2, 1, 1, 2, 1);
    const TensorArray before = T;
    double K = 2e5;
    addanisotropy(T, MS, 2, 1, 1, 0.0, 1.0, 1.0, K, 2, 2);
    EXPECT_EQ(K, 2e5 / (500.0 * 500.0));
    addanisotropy(T, MS, 2, 1, 1, 0.0, 1.0, 1.0, K, 2, 2);
    const double added = 0.8 + 0.8 / (500.0 * 500.0);
    for (std::size_t n = 0; n < T.size(); ++n) {
        const bool yz = T.data() + n == &T(0, 0, 0, 5, 2) || T.data() + n == &T(0, 0, 0, 6, 2) ||
                        T.data() + n == &T(0, 0, 0, 8, 2) || T.data() + n == &T(0, 0, 0, 9, 2);
        if (yz)
            EXPECT_NEAR(T.data()[n] - before.data()[n], added, 1e-12 * std::abs(before.data()[n]) + 1e-15) << n;
        else
            EXPECT_EQ(T.data()[n], before.data()[n]) << n;
    }
}

TEST(TensorFiles, RoundTripIsBitForBitInBothForms) {
    TempDir dir;
    TensorArray T = random_tensor(3, 2, 1, 2, 3);
    T(1, 1, 1, 1, 2) = std::numeric_limits<double>::denorm_min();
    T(0, 1, 0, 5, 2) = -0.0;
    T(2, 0, 1, 9, 2) = 1.0 / 3.0;
    for (int form = 1; form <= 2; ++form) {
        const std::string f = (dir / (form == 1 ? "t.txt" : "t.bin")).string();
        TensorArray back = make_tensor(3, 2, 1, 2);
        (form == 1 ? savetensort : savetensor)(T, 3, 2, 1, 2, 2, f, Periodicity{});
        (form == 1 ? loadtensort : loadtensor)(back, 3, 2, 1, 2, 2, f);
        const std::size_t slice = T.size() / 2;  // slice 1 untouched, slice 2 bit for bit
        for (std::size_t n = 0; n < slice; ++n) ASSERT_EQ(back.data()[n], 0.0) << form;
        for (std::size_t n = slice; n < T.size(); ++n) ASSERT_TRUE(same_bits(back.data()[n], T.data()[n])) << form;
    }
}

TEST(TensorFiles, LargerGridLoadsIntoSmallerAndSmallerLeavesTheRest) {
    TempDir dir;
    const auto A = table({1.3e-6}), MS = table({800.0});
    for (int form = 1; form <= 2; ++form) {
        const std::string f = (dir / "big").string();
        const TensorArray big = fast(A, MS, 4, 3, 2, 5e-7, 5e-7, 4e-7);
        (form == 1 ? savetensort : savetensor)(big, 4, 3, 2, 1, 1, f, Periodicity{});
        // Into a smaller grid: every offset of the smaller range is filled
        // with the file's value, which is the tensor of the smaller grid too.
        TensorArray small = make_tensor(1, 2, 0, 1);
        (form == 1 ? loadtensort : loadtensor)(small, 1, 2, 0, 1, 1, f);
        const TensorArray direct = fast(A, MS, 1, 2, 0, 5e-7, 5e-7, 4e-7);
        for (std::size_t n = 0; n < small.size(); ++n) EXPECT_EQ(small.data()[n], direct.data()[n]) << form;
        // A small file into the large grid: the offsets the file lacks keep
        // their values.
        const std::string g = (dir / "small").string();
        (form == 1 ? savetensort : savetensor)(small, 1, 2, 0, 1, 1, g, Periodicity{});
        TensorArray target = make_tensor(4, 3, 2, 1);
        target.fill(7.0);
        (form == 1 ? loadtensort : loadtensor)(target, 4, 3, 2, 1, 1, g);
        for (int i = -4; i <= 5; ++i)
            for (int j = -3; j <= 4; ++j)
                for (int k = -2; k <= 3; ++k) {
                    const bool in_file = i >= -1 && i <= 2 && j >= -2 && j <= 3 && k >= 0 && k <= 1;
                    EXPECT_EQ(target(i, j, k, 5, 1), in_file ? small(i, j, k, 5, 1) : 7.0) << form;
                }
    }
}

TEST(TensorFiles, ShortFileOrNegativeCountIsAnErrorNamingTheFile) {
    TempDir dir;
    TensorArray T = random_tensor(1, 1, 1, 1, 4);
    const std::string f = (dir / "cut.bin").string();
    savetensor(T, 1, 1, 1, 1, 1, f);
    std::string b = dir.read("cut.bin");
    ASSERT_EQ(b.size(), 84u * 65u);
    dir.write("cut.bin", b.substr(0, 84 * 64 + 40));  // last record incomplete
    TensorArray back = make_tensor(1, 1, 1, 1);
    back.fill(5.0);
    EXPECT_TRUE(holds(fatal_message([&] { loadtensor(back, 1, 1, 1, 1, 1, f); }), {"cut.bin"}));
    for (double v : back) ASSERT_EQ(v, 5.0);  // nothing stored

    b[0] = '\xff', b[1] = '\xff', b[2] = '\xff', b[3] = '\xff';  // count -1
    dir.write("neg.bin", b);
    EXPECT_THROW(loadtensor(back, 1, 1, 1, 1, 1, (dir / "neg.bin").string()), FatalError);
    EXPECT_THROW(loadtensor(back, 1, 1, 1, 1, 1, (dir / "missing.bin").string()), FatalError);

    const std::string t = (dir / "cut.txt").string();
    savetensort(T, 1, 1, 1, 1, 1, t);
    std::string text = dir.read("cut.txt");
    text.resize(text.size() / 2);
    dir.write("cut.txt", text);
    EXPECT_TRUE(holds(fatal_message([&] { loadtensort(back, 1, 1, 1, 1, 1, t); }), {"cut.txt"}));
    dir.write("neg.txt", " -3 1 1 1 2 3 4 5 6 7 8 9\n");
    EXPECT_THROW(loadtensort(back, 1, 1, 1, 1, 1, (dir / "neg.txt").string()), FatalError);
}
