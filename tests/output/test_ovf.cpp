// OVF 2.0 files: the writer against the reader, files laid out as the
// OOMMF and MuMax3 tools write them (made here by hand from the format's
// description), and files that lie about themselves.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>
#include <random>
#include <string>
#include <type_traits>

#include "dynamics/field_files.hpp"
#include "output/ovf.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

// The little-endian bytes of a double or a float.
template <class T>
std::string le(T v) {
    using U = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;
    const auto u = std::bit_cast<U>(v);
    std::string s(sizeof(T), '\0');
    for (std::size_t b = 0; b < sizeof(T); ++b) s[b] = static_cast<char>(u >> (8 * b));
    return s;
}

// Value a of node (i, j, k) in the sample files: distinct, exact in float.
double sample(int i, int j, int k, int a) { return 1000.0 * i + 100.0 * j + 10.0 * k + a + 0.5; }

// Header in the order and spelling of MuMax3's OVF 2.0 writer.
std::string mumax_header(int nx, int ny, int nz, double d, const std::string& block) {
    std::string h = "# OOMMF OVF 2.0\n# Segment count: 1\n# Begin: Segment\n# Begin: Header\n# Title: m\n"
                    "# meshtype: rectangular\n# meshunit: m\n# xmin: 0\n# ymin: 0\n# zmin: 0\n";
    h += "# xmax: " + std::to_string(nx * d) + "\n# ymax: " + std::to_string(ny * d) + "\n# zmax: " +
         std::to_string(nz * d) + "\n";
    h += "# valuedim: 3\n# valuelabels: m_x m_y m_z\n# valueunits: 1 1 1\n# Desc: Total simulation time:  0  s\n";
    char buf[200];
    std::snprintf(buf, sizeof buf,
                  "# xbase: %g\n# ybase: %g\n# zbase: %g\n# xnodes: %d\n# ynodes: %d\n# znodes: %d\n"
                  "# xstepsize: %g\n# ystepsize: %g\n# zstepsize: %g\n",
                  d / 2, d / 2, d / 2, nx, ny, nz, d, d, d);
    h += buf;
    h += "# End: Header\n# Begin: " + block + "\n";
    return h;
}

std::string binary_file(int nx, int ny, int nz, double d, int bytes) {
    const std::string block = bytes == 8 ? "Data Binary 8" : "Data Binary 4";
    std::string s = mumax_header(nx, ny, nz, d, block);
    s += bytes == 8 ? le(123456789012345.0) : le(1234567.0f);
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i)
                for (int a = 1; a <= 3; ++a)
                    s += bytes == 8 ? le(sample(i, j, k, a)) : le(static_cast<float>(sample(i, j, k, a)));
    s += "\n# End: " + block + "\n# End: Segment\n";
    return s;
}

// Text file with the comments, blank lines, Tcl lists and nm mesh unit of
// OOMMF's documented example layout, CRLF line ends and comments in the data.
std::string oommf_text_file(int nx, int ny, int nz, double d_nm) {
    std::string s =
        "# OOMMF OVF 2.0\r\n#\r\n# Segment count: 000001\r\n#\r\n# Begin: Segment\r\n# Begin: Header\r\n#\r\n"
        "# Title: Oxs_Demag::Field\r\n# Desc: Iteration: 0\r\n## Fundamental mesh measurement unit.\r\n"
        "# meshunit: nm\r\n#\r\n# meshtype: rectangular\r\n";
    char buf[400];
    std::snprintf(buf, sizeof buf,
                  "# xbase: %g     ## position of the first node\r\n# ybase: %g\r\n# zbase: %g\r\n"
                  "# XStepSize: %.17g   ## between adjacent nodes\r\n# ystepsize: %.17g\r\n# zstepsize: %.17g\r\n"
                  "# xnodes: %d\r\n# ynodes: %d\r\n# znodes: %d\r\n"
                  "# xmin: 0\r\n# ymin: 0\r\n# zmin: 0\r\n# xmax: %g\r\n# ymax: %g\r\n# zmax: %g\r\n",
                  d_nm / 2, d_nm / 2, d_nm / 2, d_nm, d_nm, d_nm, nx, ny, nz, nx * d_nm, ny * d_nm, nz * d_nm);
    s += buf;
    s += "# valuedim: 3   ## Value dimension\r\n"
         "# valuelabels: {Demag field_x} {Demag field_y} {Demag field_z}\r\n# valueunits: A/m\r\n#\r\n"
         "# End: Header\r\n#\r\n# Begin: data text\r\n";
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j) {
            for (int i = 0; i < nx; ++i) {
                std::snprintf(buf, sizeof buf, "  %.6e %.6e  %.6e", sample(i, j, k, 1), sample(i, j, k, 2),
                              sample(i, j, k, 3));
                s += buf;
                s += i % 2 ? "\r\n" : "   ";
            }
            s += "## end of row\r\n";
        }
    s += "# End: data text\r\n# End: segment\r\n";
    return s;
}

void expect_samples(const VecGrid& v, double tol) {
    for_cells(v.hi(0), v.hi(1), v.hi(2), [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a) EXPECT_NEAR(v(i, j, k, a), sample(i, j, k, a), tol) << i << " " << j << " " << k;
    });
}

}  // namespace

TEST(Ovf, BinaryAndTextWritesReadBackWithEmptyCellsZero) {
    TempDir dir;
    const int nx = 4, ny = 2, nz = 1;
    IntGrid mask = make_int_grid(nx, ny, nz, 1);
    mask(0, 0, 0) = 0;
    mask(4, 2, 1) = 0;
    VecGrid m = make_vec_grid(nx, ny, nz);
    std::mt19937_64 g(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double& x : m) x = 800.0 * u(g);
    const OvfLabels lab{"M", "test", {"M_x", "M_y", "M_z"}, {"A/m", "A/m", "A/m"}};
    for (bool binary : {true, false}) {
        const std::string name = (dir / (binary ? "b.ovf" : "t.ovf")).string();
        saveovf(name, m, mask, nx, ny, nz, 3e-7, 4e-7, 5e-7, 1000.0, lab, binary);
        VecGrid back = make_vec_grid(nx, ny, nz, -1.0);
        const OvfHeader h = loadovf(name, nx, ny, nz, 3e-7, 4e-7, 5e-7, back);
        EXPECT_EQ(h.data_bytes, binary ? 8 : 0);
        EXPECT_EQ(h.meshunit, "m");
        EXPECT_EQ(h.units[2], "A/m");
        EXPECT_EQ(h.labels[0], "M_x");
        EXPECT_NEAR(h.step[1], 4e-7, 1e-22);
        for_cells(nx, ny, nz, [&](int i, int j, int k) {
            for (int a = 1; a <= 3; ++a) {
                // Shortest round-trip decimals and binary 8 both keep every bit.
                const double want = mask(i, j, k) ? m(i, j, k, a) * 1000.0 : 0.0;
                EXPECT_EQ(back(i, j, k, a), want) << binary << " " << i << j << k << a;
            }
        });
    }
    // The binary block: 8-byte little-endian check value, then x fastest.
    const std::string b = dir.read("b.ovf");
    const std::string tag = "# Begin: Data Binary 8\n";
    const std::size_t at = b.find(tag);
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(b.substr(at + tag.size(), 8), le(123456789012345.0));
    EXPECT_EQ(b.substr(at + tag.size() + 8 + 24, 8), le(m(1, 0, 0, 1) * 1000.0));
    EXPECT_TRUE(holds(b, {"# xstepsize: 3e-09\n", "# xnodes: 5\n# ynodes: 3\n# znodes: 2\n", "# zmax: 1e-08\n"}));
}

TEST(Ovf, ReadsTheLayoutsOfOtherPrograms) {
    TempDir dir;
    // MuMax3-like binary 4 and binary 8, 3 x 2 x 2 nodes of 2 nm.
    for (int bytes : {4, 8}) {
        const auto path = dir.write("mumax" + std::to_string(bytes) + ".ovf", binary_file(3, 2, 2, 2e-9, bytes));
        VecGrid v = make_vec_grid(2, 1, 1);
        const OvfHeader h = loadovf(path.string(), 2, 1, 1, 2e-7, 2e-7, 2e-7, v);
        EXPECT_EQ(h.data_bytes, bytes);
        EXPECT_EQ(h.units[0], "1");
        expect_samples(v, 0.0);
    }
    // OOMMF-like text with nm mesh, one unit for all components.
    const auto path = dir.write("oommf.ovf", oommf_text_file(4, 3, 1, 2.5));
    VecGrid v = make_vec_grid(3, 2, 0);
    const OvfHeader h = loadovf(path.string(), 3, 2, 0, 2.5e-7, 2.5e-7, 2.5e-7, v);
    EXPECT_EQ(h.data_bytes, 0);
    EXPECT_EQ(h.units[1], "A/m");
    EXPECT_EQ(h.labels[2], "Demag field_z");
    EXPECT_EQ(h.title, "Oxs_Demag::Field");
    expect_samples(v, 1e-9);
}

TEST(Ovf, EveryMeshUnitGivesTheSameCellSize) {
    // Cells of 2 nm written in each unit the reader accepts; a wrong length
    // of the unit makes the step differ from the grid's cell size.
    TempDir dir;
    const std::pair<const char*, double> units[] = {{"m", 2e-9},       {"cm", 2e-7},       {"mm", 2e-6},
                                                     {"um", 2e-3},      {"\xc2\xb5m", 2e-3}, {"micron", 2e-3},
                                                     {"nm", 2.0},       {"NM", 2.0},        {"Um", 2e-3}};
    for (const auto& [unit, d] : units) {
        std::string s = binary_file(3, 2, 2, d, 8);
        s.replace(s.find("# meshunit: m\n"), 14, std::string("# meshunit: ") + unit + "\n");
        const auto path = dir.write("u.ovf", s);
        VecGrid v = make_vec_grid(2, 1, 1);
        const OvfHeader h = loadovf(path.string(), 2, 1, 1, 2e-7, 2e-7, 2e-7, v);
        EXPECT_EQ(h.meshunit, unit);
        for (int a = 0; a < 3; ++a) EXPECT_NEAR(h.step[a], 2e-7, 1e-13) << unit;
        expect_samples(v, 0.0);
    }
}

TEST(Ovf, GridMismatchesAndLyingFilesAreClearErrors) {
    TempDir dir;
    const std::string good = binary_file(3, 2, 2, 2e-9, 8);
    // The file itself, read from disk.
    const auto file = dir.write("good.ovf", good);
    VecGrid v = make_vec_grid(2, 1, 1);
    EXPECT_EQ(fatal_message([&] { loadovf(file.string(), 2, 1, 1, 2e-7, 2e-7, 2e-7, v); }), "no error");
    EXPECT_EQ(fatal_message([&] { loadovf(dir.path().string(), 2, 1, 1, 2e-7, 2e-7, 2e-7, v); }),
              dir.path().string() + ": is a directory, not a file");
    const std::string path = (dir / "x.ovf").string();
    auto load = [&](const std::string& text, int nx = 2, double d = 2e-7) {
        VecGrid w = make_vec_grid(nx, 1, 1);
        return fatal_message([&] { parseovf(path, text, nx, 1, 1, d, d, d, w); });
    };
    auto replace = [](std::string s, const std::string& a, const std::string& b) {
        const std::size_t at = s.find(a);
        EXPECT_NE(at, std::string::npos) << a;
        return s.replace(at, a.size(), b);
    };
    EXPECT_EQ(load(good), "no error");
    EXPECT_TRUE(holds(load(good, 3), {"the mesh has 3 x 2 x 2 nodes, the grid 4 x 2 x 2 cells"}));
    // Cell sizes: 1e-7 relative is accepted, 1e-5 is not.
    EXPECT_EQ(load(good, 2, 2e-7 * (1 + 1e-7)), "no error");
    EXPECT_TRUE(
        holds(load(good, 2, 2e-7 * (1 + 1e-5)),
              {"xstepsize 2e-07 cm differs from the cell size dx = 2.00002e-07 cm by more than 1e-6 relative"}));

    const struct {
        std::string text;
        const char* message;
    } bad[] = {
        {good.substr(0, good.size() - 20), "expected \"# End: Data Binary 8\""},
        {good.substr(0, good.size() - 100), "needs 296 bytes"},
        {replace(good, "# ynodes: 2", "# ynodes: 1"), "the mesh has 3 x 1 x 2 nodes"},
        {replace(good, "# Begin: Data Binary 8\n", "# Begin: Data Binary 8\n" + le(1.0)), "check value"},
        {replace(good, le(123456789012345.0), "\x42\xdc\x12\x21\x83\x77\xde\x40"), "big-endian"},
        {replace(good, "Data Binary 8\n", "Data Binary 4\n"), "check value of the data block is"},
        {replace(good, "# OOMMF OVF 2.0", "# OOMMF: rectangular mesh v1.0"), "OVF 1.0 file"},
        {replace(good, "# valuedim: 3", "# valuedim: 1"), "valuedim 1"},
        {replace(good, "rectangular", "irregular"), "only rectangular meshes"},
        {replace(good, "# meshunit: m\n", ""), "no \"meshunit\" entry"},
        {replace(good, "# meshunit: m\n", "# meshunit: furlong\n"), "meshunit \"furlong\""},
        {replace(good, "# xstepsize: 2e-09", "# xstepsize: -2e-09"), "xstepsize: expected a positive number"},
        {replace(good, "# xnodes: 3", "# xnodes: 99999999999999999999"), "xnodes: expected a positive integer"},
        {replace(good, "# Segment count: 1", "# Segment count: 2"), "holds 2 segments"},
        {replace(good, "# End: Header\n", ""), "the data block starts before \"End: Header\""},
        {replace(good, "# Title: m", "Title: m"), "expected a header line starting with '#'"},
        {"", "not an OVF 2.0 file"},
    };
    for (const auto& b : bad) {
        const std::string msg = load(b.text);
        EXPECT_TRUE(holds(msg, {b.message}));
        EXPECT_EQ(msg.rfind(path + ":", 0), 0u) << msg;
    }
    // Text blocks: one value short, one value too many, a word.
    const std::string text = oommf_text_file(3, 2, 2, 20.0);
    const auto tload = [&](const std::string& t) { return load(t, 2, 2e-6); };
    EXPECT_EQ(tload(text), "no error");
    EXPECT_TRUE(holds(tload(replace(text, "  1.150000e+01 ", " ")), {"ends after 35 of the 36 values"}));
    EXPECT_TRUE(holds(tload(replace(text, "## end of row", "7")), {"more than the 36 values"}));
    EXPECT_TRUE(holds(tload(replace(text, "1.150000e+01", "2.0O5e1")),
                      {"expected a number in the data block, found \"2.0O5e1\""}));
    EXPECT_TRUE(holds(tload(replace(text, "# End: data text", "#")), {"no \"# End: data text\" line"}));
    EXPECT_TRUE(holds(tload(replace(text, "1.150000e+01", "inf")),
                      {"node 6 (x fastest, from 0), component 1: inf is not a finite number"}));

    // Every truncation and many single-byte corruptions of a whole file end
    // in a clean error or a good read, never in a crash or a hang.
    for (std::size_t n = 0; n < good.size(); n += 7)
        EXPECT_NE(load(good.substr(0, n)), "no error") << n;
    std::mt19937 g(11);
    for (int t = 0; t < 300; ++t) {
        std::string s = good;
        s[g() % s.size()] = static_cast<char>(g());
        (void)load(s);
    }
}

TEST(Ovf, FieldUnitsToOersted) {
    EXPECT_DOUBLE_EQ(field_unit_to_oe("A/m") * 1000.0 / (4.0 * std::numbers::pi), 1.0);
    EXPECT_DOUBLE_EQ(field_unit_to_oe("kA/m"), 4.0 * std::numbers::pi);
    EXPECT_DOUBLE_EQ(field_unit_to_oe("T"), 1e4);  // 1 T of mu0 H in vacuum is 10 kOe
    EXPECT_DOUBLE_EQ(field_unit_to_oe("mT"), 10.0);
    EXPECT_DOUBLE_EQ(field_unit_to_oe("oe"), 1.0);
    EXPECT_EQ(field_unit_to_oe("J/m^3"), 0.0);
}

// The commands: M of two materials written in binary 8 and read back equals
// the original to 1e-15 relative; an applied field in A/m and in T from
// other programs' files lands in Oe.
TEST(OvfCommands, MagnetizationRoundTripAndAppliedFieldUnits) {
    TempDir dir;
    dir.write("happ.ovf", [] {
        std::string s = mumax_header(3, 2, 1, 5e-9, "Data Text");
        s = s.substr(0, s.find("# valueunits")) + "# valueunits: T T T\n" + s.substr(s.find("# Desc"));
        for (int j = 0; j < 2; ++j)
            for (int i = 0; i < 3; ++i) s += "0.1 0 -0.05\n";
        return s + "# End: Data Text\n# End: Segment\n";
    }());
    dir.write("input.dat",
              "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n2\n1e-6 800\n1e-6 1700\nMASQUE_CREATE\n15e-7 10e-7 5e-7\n"
              "ADD_SHAPE\n3\n10e-7 10e-7 5e-7 0 0 0 1\nADD_SHAPE\n3\n5e-7 5e-7 5e-7 10e-7 0 0 2\n"
              "INIT_M\n3\nM_SAVE\n2 before.dat\nOVF_SAVE\n1 2\nm.ovf\nOVF_SAVE\n1 1\nmt.ovf\n"
              "INIT_M\n4\nOVF_LOAD\n1\nm.ovf\nM_SAVE\n2 after.dat\n"
              "OVF_LOAD\n3\nhapp.ovf\nOVF_SAVE\n3 1\nhapp_out.ovf\nOVF_SAVE\n7 1\nnever.ovf\nEND\n");
    const RunResult r = run_torix(dir);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(holds(r.out, {" OVF_SAVE ok\n OVF_SAVE ok\n INIT_M ok\n OVF_LOAD ok\n"}));
    EXPECT_FALSE(dir.exists("never.ovf"));
    VecGrid a = make_vec_grid(2, 1, 0), b = make_vec_grid(2, 1, 0);
    const IntGrid mask = make_int_grid(2, 1, 0, 1);
    loadm(a, mask, 2, 1, 0, (dir / "before.dat").string());
    loadm(b, mask, 2, 1, 0, (dir / "after.dat").string());
    int magnetic = 0;
    for_cells(2, 1, 0, [&](int i, int j, int k) {
        const double ms = std::hypot(a(i, j, k, 1), a(i, j, k, 2), a(i, j, k, 3));
        if (ms == 0.0) return;
        ++magnetic;
        EXPECT_NEAR(ms, i == 2 && j == 0 ? 1700.0 : 800.0, 1e-9);
        for (int c = 1; c <= 3; ++c) EXPECT_NEAR(b(i, j, k, c), a(i, j, k, c), 1e-15 * ms) << i << j << k << c;
    });
    EXPECT_EQ(magnetic, 5);
    // 0.1 T and -0.05 T of mu0 H: 1000 Oe and -500 Oe, written back in A/m.
    VecGrid h = make_vec_grid(2, 1, 0);
    loadovf((dir / "happ_out.ovf").string(), 2, 1, 0, 5e-7, 5e-7, 5e-7, h);
    const double am = 1000.0 / (4.0 * std::numbers::pi);
    for_cells(2, 1, 0, [&](int i, int j, int k) {
        const double on = i == 2 && j == 1 ? 0.0 : 1.0;  // the one empty cell is written as zero
        EXPECT_NEAR(h(i, j, k, 1), on * 1000.0 * am, 1e-9 * am * 1000.0);
        EXPECT_EQ(h(i, j, k, 2), 0.0);
        EXPECT_NEAR(h(i, j, k, 3), on * -500.0 * am, 1e-9 * am * 1000.0);
    });
    // The text file says what it holds in the header; the empty cell (2, 1, 0) is zero.
    EXPECT_TRUE(
        holds(dir.read("mt.ovf"), {"# valueunits: A/m A/m A/m\n", "\n0 0 0\n# End: Data Text\n# End: Segment\n"}));
}

// H of one isolated cube along z in 1000 Oe is the applied field minus the
// cube's demagnetizing field 4 pi Ms / 3; the driving field is written as
// its real part.  Both in A/m.
TEST(OvfCommands, EffectiveAndDrivingFieldsInSI) {
    TempDir dir;
    dir.write("input.dat",
              "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n0 800\nMASQUE_CREATE\n5e-7 5e-7 5e-7\n"
              "ADD_SHAPE\n3\n5e-7 5e-7 5e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n4\nADD_EXT_FIELD\n1\n0 0 1000\n"
              "CALC_FIELD\nOVF_SAVE\n2 2\nh.ovf\nSET_HRF\n1\n1 2 0 0 -3 5\nOVF_SAVE\n4 1\nhrf.ovf\n"
              "SOLVE_MATRIX\n1\nPLOT_ABS\nabs.svg\n10\nEND\n");
    const RunResult r = run_torix(dir);
    EXPECT_EQ(r.status, 1);
    // PLOT_ABS needs the couplings, as PRINT_ABS does.
    EXPECT_TRUE(holds(r.err, {"input.dat:30: PLOT_ABS: no coupling coefficients for the modes; run CALC_C first"}));
    const double am = 1000.0 / (4.0 * std::numbers::pi);
    VecGrid h = make_vec_grid(0, 0, 0), rf = make_vec_grid(0, 0, 0);
    const OvfHeader hh = loadovf((dir / "h.ovf").string(), 0, 0, 0, 5e-7, 5e-7, 5e-7, h);
    EXPECT_EQ(hh.labels[2], "H_z");
    EXPECT_NEAR(h(0, 0, 0, 1), 0.0, 1e-9);
    EXPECT_NEAR(h(0, 0, 0, 3), (1000.0 - 4.0 * std::numbers::pi * 800.0 / 3.0) * am, 1e-6 * 1000.0 * am);
    loadovf((dir / "hrf.ovf").string(), 0, 0, 0, 5e-7, 5e-7, 5e-7, rf);
    EXPECT_NEAR(rf(0, 0, 0, 1), 1.0 * am, 1e-12 * am);
    EXPECT_EQ(rf(0, 0, 0, 2), 0.0);
    EXPECT_NEAR(rf(0, 0, 0, 3), -3.0 * am, 1e-12 * am);
}
