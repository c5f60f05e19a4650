#pragma once
// Free-format console lines: one leading blank, items separated by one
// blank.  Reals are written in the shortest form that reads back as the
// same double; integers as they are.
#include <charconv>
#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace torix {

inline std::string format_real(double v) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

namespace detail {
inline void put_item(std::string& s, std::string_view v) { s += v; }
inline void put_item(std::string& s, const char* v) { s += v; }
inline void put_item(std::string& s, const std::string& v) { s += v; }
template <class T>
    requires std::is_floating_point_v<T>
void put_item(std::string& s, T v) {
    s += format_real(static_cast<double>(v));
}
template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
void put_item(std::string& s, T v) {
    s += std::to_string(v);
}
}  // namespace detail

// Builds " item1 item2 ..." (with the leading blank, without newline).
template <class... Items>
std::string free_line(const Items&... items) {
    std::string s;
    ((s += ' ', detail::put_item(s, items)), ...);
    return s;
}

// Writes one free-format line to standard output and flushes it, so that
// progress lines appear while a long command runs.
template <class... Items>
void say(const Items&... items) {
    std::cout << free_line(items...) << '\n' << std::flush;
}

}  // namespace torix
