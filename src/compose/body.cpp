// One body from body_cb into the message: as it comes, or through a
// temporary file and an encoder that appends to the message.
#include <memory>

#include "compose/compose.h"

namespace tw {

namespace {


int32_t encode_into_message(int32_t code, const std::string &source, const std::string &target) {
    int32_t result = code == MIME_ENC_BASE64 ? ::base64_encode(source.c_str(), target.c_str())
                                             : ::quoted_encode(source.c_str(), target.c_str());
    return result == -1 ? MIME_ENCODER_ERROR : MIME_OK;
}

} // namespace

BodyPiece mime_next_body_piece(const ComposeCallbacks &callbacks, char *chunk) {
    BodyPiece piece;
    int32_t is_file = 0;
    const int32_t answer = callbacks.call_body(chunk, kBodyChunk, &is_file);
    if (answer == 0) {
        piece.end = true;
    } else if (answer < 0) {
        // -1 is the stop; any other negative count is no count at all.
        piece.status = MIME_STOPPED;
    } else if (answer > kBodyChunk) {
        piece.status = MIME_FILE_ERROR;
    } else if (is_file != 0) {
        piece.is_file = true;
        piece.name.assign(chunk, strnlen(chunk, static_cast<std::size_t>(answer)));
        if (!path_fits(piece.name))
            piece.status = MIME_FILE_ERROR;
    } else {
        piece.bytes = std::string_view(chunk, static_cast<std::size_t>(answer));
    }
    return piece;
}

int32_t mime_write_body(const ComposeContext &ctx, const std::string &temp_path, int32_t code,
                        bool encode) {
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kBodyChunk + 1]);
    if (!chunk)
        return MIME_NO_MEMORY;
    std::string named_file;
    int32_t status = MIME_OK;
    {
        File message = File::open(ctx.message_path, OpenMode::WriteExisting, ctx.no_follow);
        File temp = File::open(temp_path, OpenMode::Create);
        if (!message || !temp)
            return MIME_FILE_ERROR;
        message.seek_end();
        File &sink = encode ? temp : message;
        for (;;) {
            BodyPiece piece = mime_next_body_piece(ctx.callbacks, chunk.get());
            if (piece.done() || piece.is_file) {
                status = piece.status;
                named_file = std::move(piece.name);
                break;
            }
            if (!sink.write_all(piece.bytes.data(), piece.bytes.size())) {
                status = MIME_FILE_ERROR;
                break;
            }
        }
    }
    if (status != MIME_OK)
        return status;
    if (encode)
        return encode_into_message(code, named_file.empty() ? temp_path : named_file,
                                   ctx.message_path);
    if (!named_file.empty() && mime_append_file(named_file, ctx.message_path, 0) == 0)
        return MIME_FILE_ERROR;
    return MIME_OK;
}

} // namespace tw
