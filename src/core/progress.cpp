#include "core/progress.hpp"

#include <chrono>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace torix {

ProgressOutput stderr_progress_output() {
    ProgressOutput o;
    o.now = [] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    };
    // One write per line, so a line never mixes with another thread's.
    o.write = [](const std::string& s) {
        const char* p = s.data();
        std::size_t left = s.size();
        while (left > 0) {
            const ssize_t n = ::write(2, p, left);
            if (n <= 0) return;
            p += n;
            left -= static_cast<std::size_t>(n);
        }
    };
    o.terminal = ::isatty(2) == 1;
    return o;
}

Progress::Progress(std::string label) : Progress(std::move(label), stderr_progress_output()) {}

Progress::Progress(std::string label, ProgressOutput out) : label_(std::move(label)), out_(std::move(out)) {
    start_ = out_.now();
}

Progress::~Progress() {
    // The in-place line is cleared: the command's own console line follows.
    if (shown_ && out_.terminal) out_.write("\r\x1b[K");
}

double Progress::elapsed() const { return out_.now() - start_; }

bool Progress::due() {
    if (ready_) return true;
    const double t = out_.now() - start_;
    if (t < kQuiet) return false;
    const double period = out_.terminal ? kTerminalPeriod : kLogPeriod;
    if (last_ >= 0.0 && t - last_ < period) return false;
    ready_ = true;
    return true;
}

void Progress::show(const std::string& text) {
    if (!due()) return;
    ready_ = false;
    last_ = out_.now() - start_;
    shown_ = true;
    const std::string line = label_ + ": " + text;
    if (out_.terminal)
        out_.write("\r" + line + "\x1b[K");
    else
        out_.write(line + "\n");
}

void Progress::fraction(double done, const std::string& rest) {
    if (!due()) return;
    char buf[64];
    const double pct = std::isfinite(done) ? std::clamp(done, 0.0, 1.0) * 100.0 : 0.0;
    std::snprintf(buf, sizeof buf, "%.0f %% done after %s", pct, format_duration(elapsed()).c_str());
    show(rest.empty() ? std::string(buf) : std::string(buf) + ", " + rest);
}

std::string format_duration(double seconds) {
    char buf[48];
    if (!(seconds >= 0.0) || !std::isfinite(seconds)) seconds = 0.0;
    if (seconds < 60.0) {
        std::snprintf(buf, sizeof buf, "%.1f s", seconds);
    } else if (seconds < 3600.0) {
        const long s = std::lround(seconds);
        std::snprintf(buf, sizeof buf, "%ld min %02ld s", s / 60, s % 60);
    } else {
        const long m = std::lround(seconds / 60.0);
        std::snprintf(buf, sizeof buf, "%ld h %02ld min", m / 60, m % 60);
    }
    return buf;
}

}  // namespace torix
