// What the program tells the writer of a script on standard error.  Each
// mistake is run twice: as written, and as the program actually runs it
// (the skipped lines or ignored items taken out); standard output must be
// the same byte for byte, and standard error must name the line and say
// what is wrong.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interpreter/notices.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

struct Mistake {
    const char* what;
    std::string script;    // with the mistake
    std::string as_run;    // what the program makes of it
    std::vector<std::string> said;  // substrings of standard error, in order
};

const std::string kHead = "SET_CELL\n10e-7 10e-7 10e-7\nLOAD_MAT\n1\n1.3e-6 800\nMASQUE_CREATE\n40e-7 40e-7 10e-7\n";

RunResult run_script_text(const std::string& text) {
    TempDir dir;
    dir.write("input.dat", text);
    return run_torix(dir);
}

}  // namespace

TEST(ScriptMistakes, ToldOnStandardErrorWithTheConsoleUnchanged) {
    const std::vector<Mistake> cases = {
        {"misspelt keyword",
         kHead + "ADD_EXT_FEILD\n1\n1000 0 0\nMASQUE_INFO\nEND\n",
         kHead + "MASQUE_INFO\nEND\n",
         {"input.dat:8: warning: line skipped: \"ADD_EXT_FEILD\" is not a command (did you mean ADD_EXT_FIELD?)",
          "input.dat:9: warning: line skipped: \"1\" is a number where a command keyword is expected",
          "input.dat:10: warning: line skipped: \"1000\" is a number"}},
        {"lower-case keyword",
         kHead + "masque_info\nMASQUE_INFO\nEND\n",
         kHead + "MASQUE_INFO\nEND\n",
         {"input.dat:8: warning: line skipped: \"masque_info\" is not a command: keywords are upper case (did you "
          "mean MASQUE_INFO?)"}},
        {"two parameter lines on one",
         kHead + "MASQUE_SAVE\n1 mask.txt\nSET_BETA\n0.1\nEND\n",
         kHead + "MASQUE_SAVE\n1\nSET_BETA\nEND\n",
         {"input.dat:9: warning: MASQUE_SAVE reads 1 item from this line; ignored: \"mask.txt\"",
          "input.dat:10: warning: the name \"SET_BETA\" for the file name of MASQUE_SAVE is a command keyword",
          "input.dat:11: warning: line skipped: \"0.1\" is a number"}},
        {"parameters on the keyword line",
         kHead + "SET_BETA 0.5\n0.5 0.25\nEND\n",
         kHead + "SET_BETA\n0.5\nEND\n",
         {"input.dat:8: warning: SET_BETA reads its parameters from the lines below it; ignored on this line: \"0.5\"",
          "input.dat:9: warning: SET_BETA reads 1 item from this line; ignored: \"0.25\""}},
        {"comment lines",
         "# a comment\n" + kHead + "! another\nEND\n",
         kHead + "END\n",
         {}},
    };
    for (const Mistake& m : cases) {
        SCOPED_TRACE(m.what);
        const RunResult bad = run_script_text(m.script);
        const RunResult good = run_script_text(m.as_run);
        EXPECT_EQ(bad.status, 0) << bad.err;
        EXPECT_EQ(bad.out, good.out);
        EXPECT_TRUE(holds(bad.err, m.said));
        if (m.said.empty()) {
            EXPECT_EQ(bad.err.find("warning"), std::string::npos) << bad.err;
        }
    }
}

TEST(ScriptMistakes, KeywordSuggestions) {
    const std::vector<std::string> names = {"SOLVE_MATRIX", "SOLVE_MATRIX_AR", "SET_CELL", "SET_BETA", "END",
                                            "M_SAVE", "H_SAVE"};
    EXPECT_EQ(closest_keyword("SOLVE_MATIRX", names), "SOLVE_MATRIX");  // a swap is one edit
    EXPECT_EQ(closest_keyword("solve_matrix_ar", names), "SOLVE_MATRIX_AR");
    EXPECT_EQ(closest_keyword("SET_CEL", names), "SET_CELL");
    EXPECT_EQ(closest_keyword("X_SAVE", names), "M_SAVE or H_SAVE");
    EXPECT_EQ(closest_keyword("EIGEN_SAVE", names), "");
    EXPECT_EQ(closest_keyword("ENDS", names), "END");
    EXPECT_EQ(closest_keyword("AND", names), "END");
    EXPECT_EQ(closest_keyword("ADN", names), "");  // two edits are too many for a short word
    EXPECT_EQ(edit_distance("ABCD", "BADC"), 2);
    EXPECT_EQ(edit_distance("", "ABC"), 3);
    EXPECT_EQ(edit_distance("KITTEN", "SITTING"), 3);
}

// An ellipse 200 x 100 nm on 5 nm cells: a = 19.5, b = 9.5 cells about a
// centre between cells; the rows next to the long axis reach |i - x0| <=
// 19.5 sqrt(1 - (0.5/9.5)^2) = 19.47, so 38 cells (190 nm), the columns
// next to the short axis |j - y0| <= 9.5 sqrt(1 - (0.5/19.5)^2) = 9.497,
// 18 cells (90 nm).  A box of whole cells paints exactly what is asked.
TEST(ModelSummary, PaintedExtentsMaterialsAndUnits) {
    const RunResult r = run_script_text(
        "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n2\n1.3e-6 800\n1.3e-11 8e5\nMASQUE_CREATE\n400e-7 100e-7 5e-7\n"
        "ADD_SHAPE\n4\n200e-7 100e-7 5e-7 0 0 0 1\nADD_SHAPE\n3\n100e-7 50e-7 5e-7 250e-7 0 0 2\nSET_BETA\n0\n"
        "END\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(holds(r.err,
                             {"model: grid 80 x 20 x 1 cells of 5 x 5 x 5 nm, 400 x 100 x 5 nm in all",
                              "shape 1 (elliptic disk, material 1): asked 200 x 100 x 5 nm, painted 190 x 90 x 5 nm",
                              "(smaller than asked", "shape 2 (box, material 2): asked 100 x 50 x 5 nm, painted 100 x "
                              "50 x 5 nm in 200 cells\n",
                              // l_ex = sqrt(1.3e-6 / (2 pi 800^2)) = 5.686 nm
                              "material 1: ", "MS 800 emu/cm^3, A 1.3e-06 erg/cm, exchange length 5.686 nm",
                              "warning: MS(2) = 8e+05 is above 2e4", "warning: A(2) = 1.3e-11 is outside"}));
    // Painted once: the summary comes after the set-up, before SET_BETA.
    EXPECT_EQ(r.err.find("model: grid"), r.err.rfind("model: grid"));
    const RunResult cm = run_script_text("SET_CELL\n5 5 5\nMASQUE_CREATE\n20 20 5\nEND\n");
    EXPECT_TRUE(holds(cm.err, {"warning: the cell size dx = 5 cm is above 1 cm"}));
}

// A row of four cells along x, magnetised along x: by the mirror
// symmetries of the row its demagnetizing field is along x too, so the
// state is an equilibrium whatever the applied field along x.  Against a
// strong field it is not a minimum, and with damping the solve finds
// growing modes (g = -beta f); along it it is stable.  Before any field evaluation the held field
// is zero, and the solve is warned about that.
TEST(SolveChecks, TorqueStaleFieldAndGrowingModes) {
    const std::string body =
        kHead + "SET_BETA\n0.01\nADD_SHAPE\n3\n40e-7 10e-7 10e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n2\n";
    const std::string against = body + "-1 0 0\nADD_EXT_FIELD\n1\n50000 0 0\nCALC_FIELD\nSOLVE_MATRIX\n4\nEND\n";
    const RunResult a = run_script_text(against);
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_TRUE(holds(a.err, {"SOLVE_MATRIX: equilibrium: largest |m x H|/|H| ", "SOLVE_MATRIX: warning: ",
                                 "4 modes grow (negative decay rate): 1 (g "}));
    EXPECT_EQ(a.err.find("not at equilibrium"), std::string::npos) << a.err;

    const RunResult along =
        run_script_text(body + "1 0 0\nADD_EXT_FIELD\n1\n50000 0 0\nCALC_FIELD\nSOLVE_MATRIX\n4\nEND\n");
    ASSERT_EQ(along.status, 0) << along.err;
    EXPECT_TRUE(holds(along.err, {"SOLVE_MATRIX: equilibrium: largest |m x H|/|H| "}));
    EXPECT_EQ(along.err.find("warning"), std::string::npos) << along.err;

    // Tilted, never relaxed, field never evaluated, then the applied field
    // changed after an evaluation.
    const RunResult tilted = run_script_text(body + "1 1 0\nCALC_FIELD\nSOLVE_MATRIX\n4\nEND\n");
    EXPECT_TRUE(holds(tilted.err, {"not at equilibrium"}));
    const RunResult zero = run_script_text(body + "1 0 0\nSOLVE_MATRIX\n4\nEND\n");
    EXPECT_TRUE(holds(zero.err, {"4 magnetic cells have no field"}));
    const RunResult stale =
        run_script_text(body + "1 0 0\nCALC_FIELD\nADD_EXT_FIELD\n1\n100 0 0\nSOLVE_MATRIX\n4\nEND\n");
    EXPECT_TRUE(holds(stale.err, {"the field held for the solve differs"}));
}
