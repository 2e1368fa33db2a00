#include "frame/text.h"

namespace tw {

bool equals_nocase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && starts_with_nocase(a, b);
}

bool starts_with_nocase(std::string_view line, std::string_view literal) {
    if (line.size() < literal.size())
        return false;
    for (std::size_t i = 0; i < literal.size(); ++i)
        if (ascii_lower(line[i]) != ascii_lower(literal[i]))
            return false;
    return true;
}

std::size_t copy_bounded(char *dest, std::size_t width, std::string_view text) {
    if (width == 0)
        return 0;
    std::size_t n = text.size() < width - 1 ? text.size() : width - 1;
    if (n > 0)
        std::memcpy(dest, text.data(), n);
    dest[n] = '\0';
    return n;
}

static bool is_line_end_byte(char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\t'; }

std::size_t trim_line_end(char *text) {
    std::size_t n = std::strlen(text);
    while (n > 0 && is_line_end_byte(text[n - 1]))
        text[--n] = '\0';
    return n;
}

std::string_view trim_line_end(std::string_view text) {
    while (!text.empty() && is_line_end_byte(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string_view strip_brackets(std::string_view text) {
    if (text.size() >= 2 && ((text.front() == '<' && text.back() == '>') ||
                             (text.front() == '"' && text.back() == '"')))
        return text.substr(1, text.size() - 2);
    return text;
}

} // namespace tw
