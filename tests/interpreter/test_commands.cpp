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

TEST(MasqueCreate, CellCountsRoundHalvesAwayFromZero) {
    TempDir d;
    // Each length over its own cell size: 5 / 2 = 2.5 cells -> 3 (nx = 2);
    // 4.8 / 1.5 = 3.2 -> 3 (ny = 2); 0.8 / 2 = 0.4 -> 0 cells (empty, nz = -1).
    const std::string out = run(d, "SET_CELL\n2 1.5 2\nMASQUE_CREATE\n5 4.8 0.8\nMASQUE_INFO\nEND\n");
    EXPECT_TRUE(holds(out, {" 0 2 2 -1\n"}));
}

TEST(MasqueCreate, NegativeLengthsGiveTheSameEmptyExtentAsZero) {
    TempDir d;
    // -2^31 cells along y is an empty extent like 0 cells, and a VRML scene of it still writes.
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nLOAD_MAT\n1\n1e-6 500\nMASQUE_CREATE\n4 -2147483648 -3\nMASQUE_INFO\n"
                                "INIT_M\n4\nSET_VRML\n2 1 1 2\nM_SAVE\n4 m.wrl\nEND\n");
    EXPECT_TRUE(holds(out, {" 0 3 -1 -1\n"}));
    EXPECT_TRUE(d.exists("m.wrl"));
}

TEST(AddShape, BoxCoversLOverDCellsAndIsClippedToTheGrid) {
    TempDir d;
    std::string out = run(d,
                          "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n10e-7 10e-7 2e-7\n"
                          "ADD_SHAPE\n3\n4e-7 3e-7 2e-7 2e-7 1e-7 0 2\nMASQUE_INFO\n"
                          "ADD_SHAPE\n3\n40e-7 40e-7 40e-7 8e-7 8e-7 0 1\nMASQUE_INFO\nEND\n");
    EXPECT_TRUE(holds(out, {" 24 9 9 1\n", " 32 9 9 1\n"}));  // + 2 x 2 x 2 clipped cells
}

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

TEST(StudyShape, ReportsTheCountOfItsOwnMask) {
    TempDir d;
    const std::string out =
        run(d, "SET_CELL\n1 1 1\nSTUDY_SHAPE\n3\n3 2 2\nMASQUE_INFO\nSTUDY_SHAPE\n2\n3\nSTUDY_SHAPE\n9\nEND\n");
    EXPECT_TRUE(holds(out, {" STUDY_SHAPE ok 12\n", " 12 2 1 1\n"}));
    // Sphere of diameter 3 cells: radius 1 about the centre cell -> 7 cells.
    EXPECT_TRUE(holds(out, {" STUDY_SHAPE ok 7\n", " STUDY_SHAPE ok 0\n"}));
}

TEST(Timestep, PositiveValueIsKeptTimesGyroAndPrintedWithout) {
    TempDir d;
    const std::string out = run(d, "SET_GYRO\n2\nSET_TIMESTEP\n0.01\nSET_GYRO\n4\nSET_TIMESTEP\n0.5\nEND\n");
    EXPECT_TRUE(holds(out, {" timestep= 0.01\n SET_TIMESTEP ok\n", " timestep= 0.5\n"}));
}

TEST(SetScale, CoarseNumberingIsKeptAndMapWritten) {
    TempDir d;
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n4 2 1\nADD_SHAPE\n3\n4 2 1 0 0 0 1\n"
                                "SET_SCALE\n2 2 1\nSET_SCALE_R\n0.5 1 1\nEND\n");
    EXPECT_TRUE(holds(out, {" SET_SCALE ok 2\n", " SET_SCALE ok 8\n"}));
    EXPECT_EQ(d.read("numbering.txt"), " 1 1 1 1\n 1 1 1 1\n");
}

TEST(Script, UnknownKeywordsAndSelectorsAreHarmless) {
    TempDir d;
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n3 3 1\nEIGEN_SAVE\nend\n"
                                "ADD_SHAPE\n17\nMASQUE_SAVE\n9\nx.bin\n\n\nMASQUE_INFO extra words\nEND\n");
    EXPECT_TRUE(holds(out, {" ADD_SHAPE ok\n MASQUE_SAVE ok\n 0 2 2 0\n MASQUE_INFO ok\n"}));
    EXPECT_FALSE(d.exists("x.bin"));
}

TEST(Script, MissingCellSizesAbsurdGridsAndZeroBlocksAreFatal) {
    TempDir d;
    EXPECT_THROW(run(d, "MASQUE_CREATE\n1 1 1\nEND\n"), FatalError);
    EXPECT_THROW(run(d, "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n1 1 1\nEND\n"), FatalError);
    EXPECT_THROW(run(d, "SET_CELL\n1 1 1\nMASQUE_CREATE\n2 2 1\nSET_SCALE\n0 1 1\nEND\n"), FatalError);
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

// Scripts the program refuses, each with its line and reason: the whole
// message, or (`part`) parts it holds in order; and the file the refused
// command would have written does not exist.
TEST(Script, RefusedWithTheLineAndTheReason) {
    const std::string grid = "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n1e-6 5e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\n";
    const std::string small = "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n";
    struct Case {
        std::string script;
        std::vector<std::string> says;
        bool part = false;
        const char* absent = "";
    };
    const Case cases[] = {
        // A count beyond the script's end is found there, not in an allocation.
        {"LOAD_MAT\n2000000000\n1e-6 800\n", {"input.dat:4: LOAD_MAT: expected ", "A(2)", "\"END\""}, true},
        // The tensor of no cells is made (and has no Fourier form); saving it is refused.
        {"LOAD_MAT\n1\n1e-6 800\nTENSOR_CREATE\n0\nTENSOR_SAVE\n2 1 t.bin\n",
         {"input.dat:7: TENSOR_SAVE: the grid holds no cell (MASQUE_CREATE or MASQUE_LOAD first)"}, false, "t.bin"},
        {grid + "ADD_DMI\n1 1 3\n",
         {"input.dat:9: ADD_DMI: no interaction tensor for the current grid and materials (run TENSOR_CREATE or "
          "TENSOR_LOAD first)"}},
        {grid + "TENSOR_CREATE\n0\nADD_DMI\n2 2 3\n", {"input.dat:11: ADD_DMI: material 2 is outside 1..1"}},
        // Numbering made on the 3 x 2 x 1 grid, then the grid is replaced.
        {kDot + "SET_SCALE\n1 1 1\nMASQUE_CREATE\n4e-7 2e-7 1e-7\nADD_SHAPE\n3\n2e-7 2e-7 1e-7 0 0 0 1\n"
                "TENSOR_CREATE\n0\nINIT_M\n4\nCALC_FIELD\nSOLVE_MATRIX\n4\n",
         {"input.dat:23: SOLVE_MATRIX: the numbering was made on another grid (SET_SCALE again)"}},
        // Modes found for four cells, then a fifth cell painted: it has no amplitude.
        {kSolved + "ADD_SHAPE\n3\n1e-7 1e-7 1e-7 2e-7 0 0 1\nEIGEN_SAVE_TEXT\n8 m.txt\n",
         {"input.dat:24: EIGEN_SAVE_TEXT: the magnetic cell (2,0,0) has no number in the numbering of the modes "
          "(solve or EIGEN_LOAD again)"},
         false, "m.txt"},
        // Any mode above 0.005 Oe needs more than 1e7 samples of 1e-9 Oe.
        {kSolved + "SET_HRF\n2\n1 0 0\nCALC_C\nPRINT_ABS\na.txt\n1e-9\n",
         {": PRINT_ABS: the frequency step 1e-09 gives more than 10000000 samples"}, true, "a.txt"},
        // No magnetic cell: nothing to relax.
        {small + "2e-7 2e-7 1e-7\nLOAD_MAT\n1\n1e-6 800\nTENSOR_CREATE\n0\nINIT_M\n4\nSET_TIMESTEP\n1e-3\n"
                 "RELAX\n1 1e-3 0\n",
         {"input.dat:14: RELAX: the mask holds no magnetic cell, so there is nothing to relax"}},
        // An exchange field of ~1e19 Oe with a step of 1e-3 / Oe: the first step overflows.
        {small + "3e-7 2e-7 1e-7\nADD_SHAPE\n3\n2e-7 2e-7 1e-7 0 0 0 1\nLOAD_MAT\n1\n1e11 800\nTENSOR_CREATE\n0\n"
                 "INIT_M\n3\nSET_TIMESTEP\n1e-3\nRELAX\n1 1e-3 0\n",
         {"RELAX: the Runge-Kutta relaxation diverged"}, true},
        // Two billion steps and more do not fit the step counter.
        {kSolved + "SET_TIMESTEP\n1e-3\nEXEC\n1e300 0 t.txt\n",
         {"EXEC: the end time 1e+300 is more than 2147483647 time steps of 0.001"}, true, "t.txt"},
        // 1e999 overflows to an infinite applied field; with beta > 0 the field of the trial state is infinite
        // (not a NaN) and the first step 1/(16 |H|) is zero.
        {kDot + "SET_BETA\n0.1\nTENSOR_CREATE\n0\nINIT_M\n4\nADD_EXT_FIELD\n1\n1e999 0 0\nSET_TIMESTEP\n-1\n",
         {"input.dat:20: SET_TIMESTEP: the field reaches inf Oe on a magnetic cell, too large to choose a time step "
          "for"}},
    };
    for (const Case& c : cases) {
        TempDir d;
        const std::string e = fatal_message([&] { run(d, c.script + "END\n"); });
        if (c.part)
            EXPECT_TRUE(holds(e, c.says));
        else
            EXPECT_EQ(e, c.says[0]);
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

// The terms kept beside the tensor refuse what they cannot use, naming the
// script line and what was expected, and TENSOR_CREATE removes them.
TEST(LocalTermCommands, BadInputAndLifetime) {
    const std::string head =
        "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n5e-7 5e-7 15e-7\nLOAD_MAT\n2\n1.3e-6 800\n1.3e-6 800\n";
    const std::string tensor = "TENSOR_CREATE\n0\n";
    struct Case {
        std::string body, message;
    };
    const Case cases[] = {
        {"ADD_CUBIC_ANISOTROPY\n1 4e5 0\n1 0 0 0 1 0\n",
         "input.dat:10: ADD_CUBIC_ANISOTROPY: no interaction tensor for the current grid and materials"},
        {tensor + "ADD_CUBIC_ANISOTROPY\n3 4e5 0\n1 0 0 0 1 0\n",
         "input.dat:12: ADD_CUBIC_ANISOTROPY: the material 3 is outside the materials 1..2"},
        {tensor + "ADD_CUBIC_ANISOTROPY\n1 4e5 0\n0 0 0 0 1 0\n",
         "input.dat:13: ADD_CUBIC_ANISOTROPY: expected two orthogonal crystal axes of nonzero length, found a first "
         "axis of zero length"},
        {tensor + "ADD_CUBIC_ANISOTROPY\n1 4e5 0\n1 0 0 x 1 0\n",
         "input.dat:13: ADD_CUBIC_ANISOTROPY: expected a real number for a2x, found"},
        {"ADD_INTERLAYER_EXCHANGE\n1 2 0.1 0\n",
         "input.dat:10: ADD_INTERLAYER_EXCHANGE: no interaction tensor for the current grid and materials"},
        {tensor + "ADD_INTERLAYER_EXCHANGE\n1 0 0.1 0\n",
         "input.dat:12: ADD_INTERLAYER_EXCHANGE: the second material 0 is outside the materials 1..2"},
        {tensor + "ADD_INTERLAYER_EXCHANGE\n2 2 0.1 0\n",
         "input.dat:12: ADD_INTERLAYER_EXCHANGE: expected two different materials, found 2 twice"},
    };
    for (const Case& c : cases) {
        TempDir d;
        const std::string msg = fatal_message([&] { run(d, head + c.body + "END\n"); });
        EXPECT_EQ(msg.rfind(c.message, 0), 0u) << c.body << msg;
    }
    // Kept by TENSOR_LOAD, removed by TENSOR_CREATE.
    TempDir d;
    ModelState st;
    run_in(d, st, head + tensor + "TENSOR_SAVE\n2 1 t1.bin\nADD_CUBIC_ANISOTROPY\n1 4e5 0\n1 0 0 0 1 0\n"
                  "ADD_INTERLAYER_EXCHANGE\n1 2 0.1 0\nTENSOR_LOAD\n2 1 t1.bin\nEND\n");
    EXPECT_TRUE(st.local_terms.cubic.size() == 1 && st.local_terms.interlayer.size() == 1);
    run_in(d, st, tensor + "END\n");
    EXPECT_TRUE(st.local_terms.empty());
}
