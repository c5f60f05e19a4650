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
__float128 expq(__float128);
__float128 lgammaq(__float128);
__float128 sinq(__float128);
__float128 cosq(__float128);
__float128 powq(__float128, __float128);
__float128 fabsq(__float128);
__float128 remainderq(__float128, __float128);
}
#endif
