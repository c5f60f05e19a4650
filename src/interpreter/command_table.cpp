#include "interpreter/command_table.hpp"

#include <algorithm>
#include <fstream>
#include <optional>
#include <sstream>
#include <iostream>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "core/error.hpp"
#include "core/interrupt.hpp"
#include "core/ranks.hpp"
#include "interpreter/notices.hpp"
#include "interpreter/session.hpp"

namespace torix {

namespace {

struct Command {
    std::string_view name;
    Handler run;  // nullptr for END
};

// Compared in this order; the first exact match wins.
constexpr Command kCommands[] = {
    {"LOAD_MAT", cmd_load_mat},
    {"MASQUE_CREATE", cmd_masque_create},
    {"MASQUE_LOAD", cmd_masque_load},
    {"MASQUE_SAVE", cmd_masque_save},
    {"MASQUE_INFO", cmd_masque_info},
    {"ADD_SHAPE", cmd_add_shape},
    {"SET_CELL", cmd_set_cell},
    {"STUDY_SHAPE", cmd_study_shape},
    {"TENSOR_MACRO", cmd_tensor_macro},
    {"TENSOR_CREATE", cmd_tensor_create},
    {"ADD_ANISOTROPY", cmd_add_anisotropy},
    {"ADD_ANISOTROPY_FIELD", cmd_add_anisotropy_field},
    {"ADD_DMI", cmd_add_dmi},
    {"TENSOR_SAVE", cmd_tensor_save},
    {"TENSOR_LOAD", cmd_tensor_load},
    {"ADD_EXT_FIELD", cmd_add_ext_field},
    {"INIT_M", cmd_init_m},
    {"CALC_FIELD", cmd_calc_field},
    {"RELAX", cmd_relax},
    {"SET_TIMESTEP", cmd_set_timestep},
    {"EXEC", cmd_exec},
    {"M_SAVE", cmd_m_save},
    {"M_LOAD", cmd_m_load},
    {"H_SAVE", cmd_h_save},
    {"H_AVERAGE", cmd_h_average},
    {"H_LOAD", cmd_h_load},
    {"SET_SCALE", cmd_set_scale},
    {"SET_SCALE_R", cmd_set_scale_r},
    {"SET_SCALE_R2", cmd_set_scale_r2},
    {"SOLVE_MATRIX", cmd_solve_matrix},
    {"SOLVE_MATRIX_AR", cmd_solve_matrix_ar},
    {"EIGEN_SAVE_TEXT", cmd_eigen_save_text},
    {"OMEGA_PRINT", cmd_omega_print},
    {"EIGEN_LOAD", cmd_eigen_load},
    {"SET_CURRENT", cmd_set_current},
    {"SET_BETA", cmd_set_beta},
    {"SET_VRML", cmd_set_vrml},
    {"SET_HRF", cmd_set_hrf},
    {"CALC_C", cmd_calc_c},
    {"SET_GYRO", cmd_set_gyro},
    {"PRINT_C", cmd_print_c},
    {"PRINT_ABS", cmd_print_abs},
    {"PRINT_PHASES", cmd_print_phases},
    {"DRAW_MODES", cmd_draw_modes},
    {"DRAW_MODES_E", cmd_draw_modes_e},
    {"DRAW_MODES_P", cmd_draw_modes_p},
    {"PRINT_SLICES", cmd_print_slices},
    {"PRINT_ANGLE", cmd_print_angle},
    {"VEC3", cmd_vec3},
    {"OVF_SAVE", cmd_ovf_save},
    {"OVF_LOAD", cmd_ovf_load},
    {"PLOT_ABS", cmd_plot_abs},
    {"MODE_SAVE", cmd_mode_save},
    {"PLOT_MODES", cmd_plot_modes},
    {"SOLVE_MODES", cmd_solve_modes},
    {"SET_PERIODIC", cmd_set_periodic},
    {"SET_WAVEVECTOR", cmd_set_wavevector},
    {"ADD_CUBIC_ANISOTROPY", cmd_add_cubic_anisotropy},
    {"ADD_INTERLAYER_EXCHANGE", cmd_add_interlayer_exchange},
    {"DISPERSION", cmd_dispersion},
    {"SWEEP_FIELD", cmd_sweep_field},
    {"END", nullptr},
};

// Commands that set the model up: after them the model summary is due, and
// it is written before the next command of any other kind (or at END).
constexpr std::string_view kSetUp[] = {"SET_CELL", "MASQUE_CREATE", "MASQUE_LOAD",
                                        "ADD_SHAPE", "LOAD_MAT",      "SET_PERIODIC"};
// Commands that leave the model as it is and do not use it up.
constexpr std::string_view kNeutral[] = {"MASQUE_INFO", "MASQUE_SAVE", "STUDY_SHAPE"};
// Commands that solve for modes around the present state.
constexpr std::string_view kSolves[] = {"SOLVE_MATRIX", "SOLVE_MATRIX_AR", "SOLVE_MODES", "DISPERSION"};

bool listed(std::string_view kw, const auto& list) { return std::find(std::begin(list), std::end(list), kw) != std::end(list); }

void tell(const std::vector<std::string>& lines) {
    for (const std::string& l : lines) std::cerr << l << '\n';
    std::cerr << std::flush;
}

}  // namespace

void run_script(const std::string& path, const std::string& display) {
    ModelState st;
    run_script(st, path, display);
}

void run_script(ModelState& st, const std::string& path, const std::string& display) {
    std::optional<ListReader> reader;
    if (rank_count() == 1) {
        reader.emplace(path, display);
    } else {
        // Rank 0 reads the script; every rank runs the same text.
        std::string text, failure;
        if (my_rank() == 0) {
            std::ifstream f(path, std::ios::binary);
            std::ostringstream all;
            if (f) all << f.rdbuf();
            if (!f || f.bad()) failure = display + ": cannot open file for reading";
            text = all.str();
        }
        agree_on_failure(failure.empty() ? nullptr : &failure);
        reader.emplace(ListReader::FromText{}, broadcast(std::move(text), 0), display);
    }
    ListReader& in = *reader;
    std::vector<std::string> names;
    for (const Command& c : kCommands) names.emplace_back(c.name);
    in.warn_to(std::cerr, names);
    Session s{st, in};
    bool summary_due = false;
    for (;;) {
        auto kw = in.keyword();
        if (!kw) in.fail("expected a command keyword or END, found end of file");
        const Command* found = nullptr;
        // Trailing blanks never reach here: items end at the first blank.
        for (const Command& c : kCommands)
            if (c.name == *kw) {
                found = &c;
                break;
            }
        if (found == nullptr) {
            // A line starting with # or ! is a comment, skipped without a word.
            if ((*kw)[0] != '#' && (*kw)[0] != '!') in.warn(skipped_line_message(*kw, names));
            continue;
        }
        if (in.items().size() > 1) {
            std::string rest;
            for (std::size_t i = 1; i < in.items().size(); ++i) rest += (i > 1 ? " \"" : "\"") + in.items()[i] + "\"";
            in.warn(*kw + " reads its parameters from the lines below it; ignored on this line: " + rest);
        }
        if (summary_due && !listed(*kw, kSetUp) && !listed(*kw, kNeutral)) {
            tell(model_summary(st));
            summary_due = false;
        }
        if (listed(*kw, kSetUp)) summary_due = true;
        const bool solve = listed(*kw, kSolves);
        if (solve) tell(equilibrium_lines(check_equilibrium(st), *kw));
        for (const Command& c : kCommands) {
            if (&c != found) continue;
            if (c.run == nullptr) return;
            st.LINER = *kw;
            const int at = in.line();
            note_running_command(display, at, *kw);
            // A command's own complaints (about the state it finds) carry the
            // script line of its keyword; a reader's message already names
            // its file and line or record.
            // Every rank ends every command here together (ranks.hpp), so
            // that a failure on one rank ends them all.
            const auto located = [&](const std::string& msg) {
                return msg.rfind(*kw + ":", 0) != 0 ? msg : display + ":" + std::to_string(at) + ": " + msg;
            };
            std::optional<std::string> failure;
            try {
                c.run(s);
            } catch (const AgreedFailure& e) {
                throw AgreedFailure(located(e.what()));  // the ranks agreed within the command
            } catch (const FatalError& e) {
                failure = located(e.what());
            } catch (const std::bad_alloc&) {
                failure = display + ":" + std::to_string(at) + ": " + *kw + ": out of memory while allocating its arrays";
            }
            agree_on_failure(failure ? &*failure : nullptr);
            if (solve) tell(growing_mode_lines(st, *kw));
            break;
        }
    }
}

}  // namespace torix
