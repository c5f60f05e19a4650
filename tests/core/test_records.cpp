#include <gtest/gtest.h>

#include "core/error.hpp"
#include "core/records.hpp"
#include "test_util.hpp"

using namespace torix;

TEST(Records, LittleEndianFixedLengthLayout) {
    TempDir dir;
    const std::string f = (dir / "r.bin").string();
    {
        RecordWriter w(f, 16);
        w.i32(1);
        w.i32(-2);
        w.end_record();
        w.f64(1.0);
        w.end_record();
        w.commit();
    }
    const std::string bytes = dir.read("r.bin");
    ASSERT_EQ(bytes.size(), 32u);
    const unsigned char expect[32] = {1, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0,
                                      0, 0, 0, 0, 0, 0, 0xf0, 0x3f, 0, 0, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 32; ++i) EXPECT_EQ(static_cast<unsigned char>(bytes[i]), expect[i]) << i;
    RecordReader r(f, 16);
    EXPECT_EQ(r.records(), 2);
    r.seek(2);
    EXPECT_EQ(r.f64(), 1.0);
    r.seek(1);
    EXPECT_EQ(r.i32(), 1);
    EXPECT_EQ(r.i32(), -2);
    EXPECT_THROW(r.seek(3), FatalError);
    EXPECT_THROW(r.require(3, "x"), FatalError);
}

TEST(Records, UncommittedWriteLeavesOldFileInPlace) {
    TempDir dir;
    dir.write("keep.bin", "old");
    {
        RecordWriter w((dir / "keep.bin").string(), 4);
        w.i32(7);
        w.end_record();
        // dropped without commit, as when a later step fails
    }
    EXPECT_EQ(dir.read("keep.bin"), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(Records, ADirectoryIsAClearErrorNotAStreamFailure) {
    TempDir dir;
    std::filesystem::create_directory(dir / "sub");
    const std::string sub = (dir / "sub").string();
    EXPECT_EQ(fatal_message([&] { RecordReader r(sub, 16); }), sub + ": is a directory, not a file");
}
