// The mode commands run by the program on synthetic modes (eigen files
// written here and read with EIGEN_LOAD) and on solved models.
#include <gtest/gtest.h>

#include <png.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <numbers>
#include <sstream>
#include <vector>

#include "dynamics/field_files.hpp"
#include "eigen/eigen_files.hpp"
#include "geometry/mask_files.hpp"
#include "interpreter/command_table.hpp"
#include "interpreter/session.hpp"
#include "output/mode_drawings.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

constexpr double kPi = std::numbers::pi;
const cplx I{0.0, 1.0};

double wrap(double d) { return std::remainder(d, 2.0 * kPi); }

// Data lines (not starting with '#') of a file, split into blocks at comment
// lines that start with "# mode"; the comment line is kept with its block.
struct Block {
    std::string comment;
    std::vector<std::vector<double>> rows;
};
std::vector<Block> blocks(const std::string& text) {
    std::vector<Block> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) {
        if (l.rfind("# mode", 0) == 0) {
            out.push_back({l, {}});
            continue;
        }
        if (l.empty() || l[0] == '#') continue;
        std::istringstream ls(l);
        std::vector<double> row;
        for (double v; ls >> v;) row.push_back(v);
        if (out.empty()) out.push_back({});
        out.back().rows.push_back(row);
    }
    return out;
}

int index_of(const std::string& comment) {
    const auto at = comment.find("index= ");
    return at == std::string::npos ? -999 : std::stoi(comment.substr(at + 7, comment.find(' ', at + 7) - at - 7));
}

// The pixels of a PNG file as 8-bit RGB triples, row by row, and the first
// panel of a mode map: the inside of its light grey outline (200, 200, 200),
// the first such pixel from the top left being its corner.
struct Png {
    std::vector<unsigned char> px;
    int W = 0, H = 0;
    bool load(const std::filesystem::path& file) {
        png_image img{};
        img.version = PNG_IMAGE_VERSION;
        if (!png_image_begin_read_from_file(&img, file.c_str())) return false;
        img.format = PNG_FORMAT_RGB;
        px.assign(PNG_IMAGE_SIZE(img), 0);
        W = static_cast<int>(img.width), H = static_cast<int>(img.height);
        return png_image_finish_read(&img, nullptr, px.data(), 0, nullptr) != 0;
    }
    [[nodiscard]] std::array<int, 3> at(int x, int y) const {
        const unsigned char* p = &px[(static_cast<std::size_t>(y) * W + x) * 3];
        return {p[0], p[1], p[2]};
    }
    struct Box {
        int x = 0, y = 0, w = 0, h = 0;
    };
    [[nodiscard]] Box panel() const {
        const std::array<int, 3> grey{200, 200, 200};
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                if (at(x, y) != grey) continue;
                int w = 0, h = 0;
                while (x + w < W && at(x + w, y) == grey) ++w;
                while (y + h < H && at(x, y + h) == grey) ++h;
                return {x + 1, y + 1, w - 2, h - 2};
            }
        return {};
    }
};

// A ring of cells in a single layer on a 24 x 24 grid of 10 nm cells, centre
// between cells 11 and 12, radii 5.5 and 11 cells; m along +z everywhere,
// so the local frame is the identity and u = (v1, v2, 0).  Mode q has
// v1 = e^{i m_q theta} (theta the azimuth of the cell centre), v2 = 0, and
// amplitude 1.5 at the cell (22, 11), which makes it the reference.
struct Ring {
    static constexpr int n = 23;
    static constexpr double c = 11.5;
    std::vector<int> ms{0, 1, -2, 3};
    IntGrid mask = make_int_grid(n, n, 0), num = make_int_grid(n, n, 0);
    int N = 0;
    Ring() {
        for (int i = 0; i <= n; ++i)  // numbered in eigen-file order
            for (int j = 0; j <= n; ++j)
                if (const double r = std::hypot(i - c, j - c); r >= 5.5 && r <= 11.0)
                    mask(i, j, 0) = 1, num(i, j, 0) = ++N;
    }
    static double theta(int i, int j) { return std::atan2(j - c, i - c); }
    static double weight(int i, int j) { return i == 22 && j == 11 ? 1.5 : 1.0; }
    void write(const TempDir& dir) const {
        const int nm = static_cast<int>(ms.size());
        Array<cplx, 3> R({Range{1, N}, Range{1, 2}, Range{1, nm}}, cplx{});
        Array<double, 2> W({Range{1, nm}, Range{1, 2}}, 0.0);
        for (int q = 1; q <= nm; ++q) {
            W(q, 1) = 1000.0 * q;
            W(q, 2) = 1.0;
            for (int i = 0; i <= n; ++i)
                for (int j = 0; j <= n; ++j)
                    if (mask(i, j, 0))
                        R(num(i, j, 0), 1, q) = weight(i, j) * std::exp(I * (ms[q - 1] * theta(i, j)));
        }
        savemasquet(mask, n, n, 0, (dir / "mask.txt").string());
        savemodes(nm, N, num, mask, n, n, 0, (dir / "eig.dat").string(), W, R);
        savemodes(nm, N, num, mask, n, n, 0, (dir / "eigl.dat").string(), W, R);
    }
    static std::string script(const std::string& tail) {
        return "SET_CELL\n1e-6 1e-6 1e-6\nMASQUE_LOAD\n1\nmask.txt\nLOAD_MAT\n1\n1.3e-6 800\nINIT_M\n4\nEIGEN_LOAD\n" +
               tail + "END\n";
    }
};

// One thread: these small models gain nothing from a second one, and on a
// busy shared machine idle OpenMP threads slow the tiny loops of a time run
// or a dense solve by a factor of several.  Results do not depend on it.
RunResult run(const TempDir& dir, const std::string& script) {
    dir.write("input.dat", script);
    return run_torix(dir, 1);
}

}  // namespace

// Modes e^{i m theta} on a ring: the azimuthal index of each on a circle in
// the ring, the phases m (theta - theta_ref) cell by cell, the reference
// cell and the participation ratio computed from the amplitudes put in.
// The map of the m = 0 mode: the reference cell full red, the others at
// 2/3 brightness, empty cells white; the EPS renders without complaint.
TEST(ModeCommands, RingModesGiveTheirAzimuthalIndexPhasesAndMaps) {
    TempDir dir;
    const Ring ring;
    ring.write(dir);
    const RunResult r = run(dir, Ring::script("PRINT_ANGLE\n1 4 0 12e-6 12e-6 8e-6 5\nPRINT_PHASES\n0 9\n"
                                              "DRAW_MODES_E\n2500\nDRAW_MODES\n1 1\nDRAW_MODES_P\n2 0\n3\n"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(holds(r.out, {" PRINT_ANGLE ok"}));

    const auto angle = blocks(dir.read("p.dat"));
    ASSERT_EQ(angle.size(), 4u);
    for (int q = 0; q < 4; ++q) {
        EXPECT_EQ(index_of(angle[q].comment), ring.ms[q]) << angle[q].comment;
        EXPECT_EQ(std::stoi(angle[q].comment.substr(angle[q].comment.find("harmonic= ") + 10)), ring.ms[q]);
        ASSERT_EQ(angle[q].rows.size(), 72u);
        EXPECT_DOUBLE_EQ(angle[q].rows[71][0], 355.0);
    }
    // m = 0: every sample interpolates the same u, 1/1.5 of the reference.
    for (const auto& s : angle[0].rows) {
        EXPECT_NEAR(s[1], 1.0 / 1.5, 1e-8);
        EXPECT_NEAR(s[2], 0.0, 1e-8);
    }

    const auto ph = blocks(dir.read("phases.dat"));
    ASSERT_EQ(ph.size(), 4u);  // 0..9 clipped to 1..4
    const double tref = Ring::theta(22, 11);
    for (int q = 0; q < 4; ++q) {
        ASSERT_EQ(static_cast<int>(ph[q].rows.size()), ring.N);
        for (const auto& row : ph[q].rows) {
            const int i = static_cast<int>(row[0]), j = static_cast<int>(row[1]);
            EXPECT_NEAR(row[3], Ring::weight(i, j) / 1.5, 1e-8);
            EXPECT_NEAR(wrap(row[4] - ring.ms[q] * (Ring::theta(i, j) - tref)), 0.0, 1e-7) << i << " " << j;
            EXPECT_TRUE(row[4] > -kPi && row[4] <= kPi);
            EXPECT_EQ(row[5], 0.0);  // v2 = 0
            // Re, Im of ux carry the same phase; uy = uz = 0.
            EXPECT_NEAR(wrap(std::atan2(row[7], row[6]) - row[4]), 0.0, 1e-7);
            for (int c = 8; c <= 11; ++c) EXPECT_EQ(row[c], 0.0);
        }
    }
    const auto mx = blocks(dir.read("modesmax.dat"));
    ASSERT_EQ(mx.size(), 1u);
    ASSERT_EQ(mx[0].rows.size(), 4u);
    const double N = ring.N;
    const double pr = std::pow(N - 1.0 + 2.25, 2) / (N * (N - 1.0 + 5.0625));
    for (int q = 0; q < 4; ++q) {
        const auto& row = mx[0].rows[q];
        EXPECT_EQ(row[0], q + 1);
        EXPECT_EQ(row[1], 1000.0 * (q + 1));
        EXPECT_EQ(row[3], 22);
        EXPECT_EQ(row[4], 11);
        EXPECT_EQ(row[5], 0);
        EXPECT_NEAR(row[6], 1.5, 1e-8);
        EXPECT_NEAR(row[7], pr, 1e-8);
    }

    Png png;
    ASSERT_TRUE(png.load(dir / "mode001.png"));
    const Png::Box box = png.panel();
    const int b = box.w / 24;
    ASSERT_GT(b, 0);
    ASSERT_EQ(box.w, 24 * b);
    ASSERT_EQ(box.h, 24 * b);
    const auto at = [&](int i, int j) { return png.at(box.x + i * b + b / 2, box.y + (23 - j) * b + b / 2); };  // y up
    EXPECT_EQ(at(22, 11), (std::array<int, 3>{255, 0, 0}));
    EXPECT_EQ(at(12, 2), (std::array<int, 3>{170, 0, 0}));
    EXPECT_EQ(at(12, 12), (std::array<int, 3>{255, 255, 255}));  // the hole
    // DRAW_MODES_E 2500: modes 1 and 2 (1000 and 2000 Oe), a single layer
    // drawn from the top.
    EXPECT_TRUE(dir.exists("mode002.eps"));
    EXPECT_FALSE(dir.exists("mode003.eps"));
    EXPECT_TRUE(dir.exists("mode002_z.eps"));
    EXPECT_TRUE(dir.exists("mode002_z.png"));
    if (std::system("command -v gs > /dev/null 2>&1") != 0) GTEST_SKIP() << "no Ghostscript to render the EPS";
    for (const char* f : {"mode001.eps", "mode002_z.eps"}) {
        const std::string cmd = "cd '" + dir.path().string() +
                                "' && gs -q -dSAFER -dBATCH -dNOPAUSE -dEPSCrop -sDEVICE=png16m -r20 "
                                "-sOutputFile=render.png " + f + " > gs.txt 2>&1";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << dir.read("gs.txt");
        EXPECT_EQ(dir.read("gs.txt"), "") << f;
    }
}

// Each bad line is refused with the script line and the reason, before any
// file is touched: the tables of the good command before it stay.
TEST(ModeCommands, BadInputIsRefusedAndEarlierFilesStay) {
    TempDir dir;
    const Ring ring;
    ring.write(dir);
    const std::string good = "PRINT_PHASES\n1 2\n";
    // (command lines, words the message must hold)
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"PRINT_PHASES\n7 9\n", "modes 7 to 9 include none of the modes 1 to 4"},
        {"PRINT_PHASES\n3 2\n", "include none of the modes"},
        {"PRINT_SLICES\n1 2 4 0 0 0\n", "expected an axis 1 (x), 2 (y) or 3 (z), found 4"},
        {"PRINT_SLICES\n1 2 1 0 24 0\n", "lies outside the grid"},
        {"PRINT_SLICES\n1 2 3 12 12 0\n", "holds no magnetic cell"},
        {"PRINT_ANGLE\n1 2 1 12e-6 12e-6 8e-6 5\n", "the layer 1 lies outside 0..0"},
        {"PRINT_ANGLE\n1 2 0 12e-6 12e-6 13e-6 5\n", "leaves the grid"},
        {"PRINT_ANGLE\n1 2 0 12e-6 12e-6 0 5\n", "the radius must be positive"},
        {"PRINT_ANGLE\n1 2 0 12e-6 12e-6 8e-6 0\n", "the angle step"},
        {"VEC3\n1 1.5 0 v.txt\n", "the relative amplitude must lie in 0..1, found 1.5"},
        {"VEC3\n5 0.5 0 v.txt\n", "mode 5 does not exist; the modes are 1 to 4"},
        {"DRAW_MODES_P\n2 1\n0\n", "expected an axis"},
        {"DRAW_MODES\n5 6\n", "include none of the modes"},
    };
    for (const auto& [cmd, words] : bad) {
        const RunResult r = run(dir, Ring::script(good + cmd));
        ASSERT_EQ(r.status, 0 + 1) << cmd;
        EXPECT_NE(r.err.find(words), std::string::npos) << cmd << "\n" << r.err;
        EXPECT_EQ(r.err.rfind("input.dat:"), r.err.rfind('\n', r.err.size() - 2) + 1) << r.err;  // the last line
        EXPECT_EQ(blocks(dir.read("phases.dat")).size(), 2u) << cmd;
        EXPECT_FALSE(dir.exists("v.txt"));
    }
    // No modes at all, and modes of another grid.
    RunResult r = run(dir, "SET_CELL\n1e-6 1e-6 1e-6\nMASQUE_LOAD\n1\nmask.txt\nLOAD_MAT\n1\n1.3e-6 800\nINIT_M\n4\n"
                           "DRAW_MODES\n1 1\nEND\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(holds(r.err, {"input.dat:11: DRAW_MODES: no modes"}));
    r = run(dir, Ring::script("MASQUE_CREATE\n1e-5 1e-5 1e-6\nINIT_M\n4\nPRINT_PHASES\n1 1\n"));
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(holds(r.err, {"PRINT_PHASES: the modes belong to another grid"}));
}

namespace {

// An 8 x 8 x 1 film of 5 nm cells saturated along z by 15 kOe (above
// 4 pi MS), relaxed, with its lowest modes.
const char* kFilm =
    "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n4e-6 4e-6 5e-7\nLOAD_MAT\n1\n1.3e-6 800\nADD_SHAPE\n3\n"
    "4e-6 4e-6 5e-7 0 0 0 1\nTENSOR_CREATE\n0\n";

// Magnetization file rows: i j k mx my mz.
std::map<std::array<int, 3>, std::array<double, 3>> read_m(const std::string& text) {
    std::map<std::array<int, 3>, std::array<double, 3>> out;
    std::istringstream in(text);
    std::string head;
    std::getline(in, head);
    int i, j, k;
    double x, y, z;
    while (in >> i >> j >> k >> x >> y >> z) out[{i, j, k}] = {x, y, z};
    return out;
}

}  // namespace

// The quasi-uniform mode of a saturated film, the displaced state of VEC3
// (recomputed here from modes.dat), its round trip through M_LOAD, and the
// time run from it: after a quarter period the deviation is the mode at
// phase -pi/2, i.e. dm(t) = Re(u e^{-i f t}), not the opposite sense.
TEST(ModeCommands, SaturatedFilmModeVec3AndTimeRun) {
    TempDir dir;
    const double a = 0.02;
    const std::string vec = "VEC3\n1 " + std::to_string(a) + " ";
    RunResult r = run(dir, std::string(kFilm) +
                               "INIT_M\n4\nADD_EXT_FIELD\n1\n0 0 15000\nRELAX\n1 1e-10 0.05\nM_SAVE\n1 m0.txt\n"
                               "SOLVE_MATRIX\n2\nPRINT_PHASES\n1 1\n" + vec + "0 d0.txt\n" + vec +
                               "-1.5707963267948966 dm.txt\n" + vec + "1.5707963267948966 dp.txt\n"
                               "M_LOAD\n1 d0.txt\nM_SAVE\n1 back.txt\nEND\n");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto ph = blocks(dir.read("phases.dat"));
    const auto mx = blocks(dir.read("modesmax.dat"));
    ASSERT_EQ(ph.size(), 1u);
    const auto& m1 = mx[0].rows.at(0);
    EXPECT_GT(m1[7], 0.5);  // participation
    const int ri = static_cast<int>(m1[3]), rj = static_cast<int>(m1[4]);
    EXPECT_TRUE(ri >= 2 && ri <= 5 && rj >= 2 && rj <= 5) << ri << " " << rj;
    std::array<double, 2> ref{};
    for (const auto& row : ph[0].rows)
        if (row[0] == ri && row[1] == rj) ref = {row[4], row[5]};
    EXPECT_TRUE(ref[0] == 0.0 || ref[1] == 0.0);
    for (const auto& row : ph[0].rows)
        if (row[0] >= 2 && row[0] <= 5 && row[1] >= 2 && row[1] <= 5) {
            EXPECT_LT(std::abs(wrap(row[4] - ref[0])), 0.3);
            EXPECT_LT(std::abs(wrap(row[5] - ref[1])), 0.3);
        }

    // VEC3: MS normalise(m + a Re(u e^{i phi})) with u from modes.dat.
    const auto m0 = read_m(dir.read("m0.txt"));
    const auto d0 = read_m(dir.read("d0.txt"));
    const auto mv = blocks(dir.read("modes.dat"));
    ASSERT_EQ(mv.size(), 1u);
    ASSERT_EQ(mv[0].rows.size(), 64u);
    double umax = 0.0;
    for (const auto& row : mv[0].rows) {
        const std::array<int, 3> c{int(row[0]), int(row[1]), int(row[2])};
        double w[3], l = 0.0;
        for (int e = 0; e < 3; ++e) {
            w[e] = m0.at(c)[e] / 800.0 + a * row[3 + 2 * e];
            l += w[e] * w[e];
        }
        for (int e = 0; e < 3; ++e) EXPECT_NEAR(d0.at(c)[e], 800.0 * w[e] / std::sqrt(l), 1e-6);
        umax = std::max(umax, std::hypot(std::hypot(row[3], row[4]), std::hypot(row[5], row[6]),
                                         std::hypot(row[7], row[8])));
    }
    EXPECT_NEAR(umax, 1.0, 1e-7);
    EXPECT_EQ(dir.read("back.txt"), dir.read("d0.txt"));

    // A quarter period of free precession from d0.
    const double f = m1[1];
    char tail[256];
    std::snprintf(tail, sizeof tail,
                  "M_LOAD\n1 d0.txt\nADD_EXT_FIELD\n1\n0 0 15000\nSET_TIMESTEP\n%.17g\nEXEC\n%.17g 0 traj.txt\n"
                  "M_SAVE\n1 e.txt\nEND\n",
                  (kPi / 2.0 / f) / 200.0, kPi / 2.0 / f);
    r = run(dir, std::string(kFilm) + tail);
    ASSERT_EQ(r.status, 0) << r.err;
    const auto e = read_m(dir.read("e.txt")), dm = read_m(dir.read("dm.txt")), dp = read_m(dir.read("dp.txt"));
    double err_m = 0.0, err_p = 0.0, size = 0.0;
    for (const auto& [c, v] : m0)
        for (int k = 0; k < 3; ++k) {
            const double de = e.at(c)[k] - v[k], dmk = dm.at(c)[k] - v[k], dpk = dp.at(c)[k] - v[k];
            err_m += (de - dmk) * (de - dmk);
            err_p += (de - dpk) * (de - dpk);
            size += dmk * dmk;
        }
    EXPECT_LT(std::sqrt(err_m / size), 0.1);
    EXPECT_GT(std::sqrt(err_p / size), 1.0);
}

// Energy measures " 1 E" that RELAX prints after each run, in order.
std::vector<double> relax_energies(const std::string& out) {
    std::vector<double> e;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
        std::istringstream ls(l);
        std::string run, extra;
        double v = 0.0;
        if ((ls >> run >> v) && run == "1" && !(ls >> extra)) e.push_back(v);
    }
    return e;
}

// A single-layer disk of 10 nm x 10 nm x 40 nm cells, d cells across,
// started as a vortex with its core along +z on the centre cell and relaxed
// by the damped alignment, which keeps the fourfold symmetry of the start;
// then the lowest mode and the energy measures (RELAX with threshold 1e10,
// no pass) of the states displaced along it with amplitudes 0.1 and 0.2.
// The disk and its tensor, d cells across.
std::string disk_grid(int d) {
    const std::string L = std::to_string(d) + "e-6";
    return "SET_CELL\n1e-6 1e-6 4e-6\nMASQUE_CREATE\n" + L + " " + L + " 4e-6\nLOAD_MAT\n1\n1.3e-6 800\n" +
           "ADD_SHAPE\n4\n" + L + " " + L + " 4e-6 0 0 0 1\nTENSOR_CREATE\n0\n";
}
// The lowest mode on the circle of half the radius.
std::string disk_angle(int d) {
    const std::string c = std::to_string(0.5 * d) + "e-6", r = std::to_string(0.25 * d) + "e-6";
    return "PRINT_ANGLE\n1 1 0 " + c + " " + c + " " + r + " 10\n";
}
// `more` runs on the relaxed state after the displaced ones are written.
std::string vortex_disk(int d, const std::string& more = "") {
    return disk_grid(d) + "INIT_M\n1\nRELAX\n1 1e-7 0.05\nSOLVE_MATRIX\n1\n" + disk_angle(d) +
           "PRINT_PHASES\n1 1\nPRINT_SLICES\n1 1 1 0 " + std::to_string(d / 2) + " 0\n" +
           "VEC3\n1 0.1 0 d1.txt\nVEC3\n1 0.2 0 d2.txt\nVEC3\n1 0.1 0.7853981633974483 dd.txt\n" + more +
           "M_LOAD\n1 d1.txt\nRELAX\n1 1e10 0.05\nM_LOAD\n1 d2.txt\nRELAX\n1 1e10 0.05\nEND\n";
}

// The azimuthal index of the lowest mode (p.dat) and its reference cell
// (core, core) (modesmax.dat).
void expect_gyrotropic(const TempDir& dir, int index, int core) {
    const auto angle = blocks(dir.read("p.dat"));
    ASSERT_EQ(angle.size(), 1u);
    EXPECT_EQ(index_of(angle[0].comment), index) << angle[0].comment;
    const auto ref = blocks(dir.read("modesmax.dat")).at(0).rows.at(0);
    EXPECT_EQ(ref[3], core);
    EXPECT_EQ(ref[4], core);
}

// The lowest mode of a vortex disk is the gyrotropic mode, reference cell in
// the core.  In the 150 nm disk the centred core is an energy minimum
// against its displacement, and the core with polarity +z then turns
// anticlockwise seen from +z (Thiele equation; Guslienko et al., J. Appl.
// Phys. 91, 8037 (2002)): azimuthal index +1 on the circle of half the
// radius.
// The matrix-free solve on the same vortex: its lowest mode, the gyrotropic
// one, lies far below the others and is set by the long-range field, which
// the sparse local part (where the solve looks for the band of the lowest
// modes) misplaces.  The band is broad, so the shift stays at 0, and the
// lowest modes are the dense solve's, none skipped.
TEST(ModeCommands, VortexGyrotropicModeHasIndexOneAndTheMatrixFreeSolveFindsIt) {
    TempDir dir;
    const RunResult r = run(dir, vortex_disk(15, "SET_BETA\n0.01\nSOLVE_MATRIX\n6\nOMEGA_PRINT\ndense.txt\n"
                                                 "SOLVE_MODES\n6 0 0\nOMEGA_PRINT\nfree.txt\n"
                                                 "SOLVE_MODES\n1 0 0\nOMEGA_PRINT\none.txt\n"));
    ASSERT_EQ(r.status, 0) << r.err;
    expect_gyrotropic(dir, 1, 7);
    const auto e = relax_energies(r.out);
    ASSERT_EQ(e.size(), 3u) << r.out;
    EXPECT_LT(e[0], e[1]);
    EXPECT_LT(e[1], e[2]);
    // The slice along x through the core: 15 cells, centres 5 nm + 10 nm i,
    // amplitude 1 at the core.
    const auto sl = blocks(dir.read("modes01.dat"));
    ASSERT_EQ(sl.size(), 1u);
    ASSERT_EQ(sl[0].rows.size(), 15u);
    for (int i = 0; i < 15; ++i) EXPECT_NEAR(sl[0].rows[i][0], (i + 0.5) * 1e-6, 1e-18);
    EXPECT_EQ(sl[0].rows[7][1], 1.0);
    // Both solves, the one of a single mode too (whose band is judged on
    // the three lowest values of the local part), keep the shift at 0.
    EXPECT_TRUE(holds(r.out, {" shift 0 worst residual ", " shift 0 worst residual "}));
    // Rows p, f, g of each OMEGA_PRINT file.
    const auto dense = number_rows(dir.read("dense.txt")), free = number_rows(dir.read("free.txt")),
               one = number_rows(dir.read("one.txt"));
    ASSERT_EQ(dense.size(), 6u);
    ASSERT_EQ(free.size(), 6u);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_NEAR(one[0][1], dense[0][1], 1e-8 * dense[0][1]);
    EXPECT_LT(dense[0][1], 0.5 * dense[1][1]);  // the gyrotropic mode stands apart
    for (std::size_t p = 0; p < 6; ++p) {
        EXPECT_NEAR(free[p][1], dense[p][1], 1e-8 * dense[p][1]) << p;
        EXPECT_NEAR(free[p][2], dense[p][2], 1e-8 * dense[p][1]) << p;
    }
}

// The 210 nm disk relaxed the same way keeps its core on the centre cell,
// but there the energy falls as the core moves off it: the symmetric state
// is a maximum, an unstable equilibrium.  With a negative stiffness the
// Thiele equation reverses the sense of gyration, so the same +z core gives
// azimuthal index -1.  The undamped solve still returns a real frequency.
// Displaced along a diagonal (VEC3 at phase pi/4) and relaxed again, the
// core settles off the centre cell at a lower energy, a minimum, where the
// gyrotropic mode turns anticlockwise again.
TEST(ModeCommands, VortexAtAnEnergyMaximumTurnsTheOtherWay) {
    TempDir dir;
    const RunResult r = run(dir, vortex_disk(21));
    ASSERT_EQ(r.status, 0) << r.err;
    const auto e = relax_energies(r.out);
    ASSERT_EQ(e.size(), 3u) << r.out;
    EXPECT_GT(e[0], e[1]);
    EXPECT_GT(e[1], e[2]);
    expect_gyrotropic(dir, -1, 10);

    const RunResult r2 = run(dir, disk_grid(21) + "M_LOAD\n1 dd.txt\nRELAX\n1 1e-9 0.05\nSOLVE_MATRIX\n1\n" +
                                      disk_angle(21) + "PRINT_PHASES\n1 1\nEND\n");
    ASSERT_EQ(r2.status, 0) << r2.err;
    const auto e2 = relax_energies(r2.out);
    ASSERT_EQ(e2.size(), 1u) << r2.out;
    EXPECT_LT(e2[0], e[0] - 10.0);
    expect_gyrotropic(dir, 1, 10);  // reference cell still the core
}

// A film saturated out of its plane and relaxed: the edge cells tilt a
// little outward, so their local frames turn about the pole and the phase of
// a local component winds around the film.  The lowest mode precesses alike
// everywhere, and in the picture's fixed frame (x, y) its phase is one
// number.  Its PNG map carries a title above the panel and a scale bar
// below it whose length against the panel's is the bar's nm over the
// film's 80 nm: 20 nm (the largest 1, 2, 5 x 10^n within a third).
TEST(ModeCommands, PerpendicularFilmUniformModeHasOnePhaseAndATitledScaledMap) {
    TempDir dir;
    ModelState st;
    run_in(dir, st,
           "SET_CELL\n10e-7 10e-7 5e-7\nMASQUE_CREATE\n80e-7 10e-7 10e-7\nLOAD_MAT\n1\n1.3e-6 800\n"
           "ADD_SHAPE\n3\n80e-7 10e-7 10e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n4\nADD_EXT_FIELD\n1\n0 0 15000\n"
           "RELAX\n1 1e-10 0.1\nSOLVE_MATRIX\n2\nDRAW_MODES\n1 1\nPRINT_PHASES\n1 1\nEND\n");
    ASSERT_EQ(st.nmodes, 2);
    const ModePicture pic = drawmode(mode_input(st), 1);
    EXPECT_EQ(pic.axis_name, "u.x");
    double spread = 0.0;
    for (const ModePanel& P : pic.panels)
        for (std::size_t s = 0; s < P.phase.size(); ++s)
            if (P.present[s]) spread = std::max(spread, std::abs(wrap(P.phase[s] - pic.panels[0].phase[0])));
    EXPECT_LT(spread, 1e-6);
    // The table's last column is the same fixed-frame phase: 0 everywhere
    // (relative to the reference cell).
    const auto ph = blocks(dir.read("phases.dat"));
    ASSERT_EQ(ph.size(), 1u);
    ASSERT_EQ(ph[0].rows.size(), 16u);
    for (const auto& row : ph[0].rows) {
        ASSERT_EQ(row.size(), 13u);
        EXPECT_LT(std::abs(wrap(row[12])), 1e-6);
    }
    // The local frames do wind: the azimuthal component's phase is not one number.
    CVecGrid u;
    reference_mode(mode_input(st), 1, false, u);
    double lo = 10.0, hi = -10.0;
    for (int k = 0; k <= st.nz; ++k)
        for (int i = 0; i <= st.nx; ++i) {
            const double ph = phase_of(local_components(u, st.M, i, 0, k)[1]);
            lo = std::min(lo, ph), hi = std::max(hi, ph);
        }
    EXPECT_GT(hi - lo, 1.0);

    Png png;
    ASSERT_TRUE(png.load(dir / "mode001.png"));
    const Png::Box box = png.panel();
    ASSERT_GT(box.w, 0);
    const int W = png.W, H = png.H;
    const auto black = [&](int x, int y) { return png.at(x, y) == std::array<int, 3>{0, 0, 0}; };
    // Title: ink in the band above the panel, reaching well across it.
    int ink = 0, right = 0;
    for (int y = 0; y < box.y - 1; ++y)
        for (int x = 0; x < W; ++x)
            if (black(x, y)) ++ink, right = std::max(right, x);
    EXPECT_GT(ink, 200);
    EXPECT_GT(right, box.w / 2);
    // Scale bar: the longest black run below the panel.
    int bar = 0;
    for (int y = box.y + box.h + 1; y < H; ++y)
        for (int x = 0, run = 0; x < W; ++x) {
            run = black(x, y) ? run + 1 : 0;
            bar = std::max(bar, run);
        }
    EXPECT_NEAR(static_cast<double>(bar) / box.w, 20.0 / 80.0, 1.0 / box.w);
}
