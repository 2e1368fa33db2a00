// extract_message and extract_message_x: a message left in a directory as
// numbered files. The header goes to a .HDR file; a single body is decoded
// through the work file "temp.c"; the first part of a multipart is read
// here, every later one by the walker. Messages without MIME headers and
// message/partial fragments leave this road at its top.
#include "directory/directory.h"
#include "headers/headers.h"

namespace tw {

namespace {

constexpr std::string_view kCrLf = "\r\n";

bool is_text_in(int32_t encoding) {
    return equals_nocase(field(run_state().current_type), "text") &&
           (encoding == MIME_ENC_BASE64 || encoding == MIME_ENC_QUOTED);
}

// Decodes the collected body in `work_path` into `target_path`. Base64 and
// quoted-printable append behind what the target holds; uuencode replaces
// it. An encoding without a decoder leaves the target as it is.
int32_t decode_work_file(int32_t encoding, const std::string &work_path,
                         const std::string &target_path) {
    switch (encoding) {
    case MIME_ENC_BASE64:
        return ::base64_decode(work_path.c_str(), target_path.c_str());
    case MIME_ENC_QUOTED:
        return ::quoted_decode(work_path.c_str(), target_path.c_str());
    case MIME_ENC_UUENCODE: {
        char name[kShortLine];
        return ::uudecode(work_path.c_str(), target_path.c_str(), name);
    }
    default:
        return 1;
    }
}

// One message on its way through the driver: the open message, its .HDR
// file, and what the header block said.
struct Road {
    ExtractContext &ctx;
    const std::string &message_path;
    Stream message;
    std::string header_path;
    File header;
    TempFile header_guard; // the .HDR file goes unless it is reported
    char line[kHeaderLine] = {};
    char boundary[kBoundarySize] = {};
    int32_t encoding = 0;
    bool has_decoder = false;
    bool multipart = false;

    Road(ExtractContext &c, const std::string &path) : ctx(c), message_path(path) {}

    // Creates the work file "temp.c"; a planted link there is not followed.
    bool open_work_file(File &work, TempFile &guard) const {
        const std::string path = ctx.directory + kBodyWorkFile;
        work = File::open(path, OpenMode::Create, true);
        if (!work)
            return false;
        guard.reset(path);
        return true;
    }

    int32_t report_header(int32_t level) {
        header.close();
        header_guard.keep();
        return mime_report_file(ctx, header_path, "", level, 0);
    }

    int32_t whole_file();
    int32_t single_body();
    int32_t first_part();
};

// No encoding and no parts: the .HDR file is the message as it came, blank
// lines ahead of the header included.
int32_t Road::whole_file() {
    message.close();
    if (!header.truncate(0))
        return 0;
    header.close();
    mime_append_file(message_path, header_path, 0);
    return report_header(0);
}

// One encoded body. Text decodes behind its own header, in the .HDR file;
// anything else gets a file of its own after the .HDR file is reported.
int32_t Road::single_body() {
    mime_run_state &state = run_state();
    header.write_all("\r\n\r\n");
    std::string output = header_path;
    TempFile output_guard;
    if (!is_text_in(encoding)) {
        if (report_header(0) == 0)
            return 0;
        ++state.part_count;
        File created;
        if (ctx.names.create_numbered(ctx.directory, encoding == MIME_ENC_UUENCODE, output,
                                      created) == 0)
            return 0;
        output_guard.reset(output);
    } else {
        header.close();
    }
    const std::string x_name = state.file_name_found ? std::string(field(state.current_file_name))
                                                     : std::string();
    mime_name_output_file(output, ctx.directory.size(), &ctx.names);
    // Whichever guard held the file follows it to its new name.
    output_guard.keep();
    header_guard.keep();
    output_guard.reset(output);

    File work;
    TempFile work_guard;
    if (!open_work_file(work, work_guard))
        return 0;
    {
        // Blank lines carry nothing in Base64 or uuencode, and are dropped
        // from quoted-printable text alike.
        BodyWriter writer(work);
        bool ok = true;
        while (ok && message.read_line(line, sizeof line) > 0)
            if (!is_blank_line(line))
                ok = writer.write_line(line);
        if (!writer.flush() || !ok)
            return 0;
    }
    work.close();
    message.close();
    if (decode_work_file(encoding, work_guard.path(), output) == 0)
        return 0;
    const int32_t type = mime_type_code();
    work_guard.remove();
    output_guard.keep();
    return mime_report_file(ctx, output, x_name, 0, type);
}

// The part in front of the first delimiter is the preamble, kept nowhere.
// A plain first part follows the header in the .HDR file; an attachment or
// a nested multipart goes to the walker like every later part.
//
// A message that ends before its first delimiter, or inside its first
// part, is finished as far as it goes: the .HDR file is reported with what
// it holds (a first part that was still being collected is decoded into it),
// "temp.c" goes, and the result is 1.
int32_t Road::first_part() {
    mime_run_state &state = run_state();
    header.write_all(kCrLf);
    File work;
    TempFile work_guard;
    if (!open_work_file(work, work_guard))
        return 0;

    const std::string_view delimiter_text = field(boundary);
    char delimiter[kHeaderLine] = {};
    bool found = false;
    while (message.read_line(line, sizeof line) > 0)
        if (mime_is_delimiter(line, delimiter_text)) {
            found = true;
            break;
        }
    if (!found)
        return report_header(1);
    std::memcpy(delimiter, line, sizeof line);
    const long long behind_delimiter = message.tell();

    // The part's own header decides where it goes; none of it is kept.
    HeaderFileScope no_copy(nullptr);
    bool part_decoder = false, nested = false;
    int32_t part_encoding = 0;
    while (message.read_line(line, sizeof line) > 0 && !is_blank_line(line)) {
        if (starts_with_nocase(line, "Content-Transfer-Encoding")) {
            if (mime_parse_transfer_encoding(line, part_encoding) == 1)
                part_decoder = true;
        } else if (starts_with_nocase(line, "Content-type")) {
            // The walker reads a nested header again and takes the boundary
            // itself; here it only tells whether the part is a multipart.
            char nested_boundary[kBoundarySize] = {};
            nested = mime_parse_content_type(message, line, nested_boundary,
                                             state.current_file_name, nullptr, nullptr) == 1 &&
                     mime_has_boundary(nested_boundary);
        }
    }

    const bool hand_over = (part_decoder || nested) && !is_text_in(part_encoding);
    int32_t status = 1;
    if (hand_over) {
        work.close();
        work_guard.remove();
        message.seek(behind_delimiter);
        if (report_header(1) == 0)
            return 0;
    } else {
        bool ended = false;
        {
            BodyWriter writer(part_decoder ? work : header);
            bool ok = true, leading = true;
            while (ok && message.read_line(line, sizeof line) > 0) {
                if (leading && is_blank_line(line))
                    continue;
                leading = false;
                if (mime_is_delimiter(line, delimiter_text)) {
                    std::memcpy(delimiter, line, sizeof line);
                    ended = true;
                    break;
                }
                ok = writer.write_line(line);
            }
            if (!writer.flush() || !ok)
                return 0;
        }
        work.close();
        header.close();
        if (part_decoder &&
            decode_work_file(part_encoding, work_guard.path(), header_path) == 0)
            return 0;
        work_guard.remove();
        status = report_header(1);
        if (status == 0 || !ended)
            return status;
    }

    trim_line_end(delimiter);
    if (std::string_view(delimiter).ends_with("--"))
        return status;
    return mime_walk_parts(message, ctx, boundary, 1);
}

} // namespace

int32_t mime_extract_file(const std::string &message_path, ExtractContext &ctx) {
    Road road(ctx, message_path);
    // The spool file of extract_message_x has a fixed name: a link planted
    // there is not followed.
    road.message = Stream::adopt(File::open(message_path, OpenMode::ReadShared, ctx.x_mode), "rb");
    if (!road.message)
        return 0;

    mime_run_state &state = run_state();
    state.transfer_encoding = 0;
    state.directory_extraction_ran = 1;
    state.current_subtype[0] = '\0';
    state.part_count = 0;

    if (mime_file_is_mime(road.message) == 0) {
        road.message.close();
        state.message_is_mime = 0;
        return mime_extract_plain(message_path, ctx);
    }
    road.message.seek(0);
    state.message_is_mime = 1;

    if (!ctx.names.create_header(ctx.directory, 1, road.header_path, road.header))
        return 0;
    road.header_guard.reset(road.header_path);
    state.file_name_found = 0;
    state.current_file_name[0] = '\0';
    HeaderFileScope copy_to_header(&road.header);

    char *line = road.line;
    bool started = false;
    while (mime_read_header_line(road.message, line, sizeof road.line, started) > 0) {
        if (!road.header.write_all(line, std::strlen(line)))
            return 0;
        if (starts_with_nocase(line, "Content-Transfer-Encoding")) {
            if (mime_parse_transfer_encoding(line, road.encoding) == 1)
                road.has_decoder = true;
        } else if (starts_with_nocase(line, "Content-Disposition")) {
            if (!state.file_name_found)
                mime_find_parameter(mime_behind_colon(line), "filename", road.boundary,
                                    state.current_file_name, &road.message, false);
        } else if (starts_with_nocase(line, "Content-type")) {
            road.multipart = mime_parse_content_type(road.message, line, road.boundary,
                                                     state.current_file_name, nullptr,
                                                     nullptr) == 1;
            if (!road.multipart && equals_nocase(field(state.current_type), "message") &&
                equals_nocase(field(state.current_subtype), "partial")) {
                road.message.close();
                copy_to_header.set(nullptr);
                road.header.close();
                road.header_guard.remove();
                return mime_store_fragment(message_path, ctx);
            }
        }
    }

    // A multipart without a boundary has no delimiter to find: its body is
    // read as the single body it then is, so nothing of it is lost.
    if (road.multipart && !mime_has_boundary(road.boundary))
        road.multipart = false;
    copy_to_header.set(nullptr);
    if (road.multipart)
        return road.first_part();
    if (!road.has_decoder)
        return road.whole_file();
    return road.single_body();
}

namespace {

// The directory test of extract_message: a separator anywhere, or a short
// dotted form such as "." or "..".
bool acceptable_directory(std::string_view directory) {
    return directory.find('/') != std::string_view::npos ||
           (!directory.empty() && directory.size() <= 2 && directory.front() == '.');
}

int32_t extract(const char *message_path, mime_extract_callback callback, const char *directory) {
    if (message_path == nullptr || directory == nullptr || callback == nullptr ||
        !acceptable_directory(directory))
        return 0;
    ExtractContext ctx;
    ctx.callback = callback;
    ctx.directory = mime_full_path(directory);
    if (ctx.directory.empty() || !path_exists(ctx.directory))
        return 0;
    if (ctx.directory.back() != '/')
        ctx.directory += '/';
    const std::string message = mime_full_path(message_path);
    if (message.empty() || !path_fits(ctx.directory))
        return 0;
    return mime_extract_file(message, ctx);
}

// A call with bytes only appends them to the spool file; a call without
// bytes extracts what the spool holds, which goes on every way out.
int32_t extract_x(const char *data, int32_t length, mime_extract_callback callback,
                  mime_extract_sink sink) {
    ExtractContext ctx;
    ctx.directory = application_directory();
    if (ctx.directory.empty())
        return 0;
    const std::string spool = ctx.directory + kSpoolFile;
    if (length > 0) {
        if (data == nullptr)
            return 0;
        File file = File::open(spool, OpenMode::UpdateExisting, true);
        if (!file)
            file = File::open(spool, OpenMode::Create, true);
        if (!file)
            return 0; // not ours to remove: held by another, or a link
        if (file.seek_end() < 0 || !file.write_all(data, static_cast<std::size_t>(length))) {
            file.close();
            remove_file(spool);
            return 0;
        }
        return 1;
    }
    if (callback == nullptr || sink == nullptr)
        return 0;
    TempFile spool_guard(spool);
    ctx.callback = callback;
    ctx.sink = sink;
    ctx.x_mode = true;
    return mime_extract_file(spool, ctx);
}

} // namespace
} // namespace tw

extern "C" TARNWICK_API int32_t extract_message(const char *message_path,
                                                mime_extract_callback extract_callback,
                                                const char *directory) {
    return tw::guarded(0, [&] { return tw::extract(message_path, extract_callback, directory); });
}

extern "C" TARNWICK_API int32_t extract_message_x(const char *data, int32_t length,
                                                  mime_extract_callback extract_callback,
                                                  mime_extract_sink extract_sink) {
    return tw::guarded(0, [&] { return tw::extract_x(data, length, extract_callback, extract_sink); });
}
