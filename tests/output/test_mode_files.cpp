// Mode files and plots, read back by other readers: VTK's own XML reader
// (Python), the standard XML parser (Python) and our OVF reader.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <numbers>
#include <optional>
#include <tuple>
#include <sstream>
#include <string>
#include <vector>

#include "dynamics/field_files.hpp"
#include "output/ovf.hpp"
#include "output/vtk.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

const std::string kTests = std::string(TORIX_CASES) + "/../output/";

// The first Python that can import `module` ("" when none can); the
// system's own first, which starts fastest and is where Debian's VTK lives.
std::string python_with(const std::string& module) {
    static std::map<std::string, std::string> found;
    if (const auto it = found.find(module); it != found.end()) return it->second;
    for (const char* py : {"/usr/bin/python3", "python3"}) {
        const std::string cmd = std::string(py) + " -c 'import " + module + "' > /dev/null 2>&1";
        if (std::system(cmd.c_str()) == 0) return found[module] = py;
    }
    return found[module] = "";
}

struct Output {
    int status = -1;
    std::string text;
};

Output run(const std::string& cmd) {
    Output o;
    FILE* f = ::popen((cmd + " 2>&1").c_str(), "r");
    if (f == nullptr) return o;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) o.text.append(buf, n);
    const int rc = ::pclose(f);
    o.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return o;
}

// Runs vti_read.py on the files; nullopt when no Python has VTK.
std::optional<Output> read_vti(const std::string& files) {
    const std::string py = python_with("vtk");
    if (py.empty()) return std::nullopt;
    return run(py + " " + kTests + "vti_read.py " + files);
}

// "key v1 v2 ..." lines of the reader scripts, by key (cell arrays as "array NAME").
std::map<std::string, std::vector<std::string>> parse_lines(const std::string& text) {
    std::map<std::string, std::vector<std::string>> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::istringstream l(line);
        std::string key, w;
        l >> key;
        if (key == "array" || key == "field" || key == "curve" || key == "x-axis" || key == "y-axis") {
            l >> w;
            key += " " + w;
        }
        std::vector<std::string> items;
        while (l >> w) items.push_back(w);
        out[key] = items;
    }
    return out;
}

// Output of vti_read.py, split by file.
std::map<std::string, std::map<std::string, std::vector<std::string>>> parse_files(const std::string& text) {
    std::map<std::string, std::map<std::string, std::vector<std::string>>> out;
    std::istringstream in(text);
    std::string file, chunk;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("file ", 0) == 0) {
            if (!file.empty()) out[file] = parse_lines(chunk);
            file = line.substr(5);
            chunk.clear();
        } else {
            chunk += line + "\n";
        }
    }
    if (!file.empty()) out[file] = parse_lines(chunk);
    return out;
}

std::vector<double> reals(const std::vector<std::string>& items, std::size_t from) {
    std::vector<double> v;
    for (std::size_t i = from; i < items.size(); ++i) v.push_back(std::stod(items[i]));
    return v;
}

// One 5 nm cube (Ms = 800, no exchange) along z in 1000 Oe: one mode at
// f = 1000 Oe (a cube's demagnetizing factors are all 1/3).
const char* kCube =
    "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n0 800\nMASQUE_CREATE\n5e-7 5e-7 5e-7\n"
    "ADD_SHAPE\n3\n5e-7 5e-7 5e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n4\nADD_EXT_FIELD\n1\n0 0 1000\n"
    "CALC_FIELD\nSOLVE_MATRIX\n1\n";

// Three cells of two materials in a row along x with an empty fourth, in a
// field along x: six modes.
const char* kRow =
    "SET_CELL\n5e-7 4e-7 3e-7\nLOAD_MAT\n2\n1.3e-6 800\n1.3e-6 1200\nMASQUE_CREATE\n20e-7 4e-7 3e-7\n"
    "ADD_SHAPE\n3\n10e-7 4e-7 3e-7 0 0 0 1\nADD_SHAPE\n3\n5e-7 4e-7 3e-7 10e-7 0 0 2\nTENSOR_CREATE\n0\n"
    "INIT_M\n2\n1 0.2 0.1\nADD_EXT_FIELD\n1\n2000 0 0\nSET_BETA\n0.01\nRELAX\n1 1e-9 0.1\n"
    "SOLVE_MATRIX\n6\nOMEGA_PRINT\nomega.txt\nM_SAVE\n2 m.dat\n";

}  // namespace

// The writer's own layout, read by VTK: dimensions, spacing in m, every
// value of Float64 and Int32 arrays (tuples interleaved), field data.
TEST(VtkFiles, ImageDataReadsBackThroughVtk) {
    TempDir dir;
    const int nx = 2, ny = 1, nz = 1;
    VecGrid v = make_vec_grid(nx, ny, nz);
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a) v(i, j, k, a) = std::ldexp(1.0 + i + 3 * j + 7 * k, a) / 3.0 - a;
    });
    std::vector<double> s(12);
    IntGrid q = make_int_grid(nx, ny, nz);
    for (int c = 0; c < 12; ++c) s[c] = std::sqrt(c + 0.5), q.data()[c] = c % 3 - 1;
    savevti((dir / "a.vti").string(), nx, ny, nz, 5e-7, 4e-7, 3e-7,
            {{"v", 3, v.data(), nullptr, v.stride(3)}, {"s", 1, s.data(), nullptr, 0}, {"q", 1, nullptr, q.data(), 0}},
            {{"f", 1234.5678901234567}});
    const auto read = read_vti((dir / "a.vti").string());
    if (!read) GTEST_SKIP() << "no Python with the vtk module";
    const Output& o = *read;
    ASSERT_EQ(o.status, 0) << o.text;
    auto r = parse_lines(o.text);
    EXPECT_EQ(r["cells"], (std::vector<std::string>{"3", "2", "2"}));
    const auto sp = reals(r["spacing"], 0);
    ASSERT_EQ(sp.size(), 3u);
    EXPECT_NEAR(sp[0], 5e-9, 1e-24);
    EXPECT_NEAR(sp[1], 4e-9, 1e-24);
    EXPECT_NEAR(sp[2], 3e-9, 1e-24);
    ASSERT_EQ(r["array v"].size(), 2u + 36u);
    EXPECT_EQ(r["array v"][1], "double");
    const auto vv = reals(r["array v"], 2);
    int c = 0;
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        for (int a = 1; a <= 3; ++a) EXPECT_EQ(vv[3 * c + a - 1], v(i, j, k, a)) << c << " " << a;
        ++c;
    });
    EXPECT_EQ(reals(r["array s"], 2), s);
    const auto qq = reals(r["array q"], 2);
    for (int k = 0; k < 12; ++k) EXPECT_EQ(qq[k], k % 3 - 1);
    EXPECT_EQ(r["array q"][1], "int");
    EXPECT_EQ(reals(r["field f"], 0), (std::vector<double>{1234.5678901234567}));
}

// MODE_SAVE on one precessing cell: the mode vector of a spin along z in a
// field along z turns from +x towards +y (dM/dt = -M x H) as Re(u e^{-ift}),
// so with its largest amplitude 1 and the x component real and positive,
// u = (1, i, 0)/sqrt 2.  The OVF pair, the VTK file and the collection
// carry it; f is the Kittel frequency.
TEST(ModeFiles, SingleCellModeInEveryFormat) {
    TempDir dir;
    dir.write("input.dat", std::string(kCube) +
                               "MODE_SAVE\n1 5 1\nm\nMODE_SAVE\n0 1 2\nout/m\n"
                               "MODE_SAVE\n1 1 3\nnever\nEND\n");
    std::filesystem::create_directories(dir / "out");
    const RunResult r = run_torix(dir);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(holds(r.out, {" MODE_SAVE ok\n MODE_SAVE ok\n MODE_SAVE ok\n"}));
    const double h = std::sqrt(0.5);
    VecGrid re = make_vec_grid(0, 0, 0), im = make_vec_grid(0, 0, 0);
    const OvfHeader hr = loadovf((dir / "m001_re.ovf").string(), 0, 0, 0, 5e-7, 5e-7, 5e-7, re);
    loadovf((dir / "m001_im.ovf").string(), 0, 0, 0, 5e-7, 5e-7, 5e-7, im);
    EXPECT_EQ(hr.data_bytes, 8);
    EXPECT_EQ(hr.units[0], "1");
    const double want_re[3] = {h, 0, 0}, want_im[3] = {0, h, 0};
    for (int a = 1; a <= 3; ++a) {
        EXPECT_NEAR(re(0, 0, 0, a), want_re[a - 1], 1e-12) << a;
        EXPECT_NEAR(im(0, 0, 0, a), want_im[a - 1], 1e-12) << a;
    }
    EXPECT_FALSE(dir.exists("m002_re.ovf"));  // clipped to the one mode
    EXPECT_FALSE(dir.exists("never001_re.ovf") || dir.exists("never001.vti"));
    // The collection sits beside its files and names them relative to itself.
    const std::string pvd = dir.read("out/m.pvd");
    EXPECT_TRUE(holds(pvd, {"byte_order=\"LittleEndian\"", "file=\"m001.vti\""}));
    const std::size_t ts = pvd.find("timestep=\"");
    ASSERT_NE(ts, std::string::npos);
    EXPECT_NEAR(std::stod(pvd.substr(ts + 10)), 1000.0, 1e-6);

    const auto read = read_vti((dir / "out/m001.vti").string());
    if (!read) GTEST_SKIP() << "no Python with the vtk module: the VTK file was not read back";
    const Output& o = *read;
    ASSERT_EQ(o.status, 0) << o.text;
    auto v = parse_lines(o.text);
    const auto ure = reals(v["array u_re"], 2), uim = reals(v["array u_im"], 2);
    ASSERT_EQ(ure.size(), 3u);
    ASSERT_EQ(uim.size(), 3u);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(ure[a], re(0, 0, 0, a + 1));  // the same numbers as the OVF pair
        EXPECT_EQ(uim[a], im(0, 0, 0, a + 1));
    }
    EXPECT_EQ(reals(v["array m0"], 2), (std::vector<double>{0, 0, 1}));
    EXPECT_NEAR(reals(v["array amplitude"], 2).at(0), 1.0, 1e-15);
    EXPECT_EQ(reals(v["array phase"], 2).at(0), 0.0);
    EXPECT_EQ(reals(v["array material"], 2).at(0), 1.0);
    EXPECT_NEAR(reals(v["field f"], 0).at(0), 1000.0, 1e-6);
    EXPECT_EQ(reals(v["field mode"], 0).at(0), 1.0);
    EXPECT_NEAR(reals(v["field participation_ratio"], 0).at(0), 1.0, 1e-15);
}

// Several cells of two materials: the VTK arrays against the OVF pair of
// the same mode (two writers), against M (m0), |u| (amplitude), the mask
// (material) and the frequencies of OMEGA_PRINT; the collection lists the
// modes in order of frequency.
TEST(ModeFiles, VtkArraysAgreeWithTheOvfPairAndTheState) {
    TempDir dir;
    dir.write("input.dat", std::string(kRow) + "MODE_SAVE\n1 6 1\nm\nMODE_SAVE\n1 6 2\nm\nEND\n");
    const RunResult r = run_torix(dir);
    ASSERT_EQ(r.status, 0) << r.err;
    const int nx = 3, ny = 0, nz = 0;
    const IntGrid all = make_int_grid(nx, ny, nz, 1);
    VecGrid M = make_vec_grid(nx, ny, nz);
    loadm(M, all, nx, ny, nz, (dir / "m.dat").string());
    std::vector<double> f, g;  // from the rows p, f, g of OMEGA_PRINT
    for (const auto& row : number_rows(dir.read("omega.txt"))) f.push_back(row.at(1)), g.push_back(row.at(2));
    ASSERT_GE(f.size(), 2u);
    const std::string pvd = dir.read("m.pvd");
    std::string files;
    for (std::size_t m = 1; m <= f.size(); ++m) {
        char name[32];
        std::snprintf(name, sizeof name, "m%03zu.vti", m);
        files += (dir / name).string() + " ";
    }
    const auto out = read_vti(files);
    if (!out) GTEST_SKIP() << "no Python with the vtk module";
    ASSERT_EQ(out->status, 0) << out->text;
    auto read = parse_files(out->text);
    std::size_t at = 0;
    for (int m = 1; m <= static_cast<int>(f.size()); ++m) {
        char name[32];
        std::snprintf(name, sizeof name, "m%03d", m);
        at = pvd.find("timestep=\"", at);
        ASSERT_NE(at, std::string::npos);
        EXPECT_NEAR(std::stod(pvd.substr(at + 10)), f[m - 1], 1e-12 * f[m - 1]);
        EXPECT_EQ(pvd.substr(pvd.find("file=\"", at) + 6, 8), std::string(name) + ".vti");
        ++at;

        VecGrid re = make_vec_grid(nx, ny, nz), im = make_vec_grid(nx, ny, nz);
        loadovf((dir / (std::string(name) + "_re.ovf")).string(), nx, ny, nz, 5e-7, 4e-7, 3e-7, re);
        loadovf((dir / (std::string(name) + "_im.ovf")).string(), nx, ny, nz, 5e-7, 4e-7, 3e-7, im);
        auto& v = read[(dir / (std::string(name) + ".vti")).string()];
        EXPECT_EQ(v["cells"], (std::vector<std::string>{"4", "1", "1"}));
        const auto ure = reals(v["array u_re"], 2), uim = reals(v["array u_im"], 2), m0 = reals(v["array m0"], 2);
        const auto amp = reals(v["array amplitude"], 2), ph = reals(v["array phase"], 2);
        const auto mat = reals(v["array material"], 2);
        ASSERT_EQ(ure.size(), 12u);
        ASSERT_EQ(amp.size(), 4u);
        double amax = 0.0, pr2 = 0.0, pr4 = 0.0;
        for (int i = 0; i <= nx; ++i) {
            const bool magnetic = i < 3;
            EXPECT_EQ(mat[i], i < 2 ? 1.0 : i == 2 ? 2.0 : 0.0);
            double a2 = 0.0, dot_re = 0.0, dot_im = 0.0;
            const double ms = std::hypot(M(i, 0, 0, 1), M(i, 0, 0, 2), M(i, 0, 0, 3));
            for (int c = 0; c < 3; ++c) {
                EXPECT_EQ(ure[3 * i + c], re(i, 0, 0, c + 1)) << m << " " << i;
                EXPECT_EQ(uim[3 * i + c], im(i, 0, 0, c + 1)) << m << " " << i;
                EXPECT_NEAR(m0[3 * i + c], magnetic ? M(i, 0, 0, c + 1) / ms : 0.0, 1e-15);
                a2 += ure[3 * i + c] * ure[3 * i + c] + uim[3 * i + c] * uim[3 * i + c];
                if (magnetic) dot_re += ure[3 * i + c] * m0[3 * i + c], dot_im += uim[3 * i + c] * m0[3 * i + c];
            }
            EXPECT_NEAR(amp[i], std::sqrt(a2), 1e-15);
            EXPECT_NEAR(dot_re, 0.0, 1e-12);  // u is transverse to the magnetization
            EXPECT_NEAR(dot_im, 0.0, 1e-12);
            EXPECT_TRUE(ph[i] > -std::numbers::pi && ph[i] <= std::numbers::pi);
            if (!magnetic) {
                EXPECT_EQ(a2, 0.0);
            }
            amax = std::max(amax, amp[i]);
            pr2 += a2, pr4 += a2 * a2;
        }
        EXPECT_NEAR(amax, 1.0, 1e-14);
        EXPECT_NEAR(reals(v["field f"], 0).at(0), f[m - 1], 1e-12 * f[m - 1]);
        EXPECT_NEAR(reals(v["field g"], 0).at(0), g[m - 1], 1e-12 * std::abs(f[m - 1]));
        EXPECT_NEAR(reals(v["field participation_ratio"], 0).at(0), pr2 * pr2 / (3.0 * pr4), 1e-14);
    }
}

// The plots, parsed as XML: axes with labelled ticks and units, the curve
// whose highest point, mapped back through the tick labels, lies at the
// Kittel frequency of the cube (in GHz at 2.80 MHz/Oe, then with SET_GYRO), the mode
// marked and numbered; the mode chart's marker at f with the decay rate as
// its bar and the participation ratio as its colour.
TEST(Plots, AbsorptionAndModeChartAsAReaderSeesThem) {
    const std::string py = python_with("xml.etree.ElementTree");
    if (py.empty()) GTEST_SKIP() << "no Python";
    TempDir dir;
    dir.write("input.dat", std::string(kCube) +
                               "SET_HRF\n2\n1 0 0\nCALC_C\nPLOT_ABS\nabs.svg\n10\nPLOT_MODES\nmodes.svg\n"
                               "SET_GYRO\n1.76e7\nPLOT_ABS\nabs_ghz.svg\n10\nPLOT_MODES\nmodes_ghz.svg\nEND\n");
    const RunResult r = run_torix(dir);
    ASSERT_EQ(r.status, 0) << r.err;
    // 1000 Oe: 2.80 GHz at 2.80 MHz/Oe (g = 2), else f gyro / 2 pi.
    const double ghz = 1000.0 * 1.76e7 / (2.0 * std::numbers::pi * 1e9);
    for (const auto& [file, f0, unit] : {std::tuple{"abs.svg", 2.80, "GHz"}, std::tuple{"abs_ghz.svg", ghz, "GHz"}}) {
        const Output o = run(py + " " + kTests + "svg_facts.py " + (dir / file).string());
        ASSERT_EQ(o.status, 0) << file << "\n" << o.text;
        auto v = parse_lines(o.text);
        EXPECT_GE(std::stoi(v["x-axis ticks"].at(0)), 4) << o.text;
        EXPECT_EQ(v["x-axis ticks"].at(0), v["x-axis ticks"].at(2));  // a line with every tick label
        EXPECT_GE(std::stoi(v["y-axis ticks"].at(0)), 3) << o.text;
        EXPECT_NE(o.text.find(std::string("(") + unit + ")"), std::string::npos) << o.text;
        EXPECT_NE(v["title"].size(), 0u);
        // Samples 0, 10, ... Oe up to 1.2 f_max + one step.
        EXPECT_EQ(v["curve points"].at(0), "122");
        const auto peak = reals(v["curve peak"], 0);
        EXPECT_NEAR(peak.at(0), f0, 0.01 * f0) << o.text;
        // Height at resonance: (w/2) Im kappa / G with kappa = i Ms/2, G = step.
        EXPECT_NEAR(peak.at(1), 500.0 * 400.0 / 10.0, 0.01 * 20000.0) << o.text;
        EXPECT_EQ(v["modes"].at(0), "1");
        const auto mode = reals(v["mode"], 0);  // position and number of the marker
        EXPECT_NEAR(mode.at(0), f0, 1e-3 * f0);
        EXPECT_EQ(mode.at(1), 1.0);
    }
    for (const auto& [file, f0] : {std::pair{"modes.svg", 2.80}, std::pair{"modes_ghz.svg", ghz}}) {
        const Output o = run(py + " " + kTests + "svg_facts.py " + (dir / file).string());
        ASSERT_EQ(o.status, 0) << file << "\n" << o.text;
        auto v = parse_lines(o.text);
        EXPECT_EQ(v["modes"].at(0), "1");
        EXPECT_EQ(v["colorbar"].at(0), "yes");
        EXPECT_TRUE(holds(o.text, {"x-axis ticks 2 lines 2 label mode number"}));
        // The marker: at mode 1, at f, the bar +- g (about 0 undamped), and
        // the colour of participation ratio 1 (one cell), the top of the scale.
        const std::size_t at = o.text.find("\nmode ");
        ASSERT_NE(at, std::string::npos);
        std::istringstream l(o.text.substr(at + 6));
        double x, y, half;
        std::string fill;
        l >> x >> y >> half >> fill;
        EXPECT_NEAR(x, 1.0, 0.01);
        EXPECT_NEAR(y, f0, 0.002 * f0);
        EXPECT_NEAR(half, 0.0, 0.002 * f0);
        EXPECT_EQ(fill, "#fde725");
    }
}
