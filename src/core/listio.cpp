#include "core/listio.hpp"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "core/error.hpp"

namespace torix {

namespace {

bool is_separator(char c) { return c == ' ' || c == '\t' || c == ',' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

bool all_digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

}  // namespace

std::optional<std::int32_t> parse_int(std::string_view t) {
    std::string_view body = t;
    bool negative = false;
    if (!body.empty() && (body[0] == '+' || body[0] == '-')) {
        negative = body[0] == '-';
        body.remove_prefix(1);
    }
    if (!all_digits(body)) return std::nullopt;
    long long v = 0;
    for (char c : body) {
        v = v * 10 + (c - '0');
        if (v > static_cast<long long>(INT32_MAX) + 1) return std::nullopt;
    }
    if (negative) v = -v;
    if (v < INT32_MIN || v > INT32_MAX) return std::nullopt;
    return static_cast<std::int32_t>(v);
}

std::optional<double> parse_real(std::string_view t) {
    std::string_view body = t;
    std::string sign;
    if (!body.empty() && (body[0] == '+' || body[0] == '-')) {
        if (body[0] == '-') sign = "-";
        body.remove_prefix(1);
    }
    if (iequals(body, "inf") || iequals(body, "infinity"))
        return sign.empty() ? HUGE_VAL : -HUGE_VAL;
    if (iequals(body, "nan")) return std::nan("");
    // mantissa: digits [. digits] or . digits
    std::size_t p = 0;
    std::size_t int_digits = 0, frac_digits = 0;
    while (p < body.size() && body[p] >= '0' && body[p] <= '9') ++p, ++int_digits;
    if (p < body.size() && body[p] == '.') {
        ++p;
        while (p < body.size() && body[p] >= '0' && body[p] <= '9') ++p, ++frac_digits;
    }
    if (int_digits + frac_digits == 0) return std::nullopt;
    std::string text = sign + std::string(body.substr(0, p));
    if (p < body.size()) {
        const char e = body[p];
        if (e != 'e' && e != 'E' && e != 'd' && e != 'D' && e != 'q' && e != 'Q') return std::nullopt;
        std::string_view ex = body.substr(p + 1);
        std::string exsign;
        if (!ex.empty() && (ex[0] == '+' || ex[0] == '-')) {
            exsign = ex[0];
            ex.remove_prefix(1);
        }
        if (!all_digits(ex)) return std::nullopt;
        text += 'e' + exsign + std::string(ex);
    }
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size()) return std::nullopt;
    return v;  // overflow gives +-inf, underflow a denormal or zero, as a Fortran read would
}

std::vector<std::string> split_items(std::string_view line) {
    std::vector<std::string> items;
    std::size_t i = 0;
    const std::size_t n = line.size();
    while (i < n) {
        while (i < n && is_separator(line[i])) ++i;
        if (i >= n) break;
        const char c = line[i];
        if (c == '\'' || c == '"') {
            std::string item;
            ++i;
            while (i < n) {
                if (line[i] == c) {
                    if (i + 1 < n && line[i + 1] == c) {
                        item += c;
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                item += line[i++];
            }
            items.push_back(std::move(item));
        } else {
            const std::size_t start = i;
            while (i < n && !is_separator(line[i])) ++i;
            items.emplace_back(line.substr(start, i - start));
        }
    }
    return items;
}

ListReader::ListReader(const std::string& path, std::string display)
    : file_(path, std::ios::binary), display_(display.empty() ? path : std::move(display)) {
    if (!file_) throw FatalError(display_ + ": cannot open file for reading");
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) throw FatalError(display_ + ": is a directory, not a file");
}

ListReader::ListReader(FromText, std::string text, std::string display)
    : text_(std::move(text)), in_(&text_), display_(std::move(display)) {}

bool ListReader::next_line() {
    std::string raw;
    if (!std::getline(*in_, raw)) return false;
    ++line_no_;
    items_ = split_items(raw);
    pos_ = 0;
    return true;
}

void ListReader::warn_to(std::ostream& out, std::vector<std::string> keywords) {
    warnings_ = &out;
    keywords_ = std::move(keywords);
}

void ListReader::warn(std::string_view message, int at) const {
    if (warnings_ == nullptr) return;
    *warnings_ << display_ << ':' << (at > 0 ? at : line_no_) << ": warning: " << message << '\n' << std::flush;
}

void ListReader::check_rest() {
    if (warnings_ == nullptr || context_.empty() || pos_ >= items_.size()) return;
    const std::size_t extra = items_.size() - pos_;
    std::string m = context_ + " reads " + std::to_string(pos_) + (pos_ == 1 ? " item" : " items") +
                    " from this line; ignored: ";
    for (std::size_t i = pos_; i < items_.size(); ++i) m += (i > pos_ ? " \"" : "\"") + items_[i] + "\"";
    m += extra == 1 ? " (is it the next parameter line, written on this one?)"
                    : " (are they the next parameter lines, written on this one?)";
    warn(m);
    pos_ = items_.size();
}

std::optional<std::string> ListReader::keyword() {
    check_rest();
    context_.clear();
    do {
        if (!next_line()) return std::nullopt;
    } while (items_.empty());
    std::string kw = items_[0];
    if (kw.size() > kNameLength) kw.resize(kNameLength);
    pos_ = items_.size();
    return kw;
}

void ListReader::begin(std::string_view context) {
    check_rest();
    context_ = std::string(context);
    pos_ = items_.size();  // a statement never reuses the previous line
}

std::optional<std::string> ListReader::next_item() {
    while (pos_ >= items_.size())
        if (!next_line()) return std::nullopt;
    return items_[pos_++];
}

void ListReader::fail(std::string_view message) const {
    std::string s = display_ + ":" + std::to_string(line_no_) + ": ";
    if (!context_.empty()) s += context_ + ": ";
    s += message;
    throw FatalError(s);
}

void ListReader::expected(std::string_view what, const std::optional<std::string>& found) const {
    std::string msg = "expected " + std::string(what) + ", found ";
    if (found)
        msg += "\"" + *found + "\"";
    else
        msg += "end of file";
    fail(msg);
}

std::int32_t ListReader::i32(std::string_view what) {
    auto item = next_item();
    if (item)
        if (auto v = parse_int(*item)) return *v;
    expected("an integer for " + std::string(what), item);
}

double ListReader::f64(std::string_view what) {
    auto item = next_item();
    if (item)
        if (auto v = parse_real(*item)) return *v;
    expected("a real number for " + std::string(what), item);
}

std::string ListReader::name(std::string_view what) {
    auto item = next_item();
    if (!item || item->empty()) expected("a name for " + std::string(what), item);
    std::string s = *item;
    if (s.size() > kNameLength) s.resize(kNameLength);
    for (const std::string& k : keywords_)
        if (k == s) {
            warn("the name \"" + s + "\" for " + std::string(what) + " of " + context_ +
                 " is a command keyword (is a parameter line missing above it?)");
            break;
        }
    return s;
}

}  // namespace torix
