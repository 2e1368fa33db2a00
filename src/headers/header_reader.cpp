// The line readers of a message header: the MIME test, the Content-type and
// Content-Transfer-Encoding lines, the type tables, and small value readers.
// The extraction loops read the lines themselves and hand over the ones they
// care about; nothing here unfolds a header first.
#include <array>
#include <cstring>
#include <limits>

#include "headers/headers.h"

namespace tw {
namespace {

bool is_blank_or_tab(char c) { return c == ' ' || c == '\t'; }

// The text behind the first ':' of `line`; a line without one has an empty
// value, which still points into the line.
std::string_view behind_colon(std::string_view line) {
    const std::size_t colon = line.find(':');
    return line.substr(colon == std::string_view::npos ? line.size() : colon + 1);
}

std::string_view skip_blanks_and_tabs(std::string_view text) {
    while (!text.empty() && is_blank_or_tab(text.front()))
        text.remove_prefix(1);
    return text;
}

} // namespace

void mime_copy_to_header_file(const char *line) {
    if (File *file = run_state().header_file)
        (void)file->write_all(line, std::strlen(line));
}

std::size_t mime_read_header_line(Stream &stream, char *line, std::size_t size, bool &started) {
    std::size_t length;
    while ((length = stream.read_line(line, size)) > 0) {
        if (!is_blank_line(line)) {
            started = true;
            return length;
        }
        if (started)
            return 0;
    }
    return 0;
}

int32_t mime_file_is_mime(Stream &stream) {
    char line[kShortLine];
    bool started = false, type_seen = false, version_seen = false;
    while (mime_read_header_line(stream, line, sizeof line, started) > 0) {
        if (starts_with_nocase(line, "Content-Type"))
            type_seen = true;
        if (starts_with_nocase(line, "MIME-VERSION") && std::strstr(line, "1.0") != nullptr)
            version_seen = true;
    }
    return type_seen && version_seen ? 1 : 0;
}

int32_t mime_parse_content_type(Stream &stream, char *line, std::span<char> boundary,
                                std::span<char> file_name, HeaderText *raw_headers,
                                mime_part_desc *desc) {
    mime_run_state &state = run_state();
    const std::size_t length = trim_line_end(line);
    const std::string_view after =
        skip_blanks_and_tabs(behind_colon(std::string_view(line, length)));
    const std::size_t semicolon = after.find(';');
    const std::string_view type_text = after.substr(0, semicolon);

    const std::size_t slash = type_text.find('/');
    copy_field(state.current_type, type_text.substr(0, slash));
    std::string subtype;
    if (slash != std::string_view::npos)
        for (char c : type_text.substr(slash + 1))
            if (c != ' ')
                subtype.push_back(c);
    copy_field(state.current_subtype, subtype);
    if (desc != nullptr) {
        copy_field(desc->content_type, field(state.current_type));
        copy_field(desc->content_subtype, field(state.current_subtype));
    }
    const std::string_view major = field(state.current_type);

    if (equals_nocase(major, "message") && equals_nocase(field(state.current_subtype), "partial")) {
        const char *list = semicolon == std::string_view::npos ? "" : after.data() + semicolon;
        mime_parse_partial_parameters(list, &stream, desc);
        return 0;
    }
    // A multipart line without a ';' of its own is an ordinary header: its
    // boundary on the next line is not looked for.
    if (semicolon == std::string_view::npos)
        return 0;

    // The list may start on the next line; that line is taken whatever it
    // holds, as the parameters of this one.
    const long long before_list = stream.tell();
    char *parameters = line + (after.data() - line) + semicolon + 1;
    char next_line[kHeaderLine];
    if (*parameters == '\0') {
        next_line[0] = '\0';
        if (stream.read_line(next_line, sizeof next_line) > 0) {
            if (raw_headers != nullptr)
                raw_headers->append(next_line);
            mime_copy_to_header_file(next_line);
            trim_line_end(next_line);
        }
        parameters = next_line;
    }

    if (equals_nocase(major, "multipart")) {
        mime_find_parameter(parameters, "boundary", boundary, file_name, &stream, true);
        if (equals_nocase(field(state.current_subtype), "related") && desc != nullptr) {
            // start and type of a related group are read afresh, with the
            // look-ahead of the full parameter reader.
            stream.seek(before_list);
            mime_read_parameters(&stream, parameters, raw_headers, *desc);
        }
        return 1;
    }
    if (desc != nullptr)
        mime_read_parameters(&stream, parameters, raw_headers, *desc);
    else
        mime_find_parameter(parameters, "name", boundary, file_name, &stream, false);
    return 0;
}

int32_t mime_parse_transfer_encoding(const char *line, int32_t &encoding) {
    mime_run_state &state = run_state();
    state.transfer_encoding = 0;
    encoding = 0;
    char value[100];
    std::size_t n = 0;
    for (char c : behind_colon(line)) {
        if (c == '\r' || c == '\n' || n + 1 >= sizeof value)
            break;
        if (c != ' ')
            value[n++] = c;
    }
    const std::string_view name(value, n);

    struct Known {
        std::string_view name;
        int32_t encoding;
        int32_t state_code;
    };
    // "binary" needs no decoder: its body is read like an unencoded one.
    static constexpr std::array<Known, 4> kKnown{{{"base64", MIME_ENC_BASE64, MIME_ENC_BASE64},
                                                  {"quoted-printable", MIME_ENC_QUOTED,
                                                   MIME_ENC_QUOTED},
                                                  {"x-uuencode", MIME_ENC_UUENCODE,
                                                   MIME_ENC_UUENCODE},
                                                  {"binary", MIME_ENC_BINARY, MIME_ENC_NONE}}};
    for (const Known &known : kKnown)
        if (equals_nocase(name, known.name)) {
            encoding = known.encoding;
            state.transfer_encoding = known.state_code;
            return known.state_code != MIME_ENC_NONE ? 1 : 0;
        }
    return 0;
}

int32_t mime_type_code() {
    struct Code {
        std::string_view type;
        int32_t code;
    };
    static constexpr std::array<Code, 6> kCodes{{{"audio", 16},
                                                 {"image", 11},
                                                 {"video", 14},
                                                 {"text", 2},
                                                 {"application", 22},
                                                 {"message", 3}}};
    const std::string_view type = field(run_state().current_type);
    for (const Code &code : kCodes)
        if (equals_nocase(type, code.type))
            return code.code;
    return 23;
}

int32_t mime_extension_for_type(std::span<char> extension) {
    struct Rule {
        std::string_view type;
        std::string_view subtype; // empty: any subtype
        std::string_view extension;
    };
    // The first rule that fits wins, so each type's catch-all comes last.
    static constexpr std::array<Rule, 13> kRules{{{"image", "gif", "gif"},
                                                  {"image", "tiff", "tif"},
                                                  {"image", "jpeg", "jpg"},
                                                  {"image", "", "bmp"},
                                                  {"audio", "", "wav"},
                                                  {"video", "", "mpg"},
                                                  {"text", "richtext", "rtx"},
                                                  {"text", "", "txt"},
                                                  {"application", "zip", "zip"},
                                                  {"application", "rtf", "rtf"},
                                                  {"application", "msword", "doc"},
                                                  {"application", "postscript", "eps"},
                                                  {"application", "", "txt"}}};
    const mime_run_state &state = run_state();
    const std::string_view type = field(state.current_type);
    const std::string_view subtype = field(state.current_subtype);
    for (const Rule &rule : kRules) {
        if (equals_nocase(type, rule.type) &&
            (rule.subtype.empty() || equals_nocase(subtype, rule.subtype))) {
            copy_bounded(extension.data(), extension.size(), rule.extension);
            break;
        }
    }
    return 1;
}

int32_t mime_header_value(const char *line, std::span<char> value) {
    std::string_view text = skip_blanks_and_tabs(behind_colon(line));
    // Only the line end goes; trailing blanks are part of the value.
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n'))
        text.remove_suffix(1);
    copy_bounded(value.data(), value.size(), text);
    return 1;
}

int32_t mime_encoding_item(const char *text, int32_t &count, std::span<char> word) {
    std::size_t i = 0;
    while (text[i] == ' ' || text[i] == ',')
        ++i;
    count = mime_decimal_value(text + i);
    while (text[i] != '\0' && text[i] != ' ')
        ++i;
    while (text[i] == ' ')
        ++i;
    const std::size_t start = i;
    while (text[i] != '\0' && text[i] != ' ' && text[i] != ',')
        ++i;
    copy_bounded(word.data(), word.size(), std::string_view(text + start, i - start));
    return static_cast<int32_t>(i);
}

int32_t mime_decimal_value(const char *text) {
    while (*text == ' ' || *text == '\t' || *text == '\n' || *text == '\v' || *text == '\f' ||
           *text == '\r')
        ++text;
    int64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + (*text - '0');
        if (value > std::numeric_limits<int32_t>::max())
            value = std::numeric_limits<int32_t>::max();
    }
    return static_cast<int32_t>(value);
}

} // namespace tw
