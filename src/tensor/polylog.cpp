#include "tensor/polylog.hpp"

#include <cmath>
#include <vector>

#include "tensor/quad.hpp"

namespace torix {

namespace {

using Quad = __float128;

// Bernoulli numbers B_2 .. B_20.
constexpr double kB2k[10] = {1.0 / 6, -1.0 / 30, 1.0 / 42, -1.0 / 30, 5.0 / 66, -691.0 / 2730, 7.0 / 6,
                             -3617.0 / 510, 43867.0 / 798, -174611.0 / 330};

Quad pi_q() { return acosq(Quad(-1)); }

// zeta(s), s >= 2, in quadruple precision: the sum to N - 1 and the
// Euler-Maclaurin tail from N.
Quad zeta_eval(int s) {
    constexpr int N = 64;
    Quad sum = 0;
    for (int k = N - 1; k >= 1; --k) sum += powq(Quad(k), Quad(-s));
    const Quad n = N;
    sum += powq(n, Quad(1 - s)) / (s - 1) + powq(n, Quad(-s)) / 2;
    // - sum_k B_2k / (2k)! f^(2k-1)(N), f = t^-s: f^(m) = (-1)^m (s)_m t^(-s-m).
    Quad rising = s, fact = 1;  // (s)_(2k-1), (2k)!
    for (int k = 1; k <= 10; ++k) {
        const int m = 2 * k - 1;
        if (k > 1) rising *= Quad(s + m - 2) * Quad(s + m - 1);
        fact *= Quad(2 * k - 1) * Quad(2 * k);
        sum += Quad(kB2k[k - 1]) / fact * rising * powq(n, Quad(-s - m));
    }
    return sum;
}

// zeta(2) .. zeta(kZetaMax), made once.
constexpr int kZetaMax = 1024;
Quad zeta_q(int s) {
    static const std::vector<Quad> table = [] {
        std::vector<Quad> t(kZetaMax + 1, Quad(0));
        for (int n = 2; n <= kZetaMax; ++n) t[n] = n > 120 ? Quad(1) + powq(Quad(2), Quad(-n)) : zeta_eval(n);
        return t;
    }();
    return s <= kZetaMax ? table[s] : Quad(1);
}

using QC = PolylogValue;

QC polylog_q(int s, Quad theta) {
    const Quad pi = pi_q();
    theta = remainderq(theta, 2 * pi);
    if (theta == 0) return {zeta_q(s), 0};
    // (i theta)^m = i^m theta^m.
    const auto ipow = [](int m, Quad mag) -> QC {
        switch (m % 4) {
            case 0: return {mag, 0};
            case 1: return {0, mag};
            case 2: return {-mag, 0};
            default: return {0, -mag};
        }
    };
    QC sum;
    Quad fact = 1, tpow = 1;  // m!, theta^m
    for (int m = 0; m <= s - 2; ++m) {
        const QC t = ipow(m, tpow / fact * zeta_q(s - m));
        sum.re += t.re, sum.im += t.im;
        tpow *= theta;
        fact *= (m + 1);
    }
    Quad harmonic = 0;
    for (int j = 1; j <= s - 1; ++j) harmonic += Quad(1) / j;
    // (i theta)^(s-1) / (s-1)! [H - ln(-i theta)], ln(-i theta) = ln|theta| -+ i pi/2.
    const QC c = ipow(s - 1, tpow / fact);
    const Quad lre = harmonic - logq(fabsq(theta)), lim = theta > 0 ? pi / 2 : -pi / 2;
    sum.re += c.re * lre - c.im * lim;
    sum.im += c.re * lim + c.im * lre;
    tpow *= theta;
    fact *= s;
    const QC z0 = ipow(s, -tpow / fact / 2);  // zeta(0) = -1/2
    sum.re += z0.re, sum.im += z0.im;
    // m = s - 1 + 2j: zeta(1 - 2j) = 2 (-1)^j (2j-1)! zeta(2j) / (2 pi)^(2j).
    const Quad lt = logq(fabsq(theta)), l2pi = logq(2 * pi);
    for (int j = 1; j <= 400; ++j) {
        const int m = s - 1 + 2 * j;
        const Quad mag = 2 * zeta_q(2 * j) * expq(lgammaq(Quad(2 * j)) - lgammaq(Quad(m + 1)) - 2 * j * l2pi + m * lt);
        QC t = ipow(m, (j % 2 == 0) ? mag : -mag);
        if (theta < 0 && m % 2 == 1) t.re = -t.re, t.im = -t.im;
        sum.re += t.re, sum.im += t.im;
        if (mag < Quad(1e-36) * (fabsq(sum.re) + fabsq(sum.im))) break;
    }
    return sum;
}

}  // namespace

double zeta_int(int s) { return static_cast<double>(zeta_q(s)); }

PolylogValue polylog_exact(int s, double theta) { return polylog_q(s, Quad(theta)); }

std::complex<double> polylog_unit(int s, double theta) {
    const QC v = polylog_q(s, Quad(theta));
    return {static_cast<double>(v.re), static_cast<double>(v.im)};
}

std::complex<double> phased_tail(int s, double theta, int M, const PolylogValue& li) {
    if (M <= 0) return {static_cast<double>(li.re), static_cast<double>(li.im)};
    // The polylogarithm less its first M terms, in quadruple precision,
    // while that keeps about 1e-13 of the tail (which is M^(1-s)/(s-1)
    // at most); else the terms are few enough to be summed.
    if ((s - 1) * std::log10(M + 1.0) <= 20.0) {
        const Quad th = theta;
        QC v = li;
        for (int n = M; n >= 1; --n) {
            const Quad a = powq(Quad(n), Quad(-s)), ph = th * n;
            v.re -= a * cosq(ph);
            v.im -= a * sinq(ph);
        }
        return {static_cast<double>(v.re), static_cast<double>(v.im)};
    }
    const double nmax = (M + 1.0) * std::pow(10.0, 13.0 / (s - 1)) + 1.0;
    std::complex<double> sum(0.0, 0.0);
    for (double n = std::floor(nmax); n >= M + 1.0; n -= 1.0)
        sum += std::polar(std::pow(n, -s), std::remainder(n * theta, 2.0 * M_PI));
    return sum;
}

}  // namespace torix
