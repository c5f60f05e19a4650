#include "core/records.hpp"

#include <bit>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <unistd.h>

#include "core/error.hpp"
#include "core/interrupt.hpp"
#include "core/ranks.hpp"

namespace torix {

AtomicFile::AtomicFile(const std::string& name, bool binary)
    : name_(name), tmp_(name + ".tmp-" + std::to_string(::getpid())) {
    if (my_rank() != 0) {
        // Rank 0 writes the run's files; the others' copies are dropped.
        tmp_ = "/dev/null";
        out_.open(tmp_);
        dropped_ = true;
        return;
    }
    slot_ = register_temporary(tmp_);  // before the file exists
    out_.open(tmp_, binary ? std::ios::binary | std::ios::trunc : std::ios::trunc);
    if (!out_) {
        release_temporary(slot_);
        done_ = true;
        throw FatalError(name_ + ": cannot open file for writing");
    }
}

AtomicFile::~AtomicFile() {
    if (dropped_) return;
    if (!done_) {
        out_.close();
        std::remove(tmp_.c_str());
    }
    release_temporary(slot_);
}

void AtomicFile::commit() {
    if (dropped_) {
        out_.close();
        done_ = true;
        return;
    }
    out_.flush();
    const bool ok = static_cast<bool>(out_);
    out_.close();
    if (!ok || std::rename(tmp_.c_str(), name_.c_str()) != 0) {
        std::remove(tmp_.c_str());
        done_ = true;
        throw FatalError(name_ + ": write failed");
    }
    done_ = true;
}

RecordWriter::RecordWriter(const std::string& name, std::size_t record_length)
    : file_(name, true), reclen_(record_length) {
    buf_.reserve(reclen_);
}

void RecordWriter::i32(std::int32_t v) {
    const auto u = static_cast<std::uint32_t>(v);
    for (int b = 0; b < 4; ++b) buf_.push_back(static_cast<unsigned char>(u >> (8 * b)));
}

void RecordWriter::f64(double v) {
    const auto u = std::bit_cast<std::uint64_t>(v);
    for (int b = 0; b < 8; ++b) buf_.push_back(static_cast<unsigned char>(u >> (8 * b)));
}

void RecordWriter::end_record() {
    if (buf_.size() > reclen_) throw FatalError(file_.name() + ": record longer than its record length");
    buf_.resize(reclen_, 0);
    file_.stream().write(reinterpret_cast<const char*>(buf_.data()), static_cast<std::streamsize>(buf_.size()));
    buf_.clear();
}

void RecordWriter::commit() { file_.commit(); }

RecordReader::RecordReader(const std::string& name, std::size_t record_length) : name_(name), reclen_(record_length) {
    std::ifstream in(name, std::ios::binary);
    if (!in) throw FatalError(name + ": cannot open file for reading");
    std::error_code ec;
    if (std::filesystem::is_directory(name, ec)) throw FatalError(name + ": is a directory, not a file");
    bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    nrec_ = static_cast<std::int64_t>(bytes_.size() / reclen_);
}

void RecordReader::fail(const std::string& message) const { throw FatalError(name_ + ": " + message); }

void RecordReader::require(std::int64_t n, const std::string& what) const {
    if (n > nrec_)
        fail(what + " needs " + std::to_string(n) + " records of " + std::to_string(reclen_) + " bytes, the file holds " +
             std::to_string(nrec_) + " (" + std::to_string(bytes_.size()) + " bytes)");
}

void RecordReader::seek(std::int64_t n) {
    if (n < 1 || n > nrec_)
        fail("record " + std::to_string(n) + " is beyond the end of the file (" + std::to_string(nrec_) + " records)");
    rec_ = n;
    pos_ = static_cast<std::size_t>(n - 1) * reclen_;
}

std::int32_t RecordReader::i32() {
    if (pos_ + 4 > static_cast<std::size_t>(rec_) * reclen_) fail("read past the end of record " + std::to_string(rec_));
    std::uint32_t u = 0;
    for (int b = 0; b < 4; ++b) u |= static_cast<std::uint32_t>(bytes_[pos_ + b]) << (8 * b);
    pos_ += 4;
    return static_cast<std::int32_t>(u);
}

double RecordReader::f64() {
    if (pos_ + 8 > static_cast<std::size_t>(rec_) * reclen_) fail("read past the end of record " + std::to_string(rec_));
    std::uint64_t u = 0;
    for (int b = 0; b < 8; ++b) u |= static_cast<std::uint64_t>(bytes_[pos_ + b]) << (8 * b);
    pos_ += 8;
    return std::bit_cast<double>(u);
}

}  // namespace torix
