#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/progress.hpp"

using namespace torix;

namespace {

// A clock the test moves by hand, and the lines the reporter wrote.
struct FakeOutput {
    double t = 100.0;
    std::vector<std::string> lines;
    ProgressOutput make(bool terminal) {
        return ProgressOutput{[this] { return t; }, [this](const std::string& s) { lines.push_back(s); }, terminal};
    }
};

// Calls show() every `step` seconds from 0 to `until` (exclusive) and returns
// the times at which something was written.
std::vector<double> shown_at(bool terminal, double step, double until, FakeOutput& f) {
    std::vector<double> at;
    {
        Progress p("WORK", f.make(terminal));
        const double t0 = f.t;
        for (double s = 0.0; s < until; s += step) {
            f.t = t0 + s;
            const std::size_t before = f.lines.size();
            p.show("x");
            if (f.lines.size() > before) at.push_back(s);
        }
    }
    return at;
}

}  // namespace

TEST(Progress, ShortWorkShowsNothing) {
    for (bool terminal : {false, true}) {
        FakeOutput f;
        EXPECT_TRUE(shown_at(terminal, 0.01, 1.99, f).empty());
        EXPECT_TRUE(f.lines.empty()) << terminal;  // not even the clearing of the line
    }
}

TEST(Progress, LogGetsPlainLinesEveryTenSeconds) {
    FakeOutput f;
    const std::vector<double> at = shown_at(false, 0.25, 35.0, f);
    ASSERT_EQ(at.size(), 4u);
    EXPECT_DOUBLE_EQ(at[0], 2.0);
    EXPECT_DOUBLE_EQ(at[1], 12.0);
    EXPECT_DOUBLE_EQ(at[2], 22.0);
    EXPECT_DOUBLE_EQ(at[3], 32.0);
    ASSERT_EQ(f.lines.size(), 4u);  // no clearing at the end of a log
    EXPECT_EQ(f.lines[0], "WORK: x\n");
}

TEST(Progress, TerminalLineUpdatesInPlaceOncePerSecondAndIsCleared) {
    FakeOutput f;
    const std::vector<double> at = shown_at(true, 0.1, 5.05, f);
    ASSERT_EQ(at.size(), 4u);  // 2, 3, 4, 5 s
    for (std::size_t i = 1; i < at.size(); ++i) EXPECT_NEAR(at[i] - at[i - 1], 1.0, 0.1 + 1e-9);
    ASSERT_EQ(f.lines.size(), 5u);
    EXPECT_EQ(f.lines[0], "\rWORK: x\x1b[K");
    EXPECT_EQ(f.lines.back(), "\r\x1b[K");
    for (const std::string& l : f.lines) EXPECT_EQ(l.find('\n'), std::string::npos);
}

TEST(Progress, FractionAndDurations) {
    FakeOutput f;
    {
        Progress p("TENSOR_CREATE", f.make(false));
        EXPECT_FALSE(p.due());
        f.t += 65.0;
        EXPECT_TRUE(p.due());
        p.fraction(0.4567, "planes");
        EXPECT_FALSE(p.due());  // the line was just shown
    }
    ASSERT_EQ(f.lines.size(), 1u);
    EXPECT_EQ(f.lines[0], "TENSOR_CREATE: 46 % done after 1 min 05 s, planes\n");
    EXPECT_EQ(format_duration(3.04), "3.0 s");
    EXPECT_EQ(format_duration(7325.0), "2 h 02 min");
}
