// The composition driver and the exports create_message and
// create_message_x.
#include <memory>

#include "compose/compose.h"

namespace tw {

namespace {

constexpr std::string_view kMimeVersion = "MIME-VERSION: 1.0\r\n";

int32_t clamp32(long long n) {
    return n > INT32_MAX ? INT32_MAX : (n < INT32_MIN ? INT32_MIN : static_cast<int32_t>(n));
}

} // namespace

// The counts cover the message so far, not what the file held before it.
void mime_tell_done(const ComposeContext &ctx) {
    if (ctx.callbacks.done == nullptr)
        return;
    long long size = 0;
    int32_t lines = mime_count_lines(ctx.message_path, &size, ctx.start_offset, ctx.appending);
    ctx.callbacks.done(lines, clamp32(size - (ctx.appending ? ctx.start_offset : 0)));
}

int32_t mime_write_single_body(ComposeContext &ctx, const mime_part_desc &desc) {
    const int32_t code = mime_encoding_code(field(desc.encoding));
    const bool encoded = desc.encoding[0] != '\0' && code != MIME_ENC_PLAIN;
    TempFile temp(mime_make_temp(ctx.directory));
    int32_t status = (encoded && code == MIME_ENC_BINHEX)
                         ? mime_write_binhex_body(ctx, temp.path(), desc.binhex_info)
                         : mime_write_body(ctx, temp.path(), code, encoded);
    temp.remove();
    if (status < 0)
        return status;
    mime_tell_done(ctx);
    return MIME_OK;
}

namespace {

// The text part that opens a multipart composed through create_message: the
// library writes its header itself, in its own lower-case form.
bool write_first_text_header(File &file, const ComposeContext &ctx, const mime_part_desc &desc) {
    std::string text = "--" + std::to_string(ctx.seed) + "TarnwickLEVEL1\r\n";
    const std::string_view charset = field(desc.charset);
    text += "Content-type: text/plain; charset=" +
            std::string(charset.empty() ? "us-ascii" : charset) + "\r\n";
    const std::string_view encoding = field(desc.encoding);
    if (!encoding.empty() && mime_encoding_code(encoding) != MIME_ENC_PLAIN)
        text += "Content-transfer-encoding: " + std::string(encoding) + "\r\n";
    text += "\r\n";
    return file.write_all(text);
}

int32_t open_level_one(ComposeContext &ctx) {
    ctx.level = 1;
    ctx.boundary_stack[1] = ctx.seed;
    return mime_write_multipart(ctx, 1);
}

} // namespace

int32_t mime_compose(const ComposeFields &fields, const mime_part_desc &desc,
                     std::string_view message_path, std::string_view extra_text,
                     const ComposeCallbacks &callbacks, bool mime, bool newsgroups,
                     bool no_follow) {
    run_state().transfer_encoding = 0;
    ComposeContext ctx;
    ctx.callbacks = callbacks;
    ctx.no_follow = no_follow;
    ctx.message_path = mime_full_path(message_path);
    if (ctx.message_path.empty())
        return MIME_FILE_ERROR;
    ctx.directory = mime_directory_of(ctx.message_path);
    if (!mime)
        return mime_compose_plain(fields, ctx, extra_text, newsgroups);

    // An existing file is never overwritten: the message goes behind it.
    File file = File::open(ctx.message_path, OpenMode::UpdateExisting, no_follow);
    if (file) {
        ctx.appending = true;
        ctx.start_offset = file.seek_end();
    } else {
        file = File::open(ctx.message_path, OpenMode::Create, no_follow);
        if (!file)
            return MIME_FILE_ERROR;
    }

    int32_t lines = 0;
    if (!mime_write_rfc822_header(file, fields.from, fields.to, fields.cc, fields.bcc,
                                  fields.subject, &lines, newsgroups) ||
        !file.write_all(kMimeVersion))
        return MIME_FILE_ERROR;
    int32_t embedded = 0;
    const int32_t kind = mime_write_content_header(
        file, desc, 0, &embedded, extra_text, &ctx.seed,
        callbacks.ex_mode ? nullptr : callbacks.extra_header);
    if (kind < 0)
        return MIME_FILE_ERROR;

    if (kind == 1) {
        if (!callbacks.ex_mode) {
            ctx.boundary_stack[1] = ctx.seed;
            if (!write_first_text_header(file, ctx, desc))
                return MIME_FILE_ERROR;
            file.close();
            if (int32_t status = mime_write_single_body(ctx, desc); status < 0)
                return status;
        }
        file.close();
        return open_level_one(ctx);
    }
    if (embedded) {
        if (equals_nocase(field(desc.content_type), "message") &&
            equals_nocase(field(desc.content_subtype), "partial") &&
            !file.write_all(kMimeVersion))
            return MIME_FILE_ERROR;
        file.close();
        int32_t status = mime_write_embedded(ctx);
        if (status == kEmbeddedMultipart)
            return open_level_one(ctx);
        return status < 0 ? status : MIME_OK;
    }
    file.close();
    return mime_write_single_body(ctx, desc);
}

namespace {

struct MessageArgs {
    ComposeFields fields;
    const mime_part_info *part_info;
    ComposeCallbacks callbacks;
    bool mime;
    bool newsgroups;
};

int32_t compose_message(const MessageArgs &args, const char *message_path, bool no_follow) {
    if (message_path == nullptr || !path_fits(message_path))
        return 0;
    auto desc = std::make_unique<mime_part_desc>();
    if (args.part_info != nullptr)
        mime_copy_part_info(*args.part_info, *desc);
    int32_t status = mime_compose(args.fields, *desc, message_path, {}, args.callbacks, args.mime,
                                  args.newsgroups, no_follow);
    return status >= 0 ? 1 : 0;
}

ComposeCallbacks plain_callbacks(mime_next_part_cb next_part_cb, mime_body_cb body_cb,
                                 mime_done_cb done_cb, mime_extra_header_cb extra_header_cb) {
    ComposeCallbacks cb;
    cb.next_part = next_part_cb;
    cb.body = body_cb;
    cb.done = done_cb;
    cb.extra_header = extra_header_cb;
    return cb;
}

} // namespace
} // namespace tw

extern "C" TARNWICK_API int32_t create_message(
    const char *to, const char *from, const char *subject, const char *cc, const char *bcc,
    const mime_part_info *part_info, const char *message_path, mime_next_part_cb next_part_cb,
    mime_body_cb body_cb, mime_done_cb done_cb, mime_extra_header_cb extra_header_cb,
    int32_t mime, int32_t newsgroups) {
    return tw::guarded(0, [&] {
        tw::MessageArgs args{{to, from, subject, cc, bcc},
                             part_info,
                             tw::plain_callbacks(next_part_cb, body_cb, done_cb, extra_header_cb),
                             mime != 0,
                             newsgroups != 0};
        return tw::compose_message(args, message_path, false);
    });
}

extern "C" TARNWICK_API int32_t create_message_x(
    const char *to, const char *from, const char *subject, const char *cc, const char *bcc,
    const mime_part_info *part_info, mime_next_part_cb next_part_cb, mime_body_cb body_cb,
    mime_done_cb done_cb, mime_extra_header_cb extra_header_cb, mime_output_cb output_cb,
    int32_t mime, int32_t newsgroups) {
    return tw::guarded(0, [&]() -> int32_t {
        if (output_cb == nullptr)
            return 0;
        const std::string directory = tw::application_directory();
        if (directory.empty())
            return 0;
        // The work file has a fixed name; a copy left by a crash would
        // otherwise be appended to, so it goes first.
        tw::TempFile work(directory + "creat$$$.1");
        tw::remove_file(work.path());
        tw::MessageArgs args{{to, from, subject, cc, bcc},
                             part_info,
                             tw::plain_callbacks(next_part_cb, body_cb, done_cb, extra_header_cb),
                             mime != 0,
                             newsgroups != 0};
        if (tw::compose_message(args, work.path().c_str(), true) != 1)
            return 0;
        return tw::mime_feed_file(work.path(), output_cb);
    });
}
