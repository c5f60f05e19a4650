#pragma once
// Progress of long work on standard error (standard output carries only the
// console lines).  Work that ends within `quiet` seconds (2 s) shows
// nothing.  After that, on a terminal one line is rewritten in place at most
// once per second and cleared when the work ends; otherwise (a batch job's
// log) a plain line is written at most every 10 s.
//
// A Progress belongs to the thread that made it.  Callers ask due() before
// formatting a line, so a check costs one clock reading.
#include <functional>
#include <string>

namespace torix {

// Where a Progress reads its time (seconds, monotonic) and writes its text;
// tests inject both.
struct ProgressOutput {
    std::function<double()> now;
    std::function<void(const std::string&)> write;
    bool terminal = false;
};

// The process's own: steady clock, standard error, isatty(2).
ProgressOutput stderr_progress_output();

class Progress {
public:
    static constexpr double kQuiet = 2.0;           // s before the first line
    static constexpr double kTerminalPeriod = 1.0;  // s between in-place updates
    static constexpr double kLogPeriod = 10.0;      // s between plain lines

    // `label` starts every line ("TENSOR_CREATE", "RELAX", ...).
    explicit Progress(std::string label);
    Progress(std::string label, ProgressOutput out);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    // Whether a line would be shown now.
    [[nodiscard]] bool due();
    // Shows "label: text" when due (or unconditionally after due() said so).
    void show(const std::string& text);
    // Shows "label: P % done[, rest]" for a fraction in [0, 1] when due.
    void fraction(double done, const std::string& rest = "");
    // Seconds since the work began.
    [[nodiscard]] double elapsed() const;

private:
    std::string label_;
    ProgressOutput out_;
    double start_ = 0.0;
    double last_ = -1.0;  // time of the last line shown; < 0 before the first
    bool ready_ = false;  // due() said yes and show() has not yet written
    bool shown_ = false;
};

// "1.2 s", "3 min 05 s", "2 h 07 min": durations in progress lines.
std::string format_duration(double seconds);

}  // namespace torix
