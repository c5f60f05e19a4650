// End-to-end cases: every folder under tests/cases holds an input.dat that
// the built program runs in a scratch directory.  expect.txt lists lines that
// must appear on standard output in that order; `status` the exit code
// (default 0); stderr.txt the exact standard error (without it, standard
// error may hold only the model summary and the equilibrium lines, no
// warning; those two kinds of line are left out of the comparison);
// warnings.txt the warning lines that standard error must hold besides
// (left out of the comparison too); files/ the files that must be produced
// byte for byte; exists.txt lines "yes NAME" or "no NAME" for files that
// must or must not be there after the run (e.g. none written by a refused
// command, those of the commands before it kept).  Other files in the
// folder are inputs.  The program reads input.dat up to END: lines after it
// say why the expectations hold.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "test_util.hpp"

namespace fs = std::filesystem;
using namespace torix;

namespace {

std::vector<std::string> case_names() {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(TORIX_CASES))
        if (e.is_directory() && fs::exists(e.path() / "input.dat")) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The model summary and the equilibrium lines: what every run may write on
// standard error beside its warnings and errors.
bool is_note(const std::string& l) {
    const bool summary = l.rfind("model: ", 0) == 0 && l.find("warning") == std::string::npos;
    return summary || l.find(": equilibrium: largest |m x H|/|H| ") != std::string::npos;
}

// Standard error without the notes and without the warnings the case
// expects (each of which must be there).
std::string without_notes(const std::string& text, const std::vector<std::string>& warnings) {
    std::string out;
    const auto got = lines_of(text);
    for (const std::string& w : warnings)
        EXPECT_NE(std::find(got.begin(), got.end(), w), got.end()) << "missing warning \"" << w << "\"";
    for (const std::string& l : got)
        if (!is_note(l) && std::find(warnings.begin(), warnings.end(), l) == warnings.end()) out += l + "\n";
    return out;
}

class Case : public ::testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(Case, Runs) {
    const fs::path src = fs::path(TORIX_CASES) / GetParam();
    TempDir dir;
    for (const auto& e : fs::directory_iterator(src)) {
        const std::string n = e.path().filename().string();
        if (n == "expect.txt" || n == "status" || n == "stderr.txt" || n == "warnings.txt" || n == "files" ||
            n == "exists.txt")
            continue;
        fs::copy(e.path(), dir.path() / n, fs::copy_options::recursive);
    }
    const RunResult r = run_torix(dir);

    int want_status = 0;
    if (fs::exists(src / "status")) want_status = std::stoi(read_file(src / "status"));
    EXPECT_EQ(r.status, want_status) << "stderr: " << r.err;

    std::vector<std::string> warnings;
    if (fs::exists(src / "warnings.txt")) warnings = lines_of(read_file(src / "warnings.txt"));
    if (fs::exists(src / "stderr.txt")) {
        EXPECT_EQ(without_notes(r.err, warnings), read_file(src / "stderr.txt"));
    } else if (want_status == 0) {
        EXPECT_EQ(without_notes(r.err, warnings), "");
    }

    if (fs::exists(src / "expect.txt")) {
        const auto got = lines_of(r.out);
        std::size_t at = 0;
        for (const std::string& want : lines_of(read_file(src / "expect.txt"))) {
            auto it = std::find(got.begin() + static_cast<std::ptrdiff_t>(at), got.end(), want);
            ASSERT_NE(it, got.end()) << "missing (in order) stdout line \"" << want << "\"\nstdout was:\n" << r.out;
            at = static_cast<std::size_t>(it - got.begin()) + 1;
        }
    }
    if (fs::exists(src / "files"))
        for (const auto& e : fs::recursive_directory_iterator(src / "files")) {
            if (!e.is_regular_file()) continue;
            const fs::path rel = fs::relative(e.path(), src / "files");
            ASSERT_TRUE(fs::exists(dir.path() / rel)) << rel << " was not written";
            EXPECT_TRUE(read_file(e.path()) == read_file(dir.path() / rel)) << rel << " differs";
        }
    if (fs::exists(src / "exists.txt")) {
        for (const std::string& l : lines_of(read_file(src / "exists.txt"))) {
            EXPECT_EQ(dir.exists(l.substr(l.find(' ') + 1)), l.rfind("yes ", 0) == 0) << l;
        }
    }
    // No temporary file is ever left behind.
    for (const auto& e : fs::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();
}

INSTANTIATE_TEST_SUITE_P(Cases, Case, ::testing::ValuesIn(case_names()),
                         [](const ::testing::TestParamInfo<std::string>& i) {
                             std::string n = i.param;
                             for (char& c : n)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return n;
                         });

TEST(Program, MissingScriptIsAClearError) {
    TempDir dir;
    const RunResult r = run_torix(dir);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(holds(r.err, {"input.dat"}));
}

TEST(Program, BannerThenAcknowledgements) {
    TempDir dir;
    dir.write("input.dat", "SET_BETA\n0.5\nEND\n");
    const RunResult r = run_torix(dir);
    EXPECT_EQ(r.status, 0);
    const auto l = lines_of(r.out);
    ASSERT_EQ(l.size(), 4u) << r.out;
    EXPECT_EQ(l[0], " TORIX version 2.0");
    EXPECT_FALSE(l[1].empty());
    EXPECT_EQ(l[2], "");
    EXPECT_EQ(l[3], " SET_BETA ok");
}
