#include "eigen/dense_solve.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>

#include <omp.h>

#include "core/console.hpp"
#include "core/progress.hpp"

extern "C" void dgeevx_(const char* balanc, const char* jobvl, const char* jobvr, const char* sense, const int* n,
                        double* a, const int* lda, double* wr, double* wi, double* vl, const int* ldvl, double* vr,
                        const int* ldvr, int* ilo, int* ihi, double* scale, double* abnrm, double* rconde,
                        double* rcondv, double* work, const int* lwork, int* iwork, int* info, std::size_t,
                        std::size_t, std::size_t, std::size_t);

namespace torix {

namespace {

// dgeevx is one call that reports nothing while it runs; a watcher thread
// shows the elapsed time against the time expected from the order, n^3
// times the seconds per n^3 measured for this solve on a 2.1 GHz x86-64 core
// (order 2304 in about 10 s on one thread), shared by the threads.
class SolveWatcher {
public:
    explicit SolveWatcher(int n) : n_(n), thread_([this] { watch(); }) {}
    SolveWatcher(const SolveWatcher&) = delete;
    SolveWatcher& operator=(const SolveWatcher&) = delete;
    ~SolveWatcher() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            done_ = true;
        }
        cv_.notify_one();
        thread_.join();
    }

private:
    void watch() {
        const double order = n_;
        const double expected = 8.5e-10 * order * order * order / std::max(1, omp_get_max_threads());
        Progress progress("dense eigen solve");
        std::unique_lock<std::mutex> lock(mu_);
        while (!cv_.wait_for(lock, std::chrono::milliseconds(250), [this] { return done_; }))
            if (progress.due())
                progress.show("order " + std::to_string(n_) + ", " + format_duration(progress.elapsed()) +
                              " elapsed of about " + format_duration(expected) + " expected");
    }

    int n_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;  // last: started once the rest is set
};

}  // namespace

int dense_eigen(int n, double* A, DenseEigen& out) {
    const std::size_t nn = static_cast<std::size_t>(n);
    out.WR.assign(nn, 0.0);
    out.WI.assign(nn, 0.0);
    out.VL.assign(nn * nn, 0.0);
    out.VR.assign(nn * nn, 0.0);
    if (n == 0) return 0;
    std::vector<double> scale(nn), rconde(nn), rcondv(nn);
    const int lwork = 25 * n;  // 50 N for the order 2N
    std::vector<double> work(static_cast<std::size_t>(lwork));
    std::vector<int> iwork(2 * nn);
    int ilo = 0, ihi = 0, info = 0;
    double abnrm = 0.0;
    const int ld = n;
    const SolveWatcher watcher(n);
    dgeevx_("B", "V", "V", "N", &n, A, &ld, out.WR.data(), out.WI.data(), out.VL.data(), &ld, out.VR.data(), &ld,
            &ilo, &ihi, scale.data(), &abnrm, rconde.data(), rcondv.data(), work.data(), &lwork, iwork.data(), &info,
            1, 1, 1, 1);
    return info;
}

std::vector<int> select_modes(const double* WR, const double* WI, int N, int nsel) {
    // Only N odd positions exist: places beyond N can never be filled.
    const int places = std::clamp(nsel, 0, std::max(N, 0));
    std::vector<int> sel(static_cast<std::size_t>(places), -1);
    double prev = 0.0;
    for (int p = 0; p < places; ++p) {
        double best = 1.0e200;
        for (int q = 1; q <= N; ++q) {
            const double key = std::abs(WI[2 * q - 2]) - 0.0 * WR[2 * q - 2];
            if (!(key > 0.0 && key >= prev && key < best)) continue;
            if (std::find(sel.begin(), sel.begin() + p, q) != sel.begin() + p) continue;
            sel[p] = q;
            best = key;
        }
        prev = best;
    }
    return sel;
}

int sort(const double* WR, const double* WI, const double* V, int N, int nsel, Array<double, 2>& W,
         Array<cplx, 3>& vectors, Array<double, 1>& ZOUT) {
    const std::vector<int> sel = select_modes(WR, WI, N, nsel);
    int nmodes = 0;
    while (nmodes < static_cast<int>(sel.size()) && sel[nmodes] != -1) ++nmodes;
    W.allocate({Range{1, nmodes}, Range{1, 2}}, 0.0);
    vectors.allocate({Range{1, N}, Range{1, 2}, Range{1, nmodes}}, cplx{0.0, 0.0});
    ZOUT.allocate({Range{1, nmodes}}, 0.0);
    const std::size_t n2 = 2 * static_cast<std::size_t>(N);
    for (int p = 1; p <= nmodes; ++p) {
        const int q = sel[p - 1];
        const int odd = 2 * q - 1;  // 1-based solver position
        const double wi = WI[odd - 1];
        W(p, 1) = std::abs(wi);
        W(p, 2) = -WR[odd - 1];
        ZOUT(p) = odd;
        // Columns (1-based) holding the real and imaginary parts of the
        // positive-frequency member's eigenvector.
        int cx = odd, cy = odd + 1;
        double s = 1.0;
        if (!(wi > 0.0)) {
            if (odd >= 2) {
                cx = odd - 1, cy = odd;  // pair at 2q-2, 2q-1: conjugate of the second member
            } else {
                s = -1.0;  // no partner column before: plain conjugation of the odd pair
            }
        }
        const double* x = V + (cx - 1) * n2;
        const double* y = V + (cy - 1) * n2;
        cplx* dst = &vectors(1, 1, p);
#pragma omp parallel for schedule(static) if (N > 900)
        for (int n = 1; n <= N; ++n)
            for (int c = 1; c <= 2; ++c) {
                const std::size_t r = 2 * static_cast<std::size_t>(n - 1) + (c - 1);
                dst[(n - 1) + static_cast<std::size_t>(c - 1) * N] = cplx(x[r], s * y[r]);
            }
    }
    return nmodes;
}

void calcmatrix(const MatrixInput& in, int nsel, ModeOutput out) {
    const std::clock_t t0 = std::clock();
    const int n = 2 * in.N;
    std::vector<double> A(static_cast<std::size_t>(n) * static_cast<std::size_t>(n), 0.0);
    assemble_dense(in, A.data());
    const std::clock_t t1 = std::clock();
    say("matrix prepared in", static_cast<double>(t1 - t0) / CLOCKS_PER_SEC);
    DenseEigen e;
    dense_eigen(n, A.data(), e);
    std::vector<double>().swap(A);
    const std::clock_t t2 = std::clock();
    say("matrix solved in", static_cast<double>(t2 - t1) / CLOCKS_PER_SEC);
    out.nmodes = sort(e.WR.data(), e.WI.data(), e.VR.data(), in.N, nsel, out.W, out.MODES, out.ZOUT);
    sort(e.WR.data(), e.WI.data(), e.VL.data(), in.N, nsel, out.W, out.MODESL, out.ZOUT);
    out.PHASES.allocate({Range{1, out.nmodes}}, 0.0);
}

}  // namespace torix
