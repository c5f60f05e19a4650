// Eigen files: binary layout byte by byte, text form, reading back, the
// numbering rebuilt from the cell records, corrupt files.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include "core/error.hpp"
#include "eigen/eigen_files.hpp"
#include "geometry/read_number.hpp"
#include "test_util.hpp"

namespace torix::test {
namespace {

std::int32_t key_at(const std::string& b, std::size_t rec) { return le_int(b, 36 * (rec - 1)); }
double real_at(const std::string& b, std::size_t rec, int slot) { return le_real(b, 36 * (rec - 1) + 4 + 8 * slot); }

// 2 x 2 x 1 grid: (0,0,0) material 1, (1,0,0) empty, (0,1,0) material -1
// (text only), (1,1,0) material 2; numbers 1 and 2 (the negative cell
// shares number 1).
struct Small {
    IntGrid mask = make_int_grid(1, 1, 0, 0), num = make_int_grid(1, 1, 0, 0);
    Array<double, 2> W{{Range{1, 2}, Range{1, 2}}, 0.0};
    Array<cplx, 3> modes{{Range{1, 2}, Range{1, 2}, Range{1, 2}}, cplx{}};
    Small() {
        mask(0, 0, 0) = 1, mask(0, 1, 0) = -1, mask(1, 1, 0) = 2;
        num(0, 0, 0) = 1, num(0, 1, 0) = 1, num(1, 1, 0) = 2;
        W(1, 1) = 100.5, W(1, 2) = 0.25, W(2, 1) = 200.0, W(2, 2) = -1.0;
        for (int p = 1; p <= 2; ++p)
            for (int n = 1; n <= 2; ++n)
                for (int c = 1; c <= 2; ++c) modes(n, c, p) = cplx(p + 0.1 * n + 0.01 * c, -(p * 10.0 + n + 0.5 * c));
    }
};

// Written, then checked record by record and read back: the modes, and the
// numbering rebuilt from the cell records.
TEST(EigenFiles, BinaryLayoutRecordByRecordAndReadBack) {
    TempDir dir;
    Small s;
    const std::string f = (dir / "eig.dat").string();
    savemodes(2, 2, s.num, s.mask, 1, 1, 0, f, s.W, s.modes);
    const std::string b = dir.read("eig.dat");
    // Header (N; mode count), cell records x outermost for mask > 0 only:
    // (0,0,0) then (1,1,0), each key x and reals y, z, number, 0; separator;
    // per mode a frequency record then one record per number.
    struct Rec {
        int key;
        double r[4];
    };
    std::vector<Rec> want = {{2, {2, 0, 0, 0}}, {0, {0, 0, 1, 0}}, {1, {1, 0, 2, 0}}, {-1, {-1, 0, -1, 0}}};
    for (int p = 1; p <= 2; ++p) {
        want.push_back({p, {s.W(p, 1), s.W(p, 2), s.W(p, 1), s.W(p, 2)}});
        for (int n = 1; n <= 2; ++n)
            want.push_back({n, {s.modes(n, 1, p).real(), s.modes(n, 1, p).imag(), s.modes(n, 2, p).real(),
                                s.modes(n, 2, p).imag()}});
    }
    ASSERT_EQ(b.size(), 36u * want.size());
    for (std::size_t r = 1; r <= want.size(); ++r) {
        EXPECT_EQ(key_at(b, r), want[r - 1].key) << "record " << r;
        for (int k = 0; k < 4; ++k) EXPECT_EQ(real_at(b, r, k), want[r - 1].r[k]) << "record " << r << " slot " << k;
    }
    int N = 0, nm = 0;
    Array<double, 2> W;
    Array<cplx, 3> modes;
    loadmodes(f, N, nm, W, modes);
    EXPECT_EQ(N, 2);
    EXPECT_EQ(nm, 2);
    EXPECT_TRUE(W == s.W);
    EXPECT_TRUE(modes == s.modes);
    IntGrid num;
    int N2 = 0;
    EXPECT_EQ(read_number(f, num, 1, 1, 0, N2), 4);
    EXPECT_EQ(N2, 2);
    const int want_num[2][2] = {{1, 0}, {0, 2}};  // the negative mask cell is not in the binary file
    for (int j = 0; j <= 1; ++j)
        for (int i = 0; i <= 1; ++i) EXPECT_EQ(num(i, j, 0), want_num[j][i]) << i << j;
    // Zero modes: header, cells and separator only.
    savemodes(0, 2, s.num, s.mask, 1, 1, 0, f, s.W, s.modes);
    EXPECT_EQ(dir.read("eig.dat").size(), 36u * 4);
    // No magnetic cell: header, separator, mode headers.
    savemodes(2, 0, s.num, make_int_grid(1, 1, 0, 0), 1, 1, 0, f, s.W, s.modes);
    const std::string e = dir.read("eig.dat");
    ASSERT_EQ(e.size(), 36u * 4);
    EXPECT_EQ(key_at(e, 2), -1);
    EXPECT_EQ(key_at(e, 3), 1);
    EXPECT_EQ(key_at(e, 4), 2);
}
TEST(EigenFiles, TextFormIncludesEveryNonzeroMaskCell) {
    TempDir dir;
    Small s;
    const std::string f = (dir / "modes.txt").string();
    savemodest(1, s.num, s.mask, 1, 1, 0, f, s.W, s.modes);
    const std::string want = " (100.5,0.25)\n"
                             "     0     0     0   1.110000E+00  -1.150000E+01   1.120000E+00  -1.200000E+01\n"
                             "     0     1     0   1.110000E+00  -1.150000E+01   1.120000E+00  -1.200000E+01\n"
                             "     1     1     0   1.210000E+00  -1.250000E+01   1.220000E+00  -1.300000E+01\n";
    EXPECT_EQ(dir.read("modes.txt"), want);
    savemodest(0, s.num, s.mask, 1, 1, 0, f, s.W, s.modes);
    EXPECT_EQ(dir.read("modes.txt"), "");
}

TEST(EigenFiles, WavevectorBesideTheModes) {
    // Written at k != 0 and read back to the bit; a solve at k = 0 removes
    // it (no file reads as k = 0); a damaged file names itself and its line.
    TempDir dir;
    const std::string f = (dir / "eigk.txt").string();
    const std::array<double, 3> k{0.1 + 0.2, -3.0e5 / 7.0, 0.0};
    save_mode_wavevector(f, k);
    EXPECT_EQ(load_mode_wavevector(f), k);
    save_mode_wavevector(f, {0.0, 0.0, 0.0});
    EXPECT_FALSE(std::filesystem::exists(f));
    EXPECT_EQ(load_mode_wavevector(f), (std::array<double, 3>{0.0, 0.0, 0.0}));
    std::ofstream(f) << "# comment\n1.0 x 2.0\n";
    EXPECT_EQ(fatal_message([&] { load_mode_wavevector(f); }),
              f + ": line 2: expected three reals kx ky kz (rad/cm), found \"1.0 x 2.0\"");
}

TEST(EigenFiles, CorruptFilesNameFileAndRecord) {
    TempDir dir;
    Small s;
    const std::string f = (dir / "eig.dat").string();
    savemodes(2, 2, s.num, s.mask, 1, 1, 0, f, s.W, s.modes);
    const std::string good = dir.read("eig.dat");
    int N = 0, nm = 0;
    Array<double, 2> W;
    Array<cplx, 3> modes;
    IntGrid num;
    // Truncated inside the last mode.
    dir.write("eig.dat", good.substr(0, good.size() - 40));
    EXPECT_TRUE(holds(fatal_message([&] { loadmodes(f, N, nm, W, modes); }), {"eig.dat", "10 records"}));
    // A wrong key inside a mode.
    std::string bad = good;
    bad[36 * 6] = 7;  // record 7: cell 2 of mode 1
    dir.write("eig.dat", bad);
    EXPECT_TRUE(holds(fatal_message([&] { loadmodes(f, N, nm, W, modes); }), {"record 7"}));
    // A cell outside the grid.
    EXPECT_TRUE(holds(fatal_message([&] { read_number(f, num, 0, 0, 0, N); }), {"record 3", "outside the grid"}));
    // No separator.
    dir.write("eig.dat", good.substr(0, 36 * 3));
    EXPECT_TRUE(holds(fatal_message([&] { read_number(f, num, 1, 1, 0, N); }), {"separator"}));
    // Missing file.
    EXPECT_TRUE(holds(fatal_message([&] { loadmodes((dir / "none.dat").string(), N, nm, W, modes); }), {"none.dat"}));
}

TEST(EigenFiles, CellCountBeyondTheCellRecordsIsRefusedBeforeTheNumberTable) {
    TempDir dir;
    Small s;
    const std::string f = (dir / "eig.dat").string();
    savemodes(0, 2, s.num, s.mask, 1, 1, 0, f, s.W, s.modes);
    // Two billion numbers, no mode: the mode records would not show it, the cell records do.
    std::string bad = dir.read("eig.dat");
    const std::int32_t huge = 2000000000;
    std::memcpy(bad.data(), &huge, 4);
    dir.write("eig.dat", bad);
    IntGrid num;
    int N = 0;
    EXPECT_EQ(fatal_message([&] { read_number(f, num, 1, 1, 0, N); }),
              f + ": record 1: 2000000000 cell numbers, but only 2 cell records before the separator at record 4");
    // The largest count with one mode: the message counts N + 1 records per mode without overflow.
    const std::int32_t top = 2147483647;
    const double one = 1.0;
    std::memcpy(bad.data(), &top, 4);
    std::memcpy(bad.data() + 4, &one, 8);
    dir.write("eig.dat", bad);
    int nm = 0;
    Array<double, 2> W;
    Array<cplx, 3> modes;
    const std::string msg = fatal_message([&] { loadmodes(f, N, nm, W, modes); });
    EXPECT_TRUE(holds(msg, {"the mode records (1 x 2147483648 after the separator at record 4)"}));
}

}  // namespace
}  // namespace torix::test
