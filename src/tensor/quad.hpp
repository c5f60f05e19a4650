#pragma once
// Quadruple precision (__float128, 113-bit significand) from GCC's
// libquadmath.  Clang compiles __float128 and links the library but does not
// ship its header, so the few functions used are declared here when the
// header is not found.
#if __has_include(<quadmath.h>)
#include <quadmath.h>
#else
extern "C" {
__float128 sqrtq(__float128);
__float128 asinhq(__float128);
__float128 atanq(__float128);
__float128 logq(__float128);
__float128 acosq(__float128);
}
#endif
