#pragma once
// The Dzyaloshinskii-Moriya interaction as antisymmetric nearest-neighbour
// blocks of the interaction tensor.
//
// Energy densities (m = M / MS, D in erg/cm^2, z the interface normal):
//   kind 1, interfacial (C_nv):  w = D [ m_z div m - (m . grad) m_z ]
//   kind 2, bulk:                w = D m . curl m
// (A. Thiaville et al., EPL 100, 57002 (2012); A. N. Bogdanov and
// U. K. Roessler, PRL 87, 037203 (2001)).
//
// Discretisation: an energy sum over the bonds of neighbouring cells i, j
// (unit vector u = (r_j - r_i) / h, h the cell size along u),
//   E = sum over bonds V (D / h) g(u) . (m_i x m_j),
//   g(u) = z x u (interfacial),  g(u) = -u (bulk),
// which is the continuum energy with each derivative taken as the forward
// difference of the bond (the terms of cell i alone cancel exactly).  A
// neighbour that is missing (empty cell, edge of the grid) drops out of the
// sum; the free-surface boundary condition of the continuum (the edge tilt
// 2A d_n m = D m x (z x n) for the interfacial kind) is what this sum
// converges to as h -> 0 (S. Rohart and A. Thiaville, PRB 88, 184422
// (2013)).  The field H_i = -(1 / (MS V)) dE/dM_i of the bond is
//   (D / (MS^2 h)) g(u) x M_j,
// so the block at offset o = target - source = -u h is
//   interfacial: -(D / (MS^2 h)) [(z x o^) x],   bulk: (D / (MS^2 h)) [o^ x],
// antisymmetric in its components and odd in o: B(-o) = B(o)^T, which
// keeps the interaction matrix of all cells symmetric.  The field is the
// central difference of the continuum field
//   interfacial: (2D / MS) (d_x m_z, d_y m_z, -d_x m_x - d_y m_y),
//   bulk:        -(2D / MS) curl m.
// The interfacial kind has no bonds along z.
#include <array>

#include "core/array.hpp"
#include "core/periodic.hpp"
#include "tensor/neighbour_blocks.hpp"

namespace torix {

constexpr int kDmiInterfacial = 1;
constexpr int kDmiBulk = 2;

// The block (column by column, Oe per emu/cm^3) that a source cell puts on
// its neighbour in direction d = 1..6 (neighbour_offset(d) = target -
// source), for DMI constant D (erg/cm^2), source MS (emu/cm^3) and the
// cell size h (cm) along d.
std::array<double, 9> dmi_block(int kind, double D, double ms, double h, int d);

// Adds the DMI of material m to slice m of AIJ on the six nearest-neighbour
// offsets (those inside the tensor's range -n..n+1) and, along the periodic
// axes, on their images inside that range; and to the nearest-neighbour
// record nb(., d, m).  The slice belongs to the SOURCE material, as for
// exchange: a cell of material m couples through its DMI to every magnetic
// neighbour.  Repeated calls accumulate.
void adddmi(TensorArray& AIJ, NeighbourBlocks& nb, const Array<double, 1>& MS, const Periodicity& p, int nx, int ny,
            int nz, double dx, double dy, double dz, int kind, double D, int m);

// The antisymmetric part (B - B^T) / 2 of every slice's blocks at the six
// nearest-neighbour offsets, added to nb: what a tensor read from a file
// holds of the DMI (dipolar and exchange blocks are symmetric).  Meant for a
// grid without periodic axes, where those offsets hold no image.
void add_antisymmetric_neighbours(const TensorArray& AIJ, NeighbourBlocks& nb, int nx, int ny, int nz, int nmat);

}  // namespace torix
