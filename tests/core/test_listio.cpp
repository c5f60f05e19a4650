#include <gtest/gtest.h>

#include <fstream>

#include "core/error.hpp"
#include "core/listio.hpp"
#include "test_util.hpp"

using namespace torix;

TEST(ParseReal, AcceptsFortranNotations) {
    EXPECT_EQ(parse_real("3"), 3.0);
    EXPECT_EQ(parse_real("-2"), -2.0);
    EXPECT_EQ(parse_real("1.5"), 1.5);
    EXPECT_EQ(parse_real(".5"), 0.5);
    EXPECT_EQ(parse_real("5."), 5.0);
    EXPECT_EQ(parse_real("5e-7"), 5e-7);
    EXPECT_EQ(parse_real("5.0D-7"), 5e-7);
    EXPECT_EQ(parse_real("1d3"), 1000.0);
    EXPECT_EQ(parse_real("+2.5E+2"), 250.0);
}

TEST(ParseReal, RejectsWhatIsNotANumber) {
    for (const char* bad : {"abc", "", ".", "1e", "1.2.3", "0x10", "1e5x", "--1", "e5", "1,5"})
        EXPECT_FALSE(parse_real(bad).has_value()) << bad;
}

TEST(ParseInt, RangeAndForm) {
    EXPECT_EQ(parse_int("42"), 42);
    EXPECT_EQ(parse_int("-7"), -7);
    EXPECT_EQ(parse_int("+7"), 7);
    EXPECT_EQ(parse_int("2147483647"), 2147483647);
    EXPECT_EQ(parse_int("-2147483648"), -2147483647 - 1);
    EXPECT_FALSE(parse_int("2147483648"));
    EXPECT_FALSE(parse_int("1.5"));
    EXPECT_FALSE(parse_int("1e3"));
    EXPECT_FALSE(parse_int("x"));
}

TEST(SplitItems, SeparatorsAndQuotes) {
    using V = std::vector<std::string>;
    EXPECT_EQ(split_items("  1,2\t3 ,  4\r"), (V{"1", "2", "3", "4"}));
    EXPECT_EQ(split_items("'my file.dat' 2"), (V{"my file.dat", "2"}));
    EXPECT_EQ(split_items("\"x\",'it''s'"), (V{"x", "it's"}));
    EXPECT_EQ(split_items("'unterminated rest"), (V{"unterminated rest"}));
    EXPECT_EQ(split_items(""), V{});
}

TEST(ListReader, StatementsConsumeWholeLinesAndContinue) {
    TempDir dir;
    const auto p = dir.write("s.txt", "KEY extra words\r\n1 2 3 ignored\r\n\r\n4\r\n5.0D0\r\n6 'a b' 7\r\n");
    ListReader in(p.string(), "s.txt");
    EXPECT_EQ(in.keyword(), "KEY");
    in.begin("KEY");
    EXPECT_EQ(in.i32("a"), 1);
    EXPECT_EQ(in.i32("b"), 2);
    in.begin("KEY");  // "3 ignored" dropped
    EXPECT_EQ(in.i32("c"), 4);
    EXPECT_EQ(in.f64("d"), 5.0);  // continues onto the next line, blank line skipped
    EXPECT_EQ(in.line(), 5);
    in.begin("KEY");
    EXPECT_EQ(in.i32("e"), 6);
    EXPECT_EQ(in.name("f"), "a b");
    EXPECT_FALSE(in.keyword().has_value());
}

TEST(ListReader, KeywordSkipsBlankLinesAndKeywordsAndNamesAreCut) {
    TempDir dir;
    const auto p = dir.write("s.txt", "\n   \n" + std::string(300, 'A') + "\n'" + std::string(400, 'n') + "'\n");
    ListReader in(p.string());
    auto kw = in.keyword();
    ASSERT_TRUE(kw);
    EXPECT_EQ(kw->size(), 255u);
    EXPECT_EQ(in.line(), 3);
    in.begin("A");
    EXPECT_EQ(in.name("file").size(), 255u);
}

TEST(ListReader, ErrorsNameFileLineContextAndFoundText) {
    TempDir dir;
    struct Case {
        const char *text, *keyword, *want;
        int reads;  // reals read before the failing one
    };
    for (const Case c : {Case{"MASQUE_CREATE\n1e-6 abc 3\n", "MASQUE_CREATE",
                              "input.dat:2: MASQUE_CREATE: expected a real number for b, found \"abc\"", 1},
                         Case{"SET_CELL\n1 2\n", "SET_CELL",
                              "input.dat:2: SET_CELL: expected a real number for c, found end of file", 2}}) {
        const auto p = dir.write("input.dat", c.text);
        ListReader in(p.string(), "input.dat");
        in.keyword();
        in.begin(c.keyword);
        for (int r = 0; r < c.reads; ++r) in.f64("a");
        EXPECT_EQ(fatal_message([&] { in.f64(c.reads == 1 ? "b" : "c"); }), c.want);
    }
}

TEST(ListReader, DirectoriesAndEmptyNamesAreClearErrors) {
    TempDir dir;
    std::filesystem::create_directory(dir / "sub");
    const std::string sub = (dir / "sub").string();
    EXPECT_EQ(fatal_message([&] { ListReader in(sub); }), sub + ": is a directory, not a file");
    const auto p = dir.write("input.dat", "OMEGA_PRINT\n''\n");
    ListReader in(p.string(), "input.dat");
    in.keyword();
    in.begin("OMEGA_PRINT");
    EXPECT_EQ(fatal_message([&] { in.name("the file name"); }),
              "input.dat:2: OMEGA_PRINT: expected a name for the file name, found \"\"");
}
