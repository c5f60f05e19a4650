#include "dynamics/relax.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iostream>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/progress.hpp"
#include "dynamics/applied_field.hpp"
#include "dynamics/direct_field.hpp"

namespace torix {

namespace {

// Loops over fewer grid points than this run on one thread: a parallel
// region costs more than the loop on small grids.
constexpr std::ptrdiff_t kParallelPoints = 16384;

// Grid points per component; vector arrays keep each component as one
// contiguous block of that many points, in the mask's order.
std::ptrdiff_t points(int nx, int ny, int nz) {
    return static_cast<std::ptrdiff_t>(nx + 1) * (ny + 1) * (nz + 1);
}

void ensure(VecGrid& v, int nx, int ny, int nz) {
    if (!v.allocated() || v.hi(0) != nx || v.hi(1) != ny || v.hi(2) != nz) v = make_vec_grid(nx, ny, nz);
}

}  // namespace

void field_by_method(int method, const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP,
                     double s, const IntGrid& mask, const TensorArray& AIJ, const FourierTensor& AIJ_FFT, VecGrid& H,
                     int nx, int ny, int nz, int n, const LocalTerms& terms) {
    const bool local = !terms.empty();
    const std::array<double, 3> mp = local ? std::array<double, 3>{0.0, 0.0, 0.0} : MP;
    const double sv = local ? 0.0 : s;
    if (method == kMethodDirect)
        calcfields(M, MS, mp, sv, mask, AIJ, H, nx, ny, nz, n);
    else
        calcfieldsfft(M, MS, mp, sv, mask, AIJ_FFT, H, nx, ny, nz, n);
    if (!local) return;
    add_local_fields(terms, M, MS, mask, H);
    add_vector_product_term(M, MS, MP, s, mask, H);
}

double relax(VecGrid& M, VecGrid& H, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
             const TensorArray& AIJ, const IntGrid& MASQUE, int nx, int ny, int nz, int n, double alpha,
             double threshold, int method, const FourierTensor& AIJ_FFT, VecGrid& Mprev, long max_passes,
             const LocalTerms& terms) {
    const std::ptrdiff_t np = points(nx, ny, nz);
    const VecGrid happ = H;  // the applied field, put back before every evaluation
    VecGrid hcopy = H;
    ensure(Mprev, nx, ny, nz);
    const std::int32_t* q = MASQUE.data();
    std::int64_t ncell = 0;
    for (std::ptrdiff_t p = 0; p < np; ++p)
        if (q[p] != 0) ++ncell;

    auto energy_with = [&](const VecGrid& field) {
        const double* m = M.data();
        const double* h = field.data();
        double e = 0.0;
#pragma omp parallel for schedule(static) if (np > kParallelPoints) reduction(+ : e)
        for (std::ptrdiff_t p = 0; p < np; ++p)
            if (q[p] != 0) e += m[p] * h[p] + m[p + np] * h[p + np] + m[p + 2 * np] * h[p + 2 * np];
        return -e / static_cast<double>(ncell);
    };

    field_by_method(method, M, MS, MP, s, MASQUE, AIJ, AIJ_FFT, H, nx, ny, nz, n, terms);
    double energy = energy_with(H);
    if (!(threshold < 1.0e10)) return energy;

    double change = 1.0e10;
    int pass = 0;
    Progress progress("relaxation");
    StallWatch stall;
    while (change > threshold) {
        if (max_passes > 0 && pass >= max_passes) break;
        ++pass;
        Mprev = M;
        hcopy = H;
        H = happ;
        field_by_method(method, M, MS, MP, s, MASQUE, AIJ, AIJ_FFT, H, nx, ny, nz, n, terms);
        alignfields(M, H, Mprev, MS, MASQUE, alpha, nx, ny, nz);
        const double* m = M.data();
        const double* mp = Mprev.data();
        double sum = 0.0;
#pragma omp parallel for schedule(static) if (np > kParallelPoints) reduction(+ : sum)
        for (std::ptrdiff_t p = 0; p < np; ++p)
            if (q[p] != 0)
                sum += (std::abs(m[p] - mp[p]) + std::abs(m[p + np] - mp[p + np]) +
                        std::abs(m[p + 2 * np] - mp[p + 2 * np]) + 0.0) /
                       MS(q[p]);
        change = sum / static_cast<double>(ncell);
        energy = energy_with(hcopy);
        say(pass, change, energy);
        if (stall.stalled(change)) std::cerr << stall_message(alpha, stall, pass) << std::flush;
        if (progress.due()) {
            const double rate = pass / std::max(progress.elapsed(), 1e-9);
            progress.show("pass " + std::to_string(pass) + ", change " + format_real(change) + " (threshold " +
                          format_real(threshold) + "), energy " + format_real(energy) + ", " +
                          std::to_string(static_cast<long>(rate)) + " passes/s");
        }
    }
    return energy;
}

bool StallWatch::stalled(double change) {
    ++pass_;
    if (pass_ == 1 || change < best_) {
        best_ = change;
        best_pass_ = pass_;
        return false;
    }
    if (said_ || pass_ - best_pass_ < patience_) return false;
    said_ = true;
    return true;
}

std::string stall_message(double alpha, const StallWatch& watch, long pass) {
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "RELAX: warning: after %ld passes the change has not fallen below its minimum %.3g (pass %ld) "
                  "for %ld passes; the damped alignment overshoots and cycles, and will not reach its threshold. "
                  "alpha = %g is too large for these cells: stop the run and try alpha = %.3g\n",
                  pass, watch.minimum(), watch.minimum_pass(), pass - watch.minimum_pass(), alpha, alpha / 4.0);
    return buf;
}

void calctorque(const VecGrid& M, const VecGrid& H, VecGrid& T, const IntGrid& mask, int nx, int ny, int nz) {
    const std::ptrdiff_t np = points(nx, ny, nz);
    const double* m = M.data();
    const double* h = H.data();
    double* t = T.data();
    const std::int32_t* q = mask.data();
#pragma omp parallel for schedule(static) if (np > kParallelPoints)
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] == 0) {
            t[p] = t[p + np] = t[p + 2 * np] = 0.0;
            continue;
        }
        const double mx = m[p], my = m[p + np], mz = m[p + 2 * np];
        const double hx = h[p], hy = h[p + np], hz = h[p + 2 * np];
        t[p] = -(my * hz - mz * hy);
        t[p + np] = -(mz * hx - mx * hz);
        t[p + 2 * np] = -(mx * hy - my * hx);
    }
}

double energy_measure(const VecGrid& M, const VecGrid& H, const VecGrid& Happ, const IntGrid& mask) {
    return energy_measure(M, H, Happ, mask, Array<double, 1>{}, LocalTerms::none());
}

double energy_measure(const VecGrid& M, const VecGrid& H, const VecGrid& Happ, const IntGrid& mask,
                      const Array<double, 1>& MS, const LocalTerms& terms) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const double* m = M.data();
    const double* h = H.data();
    const double* a = Happ.data();
    const std::int32_t* q = mask.data();
    double e = 0.0;
    std::int64_t ncell = 0;
#pragma omp parallel for schedule(static) if (np > kParallelPoints) reduction(+ : e, ncell)
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] == 0) continue;
        ++ncell;
        for (int c = 0; c < 3; ++c) e += m[p + c * np] * (h[p + c * np] + a[p + c * np]);
    }
    if (!terms.empty()) e -= 2.0 * local_energy_correction(terms, M, MS, mask);
    return -0.5 * e / static_cast<double>(ncell);
}

void iterate(VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s, const IntGrid& mask,
             const TensorArray& AIJ, const FourierTensor& AIJ_FFT, const Drive& drive, VecGrid& H, int nx, int ny,
             int nz, int n, int method, double t, double dt, double& E, RkWork& w, const LocalTerms& terms) {
    const std::ptrdiff_t np = points(nx, ny, nz);
    for (VecGrid* v : {&w.M0, &w.Mt, &w.acc, &w.k, &w.happ}) ensure(*v, nx, ny, nz);
    w.M0 = M;
    w.acc.fill(0.0);
    const double* m0 = w.M0.data();
    double* mt = w.Mt.data();
    double* acc = w.acc.data();
    const double* k = w.k.data();
    const std::int32_t* q = mask.data();
    const double stage_t[4] = {t, t + 0.5 * dt, t + 0.5 * dt, t + dt};
    const double weight[4] = {1.0 / 6.0, 1.0 / 3.0, 1.0 / 3.0, 1.0 / 6.0};
    const double next[3] = {0.5 * dt, 0.5 * dt, dt};  // step to the next stage's state
    for (int st = 0; st < 4; ++st) {
        const VecGrid& state = st == 0 ? w.M0 : w.Mt;
        inith(drive.HINIT, drive.HRF, drive.rf_set, drive.omega, stage_t[st], H, nx, ny, nz);
        field_by_method(method, state, MS, MP, s, mask, AIJ, AIJ_FFT, H, nx, ny, nz, n, terms);
        calctorque(state, H, w.k, mask, nx, ny, nz);
        const double wt = weight[st];
        const double h = st < 3 ? next[st] : 0.0;
#pragma omp parallel for schedule(static) if (np > kParallelPoints)
        for (std::ptrdiff_t p = 0; p < np; ++p) {
            if (q[p] == 0) continue;
            for (int c = 0; c < 3; ++c) {
                const std::ptrdiff_t i = p + c * np;
                acc[i] += wt * k[i];
                if (st < 3) mt[i] = m0[i] + h * k[i];
            }
        }
    }
    double* m = M.data();
#pragma omp parallel for schedule(static) if (np > kParallelPoints)
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] == 0) continue;
        for (int c = 0; c < 3; ++c) m[p + c * np] = m0[p + c * np] + dt * acc[p + c * np];
    }
    rescale_to_ms(M, MS, mask);
    inith(drive.HINIT, drive.HRF, drive.rf_set, drive.omega, t + dt, w.happ, nx, ny, nz);
    H = w.happ;
    field_by_method(method, M, MS, MP, s, mask, AIJ, AIJ_FFT, H, nx, ny, nz, n, terms);
    E = energy_measure(M, H, w.happ, mask, MS, terms);
}

double relaxrk4(VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, const IntGrid& MASQUE,
                int nx, int ny, int nz, int n, double s, double timescale, double dt, const TensorArray& AIJ,
                const FourierTensor& AIJ_FFT, VecGrid& H, int method, double threshold, const VecGrid& HINIT,
                const CVecGrid& HRF, VecGrid& Mbest, const LocalTerms& terms) {
    ensure(Mbest, nx, ny, nz);
    Mbest.fill(0.0);
    double best = 1.0e200, previous = 0.0, t = 0.0, E = 0.0;
    bool settled = false;
    const std::clock_t start = std::clock();
    const Drive drive{HINIT, HRF, false, 0.0};
    RkWork work;
    Progress progress("Runge-Kutta relaxation");
    long steps = 0;
    for (;;) {
        iterate(M, MS, MP, s, MASQUE, AIJ, AIJ_FFT, drive, H, nx, ny, nz, n, method, t, dt, E, work, terms);
        say(t / timescale, E);
        ++steps;
        if (progress.due())
            progress.show("time " + format_real(t / timescale) + ", energy " + format_real(E) + ", " +
                          std::to_string(static_cast<long>(steps / std::max(progress.elapsed(), 1e-9))) +
                          " steps/s");
        // A measure that is not a finite number never meets the threshold.
        if (!std::isfinite(E))
            throw FatalError("RELAX: the Runge-Kutta relaxation diverged (energy measure " + format_real(E) +
                             " at time " + format_real(t / timescale) +
                             "); a smaller time step or other material values are needed");
        if (E < best) {
            best = E;
            Mbest = M;
        }
        if (dt / 3.0 < t) settled = true;
        const double rel = (previous - E) / std::abs(previous);
        previous = E;
        t += dt;
        if (rel < threshold && rel > 0.0 && settled) break;
    }
    say("time spent", static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
    return E;
}

}  // namespace torix
