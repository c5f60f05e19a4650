#include "output/mode_files.hpp"

#include <cmath>

#include "core/console.hpp"
#include "output/mode_vectors.hpp"
#include "output/ovf.hpp"
#include "output/vtk.hpp"

namespace torix {

namespace {

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

void savemodeovf(const std::string& re_name, const std::string& im_name, const ModeInput& in, int p) {
    CVecGrid u;
    (void)reference_mode(in, p, false, u);
    VecGrid re, im;
    split(u, re, im);
    const std::string n = std::to_string(p);
    const std::string desc = "TORIX mode " + n + ": f = " + format_real(in.W(p, 1)) + " Oe, g = " +
                             format_real(in.W(p, 2)) + " Oe; Cartesian mode vector u, largest amplitude 1";
    const OvfLabels lre{"mode " + n + " Re u", desc, {"Re_u_x", "Re_u_y", "Re_u_z"}, {"1", "1", "1"}};
    const OvfLabels lim{"mode " + n + " Im u", desc, {"Im_u_x", "Im_u_y", "Im_u_z"}, {"1", "1", "1"}};
    saveovf(re_name, re, in.MASQUE, in.nx, in.ny, in.nz, in.dx, in.dy, in.dz, 1.0, lre, true);
    saveovf(im_name, im, in.MASQUE, in.nx, in.ny, in.nz, in.dx, in.dy, in.dz, 1.0, lim, true);
}

void savemodevti(const std::string& name, const ModeInput& in, int p, double shown_f) {
    const int nx = in.nx, ny = in.ny, nz = in.nz;
    const IntGrid& MASQUE = in.MASQUE;
    const VecGrid& M = in.M;
    CVecGrid u;
    const PhaseRef ref = reference_mode(in, p, false, u);
    VecGrid re, im;
    split(u, re, im);
    VecGrid m0 = make_vec_grid(nx, ny, nz);
    Array<double, 3> amp({Range{0, nx}, Range{0, ny}, Range{0, nz}}, 0.0);
    Array<double, 3> phase({Range{0, nx}, Range{0, ny}, Range{0, nz}}, 0.0);
    Array<double, 3> phase_local({Range{0, nx}, Range{0, ny}, Range{0, nz}}, 0.0);
    // "phase" in the fixed frame of the body (the local one for a body
    // without a mean direction), "phase_local" of the local component.
    const FixedFrame frame = fixed_frame(M, MASQUE, nx, ny, nz);
    const FixedPhase fixed = fixed_phase(u, frame, ref, MASQUE, nx, ny, nz);
    // One thread: this loop is a fraction of the file's writing, and on a
    // busy machine a parallel loop waits for its slowest thread.
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (MASQUE(i, j, k) == 0) continue;
                const double x = M(i, j, k, 1), y = M(i, j, k, 2), z = M(i, j, k, 3);
                const double r = std::sqrt(x * x + y * y + z * z);
                for (int a = 1; a <= 3; ++a) m0(i, j, k, a) = r > 0.0 ? M(i, j, k, a) / r : 0.0;
                // |u| from the parts already split.
                double a2 = 0.0;
                for (int a = 1; a <= 3; ++a) a2 += re(i, j, k, a) * re(i, j, k, a) + im(i, j, k, a) * im(i, j, k, a);
                amp(i, j, k) = std::sqrt(a2);
                phase_local(i, j, k) = phase_of(local_components(u, M, i, j, k)[ref.component - 1]);
                phase(i, j, k) = frame.aligned ? fixed.phase(along(u, i, j, k, fixed.axis(frame))) : phase_local(i, j, k);
            }
    const std::ptrdiff_t cs = m0.stride(3);
    savevti(name, nx, ny, nz, in.dx, in.dy, in.dz,
            {{"m0", 3, m0.data(), nullptr, cs},
             {"u_re", 3, re.data(), nullptr, cs},
             {"u_im", 3, im.data(), nullptr, cs},
             {"amplitude", 1, amp.data(), nullptr, 0},
             {"phase", 1, phase.data(), nullptr, 0},
             {"phase_local", 1, phase_local.data(), nullptr, 0},
             {"material", 1, nullptr, MASQUE.data(), 0}},
            {{"mode", static_cast<double>(p)},
             {"f", in.W(p, 1)},
             {"g", in.W(p, 2)},
             {"frequency", shown_f},
             {"participation_ratio", participation_ratio(u, MASQUE, nx, ny, nz)},
             {"phase_axis_x", frame.aligned ? fixed.axis(frame)[0] : 0.0},
             {"phase_axis_y", frame.aligned ? fixed.axis(frame)[1] : 0.0},
             {"phase_axis_z", frame.aligned ? fixed.axis(frame)[2] : 0.0}});
}

}  // namespace torix
