// What the composition subsystem shares between its modules and offers to
// the rest of the library.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "frame/frame.h"

namespace tw {

// ---- Part records -------------------------------------------------------------

void mime_copy_part_info(const mime_part_info &info, mime_part_desc &desc);

// "base64" 2, "quoted-printable" 3, "binhex" 5, anything else 7.
int32_t mime_encoding_code(std::string_view text);

// ---- Boundaries ------------------------------------------------------------------

// The next number of the boundary chain, seeded with the one before it. A
// fixed generator so that boundaries never depend on the C library or clock.
int32_t mime_next_boundary_number(int32_t seed);

// ---- The callbacks of one composition, in one shape -----------------------------

struct ComposeCallbacks {
    bool ex_mode = false;
    intptr_t user_value = 0;
    mime_next_part_cb next_part = nullptr;
    mime_ex_next_part_cb ex_next_part = nullptr;
    mime_body_cb body = nullptr;
    mime_ex_body_cb ex_body = nullptr;
    mime_done_cb done = nullptr;
    mime_extra_header_cb extra_header = nullptr;

    // A missing body callback gives an empty body rather than a crash.
    int32_t call_body(char *buffer, int32_t size, int32_t *is_file) const {
        if (ex_mode)
            return ex_body != nullptr ? ex_body(buffer, size, is_file, user_value) : 0;
        return body != nullptr ? body(buffer, size, is_file) : 0;
    }
};

// What one call chain of a composition shares.
struct ComposeContext {
    ComposeCallbacks callbacks;
    std::string message_path; // full path
    std::string directory;    // of the message, with its closing '/'
    bool no_follow = false;   // the message is a fixed-name work file
    bool appending = false;
    long long start_offset = 0;
    int32_t seed = 1;
    int32_t level = 0;
    std::array<int32_t, 100> boundary_stack{};
};

// ---- Writers ------------------------------------------------------------------------

// Writes the content header of `desc`. 1 for multipart, 0 otherwise, -1 on
// failure. Sets *embedded to 1 when an embedded message follows.
int32_t mime_write_content_header(File &file, const mime_part_desc &desc, int32_t level,
                                  int32_t *embedded, std::string_view extra_text,
                                  int32_t *seed, mime_extra_header_cb extra_header_cb);

// "Wed, 2 Jan 1980 02:03:55", UTC, no zone.
std::string mime_format_date();

// From, Date, To/Newsgroups, Subject, Cc, Bcc. `line_count` grows by the
// lines written. False when a write failed.
bool mime_write_rfc822_header(File &file, const char *from, const char *to, const char *cc,
                              const char *bcc, const char *subject, int32_t *line_count,
                              bool newsgroups);

// Puts one body from body_cb into the message, encoded through `temp_path`
// when `encode` is set. 1 or a negative status.
int32_t mime_write_body(const ComposeContext &ctx, const std::string &temp_path, int32_t code,
                        bool encode);

// The driver of every composition. 1 or a negative status.
struct ComposeFields {
    const char *to = nullptr;
    const char *from = nullptr;
    const char *subject = nullptr;
    const char *cc = nullptr;
    const char *bcc = nullptr;
};
int32_t mime_compose(const ComposeFields &fields, const mime_part_desc &desc,
                     std::string_view message_path, std::string_view extra_text,
                     const ComposeCallbacks &callbacks, bool mime, bool newsgroups,
                     bool no_follow = false);

// ---- Roads of the driver that their own modules build -------------------------

// The multipart loop from `level`. 1 or a negative status.
int32_t mime_write_multipart(ComposeContext &ctx, int32_t level);
// An embedded message at the top level: 7 when it is a multipart whose header
// is written, 1 when finished, or a negative status.
int32_t mime_write_embedded(ComposeContext &ctx);
// A message without MIME headers. 1 or a negative status.
int32_t mime_compose_plain(const ComposeFields &fields, ComposeContext &ctx,
                           std::string_view extra_text, bool newsgroups);
// A BinHex body. 1 or a negative status.
int32_t mime_write_binhex_body(const ComposeContext &ctx, const std::string &temp_path,
                               const binhex_info &info);

} // namespace tw
