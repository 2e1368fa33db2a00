// Small text helpers shared by every subsystem: header-name matching, bounded
// copies into fixed-width fields, line-end trimming, blank-line test.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace tw {

inline char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// Case-insensitive comparison of whole texts.
bool equals_nocase(std::string_view a, std::string_view b);

// True when `line` begins with `literal`, ignoring case. Header names are
// matched this way: no colon is needed unless the literal has one.
bool starts_with_nocase(std::string_view line, std::string_view literal);

// The text of a fixed-width field: up to its NUL, never past its width, so a
// field that the application filled to the brim is still read safely.
template <std::size_t N> std::string_view field(const char (&f)[N]) {
    return std::string_view(f, strnlen(f, N));
}

// Copies `text` into a field of `width` bytes, cut to width-1 and always
// NUL-terminated. Returns the number of bytes copied.
std::size_t copy_bounded(char *dest, std::size_t width, std::string_view text);
template <std::size_t N> std::size_t copy_field(char (&dest)[N], std::string_view text) {
    return copy_bounded(dest, N, text);
}

// Cuts trailing CR, LF, blanks and TABs in place; returns the new length.
std::size_t trim_line_end(char *text);
std::string_view trim_line_end(std::string_view text);

// A blank line is one whose first byte is CR or LF.
inline bool is_blank_line(const char *line) { return line[0] == '\r' || line[0] == '\n'; }

// Removes one pair of surrounding angle brackets or quotes.
std::string_view strip_brackets(std::string_view text);

} // namespace tw
