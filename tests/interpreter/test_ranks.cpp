// A script run on two MPI ranks against the same script on one: the same
// console, the same files to 1e-9, one message for a failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.hpp"

namespace fs = std::filesystem;

namespace torix {
namespace {

// The launcher starts from an environment without MPI's variables: an
// earlier test of this process may have started MPI as a singleton, which
// leaves its own settings there.  A launched MPI keeps tables of its
// plug-ins to the end of the process, which the sanitizer build's leak
// checker would report as leaks of ours.
const char* const kLauncher =
    "env $(env | sed -n 's/^\\(OMPI_[^=]*\\|PMIX_[^=]*\\|PMI_[^=]*\\)=.*/-u \\1/p') ASAN_OPTIONS=detect_leaks=0 "
    "mpirun --allow-run-as-root --oversubscribe -n 2";

bool have_launcher() { return std::system("command -v mpirun > /dev/null 2>&1") == 0; }

// A relaxed box in a perpendicular field (two_ranks.dat, without END): dense
// modes, then the matrix-free ones with damping (the right and the left side
// on a rank each) and without (the left vectors formed from the right ones).
const std::string kScript = read_file(std::string(TORIX_CASES) + "/../interpreter/two_ranks.dat");

std::vector<double> numbers_of(const std::string& text) {
    std::vector<double> v;
    std::istringstream in(text);
    for (std::string w; in >> w;) {
        char* end = nullptr;
        const double x = std::strtod(w.c_str(), &end);
        if (end != w.c_str() && *end == '\0') v.push_back(x);
    }
    return v;
}

// The console without its timings.
std::string without_times(const std::string& out) {
    std::istringstream in(out);
    std::string kept;
    for (std::string l; std::getline(in, l);) {
        if (l.rfind(" time spent", 0) == 0 || l.rfind(" matrix ", 0) == 0) continue;
        // The counts of a solve shared over the ranks are its own (one
        // factor per rank's rows), and so is the rounding of its shift
        // (shifts_of): the number of modes must agree.
        if (l.rfind(" modes ", 0) == 0) l = l.substr(0, l.find(" operator products"));
        kept += l + "\n";
    }
    return kept;
}

// The shifts of the console's solver lines.
std::vector<double> shifts_of(const std::string& out) {
    std::vector<double> v;
    for (std::size_t at = out.find(" shift "); at != std::string::npos; at = out.find(" shift ", at + 1))
        v.push_back(std::strtod(out.c_str() + at + 7, nullptr));
    return v;
}

// Per mode of an EIGEN_SAVE_TEXT file: its cells' complex components.
std::vector<std::vector<std::complex<double>>> vectors_of(const std::string& text) {
    std::vector<std::vector<std::complex<double>>> modes;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) {
        if (l.rfind(" (", 0) == 0) {
            modes.emplace_back();
            continue;
        }
        const auto v = numbers_of(l);
        if (v.size() == 7 && !modes.empty()) modes.back().insert(modes.back().end(), {{v[3], v[4]}, {v[5], v[6]}});
    }
    return modes;
}

// A mode's vector is fixed up to a complex factor: its largest component
// is made real, and where two cells are mirror images (equal moduli) which
// of them is largest turns on rounding.  So b is compared with a after the
// phase that best aligns them, to the files' seven digits.
void expect_same_modes(const std::string& one, const std::string& two) {
    const auto A = vectors_of(one), B = vectors_of(two);
    ASSERT_EQ(A.size(), B.size());
    ASSERT_GT(A.size(), 0u);
    for (std::size_t p = 0; p < A.size(); ++p) {
        ASSERT_EQ(A[p].size(), B[p].size());
        std::complex<double> c = 0.0;
        double big = 0.0;
        for (std::size_t k = 0; k < A[p].size(); ++k) c += std::conj(B[p][k]) * A[p][k], big = std::max(big, std::abs(A[p][k]));
        const std::complex<double> phase = c / std::abs(c);
        for (std::size_t k = 0; k < A[p].size(); ++k) ASSERT_NEAR(std::abs(phase * B[p][k] - A[p][k]), 0.0, 1e-6 * big) << p << " " << k;
    }
}

// Every number of two tables equal to 1e-9 of the largest.
void expect_same_numbers(const std::string& one, const std::string& two) {
    const auto a = numbers_of(one), b = numbers_of(two);
    ASSERT_EQ(a.size(), b.size());
    ASSERT_GT(a.size(), 5u);
    double big = 0.0;
    for (double x : a) big = std::max(big, std::abs(x));
    for (std::size_t k = 0; k < a.size(); ++k) ASSERT_NEAR(b[k], a[k], 1e-9 * big) << k;
}

TEST(Ranks, TwoRanksGiveWhatOneGives) {
    if (!have_launcher()) GTEST_SKIP() << "no mpirun";
    TempDir one, two;
    for (const TempDir* d : {&one, &two}) d->write("input.dat", kScript + "END\n");
    const RunResult r1 = run_torix(one, 1), r2 = run_torix(two, 1, kLauncher);
    ASSERT_EQ(r1.status, 0) << r1.err;
    ASSERT_EQ(r2.status, 0) << r2.err;
    EXPECT_EQ(without_times(r2.out), without_times(r1.out));
    const auto s1 = shifts_of(r1.out), s2 = shifts_of(r2.out);
    ASSERT_EQ(s1.size(), 2u);
    ASSERT_EQ(s2.size(), 2u);
    for (int k = 0; k < 2; ++k) EXPECT_NEAR(s2[k], s1[k], 1e-9 * s1[k]);
    // The undamped solve shared its rows out over both ranks.
    EXPECT_NE(r2.err.find("rows shared over 2 ranks"), std::string::npos) << r2.err;
    for (const char* name : {"damped_vectors.txt", "undamped_vectors.txt"}) {
        SCOPED_TRACE(name);
        expect_same_modes(one.read(name), two.read(name));
    }
    for (const char* name : {"dense.txt", "damped.txt", "undamped.txt"}) {
        SCOPED_TRACE(name);
        expect_same_numbers(one.read(name), two.read(name));
    }
    // Rank 0 alone wrote: no temporaries, one file of each.
    for (const auto& e : fs::directory_iterator(two.path()))
        EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();
}

// Two materials: the rows are shared, the convolution runs whole on each
// rank (the slabs take one kernel).
TEST(Ranks, TwoMaterialsShareTheRowsAndConvolveWhole) {
    if (!have_launcher()) GTEST_SKIP() << "no mpirun";
    std::string script = kScript.substr(0, kScript.find("SOLVE_MATRIX"));
    const std::string one_material = "LOAD_MAT\n1\n1.3e-6 800\n";
    script.replace(script.find(one_material), one_material.size(), "LOAD_MAT\n2\n1.3e-6 800\n1.0e-6 600\n");
    script.replace(script.find("TENSOR_CREATE"), 0, "ADD_SHAPE\n3\n30e-7 50e-7 10e-7 0 0 0 2\n");
    script += "SET_BETA\n0\nSOLVE_MODES\n5 0 1e-10\nOMEGA_PRINT\nundamped.txt\nEIGEN_SAVE_TEXT\n5 undamped_vectors.txt\nEND\n";
    TempDir one, two;
    for (const TempDir* d : {&one, &two}) d->write("input.dat", script);
    const RunResult r1 = run_torix(one, 1), r2 = run_torix(two, 1, kLauncher);
    ASSERT_EQ(r1.status, 0) << r1.err;
    ASSERT_EQ(r2.status, 0) << r2.err;
    EXPECT_NE(r2.err.find("rows shared over 2 ranks, the convolution whole"), std::string::npos) << r2.err;
    expect_same_numbers(one.read("undamped.txt"), two.read("undamped.txt"));
    expect_same_modes(one.read("undamped_vectors.txt"), two.read("undamped_vectors.txt"));
}

// Rank 0 cannot write a file that the other rank only pretends to write:
// every rank ends, with rank 0's one message, status 1, and the file
// written before intact.
TEST(Ranks, AFailureOnOneRankEndsThemAll) {
    if (!have_launcher()) GTEST_SKIP() << "no mpirun";
    TempDir dir;
    fs::create_directory(dir.path() / "blocked.txt");
    dir.write("input.dat", kScript.substr(0, kScript.find("SET_BETA")) + "OMEGA_PRINT\nblocked.txt\nEND\n");
    const RunResult r = run_torix(dir, 1, kLauncher);
    EXPECT_EQ(r.status, 1);
    const std::string msg = "blocked.txt: write failed";
    const auto at = r.err.find(msg);
    ASSERT_NE(at, std::string::npos) << r.err;
    EXPECT_EQ(r.err.find(msg, at + 1), std::string::npos) << r.err;
    EXPECT_GT(numbers_of(dir.read("dense.txt")).size(), 20u);
}

}  // namespace
}  // namespace torix
