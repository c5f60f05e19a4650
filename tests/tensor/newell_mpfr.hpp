#pragma once
// Newell's tensor in arbitrary precision (MPFR), the oracle of the accurate
// builder: the point functions f and g written again from Newell's closed
// forms, the 27-point second difference of the tensor entries, all in 320-bit
// arithmetic (about 96 digits).  At 1000 cells the difference cancels about
// 18 digits, so some 78 remain, far more than a double holds.
#include <mpfr.h>

#include <array>

namespace torix::testing {

class Big {
public:
    static constexpr mpfr_prec_t kBits = 320;
    Big() { mpfr_init2(v_, kBits), mpfr_set_ui(v_, 0, MPFR_RNDN); }
    Big(double d) { mpfr_init2(v_, kBits), mpfr_set_d(v_, d, MPFR_RNDN); }  // NOLINT: implicit on purpose
    Big(const Big& o) { mpfr_init2(v_, kBits), mpfr_set(v_, o.v_, MPFR_RNDN); }
    Big& operator=(const Big& o) {
        mpfr_set(v_, o.v_, MPFR_RNDN);
        return *this;
    }
    ~Big() { mpfr_clear(v_); }

    friend Big operator+(const Big& a, const Big& b) { return op(mpfr_add, a, b); }
    friend Big operator-(const Big& a, const Big& b) { return op(mpfr_sub, a, b); }
    friend Big operator*(const Big& a, const Big& b) { return op(mpfr_mul, a, b); }
    friend Big operator/(const Big& a, const Big& b) { return op(mpfr_div, a, b); }
    friend Big sqrt(const Big& a) { return fn(mpfr_sqrt, a); }
    friend Big asinh(const Big& a) { return fn(mpfr_asinh, a); }
    friend Big atan(const Big& a) { return fn(mpfr_atan, a); }
    [[nodiscard]] bool zero() const { return mpfr_zero_p(v_) != 0; }
    [[nodiscard]] double get() const { return mpfr_get_d(v_, MPFR_RNDN); }

private:
    template <class Op>
    static Big op(Op o, const Big& a, const Big& b) {
        Big r;
        o(r.v_, a.v_, b.v_, MPFR_RNDN);
        return r;
    }
    template <class Fn>
    static Big fn(Fn f, const Big& a) {
        Big r;
        f(r.v_, a.v_, MPFR_RNDN);
        return r;
    }
    mpfr_t v_;
};

// asinh(a / sqrt(b2 + c2)); 0 where the denominator is 0 (its coefficient is 0 there).
inline Big asinh_over(const Big& a, const Big& b2, const Big& c2) {
    const Big den = b2 + c2;
    return den.zero() ? Big() : asinh(a / sqrt(den));
}
// atan(p q / (x R)); 0 where x is 0 (its coefficient is 0 there).
inline Big atan_over(const Big& p, const Big& q, const Big& x, const Big& R) {
    return x.zero() ? Big() : atan(p * q / (x * R));
}

// Newell's f(x, y, z).
inline Big newell_f(const Big& x, const Big& y, const Big& z) {
    const Big x2 = x * x, y2 = y * y, z2 = z * z, R = sqrt(x2 + y2 + z2);
    return y * (z2 - x2) * asinh_over(y, x2, z2) / 2 + z * (y2 - x2) * asinh_over(z, x2, y2) / 2 -
           x * y * z * atan_over(y, z, x, R) + R * (2 * x2 - y2 - z2) / 6;
}

// Newell's g(x, y, z).
inline Big newell_g(const Big& x, const Big& y, const Big& z) {
    const Big x2 = x * x, y2 = y * y, z2 = z * z, R = sqrt(x2 + y2 + z2);
    return x * (3 * z2 - x2) * asinh_over(y, x2, z2) / 6 + y * (3 * z2 - y2) * asinh_over(x, y2, z2) / 6 +
           x * y * z * asinh_over(z, x2, y2) - x * y * R / 3 - z2 * z * atan_over(x, y, z, R) / 6 -
           z * y2 * atan_over(z, x, y, R) / 2 - z * x2 * atan_over(z, y, x, R) / 2;
}

// The tensor block at offset (i, j, k) for cells dx x dy x dz (cm), as the
// tensor holds it (-4 pi times the demagnetizing factor): xx, yy, zz, xy,
// xz, yz.  The points are exact multiples (i + a) dx of the double cell sizes.
inline std::array<double, 6> newell_exact(int i, int j, int k, double dx, double dy, double dz) {
    std::array<Big, 6> S;
    const int w[3] = {-1, 2, -1};
    for (int a = -1; a <= 1; ++a)
        for (int b = -1; b <= 1; ++b)
            for (int c = -1; c <= 1; ++c) {
                const Big x = Big(dx) * Big(i + a), y = Big(dy) * Big(j + b), z = Big(dz) * Big(k + c);
                const Big wt = w[a + 1] * w[b + 1] * w[c + 1];
                S[0] = S[0] + wt * newell_f(x, y, z);
                S[1] = S[1] + wt * newell_f(y, x, z);
                S[2] = S[2] + wt * newell_f(z, x, y);
                S[3] = S[3] + wt * newell_g(x, y, z);
                S[4] = S[4] + wt * newell_g(x, z, y);
                S[5] = S[5] + wt * newell_g(y, z, x);
            }
    const Big V = Big(dx) * Big(dy) * Big(dz);
    std::array<double, 6> out{};
    for (int n = 0; n < 6; ++n) out[n] = (Big(0.0) - S[n] / V).get();
    return out;
}

}  // namespace torix::testing
