// The part walker: takes the parts of a multipart body off the message
// stream one after the other and delivers each as a file.
//
// One current boundary and a depth count stand for the whole nesting. A
// nested multipart's boundary replaces the current one; after a closing
// delimiter the next non-blank line is taken for the delimiter of the level
// that goes on, and its text becomes the boundary. An unencoded embedded
// message is no file: its header is read as the next part's header, so the
// message flattens into the walk.
#include <climits>

#include "walkers/walkers.h"

namespace tw {

namespace {

bool is_type(const mime_part_desc &part, std::string_view type, std::string_view subtype) {
    return equals_nocase(field(part.content_type), type) &&
           equals_nocase(field(part.content_subtype), subtype);
}

bool is_group(const mime_part_desc &part) {
    const std::string_view subtype = field(part.content_subtype);
    return equals_nocase(subtype, "related") || equals_nocase(subtype, "alternative");
}

// One walk: the state that the steps of a part share.
class PartWalker {
public:
    PartWalker(Walk &walk, Stream &stream, char (&boundary)[kBoundarySize])
        : walk_(walk), call_(walk.call), stream_(stream), boundary_(boundary) {}

    int32_t run() {
        part_mark_ = stream_.tell();
        while (status_ == MIME_OK && depth_ > 0) {
            if (!next_part())
                break;
            part_mark_ = stream_.tell();
        }
        return status_;
    }

private:
    // One part. False when the walk is over.
    bool next_part() {
        if (stream_.read_line(line_, sizeof line_) == 0)
            return false;
        mime_part_desc &part = *call_.part;
        std::memset(&part, 0, sizeof part);
        code_ = MIME_ENC_NONE;
        second_path_.clear();
        const bool has_header = !is_blank_line(line_);
        bool nested = false;
        if (has_header) {
            stream_.seek(part_mark_);
            run_state().current_file_name[0] = '\0';
            std::memcpy(outer_, boundary_, sizeof outer_);
            nested = mime_read_part_header(stream_, call_.header_text, boundary_, code_, depth_,
                                           part_mark_, part) == 1;
            if (call_.header_text.lost())
                return fail(MIME_NO_MEMORY);
        }
        // The type decides for BinHex, whatever the encoding line said; its
        // header is told once the decoder has filled binhex_info.
        if (is_type(part, "application", "mac-binhex40")) {
            code_ = MIME_ENC_BINHEX;
            copy_field(part.encoding, "binhex");
        }
        if (code_ != MIME_ENC_BINHEX && has_header && call_.tell_header() == -1)
            return fail(MIME_STOPPED);
        if (nested)
            return nested_part();
        return leaf(has_header);
    }

    bool fail(int32_t status) {
        status_ = status;
        return false;
    }

    // A multipart inside the walk. Its first part is read by the next pass,
    // unless it is a group, which its own walker takes whole.
    bool nested_part() {
        if (!is_group(*call_.part))
            return true;
        const int32_t r = mime_walk_group(walk_, stream_, boundary_);
        if (r < 0)
            return fail(r);
        // On to the next delimiter of this level; a closing one counts too.
        const std::string_view outer = field(outer_);
        while (stream_.read_line(line_, sizeof line_) > 0 && !mime_is_delimiter(line_, outer)) {
        }
        std::memcpy(boundary_, outer_, sizeof outer_);
        return true;
    }

    bool leaf(bool has_header) {
        mime_part_desc &part = *call_.part;
        std::string path;
        File file;
        if (walk_.numbered.create_numbered(call_.directory, false, path, file) == 0)
            return fail(MIME_FILE_ERROR);
        const std::string numbered = path;
        mime_name_part_file(path, call_.directory.size(), part.filename);
        walk_.numbered.renamed(numbered, path);
        // The part's file goes unless the walk goes on past it.
        TempFile guard(path);
        decoded_ = false;
        // An embedded message in binary is copied below like any binary part.
        if ((is_type(part, "message", "external-body") || is_type(part, "message", "rfc822")) &&
            code_ != MIME_ENC_BINARY) {
            file.close();
            guard.remove();
            if (code_ == MIME_ENC_NONE) {
                walk_.numbered.removed(path);
                return embedded_header();
            }
            // An encoded embedded message is decoded as a file of its own.
            guard.reset(path);
            decoded_ = true;
            if (mime_decode_part_body(stream_, code_, path, boundary_, line_) == 0)
                return fail(MIME_ERROR);
        }
        const bool closing = read_body(file, path);
        file.close();
        // A BinHex resource fork that is not handed out does not stay either.
        TempFile second_guard(second_path_);
        if (status_ != MIME_OK)
            return false;
        if (code_ == MIME_ENC_BINHEX && has_header && call_.tell_header() == -1)
            return fail(MIME_STOPPED);
        const int32_t delivered = mime_deliver_part(path, second_path_, call_.session, code_);
        if (delivered < 0)
            return fail(delivered); // the file goes even so
        guard.keep();
        second_guard.keep();
        if (closing)
            walk_up();
        return true;
    }

    // What follows an unencoded embedded message's header is read as the
    // next part's header. Blank lines ahead of it are read again there.
    bool embedded_header() {
        const long long noted = stream_.tell();
        while (stream_.read_line(line_, sizeof line_) > 0)
            if (!is_blank_line(line_)) {
                stream_.seek(noted);
                break;
            }
        return true;
    }

    // Reads the body into `file` (code 0) or has the decoder of the code
    // read it. True when it ended at the closing delimiter.
    bool read_body(File &file, const std::string &path) {
        std::string closing(field(boundary_));
        closing += "--";
        const std::string_view boundary = field(boundary_);
        BufferedWriter out(file);
        bool started = false;
        long long body_mark = stream_.tell();
        for (std::size_t n; (n = stream_.read_line(line_, sizeof line_)) > 0;) {
            if (!started && is_blank_line(line_))
                continue;
            started = true;
            if (starts_with_nocase(std::string_view(line_, n), closing))
                return true;
            if (starts_with_nocase(std::string_view(line_, n), boundary))
                return false;
            if (code_ != MIME_ENC_NONE && !decoded_) {
                // The decoder reads the body itself, from its first line on.
                stream_.seek(body_mark);
                out.flush();
                file.close();
                decoded_ = true;
                if (mime_decode_part_body(stream_, code_, path, boundary_, line_, &second_path_,
                                          &call_.part->binhex_info) == 0) {
                    status_ = MIME_DECODE_ERROR;
                    return false;
                }
            } else if (code_ == MIME_ENC_NONE && !out.write(line_, n)) {
                status_ = MIME_FILE_ERROR;
                return false;
            }
            // Behind a stopped decoder the rest up to the delimiter is passed over.
            body_mark = stream_.tell();
        }
        if (!out.flush())
            status_ = MIME_FILE_ERROR;
        return false;
    }

    // Behind a closing delimiter: each further closing delimiter closes one
    // more level; the first other non-blank line is the delimiter of the
    // level that goes on. At the end of the input the last closing
    // delimiter stays in `next`, so every open level closes.
    void walk_up() {
        char next[kHeaderLine] = "--";
        --depth_;
        while (depth_ > 0) {
            while (stream_.read_line(line_, sizeof line_) > 0)
                if (!is_blank_line(line_)) {
                    std::memcpy(next, line_, sizeof next);
                    break;
                }
            next[std::strcspn(next, "\r\n")] = '\0';
            trim_line_end(next);
            if (std::string_view(next).ends_with("--")) {
                --depth_;
                continue;
            }
            copy_field(boundary_, std::string_view(next));
            return;
        }
    }

    Walk &walk_;
    EndCall &call_;
    Stream &stream_;
    char (&boundary_)[kBoundarySize];
    char outer_[kBoundarySize] = {};
    char line_[kHeaderLine] = {};
    std::string second_path_;
    long long part_mark_ = 0;
    int32_t depth_ = 1;
    int32_t code_ = MIME_ENC_NONE;
    int32_t status_ = MIME_OK;
    bool decoded_ = false;
};

} // namespace

int32_t mime_walk_message_parts(Walk &walk, Stream &stream, char (&boundary)[kBoundarySize]) {
    const int32_t status = PartWalker(walk, stream, boundary).run();
    stream.close();
    return status;
}

// The body of a multipart message, from behind its header: the first
// delimiter is sought, then a group goes to its walker and any other
// multipart to the part walker.
int32_t mime_walk_multipart_body(Stream &stream, const char *boundary, EndCall &call) {
    char current[kBoundarySize] = {};
    copy_field(current, std::string_view(boundary));
    char line[kHeaderLine];
    while (stream.read_line(line, sizeof line) > 0 && !mime_is_delimiter(line, field(current))) {
    }
    Walk walk(call);
    // The richer end call walks a group part by part, as any multipart.
    if (call.summary == nullptr && is_group(*call.part)) {
        const int32_t status = mime_walk_group(walk, stream, current);
        stream.close();
        return status;
    }
    return mime_walk_message_parts(walk, stream, current);
}

} // namespace tw
