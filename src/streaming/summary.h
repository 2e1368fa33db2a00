// The header summary of the richer end call: mailer, priority, dates as
// numbers, signed / encrypted / returned-mail marks, and what the first
// Received: header says about the receiving host. Both header readers (the
// MIME one and the plain one) feed it the same way, line by line.
#pragma once

#include <cstdint>

#include "tarnwick.h"

namespace tw {

// Working state of one message header. Lives for one end call; only the
// header stage of the outermost message touches it.
struct Summary {
    static constexpr std::size_t kWork = 512;
    int received_count = 0;
    char received_host[kWork] = {}; // host behind "by " on the first Received: line
    char received_id[kWork] = {};   // what stood in <> of the first header's id clause
};

// Seconds since 1970 as the record keeps them: most significant byte first.
void store_big_endian(unsigned char (&out)[4], int32_t value);

// The summary rows of a header line that none of the address, Content-*
// rows took: X-Mailer, Received:, X-Priority:, Encrypted:, Date: and
// continuation lines. True when the line was one of them; the caller's own
// Received: counting and weekday search must then not run. Any line length
// is safe: every copy is cut at its field.
bool summary_take_line(Summary &summary, const char *line, mime_part_desc &part);

// After a Subject: line was decoded into `subject`: the returned-mail test.
void summary_subject(const mime_hdr_field *subject, mime_part_desc &part);

// After a Content-type line was read into `part`: the signed mark.
void summary_content_type(mime_part_desc &part);

// When the header has been read, before address_cb: message_address from
// the first Received: header's id and host.
void summary_make_address(const Summary &summary, mime_part_desc &part);

} // namespace tw
