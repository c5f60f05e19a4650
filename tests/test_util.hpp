#pragma once
// Helpers shared by the test programs: scratch directories, scripts run
// in-process or by the built program, and the checks and readers of files
// and console text that many tests use.
#include <array>
#include <bit>
#include <cstdint>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>
#include <unistd.h>
#include <omp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "core/array.hpp"
#include "core/error.hpp"
#include "interpreter/command_table.hpp"
#include "interpreter/model_state.hpp"

namespace torix {

// A 1-based table of per-material values, e.g. MS or A.
inline Array<double, 1> table(std::initializer_list<double> v) {
    Array<double, 1> t({Range{1, static_cast<int>(v.size())}}, 0.0);
    int i = 1;
    for (double x : v) t(i++) = x;
    return t;
}

// Calls fn(i, j, k) for every cell of (0:nx, 0:ny, 0:nz), i fastest.
template <class Fn>
void for_cells(int nx, int ny, int nz, Fn&& fn) {
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) fn(i, j, k);
}

// fn() run on one thread equals fn() run on each of `threads`: how the work
// is shared out must not change a single bit.
template <class Fn>
void expect_thread_independent(Fn&& fn, std::initializer_list<int> threads = {3}) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    const auto one = fn();
    for (int t : threads) {
        omp_set_num_threads(t);
        EXPECT_TRUE(fn() == one) << t << " threads";
    }
    omp_set_num_threads(saved);
}

// The little-endian 32-bit integer and 64-bit real at byte `at` of a file's bytes.
inline std::uint64_t le_bits(const std::string& s, std::size_t at, int bytes) {
    std::uint64_t u = 0;
    for (int b = 0; b < bytes; ++b)
        u |= static_cast<std::uint64_t>(static_cast<unsigned char>(s.at(at + b))) << (8 * b);
    return u;
}
inline std::int32_t le_int(const std::string& s, std::size_t at) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(le_bits(s, at, 4)));
}
inline double le_real(const std::string& s, std::size_t at) { return std::bit_cast<double>(le_bits(s, at, 8)); }

// Whether `text` holds each of `parts`, in this order.
inline ::testing::AssertionResult holds(const std::string& text, const std::vector<std::string>& parts) {
    std::size_t at = 0;
    for (const std::string& p : parts) {
        if ((at = text.find(p, at)) == std::string::npos)
            return ::testing::AssertionFailure() << "\"" << p << "\" missing (in this order) in:\n" << text;
        at += p.size();
    }
    return ::testing::AssertionSuccess();
}

// The message of the FatalError that fn throws; "no error" when it throws none.
template <class Fn>
std::string fatal_message(Fn&& fn) {
    try {
        fn();
    } catch (const FatalError& e) {
        return e.what();
    }
    return "no error";
}

// What fn writes on std::cout; the stream is restored even when fn throws.
template <class Fn>
std::string captured_cout(Fn&& fn) {
    std::ostringstream cap;
    struct Restore {
        std::streambuf* old;
        ~Restore() { std::cout.rdbuf(old); }
    } restore{std::cout.rdbuf(cap.rdbuf())};
    fn();
    return cap.str();
}

// The whole content of a file ("" when it cannot be read), and a text's lines.
inline std::string read_file(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// A fresh directory under the system temp dir, removed with its contents.
class TempDir {
public:
    TempDir() {
        std::random_device rd;
        path_ = std::filesystem::temp_directory_path() /
                ("torix-test-" + std::to_string(::getpid()) + "-" + std::to_string(rd()));
        std::filesystem::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& n) const { return path_ / n; }
    std::filesystem::path write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ / name, std::ios::binary) << text;
        return path_ / name;
    }
    [[nodiscard]] std::string read(const std::string& name) const { return read_file(path_ / name); }
    [[nodiscard]] bool exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }

private:
    std::filesystem::path path_;
};

// How many times `what` occurs in `text` (overlaps counted).
inline std::size_t count_of(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// The rows of numbers of a table whose comment lines start with '#'
// ("nan" and "-nan" read as not a number).
inline std::vector<std::vector<double>> number_rows(const std::string& text) {
    std::vector<std::vector<double>> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream items(line);
        std::vector<double> r;
        for (std::string t; items >> t;) r.push_back(t == "nan" || t == "-nan" ? std::nan("") : std::stod(t));
        out.push_back(r);
    }
    return out;
}

// Makes `dir` the working directory for its lifetime.
class InDir {
public:
    explicit InDir(const TempDir& dir) : old_(std::filesystem::current_path()) {
        std::filesystem::current_path(dir.path());
    }
    ~InDir() { std::filesystem::current_path(old_); }
    InDir(const InDir&) = delete;
    InDir& operator=(const InDir&) = delete;

private:
    std::filesystem::path old_;
};

// Runs `script` in-process as input.dat in `dir` on `st` and returns what
// it printed on std::cout; what it printed on std::cerr goes to *err when
// given.  A FatalError passes through, the streams and folder restored.
inline std::string run_in(const TempDir& dir, ModelState& st, const std::string& script, std::string* err = nullptr) {
    dir.write("input.dat", script);
    const InDir in(dir);
    std::ostringstream cerr_text;
    struct Restore {
        std::streambuf* old;
        ~Restore() { std::cerr.rdbuf(old); }
    } restore{std::cerr.rdbuf(cerr_text.rdbuf())};
    const std::string out = captured_cout([&] { run_script(st, "input.dat", "input.dat"); });
    if (err != nullptr) *err = cerr_text.str();
    return out;
}
inline std::string run_in(const TempDir& dir, const std::string& script) {
    ModelState st;
    return run_in(dir, st, script);
}

// Demagnetizing factor along z of a rectangular prism of sides proportional
// to a, b, c (along x, y, z), in the closed form of A. Aharoni, J. Appl.
// Phys. 83, 3432 (1998), eq. (1).
inline double aharoni_nz(double a, double b, double c) {
    const double r = std::sqrt(a * a + b * b + c * c);
    const double ab = std::sqrt(a * a + b * b), bc = std::sqrt(b * b + c * c), ac = std::sqrt(a * a + c * c);
    const double abc = a * b * c;
    const double s = (b * b - c * c) / (2 * b * c) * std::log((r - a) / (r + a)) +
                     (a * a - c * c) / (2 * a * c) * std::log((r - b) / (r + b)) +
                     b / (2 * c) * std::log((ab + a) / (ab - a)) + a / (2 * c) * std::log((ab + b) / (ab - b)) +
                     c / (2 * a) * std::log((bc - b) / (bc + b)) + c / (2 * b) * std::log((ac - a) / (ac + a)) +
                     2 * std::atan(a * b / (c * r)) + (a * a * a + b * b * b - 2 * c * c * c) / (3 * abc) +
                     (a * a + b * b - 2 * c * c) / (3 * abc) * r + c / (a * b) * (ac + bc) -
                     (std::pow(a * a + b * b, 1.5) + std::pow(b * b + c * c, 1.5) + std::pow(c * c + a * a, 1.5)) /
                         (3 * abc);
    return s / 3.14159265358979323846;
}

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the built program in `dir` (which holds input.dat) on `threads`
// threads, started by `launcher` (e.g. "mpirun -n 2") when given; without
// stdin, which a launcher would otherwise take from the caller.
inline RunResult run_torix(const TempDir& dir, int threads = 2, const std::string& launcher = {}) {
    const std::string cmd = "cd '" + dir.path().string() + "' && OMP_NUM_THREADS=" + std::to_string(threads) + " " +
                            launcher + " '" TORIX_BIN "' < /dev/null > stdout.txt 2> stderr.txt";
    const int rc = std::system(cmd.c_str());
    RunResult r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = dir.read("stdout.txt");
    r.err = dir.read("stderr.txt");
    return r;
}

}  // namespace torix
