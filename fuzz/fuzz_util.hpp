#pragma once
// Shared by the fuzz targets: every target works in a scratch directory of
// its own (made once, emptied after every input), writes the input to a
// file there and calls a reader on it.  A FatalError is the expected end of
// bad input; anything else (a crash, a sanitizer report, another exception)
// is a finding.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace torix::fuzz {

// Moves into a fresh scratch directory under TMPDIR (or /tmp) on first use.
inline void enter_scratch() {
    static const bool done = [] {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr && *base != 0 ? base : "/tmp") + "/torix-fuzz-XXXXXX";
        if (::mkdtemp(tmpl.data()) == nullptr || ::chdir(tmpl.c_str()) != 0) std::abort();
        return true;
    }();
    (void)done;
}

inline void write_file(const std::string& name, const std::uint8_t* data, std::size_t size) {
    std::ofstream(name, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                  static_cast<std::streamsize>(size));
}

// Removes whatever the last input left in the scratch directory.
inline void clear_scratch() {
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(".", ec)) std::filesystem::remove_all(e.path(), ec);
}

// Reads a small grid (largest indices 0..7) and a selector from the first
// bytes of an input; `rest` points past them.
struct Head {
    int nx = 0, ny = 0, nz = 0, pick = 0;
    const std::uint8_t* rest = nullptr;
    std::size_t left = 0;
};

inline bool take_head(const std::uint8_t* data, std::size_t size, Head& h) {
    if (size < 2) return false;
    h.nx = data[0] & 7;
    h.ny = (data[0] >> 3) & 7;
    h.nz = data[1] & 3;
    h.pick = data[1] >> 2;
    h.rest = data + 2;
    h.left = size - 2;
    return true;
}

}  // namespace torix::fuzz
