// Tensor commands: build, anisotropy, files.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>

#include "core/memory.hpp"
#include "interpreter/session.hpp"
#include "tensor/anisotropy.hpp"
#include "tensor/dmi.hpp"
#include "tensor/lattice_sum.hpp"
#include "tensor/macro.hpp"
#include "tensor/neighbour_blocks.hpp"
#include "tensor/tensor_accurate.hpp"
#include "tensor/tensor_build.hpp"
#include "tensor/tensor_files.hpp"

namespace torix {

namespace {

// The tensor exists and is laid out for the current grid and materials.
bool tensor_fits(const ModelState& st) {
    const TensorArray& T = st.AIJ;
    return T.allocated() && T.lo(0) == -st.nx && T.hi(0) == st.nx + 1 && T.lo(1) == -st.ny &&
           T.hi(1) == st.ny + 1 && T.lo(2) == -st.nz && T.hi(2) == st.nz + 1 && T.lo(4) == 1 && T.hi(4) == st.nmat;
}

void need_tensor(Session& s) {
    if (s.st.nx < 0 || s.st.ny < 0 || s.st.nz < 0)
        s.in.fail("the grid holds no cell (MASQUE_CREATE or MASQUE_LOAD first)");
    if (!tensor_fits(s.st))
        s.in.fail("no interaction tensor for the current grid and materials (run TENSOR_CREATE or TENSOR_LOAD first)");
}

void need_material(Session& s, int m) {
    if (m < 1 || m > s.st.nmat)
        s.in.fail("material " + std::to_string(m) + " is outside 1.." + std::to_string(s.st.nmat));
}

// The tensor over the present grid and materials, with its Fourier form
// (about as large again), must fit in memory.
void check_tensor_size(Session& s) {
    const ModelState& st = s.st;
    const auto offsets = [](int n) { return n < 0 ? 0.0 : 2.0 * (n + 1.0); };
    const double count = offsets(st.nx) * offsets(st.ny) * offsets(st.nz);
    const double bytes = count * 9.0 * std::max(st.nmat, 0) * 8.0;
    if (2.0 * bytes > physical_memory()) {
        char buf[160];
        std::snprintf(buf, sizeof buf, "the tensor of %.0f offsets x 9 components x %d materials needs %.0f bytes",
                      count, st.nmat, bytes);
        s.in.fail(std::string(buf) + " and as much again for its Fourier form, more than the memory of this machine");
    }
}

// A switch distance or number of terms chosen in the script may not reach
// the accuracy asked for; the tensor is built as asked, with a warning.
void warn_if_short(const ModelState& st, int n1, int n2, double r) {
    const AccuratePlan plan = plan_accurate(st.dx, st.dy, st.dz, n1, n2, r);
    const double err = expansion_error(plan, plan.switch_dist, expansion_terms(plan, plan.switch_dist));
    if (err <= plan.rtol) return;
    std::cerr << "TENSOR_CREATE: warning: at the switch distance of " << plan.switch_cells << " cell sides, "
              << expansion_terms(plan, plan.switch_dist) << " expansion terms are estimated to reach " << err
              << " relative, not the " << plan.rtol << " asked for (a larger n1 or n2, or 0 0 for automatic)\n";
}

}  // namespace

// The tensor between the blocks of the present numbering (block sizes of
// the last SET_SCALE), from material 1, to "macro.dat" and "macro.txt".
void cmd_tensor_macro(Session& s) {
    ModelState& st = s.st;
    need_tensor(s);
    need_material(s, 1);
    calcmacro(st.AIJ, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, st.s1, st.s2, st.s3, 1);
    s.ack();
}

// kind <= 0: the Newell tensor with exchange for every material; kind > 0:
// the same tensor accurate at every offset, with the line "n1 n2 r" (switch
// distance, number of expansion terms, relative accuracy).
void cmd_tensor_create(Session& s) {
    s.line();
    const int kind = s.in.i32("the tensor kind");
    int n1 = 0, n2 = 0;
    double r = 0.0;
    if (kind > 0) {
        s.line();
        n1 = s.in.i32("the switch distance n1");
        n2 = s.in.i32("the number of expansion terms n2");
        r = s.in.f64("the relative accuracy r");
    }
    ModelState& st = s.st;
    check_tensor_size(s);
    st.AIJ = make_tensor(st.nx, st.ny, st.nz, st.nmat);
    if (st.periodic.any()) {
        // The lattice sum takes every block from the accurate builder, so
        // both kinds give the same periodic tensor.
        const Lattice lat{st.periodic, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz};
        tensor_periodic(st.A, st.MS, st.AIJ, lat, st.nmat);
    } else if (kind > 0) {
        warn_if_short(st, n1, n2, r);
        for (int m = 1; m <= st.nmat; ++m)
            calctensorc(st.A, st.MS, st.AIJ, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, m, st.nmat, n1, n2, r);
    } else {
        tensorbuild(st.A, st.MS, st.AIJ, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, st.nmat);
    }
    st.tensor_periodicity = st.periodic;
    st.neighbours = exchange_neighbour_blocks(st.A, st.MS, st.dx, st.dy, st.dz, st.nmat);
    // A new tensor starts the model's terms afresh: those kept beside it go
    // with the anisotropy added into the old one.
    st.local_terms = LocalTerms{};
    refresh_fourier(st);
    s.ack();
}

// Line: material, ux, uy, uz, K (erg/cm^3).
void cmd_add_anisotropy(Session& s) {
    s.line();
    const int m = s.in.i32("the material");
    const double ux = s.in.f64("ux"), uy = s.in.f64("uy"), uz = s.in.f64("uz");
    double K = s.in.f64("K");
    ModelState& st = s.st;
    need_tensor(s);
    need_material(s, m);
    addanisotropy(st.AIJ, st.MS, st.nx, st.ny, st.nz, ux, uy, uz, K, m, st.nmat);
    refresh_fourier(st);
    s.ack();
}

// Line: material, kind (1 interfacial, 2 bulk), D (erg/cm^2).
void cmd_add_dmi(Session& s) {
    s.line();
    const int m = s.in.i32("the material");
    const int kind = s.in.i32("the DMI kind");
    const double D = s.in.f64("D");
    ModelState& st = s.st;
    need_tensor(s);
    need_material(s, m);
    if (kind != kDmiInterfacial && kind != kDmiBulk)
        s.in.fail("the DMI kind must be 1 (interfacial) or 2 (bulk), not " + std::to_string(kind));
    adddmi(st.AIJ, st.neighbours, st.MS, st.tensor_periodicity, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, kind, D, m);
    st.local_terms.dmi = dmi_interfaces(st.neighbours, st.tensor_periodicity, st.nmat);
    refresh_fourier(st);
    s.ack();
}

// Line: format (1 text, 2 binary), material, file name.
void cmd_tensor_save(Session& s) {
    s.line();
    const int format = s.in.i32("the format");
    const int m = s.in.i32("the material");
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    if (format == 1 || format == 2) {
        need_tensor(s);
        need_material(s, m);
        if (format == 1)
            savetensort(st.AIJ, st.nx, st.ny, st.nz, m, st.nmat, st.FNAME, st.tensor_periodicity);
        else
            savetensor(st.AIJ, st.nx, st.ny, st.nz, m, st.nmat, st.FNAME, st.tensor_periodicity);
        // The terms that are not linear in M live beside the tensor, not in
        // it: a run that loads the file must add them again.
        if (!st.local_terms.cubic.empty() || !st.local_terms.interlayer.empty())
            s.in.warn("the tensor file \"" + st.FNAME + "\" holds the tensor only; the cubic anisotropy and the "
                      "interlayer exchange of the model are not in it (after TENSOR_LOAD in another run, add them "
                      "again with ADD_CUBIC_ANISOTROPY and ADD_INTERLAYER_EXCHANGE)");
    }
    s.ack();
}

// Line: format (1 text, 2 binary), material, file name.  Allocates a
// zero tensor first unless one exists for the current grid and materials.
void cmd_tensor_load(Session& s) {
    s.line();
    const int format = s.in.i32("the format");
    const int m = s.in.i32("the material");
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    if (format == 1 || format == 2) {
        need_material(s, m);
        if (!tensor_fits(st)) {
            check_tensor_size(s);
            st.AIJ = make_tensor(st.nx, st.ny, st.nz, st.nmat);
        }
        const Periodicity file_p = format == 1 ? loadtensort(st.AIJ, st.nx, st.ny, st.nz, m, st.nmat, st.FNAME)
                                               : loadtensor(st.AIJ, st.nx, st.ny, st.nz, m, st.nmat, st.FNAME);
        if (!(file_p == st.periodic))
            s.in.fail("the tensor file \"" + st.FNAME + "\" was summed over the periodic axes " +
                      periodic_axes_text(file_p) + ", the model repeats along " + periodic_axes_text(st.periodic) +
                      " (SET_PERIODIC before TENSOR_LOAD, as for the tensor saved)");
        st.tensor_periodicity = file_p;
        // A loaded slice carries the exchange of the materials it was made
        // for; the short-range record assumes they are the present ones.
        // The antisymmetric part of the nearest-neighbour blocks is the DMI
        // that the slices hold.
        st.neighbours = exchange_neighbour_blocks(st.A, st.MS, st.dx, st.dy, st.dz, st.nmat);
        add_antisymmetric_neighbours(st.AIJ, st.neighbours, st.nx, st.ny, st.nz, st.nmat);
        st.local_terms.dmi = dmi_interfaces(st.neighbours, st.tensor_periodicity, st.nmat);
        refresh_fourier(st);
    }
    s.ack();
}

}  // namespace torix
