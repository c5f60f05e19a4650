// Eigen commands on a model state built in the test: the solve with its
// damping sign, the files, reading them back bit for bit, the frequency
// list, the text file, the iterative command.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "core/error.hpp"
#include "eigen_model.hpp"
#include "interpreter/command_table.hpp"
#include "interpreter/session.hpp"
#include "test_util.hpp"

namespace torix::test {
namespace {

class EigenCommands : public ::testing::Test {
protected:
    void SetUp() override {
        // 3 x 3 x 2 box in a strong field along z: a relaxed sample.
        Model m = make_model(2, 2, 1, 5e-7, 5e-7, 5e-7, {{1.3e-6, 800.0}}, [](int, int, int) { return 1; });
        set_m(m, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
        set_field(m, {0.0, 0.0, 6000.0});
        st_.nx = 2, st_.ny = 2, st_.nz = 1;
        st_.dx = st_.dy = st_.dz = 5e-7;
        st_.nmat = 1;
        st_.MS = m.MS, st_.A = m.A, st_.MASQUE = m.MASQUE, st_.AIJ = m.AIJ, st_.M = m.M, st_.H = m.H;
        st_.beta = 0.02;
    }

    // Runs one handler on the given parameter lines; returns the console.
    std::string run(const std::string& keyword, Handler h, const std::string& params) {
        std::ofstream("script.txt") << params;
        ListReader in("script.txt");
        Session s{st_, in};
        st_.LINER = keyword;
        return captured_cout([&] { h(s); });
    }

    TempDir dir_;
    InDir in_{dir_};
    ModelState st_;
};

TEST_F(EigenCommands, SolveSaveLoadPrint) {
    const std::string out = run("SOLVE_MATRIX", cmd_solve_matrix, "5\n");
    EXPECT_TRUE(holds(out, {" SOLVE_MATRIX ok"}));
    ASSERT_EQ(st_.ncells, 18);
    ASSERT_TRUE(st_.numbered);
    ASSERT_EQ(st_.nmodes, 5);
    // Frequencies ascend; beta > 0 on a relaxed sample: every mode decays.
    for (int p = 1; p <= 5; ++p) {
        EXPECT_GT(st_.W(p, 2), 0.0) << p;
        EXPECT_LT(st_.W(p, 2), 0.05 * st_.W(p, 1)) << p;
        if (p > 1) {
            EXPECT_GE(st_.W(p, 1), st_.W(p - 1, 1)) << p;
        }
    }
    ASSERT_TRUE(dir_.exists("eig.dat"));
    ASSERT_TRUE(dir_.exists("eigl.dat"));
    EXPECT_EQ(dir_.read("eig.dat").size(), 36u * (1 + 18 + 1 + 5 * 19));

    // Reading back gives the same bits and the same numbering.
    const auto W = st_.W;
    const auto R = st_.MODES;
    const auto L = st_.MODESL;
    const auto NUM = st_.NUM;
    const auto DEGR = st_.DEGR;
    st_.W.release(), st_.MODES.release(), st_.MODESL.release(), st_.NUM.release(), st_.DEGR.release();
    st_.nmodes = 0, st_.ncells = 0, st_.numbered = false;
    std::remove("numbering.txt");
    EXPECT_EQ(run("EIGEN_LOAD", cmd_eigen_load, ""), " EIGEN_LOAD ok\n");
    EXPECT_EQ(st_.nmodes, 5);
    EXPECT_EQ(st_.ncells, 18);
    EXPECT_TRUE(st_.numbered);
    EXPECT_TRUE(st_.W == W);
    EXPECT_TRUE(st_.MODES == R);
    EXPECT_TRUE(st_.MODESL == L);
    EXPECT_TRUE(st_.NUM == NUM);
    EXPECT_TRUE(st_.DEGR == DEGR);
    EXPECT_TRUE(dir_.exists("numbering.txt"));

    // Text file: the count is clamped to the modes held.
    EXPECT_EQ(run("EIGEN_SAVE_TEXT", cmd_eigen_save_text, "99 modes.txt\n"), " EIGEN_SAVE ok\n");
    const std::string txt = dir_.read("modes.txt");
    EXPECT_EQ(std::count(txt.begin(), txt.end(), '\n'), 5 * (1 + 18));
    // A left file that does not match the right one.
    std::filesystem::copy_file("eig.dat", "keep.dat");
    std::ofstream("eigl.dat", std::ios::binary) << dir_.read("eig.dat").substr(0, 36 * 30);
    const std::string e = fatal_message([&] { run("EIGEN_LOAD", cmd_eigen_load, ""); });
    EXPECT_TRUE(holds(e, {"eigl.dat"}));
}

TEST_F(EigenCommands, IterativeCommandAgreesWithDenseAndDoublesItsCounts) {
    run("SOLVE_MATRIX", cmd_solve_matrix, "3\n");
    const auto W = st_.W;
    const std::string out = run("SOLVE_MATRIX_AR", cmd_solve_matrix_ar, "2\n3 12\n0.0\n");
    EXPECT_TRUE(holds(out, {" The number of Ritz values requested is 6\n",
                            " The number of Arnoldi vectors generated (NCV) is 24\n", " SOLVE_MATRIX_AR ok"}));
    ASSERT_EQ(st_.nmodes, 3);
    EXPECT_EQ(st_.V.extent(0), 36);
    EXPECT_EQ(st_.V.extent(1), 24);
    EXPECT_EQ(st_.D.extent(0), 24);
    for (int p = 1; p <= 3; ++p) {
        EXPECT_NEAR(st_.W(p, 1), W(p, 1), 1e-6 * W(p, 1));
        EXPECT_NEAR(st_.W(p, 2), W(p, 2), 1e-6 * W(p, 1));
    }
}

TEST_F(EigenCommands, MatrixFreeCommandAgreesWithDenseAndRefusesBadInput) {
    run("SOLVE_MATRIX", cmd_solve_matrix, "4\n");
    const auto W = st_.W;
    const auto R = st_.MODES;
    const std::string out = run("SOLVE_MODES", cmd_solve_modes, "4 0.0 -1\n");
    EXPECT_EQ(out.rfind(" modes 4 operator products ", 0), 0u) << out;
    EXPECT_TRUE(holds(out, {"\n time spent ", "\n SOLVE_MODES ok\n"}));
    ASSERT_EQ(st_.nmodes, 4);
    for (int p = 1; p <= 4; ++p) {
        EXPECT_NEAR(st_.W(p, 1), W(p, 1), 1e-8 * W(p, 1));
        EXPECT_NEAR(st_.W(p, 2), W(p, 2), 1e-8 * W(p, 1));
    }
    // The eigen files read back as the ModeSet.
    const auto W2 = st_.W;
    const auto L2 = st_.MODESL;
    run("EIGEN_LOAD", cmd_eigen_load, "");
    ASSERT_EQ(st_.nmodes, 4);
    for (int p = 1; p <= 4; ++p) {
        EXPECT_EQ(st_.W(p, 1), W2(p, 1));
        for (int n = 1; n <= 18; ++n) EXPECT_EQ(st_.MODESL(n, 2, p), L2(n, 2, p));
    }

    const char* bad[][2] = {{"0 0 0\n", "between 1 and 18"},
                            {"19 0 0\n", "between 1 and 18 (the numbered cells), found 19"},
                            {"2 -100 0\n", "f0 >= 0"}};
    for (const auto& b : bad) {
        const std::string e = fatal_message([&] { run("SOLVE_MODES", cmd_solve_modes, b[0]); });
        EXPECT_EQ(e.rfind("SOLVE_MODES: ", 0), 0u) << e;
        EXPECT_NE(e.find(b[1]), std::string::npos) << e;
        EXPECT_EQ(st_.nmodes, 4);  // nothing lost
    }
    // No magnetization to linearise around.
    st_.M = VecGrid{};
    const std::string e = fatal_message([&] { run("SOLVE_MODES", cmd_solve_modes, "2 0 0\n"); });
    EXPECT_EQ(e.rfind("SOLVE_MODES: ", 0), 0u) << e;
    EXPECT_EQ(st_.nmodes, 4);
}


// An infinite film (one period of 4 x 4 cells, periodic in x and y) is
// uniform in its lowest mode, with the film's demagnetizing factors
// (0, 0, 1): Kittel's f^2 = H (H + 4 pi MS) in-plane and f = H - 4 pi MS
// out of plane, from the dense and the matrix-free solves.
TEST(PeriodicFilm, LowestModeIsKittelsInAndOutOfPlane) {
    TempDir dir;
    const double ms = 800.0, four_pi_ms = 4.0 * M_PI * ms;
    struct Case {
        const char* dir;
        double h;
        double f;
    };
    for (const Case c : {Case{"1 0 0", 1000.0, std::sqrt(1000.0 * (1000.0 + four_pi_ms))},
                         Case{"0 0 1", 15000.0, 15000.0 - four_pi_ms}}) {
        const std::string field = c.dir[0] == '1' ? "1000 0 0" : "0 0 15000";
        for (const char* solve : {"SOLVE_MATRIX\n2\n", "SOLVE_MODES\n2 0 1e-11\n"}) {
            ModelState st;
            run_in(dir, st,
                   "SET_CELL\n5e-7 5e-7 3e-7\nMASQUE_CREATE\n2e-6 2e-6 3e-7\nADD_SHAPE\n3\n2e-6 2e-6 3e-7 0 0 0 1\n"
                   "LOAD_MAT\n1\n1.3e-6 800\nSET_PERIODIC\n1 1 0\nTENSOR_CREATE\n0\nINIT_M\n2\n" + std::string(c.dir) +
                       "\nADD_EXT_FIELD\n1\n" + field + "\nCALC_FIELD\n" + solve + "END\n");
            ASSERT_GE(st.nmodes, 1) << solve;
            EXPECT_NEAR(st.W(1, 1), c.f, 1e-9 * c.f) << solve << " along " << c.dir;
        }
    }
}

}  // namespace
}  // namespace torix::test
