// The multipart loop of composition: asks the application what comes next,
// writes delimiters, part headers and bodies, and keeps the stack of open
// multiparts. The structure of the message is entirely the application's:
// a multipart part opens a level, the answer 19 closes one.
#include <cstring>

#include "compose/compose.h"

namespace tw {

namespace {


static_assert(kDeepestLevel <
                  static_cast<int32_t>(std::tuple_size_v<decltype(ComposeContext::boundary_stack)>),
              "every open level needs its entry in the boundary stack");

std::string delimiter(int32_t number, int32_t level, bool closing) {
    std::string text = "\r\n--" + std::to_string(number) + "TarnwickLEVEL" + std::to_string(level);
    text += closing ? "--\r\n" : "\r\n";
    return text;
}

bool no_part(int32_t answer) {
    return answer == MIME_PART_END_MULTIPART || answer == MIME_PART_RAW || answer == -1;
}

// The loop holds the message open between parts; whoever else has to write
// into it (a body writer, the file appender) gets it closed, since every
// open of it is exclusive.
class Message {
public:
    explicit Message(const ComposeContext &ctx) : ctx_(ctx) {}
    bool open() {
        file_ = File::open(ctx_.message_path, OpenMode::WriteExisting, ctx_.no_follow);
        return file_ && file_.seek_end() >= 0;
    }
    void close() { file_.close(); }
    File &file() { return file_; }
    bool write(std::string_view text) { return file_.write_all(text); }

private:
    const ComposeContext &ctx_;
    File file_;
};

// Answer 20: a part without a header of its own. Its bytes go straight into
// the message; a named file is appended as it stands.
int32_t write_raw_part(const ComposeContext &ctx, Message &message, char *chunk) {
    if (!message.write("\r\n\r\n"))
        return MIME_FILE_ERROR;
    for (;;) {
        const BodyPiece piece = mime_next_body_piece(ctx.callbacks, chunk);
        if (piece.done())
            return piece.status;
        if (piece.is_file) {
            message.close();
            if (mime_append_file(piece.name, ctx.message_path, 0) == 0 || !message.open())
                return MIME_FILE_ERROR;
            return MIME_OK;
        }
        if (!message.file().write_all(piece.bytes.data(), piece.bytes.size()))
            return MIME_FILE_ERROR;
    }
}

struct LoopState {
    int32_t level;
    int32_t seed;     // the number a multipart header is made from
    int32_t embedded; // the part just announced holds a message: no delimiter next
};

// A part with a header: the header, and then either a new level, nothing
// (an embedded message follows with the next answer) or the part's body.
int32_t write_described_part(ComposeContext &ctx, Message &message, const PartRecords &records,
                             LoopState &loop) {
    const mime_part_desc &desc = *records.desc;
    // The temporary file is made before the header, so that a directory in
    // which no body could be encoded fails before the part is announced.
    TempFile temp(mime_make_temp(ctx.directory));
    if (temp.empty() || !File::open(temp.path(), OpenMode::Create))
        return MIME_FILE_ERROR;
    loop.embedded = 0;
    const int32_t kind = mime_write_content_header(message.file(), desc, loop.level, &loop.embedded,
                                                   records.extra_text(), &loop.seed, nullptr);
    if (kind < 0)
        return MIME_FILE_ERROR;
    if (kind == 1) {
        ++loop.level;
        ctx.boundary_stack[static_cast<std::size_t>(loop.level)] = loop.seed;
        return MIME_OK;
    }

    // A message/* part is never encoded: its content is a message, or the
    // bytes of a later fragment that must stay as they are.
    const std::string_view encoding = field(desc.encoding);
    const int32_t code = mime_encoding_code(encoding);
    const bool encode = !equals_nocase(field(desc.content_type), "message") && !encoding.empty() &&
                        code != MIME_ENC_PLAIN;
    message.close();
    if (loop.embedded == 0) {
        const int32_t status = encode && code == MIME_ENC_BINHEX
                                   ? mime_write_binhex_body(ctx, temp.path(), desc.binhex_info)
                                   : mime_write_body(ctx, temp.path(), code, encode);
        if (status < 0)
            return status;
    }
    temp.remove();
    return message.open() ? MIME_OK : MIME_FILE_ERROR;
}

} // namespace

bool PartRecords::allocate() {
    info.reset(new (std::nothrow) mime_part_info{});
    desc.reset(new (std::nothrow) mime_part_desc{});
    extra.reset(new (std::nothrow) char[kExtraSize + 1]{});
    return info && desc && extra;
}

int32_t PartRecords::ask(const ComposeCallbacks &callbacks, bool (*copy_unless)(int32_t)) {
    extra[0] = '\0';
    if (callbacks.ex_mode) {
        if (callbacks.ex_next_part == nullptr)
            return -1;
        return callbacks.ex_next_part(desc.get(), extra.get(), kExtraSize, callbacks.user_value);
    }
    if (callbacks.next_part == nullptr)
        return -1;
    const int32_t answer = callbacks.next_part(info.get());
    if (!copy_unless(answer))
        mime_copy_part_info(*info, *desc);
    return answer;
}

std::string_view PartRecords::extra_text() const {
    return std::string_view(extra.get(), strnlen(extra.get(), kExtraSize));
}

int32_t mime_write_multipart(ComposeContext &ctx, int32_t level) {
    if (level < 1 || level > kDeepestLevel)
        return MIME_FILE_ERROR;
    Message message(ctx);
    if (!message.open())
        return MIME_FILE_ERROR;
    PartRecords records;
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kBodyChunk]);
    if (!records.allocate() || !chunk)
        return MIME_NO_MEMORY;

    LoopState loop{level, ctx.boundary_stack[static_cast<std::size_t>(level)], 0};
    int32_t status = MIME_OK;
    while (loop.level > 0 && status == MIME_OK) {
        const int32_t answer = records.ask(ctx.callbacks, no_part);
        const int32_t number = ctx.boundary_stack[static_cast<std::size_t>(loop.level)];
        if (answer == MIME_PART_END_MULTIPART) {
            // `embedded` is left as it is: an embedded part closed before it
            // got its content takes the next delimiter of the outer level.
            if (!message.write(delimiter(number, loop.level, true)))
                status = MIME_FILE_ERROR;
            --loop.level;
            continue;
        }
        if (answer == -1) {
            status = MIME_STOPPED;
            break;
        }
        // Refused before anything of the part is written, so the message
        // stands complete up to the last part that had room.
        if (answer != MIME_PART_RAW && loop.level == kDeepestLevel &&
            equals_nocase(field(records.desc->content_type), "multipart")) {
            status = MIME_FILE_ERROR;
            break;
        }
        if (loop.embedded == 0) {
            loop.seed = number;
            if (!message.write(delimiter(number, loop.level, false))) {
                status = MIME_FILE_ERROR;
                break;
            }
        }
        run_state().transfer_encoding = 0;
        if (answer == MIME_PART_RAW) {
            loop.embedded = 0;
            status = write_raw_part(ctx, message, chunk.get());
        } else {
            status = write_described_part(ctx, message, records, loop);
        }
    }
    ctx.level = loop.level;
    return status;
}

} // namespace tw
