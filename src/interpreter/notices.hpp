#pragma once
// What the command loop tells the writer of a script on standard error,
// beside the console lines: skipped lines with the keyword probably meant,
// a summary of the model once it is set up, the equilibrium that a solve
// linearises around, and modes that grow.  None of it changes what a
// command does or prints on standard output.
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace torix {

struct ModelState;

// The keyword of `names` that `word` was probably meant to be: the same
// word in another case, else the nearest by optimal string alignment
// distance (insertions, deletions, substitutions and swaps of neighbours,
// each 1) within 1 for words up to 4 characters and 2 beyond; ties listed
// in table order, joined by " or ".  Empty when none is close.
std::string closest_keyword(std::string_view word, const std::vector<std::string>& names);

// Optimal string alignment distance of a and b (case-sensitive).
int edit_distance(std::string_view a, std::string_view b);

// The reason a skipped line was skipped, with a suggestion:
// "\"ADD_EXT_FEILD\" is not a command (did you mean ADD_EXT_FIELD?)".
std::string skipped_line_message(std::string_view word, const std::vector<std::string>& names);

// The model summary: grid, cells, shapes (asked and painted), materials
// with their exchange lengths, and the values that look like another
// system of units.  Lines without a trailing newline.
std::vector<std::string> model_summary(const ModelState& st);

// Equilibrium of the present state, as a solve sees it.
struct Equilibrium {
    bool checked = false;      // false when M, H or the tensor are missing
    double torque = 0.0;       // largest |m x H| / |H| over the magnetic cells
    int i = -1, j = -1, k = -1;  // where it is largest
    double stale = 0.0;        // largest |H_held - H_now| / largest |H_now|
    std::int64_t zero_field_cells = 0;  // magnetic cells whose held H (or M) is 0 (skipped)
};

// Evaluates the field of the present M and applied field afresh (the held
// H is put back), compares it with the held one and takes the torque.
Equilibrium check_equilibrium(ModelState& st);

// Torque above which a solve is warned about.
inline constexpr double kTorqueWarning = 1e-4;

// The lines about the equilibrium before the solve `keyword`.
std::vector<std::string> equilibrium_lines(const Equilibrium& e, std::string_view keyword);

// The lines about growing modes (g < 0 beyond rounding) after a solve.
std::vector<std::string> growing_mode_lines(const ModelState& st, std::string_view keyword);

}  // namespace torix
