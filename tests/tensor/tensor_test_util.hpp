#pragma once
// Small helpers shared by the tensor tests.
#include <algorithm>
#include <cmath>

#include "core/array.hpp"
#include "tensor/newell.hpp"
#include "tensor/tensor_build.hpp"
#include "test_util.hpp"

namespace torix::testing {

// The reference: tensornewall once per material on a zero tensor.
inline TensorArray reference(const Array<double, 1>& A, const Array<double, 1>& MS, int nx, int ny, int nz,
                             double dx, double dy, double dz) {
    const int nmat = A.extent(0);
    TensorArray T = make_tensor(nx, ny, nz, nmat);
    for (int m = 1; m <= nmat; ++m) tensornewall(A, MS, T, nx, ny, nz, dx, dy, dz, m, nmat);
    return T;
}

inline TensorArray fast(const Array<double, 1>& A, const Array<double, 1>& MS, int nx, int ny, int nz, double dx,
                        double dy, double dz) {
    const int nmat = A.extent(0);
    TensorArray T = make_tensor(nx, ny, nz, nmat);
    tensorbuild(A, MS, T, nx, ny, nz, dx, dy, dz, nmat);
    return T;
}

inline double max_abs(const TensorArray& T) {
    double m = 0.0;
    for (double v : T) m = std::max(m, std::fabs(v));
    return m;
}

// Every entry within 1e-10 of the largest of the reference.
inline void expect_close(const TensorArray& ref, const TensorArray& got, const std::string& what) {
    ASSERT_EQ(ref.size(), got.size());
    const double tol = 1e-10 * max_abs(ref);
    std::size_t bad = 0;
    for (std::size_t n = 0; n < ref.size(); ++n)
        if (!(std::fabs(ref.data()[n] - got.data()[n]) <= tol)) ++bad;
    EXPECT_EQ(bad, 0u) << what;
}

}  // namespace torix::testing
