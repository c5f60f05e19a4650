#include <gtest/gtest.h>

#include "core/error.hpp"
#include "core/records.hpp"
#include "geometry/mask_files.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {
IntGrid sample_mask(int nx, int ny, int nz) {
    IntGrid m = make_int_grid(nx, ny, nz);
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) m(i, j, k) = (i * 7 + j * 3 + k) % 5;  // materials 0..4
    return m;
}

std::int32_t le32(const std::string& b, std::size_t at) {
    std::uint32_t u = 0;
    for (int i = 0; i < 4; ++i) u |= static_cast<std::uint32_t>(static_cast<unsigned char>(b[at + i])) << (8 * i);
    return static_cast<std::int32_t>(u);
}
}  // namespace

TEST(MaskBinary, RecordOrderIsIOutermostAndRoundTripIsExact) {
    TempDir d;
    const IntGrid m = sample_mask(9, 4, 2);
    const std::string f = (d / "m.bin").string();
    savemasque(m, 9, 4, 2, f);
    const std::string b = d.read("m.bin");
    ASSERT_EQ(b.size(), 16u * (1 + 10 * 5 * 3));
    EXPECT_EQ(le32(b, 0), 150);
    // Record 3 is the second cell: i = 0, j = 0, k = 1.
    EXPECT_EQ(le32(b, 32), 0);
    EXPECT_EQ(le32(b, 36), 0);
    EXPECT_EQ(le32(b, 40), 1);
    EXPECT_EQ(le32(b, 44), m(0, 0, 1));
    int nx = -9, ny = -9, nz = -9;
    loadmasqueparam(nx, ny, nz, f);
    EXPECT_EQ((std::array<int, 3>{nx, ny, nz}), (std::array<int, 3>{9, 4, 2}));
    IntGrid back = make_int_grid(nx, ny, nz);
    loadmasque(back, nx, ny, nz, f);
    EXPECT_TRUE(back == m);
}

TEST(MaskText, BothTextFormsReadBackExactly) {
    TempDir d;
    const IntGrid m = sample_mask(4, 3, 1);
    savemasquet(m, 4, 3, 1, (d / "m1.txt").string());
    savemasquet2(m, 4, 3, 1, (d / "m3.txt").string());
    for (const char* name : {"m1.txt", "m3.txt"}) {
        int nx, ny, nz;
        loadmasqueparamt(nx, ny, nz, (d / name).string());
        EXPECT_EQ((std::array<int, 3>{nx, ny, nz}), (std::array<int, 3>{4, 3, 1}));
        IntGrid back = make_int_grid(nx, ny, nz);
        if (std::string(name) == "m1.txt")
            loadmasquet(back, nx, ny, nz, (d / name).string());
        else
            loadmasquet2(back, nx, ny, nz, (d / name).string());
        EXPECT_TRUE(back == m) << name;
    }
}

TEST(MaskBinary, ShortFileAndOutOfGridRecordAreClearErrors) {
    TempDir d;
    const std::string f = (d / "m.bin").string();
    {
        RecordWriter w(f, 16);
        for (int v : {3, 2, 0, 0}) w.i32(v);
        w.end_record();
        for (int v : {0, 0, 0, 1}) w.i32(v);
        w.end_record();
        w.commit();  // header promises 3 cells, file holds 1
    }
    IntGrid m = make_int_grid(2, 0, 0);
    std::string e = fatal_message([&] { loadmasque(m, 2, 0, 0, f); });
    EXPECT_TRUE(holds(e, {"m.bin"}));
    {
        RecordWriter w(f, 16);
        for (int v : {1, 2, 0, 0}) w.i32(v);
        w.end_record();
        for (int v : {5, 0, 0, 1}) w.i32(v);  // i = 5 outside 0..2
        w.end_record();
        w.commit();
    }
    e = fatal_message([&] { loadmasque(m, 2, 0, 0, f); });
    EXPECT_TRUE(holds(e, {"record 2"}));
    for (auto v : m) EXPECT_EQ(v, 0);
}

TEST(MaskText, BadItemNamesFileAndLine) {
    TempDir d;
    d.write("m.txt", "2 1 0 0\n0 0 0 1\n1 0 0 x\n");
    IntGrid m = make_int_grid(1, 0, 0);
    const std::string w = fatal_message([&] { loadmasquet(m, 1, 0, 0, (d / "m.txt").string()); });
    EXPECT_TRUE(holds(w, {"m.txt:3", "\"x\""}));
}

TEST(MaskFiles, NegativeMaterialNumbersAreRefusedInEveryForm) {
    TempDir d;
    const std::string f = (d / "m.bin").string();
    {
        RecordWriter w(f, 16);
        for (const auto& rec : {std::array<int, 4>{2, 1, 0, 0}, {0, 0, 0, 1}, {1, 0, 0, -1}}) {
            for (int v : rec) w.i32(v);
            w.end_record();
        }
        w.commit();
    }
    IntGrid m = make_int_grid(1, 0, 0);
    EXPECT_EQ(fatal_message([&] { loadmasque(m, 1, 0, 0, f); }),
              f + ": record 3: negative material number -1 for cell (1, 0, 0)");
    d.write("m.txt", "2 1 0 0\n0 0 0 1\n1 0 0 -3\n");
    std::string e = fatal_message([&] { loadmasquet(m, 1, 0, 0, (d / "m.txt").string()); });
    EXPECT_TRUE(holds(e, {"m.txt:3: ", "negative material number -3 for cell (1, 0, 0)"}));
    d.write("m3.txt", "2 1 0 0\nplane_k=0\n1 -3\n");
    e = fatal_message([&] { loadmasquet2(m, 1, 0, 0, (d / "m3.txt").string()); });
    EXPECT_TRUE(holds(e, {"m3.txt:3: ", "negative material number -3 for cell (1, 0, 0)"}));
}

TEST(MaskFiles, HeaderGridBeyondAnyMemoryIsRefusedBeforeAllocation) {
    TempDir d;
    // (2^31 - 1)^2 cells: more than any machine holds, and nx + 1 must not overflow.
    const std::string f = (d / "m.bin").string();
    {
        RecordWriter w(f, 16);
        for (int v : {0, 2147483646, 2147483646, 0}) w.i32(v);
        w.end_record();
        w.commit();
    }
    int nx = 0, ny = 0, nz = 0;
    const std::string want = ": header gives a grid of 2147483647 x 2147483647 x 1 cells, too large to hold";
    EXPECT_EQ(fatal_message([&] { loadmasqueparam(nx, ny, nz, f); }), f + want);
    d.write("m.txt", "0 2147483646 2147483646 0\n");
    const std::string t = (d / "m.txt").string();
    EXPECT_EQ(fatal_message([&] { loadmasqueparamt(nx, ny, nz, t); }), t + want);
}
