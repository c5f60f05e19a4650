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

TEST(ListReader, KeywordSkipsBlankLinesAndIsCut) {
    TempDir dir;
    const std::string longtok(300, 'A');
    const auto p = dir.write("s.txt", "\n   \n" + longtok + "\n");
    ListReader in(p.string());
    auto kw = in.keyword();
    ASSERT_TRUE(kw);
    EXPECT_EQ(kw->size(), 255u);
    EXPECT_EQ(in.line(), 3);
}

TEST(ListReader, ErrorsNameFileLineContextAndFoundText) {
    TempDir dir;
    const auto p = dir.write("input.dat", "MASQUE_CREATE\n1e-6 abc 3\n");
    ListReader in(p.string(), "input.dat");
    in.keyword();
    in.begin("MASQUE_CREATE");
    in.f64("Lx");
    try {
        in.f64("Ly");
        FAIL() << "no error";
    } catch (const FatalError& e) {
        EXPECT_STREQ(e.what(), "input.dat:2: MASQUE_CREATE: expected a real number for Ly, found \"abc\"");
    }
}

TEST(ListReader, EndOfFileInsideAStatement) {
    TempDir dir;
    const auto p = dir.write("input.dat", "SET_CELL\n1 2\n");
    ListReader in(p.string(), "input.dat");
    in.keyword();
    in.begin("SET_CELL");
    in.f64("dx");
    in.f64("dy");
    try {
        in.f64("dz");
        FAIL() << "no error";
    } catch (const FatalError& e) {
        EXPECT_STREQ(e.what(), "input.dat:2: SET_CELL: expected a real number for dz, found end of file");
    }
}

TEST(ListReader, LongNamesAreCut) {
    TempDir dir;
    const auto p = dir.write("s.txt", "'" + std::string(400, 'n') + "'\n");
    ListReader in(p.string());
    in.begin("X");
    EXPECT_EQ(in.name("file").size(), 255u);
}
