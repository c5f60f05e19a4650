#pragma once
// List-directed (free-format) text input.
//
// A line holds items separated by blanks, tabs or commas.  Numbers take any
// ordinary notation (3, -2, 1.5, .5, 5e-7, 5.0D-7, 1d3); names are bare or
// quoted with ' or " (a doubled quote inside stands for one).  A read
// statement always starts on a fresh line, pulls items from as many lines as
// it needs (blank lines give none), and drops whatever its last line still
// holds when the next statement starts.  Every failure names the file, the
// line, the statement's context and what was found.
#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace torix {

// Longest keyword or file name kept; longer tokens are cut.
inline constexpr std::size_t kNameLength = 255;

// Item parsers shared by every text reader; nullopt when the text is not one.
std::optional<std::int32_t> parse_int(std::string_view text);
std::optional<double> parse_real(std::string_view text);
// Splits one line into items (quotes removed from quoted items).
std::vector<std::string> split_items(std::string_view line);

class ListReader {
public:
    // Opens `path` for reading; `display` is the name used in messages
    // (defaults to the path).  A missing file is a FatalError.
    explicit ListReader(const std::string& path, std::string display = {});
    // Reads `text` as the contents of a file named `display`.
    struct FromText {};
    ListReader(FromText, std::string text, std::string display);

    // Next keyword: the first item of the next non-blank line, cut to 255
    // characters; nullopt at end of file.  The rest of that line is dropped.
    std::optional<std::string> keyword();

    // Starts a read statement; `context` (usually the keyword) prefixes
    // error messages.  Items are then taken with the methods below.
    void begin(std::string_view context);
    std::int32_t i32(std::string_view what);
    double f64(std::string_view what);
    std::string name(std::string_view what);

    // Warnings about lines whose meaning is probably not what the writer
    // meant go to `out` from here on: a statement that leaves items unread
    // on its last line (said when the next statement or keyword starts), and
    // a name item equal to one of `keywords` (a parameter line missing
    // above it).  Nothing is warned about before this is called.
    void warn_to(std::ostream& out, std::vector<std::string> keywords);
    // Items of the last line taken (a keyword line: the keyword first).
    [[nodiscard]] const std::vector<std::string>& items() const { return items_; }
    // Writes "display:line: warning: message" for line `at` (0: the last line taken).
    void warn(std::string_view message, int at = 0) const;

    // Line number of the last line taken (1-based; 0 before the first).
    [[nodiscard]] int line() const { return line_no_; }
    [[nodiscard]] const std::string& display() const { return display_; }

    // FatalError "display:line: context: message".
    [[noreturn]] void fail(std::string_view message) const;

private:
    bool next_line();
    // Next item of the statement, pulling lines as needed; nullopt at EOF.
    std::optional<std::string> next_item();
    [[noreturn]] void expected(std::string_view what, const std::optional<std::string>& found) const;
    // Warns when the statement that ends now left items on its last line.
    void check_rest();

    std::ifstream file_;
    std::istringstream text_;
    std::istream* in_ = &file_;
    std::string display_;
    std::string context_;
    std::vector<std::string> items_;
    std::size_t pos_ = 0;
    int line_no_ = 0;
    std::ostream* warnings_ = nullptr;
    std::vector<std::string> keywords_;
};

}  // namespace torix
