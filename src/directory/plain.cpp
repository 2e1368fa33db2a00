// A message without MIME headers, left in a directory: its header lines and
// text go to "MESSAGE.$$$", each attachment to a numbered file that ends up
// under its own name. The Encoding line, if there is one, says which lines
// belong to which piece; without it the body is scanned for uuencoded
// blocks, and with neither the whole message is the text.
#include "directory/directory.h"
#include "encodings/encodings.h"
#include "headers/headers.h"

namespace tw {

namespace {

constexpr int32_t kAttachmentType = 2;

// Creates or empties "MESSAGE.$$$"; its fixed name is not followed as a link.
File open_text_file(const std::string &path) { return File::open(path, OpenMode::Create, true); }

// "MESSAGE.$$$" as the whole message, when nothing else of it is usable.
int32_t report_whole_message(ExtractContext &ctx, const std::string &message_path,
                             const std::string &text_path) {
    if (!open_text_file(text_path))
        return 0;
    run_state().part_count = 0;
    mime_append_file(message_path, text_path, 0);
    return mime_report_file(ctx, text_path, "", 0, 0);
}

// A decoded uuencoded attachment under the name of its begin line, or the
// raw block when it does not decode.
int32_t report_uu_file(ExtractContext &ctx, std::string path) {
    mime_run_state &state = run_state();
    char name[kUuNameSize] = {};
    mime_decode_uu_file(path, ctx.directory.size(), name, ctx.names);
    copy_field(state.current_file_name, field(name));
    ++state.part_count;
    return mime_report_file(ctx, path, field(name), 0, kAttachmentType);
}

struct PlainRoad {
    ExtractContext &ctx;
    const std::string &message_path;
    Stream message;
    std::string text_path;
    File text;
    PlainLine line;
    EncodingItems items;
    int32_t status = 1;
    bool text_done = false;

    PlainRoad(ExtractContext &c, const std::string &path)
        : ctx(c), message_path(path), text_path(c.directory + kPlainTextFile) {}

    bool read_header();
    void read_text(int32_t count);
    void read_items(bool line_in_hand);
    int32_t item(const PlainItem &item);
};

// Header lines go to the text file as they came. True when the body of an
// Encoding message begins with the line in hand.
bool PlainRoad::read_header() {
    BodyWriter out(text);
    bool started = false;
    while (line.read(message)) {
        if (is_blank_line(line.text)) {
            if (!started)
                continue;
            if (!out.flush()) {
                status = 0;
                return false;
            }
            return items.seen() && line.read(message);
        }
        started = true;
        if (starts_with_nocase(line.text, "Encoding"))
            text_done = !items.take_header_line(line.text);
        if (!out.write(line.text, line.length)) {
            status = 0;
            return false;
        }
    }
    if (!out.flush())
        status = 0;
    return false;
}

// The text item: its lines behind the header lines and a line end. Only a
// count that runs out finishes it; the end of the file reports what came.
void PlainRoad::read_text(int32_t count) {
    BodyWriter out(text);
    if (!out.write("\r\n", 2) || !mime_copy_item(message, line, count, false, out)) {
        status = 0;
        return;
    }
    text_done = count == 0;
    text.close();
    status = mime_report_file(ctx, text_path, "", 0, 0);
}

// The items behind the text. What stands behind the last item is not read.
void PlainRoad::read_items(bool line_in_hand) {
    while (status != 0 && (line_in_hand || line.read(message))) {
        line_in_hand = false;
        if (is_blank_line(line.text) || items.exhausted())
            continue;
        status = item(items.next());
    }
}

int32_t PlainRoad::item(const PlainItem &item) {
    mime_run_state &state = run_state();
    state.transfer_encoding = 0;
    std::string path;
    int32_t count = item.count;
    if (mime_write_piece(message, line, ctx.directory, ctx.names, item.uuencoded, &count, path) !=
        PieceFile::Written)
        return 0;
    if (item.uuencoded) {
        state.transfer_encoding = MIME_ENC_UUENCODE;
        return report_uu_file(ctx, path);
    }
    if (item.base64) {
        // A Base64 item that does not decode stays as its .TXT file, untold.
        const std::string decoded = path.substr(0, path.size() - 3) + "ATF";
        if (::base64_decode(path.c_str(), decoded.c_str()) != 1) {
            remove_file(decoded);
            return status;
        }
        remove_file(path);
        ctx.names.renamed(path, decoded);
        ++state.part_count;
        return mime_report_file(ctx, decoded, "", 0, kAttachmentType);
    }
    state.current_file_name[0] = '\0';
    ++state.part_count;
    return mime_report_file(ctx, path, "", 0, kAttachmentType);
}

} // namespace

int32_t mime_extract_plain(const std::string &message_path, ExtractContext &ctx) {
    PlainRoad road(ctx, message_path);
    road.message = Stream::adopt(File::open(message_path, OpenMode::ReadShared, ctx.x_mode), "rb");
    if (!road.message)
        return 0;
    road.text = open_text_file(road.text_path);
    if (!road.text)
        return 0;
    run_state().part_count = 0;

    if (road.read_header()) {
        bool line_in_hand = true;
        if (!road.text_done) {
            road.read_text(road.items.next().count);
            line_in_hand = false;
        }
        if (road.text_done)
            road.read_items(line_in_hand);
    }
    road.text.close();

    if (!road.items.seen() && road.status != 0) {
        run_state().part_count = 0;
        if (mime_scan_uuencode(road.message, ctx) == 0) {
            road.message.close();
            report_whole_message(ctx, message_path, road.text_path);
        }
        return 1;
    }
    road.message.close();
    if (road.status == 0 && !road.text_done)
        report_whole_message(ctx, message_path, road.text_path);
    return road.status;
}

int32_t mime_scan_uuencode(Stream &message, ExtractContext &ctx) {
    const std::string text_path = ctx.directory + kPlainTextFile;
    File text = File::open(text_path, OpenMode::UpdateExisting, true);
    if (!text || text.seek_end() < 0 || !text.write_all("\r\n"))
        return 0;
    bool started = false, reported = false;
    PlainLine line;
    {
        BodyWriter out(text);
        while (line.read(message)) {
            if (!started && is_blank_line(line.text))
                continue;
            started = true;
            if (!mime_starts_uu_block(line)) {
                // Text behind the first block is dropped.
                if (text && !out.write(line.text, line.length))
                    break;
                continue;
            }
            if (text) {
                if (!out.flush())
                    break;
                text.close();
                reported = true;
                if (mime_report_file(ctx, text_path, "", 0, 0) == 0)
                    break;
            }
            std::string path;
            if (mime_write_piece(message, line, ctx.directory, ctx.names, true, nullptr, path) !=
                PieceFile::Written)
                return 0;
            if (report_uu_file(ctx, path) == 0)
                break;
        }
        out.flush();
    }
    return reported ? 1 : 0;
}

} // namespace tw
