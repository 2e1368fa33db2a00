// What the composition subsystem shares between its modules and offers to
// the rest of the library.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

// body_cb fills chunks of this size.
inline constexpr int32_t kBodyChunk = 8126;

// One answer of body_cb. `status` MIME_OK with `end` set closes the series;
// a stop gives MIME_STOPPED, a count beyond the chunk (no count at all)
// MIME_FILE_ERROR. A file name is taken up to its first NUL and refused with
// MIME_FILE_ERROR when it is too long for a path.
struct BodyPiece {
    int32_t status = MIME_OK;
    bool end = false;
    bool is_file = false;
    std::string_view bytes; // in the chunk
    std::string name;

    bool done() const { return status != MIME_OK || end; }
};
BodyPiece mime_next_body_piece(const ComposeCallbacks &callbacks, char *chunk);

// What next_part_cb fills, made once for one loop and zero-filled then: the
// application may rely on what its last answer left in a record. The short
// block is create_message's, the full record and the extra header text are
// create_ex_message's.
struct PartRecords {
    static constexpr int32_t kExtraSize = 2052;

    std::unique_ptr<mime_part_info> info;
    std::unique_ptr<mime_part_desc> desc;
    std::unique_ptr<char[]> extra; // kExtraSize bytes and a NUL that stays

    // False when memory ran out.
    bool allocate();
    // Empties the extra text and asks for the next part in the shape of the
    // composition. With the short block, the part is copied into `desc`
    // unless `copy_unless` says the answer is no part. A missing callback
    // stops the composition as -1 would.
    int32_t ask(const ComposeCallbacks &callbacks, bool (*copy_unless)(int32_t answer));
    std::string_view extra_text() const;
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

// Puts the body of a part that is no multipart into the message through a
// temporary file of its own, then tells done_cb the lines and bytes of the
// message. 1 or a negative status.
int32_t mime_write_single_body(ComposeContext &ctx, const mime_part_desc &desc);
// Tells done_cb, if there is one, the lines and bytes of the message so far.
void mime_tell_done(const ComposeContext &ctx);

// ---- Roads of the driver that their own modules build -------------------------

// The deepest multipart level: the boundary stack has room for levels 1 to 99.
inline constexpr int32_t kDeepestLevel = 99;
// mime_write_embedded: the embedded message is a multipart whose header is
// written; the multipart loop goes on from level 1.
inline constexpr int32_t kEmbeddedMultipart = 7;

// The multipart loop from `level`. 1 or a negative status; a multipart that
// would open a level beyond kDeepestLevel is refused with -3.
int32_t mime_write_multipart(ComposeContext &ctx, int32_t level);
// An embedded message at the top level: kEmbeddedMultipart, 1 when finished,
// or a negative status.
int32_t mime_write_embedded(ComposeContext &ctx);
// A message without MIME headers. 1 or a negative status.
int32_t mime_compose_plain(const ComposeFields &fields, ComposeContext &ctx,
                           std::string_view extra_text, bool newsgroups);
// Its steps. Extra header text from the callback into `file`, counting its
// lines: 1, -3 or -5.
int32_t mime_write_extra_header(File &file, mime_extra_header_cb extra_header_cb,
                                int32_t *line_count);
// Asks for every attachment and writes one whole record per attachment to
// `record_file`; bytes go to numbered work files of `directory`, whose
// guards land in `byte_files`. 1 or a negative status.
int32_t mime_collect_attachments(std::vector<TempFile> &byte_files, File &record_file,
                                 const std::string &directory, const ComposeCallbacks &callbacks);
// Appends header, a blank line and body to the message file: 1 or -3.
int32_t mime_join_files(const std::string &target_path, const std::string &header_path,
                        const std::string &body_path, bool no_follow = false);
// A BinHex body. 1 or a negative status.
int32_t mime_write_binhex_body(const ComposeContext &ctx, const std::string &temp_path,
                               const binhex_info &info);

} // namespace tw
