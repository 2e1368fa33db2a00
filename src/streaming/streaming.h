// The end call of a streaming extraction and the steps it shares with the
// walkers: the leaf, the sub-message header, delivery and part naming.
#pragma once

#include <cstdint>
#include <string>

#include "headers/headers.h"
#include "streaming/session.h"

namespace tw {

struct Summary; // streaming/summary.h
class NumberedNames; // directory/directory.h

// What one end call shares between its steps.
struct EndCall {
    mime_extract_session &session;
    std::string directory; // the session's, with its closing '/'
    HeaderText header_text{2000};
    mime_part_desc *part = nullptr; // the record handed to header_cb
    // Set by the richer end call only: the header stage fills the summary
    // fields, and a top-level related/alternative group is walked as any
    // multipart.
    Summary *summary = nullptr;

    explicit EndCall(mime_extract_session &s) : session(s), directory(s.directory) {}

    int32_t tell_header() {
        return session.header_cb(part, header_text.data(), static_cast<int32_t>(header_text.size()),
                                 session.user_value);
    }
};

// Decodes the body at the stream's position into a numbered file of the
// directory, names it after the record's filename and delivers it. Closes
// the stream. `target_path` receives the file's final path. 1 or a negative
// status.
int32_t mime_extract_leaf(Stream &stream, std::string &target_path, EndCall &call, int32_t code);

// Reads the header inside a message/rfc822 or external-body message into a
// cleared record and tells header_cb. `*multipart_result` is 1 when that
// header opens a multipart. What header_cb answered, or -2.
int32_t mime_extract_sub_header(Stream &stream, char *boundary, std::size_t boundary_size,
                                EndCall &call, int32_t *multipart_result);

// The Content-Disposition (while no file name is known), Content-ID,
// Content-Location, Content-Base and Content-Description lines of a header,
// into `part`. False for any other line.
bool mime_take_content_field(Stream &stream, char *line, HeaderText &header_text,
                             mime_part_desc &part);

// Hands a finished file (and a second fork, for BinHex) to body_cb in the
// session's delivery mode. 1 or a negative status.
int32_t mime_deliver_part(const std::string &path, const std::string &second_path,
                          mime_extract_session &session, int32_t code);

// Feeds a file to body_cb in chunks of 8126 bytes, then once with length 0.
// 0 if the file cannot be read or the callback answered -1, else 1.
int32_t mime_stream_file(const std::string &path, mime_session_body_cb callback,
                         intptr_t user_value);

// Renames the file at `path` after `name` (possibly encoded words), kept
// inside the directory that `path` begins with (`directory_length` bytes).
// A name that is taken falls back to the file's number with the name's
// extension. `path` follows the file.
void mime_name_part_file(std::string &path, std::size_t directory_length, const char *name);

// The end call on a session already out of the handle table; the session
// ends here on every way out and `*handle_pointer` becomes 0.
// With a `summary`, the richer end call.
int32_t mime_extract_end_session(int32_t *handle_pointer, SessionPtr session,
                                 Summary *summary = nullptr);
// Both end exports: the session of `*handle_pointer` taken out of the table
// and ended, with a `summary` for the richer call. -8 for no such session.
int32_t mime_extract_end_handle(int32_t *handle_pointer, Summary *summary);

// The date search of the first Received: header on a continuation line:
// the first weekday found fills received_value and ends the search, whether
// its date parses or not. True when the search is over.
bool search_received_date(const char *line, mime_part_desc &part);

// The plain end call on the session's current spool, nested inside an end
// call that goes on owning the session: it does not destroy it. Status.
int32_t mime_extract_end_nested(int32_t *handle_pointer, mime_extract_session &session);

// ---- Roads of the end call that their own modules build --------------------------

// A message without MIME headers. Status, or 1. With `call.summary` set
// its header stage fills the summary as well.
int32_t mime_stream_plain(EndCall &call);
// Its scan for uuencoded blocks in a body without an Encoding line, the
// text in front of the first block going to `work`. 1 when a block was
// found, else 0 with `work` undelivered.
int32_t mime_stream_plain_uu(TempFile &work, EndCall &call, Stream &stream, NumberedNames &names);
// A message/partial fragment: stored, and the set joined when complete.
int32_t mime_store_fragment_stream(int32_t *handle_pointer, const std::string &message_path,
                                   EndCall &call);
// The body of a multipart message, from behind its header. Closes the
// stream. 1 or a negative status.
int32_t mime_walk_multipart_body(Stream &stream, const char *boundary, EndCall &call);

} // namespace tw
