#include "tensor/newell.hpp"

#include <cmath>

namespace torix {

double ph(double a) { return std::log(a + std::sqrt(a * a + 1.0)); }

double fs(double x, double y, double z) {
    const double x2 = x * x, y2 = y * y, z2 = z * z;
    const double R = std::sqrt(x2 + y2 + z2);
    const double P1 = (std::fabs(x) >= 1e-10 || std::fabs(z) >= 1e-10) ? ph(y / std::sqrt(x2 + z2)) : 0.0;
    const double P2 = (std::fabs(x) >= 1e-200 || std::fabs(y) >= 1e-200) ? ph(z / std::sqrt(x2 + y2)) : 0.0;
    const double Q = (std::fabs(x) >= 1e-10) ? std::atan(y * z / (x * R)) : 0.0;
    return (y / 2.0) * (z2 - x2) * P1 + (z / 2.0) * (y2 - x2) * P2 - x * y * z * Q + (R / 6.0) * (2.0 * x2 - y2 - z2);
}

double gs(double x, double y, double z) {
    const double x2 = x * x, y2 = y * y, z2 = z * z;
    const double R = std::sqrt(x2 + y2 + z2);
    const double Pz = (std::fabs(x) >= 1e-10 && std::fabs(y) >= 1e-10) ? ph(z / std::sqrt(x2 + y2)) : 0.0;
    const double Px = (std::fabs(y) >= 1e-10) ? ph(x / std::sqrt(y2 + z2)) : 0.0;
    const double Py = (std::fabs(x) >= 1e-10) ? ph(y / std::sqrt(x2 + z2)) : 0.0;
    const double Qz = (std::fabs(z) >= 1e-10) ? std::atan(x * y / (z * R)) : 0.0;
    const double Qy = (std::fabs(y) >= 1e-10) ? std::atan(z * x / (y * R)) : 0.0;
    const double Qx = (std::fabs(x) >= 1e-10) ? std::atan(z * y / (x * R)) : 0.0;
    return (x / 6.0) * (3.0 * z2 - x2) * Py + (y / 6.0) * (3.0 * z2 - y2) * Px + x * y * z * Pz - x * y * R / 3.0 -
           (z2 * z / 6.0) * Qz - (z * y2 / 2.0) * Qy - (z * x2 / 2.0) * Qx;
}

void f2(double x, double y, double z, double& r) { r = fs(x, y, z) - fs(x, 0.0, z) - fs(x, y, 0.0) + fs(x, 0.0, 0.0); }

void f1(double x, double y, double z, double /*a*/, double b, double c, double& r) {
    double t1, t2, t3, t4;
    f2(x, y - b, z - c, t1);
    f2(x, y, z - c, t2);
    f2(x, y - b, z, t3);
    f2(x, y, z, t4);
    r = t1 - t2 - t3 + t4;
}

void f(double x, double y, double z, double a, double b, double c, double& r) {
    double t1, t2, t3, t4;
    f1(x, y + b, z + c, a, b, c, t1);
    f1(x, y, z + c, a, b, c, t2);
    f1(x, y + b, z, a, b, c, t3);
    f1(x, y, z, a, b, c, t4);
    r = t1 - t2 - t3 + t4;
}

void g2(double x, double y, double z, double& r) { r = gs(x, y, z) - gs(x, y, 0.0); }

void g1(double x, double y, double z, double a, double /*b*/, double c, double& r) {
    double t1, t2, t3, t4;
    g2(x + a, y, z + c, t1);
    g2(x + a, y, z, t2);
    g2(x, y, z + c, t3);
    g2(x, y, z, t4);
    r = t1 - t2 - t3 + t4;
}

void g(double x, double y, double z, double a, double b, double c, double& r) {
    double t1, t2, t3, t4;
    g1(x, y - b, z - c, a, b, c, t1);
    g1(x, y, z - c, a, b, c, t2);
    g1(x, y - b, z, a, b, c, t3);
    g1(x, y, z, a, b, c, t4);
    r = t1 - t2 - t3 + t4;
}

namespace {
double fv(double x, double y, double z, double a, double b, double c) {
    double r;
    f(x, y, z, a, b, c, r);
    return r;
}
double gv(double x, double y, double z, double a, double b, double c) {
    double r;
    g(x, y, z, a, b, c, r);
    return r;
}
}  // namespace

void tensornewall(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, int nx, int ny, int nz,
                  double dx, double dy, double dz, int m, int /*nmat*/) {
    const double ms2 = MS(m) * MS(m);
    const double ex = 2.0 * A(m) / (ms2 * dx * dx);
    const double ey = 2.0 * A(m) / (ms2 * dy * dy);
    const double ez = 2.0 * A(m) / (ms2 * dz * dz);
    const double V = dx * dy * dz;
    for (int i = -nx; i <= nx + 1; ++i)
        for (int j = -ny; j <= ny + 1; ++j)
            for (int k = -nz; k <= nz + 1; ++k) {
                const double X = i * dx, Y = j * dy, Z = k * dz;
                AIJ(i, j, k, 1, m) -= (2.0 * fv(X, Y, Z, dx, dy, dz) - fv(X + dx, Y, Z, dx, dy, dz) -
                                       fv(X - dx, Y, Z, dx, dy, dz)) / V;
                AIJ(i, j, k, 5, m) -= (2.0 * fv(Y, -X, Z, dy, dx, dz) - fv(Y + dy, -X, Z, dy, dx, dz) -
                                       fv(Y - dy, -X, Z, dy, dx, dz)) / V;
                AIJ(i, j, k, 9, m) -= (2.0 * fv(Z, X, Y, dz, dx, dy) - fv(Z + dz, X, Y, dz, dx, dy) -
                                       fv(Z - dz, X, Y, dz, dx, dy)) / V;
                AIJ(i, j, k, 4, m) -= (gv(X, Y, Z, dx, dy, dz) - gv(X - dx, Y, Z, dx, dy, dz) -
                                       gv(X, Y + dy, Z, dx, dy, dz) + gv(X - dx, Y + dy, Z, dx, dy, dz)) / V;
                AIJ(i, j, k, 7, m) -= (gv(X, Z, -Y, dx, dz, dy) - gv(X - dx, Z, -Y, dx, dz, dy) -
                                       gv(X, Z + dz, -Y, dx, dz, dy) + gv(X - dx, Z + dz, -Y, dx, dz, dy)) / V;
                AIJ(i, j, k, 8, m) -= (gv(Y, Z, X, dy, dz, dx) - gv(Y - dy, Z, X, dy, dz, dx) -
                                       gv(Y, Z + dz, X, dy, dz, dx) + gv(Y - dy, Z + dz, X, dy, dz, dx)) / V;
                AIJ(i, j, k, 2, m) = AIJ(i, j, k, 4, m);
                AIJ(i, j, k, 3, m) = AIJ(i, j, k, 7, m);
                AIJ(i, j, k, 6, m) = AIJ(i, j, k, 8, m);
                const int ai = i < 0 ? -i : i, aj = j < 0 ? -j : j, ak = k < 0 ? -k : k;
                double e = 0.0;
                bool nb = false;
                if (ai == 1 && j == 0 && k == 0) e = ex, nb = true;
                else if (i == 0 && aj == 1 && k == 0) e = ey, nb = true;
                else if (i == 0 && j == 0 && ak == 1) e = ez, nb = true;
                if (nb) {
                    AIJ(i, j, k, 1, m) += e;
                    AIJ(i, j, k, 5, m) += e;
                    AIJ(i, j, k, 9, m) += e;
                }
            }
}

}  // namespace torix
