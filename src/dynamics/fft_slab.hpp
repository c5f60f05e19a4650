#pragma once
// The tensor convolution shared over the ranks of a communicator, with
// FFTW's MPI transforms: each rank holds a slab of the doubled grid along x
// (the outermost axis of the magnetic-cell order, so the cells of a slab are
// one range of the cell list), its part of the spectra, and transforms only
// that.  What goes in and comes out is per magnetic cell: every rank fills
// the sources of its own cells and receives the pair sums of all of them
// (one gather per convolution).
//
// It takes one kernel: a slice of the tensor whose blocks are symmetric
// (then even, D(-r) = D(r)^T = D(r), with a real spectrum).  Models with
// several materials or the DMI (an antisymmetric part) use the one-process
// convolution (fft_field.hpp); see applicable().
#include <mpi.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "core/array.hpp"

namespace torix {

class SlabConvolution {
public:
    // Fields per convolution: the real and the imaginary part of a complex
    // deviation, three components each.
    static constexpr int kLanes = 2;
    static constexpr int kPerCell = 3 * kLanes;

    // Whether slice m of AIJ (offsets -nx..nx, ...) is one this route
    // reproduces: symmetric blocks to 1e-13 of the largest entry.
    static bool applicable(const TensorArray& AIJ, int m, int nx, int ny, int nz);

    // Collective on comm.  Grid of cells 0..nx x 0..ny x 0..nz (nz = 0: a
    // single layer, two-dimensional transforms); the magnetic cells at
    // (cx[c], cy[c], cz[c]) in the order of the cell list, x outermost;
    // the lists are read at every convolution and must outlive it.
    SlabConvolution(MPI_Comm comm, const TensorArray& AIJ, int m, int nx, int ny, int nz, const std::vector<int>& cx,
                    const std::vector<int>& cy, const std::vector<int>& cz);
    ~SlabConvolution();
    SlabConvolution(const SlabConvolution&) = delete;
    SlabConvolution& operator=(const SlabConvolution&) = delete;

    // The cells whose sources this rank reads: [first_cell(), end_cell()).
    [[nodiscard]] std::size_t first_cell() const { return cell_start_[rank_]; }
    [[nodiscard]] std::size_t end_cell() const { return cell_start_[rank_ + 1]; }

    // Collective.  src[kPerCell c + 3 lane + k]: component k of lane `lane`
    // at cell c, read for this rank's cells only; out gets, for every cell,
    // sum over sources of D(target - source) src, in the same layout.
    void convolve(const double* src, double* out);

    // Bytes of this rank's spectra and work buffer.
    [[nodiscard]] std::size_t bytes() const;

private:
    struct Plans;
    MPI_Comm comm_;
    int rank_ = 0, size_ = 1;
    int nx_, ny_, nz_;
    int L1_, L2_, L3_, Llast_;              // padded lengths; Llast_ the real-to-complex axis (z, or y for a layer)
    std::ptrdiff_t x0_ = 0, nxl_ = 0;       // this rank's planes of the doubled grid along x
    std::size_t points_ = 0;                // this rank's complex points
    std::vector<std::size_t> cell_start_;   // per rank, its first cell; size ranks + 1
    std::vector<int> counts_, displs_;      // per rank, its cells' doubles and where they start
    const std::vector<int>&cx_, &cy_, &cz_;
    std::vector<double> kernel_;            // 6 real spectra (xx xy xz yy yz zz) per point, scaled by 1/L1 L2 L3
    std::unique_ptr<Plans> plans_;
};

}  // namespace torix
