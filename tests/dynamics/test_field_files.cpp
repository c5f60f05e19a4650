// Magnetization and field files, and the field commands that use them.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "core/error.hpp"
#include "dynamics/field_files.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

struct Grid {
    int nx, ny, nz;
    IntGrid mask;
    VecGrid M;
};

// Mask with holes and awkward values: negative, tiny, huge, and reals that
// need all 17 digits.
Grid sample(int nx, int ny, int nz, unsigned seed) {
    Grid g{nx, ny, nz, make_int_grid(nx, ny, nz), make_vec_grid(nx, ny, nz)};
    std::mt19937_64 r(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (std::int32_t& q : g.mask) q = (r() % 3 == 0) ? 0 : 1 + static_cast<int>(r() % 2);
    for (double& v : g.M) v = 1000.0 * u(r);
    g.M(0, 0, 0, 1) = -1.5e-300;
    g.M(0, 0, 0, 2) = 2.5e+250;
    g.M(0, 0, 0, 3) = -0.0;
    g.mask(0, 0, 0) = 1;
    return g;
}

TEST(FieldFiles, BinaryLayoutExactRoundTripAndEmptyMask) {
    TempDir dir;
    const Grid g = sample(3, 2, 1, 7);
    const std::string f = (dir / "m.bin").string();
    savem(g.M, g.mask, g.nx, g.ny, g.nz, f);
    const std::string bytes = dir.read("m.bin");
    int n = 0;
    for (std::int32_t v : g.mask) n += v != 0;
    ASSERT_EQ(bytes.size(), 36u * (n + 1));
    EXPECT_EQ(le_int(bytes, 0), n);
    for (int b = 4; b < 36; ++b) EXPECT_EQ(bytes[b], 0);
    // Records follow i outermost, k innermost.
    std::size_t rec = 1;
    for (int i = 0; i <= g.nx; ++i)
        for (int j = 0; j <= g.ny; ++j)
            for (int k = 0; k <= g.nz; ++k) {
                if (g.mask(i, j, k) == 0) continue;
                const std::size_t at = 36 * rec++;
                EXPECT_EQ(le_int(bytes, at), i);
                EXPECT_EQ(le_int(bytes, at + 4), j);
                EXPECT_EQ(le_int(bytes, at + 8), k);
                for (int a = 1; a <= 3; ++a)
                    EXPECT_EQ(std::bit_cast<std::uint64_t>(le_real(bytes, at + 4 + 8 * a)),
                              std::bit_cast<std::uint64_t>(g.M(i, j, k, a)));
            }
    VecGrid back = make_vec_grid(g.nx, g.ny, g.nz, 99.0);
    loadm(back, g.mask, g.nx, g.ny, g.nz, f);
    for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a) {
            const double want = g.mask(i, j, k) ? g.M(i, j, k, a) : 0.0;
            EXPECT_EQ(std::bit_cast<std::uint64_t>(back(i, j, k, a)), std::bit_cast<std::uint64_t>(want));
        }
    });
    // An empty mask writes a zero count (header only) in both forms; loading it clears M.
    const IntGrid none = make_int_grid(2, 2, 0);
    VecGrid M = make_vec_grid(2, 2, 0, 4.0);
    savem(M, none, 2, 2, 0, (dir / "e.bin").string());
    savemt(M, none, 2, 2, 0, (dir / "e.txt").string());
    EXPECT_EQ(dir.read("e.bin"), std::string(36, '\0'));
    EXPECT_EQ(dir.read("e.txt"), "        0\n");
    loadm(M, none, 2, 2, 0, (dir / "e.bin").string());
    for (double v : M) EXPECT_EQ(v, 0.0);
}

TEST(FieldFiles, TextLayoutRoundTripAndStability) {
    TempDir dir;
    const Grid g = sample(2, 3, 1, 11);
    const std::string f = (dir / "m.txt").string();
    savemt(g.M, g.mask, g.nx, g.ny, g.nz, f);
    const std::string text = dir.read("m.txt");
    int n = 0;
    for (std::int32_t v : g.mask) n += v != 0;
    char head[16];
    std::snprintf(head, sizeof head, "%9d\n", n);
    ASSERT_EQ(text.substr(0, 10), head);
    // First cell: 3 x 6 characters of indices, 3 x 20 of reals in the widths the values need.
    EXPECT_EQ(text.substr(10, 78),
              "     0     0     0 -1.50000000000E-300 2.500000000000E+250 -0.000000000000E+00");

    VecGrid back = make_vec_grid(g.nx, g.ny, g.nz, 5.0);
    loadmt(back, g.mask, g.nx, g.ny, g.nz, f);
    for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a) {
            const double want = g.mask(i, j, k) ? g.M(i, j, k, a) : 0.0;  // empty cells exactly 0
            EXPECT_NEAR(back(i, j, k, a), want, 5e-13 * std::abs(want));
        }
    });
    // Writing what was read gives the same text again.
    savemt(back, g.mask, g.nx, g.ny, g.nz, (dir / "again.txt").string());
    EXPECT_EQ(dir.read("again.txt"), text);
}

TEST(FieldFiles, LargerGridLoadsIntoSmallerKeepingCellsThatFit) {
    TempDir dir;
    const Grid big = sample(4, 3, 2, 3);
    for (int format = 1; format <= 2; ++format) {
        const std::string f = (dir / (format == 1 ? "big.txt" : "big.bin")).string();
        (format == 1 ? savemt : savem)(big.M, big.mask, big.nx, big.ny, big.nz, f);
        // The small grid's own mask is empty: loading does not consult it.
        IntGrid small_mask = make_int_grid(2, 1, 0);
        VecGrid small = make_vec_grid(2, 1, 0, 3.0);
        (format == 1 ? loadmt : loadm)(small, small_mask, 2, 1, 0, f);
        for_cells(2, 1, 0, [&](int i, int j, int) {
            for (int a = 1; a <= 3; ++a) {
                const double want = big.mask(i, j, 0) ? big.M(i, j, 0, a) : 0.0;
                EXPECT_NEAR(small(i, j, 0, a), want, 5e-13 * std::abs(want)) << "format " << format;
            }
        });
    }
}

std::string error_of(void (*load)(VecGrid&, const IntGrid&, int, int, int, const std::string&),
                     const std::string& file) {
    IntGrid mask = make_int_grid(2, 2, 2, 1);
    VecGrid M = make_vec_grid(2, 2, 2);
    return fatal_message([&] { load(M, mask, 2, 2, 2, file); });
}

TEST(FieldFiles, TruncatedOrOvercountedFilesAreClearErrors) {
    TempDir dir;
    const Grid g = sample(2, 2, 2, 5);
    savem(g.M, g.mask, 2, 2, 2, (dir / "full.bin").string());
    savemt(g.M, g.mask, 2, 2, 2, (dir / "full.txt").string());
    const std::string bin = dir.read("full.bin"), txt = dir.read("full.txt");

    // Binary cut in the middle of the last record.
    dir.write("cut.bin", bin.substr(0, bin.size() - 10));
    EXPECT_TRUE(holds(error_of(loadm, (dir / "cut.bin").string()), {"cut.bin", "records"}));
    // Binary whose count claims more cells than the file holds.
    std::string over = bin;
    over[0] = static_cast<char>(over[0] + 5);
    dir.write("over.bin", over);
    EXPECT_TRUE(holds(error_of(loadm, (dir / "over.bin").string()), {"over.bin"}));
    // Shorter than the header record.
    dir.write("tiny.bin", "abc");
    EXPECT_TRUE(holds(error_of(loadm, (dir / "tiny.bin").string()), {"tiny.bin"}));

    // Text file missing its last line: the error names file and line.
    const std::size_t last = txt.rfind('\n', txt.size() - 2);
    dir.write("cut.txt", txt.substr(0, last + 1));
    const std::size_t lines = count_of(txt, "\n");
    EXPECT_TRUE(holds(error_of(loadmt, (dir / "cut.txt").string()), {"cut.txt:" + std::to_string(lines - 1)}));
    // A word where a number belongs.
    dir.write("bad.txt", "        1\n     0     0     0  1.0E+00  abc  2.0E+00\n");
    EXPECT_TRUE(holds(error_of(loadmt, (dir / "bad.txt").string()), {"bad.txt:2"}));
    // Missing file.
    EXPECT_TRUE(holds(error_of(loadm, (dir / "none.bin").string()), {"none.bin"}));
}

}  // namespace
}  // namespace torix
