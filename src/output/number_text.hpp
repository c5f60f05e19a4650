#pragma once
// Fast fixed-layout number text for the large mode tables and drawings:
// std::to_chars in place of printf, which dominated their run time.
#include <charconv>
#include <string>
#include <string_view>

namespace torix {

// Appends v like printf "%*.*E" (width w, prec digits after the point,
// upper-case exponent of at least two digits); -0 is written as 0.
inline void append_sci(std::string& s, double v, int w, int prec) {
    char buf[48];
    auto r = std::to_chars(buf, buf + sizeof buf, v + 0.0, std::chars_format::scientific, prec);
    for (char* c = buf; c != r.ptr; ++c)
        if (*c == 'e') *c = 'E';
    const int n = static_cast<int>(r.ptr - buf);
    if (n < w) s.append(static_cast<std::size_t>(w - n), ' ');
    s.append(buf, r.ptr);
}

// Appends v like printf "%.*f" (prec at most 20); a result that rounds to
// zero is written without sign.
inline void append_fixed(std::string& s, double v, int prec) {
    char buf[340];  // the largest double has 309 digits before the point
    auto r = std::to_chars(buf, buf + sizeof buf, v + 0.0, std::chars_format::fixed, prec);
    std::string_view t(buf, static_cast<std::size_t>(r.ptr - buf));
    if (t.size() > 1 && t[0] == '-' && t.find_first_not_of("0.", 1) == std::string_view::npos) t.remove_prefix(1);
    s += t;
}

// Appends an integer right-aligned in w characters.
inline void append_int(std::string& s, long long v, int w) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    const int n = static_cast<int>(r.ptr - buf);
    if (n < w) s.append(static_cast<std::size_t>(w - n), ' ');
    s.append(buf, r.ptr);
}

}  // namespace torix
