#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/error.hpp"
#include "output/vrml.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

struct Arrow {
    double p[3];
    double d[3];
    int rgb[3];
};

// Parses the arrow lines of a scene; fails the test on a malformed one.
std::vector<Arrow> arrows_of(const std::vector<std::string>& lines) {
    std::vector<Arrow> out;
    for (const auto& l : lines) {
        if (l.rfind("Vector {", 0) != 0) continue;
        Arrow a{};
        char close = 0;
        const int n = std::sscanf(l.c_str(), "Vector { Position %lf %lf %lf Direction %lf %lf %lf Color %d %d %d %c",
                                  &a.p[0], &a.p[1], &a.p[2], &a.d[0], &a.d[1], &a.d[2], &a.rgb[0], &a.rgb[1],
                                  &a.rgb[2], &close);
        EXPECT_EQ(n, 10) << l;
        EXPECT_EQ(close, '}') << l;
        out.push_back(a);
    }
    return out;
}

struct Camera {
    bool has_position = false;
    std::array<double, 3> pos{0, 0, 0};
    double fov = 0.0;
    std::string fov_text;
};

Camera camera_of(const std::vector<std::string>& lines) {
    Camera c;
    std::size_t i = 91;
    if (lines.size() > i && lines[i].rfind("position ", 0) == 0) {
        c.has_position = true;
        EXPECT_EQ(std::sscanf(lines[i].c_str(), "position %lf %lf %lf", &c.pos[0], &c.pos[1], &c.pos[2]), 3);
        ++i;
    }
    EXPECT_GT(lines.size(), i + 1);
    EXPECT_EQ(lines[i].rfind("fieldOfView ", 0), 0u) << lines[i];
    c.fov_text = lines[i].substr(12);
    c.fov = std::strtod(c.fov_text.c_str(), nullptr);
    EXPECT_EQ(lines[i + 1], " }");
    return c;
}

}  // namespace

TEST(WriteVrml, HeadIsTheFixedTextAndCameraFollowsModeOne) {
    TempDir dir;
    IntGrid mask = make_int_grid(4, 2, 1);
    VecGrid v = make_vec_grid(4, 2, 1);
    mask(1, 1, 0) = 1;
    v(1, 1, 0, 3) = 800.0;
    writevrml((dir / "a.wrl").string(), 4, 2, 1, 1, mask, v, table({800.0}));
    const auto lines = lines_of(dir.read("a.wrl"));
    const auto head = lines_of(read_file(std::string(TORIX_CASES) + "/../output/vrml_head.txt"));
    ASSERT_EQ(head.size(), 91u);
    ASSERT_GE(lines.size(), 95u);
    for (std::size_t i = 0; i < head.size(); ++i) EXPECT_EQ(lines[i], head[i]) << "line " << i + 1;
    // S = max(max(X, 0), Y) = 4, L = max(Z, S) = 4.
    const Camera c = camera_of(lines);
    ASSERT_TRUE(c.has_position);
    EXPECT_EQ(c.pos, (std::array<double, 3>{2.0, 1.0, 12.0}));
    EXPECT_NEAR(c.fov, 1.2 * std::atan(0.5), 1e-7);
    const auto a = arrows_of(lines);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(lines.size(), 95u);  // head, camera, closing brace, one arrow
}

TEST(WriteVrml, ColoursFollowTheMaterialBitsAndHighMaterialsAreBlack) {
    TempDir dir;
    // One cell per material 1..9 along x.
    IntGrid mask = make_int_grid(8, 0, 0);
    VecGrid v = make_vec_grid(8, 0, 0);
    Array<double, 1> ms({Range{1, 9}});
    for (int q = 1; q <= 9; ++q) {
        mask(q - 1, 0, 0) = q;
        ms(q) = 100.0 * q;
        v(q - 1, 0, 0, 2) = 50.0 * q;  // half of MS(q) along y
    }
    writevrml((dir / "c.wrl").string(), 8, 0, 0, 1, mask, v, ms);
    const auto a = arrows_of(lines_of(dir.read("c.wrl")));
    ASSERT_EQ(a.size(), 9u);
    const int expect[9][3] = {{0, 0, 0}, {0, 0, 1}, {0, 1, 0}, {0, 1, 1}, {1, 0, 0},
                              {1, 0, 1}, {1, 1, 0}, {0, 0, 0}, {0, 0, 0}};
    for (int q = 1; q <= 9; ++q) {
        const Arrow& r = a[static_cast<std::size_t>(q - 1)];
        for (int c = 0; c < 3; ++c) EXPECT_EQ(r.rgb[c], expect[q - 1][c]) << "material " << q;
        EXPECT_DOUBLE_EQ(r.p[0], q - 1.0);
        // Divided by MS of the cell's own material, 9 included.
        EXPECT_NEAR(r.d[1], 0.5, 1e-6) << "material " << q;
        EXPECT_NEAR(r.d[0], 0.0, 1e-6);
    }
}

TEST(WriteVrml, LayersSideBySideAreShiftedByTenPlusOneLayerWidth) {
    TempDir dir;
    // X = 4, Y = 2, Z = 3: layer k starts at y = 2k + 10.
    IntGrid mask = make_int_grid(4, 2, 3);
    VecGrid v = make_vec_grid(4, 2, 3);
    mask(3, 1, 2) = 1;
    v(3, 1, 2, 3) = -2.0;
    writevrml((dir / "m.wrl").string(), 4, 2, 3, 2, mask, v, table({2.0}));
    const auto lines = lines_of(dir.read("m.wrl"));
    const auto a = arrows_of(lines);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_DOUBLE_EQ(a[0].p[0], 3.0);
    EXPECT_DOUBLE_EQ(a[0].p[1], 1.0 + 2.0 * 2 + 10.0);
    EXPECT_DOUBLE_EQ(a[0].p[2], 2.0);
    EXPECT_NEAR(a[0].d[2], -1.0, 1e-9);
    // S = max(2 + 6, 4) = 8, L = max(3, 8) = 8.
    const Camera c = camera_of(lines);
    EXPECT_EQ(c.pos, (std::array<double, 3>{2.0, 4.0, 24.0}));
    EXPECT_NEAR(c.fov, 1.2 * std::atan(0.5), 1e-7);
}

TEST(WriteVrml, EmptyMaskOtherLayoutModeAndUnknownMaterial) {
    TempDir dir;
    // Empty mask: head and viewpoint only.
    writevrml((dir / "e.wrl").string(), 2, 2, 0, 1, make_int_grid(2, 2, 0), make_vec_grid(2, 2, 0, 1.0), table({1.0}));
    const auto empty = lines_of(dir.read("e.wrl"));
    EXPECT_EQ(empty.size(), 94u);
    EXPECT_TRUE(arrows_of(empty).empty());
    EXPECT_EQ(empty.back(), " }");
    // A layout mode other than 1 and 2: no position line, field of view 1.2 atan(0/0).
    IntGrid mask = make_int_grid(1, 1, 0, 1);
    VecGrid v = make_vec_grid(1, 1, 0, 1.0);
    writevrml((dir / "o.wrl").string(), 1, 1, 0, 3, mask, v, table({1.0}));
    const auto lines = lines_of(dir.read("o.wrl"));
    const Camera c = camera_of(lines);
    EXPECT_FALSE(c.has_position);
    EXPECT_EQ(c.fov_text, "NaN");
    EXPECT_EQ(arrows_of(lines).size(), 4u);
    // A material beyond the MS table is fatal and leaves no file.
    mask.fill(3);
    EXPECT_THROW(writevrml((dir / "x.wrl").string(), 1, 1, 0, 1, mask, v, table({1.0})), FatalError);
    EXPECT_FALSE(dir.exists("x.wrl"));
}

// The reduced print: a scene parsed back.
TEST(PrintRedM, UnitBlocksGiveOneUnitArrowPerMagneticCell) {
    TempDir dir;
    const int nx = 3, ny = 2, nz = 1;
    IntGrid mask = make_int_grid(nx, ny, nz);
    VecGrid F = make_vec_grid(nx, ny, nz);
    int kept = 0;
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        if ((i + 2 * j + k) % 3 == 0) return;
        mask(i, j, k) = 1 + (i + j) % 4;  // materials do not matter: all black
        F(i, j, k, 1) = 3.0 * (i + 1), F(i, j, k, 2) = -4.0 * (j + 1), F(i, j, k, 3) = 0.5 * k;
        ++kept;
    });
    print_red_m(nx, ny, nz, mask, F, 0, 1, 1, 1, 1, (dir / "r.wrl").string());
    const auto a = arrows_of(lines_of(dir.read("r.wrl")));
    ASSERT_EQ(static_cast<int>(a.size()), kept);
    std::size_t n = 0;
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                if (mask(i, j, k) == 0) continue;
                const Arrow& r = a[n++];
                EXPECT_DOUBLE_EQ(r.p[0], i);
                EXPECT_DOUBLE_EQ(r.p[1], j);
                EXPECT_DOUBLE_EQ(r.p[2], k);
                const double len = std::hypot(F(i, j, k, 1), F(i, j, k, 2), F(i, j, k, 3));
                EXPECT_NEAR(std::hypot(r.d[0], r.d[1], r.d[2]), 1.0, 3e-6);
                for (int c = 0; c < 3; ++c) EXPECT_NEAR(r.d[c], F(i, j, k, c + 1) / len, 1e-6);
                for (int c = 0; c < 3; ++c) EXPECT_EQ(r.rgb[c], 0);
            }
}

TEST(PrintRedM, TenCellsInBlocksOfFourGiveThreeBlocksOnFourPlanes) {
    TempDir dir;
    // X = 10, fx = 4: blocks hold cells 0..3, 4..7, 8..10; the reduced grid
    // has largest index nint(2.5 + 0.49) = 3, one plane more than blocks.
    IntGrid mask = make_int_grid(10, 0, 0, 1);
    VecGrid F = make_vec_grid(10, 0, 0);
    for (int i = 0; i <= 10; ++i) {
        F(i, 0, 0, 1) = 1.0;
        F(i, 0, 0, 2) = i >= 8 ? 1.0 : 0.0;  // only the last block tilts
    }
    mask(9, 0, 0) = 0;  // an empty cell inside the last block is not counted
    F(9, 0, 0, 2) = -100.0;
    print_red_m(10, 0, 0, mask, F, 0, 1, 4, 1, 1, (dir / "b.wrl").string());
    const auto lines = lines_of(dir.read("b.wrl"));
    const auto a = arrows_of(lines);
    ASSERT_EQ(a.size(), 3u);
    for (int b = 0; b < 3; ++b) EXPECT_DOUBLE_EQ(a[static_cast<std::size_t>(b)].p[0], b);
    EXPECT_NEAR(a[0].d[0], 1.0, 1e-6);
    EXPECT_NEAR(a[2].d[0], std::sqrt(0.5), 1e-6);
    EXPECT_NEAR(a[2].d[1], std::sqrt(0.5), 1e-6);
}

TEST(PrintRedM, ExactQuotientKeepsItsSizeAndSmallRemaindersDoNotRoundUp) {
    TempDir dir;
    struct Case {
        int X, f, R;
    } cases[] = {{8, 4, 2}, {9, 4, 3}, {10, 4, 3}, {401, 400, 1}, {405, 400, 2}, {0, 3, 0}};
    for (const auto& cs : cases) {
        IntGrid mask = make_int_grid(cs.X, 0, 0, 1);
        VecGrid F = make_vec_grid(cs.X, 0, 0, 1.0);
        print_red_m(cs.X, 0, 0, mask, F, 0, 1, cs.f, 1, 1, (dir / "q.wrl").string());
        const auto lines = lines_of(dir.read("q.wrl"));
        const Camera c = camera_of(lines);
        EXPECT_DOUBLE_EQ(c.pos[0], 0.5 * cs.R) << "X = " << cs.X << ", f = " << cs.f;
        EXPECT_EQ(static_cast<int>(arrows_of(lines).size()), cs.X / cs.f + 1);
    }
    // A block size below one is fatal.
    IntGrid mask = make_int_grid(1, 1, 1, 1);
    EXPECT_THROW(print_red_m(1, 1, 1, mask, make_vec_grid(1, 1, 1, 1.0), 0, 1, 0, 1, 1, (dir / "f.wrl").string()),
                 FatalError);
}

TEST(PrintRedM, LayersAndZeroAverageBlocks) {
    TempDir dir;
    // 2 x 2 x 4 grid, blocks 2 x 2 x 2, layout mode 2: two reduced layers.
    IntGrid mask = make_int_grid(1, 1, 3, 1);
    VecGrid F = make_vec_grid(1, 1, 3);
    for_cells(1, 1, 3, [&](int i, int j, int k) { F(i, j, k, 3) = k < 2 ? 5.0 : (i == 0 ? 1.0 : -1.0); });
    print_red_m(1, 1, 3, mask, F, 0, 2, 2, 2, 2, (dir / "z.wrl").string());
    const auto a = arrows_of(lines_of(dir.read("z.wrl")));
    // RX = RY = nint(0.5 + 0.49) = 1, RZ = nint(1.5 + 0.49) = 2.
    ASSERT_EQ(a.size(), 2u);
    EXPECT_DOUBLE_EQ(a[0].p[1], 10.0);
    EXPECT_NEAR(a[0].d[2], 1.0, 1e-9);
    // Second block: the vectors cancel; the block is kept with a zero arrow.
    EXPECT_DOUBLE_EQ(a[1].p[1], 1.0 * 1 + 10.0);
    EXPECT_DOUBLE_EQ(a[1].p[2], 1.0);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(a[1].d[c], 0.0);
}


