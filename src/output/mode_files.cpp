#include "output/mode_files.hpp"

#include <cmath>

#include "core/console.hpp"
#include "output/mode_vectors.hpp"
#include "output/ovf.hpp"
#include "output/vtk.hpp"

namespace torix {

namespace {

CVecGrid normalised_mode(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                         const Array<cplx, 3>& MODES, int p, PhaseRef& ref) {
    CVecGrid u;
    mode_vector(nx, ny, nz, N, MASQUE, NUM, M, MODES, p, u);
    ref = find_phase(u, M, MASQUE, nx, ny, nz);
    normalise_mode(u, ref);
    return u;
}

void split(const CVecGrid& u, VecGrid& re, VecGrid& im) {
    re = make_vec_grid(u.hi(0), u.hi(1), u.hi(2));
    im = make_vec_grid(u.hi(0), u.hi(1), u.hi(2));
    const cplx* z = u.data();
    double* r = re.data();
    double* i = im.data();
    for (std::size_t c = 0; c < u.size(); ++c) {
        r[c] = z[c].real() + 0.0;  // no -0 at empty cells
        i[c] = z[c].imag() + 0.0;
    }
}

}  // namespace

void savemodeovf(const std::string& re_name, const std::string& im_name, int p, int nx, int ny, int nz, double dx,
                 double dy, double dz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                 const Array<cplx, 3>& MODES, double f, double g) {
    PhaseRef ref;
    const CVecGrid u = normalised_mode(nx, ny, nz, N, MASQUE, NUM, M, MODES, p, ref);
    VecGrid re, im;
    split(u, re, im);
    const std::string n = std::to_string(p);
    const std::string desc = "TORIX mode " + n + ": f = " + format_real(f) + " Oe, g = " + format_real(g) +
                             " Oe; Cartesian mode vector u, largest amplitude 1";
    const OvfLabels lre{"mode " + n + " Re u", desc, {"Re_u_x", "Re_u_y", "Re_u_z"}, {"1", "1", "1"}};
    const OvfLabels lim{"mode " + n + " Im u", desc, {"Im_u_x", "Im_u_y", "Im_u_z"}, {"1", "1", "1"}};
    saveovf(re_name, re, MASQUE, nx, ny, nz, dx, dy, dz, 1.0, lre, true);
    saveovf(im_name, im, MASQUE, nx, ny, nz, dx, dy, dz, 1.0, lim, true);
}

void savemodevti(const std::string& name, int p, int nx, int ny, int nz, double dx, double dy, double dz, int N,
                 const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M, const Array<cplx, 3>& MODES, double f,
                 double g, double shown_f) {
    PhaseRef ref;
    const CVecGrid u = normalised_mode(nx, ny, nz, N, MASQUE, NUM, M, MODES, p, ref);
    VecGrid re, im;
    split(u, re, im);
    VecGrid m0 = make_vec_grid(nx, ny, nz);
    Array<double, 3> amp({Range{0, nx}, Range{0, ny}, Range{0, nz}}, 0.0);
    Array<double, 3> phase({Range{0, nx}, Range{0, ny}, Range{0, nz}}, 0.0);
    // Threads only where the grid is large enough to pay for them.
    const bool large = static_cast<long long>(nx + 1) * (ny + 1) * (nz + 1) > 16384;
#pragma omp parallel for schedule(static) if (large)
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (MASQUE(i, j, k) == 0) continue;
                const double r = std::hypot(M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3));
                for (int a = 1; a <= 3; ++a) m0(i, j, k, a) = r > 0.0 ? M(i, j, k, a) / r : 0.0;
                amp(i, j, k) = amplitude(u, i, j, k);
                phase(i, j, k) = phase_of(local_components(u, M, i, j, k)[ref.component - 1]);
            }
    const std::ptrdiff_t cs = m0.stride(3);
    savevti(name, nx, ny, nz, dx, dy, dz,
            {{"m0", 3, m0.data(), nullptr, cs},
             {"u_re", 3, re.data(), nullptr, cs},
             {"u_im", 3, im.data(), nullptr, cs},
             {"amplitude", 1, amp.data(), nullptr, 0},
             {"phase", 1, phase.data(), nullptr, 0},
             {"material", 1, nullptr, MASQUE.data(), 0}},
            {{"mode", static_cast<double>(p)},
             {"f", f},
             {"g", g},
             {"frequency", shown_f},
             {"participation_ratio", participation_ratio(u, MASQUE, nx, ny, nz)}});
}

}  // namespace torix
