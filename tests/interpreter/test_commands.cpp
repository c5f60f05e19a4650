// Commands run in-process on a script, checking the model state they leave.
#include <gtest/gtest.h>

#include "core/error.hpp"
#include "interpreter/command_table.hpp"
#include "interpreter/model_state.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {
std::string run(TempDir& d, const std::string& script) { return run_in(d, script); }
}  // namespace

TEST(AddShape, DiskOfElevenCellsDiameterSpansElevenCells) {
    TempDir d;
    // Diameter 11 cells from X0 = 0: a = 5, centre 5; columns 0..10 along the centre row.
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n12 12 1\nADD_SHAPE\n4\n11 11 1 0 0 0 1\n"
                                "MASQUE_SAVE\n3\nm.txt\nMASQUE_INFO\nEND\n");
    const std::string m = d.read("m.txt");
    EXPECT_TRUE(holds(out, {"MASQUE_INFO ok"}));
    // Row j = 5 through the centre: x from 0 to 10 painted, 11 empty.
    std::istringstream in(m);
    std::string line;
    std::getline(in, line);  // header
    std::getline(in, line);  // plane title
    for (int j = 0; j <= 5; ++j) std::getline(in, line);
    std::istringstream row(line);
    std::vector<int> v;
    for (int x; row >> x;) v.push_back(x);
    ASSERT_EQ(v.size(), 12u);
    for (int i = 0; i <= 10; ++i) EXPECT_EQ(v[i], 1) << i;
    EXPECT_EQ(v[11], 0);
}

// Kept here rather than as a case: with the ratio left out of the stored
// step, the time runs of the case every_command (cases run after the tests
// of this file, in the order of their names) take minutes; this fails at once.
TEST(Timestep, PositiveValueIsKeptTimesGyroAndPrintedWithout) {
    TempDir d;
    const std::string out = run(d, "SET_GYRO\n2\nSET_TIMESTEP\n0.01\nSET_GYRO\n4\nSET_TIMESTEP\n0.5\nEND\n");
    EXPECT_TRUE(holds(out, {" timestep= 0.01\n SET_TIMESTEP ok\n", " timestep= 0.5\n"}));
}

TEST(Script, UnknownKeywordsAndSelectorsAreHarmless) {
    TempDir d;
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n3 3 1\nEIGEN_SAVE\nend\n"
                                "ADD_SHAPE\n17\nMASQUE_SAVE\n9\nx.bin\n\n\nMASQUE_INFO extra words\nEND\n");
    EXPECT_TRUE(holds(out, {" ADD_SHAPE ok\n MASQUE_SAVE ok\n 0 2 2 0\n MASQUE_INFO ok\n"}));
    EXPECT_FALSE(d.exists("x.bin"));
}

namespace {
// A 2 x 2 x 1 dot of material 1 on a 3 x 2 x 1 grid, with its material.
const std::string kDot =
    "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n3e-7 2e-7 1e-7\nADD_SHAPE\n3\n2e-7 2e-7 1e-7 0 0 0 1\n"
    "LOAD_MAT\n1\n1e-6 800\n";
// ... relaxed in a field along z and solved densely.
const std::string kSolved =
    kDot + "TENSOR_CREATE\n0\nINIT_M\n4\nADD_EXT_FIELD\n1\n0 0 1000\nCALC_FIELD\nSOLVE_MATRIX\n8\n";
}  // namespace

// Refusals whose message ends in figures of the run (the table of the end-to-end
// cases holds those whose whole message is fixed): the parts it must hold,
// in order, and no file of the refused command.
TEST(Script, RefusedWithTheLineAndTheReason) {
    const std::string small = "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n";
    const struct {
        std::string script;
        std::vector<std::string> says;
        const char* absent;
    } cases[] = {
        // Any mode above 0.005 Oe needs more than 1e7 samples of 1e-9 Oe.
        {kSolved + "SET_HRF\n2\n1 0 0\nCALC_C\nPRINT_ABS\na.txt\n1e-9\n",
         {"input.dat:27: PRINT_ABS: the frequency step 1e-09 gives more than 10000000 samples"}, "a.txt"},
        // An exchange field of ~1e19 Oe with a step of 1e-3 / Oe: the first step overflows.
        {small + "3e-7 2e-7 1e-7\nADD_SHAPE\n3\n2e-7 2e-7 1e-7 0 0 0 1\nLOAD_MAT\n1\n1e11 800\nTENSOR_CREATE\n0\n"
                 "INIT_M\n3\nSET_TIMESTEP\n1e-3\nRELAX\n1 1e-3 0\n",
         {"input.dat:17: RELAX: the Runge-Kutta relaxation diverged"}, ""},
    };
    for (const auto& c : cases) {
        TempDir d;
        EXPECT_TRUE(holds(fatal_message([&] { run(d, c.script + "END\n"); }), c.says));
        if (*c.absent) {
            EXPECT_FALSE(d.exists(c.absent)) << c.absent;
        }
    }
}

TEST(Script, BoxesAndRunLengthsBeyondTheirRangesAreRefused) {
    TempDir d;
    run(d, kDot + "MASQUE_SAVE\n1\nm.txt\nEND\n");
    // A grid read from a file has no cell sizes: a box in cm cannot be placed.
    EXPECT_EQ(fatal_message([&] {
                  run(d, "MASQUE_LOAD\n1\nm.txt\nLOAD_MAT\n1\n1e-6 800\nINIT_M\n4\nH_AVERAGE\n0 0 0 1 1 1\nEND\n");
              }),
              "input.dat:10: H_AVERAGE: the cell sizes must be set to positive values by SET_CELL before a box is "
              "averaged");
    // A box from far below to far above the grid averages what the box of the grid itself averages.
    const std::string out = run(d, kSolved +
                                       "H_AVERAGE\n-1e300 -1e300 -1e300 1e300 1e300 1e300\n"
                                       "H_AVERAGE\n0 0 0 3e-7 2e-7 1e-7\nEND\n");
    std::vector<std::string> means;
    std::istringstream lines(out);
    for (std::string l, prev; std::getline(lines, l); prev = l)
        if (l == " H_AVERAGE ok") means.push_back(prev);
    ASSERT_EQ(means.size(), 2u) << out;
    EXPECT_EQ(means[0], means[1]);
    EXPECT_NE(means[0], " 0 0 0");
}

// TENSOR_LOAD keeps the terms kept beside the tensor, TENSOR_CREATE removes
// them (their refusals are end-to-end cases).
TEST(LocalTermCommands, KeptByTensorLoadRemovedByTensorCreate) {
    const std::string head =
        "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n5e-7 5e-7 15e-7\nLOAD_MAT\n2\n1.3e-6 800\n1.3e-6 800\n";
    const std::string tensor = "TENSOR_CREATE\n0\n";
    TempDir d;
    ModelState st;
    run_in(d, st, head + tensor + "TENSOR_SAVE\n2 1 t1.bin\nADD_CUBIC_ANISOTROPY\n1 4e5 0\n1 0 0 0 1 0\n"
                  "ADD_INTERLAYER_EXCHANGE\n1 2 0.1 0\nTENSOR_LOAD\n2 1 t1.bin\nEND\n");
    EXPECT_TRUE(st.local_terms.cubic.size() == 1 && st.local_terms.interlayer.size() == 1);
    run_in(d, st, tensor + "END\n");
    EXPECT_TRUE(st.local_terms.empty());
}
