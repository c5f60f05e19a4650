#pragma once
// Newell's point functions for the magnetostatic interaction of two
// uniformly magnetized rectangular boxes, and the literal tensor filler.
//
// Lengths are in cm.  The tensor is in Gaussian units with the 4 pi inside:
// a demagnetizing entry is -4 pi times Newell's dimensionless factor, so the
// field in Oe is the tensor applied to the magnetization in emu/cm^3.
#include "core/array.hpp"

namespace torix {

double ph(double a);
double fs(double x, double y, double z);
double gs(double x, double y, double z);
void f2(double x, double y, double z, double& r);
void f1(double x, double y, double z, double a, double b, double c, double& r);
void f(double x, double y, double z, double a, double b, double c, double& r);
void g2(double x, double y, double z, double& r);
void g1(double x, double y, double z, double a, double b, double c, double& r);
void g(double x, double y, double z, double a, double b, double c, double& r);

// Adds the slice of material m (1..nmat) of the interaction tensor to AIJ:
// dipolar entries for every offset (-nx..nx+1, -ny..ny+1, -nz..nz+1) and the
// exchange coefficient 2 A(m) / (MS(m)^2 d^2) on the six nearest-neighbour
// offsets.  A in erg/cm, MS in emu/cm^3, cell sizes in cm.  This is the
// plain offset-by-offset evaluation, kept as the reference.
void tensornewall(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, int nx, int ny, int nz,
                  double dx, double dy, double dz, int m, int nmat);

}  // namespace torix
