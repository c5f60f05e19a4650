#pragma once
#include <string>

namespace torix {

// Runs the command script at `path` (shown as `display` in messages) until
// END.  Throws FatalError on bad input or a missing END.
void run_script(const std::string& path, const std::string& display);

struct ModelState;
// The same on a model state that earlier commands have set up (the script
// fuzz target starts every input from one prepared state).
void run_script(ModelState& st, const std::string& path, const std::string& display);

}  // namespace torix
