// mime_extract_end: reads the spooled message once and hands the
// application its address lists, header text and record, and its parts.
#include <cstring>
#include <memory>

#include "streaming/streaming.h"
#include "streaming/summary.h"

namespace tw {

bool mime_take_content_field(Stream &stream, char *line, HeaderText &header_text,
                             mime_part_desc &part) {
    if (starts_with_nocase(line, "Content-Disposition")) {
        if (part.filename[0] == '\0')
            if (char *colon = std::strchr(line, ':'))
                mime_read_parameters(&stream, colon + 1, &header_text, part);
    } else if (starts_with_nocase(line, "Content-ID")) {
        mime_header_value(line, part.content_id);
    } else if (starts_with_nocase(line, "Content-Location")) {
        mime_header_value(line, part.content_location);
    } else if (starts_with_nocase(line, "Content-Base")) {
        mime_header_value(line, part.content_base);
    } else if (starts_with_nocase(line, "Content-Description")) {
        mime_header_value(line, part.description);
    } else {
        return false;
    }
    return true;
}

namespace {

constexpr std::size_t kBoundary = 100;

// What the message header said about the body.
struct HeaderFacts {
    bool multipart = false;
    bool external_body = false;
    bool rfc822 = false;
    bool partial = false;
    bool blank_seen = false;
    int32_t code = MIME_ENC_NONE;
};

} // namespace

// The date of the first Received: header stands on one of its continuation
// lines, behind a weekday; the first weekday found ends the search for good,
// whether its date parses or not. True when the search is over.
bool search_received_date(const char *line, mime_part_desc &part) {
    static const char *const kDays[] = {"Mon, ", "Tue, ", "Wed, ", "Thu, ",
                                        "Fri, ", "Sat, ", "Sun, "};
    for (const char *day : kDays) {
        if (const char *at = std::strstr(line, day)) {
            int32_t seconds = 0;
            mime_parse_date(at, &seconds);
            store_big_endian(part.received_value, seconds);
            return true;
        }
    }
    return false;
}

namespace {

class HeaderReader {
public:
    HeaderReader(Stream &stream, EndCall &call, mime_address_lists &lists, char *boundary)
        : stream_(stream), call_(call), lists_(lists), boundary_(boundary) {}

    // False when the header text could not grow.
    bool read(HeaderFacts &facts) {
        char line[kHeaderLine];
        bool started = false;
        while (stream_.read_line(line, sizeof line) > 0) {
            if (is_blank_line(line)) {
                if (!started)
                    continue;
                facts.blank_seen = true;
                break;
            }
            started = true;
            call_.header_text.append(line);
            if (call_.header_text.lost())
                return false;
            take_line(line, facts);
            if (call_.header_text.lost())
                return false;
            if (facts.partial)
                break;
        }
        return true;
    }

private:
    void address_field(char *line, std::size_t prefix, mime_hdr_field **chain) {
        mime_decode_field_value(&stream_, line + prefix, kHeaderLine - prefix, &call_.header_text,
                                chain);
    }

    void take_line(char *line, HeaderFacts &facts) {
        mime_part_desc &part = *call_.part;
        if (starts_with_nocase(line, "From:")) {
            address_field(line, 5, &lists_.from);
        } else if (starts_with_nocase(line, "Subject:")) {
            address_field(line, 8, &lists_.subject);
            if (call_.summary != nullptr)
                summary_subject(lists_.subject, part);
        } else if (starts_with_nocase(line, "To:")) {
            address_field(line, 3, &lists_.to);
        } else if (starts_with_nocase(line, "Cc:")) {
            address_field(line, 3, &lists_.cc);
        } else if (starts_with_nocase(line, "Bcc:")) {
            address_field(line, 4, &lists_.bcc);
        } else if (starts_with_nocase(line, "Content-Transfer-Encoding")) {
            mime_parse_transfer_encoding(line, facts.code);
            static const char *const kNames[] = {nullptr, nullptr, "base64", "quoted-printable",
                                                 "uuencode"};
            if (facts.code >= MIME_ENC_BASE64 && facts.code <= MIME_ENC_UUENCODE)
                copy_field(part.encoding, kNames[facts.code]);
        } else if (mime_take_content_field(stream_, line, call_.header_text, part)) {
            // a file name, an id, a location, a base or a description
        } else if (starts_with_nocase(line, "Content-type")) {
            content_type(line, facts);
        } else if (call_.summary != nullptr && summary_take_line(*call_.summary, line, part)) {
            // the summary's rows replace Received: counting and the weekday search
        } else if (starts_with_nocase(line, "Received:")) {
            ++received_count_;
        } else if ((line[0] == '\t' || line[0] == ' ') && received_count_ == 1 && !date_found_) {
            date_found_ = search_received_date(line, part);
        }
    }

    void content_type(char *line, HeaderFacts &facts) {
        run_state().header_file = nullptr;
        mime_part_desc &part = *call_.part;
        const int32_t r = mime_parse_content_type(stream_, line, {boundary_, kBoundary},
                                                  part.filename, &call_.header_text, &part);
        // The last Content-type line decides.
        facts.multipart = r == 1;
        if (call_.summary != nullptr)
            summary_content_type(part);
        facts.external_body = facts.rfc822 = false;
        if (r != 0 || !equals_nocase(field(part.content_type), "message"))
            return;
        const std::string_view subtype = field(part.content_subtype);
        if (equals_nocase(subtype, "partial"))
            facts.partial = true;
        else if (equals_nocase(subtype, "external-body"))
            facts.external_body = true;
        else if (equals_nocase(subtype, "rfc822"))
            facts.rfc822 = true;
    }

    Stream &stream_;
    EndCall &call_;
    mime_address_lists &lists_;
    char *boundary_;
    int received_count_ = 0;
    bool date_found_ = false;
};

// The body stage, once address_cb and header_cb have run. Closes `stream`.
int32_t extract_body(Stream &stream, EndCall &call, HeaderFacts &facts, char *boundary) {
    std::string target;
    if (!facts.multipart && !facts.external_body && !facts.rfc822)
        return mime_extract_leaf(stream, target, call, facts.code);
    if (!facts.multipart) {
        int32_t sub_multipart = 0;
        const int32_t r = mime_extract_sub_header(stream, boundary, kBoundary, call, &sub_multipart);
        if (r < 0)
            return r; // header_cb's own answer, as it stands
        if (facts.external_body)
            return MIME_OK; // such a body is a reference, not content
        facts.multipart = sub_multipart == 1;
        if (!facts.multipart)
            // The inner header's transfer encoding is not read: the outer
            // one decides how the body is decoded.
            return mime_extract_leaf(stream, target, call, facts.code);
    }
    if (!facts.blank_seen)
        return MIME_OK;
    return mime_walk_multipart_body(stream, boundary, call);
}

int32_t run_end(int32_t *handle_pointer, mime_extract_session &session, Summary *summary) {
    const std::string message_path = session.spool_path;
    Stream stream = Stream::open_read(message_path);
    if (!stream)
        return MIME_FILE_ERROR;
    EndCall call(session);
    call.summary = summary;
    if (mime_file_is_mime(stream) == 0) {
        stream.close();
        return mime_stream_plain(call);
    }
    stream.seek(0);
    auto part = std::make_unique<mime_part_desc>();
    call.part = part.get();
    if (call.directory.empty() || call.directory.back() != '/')
        call.directory += '/';
    mime_run_state &rs = run_state();
    rs.current_subtype[0] = '\0';
    rs.current_file_name[0] = '\0';
    rs.message_is_mime = 1;

    char boundary[kBoundary] = {};
    HeaderFacts facts;
    int32_t status = MIME_OK;
    {
        OwnedAddressLists lists;
        if (!HeaderReader(stream, call, lists.lists, boundary).read(facts))
            return MIME_NO_MEMORY;
        if (facts.partial) {
            stream.close();
            return mime_store_fragment_stream(handle_pointer, message_path, call);
        }
        if (summary != nullptr)
            summary_make_address(*summary, *part);
        if (session.address_cb(&lists.lists, session.user_value) == -1)
            status = MIME_STOPPED;
    }
    if (equals_nocase(field(part->content_type), "application") &&
        equals_nocase(field(part->content_subtype), "mac-binhex40")) {
        copy_field(part->encoding, "binhex");
        facts.code = MIME_ENC_BINHEX;
    }
    if (status == MIME_OK && facts.code != MIME_ENC_BINHEX && call.tell_header() == -1)
        status = MIME_STOPPED;
    if (status != MIME_OK)
        return status;
    return extract_body(stream, call, facts, boundary);
}

} // namespace

// The end call on a session already taken out of the handle table. The
// session ends here on every way out; the spool goes if it is ours.
int32_t mime_extract_end_session(int32_t *handle_pointer, SessionPtr session, Summary *summary) {
    int32_t status = guarded(
        MIME_ERROR, [&] { return run_end(handle_pointer, *session, summary); },
        static_cast<int32_t>(MIME_NO_MEMORY));
    mime_destroy_session(handle_pointer, std::move(session));
    return status;
}

// A joined fragment set, read from the start as a message of its own. The
// outer end call still owns the session and ends it once, afterwards.
int32_t mime_extract_end_nested(int32_t *handle_pointer, mime_extract_session &session) {
    return guarded(MIME_ERROR, [&] { return run_end(handle_pointer, session, nullptr); },
                   static_cast<int32_t>(MIME_NO_MEMORY));
}

} // namespace tw

int32_t tw::mime_extract_end_handle(int32_t *handle_pointer, Summary *summary) {
    if (handle_pointer == nullptr)
        return MIME_NO_SESSION;
    // Out of the table first: a callback that calls back on this handle
    // finds no session instead of one in the middle of its end.
    SessionPtr session = session_detach(*handle_pointer);
    if (!session)
        return MIME_NO_SESSION;
    return mime_extract_end_session(handle_pointer, std::move(session), summary);
}

extern "C" TARNWICK_API int32_t mime_extract_end(int32_t *handle_pointer) {
    return tw::mime_extract_end_handle(handle_pointer, nullptr);
}
