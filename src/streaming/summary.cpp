// The header summary of the richer end call. Every text lands in a
// fixed-width field of the record or of the Summary, always through the
// bounded copy: the plain reader's lines are twice as long as the working
// texts, and whatever does not fit is cut.
#include "streaming/summary.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "frame/frame.h"
#include "headers/headers.h"

namespace tw {

namespace {

constexpr std::size_t kValue = 1024;

bool is_host_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.';
}

std::string_view skip(std::string_view text, std::string_view set) {
    const std::size_t at = text.find_first_not_of(set);
    return text.substr(at == std::string_view::npos ? text.size() : at);
}

// A host name is letters, digits and dots only: a '-' ends it too, and what
// follows it falls to the with-clause.
std::size_t host_length(std::string_view text) {
    std::size_t n = 0;
    while (n < text.size() && is_host_char(text[n]))
        ++n;
    return n;
}

// What the value of `line` says, as a header value (behind the colon).
template <typename Fn> void with_value(const char *line, Fn &&use) {
    char value[kValue];
    mime_header_value(line, value);
    use(std::string_view(value));
}

void trim_received_with(mime_part_desc &part) {
    std::string_view text = field(part.received_with);
    while (!text.empty() &&
           (text.back() == '\r' || text.back() == '\n' || text.back() == ' ' || text.back() == ';'))
        text.remove_suffix(1);
    part.received_with[text.size()] = '\0';
}

// Behind the host of a by-clause: the text up to "with ", or the one behind
// it, becomes received_with; a ';' right behind the host leaves it alone.
void take_with_clause(std::string_view rest, mime_part_desc &part) {
    rest = skip(rest, " ");
    if (!rest.empty() && rest.front() == ';') {
        trim_received_with(part);
        return;
    }
    const std::size_t with = rest.find("with ");
    if (with == 0)
        rest = skip(rest.substr(5), " ");
    else if (with != std::string_view::npos)
        rest = rest.substr(0, with);
    copy_field(part.received_with, rest);
    trim_received_with(part);
}

// Each Received: header starts received_with afresh, so the last decides;
// the host is kept from the first one only.
void take_received(Summary &summary, std::string_view line, mime_part_desc &part) {
    ++summary.received_count;
    part.received_with[0] = '\0';
    const std::size_t by = line.find("by ");
    if (by == std::string_view::npos)
        return;
    const std::string_view rest = line.substr(by + 3);
    const std::size_t host = host_length(rest);
    if (summary.received_count == 1)
        copy_field(summary.received_host, rest.substr(0, host));
    take_with_clause(rest.substr(host), part);
}

// The id clause of the first Received: header: <id>, then a date only when
// a ';' stands right behind the '>'. Line ends are never part of the id.
void take_id_clause(Summary &summary, std::string_view rest, mime_part_desc &part) {
    const std::size_t at = rest.find_first_of("<;");
    if (at == std::string_view::npos)
        return;
    rest = rest.substr(at);
    if (rest.front() == '<') {
        rest.remove_prefix(1);
        const std::size_t close = rest.find('>');
        copy_field(summary.received_id,
                   rest.substr(0, std::min(close, rest.find_first_of("\r\n"))));
        rest = close == std::string_view::npos ? std::string_view{} : rest.substr(close + 1);
    }
    if (rest.empty() || rest.front() != ';')
        return;
    rest = skip(rest.substr(1), " ");
    if (trim_line_end(rest).empty())
        return;
    int32_t seconds = 0;
    mime_parse_date(rest.data(), &seconds); // rest ends where the line's NUL is
    store_big_endian(part.received_value, seconds);
}

// A folded line: nothing ties it to a Received: header, so the id and by
// clauses are looked for on whatever field it continues.
void take_continuation(Summary &summary, std::string_view line, mime_part_desc &part) {
    line = skip(line, " \t");
    if (starts_with_nocase(line, "id ")) {
        if (summary.received_count == 1)
            take_id_clause(summary, line.substr(3), part);
    } else if (starts_with_nocase(line, "by ")) {
        // The host on a continuation line is skipped, never kept.
        if (summary.received_count >= 1) {
            const std::string_view rest = line.substr(3);
            take_with_clause(rest.substr(host_length(rest)), part);
        }
    }
}

} // namespace

void store_big_endian(unsigned char (&out)[4], int32_t value) {
    const uint32_t v = static_cast<uint32_t>(value);
    out[0] = static_cast<unsigned char>(v >> 24);
    out[1] = static_cast<unsigned char>(v >> 16);
    out[2] = static_cast<unsigned char>(v >> 8);
    out[3] = static_cast<unsigned char>(v);
}

bool summary_take_line(Summary &summary, const char *line, mime_part_desc &part) {
    const std::string_view text(line);
    if (starts_with_nocase(text, "X-Mailer")) {
        with_value(line, [&](std::string_view v) { copy_field(part.x_mailer, v); });
    } else if (starts_with_nocase(text, "Received:")) {
        take_received(summary, text, part);
    } else if (starts_with_nocase(text, "X-Priority:")) {
        with_value(line, [&](std::string_view v) { copy_field(part.priority, v); });
    } else if (starts_with_nocase(text, "Encrypted:")) {
        part.encrypted_flag = '1';
    } else if (starts_with_nocase(text, "Date:")) {
        // A date the parser cannot hold in 32 signed bits (before 1901, from
        // 2038 on) reads as no date at all: 0, like any failed parse, rather
        // than a number that wrapped into some other year.
        with_value(line, [&](std::string_view v) {
            int32_t seconds = 0;
            mime_parse_date(v.data(), &seconds);
            store_big_endian(part.date_value, seconds);
        });
    } else if (text.starts_with(' ') || text.starts_with('\t')) {
        take_continuation(summary, text, part);
    } else {
        return false;
    }
    return true;
}

void summary_subject(const mime_hdr_field *subject, mime_part_desc &part) {
    part.returned_flag = 0;
    part.returned_subject[0] = '\0';
    // Only the first element counts, so a later Subject: line (whose
    // elements are appended) cannot change the verdict of the first.
    if (subject == nullptr || subject->text == nullptr)
        return;
    const std::string_view text(subject->text);
    if (starts_with_nocase(text, "Returned mail:") || starts_with_nocase(text, "Undeliverable:")) {
        part.returned_flag = '1';
        copy_field(part.returned_subject, text);
    }
}

void summary_content_type(mime_part_desc &part) {
    if (equals_nocase(field(part.content_subtype), "signed"))
        part.signed_flag = '1';
}

void summary_make_address(const Summary &summary, mime_part_desc &part) {
    part.message_address[0] = '\0';
    const std::string_view id = field(summary.received_id);
    const std::size_t at = id.find('@');
    if (at == std::string_view::npos)
        return;
    const std::string_view domain = id.substr(at + 1);
    const std::string_view host = field(summary.received_host);
    // The id's domain must be the host's first label: that label goes, the
    // rest of the host stays.
    if (host.size() <= domain.size() || host[domain.size()] != '.' ||
        !equals_nocase(host.substr(0, domain.size()), domain))
        return;
    std::string address(id.substr(0, at + 1));
    address += host.substr(domain.size() + 1);
    copy_field(part.message_address, address);
}

} // namespace tw
