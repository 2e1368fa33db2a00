// A message without MIME headers at the end call: the header goes to
// address_cb and header_cb as for any message; the body is the text item
// and the attachment items of its Encoding line, or the text in front of
// uuencoded blocks and the blocks, or else the body as one text. Both end
// calls read it here; the richer one only adds its summary rows.
#include <memory>

#include "directory/directory.h"
#include "streaming/streaming.h"
#include "streaming/summary.h"

namespace tw {

namespace {

// An attachment file: header_cb hears of it with the record alone, then it
// is delivered. 1 or a negative status.
int32_t deliver_attachment(EndCall &call, const std::string &path, std::string_view name,
                           bool uuencoded) {
    mime_part_desc &part = *call.part;
    copy_field(run_state().current_file_name, name);
    std::memset(&part, 0, sizeof part);
    copy_field(part.filename, name);
    copy_field(part.encoding, uuencoded ? "uuencode" : "text");
    if (call.session.header_cb(&part, nullptr, 0, call.session.user_value) == -1) {
        // Never handed over, so never the application's: it goes.
        remove_file(path);
        return MIME_STOPPED;
    }
    const int32_t delivered = mime_deliver_part(path, "", call.session, MIME_ENC_NONE);
    return delivered < 0 ? delivered : MIME_OK;
}

// The raw block at `path`, decoded and named where it decodes, as it
// stands where not.
int32_t deliver_uu_file(EndCall &call, NumberedNames &names, std::string path) {
    char name[kUuNameSize] = {};
    mime_decode_uu_file(path, call.directory.size(), name, names);
    return deliver_attachment(call, path, field(name), true);
}

class PlainReader {
public:
    PlainReader(EndCall &call, Stream &message) : call_(call), message_(message) {}

    int32_t run();

private:
    bool read_header(mime_address_lists &lists);
    void take_line(mime_address_lists &lists);
    int32_t read_body();
    int32_t read_items(bool line_in_hand);
    int32_t deliver_rest(long long rest_position);
    bool open_work_file();

    EndCall &call_;
    Stream &message_;
    NumberedNames names_;
    TempFile work_;    // the text; delivered, it is the application's
    File work_file_;
    PlainLine line_;
    EncodingItems items_;
    int received_count_ = 0;
    bool date_found_ = false;
    bool header_ended_ = false;
    bool text_done_ = false;
    bool text_failed_ = false; // a write of the text item failed
    bool no_memory_ = false;
};

bool PlainReader::open_work_file() {
    work_.reset(make_temp_file(call_.directory));
    work_file_ = work_.empty() ? File() : File::open(work_.path(), OpenMode::Create);
    return work_file_.ok();
}

void PlainReader::take_line(mime_address_lists &lists) {
    static constexpr struct {
        std::string_view prefix;
        mime_hdr_field *mime_address_lists::*list;
    } kAddressRows[] = {{"From:", &mime_address_lists::from},
                        {"Subject:", &mime_address_lists::subject},
                        {"To:", &mime_address_lists::to},
                        {"Cc:", &mime_address_lists::cc},
                        {"Bcc:", &mime_address_lists::bcc}};
    char *text = line_.text;
    mime_part_desc &part = *call_.part;
    for (const auto &row : kAddressRows)
        if (starts_with_nocase(text, row.prefix)) {
            const std::size_t n = row.prefix.size();
            mime_decode_field_value(&message_, text + n, sizeof line_.text - n, &call_.header_text,
                                    &(lists.*row.list));
            if (call_.summary != nullptr && row.list == &mime_address_lists::subject)
                summary_subject(lists.subject, part);
            return;
        }
    if (starts_with_nocase(text, "Encoding")) {
        text_done_ = !items_.take_header_line(text);
    } else if (call_.summary != nullptr && summary_take_line(*call_.summary, text, part)) {
        // the summary's rows stand in for Received: counting and the date search
    } else if (starts_with_nocase(text, "Received:")) {
        ++received_count_;
    } else if ((text[0] == '\t' || text[0] == ' ') && received_count_ == 1 && !date_found_) {
        date_found_ = search_received_date(text, part);
    }
}

// True when the header ended at a blank line; false at the end of the file
// or when the header text could not grow.
bool PlainReader::read_header(mime_address_lists &lists) {
    bool started = false;
    while (line_.read(message_)) {
        if (is_blank_line(line_.text)) {
            if (started)
                return true;
            continue;
        }
        started = true;
        call_.header_text.append(line_.text);
        if (!call_.header_text.lost())
            take_line(lists);
        if (call_.header_text.lost()) {
            no_memory_ = true;
            return false;
        }
    }
    return false;
}

// The text item, then the attachment items. 1 or a negative status.
int32_t PlainReader::read_body() {
    if (!line_.read(message_))
        return MIME_OK;
    bool line_in_hand = true;
    if (!text_done_) {
        int32_t count = items_.next().count;
        BodyWriter out(work_file_);
        if (!mime_copy_item(message_, line_, count, false, out)) {
            text_failed_ = true;
            return MIME_ERROR;
        }
        text_done_ = count == 0;
        work_file_.close();
        const int32_t delivered = mime_deliver_part(work_.path(), "", call_.session, MIME_ENC_NONE);
        work_.keep();
        if (delivered < 0) {
            text_failed_ = !text_done_;
            return delivered;
        }
        line_in_hand = false;
    }
    return text_done_ ? read_items(line_in_hand) : MIME_OK;
}

int32_t PlainReader::read_items(bool line_in_hand) {
    while (line_in_hand || line_.read(message_)) {
        line_in_hand = false;
        if (is_blank_line(line_.text) || items_.exhausted())
            continue;
        const PlainItem item = items_.next();
        std::string path;
        int32_t count = item.count;
        const PieceFile piece = mime_write_piece(message_, line_, call_.directory, names_,
                                                 item.uuencoded, &count, path);
        if (piece != PieceFile::Written)
            return piece == PieceFile::NotMade ? MIME_FILE_ERROR : MIME_ERROR;
        // Nothing is decoded here but uuencode: a Base64 item goes as text.
        const int32_t status = item.uuencoded ? deliver_uu_file(call_, names_, path)
                                              : deliver_attachment(call_, path, "", false);
        if (status < 0)
            return status;
    }
    return MIME_OK;
}

// The message from `rest_position` on, as one text.
int32_t PlainReader::deliver_rest(long long rest_position) {
    message_.close();
    // A work file delivered already is the application's: a new one is made.
    if (work_.empty() ? !open_work_file() : !(work_file_ = File::open(work_.path(), OpenMode::Create)))
        return MIME_FILE_ERROR;
    work_file_.close();
    mime_append_file(call_.session.spool_path, work_.path(), rest_position);
    const int32_t delivered = mime_deliver_part(work_.path(), "", call_.session, MIME_ENC_NONE);
    work_.keep();
    return delivered < 0 ? delivered : MIME_OK;
}

int32_t PlainReader::run() {
    if (!open_work_file())
        return MIME_FILE_ERROR;
    int32_t status = MIME_OK;
    {
        OwnedAddressLists lists;
        header_ended_ = read_header(lists.lists);
        if (no_memory_)
            return MIME_NO_MEMORY;
        if (header_ended_) {
            if (call_.summary != nullptr)
                summary_make_address(*call_.summary, *call_.part);
            // Here the address lists cannot stop the run.
            call_.session.address_cb(&lists.lists, call_.session.user_value);
            if (call_.tell_header() == -1)
                return MIME_STOPPED;
        }
    }
    if (header_ended_ && items_.seen())
        status = read_body();
    work_file_.close();
    const long long rest_position = message_.tell();

    if (status == MIME_OK && !items_.seen()) {
        if (mime_stream_plain_uu(work_, call_, message_, names_) == 1)
            return MIME_OK;
        return deliver_rest(rest_position);
    }
    if (text_failed_)
        return deliver_rest(rest_position);
    return status;
}

} // namespace

// The body of a message without an Encoding line: the text in front of the
// first uuencoded block, then every block; text behind the first block is
// dropped. 1 when a block was found (the text has been delivered then, and
// `work` is the application's), else 0, with the text undelivered.
int32_t mime_stream_plain_uu(TempFile &work, EndCall &call, Stream &stream, NumberedNames &names) {
    File text = File::open(work.path(), OpenMode::UpdateExisting);
    if (!text || text.seek_end() < 0)
        return 0;
    BodyWriter out(text);
    PlainLine line;
    bool started = false, found = false;
    while (line.read(stream)) {
        if (!started && is_blank_line(line.text))
            continue;
        started = true;
        if (!mime_starts_uu_block(line)) {
            if (!found)
                out.write(line.text, line.length);
            continue;
        }
        if (!found) {
            found = true;
            out.flush();
            text.close();
            mime_deliver_part(work.path(), "", call.session, MIME_ENC_NONE);
            work.keep();
        }
        std::string path;
        if (mime_write_piece(stream, line, call.directory, names, true, nullptr, path) !=
            PieceFile::Written)
            return 0;
        // A stop of the application ends the scan, not the run.
        if (deliver_uu_file(call, names, path) < 0)
            break;
    }
    out.flush();
    return found ? 1 : 0;
}

int32_t mime_stream_plain(EndCall &call) {
    Stream message = Stream::open_read(call.session.spool_path);
    if (!message)
        return MIME_FILE_ERROR;
    if (call.directory.empty() || call.directory.back() != '/')
        call.directory += '/';
    auto part = std::make_unique<mime_part_desc>();
    call.part = part.get();
    run_state().message_is_mime = 0;
    PlainReader reader(call, message);
    return reader.run();
}

} // namespace tw
