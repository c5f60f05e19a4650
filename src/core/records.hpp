#pragma once
// Files written whole or not at all, and binary files of fixed-length
// little-endian records (record numbers start at 1).
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace torix {

// Writes to "<name>.tmp-<pid>" and renames onto `name` in commit(); a file
// dropped without commit() is removed, so a failed write never replaces a
// good file.  The temporary name is registered with the interrupt handler
// while it exists, so an interrupted run leaves no temporary behind.  On a
// rank other than 0 the writes go nowhere (ranks.hpp).
class AtomicFile {
public:
    AtomicFile(const std::string& name, bool binary);
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();
    std::ofstream& stream() { return out_; }
    void commit();
    [[nodiscard]] const std::string& name() const { return name_; }

private:
    std::string name_;
    std::string tmp_;
    std::ofstream out_;
    int slot_ = -1;  // interrupt table slot of tmp_
    bool done_ = false;
    bool dropped_ = false;  // not rank 0: nothing is written
};

// Sequential writer of fixed-length records; a record is padded with zero
// bytes to the record length when it is ended.
class RecordWriter {
public:
    RecordWriter(const std::string& name, std::size_t record_length);
    void i32(std::int32_t v);
    void f64(double v);
    void end_record();
    void commit();

private:
    AtomicFile file_;
    std::size_t reclen_;
    std::vector<unsigned char> buf_;
};

// Reader of a whole fixed-length record file held in memory.  Reading a
// record beyond the end of the file is a FatalError naming file and record.
class RecordReader {
public:
    RecordReader(const std::string& name, std::size_t record_length);
    // Number of complete records in the file.
    [[nodiscard]] std::int64_t records() const { return nrec_; }
    // Positions at the start of record `n` (1-based).
    void seek(std::int64_t n);
    std::int32_t i32();
    double f64();
    // Throws unless records 1..n all exist: used to check a header count
    // against the file size before anything is stored.
    void require(std::int64_t n, const std::string& what) const;
    [[noreturn]] void fail(const std::string& message) const;
    [[nodiscard]] const std::string& name() const { return name_; }

private:
    std::string name_;
    std::size_t reclen_;
    std::vector<unsigned char> bytes_;
    std::int64_t nrec_ = 0;
    std::int64_t rec_ = 0;
    std::size_t pos_ = 0;
};

}  // namespace torix
