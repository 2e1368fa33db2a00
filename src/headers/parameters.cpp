// Parameter lists of Content-type and Content-Disposition lines: the search
// for one parameter, the full reader into a mime_part_desc, the message/partial
// parameters, and the boundary copy. Lists run on to the next line only when
// a line ends in ';' or a quoted value is still open.
#include <array>
#include <cstring>
#include <utility>

#include "headers/headers.h"

namespace tw {
namespace {

bool is_blank_or_tab(char c) { return c == ' ' || c == '\t'; }

// Longest boundary, its two leading hyphens included.
constexpr std::size_t kBoundaryWork = 91;

// Widths of the message/partial values: 9 digits of number and of total,
// 99 bytes of id. A number cut shorter than a total could become another
// fragment's number.
constexpr std::size_t kPartNumberDigits = 9;
constexpr std::size_t kPartTotalDigits = 9;
constexpr std::size_t kPartIdBytes = 99;

bool ends_with_semicolon(std::string_view text) { return !text.empty() && text.back() == ';'; }

// Reads the next line for a list that looks ahead: only a line that begins
// with a blank or TAB belongs to the list and lands in `line`; any other is
// left unread, and `line`, which may still be being scanned, is untouched.
bool read_continuation(Stream *stream, char (&line)[kShortLine]) {
    if (stream == nullptr)
        return false;
    const long long mark = stream->tell();
    char next[kShortLine];
    const std::size_t length = stream->read_line(next, sizeof next);
    if (length > 0 && is_blank_or_tab(next[0])) {
        std::memcpy(line, next, length + 1);
        return true;
    }
    stream->seek(mark);
    return false;
}

// The text of `value` without the bytes `drop`, at most `width` bytes of it.
std::string filtered(std::string_view value, char drop, std::size_t width) {
    std::string out;
    for (char c : value) {
        if (out.size() >= width)
            break;
        if (c != drop)
            out.push_back(c);
    }
    return out;
}

} // namespace

int32_t mime_copy_parameter_value(const char *text, std::span<char> boundary,
                                  std::span<char> file_name, bool want_boundary) {
    const char *equals = std::strchr(text, '=');
    const char *p = equals != nullptr ? equals + 1 : text + std::strlen(text);
    while (is_blank_or_tab(*p))
        ++p;
    std::string work = want_boundary ? "--" : "";
    // Quotes go wherever they stand; blanks inside stay.
    for (; *p != '\0' && *p != '\r' && *p != '\n' && *p != ';' && work.size() < kBoundaryWork; ++p)
        if (*p != '"')
            work.push_back(*p);
    const std::span<char> target = want_boundary ? boundary : file_name;
    copy_bounded(target.data(), target.size(), work);
    return 1;
}

int32_t mime_find_parameter(char *text, std::string_view parameter, std::span<char> boundary,
                            std::span<char> file_name, Stream *stream, bool want_boundary) {
    char more[kShortLine];
    char *line = text;
    bool continues = ends_with_semicolon(std::string_view(line, trim_line_end(line)));
    std::size_t pos = 0;
    for (;;) {
        while (is_blank_or_tab(line[pos]))
            ++pos;
        // A longer key that begins with the name counts: "name*" and
        // "name*0*" are the name as far as this search goes.
        if (starts_with_nocase(line + pos, parameter))
            break;
        if (const char *semicolon = std::strchr(line + pos, ';')) {
            pos = static_cast<std::size_t>(semicolon - line) + 1;
            continue;
        }
        if (!continues || line[pos] != '\0' || stream == nullptr ||
            stream->read_line(more, sizeof more) == 0)
            return 1;
        // The list said it goes on, so the next line is taken whatever it is.
        mime_copy_to_header_file(more);
        continues = ends_with_semicolon(std::string_view(more, trim_line_end(more)));
        line = more;
        pos = 0;
    }

    char *match = line + pos;
    if (!want_boundary)
        run_state().file_name_found = 1;
    if (equals_nocase(parameter, "name") || equals_nocase(parameter, "filename")) {
        // File names may be encoded words: read the value with the full
        // reader into a scratch record, then decode it.
        auto scratch = std::make_unique<mime_part_desc>();
        HeaderText scratch_text(1024);
        mime_read_parameters(stream, match, &scratch_text, *scratch);
        char value[sizeof scratch->filename];
        copy_field(value, field(scratch->filename));
        ChainHead chain;
        mime_decode_field_value(nullptr, value, sizeof value, &scratch_text, chain.slot());
        copy_bounded(file_name.data(), file_name.size(), mime_join_chain_text(chain.get()));
        return 1;
    }
    const std::string work(match);
    return mime_copy_parameter_value(work.c_str(), boundary, file_name, want_boundary);
}

int32_t mime_read_parameters(Stream *stream, char *text, HeaderText *raw_headers,
                             mime_part_desc &desc) {
    mime_external_body_parameters &external = desc.parameters.external_body;
    // Searched in this order, each keyword as a prefix of the key: "name"
    // comes before "filename", and both fill the one field, so the later
    // parameter of the two wins.
    const std::array<std::pair<std::string_view, std::span<char>>, 13> keywords{{
        {"charset", desc.charset},
        {"name", desc.filename},
        {"start", desc.start},
        {"type", desc.type},
        {"subject", external.subject},
        {"site", external.site},
        {"access-type", external.access_type},
        {"directory", external.directory},
        {"mode", external.mode},
        {"server", external.server},
        {"permission", external.permission},
        {"expiration", external.expiration},
        {"filename", desc.filename},
    }};

    char more[kShortLine];
    char *line = text;
    trim_line_end(line);
    std::size_t pos = 0;
    for (;;) {
        while (is_blank_or_tab(line[pos]))
            ++pos;
        std::span<char> target;
        for (const auto &[keyword, field_span] : keywords)
            if (starts_with_nocase(line + pos, keyword)) {
                target = field_span;
                break;
            }

        if (!target.empty()) {
            const char *equals = std::strchr(line + pos, '=');
            pos = equals != nullptr ? static_cast<std::size_t>(equals - line) + 1
                                    : std::strlen(line);
            std::size_t used = 0;
            bool may_open = true;
            bool open = false;
            for (;;) {
                while (is_blank_or_tab(line[pos]))
                    ++pos;
                if (line[pos] == '"' && may_open) {
                    ++pos;
                    open = true;
                    may_open = false;
                }
                bool closed = false;
                for (char c; (c = line[pos]) != '\0' && c != '\r' && c != '\n' && c != ';'; ++pos) {
                    if (c == '"') {
                        ++pos;
                        closed = true;
                        break;
                    }
                    // Bytes beyond the field are read past, not stored.
                    if (used + 1 < target.size())
                        target[used++] = c;
                }
                if (!open || closed)
                    break;
                // An open quote runs on into a continuation line; the rest
                // of this line, from a ';' on, is dropped.
                if (!read_continuation(stream, more))
                    break;
                if (raw_headers != nullptr)
                    raw_headers->append(more);
                line = more;
                pos = 0;
            }
            target[used] = '\0';
        }

        const char *semicolon = std::strchr(line + pos, ';');
        if (semicolon == nullptr)
            return 1;
        pos = static_cast<std::size_t>(semicolon - line) + 1;
        if (line[pos] == '\0') {
            if (!read_continuation(stream, more))
                return 1;
            if (raw_headers != nullptr)
                raw_headers->append(more);
            trim_line_end(more);
            line = more;
            pos = 0;
        }
    }
}

int32_t mime_parse_partial_parameters(const char *text, Stream *stream, mime_part_desc *desc) {
    mime_run_state &state = run_state();
    state.partial_number = 0;
    state.partial_total = 0;
    state.partial_id[0] = '\0';
    mime_partial_parameters *partial = desc != nullptr ? &desc->parameters.partial : nullptr;

    enum Key { Number, Id, Total, Name };
    static constexpr std::array<std::string_view, 4> kKeys{"number", "id", "total", "name"};

    char more[kShortLine];
    std::string_view rest(text);
    bool continues = false;
    for (;;) {
        if (ends_with_semicolon(rest))
            continues = true;
        if (!rest.empty() && rest.front() == ';')
            rest.remove_prefix(1);
        // Only blanks: a parameter indented with a TAB is an unknown key.
        while (!rest.empty() && rest.front() == ' ')
            rest.remove_prefix(1);

        const std::size_t equals = rest.find('=');
        if (equals == std::string_view::npos) {
            if (!continues || stream == nullptr || stream->read_line(more, sizeof more) == 0)
                return 1;
            mime_copy_to_header_file(more);
            rest = std::string_view(more, trim_line_end(more));
            continues = false;
            continue;
        }

        // The key is compared over its own length, so any beginning of a
        // keyword counts as it: "n" is number, "na" is name, "" is number.
        const std::string_view key = rest.substr(0, equals);
        int which = -1;
        for (std::size_t i = 0; i < kKeys.size() && which < 0; ++i)
            if (starts_with_nocase(kKeys[i], key))
                which = static_cast<int>(i);
        if (which < 0) {
            const std::size_t next = rest.find(';');
            rest = next == std::string_view::npos ? std::string_view{} : rest.substr(next);
            continue;
        }

        const std::size_t value_end = rest.find(';', equals + 1);
        const std::string_view value = rest.substr(equals + 1, value_end == std::string_view::npos
                                                                   ? std::string_view::npos
                                                                   : value_end - equals - 1);
        rest = value_end == std::string_view::npos ? std::string_view{} : rest.substr(value_end);
        switch (which) {
        case Number:
            state.partial_number =
                mime_decimal_value(filtered(value, ' ', kPartNumberDigits).c_str());
            if (partial != nullptr)
                partial->part_number = state.partial_number;
            break;
        case Total:
            state.partial_total =
                mime_decimal_value(filtered(value, ' ', kPartTotalDigits).c_str());
            if (partial != nullptr)
                partial->part_total = state.partial_total;
            break;
        case Id: {
            const std::string id = filtered(value, '"', kPartIdBytes);
            copy_field(state.partial_id, id);
            if (partial != nullptr)
                copy_field(partial->part_id, id);
            break;
        }
        case Name: {
            // A name here does not go through the encoded-word decoder.
            const std::string name = filtered(value, '"', sizeof desc->filename);
            copy_field(state.current_file_name, name);
            state.file_name_found = 1;
            if (desc != nullptr)
                copy_field(desc->filename, name);
            break;
        }
        }
    }
}

} // namespace tw
