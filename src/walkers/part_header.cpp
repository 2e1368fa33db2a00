// What every walker of a multipart body reads: one part's header block, a
// body copied byte for byte up to its boundary, and a multipart skipped
// whole.
#include <algorithm>
#include <climits>

#include "encodings/encodings.h"
#include "walkers/walkers.h"

namespace tw {

namespace {

// The name stored in `encoding` for a transfer-encoding code of a part.
const char *encoding_name(int32_t code) {
    switch (code) {
    case MIME_ENC_BASE64:
        return "base64";
    case MIME_ENC_QUOTED:
        return "quoted-printable";
    case MIME_ENC_UUENCODE:
        return "uuencode";
    case MIME_ENC_BINARY:
        return "binary";
    default:
        return nullptr;
    }
}

// The rest of a multipart's header goes to the header text unread, then its
// preamble's blank lines and its first delimiter line are passed over.
void enter_nested(Stream &stream, HeaderText &header_text, char *line, std::size_t size) {
    while (stream.read_line(line, size) > 0) {
        if (is_blank_line(line))
            break;
        header_text.append(line);
    }
    while (stream.read_line(line, size) > 0 && is_blank_line(line)) {
    }
}

} // namespace

int32_t mime_read_part_header(Stream &stream, HeaderText &header_text,
                              char (&boundary)[kBoundarySize], int32_t &code, int32_t &depth,
                              long long &position, mime_part_desc &part) {
    char line[kHeaderLine];
    // The Content-type parser may have read the following line and kept it
    // already; that line is read again here but not kept a second time.
    bool keep_next = true;
    while (stream.read_line(line, sizeof line) > 0 && !is_blank_line(line)) {
        if (keep_next)
            header_text.append(line);
        keep_next = true;
        if (starts_with_nocase(line, "Content-Transfer-Encoding")) {
            mime_parse_transfer_encoding(line, code);
            if (const char *name = encoding_name(code))
                copy_field(part.encoding, name);
        }
        mime_take_content_field(stream, line, header_text, part);
        if (!starts_with_nocase(line, "Content-type"))
            continue;
        run_state().header_file = nullptr;
        const long long behind = stream.tell();
        if (mime_parse_content_type(stream, line, boundary, part.filename, &header_text, &part) ==
            0) {
            stream.seek(behind);
            keep_next = false;
            continue;
        }
        if (depth < INT32_MAX)
            ++depth;
        enter_nested(stream, header_text, line, sizeof line);
        position = stream.tell();
        return 1;
    }
    return 0;
}

int32_t mime_copy_raw_body(Stream &stream, const std::string &target_path,
                           std::string_view boundary) {
    File target = File::open(target_path, OpenMode::WriteExisting);
    if (!target)
        target = File::open(target_path, OpenMode::Create);
    if (!target || target.seek_end() < 0)
        return 0;
    const long long start = stream.tell();
    long long end = start;
    bool found = false;
    char piece[255];
    for (std::size_t n; (n = stream.read_line(piece, sizeof piece)) > 0;) {
        if (std::string_view(piece, n).starts_with(boundary)) {
            found = true;
            break;
        }
        end += static_cast<long long>(n);
    }
    if (!found)
        return 0;
    // Second pass: the bytes as they stand, the line end before the
    // boundary line included.
    stream.seek(start);
    char block[64 * 1024];
    for (long long left = end - start; left > 0;) {
        const std::size_t want =
            static_cast<std::size_t>(std::min<long long>(left, static_cast<long long>(sizeof block)));
        const std::size_t got = std::fread(block, 1, want, stream.get());
        if (got == 0 || !target.write_all(block, got))
            return 0;
        left -= static_cast<long long>(got);
    }
    return 1;
}

int32_t mime_decode_part_body(Stream &stream, int32_t code, const std::string &path,
                              const char *boundary, char *line, std::string *second_path,
                              binhex_info *info) {
    switch (code) {
    case MIME_ENC_BASE64:
        return base64_decode_stream(stream, path, boundary);
    case MIME_ENC_QUOTED:
        return quoted_decode_stream(stream, path, boundary);
    case MIME_ENC_UUENCODE:
        return uudecode_stream(stream, path, line);
    case MIME_ENC_BINHEX: {
        // The decoder stops behind the block's closing ':'; the walker passes
        // over whatever follows up to the delimiter.
        char second[1024] = {};
        const int32_t r = binhex_decode_stream(stream, path, second_path ? second : nullptr, info);
        if (second_path != nullptr)
            *second_path = second;
        return r;
    }
    default:
        return mime_copy_raw_body(stream, path, boundary);
    }
}

void mime_skip_multipart(Stream &stream, std::string_view boundary) {
    char line[kHeaderLine];
    while (stream.read_line(line, sizeof line) > 0)
        if (mime_is_delimiter(line, boundary, true))
            return;
}

} // namespace tw
