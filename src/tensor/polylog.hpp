#pragma once
// Phased power sums for the far images of a lattice sum.
#include <complex>

namespace torix {

// Riemann zeta function at an integer s >= 2.
double zeta_int(int s);

// Polylogarithm Li_s(e^{i theta}) = sum_{n >= 1} e^{i n theta} / n^s at an
// integer s >= 2, by its expansion about theta = 0 (valid for |theta| < 2 pi;
// theta is first brought into (-pi, pi]):
//   Li_s(e^{i theta}) = sum_{m >= 0, m != s-1} zeta(s - m) (i theta)^m / m!
//                     + (i theta)^{s-1} / (s-1)! [H_{s-1} - ln(-i theta)],
// H the harmonic numbers (L. Lewin, Polylogarithms and associated
// functions, North Holland 1981, eq. 7.52).
std::complex<double> polylog_unit(int s, double theta);

// Li_s(e^{i theta}) in quadruple precision, for phased_tail.
struct PolylogValue {
    __float128 re = 0, im = 0;
};
PolylogValue polylog_exact(int s, double theta);

// sum_{n > M} e^{i n theta} / n^s for s >= 2, M >= 0, to about 1e-12 of
// its first term: the polylogarithm `li` (= polylog_exact(s, theta)) less
// its first M terms where that loses few digits (small s or M), else summed
// term by term.
std::complex<double> phased_tail(int s, double theta, int M, const PolylogValue& li);
inline std::complex<double> phased_tail(int s, double theta, int M) {
    return phased_tail(s, theta, M, polylog_exact(s, theta));
}

}  // namespace torix
