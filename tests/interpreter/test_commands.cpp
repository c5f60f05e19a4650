// Commands run in-process on a script, checking the model state they leave.
#include <gtest/gtest.h>

#include "core/error.hpp"
#include "interpreter/command_table.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {
// Runs `script` in a scratch directory and returns stdout.
std::string run(TempDir& d, const std::string& script) {
    d.write("input.dat", script);
    const auto old = std::filesystem::current_path();
    std::filesystem::current_path(d.path());
    testing::internal::CaptureStdout();
    try {
        run_script("input.dat", "input.dat");
    } catch (...) {
        testing::internal::GetCapturedStdout();
        std::filesystem::current_path(old);
        throw;
    }
    std::filesystem::current_path(old);
    return testing::internal::GetCapturedStdout();
}
}  // namespace

TEST(MasqueCreate, CellCountsRoundHalvesAwayFromZero) {
    TempDir d;
    // 2.5 cells -> 3 (nx = 2); 2.4 -> 2 (ny = 1); 0.4 -> 0 cells (empty, nz = -1)
    const std::string out = run(d, "SET_CELL\n2 2 2\nMASQUE_CREATE\n5 4.8 0.8\nMASQUE_INFO\nEND\n");
    EXPECT_NE(out.find(" 0 2 1 -1\n"), std::string::npos) << out;
}

TEST(AddShape, BoxCoversLOverDCellsAndIsClippedToTheGrid) {
    TempDir d;
    std::string out = run(d,
                          "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n10e-7 10e-7 2e-7\n"
                          "ADD_SHAPE\n3\n4e-7 3e-7 2e-7 2e-7 1e-7 0 2\nMASQUE_INFO\n"
                          "ADD_SHAPE\n3\n40e-7 40e-7 40e-7 8e-7 8e-7 0 1\nMASQUE_INFO\nEND\n");
    EXPECT_NE(out.find(" 24 9 9 1\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" 32 9 9 1\n"), std::string::npos) << out;  // + 2 x 2 x 2 clipped cells
}

TEST(AddShape, DiskOfElevenCellsDiameterSpansElevenCells) {
    TempDir d;
    // Diameter 11 cells from X0 = 0: a = 5, centre 5; columns 0..10 along the centre row.
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n12 12 1\nADD_SHAPE\n4\n11 11 1 0 0 0 1\n"
                                "MASQUE_SAVE\n3\nm.txt\nMASQUE_INFO\nEND\n");
    const std::string m = d.read("m.txt");
    EXPECT_NE(out.find("MASQUE_INFO ok"), std::string::npos);
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
    EXPECT_NE(out.find(" STUDY_SHAPE ok 12\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" 12 2 1 1\n"), std::string::npos) << out;
    // Sphere of diameter 3 cells: radius 1 about the centre cell -> 7 cells.
    EXPECT_NE(out.find(" STUDY_SHAPE ok 7\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" STUDY_SHAPE ok 0\n"), std::string::npos) << out;
}

TEST(Timestep, PositiveValueIsKeptTimesGyroAndPrintedWithout) {
    TempDir d;
    const std::string out = run(d, "SET_GYRO\n2\nSET_TIMESTEP\n0.01\nSET_GYRO\n4\nSET_TIMESTEP\n0.5\nEND\n");
    EXPECT_NE(out.find(" timestep= 0.01\n SET_TIMESTEP ok\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" timestep= 0.5\n"), std::string::npos) << out;
}

TEST(SetScale, CoarseNumberingIsKeptAndMapWritten) {
    TempDir d;
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n4 2 1\nADD_SHAPE\n3\n4 2 1 0 0 0 1\n"
                                "SET_SCALE\n2 2 1\nSET_SCALE_R\n0.5 1 1\nEND\n");
    EXPECT_NE(out.find(" SET_SCALE ok 2\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" SET_SCALE ok 8\n"), std::string::npos) << out;
    EXPECT_EQ(d.read("numbering.txt"), " 1 1 1 1\n 1 1 1 1\n");
}

TEST(Script, UnknownKeywordsAndSelectorsAreHarmless) {
    TempDir d;
    const std::string out = run(d,
                                "SET_CELL\n1 1 1\nMASQUE_CREATE\n3 3 1\nEIGEN_SAVE\nend\n"
                                "ADD_SHAPE\n17\nMASQUE_SAVE\n9\nx.bin\n\n\nMASQUE_INFO extra words\nEND\n");
    EXPECT_NE(out.find(" ADD_SHAPE ok\n MASQUE_SAVE ok\n 0 2 2 0\n MASQUE_INFO ok\n"), std::string::npos) << out;
    EXPECT_FALSE(d.exists("x.bin"));
}

TEST(Script, MissingCellSizesAbsurdGridsAndZeroBlocksAreFatal) {
    TempDir d;
    EXPECT_THROW(run(d, "MASQUE_CREATE\n1 1 1\nEND\n"), FatalError);
    EXPECT_THROW(run(d, "SET_CELL\n1e-7 1e-7 1e-7\nMASQUE_CREATE\n1 1 1\nEND\n"), FatalError);
    EXPECT_THROW(run(d, "SET_CELL\n1 1 1\nMASQUE_CREATE\n2 2 1\nSET_SCALE\n0 1 1\nEND\n"), FatalError);
}
