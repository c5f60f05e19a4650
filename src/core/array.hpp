#pragma once
// Owning n-dimensional array with per-axis index ranges.
//
// Storage order: the first index varies fastest, the last slowest, so a
// vector field indexed (i, j, k, c) keeps each component c as one contiguous
// grid-shaped block.  Index ranges are inclusive [lo, hi] per axis, which
// lets offset arrays run from -n to n+1 and components from 1 to 3.
#include <algorithm>
#include <array>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace torix {

struct Range {
    int lo = 0;
    int hi = -1;  // inclusive; hi < lo is an empty axis
    [[nodiscard]] constexpr int extent() const { return hi >= lo ? hi - lo + 1 : 0; }
};

template <class T, int Rank>
class Array {
public:
    static_assert(Rank >= 1);
    using value_type = T;

    Array() = default;

    explicit Array(const std::array<Range, Rank>& ranges, T fill = T{}) { allocate(ranges, fill); }

    // Allocates afresh (dropping any previous contents) and fills with `fill`.
    void allocate(const std::array<Range, Rank>& ranges, T fill = T{}) {
        std::ptrdiff_t stride = 1;
        offset_ = 0;
        for (int d = 0; d < Rank; ++d) {
            ranges_[d] = ranges[d];
            stride_[d] = stride;
            offset_ -= static_cast<std::ptrdiff_t>(ranges[d].lo) * stride;
            stride *= ranges[d].extent();
        }
        data_.assign(static_cast<std::size_t>(stride), fill);
        allocated_ = true;
    }

    void release() {
        data_.clear();
        data_.shrink_to_fit();
        ranges_ = {};
        stride_ = {};
        offset_ = 0;
        allocated_ = false;
    }

    [[nodiscard]] bool allocated() const { return allocated_; }
    [[nodiscard]] std::size_t size() const { return data_.size(); }
    [[nodiscard]] bool empty() const { return data_.empty(); }
    [[nodiscard]] const Range& range(int d) const { return ranges_[d]; }
    [[nodiscard]] int lo(int d) const { return ranges_[d].lo; }
    [[nodiscard]] int hi(int d) const { return ranges_[d].hi; }
    [[nodiscard]] int extent(int d) const { return ranges_[d].extent(); }
    [[nodiscard]] std::ptrdiff_t stride(int d) const { return stride_[d]; }

    [[nodiscard]] bool contains(const std::array<int, Rank>& idx) const {
        for (int d = 0; d < Rank; ++d)
            if (idx[d] < ranges_[d].lo || idx[d] > ranges_[d].hi) return false;
        return true;
    }

    // Position in data() of an index tuple; no bounds check.
    template <class... I>
    [[nodiscard]] std::ptrdiff_t linear(I... idx) const noexcept {
        static_assert(sizeof...(I) == Rank, "wrong number of indices");
        const std::ptrdiff_t ix[] = {static_cast<std::ptrdiff_t>(idx)...};
        std::ptrdiff_t p = offset_;
        for (int d = 0; d < Rank; ++d) p += ix[d] * stride_[d];
        return p;
    }

    template <class... I>
    T& operator()(I... idx) noexcept { return data_[static_cast<std::size_t>(linear(idx...))]; }
    template <class... I>
    const T& operator()(I... idx) const noexcept { return data_[static_cast<std::size_t>(linear(idx...))]; }

    T* data() noexcept { return data_.data(); }
    const T* data() const noexcept { return data_.data(); }
    T* begin() noexcept { return data_.data(); }
    T* end() noexcept { return data_.data() + data_.size(); }
    const T* begin() const noexcept { return data_.data(); }
    const T* end() const noexcept { return data_.data() + data_.size(); }

    void fill(T v) { std::fill(data_.begin(), data_.end(), v); }

    bool operator==(const Array& o) const {
        return allocated_ == o.allocated_ && data_ == o.data_ && offset_ == o.offset_ && stride_ == o.stride_;
    }

private:
    std::vector<T> data_;
    std::array<Range, Rank> ranges_{};
    std::array<std::ptrdiff_t, Rank> stride_{};
    std::ptrdiff_t offset_ = 0;
    bool allocated_ = false;
};

using cplx = std::complex<double>;

// Cell-shaped integer array over (0:nx, 0:ny, 0:nz): mask, numbering.
using IntGrid = Array<std::int32_t, 3>;
// Vector field over (0:nx, 0:ny, 0:nz, 1:3); component index slowest.
using VecGrid = Array<double, 4>;
// Complex vector field over (0:nx, 0:ny, 0:nz, 1:3).
using CVecGrid = Array<cplx, 4>;
// Interaction tensor over offsets (-nx:nx+1, -ny:ny+1, -nz:nz+1), component
// 1:9 (column by column: xx yx zx xy yy zy xz yz zz) and material 1:nmat.
using TensorArray = Array<double, 5>;

inline IntGrid make_int_grid(int nx, int ny, int nz, std::int32_t fill = 0) {
    return IntGrid({Range{0, nx}, Range{0, ny}, Range{0, nz}}, fill);
}
inline VecGrid make_vec_grid(int nx, int ny, int nz, double fill = 0.0) {
    return VecGrid({Range{0, nx}, Range{0, ny}, Range{0, nz}, Range{1, 3}}, fill);
}
inline CVecGrid make_cvec_grid(int nx, int ny, int nz) {
    return CVecGrid({Range{0, nx}, Range{0, ny}, Range{0, nz}, Range{1, 3}}, cplx{0.0, 0.0});
}
inline TensorArray make_tensor(int nx, int ny, int nz, int nmat) {
    return TensorArray({Range{-nx, nx + 1}, Range{-ny, ny + 1}, Range{-nz, nz + 1}, Range{1, 9}, Range{1, nmat}}, 0.0);
}

}  // namespace torix
