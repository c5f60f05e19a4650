#pragma once
// A fatal error of the run: bad script input, an unreadable or inconsistent
// file.  The entry point prints what() on standard error and exits with
// status 1; everything finished before stays on disk.
#include <stdexcept>
#include <string>

namespace torix {

class FatalError : public std::runtime_error {
public:
    explicit FatalError(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace torix
