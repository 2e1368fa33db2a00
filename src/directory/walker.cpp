// The multipart walker of the directory extraction: every part behind the
// first one becomes a file of its own. One pass over the message, with
// short returns of the stream position; the nesting is known only through
// one boundary buffer and a level counter, so an inner multipart's boundary
// replaces the outer one, and the outer one comes back as the line that
// follows the inner closing delimiter.
#include "directory/directory.h"
#include "encodings/encodings.h"
#include "headers/headers.h"

namespace tw {

bool mime_is_delimiter(const char *line, std::string_view boundary, bool closing) {
    const std::string_view text(line);
    if (!starts_with_nocase(text, boundary))
        return false;
    return !closing || text.substr(boundary.size()).starts_with("--");
}

namespace {

bool has_stream_decoder(int32_t encoding) {
    return encoding == MIME_ENC_BASE64 || encoding == MIME_ENC_QUOTED ||
           encoding == MIME_ENC_UUENCODE;
}

// Decodes a body from the stream into `path`: Base64 and quoted-printable
// up to the delimiter, uuencode up to its line of count 0.
int32_t decode_stream(Stream &stream, int32_t encoding, const std::string &path,
                      const char *boundary, char *name_buffer) {
    switch (encoding) {
    case MIME_ENC_BASE64:
        return base64_decode_stream(stream, path, boundary);
    case MIME_ENC_QUOTED:
        return quoted_decode_stream(stream, path, boundary);
    default:
        return uudecode_stream(stream, path, name_buffer);
    }
}

// A line as the end of a level sees it: up to its first CR or LF, without
// the blanks that may pad a delimiter.
void cut_delimiter_line(char *line) {
    line[std::strcspn(line, "\r\n")] = '\0';
    trim_line_end(line);
}

struct PartHeader {
    bool has_decoder = false;
    int32_t encoding = 0;
    bool nested = false; // a multipart with a boundary of its own
    bool written = true; // every header line reached the part file
};

// Reads a part's header block into the part file. A multipart with a
// boundary ends the reading at its Content-type line, with the boundary
// taken; the rest of that header is the caller's to skip.
PartHeader read_part_header(Stream &stream, File &part, char *line, std::size_t size,
                            char (&boundary)[kBoundarySize]) {
    mime_run_state &state = run_state();
    PartHeader header;
    while (stream.read_line(line, size) > 0 && !is_blank_line(line)) {
        header.written = part.write_all(line, std::strlen(line)) && header.written;
        if (starts_with_nocase(line, "Content-Transfer-Encoding")) {
            if (mime_parse_transfer_encoding(line, header.encoding) == 1)
                header.has_decoder = true;
        } else if (starts_with_nocase(line, "Content-Disposition")) {
            if (!state.file_name_found)
                mime_find_parameter(mime_behind_colon(line), "filename", boundary,
                                    state.current_file_name, &stream, false);
        } else if (starts_with_nocase(line, "Content-type")) {
            const long long behind = stream.tell();
            char nested_boundary[kBoundarySize] = {};
            if (mime_parse_content_type(stream, line, nested_boundary, state.current_file_name,
                                        nullptr, nullptr) == 1 &&
                mime_has_boundary(nested_boundary)) {
                std::memcpy(boundary, nested_boundary, sizeof boundary);
                header.nested = true;
                return header;
            }
            // Lines that the parameters took are read again as header
            // lines, so that a Content-Transfer-Encoding or the blank line
            // among them still counts.
            stream.seek(behind);
        }
    }
    return header;
}

struct PartBody {
    bool ok = true;
    bool closing = false; // ended at the closing delimiter of its multipart
};

// Writes a part's body into `part` (open, positioned at its end) or has a
// decoder write it. Ends at a delimiter of the current boundary, or at the
// end of the file as if a delimiter stood there.
PartBody read_part_body(Stream &stream, File &part, const std::string &path, int32_t encoding,
                        const char (&boundary)[kBoundarySize], char *line, std::size_t size) {
    PartBody body;
    const std::string_view delimiter = field(boundary);
    BodyWriter writer(part);
    const bool needs_decoder = has_stream_decoder(encoding);
    bool decoded = false;
    bool leading = true;
    // Positions are counted, not asked for: each read reports its length.
    long long position = stream.tell();
    long long body_position = position;
    for (std::size_t n; (n = stream.read_line(line, size)) > 0;) {
        position += static_cast<long long>(n);
        if (leading && is_blank_line(line))
            continue;
        leading = false;
        if (mime_is_delimiter(line, delimiter)) {
            body.closing = mime_is_delimiter(line, delimiter, true);
            break;
        }
        if (needs_decoder && !decoded) {
            // The decoder reads the body itself, from its first line on.
            stream.seek(body_position);
            part.close();
            decoded = true;
            if (decode_stream(stream, encoding, path, boundary, line) == 0) {
                body.ok = false;
                return body;
            }
            position = stream.tell();
        } else if (!decoded) {
            if (!writer.write_line(line)) {
                body.ok = false;
                return body;
            }
        }
        // Behind a decoder, what it left up to the delimiter is dropped.
        body_position = position;
    }
    body.ok = writer.flush();
    return body;
}

} // namespace

int32_t mime_walk_parts(Stream &stream, ExtractContext &ctx, char (&boundary)[kBoundarySize],
                        int32_t level) {
    mime_run_state &state = run_state();
    char line[kHeaderLine];
    int32_t status = 1;
    long long part_start = stream.tell();

    while (level >= 1) {
        if (stream.read_line(line, sizeof line) == 0)
            break; // the end of the file straight behind a delimiter makes no part

        // The part's file stays open from its creation to the end of its
        // body, through its rename: no path is opened twice.
        std::string path;
        File part;
        if (ctx.names.create_numbered(ctx.directory, false, path, part) == 0)
            return 0;
        TempFile part_guard(path); // the part's file goes unless it is delivered

        state.transfer_encoding = 0;
        state.file_name_found = 0;
        state.current_file_name[0] = '\0';
        HeaderFileScope copy_to_part(&part);
        PartHeader header;
        if (is_blank_line(line)) {
            // No header: the part keeps the type of the part before it.
            header.written = part.write_all("\r\n");
        } else {
            stream.seek(part_start);
            header = read_part_header(stream, part, line, sizeof line, boundary);
        }

        if (header.nested) {
            copy_to_part.set(nullptr);
            part.close();
            part_guard.remove();
            ctx.names.removed(path);
            ++level;
            // The rest of the multipart's header, then its first delimiter
            // (or the first line of its preamble) are passed over.
            while (stream.read_line(line, sizeof line) > 0 && !is_blank_line(line)) {
            }
            while (stream.read_line(line, sizeof line) > 0 && is_blank_line(line)) {
            }
            part_start = stream.tell();
            if (!header.written)
                return 0;
            continue;
        }
        if (!header.written)
            return 0;

        copy_to_part.set(nullptr);
        const bool had_name = state.file_name_found != 0;
        part_guard.keep();
        mime_name_output_file(path, ctx.directory.size(), &ctx.names);
        part_guard.reset(path);

        // An external body keeps its header lines: they say where the body
        // is. Every other part starts its file afresh.
        const bool external = equals_nocase(field(state.current_type), "message") &&
                              equals_nocase(field(state.current_subtype), "external-body");
        const bool ready = external ? part.write_all("\r\n")
                                    : part.truncate(0) && part.seek(0);
        if (!ready)
            return 0;

        const PartBody body = read_part_body(stream, part, path,
                                             header.has_decoder ? header.encoding : 0, boundary,
                                             line, sizeof line);
        part.close();
        if (!body.ok)
            return 0;
        const int32_t type = mime_type_code();
        ++state.part_count;
        part_guard.keep();
        status = mime_report_file(
            ctx, path, had_name ? field(state.current_file_name) : std::string_view(), level, type);
        if (status == 0)
            return 0;

        if (body.closing) {
            // Closing delimiters of several levels may follow each other;
            // the first other line is the delimiter of the level that goes
            // on, and its text becomes the boundary.
            char next[kHeaderLine];
            --level;
            while (level >= 1) {
                while (stream.read_line(next, sizeof next) > 0)
                    if (!is_blank_line(next)) {
                        std::memcpy(line, next, sizeof next);
                        break;
                    }
                // At the end of the file `line` keeps the last closing
                // delimiter, so every open level closes.
                cut_delimiter_line(line);
                if (std::string_view(line).ends_with("--")) {
                    --level;
                    continue;
                }
                // A line too long for the buffer keeps its first 99 bytes:
                // delimiters are recognised by their beginning.
                copy_field(boundary, std::string_view(line));
                break;
            }
        }
        part_start = stream.tell();
    }
    return status;
}

} // namespace tw
