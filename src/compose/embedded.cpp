// The one message that follows a message/rfc822, message/external-body or
// first message/partial header at the top of a composed message. Its header
// stands directly behind the blank line of the outer one.
#include "compose/compose.h"

namespace tw {

namespace {

// Here 19 and 20 carry no meaning of their own: only 0 and -1 are no part.
bool no_embedded_part(int32_t answer) { return answer == 0 || answer == -1; }

} // namespace

int32_t mime_write_embedded(ComposeContext &ctx) {
    File message = File::open(ctx.message_path, OpenMode::UpdateExisting, ctx.no_follow);
    if (!message || message.seek_end() < 0)
        return MIME_FILE_ERROR;
    PartRecords records;
    if (!records.allocate())
        return MIME_NO_MEMORY;

    const int32_t answer = records.ask(ctx.callbacks, no_embedded_part);
    if (answer == -1)
        return MIME_STOPPED;
    if (answer == 0) {
        // No embedded part at all: the message is complete as it stands,
        // ending behind the outer header, and is reported like any other
        // finished message.
        message.close();
        mime_tell_done(ctx);
        return MIME_OK;
    }

    int32_t embedded = 0;
    const int32_t kind = mime_write_content_header(message, *records.desc, ctx.level, &embedded,
                                                   records.extra_text(), &ctx.seed, nullptr);
    message.close();
    if (kind < 0)
        return MIME_FILE_ERROR;
    if (kind == 1)
        return kEmbeddedMultipart;
    return mime_write_single_body(ctx, *records.desc);
}

} // namespace tw
