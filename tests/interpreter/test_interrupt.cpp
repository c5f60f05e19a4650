// Interrupts end to end: the program is started on a long script, signalled
// in the middle of a command, and must end with 128 + the signal number, a
// message naming the command and its script line, no temporary file, and
// the files written before untouched.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_util.hpp"

namespace torix {
namespace {

// The program running in a directory, stdout and stderr to files there.
class Running {
public:
    explicit Running(const TempDir& dir) {
        pid_ = ::fork();
        if (pid_ == 0) {
            if (::chdir(dir.path().c_str()) != 0) ::_exit(99);
            const int out = ::open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = ::open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(out, 1);
            ::dup2(err, 2);
            ::setenv("OMP_NUM_THREADS", "2", 1);
            ::execl(TORIX_BIN, TORIX_BIN, static_cast<char*>(nullptr));
            ::_exit(98);
        }
    }
    ~Running() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    // Polls until pred() holds or the program ends; false after `limit`.
    template <class Pred>
    bool wait_until(Pred pred, std::chrono::seconds limit = std::chrono::seconds(60)) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            if (pred()) return true;
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                reaped_ = true;
                return pred();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }
    // Sends sig and returns the exit status, or -1 when the program did not
    // end within the guard time (a hang, not a speed measurement).
    int signal_and_wait(int sig) {
        if (reaped_) return -2;
        ::kill(pid_, sig);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < end) {
            int st = 0;
            if (::waitpid(pid_, &st, WNOHANG) == pid_) {
                reaped_ = true;
                return WIFEXITED(st) ? WEXITSTATUS(st) : -3;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// Whether a temporary of `name` (any file when empty) is in the directory.
bool has_temporary(const TempDir& dir, const std::string& name = "") {
    for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
        const std::string f = e.path().filename().string();
        if (f.find(".tmp-") != std::string::npos && f.rfind(name, 0) == 0) return true;
    }
    return false;
}

// Signals the program and checks the end: exit status 128 + sig, the
// message on standard error, no temporary file left.
void expect_interrupted(Running& run, const TempDir& dir, int sig, const std::string& message) {
    EXPECT_EQ(run.signal_and_wait(sig), 128 + sig);
    EXPECT_TRUE(holds(dir.read("stderr.txt"), {message}));
    EXPECT_FALSE(has_temporary(dir));
}

// The FMR standard problem's platelet (1152 cells): mask saved first.
const std::string kPlatelet =
    "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\nMASQUE_CREATE\n120e-7 120e-7 10e-7\n"
    "ADD_SHAPE\n3\n120e-7 120e-7 10e-7 0 0 0 1\nMASQUE_SAVE\n1\nmask.txt\nTENSOR_CREATE\n0\n"
    "INIT_M\n2\n1 0.7 0\nADD_EXT_FIELD\n1\n823.3 576.3 0\n";  // 21 lines

// The mask file as a finished run writes it.
std::string reference_mask() {
    TempDir ref;
    ref.write("input.dat", kPlatelet + "END\n");
    EXPECT_EQ(run_torix(ref).status, 0);
    return ref.read("mask.txt");
}

TEST(Interrupt, SigintInsideTheDenseSolveEndsTheRun) {
    TempDir dir;
    dir.write("input.dat", kPlatelet + "RELAX\n1 1e-6 0.1\nSOLVE_MATRIX\n10\nEND\n");
    Running run(dir);
    ASSERT_TRUE(run.wait_until([&] { return dir.read("stdout.txt").find("matrix prepared in") != std::string::npos; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // inside dgeevx (seconds at order 2304)
    expect_interrupted(run, dir, SIGINT, "input.dat:24: SOLVE_MATRIX: interrupted by SIGINT");
    EXPECT_FALSE(dir.exists("eig.dat"));
    EXPECT_EQ(dir.read("mask.txt"), reference_mask());
    EXPECT_TRUE(dir.exists("001m.dat"));  // the relaxation's snapshot, written before
}

TEST(Interrupt, SigintWhileAFileIsWrittenRemovesItsTemporary) {
    TempDir dir;
    // A text tensor of 48 x 48 x 8 cells: 96 x 96 x 16 offsets, some seconds of writing.
    dir.write("input.dat",
              "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\nMASQUE_CREATE\n240e-7 240e-7 40e-7\n"
              "MASQUE_SAVE\n2\nmask.bin\nTENSOR_CREATE\n0\nTENSOR_SAVE\n1 1 tensor.txt\nEND\n");
    Running run(dir);
    ASSERT_TRUE(run.wait_until([&] { return has_temporary(dir, "tensor.txt"); }));
    const std::string mask = dir.read("mask.bin");
    expect_interrupted(run, dir, SIGINT, "input.dat:13: TENSOR_SAVE: interrupted by SIGINT");
    EXPECT_FALSE(dir.exists("tensor.txt"));
    EXPECT_FALSE(mask.empty());
    EXPECT_EQ(dir.read("mask.bin"), mask) << "the finished mask file changed";
}

// The alignment with alpha = 0.5 never ends on these cells: the stall warning
// comes first, then SIGTERM ends the run.
TEST(Interrupt, SigtermAfterTheStallWarningOfARelaxation) {
    TempDir dir;
    dir.write("input.dat", kPlatelet + "RELAX\n1 1e-9 0.5\nEND\n");
    Running run(dir);
    ASSERT_TRUE(run.wait_until([&] { return dir.read("stderr.txt").find("try alpha = 0.125") != std::string::npos; }))
        << dir.read("stderr.txt");
    expect_interrupted(run, dir, SIGTERM, "input.dat:22: RELAX: interrupted by SIGTERM");
    EXPECT_EQ(dir.read("mask.txt"), reference_mask());
}

// A sweep keeps the table of its finished steps: rewritten whole after each
// step, it is never seen half written.
TEST(Interrupt, SigintDuringAFieldSweepKeepsTheFinishedSteps) {
    TempDir dir;
    dir.write("input.dat",
              "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\nMASQUE_CREATE\n40e-7 40e-7 5e-7\n"
              "ADD_SHAPE\n3\n40e-7 40e-7 5e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n2\n1 0 0\nRELAX\n1 1e-9 0.1\n"
              "SWEEP_FIELD\n3000 0 0 0 0 0 2000\n4 1 0\nsweep.txt\nEND\n");
    Running run(dir);
    ASSERT_TRUE(run.wait_until([&] { return number_rows(dir.read("sweep.txt")).size() >= 3; }))
        << dir.read("stderr.txt");
    expect_interrupted(run, dir, SIGINT, "input.dat:18: SWEEP_FIELD: interrupted by SIGINT");
    // Whole rows of the steps done: step numbers 0, 1, ... each with the
    // columns of its header.
    const std::string table = dir.read("sweep.txt");
    const std::string head = table.substr(table.find("# step"));
    std::istringstream hs(head.substr(0, head.find('\n')));
    const std::size_t columns = std::distance(std::istream_iterator<std::string>(hs), {}) - 1;
    const auto rows = number_rows(table);
    for (std::size_t step = 0; step < rows.size(); ++step) {
        EXPECT_EQ(rows[step].size(), columns) << step;
        EXPECT_EQ(rows[step][0], static_cast<double>(step));
    }
    EXPECT_GE(rows.size(), 3u);
    EXPECT_LT(rows.size(), 2001u);
}

// The OpenMP runtime reads its wait policy before main: the program starts
// itself again with a passive policy when none is set, once, and keeps a
// policy the environment sets.  The GNU runtime's report of its settings
// (OMP_DISPLAY_ENV=verbose) shows how long a waiting thread spins: 300000
// by default, 0 with the passive policy.  Its last report is that of the
// process that ran the script.
std::string last_line_with(const std::string& err, const std::string& what) {
    std::string last;
    std::istringstream in(err);
    for (std::string l; std::getline(in, l);)
        if (l.find(what) != std::string::npos) last = l;
    return last;
}

TEST(Runtime, WaitPolicyIsPassiveUnlessTheEnvironmentSetsOne) {
    for (const std::string policy : {"", "ACTIVE"}) {
        TempDir dir;
        dir.write("input.dat", "MASQUE_INFO\nEND\n");
        const std::string env = policy.empty() ? "env -u OMP_WAIT_POLICY" : "env OMP_WAIT_POLICY=" + policy;
        const std::string cmd = "cd '" + dir.path().string() + "' && " + env + " OMP_DISPLAY_ENV=verbose '" TORIX_BIN
                                "' > stdout.txt 2> stderr.txt";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << dir.read("stderr.txt");
        const std::string err = dir.read("stderr.txt");
        if (policy.empty())
            EXPECT_NE(last_line_with(err, "GOMP_SPINCOUNT").find("'0'"), std::string::npos) << err;
        else
            EXPECT_NE(last_line_with(err, "OMP_WAIT_POLICY").find(policy), std::string::npos) << err;
        const std::string out = dir.read("stdout.txt");
        EXPECT_EQ(out.find("TORIX version 2.0"), out.rfind("TORIX version 2.0")) << "started twice: " << out;
        EXPECT_TRUE(holds(out, {" MASQUE_INFO"}));
    }
}

}  // namespace
}  // namespace torix
