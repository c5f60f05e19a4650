#pragma once
// What a command handler works with: the model state and the script.
#include <string_view>

#include "core/console.hpp"
#include "core/listio.hpp"
#include "interpreter/model_state.hpp"

namespace torix {

struct ModeInput;

struct Session {
    ModelState& st;
    ListReader& in;

    // Starts reading the next parameter line of the current command.
    void line() { in.begin(st.LINER); }
    // " KEYWORD ok"
    void ack() const { say(st.LINER + " ok"); }
};

using Handler = void (*)(Session&);

// Command handlers, one per keyword, grouped by the file that holds them.
// commands_state.cpp
void cmd_load_mat(Session&);
void cmd_masque_create(Session&);
void cmd_masque_load(Session&);
void cmd_masque_save(Session&);
void cmd_masque_info(Session&);
void cmd_add_shape(Session&);
void cmd_set_cell(Session&);
void cmd_study_shape(Session&);
void cmd_set_scale(Session&);
void cmd_set_scale_r(Session&);
void cmd_set_scale_r2(Session&);
void cmd_set_current(Session&);
void cmd_set_beta(Session&);
void cmd_set_vrml(Session&);
void cmd_set_gyro(Session&);
// commands_periodic.cpp
void cmd_set_periodic(Session&);
// commands_tensor.cpp (and cmd_add_anisotropy_field in commands_fourier.cpp)
void cmd_tensor_macro(Session&);
void cmd_tensor_create(Session&);
void cmd_add_anisotropy(Session&);
void cmd_add_dmi(Session&);
void cmd_add_anisotropy_field(Session&);
void cmd_tensor_save(Session&);
void cmd_tensor_load(Session&);
// commands_terms.cpp
void cmd_add_cubic_anisotropy(Session&);
void cmd_add_interlayer_exchange(Session&);
// commands_field.cpp
void cmd_add_ext_field(Session&);
void cmd_init_m(Session&);
void cmd_calc_field(Session&);
void cmd_m_save(Session&);
void cmd_m_load(Session&);
void cmd_h_save(Session&);
void cmd_h_average(Session&);
void cmd_h_load(Session&);
// commands_relax.cpp
void cmd_relax(Session&);
void cmd_set_timestep(Session&);
void cmd_exec(Session&);
// commands_eigen.cpp
void cmd_solve_matrix(Session&);
void cmd_solve_matrix_ar(Session&);
void cmd_eigen_save_text(Session&);
void cmd_omega_print(Session&);
void cmd_eigen_load(Session&);
void cmd_solve_modes(Session&);
void cmd_set_wavevector(Session&);
// commands_dispersion.cpp
void cmd_dispersion(Session&);
void cmd_sweep_field(Session&);  // commands_sweep.cpp
// commands_output.cpp
void cmd_set_hrf(Session&);
void cmd_calc_c(Session&);
void cmd_print_c(Session&);
void cmd_print_abs(Session&);
// commands_modes.cpp
void cmd_print_phases(Session&);
void cmd_draw_modes(Session&);
void cmd_draw_modes_e(Session&);
void cmd_draw_modes_p(Session&);
void cmd_print_slices(Session&);
void cmd_print_angle(Session&);
void cmd_vec3(Session&);
// commands_files.cpp
void cmd_ovf_save(Session&);
void cmd_ovf_load(Session&);
void cmd_plot_abs(Session&);
void cmd_mode_save(Session&);
void cmd_plot_modes(Session&);

// Shared steps used by several command files.
// Throws unless modes, mask, magnetization and numbering belong together
// (the mode analyses and mode files need all four).
void need_modes(const ModelState& st);
// The model state's view that the mode routines read.
ModeInput mode_input(const ModelState& st);
// p1..p2 clipped to the modes 1..nmodes; a range that holds none of them is
// an error of the command's parameter line.
void clip_range(const Session& s, int& p1, int& p2);
// Rebuilds the Fourier form of the tensor after AIJ changed (no-op without a tensor).
void refresh_fourier(ModelState& st);
// Numbers the magnetic cells with block sizes (b1, b2, b3), counts the
// multiplicities and writes the numbering map; sets the numbering flag.
void build_numbering(ModelState& st, int b1, int b2, int b3);
// Field method: true when more than 300 cells of MASQUE are magnetic (Fourier convolution).
bool use_fft(const ModelState& st);
// Throws unless the mask, M, H and (with applied_field) the applied field
// exist on the present grid and the tensor covers that grid and every
// material of the mask.
void need_field_inputs(const ModelState& st, bool applied_field = true);
// Throws unless the modes (if any) were found for the present grid and
// numbering: NUM over the grid, a number for every magnetic cell, mode
// amplitudes for every number.
void need_modes_on_grid(const ModelState& st);
// Throws unless an eigen solve has what it needs: the field inputs, a
// numbering on the present grid with a number for every magnetic cell.
void need_solve_inputs(const ModelState& st);
// The model state's view that the eigen solves read.
struct MatrixInput;
MatrixInput solve_input(const ModelState& st);
// Throws unless a mode solve can run: the field inputs, a numbering on the
// present grid that numbers every magnetic cell, a wave vector the body's
// periodic axes allow, and (dense) the memory of the dense solve.
void need_solve_inputs(const ModelState& st, bool dense);
// The ModeSet of the present state as SOLVE_MATRIX (dense) or SOLVE_MODES
// (matrix-free, the nsel lowest modes to relative residual tol) finds it,
// at the wave vector of SET_WAVEVECTOR; no eigen files.
void solve_present_modes(ModelState& st, int nsel, bool dense, double tol);
// H := HINIT, then adds the interaction field of M by the method use_fft chooses.
void compute_field(ModelState& st);

}  // namespace torix
