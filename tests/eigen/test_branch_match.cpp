// Branch following by overlap: two branches that cross keep their names.
#include <gtest/gtest.h>

#include <cmath>

#include "eigen/branch_match.hpp"

namespace torix {
namespace {

// Three modes of a four-cell chain: a uniform one, a one-node one and a
// localised one; the "new" solve has them in another order, slightly
// perturbed, with left vectors equal to the right ones (a normal operator).
Array<cplx, 3> modes(const std::vector<std::array<double, 4>>& profiles) {
    Array<cplx, 3> a({Range{1, 4}, Range{1, 2}, Range{1, static_cast<int>(profiles.size())}}, cplx{});
    for (int p = 1; p <= static_cast<int>(profiles.size()); ++p)
        for (int n = 1; n <= 4; ++n) {
            a(n, 1, p) = profiles[p - 1][n - 1];
            a(n, 2, p) = cplx(0.0, profiles[p - 1][n - 1]);
        }
    return a;
}

TEST(BranchMatch, FollowsProfilesThroughACrossingAndDropsStrangers) {
    const auto old_r = modes({{1, 1, 1, 1}, {1, 1, -1, -1}, {0, 0, 0, 1}});
    // New order: one-node (perturbed), uniform, a mode unlike any old one.
    const auto new_r = modes({{1, 1.1, -1, -0.9}, {1, 1, 1, 1.05}, {1, -1, 1, -1}});
    const auto w = branch_weights(old_r, 3, new_r, new_r, 3);
    EXPECT_NEAR(w[1 * 3 + 0], 1.0, 0.05);   // new 2 carries old 1
    EXPECT_LT(w[2 * 3 + 0], 1e-12);         // the alternating mode carries none of the uniform one
    const auto m = match_branches(w, 3, 3, 0.6);
    EXPECT_EQ(m[0], 2);
    EXPECT_EQ(m[1], 1);
    EXPECT_EQ(m[2], 0);  // old 3 (localised) overlaps it only by 0.5: a new branch
    // Without a threshold every new mode is paired.
    const auto all = match_branches(w, 3, 3, 0.0);
    EXPECT_EQ(all[2], 3);
}

TEST(BranchMatch, WeightIsTheShareOfTheOldVectorInItsOwnNorm) {
    // Solvers scale their vectors freely: here old mode 1 = 2u + 0.4v, old
    // mode 2 = v, new mode 1 = 3u, new mode 2 = v, with u uniform and v
    // one-node (orthogonal, |u| = |v|).  By hand from the definition:
    //   c_11 = (3u)^H (2u + 0.4v) / |3u|^2 = 2/3,  w_11 = (2/3) 3|u| / |2u + 0.4v| = 2 / sqrt(4.16),
    //   c_21 = 0.4,  w_21 = 0.4 / sqrt(4.16),  w_12 = 0,  w_22 = 1.
    const auto old_r = modes({{2.4, 2.4, 1.6, 1.6}, {1, 1, -1, -1}});
    const auto new_r = modes({{3, 3, 3, 3}, {1, 1, -1, -1}});
    const auto w = branch_weights(old_r, 2, new_r, new_r, 2);
    EXPECT_NEAR(w[0], 2.0 / std::sqrt(4.16), 1e-12);
    EXPECT_NEAR(w[2], 0.4 / std::sqrt(4.16), 1e-12);
    EXPECT_NEAR(w[1], 0.0, 1e-12);
    EXPECT_NEAR(w[3], 1.0, 1e-12);
    // Both continue their branch: the scale of the vectors does not matter.
    const auto m = match_branches(w, 2, 2, 0.6);
    EXPECT_EQ(m[0], 1);
    EXPECT_EQ(m[1], 2);
}

}  // namespace
}  // namespace torix
