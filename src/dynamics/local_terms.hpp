#pragma once
// The field terms that are not a convolution with the interaction tensor:
// cubic anisotropy and interlayer exchange (ADD_CUBIC_ANISOTROPY,
// ADD_INTERLAYER_EXCHANGE), and the DMI taken off the bonds between two
// materials (dmi_interfaces.hpp, set by ADD_DMI and TENSOR_LOAD).  The model state keeps their records in one
// list; every field evaluation adds their field after the tensor field
// (field_by_method), the energy measures count their energy, and the
// dynamic matrix and the matrix-free operator add their Jacobian blocks.
// TENSOR_CREATE empties the list, as it removes ADD_ANISOTROPY's term.
#include <array>
#include <vector>

#include "core/array.hpp"
#include "dynamics/cubic_anisotropy.hpp"
#include "dynamics/dmi_interfaces.hpp"
#include "dynamics/field_jacobian.hpp"
#include "dynamics/interlayer_exchange.hpp"

namespace torix {

struct LocalTerms {
    std::vector<CubicAnisotropy> cubic;
    std::vector<InterlayerExchange> interlayer;
    DmiInterfaces dmi;
    [[nodiscard]] bool empty() const { return cubic.empty() && interlayer.empty() && dmi.empty(); }
    // An empty list, for callers without terms.
    static const LocalTerms& none();
};

// Adds the field of every term to H on the magnetic cells.
void add_local_fields(const LocalTerms& terms, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                      VecGrid& H);

// The energy of the terms over all magnetic cells divided by the cell volume
// (erg/cm^3 times cells), minus what -(1/2) M . H_terms counts for them: the
// amount to add to a sum of -(1/2) M . H over cells so that these terms,
// whose energy is not quadratic in M, enter with their true energy.
double local_energy_correction(const LocalTerms& terms, const VecGrid& M, const Array<double, 1>& MS,
                               const IntGrid& mask);

// Every 3x3 block of the terms' Jacobian dH/dM at M: one self block per
// cell and term, two pair blocks per interlayer link (and two self blocks
// where J2 is not zero), one pair block per direction of a bond between
// materials.  Blocks of one cell pair are not merged.
std::vector<FieldJacobianBlock> local_jacobian(const LocalTerms& terms, const VecGrid& M, const Array<double, 1>& MS,
                                               const IntGrid& mask);

// H += M x (s H - MP) / MS on the magnetic cells: the vector-product term of
// the field routines, taken here with the full field when the terms above
// are present (the routines then run with s = 0 and MP = 0).
void add_vector_product_term(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
                             const IntGrid& mask, VecGrid& H);

}  // namespace torix
