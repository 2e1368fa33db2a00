// The body of a message that is no multipart, and the header inside an
// embedded message.
#include <cstring>

#include "directory/directory.h"
#include "encodings/encodings.h"
#include "streaming/streaming.h"

namespace tw {

namespace {

// Copies the body into the work file line by line. Blank lines ahead of the
// body are dropped, those inside it kept; a line counts up to its first NUL.
bool copy_body(Stream &stream, File &work) {
    char line[kHeaderLine + 1];
    bool started = false;
    BufferedWriter out(work);
    while (stream.read_line(line, kHeaderLine) > 0) {
        if (!started && is_blank_line(line))
            continue;
        started = true;
        if (!out.write(line, std::strlen(line)))
            return false;
    }
    return out.flush();
}

// Decodes the work file into the target. False when the decoder failed.
bool decode(int32_t code, const std::string &work, const std::string &target,
            std::string &second_path, mime_part_desc &part, bool &copy_failed) {
    switch (code) {
    case MIME_ENC_BASE64: {
        Stream in = Stream::open_read(work);
        // A work file that will not open decodes to nothing, as an empty body.
        return !in || base64_decode_stream(in, target, nullptr) == 1;
    }
    case MIME_ENC_QUOTED:
        return ::quoted_decode(work.c_str(), target.c_str()) == 1;
    case MIME_ENC_UUENCODE: {
        char name[kHeaderLine + 1] = {};
        return ::uudecode(work.c_str(), target.c_str(), name) == 1;
    }
    case MIME_ENC_BINHEX: {
        char second[1024] = {};
        const bool ok = ::binhex_dec(work.c_str(), target.c_str(), second, &part.binhex_info) == 1;
        second_path = second;
        return ok;
    }
    default:
        // Unencoded and "binary" bodies are copied as they stand; a copy
        // that fails is reported rather than delivering a cut file.
        copy_failed = mime_append_file(work, target, 0) == 0;
        return true;
    }
}

} // namespace

int32_t mime_extract_leaf(Stream &stream, std::string &target_path, EndCall &call, int32_t code) {
    TempFile work(make_temp_file(call.directory));
    target_path = call.directory;
    if (mime_next_numbered_file(target_path, code == MIME_ENC_UUENCODE) == 0) {
        stream.close();
        return MIME_FILE_ERROR;
    }
    mime_name_part_file(target_path, call.directory.size(), call.part->filename);

    File work_file = work.empty() ? File() : File::open(work.path(), OpenMode::Create);
    if (!work_file) {
        stream.close();
        remove_file(target_path);
        return MIME_FILE_ERROR;
    }
    const bool copied = copy_body(stream, work_file);
    stream.close();
    work_file.close();
    if (!copied)
        return MIME_FILE_ERROR;

    std::string second_path;
    bool copy_failed = false;
    const bool decoded = decode(code, work.path(), target_path, second_path, *call.part, copy_failed);
    work.remove();
    if (!decoded)
        return MIME_DECODE_ERROR;
    if (copy_failed)
        return MIME_FILE_ERROR;
    // BinHex fills the record's file information while decoding, so the
    // application sees that header only now.
    // A resource fork that is not handed out does not stay.
    TempFile second_guard(second_path);
    if (code == MIME_ENC_BINHEX && call.tell_header() == -1)
        return MIME_STOPPED;
    second_guard.keep(); // handed out from here on
    return mime_deliver_part(target_path, second_path, call.session, code);
}

int32_t mime_extract_sub_header(Stream &stream, char *boundary, std::size_t boundary_size,
                                EndCall &call, int32_t *multipart_result) {
    *multipart_result = 0;
    std::memset(call.part, 0, sizeof *call.part);
    char line[kHeaderLine];
    bool started = false;
    while (mime_read_header_line(stream, line, sizeof line, started) > 0) {
        call.header_text.append(line);
        if (call.header_text.lost())
            return MIME_NO_MEMORY;
        if (starts_with_nocase(line, "Content-ID")) {
            mime_header_value(line, call.part->content_id);
        } else if (starts_with_nocase(line, "content-type")) {
            const int32_t r = mime_parse_content_type(stream, line, {boundary, boundary_size},
                                                      call.part->filename, &call.header_text,
                                                      call.part);
            *multipart_result = r != 0 ? 1 : 0;
        }
    }
    return call.tell_header();
}

} // namespace tw
