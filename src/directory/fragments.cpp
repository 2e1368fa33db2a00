// message/partial in the directory extraction: each fragment is kept in
// the target directory until its set is complete, and the complete set is
// joined into the message that was split and left there as extract_message
// leaves a message: the merged header, then the body, decoded fragment by
// fragment.
#include <algorithm>

#include "directory/directory.h"
#include "headers/headers.h"

namespace tw {

namespace {

// Body lines are copied in pieces of this size; only blank lines ahead of
// the body are looked at.
constexpr std::size_t kBodyPiece = 8 * 1024;

// A dropped Content-Type line goes on on the next line when it ends in ';'
// once cut at its line end.
bool continues(const char *line) {
    const std::size_t length = std::strcspn(line, "\r\n");
    return length > 0 && line[length - 1] == ';';
}

// The work file "tmp.c", made afresh without following a link planted
// there, or, for a body that collects across fragments, opened at its end.
File open_work_file(const std::string &path, bool append) {
    if (append) {
        File work = File::open(path, OpenMode::UpdateExisting, true);
        if (work && work.seek_end() >= 0)
            return work;
        return File();
    }
    remove_file(path);
    return File::create_new(path);
}

File open_output(const std::string &path) {
    File output = File::open(path, OpenMode::WriteExisting);
    if (output && output.seek_end() < 0)
        output.close();
    return output;
}

Stream open_fragment(const std::string &path) {
    return Stream::adopt(File::open(path, OpenMode::ReadShared, true), "rb");
}

// Appends the body of one fragment (the stream stands behind its header):
// to `work` when it needs decoding, else to `output`. Blank lines ahead of
// it are dropped. Closes all three, then decodes the work file behind what
// the output holds, each fragment by itself, so a Base64 fragment must end
// on a whole group. Uuencode has no decoder here: its text collects across
// all fragments and is decoded once behind the last. 1 or 0.
int32_t mime_append_fragment_body(File &output, File &work, Stream &fragment, bool has_decoder,
                                  const std::string &work_path, const std::string &output_path,
                                  int32_t encoding) {
    bool ok;
    {
        BodyWriter writer(has_decoder ? work : output);
        ok = mime_copy_fragment_body(fragment, writer);
    }
    output.close();
    work.close();
    fragment.close();
    if (!ok)
        return 0;
    if (has_decoder && encoding == MIME_ENC_BASE64)
        return ::base64_decode(work_path.c_str(), output_path.c_str());
    if (has_decoder && encoding == MIME_ENC_QUOTED)
        return ::quoted_decode(work_path.c_str(), output_path.c_str());
    return 1;
}

// Reads the header of the message that was split into the open .HDR file:
// its Content-Type, Content-Transfer-Encoding and MIME-Version lines are
// kept, a file name is taken from Content-Disposition, the rest is dropped.
// False when a write failed.
bool read_inner_header(Stream &fragment, File &header, int32_t &encoding, bool &has_decoder) {
    mime_run_state &state = run_state();
    HeaderFileScope copy_to_header(&header);
    char line[kHeaderLine];
    char boundary[kBoundarySize] = {};
    bool started = false, written = true;
    std::size_t length;
    while ((length = mime_read_header_line(fragment, line, sizeof line, started)) > 0) {
        if (starts_with_nocase(line, "Content-Type")) {
            written = header.write_all(line, length) && written;
            // A multipart is not walked here: it stays one body.
            mime_parse_content_type(fragment, line, boundary, state.current_file_name, nullptr,
                                    nullptr);
        } else if (starts_with_nocase(line, "Content-Disposition")) {
            if (!state.file_name_found)
                mime_find_parameter(mime_behind_colon(line), "filename", boundary,
                                    state.current_file_name, &fragment, false);
        } else if (starts_with_nocase(line, "Content-Transfer-Encoding")) {
            if (mime_parse_transfer_encoding(line, encoding) == 1)
                has_decoder = true;
            written = header.write_all(line, length) && written;
        } else if (starts_with_nocase(line, "MIME-VERSION")) {
            written = header.write_all(line, length) && written;
        }
    }
    return written;
}

} // namespace

bool mime_copy_outer_header(Stream &fragment, BodyWriter &out) {
    char line[kHeaderLine];
    bool started = false, continued = false;
    std::size_t length;
    while ((length = mime_read_header_line(fragment, line, sizeof line, started)) > 0) {
        if (continued || starts_with_nocase(line, "Content-Type")) {
            continued = continues(line);
            continue;
        }
        if (starts_with_nocase(line, "Content-Transfer-Encoding") ||
            starts_with_nocase(line, "Mime-Version"))
            continue;
        if (!out.write(line, length))
            return false;
    }
    return out.flush();
}

bool mime_copy_fragment_body(Stream &fragment, BodyWriter &out) {
    std::unique_ptr<char[]> line(new char[kBodyPiece]);
    bool leading = true;
    std::size_t length;
    while ((length = fragment.read_line(line.get(), kBodyPiece)) > 0) {
        if (leading && is_blank_line(line.get()))
            continue;
        leading = false;
        if (!out.write(line.get(), length))
            return false;
    }
    return out.flush();
}

void mime_skip_fragment_header(Stream &fragment) {
    char line[kHeaderLine];
    bool started = false;
    while (mime_read_header_line(fragment, line, sizeof line, started) > 0) {
    }
}

int32_t mime_join_fragments(ExtractContext &ctx, const mime_fragment_entry &entry) {
    mime_run_state &state = run_state();
    const std::string &directory = ctx.directory;
    state.fragment_name_pending = 1;
    // The set's own files were made after this extraction first looked at
    // the directory, and take their numbers too.
    ctx.names = NumberedNames();
    std::string output_path;
    File header;
    if (!ctx.names.create_header(directory, 0, output_path, header))
        return 0;
    Stream fragment = open_fragment(mime_fragment_path(directory, entry.set_number, 1));
    if (!fragment)
        return 0; // the empty .HDR file and the fragments stay

    TempFile output_guard(output_path); // the output goes unless it is reported
    const std::string work_path = directory + kFragmentWorkFile;
    TempFile work_guard(work_path);
    int32_t status = 1;
    bool written;
    {
        BodyWriter writer(header);
        written = mime_copy_outer_header(fragment, writer);
    }
    state.file_name_found = 0;
    state.current_file_name[0] = '\0';
    int32_t encoding = 0;
    bool has_decoder = false;
    written = read_inner_header(fragment, header, encoding, has_decoder) && written;
    written = header.write_all("\r\n\r\n") && written;
    header.close();
    File output, work;
    if (!written) {
        fragment.close();
        status = 0;
    } else {
        // Text lands behind its own header, as a single body does; uuencoded
        // text gets a file of its own, since uudecode replaces its target.
        const bool report_header =
            !equals_nocase(field(state.current_type), "text") || encoding == MIME_ENC_UUENCODE;
        if (report_header) {
            output_guard.keep();
            status = mime_report_file(ctx, output_path, "", 0, 0);
            File created;
            if (status != 0 && ctx.names.create_numbered(directory, false, output_path, created) == 0)
                status = 0;
            else if (status != 0) {
                output_guard.reset(output_path);
                ++state.part_count;
            }
        }
        if (status != 0) {
            mime_name_output_file(output_path, directory.size(), &ctx.names);
            output_guard.keep();
            output_guard.reset(output_path);
            if (!state.file_name_found) {
                state.fragment_name_pending = 0;
                state.current_file_name[0] = '\0';
            }
            output = open_output(output_path);
            if (!output)
                status = 0;
        }
        const bool collect = has_decoder && encoding == MIME_ENC_UUENCODE;
        if (status != 0 && !(work = open_work_file(work_path, false)))
            status = 0;
        if (status != 0)
            status = mime_append_fragment_body(output, work, fragment, has_decoder, work_path,
                                               output_path, encoding);
        fragment.close();

        // Number order, whatever the order of arrival. The numbers on disk
        // come from one scan, so a huge total costs nothing: the first
        // number missing ends the join.
        const std::vector<uint32_t> present = mime_fragment_numbers(directory, entry);
        auto next = std::lower_bound(present.begin(), present.end(), 2u);
        for (uint64_t number = 2; status != 0 && number <= entry.total; ++number, ++next) {
            if (next == present.end() || *next != number ||
                !(output = open_output(output_path))) {
                status = 0;
                break;
            }
            fragment = open_fragment(mime_fragment_path(directory, entry.set_number, *next));
            if (!fragment || !(work = open_work_file(work_path, collect))) {
                status = 0;
                break;
            }
            mime_skip_fragment_header(fragment);
            status = mime_append_fragment_body(output, work, fragment, has_decoder, work_path,
                                               output_path, encoding);
        }
        output.close();
        work.close();
        fragment.close();
        if (status != 0 && collect) {
            char name[kShortLine];
            status = ::uudecode(work_path.c_str(), output_path.c_str(), name);
        }
    }
    const int32_t type = mime_type_code();
    if (status != 0) {
        output_guard.keep();
        const std::string x_name =
            state.fragment_name_pending ? std::string(field(state.current_file_name)) : "";
        status = mime_report_file(ctx, output_path, x_name, 0, type);
    }
    work_guard.remove();
    output_guard.remove();
    mime_remove_fragments(directory, entry);
    return status;
}

int32_t mime_store_fragment(const std::string &message_path, ExtractContext &ctx) {
    const mime_run_state &state = run_state();
    // The join reads headers that may set these again.
    const std::string id(field(state.partial_id));
    const FragmentArrival fragment{id, state.partial_number, state.partial_total};
    const FragmentStoreResult stored = mime_store_fragment_entry(
        ctx.directory, message_path, fragment,
        [&](const mime_fragment_entry &entry) { return mime_join_fragments(ctx, entry); });
    if (stored.status == 0)
        return 0;
    return stored.completed ? stored.status : MIME_FRAGMENT_STORED;
}

} // namespace tw
