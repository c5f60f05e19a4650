#pragma once
// The one model state shared by all commands of a run.  Lengths in cm,
// magnetization in emu/cm^3, fields in Oe, exchange constants in erg/cm.
// Grid-shaped arrays run over (0:nx, 0:ny, 0:nz[, 1:3]); material tables
// over 1..nmat; mode tables over 1..nmodes.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/array.hpp"
#include "core/periodic.hpp"
#include "dynamics/fft_field.hpp"
#include "dynamics/local_terms.hpp"
#include "tensor/neighbour_blocks.hpp"

namespace torix {

// A shape painted by ADD_SHAPE: kind (1 ring, 2 sphere, 3 box, 4 elliptic
// disk), the extent asked (cm; a ring's hole in `inner`), the material, and
// the cells it painted: their count and inclusive index box.
struct ShapeNote {
    int kind = 0, material = 0;
    double x = 0.0, y = 0.0, z = 0.0, inner = 0.0;
    std::int64_t cells = 0;
    int i1 = 0, i2 = -1, j1 = 0, j2 = -1, k1 = 0, k2 = -1;
};

struct ModelState {
    // Grid and geometry.
    double dx = 0.0, dy = 0.0, dz = 0.0;
    double Lx = 0.0, Ly = 0.0, Lz = 0.0;
    int nx = -1, ny = -1, nz = -1;  // largest cell indices

    // Periodic axes (SET_PERIODIC) and the wave vector of the Bloch solves
    // (SET_WAVEVECTOR, rad/cm); without SET_WAVEVECTOR the solves are those
    // of k = 0.
    Periodicity periodic;
    Periodicity tensor_periodicity;  // the axes the present tensor was summed over
    std::array<double, 3> wavevector{0.0, 0.0, 0.0};

    // Materials: A(i) exchange constant, MS(i) saturation magnetization.
    int nmat = 0;
    Array<double, 1> MS, A;

    IntGrid MASQUE;  // 0 empty, else material number
    std::vector<ShapeNote> shapes;  // painted into this mask, in order
    IntGrid NUM;     // running number 1..ncells of each numbered cell, 0 elsewhere
    Array<std::int32_t, 1> DEGR;  // multiplicity of each number (1..ncells)
    int ncells = 0;               // N, the count of numbered cells
    bool numbered = false;        // a numbering exists

    VecGrid M, H, HINIT, M2, TEMPOR;
    // The uniform part of HINIT (Oe): the sum of the uniform fields added
    // since HINIT was last made or loaded; a field sweep replaces it and
    // keeps the rest.
    std::array<double, 3> HUNIFORM{0.0, 0.0, 0.0};
    CVecGrid HRF;  // complex driving field per cell

    TensorArray AIJ;
    FourierTensor AIJ_FFT;
    // The nearest-neighbour blocks that AIJ holds (set with it by
    // TENSOR_CREATE and TENSOR_LOAD; nearest-neighbour terms added later
    // add theirs here too).
    NeighbourBlocks neighbours;
    // Field terms kept beside the tensor (ADD_CUBIC_ANISOTROPY,
    // ADD_INTERLAYER_EXCHANGE); emptied by TENSOR_CREATE.
    LocalTerms local_terms;

    // ModeSet.  W(p, 1) = f_p (angular frequency), W(p, 2) = g_p (decay
    // rate), both in field units (Oe); MODES(n, c, p) and MODESL(n, c, p) are
    // the right and left amplitudes of cell number n, local component c
    // (1 polar, 2 azimuthal), mode p.
    int nmodes = 0;
    Array<double, 2> W;
    std::array<double, 3> mode_wavevector{0.0, 0.0, 0.0};  // k of the ModeSet (rad/cm)
    Array<double, 1> PHASES, ZOUT;
    Array<cplx, 3> MODES, MODESL;
    Array<double, 2> D, V;
    Array<cplx, 1> C;  // driven-response coefficient of each mode

    // Scalars.
    double gyro = 1.0;
    double timestep = -1.0;  // kept multiplied by gyro; negative = not set
    double beta = 0.0;
    // Parameters of the last RELAX (threshold as used, alpha), which the
    // field sweep relaxes with at every step.
    bool relax_set = false;
    double relax_threshold = 0.0, relax_alpha = 0.0;
    double current = 0.0;
    std::array<double, 3> MP{0.0, 0.0, 0.0};
    std::array<double, 3> MPRF{0.0, 0.0, 0.0};
    std::array<double, 3> MPP{0.0, 0.0, 0.0};
    int s1 = 1, s2 = 1, s3 = 1;  // numbering block sizes
    int vrml_fx = 1, vrml_fy = 1, vrml_fz = 1, vrml_mode = 1;

    std::string LINER;  // current keyword
    std::string FNAME;  // current file name
};

// Number of cells whose mask value is nonzero (0 when no mask exists).
std::int64_t count_magnetic(const IntGrid& mask);

}  // namespace torix
