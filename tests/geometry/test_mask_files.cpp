#include <gtest/gtest.h>

#include "core/error.hpp"
#include "core/records.hpp"
#include "geometry/mask_files.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {
IntGrid sample_mask(int nx, int ny, int nz) {
    IntGrid m = make_int_grid(nx, ny, nz);
    for_cells(nx, ny, nz, [&](int i, int j, int k) { m(i, j, k) = (i * 7 + j * 3 + k) % 5; });  // materials 0..4
    return m;
}

// A binary mask file of 16-byte records of four integers each.
void write_records(const std::string& f, std::initializer_list<std::array<int, 4>> records) {
    RecordWriter w(f, 16);
    for (const auto& rec : records) {
        for (int v : rec) w.i32(v);
        w.end_record();
    }
    w.commit();
}
}  // namespace

TEST(MaskBinary, RecordOrderIsIOutermostAndRoundTripIsExact) {
    TempDir d;
    const IntGrid m = sample_mask(9, 4, 2);
    const std::string f = (d / "m.bin").string();
    savemasque(m, 9, 4, 2, f);
    const std::string b = d.read("m.bin");
    ASSERT_EQ(b.size(), 16u * (1 + 10 * 5 * 3));
    EXPECT_EQ(le_int(b, 0), 150);
    // Record 3 is the second cell: i = 0, j = 0, k = 1.
    EXPECT_EQ(le_int(b, 32), 0);
    EXPECT_EQ(le_int(b, 36), 0);
    EXPECT_EQ(le_int(b, 40), 1);
    EXPECT_EQ(le_int(b, 44), m(0, 0, 1));
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
    write_records(f, {{3, 2, 0, 0}, {0, 0, 0, 1}});  // header promises 3 cells, file holds 1
    IntGrid m = make_int_grid(2, 0, 0);
    EXPECT_TRUE(holds(fatal_message([&] { loadmasque(m, 2, 0, 0, f); }), {"m.bin"}));
    write_records(f, {{1, 2, 0, 0}, {5, 0, 0, 1}});  // i = 5 outside 0..2
    EXPECT_TRUE(holds(fatal_message([&] { loadmasque(m, 2, 0, 0, f); }), {"record 2"}));
    for (auto v : m) EXPECT_EQ(v, 0);
}

TEST(MaskFiles, NegativeMaterialNumbersAreRefusedInEveryForm) {
    TempDir d;
    const std::string f = (d / "m.bin").string();
    write_records(f, {{2, 1, 0, 0}, {0, 0, 0, 1}, {1, 0, 0, -1}});
    IntGrid m = make_int_grid(1, 0, 0);
    EXPECT_EQ(fatal_message([&] { loadmasque(m, 1, 0, 0, f); }),
              f + ": record 3: negative material number -1 for cell (1, 0, 0)");
    d.write("m.txt", "2 1 0 0\n0 0 0 1\n1 0 0 -3\n");
    EXPECT_TRUE(holds(fatal_message([&] { loadmasquet(m, 1, 0, 0, (d / "m.txt").string()); }),
                      {"m.txt:3: ", "negative material number -3 for cell (1, 0, 0)"}));
    d.write("m3.txt", "2 1 0 0\nplane_k=0\n1 -3\n");
    EXPECT_TRUE(holds(fatal_message([&] { loadmasquet2(m, 1, 0, 0, (d / "m3.txt").string()); }),
                      {"m3.txt:3: ", "negative material number -3 for cell (1, 0, 0)"}));
}

TEST(MaskFiles, HeaderGridBeyondAnyMemoryIsRefusedBeforeAllocation) {
    TempDir d;
    // (2^31 - 1)^2 cells: more than any machine holds, and nx + 1 must not overflow.
    const std::string f = (d / "m.bin").string();
    write_records(f, {{0, 2147483646, 2147483646, 0}});
    int nx = 0, ny = 0, nz = 0;
    const std::string want = ": header gives a grid of 2147483647 x 2147483647 x 1 cells, too large to hold";
    EXPECT_EQ(fatal_message([&] { loadmasqueparam(nx, ny, nz, f); }), f + want);
    d.write("m.txt", "0 2147483646 2147483646 0\n");
    const std::string t = (d / "m.txt").string();
    EXPECT_EQ(fatal_message([&] { loadmasqueparamt(nx, ny, nz, t); }), t + want);
}
