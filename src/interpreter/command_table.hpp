#pragma once
#include <string>

namespace torix {

// Runs the command script at `path` (shown as `display` in messages) until
// END.  Throws FatalError on bad input or a missing END.
void run_script(const std::string& path, const std::string& display);

}  // namespace torix
