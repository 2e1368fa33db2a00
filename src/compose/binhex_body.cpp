// A BinHex body: body_cb gives the data fork and then the resource fork,
// each as its own series of answers, either as bytes or as the name of a
// file; the encoder then appends one block of both to the message.
#include <memory>

#include "compose/compose.h"
#include "encodings/encodings.h"

namespace tw {

namespace {

// How the forks come: the first answer decides for both series.
enum class Form { Open, Bytes, Name };

// One series of body_cb answers. Bytes go to `sink`; a file name ends the
// series in `name`. A series that switches between the two forms, or a
// second series in the other form than the first, is refused with -4: which
// fork was meant cannot be told.
int32_t take_series(const ComposeContext &ctx, char *chunk, File *sink, Form &form,
                    std::string &name) {
    for (;;) {
        BodyPiece piece = mime_next_body_piece(ctx.callbacks, chunk);
        if (piece.end)
            return MIME_OK;
        if (piece.status != MIME_OK && !piece.is_file)
            return piece.status;
        const Form this_form = piece.is_file ? Form::Name : Form::Bytes;
        if (form != Form::Open && form != this_form)
            return MIME_ENCODER_ERROR;
        form = this_form;
        if (piece.is_file) {
            name = std::move(piece.name);
            return piece.status;
        }
        if (sink == nullptr)
            return MIME_ENCODER_ERROR;
        if (!sink->write_all(piece.bytes.data(), piece.bytes.size()))
            return MIME_FILE_ERROR;
    }
}

} // namespace

int32_t mime_write_binhex_body(const ComposeContext &ctx, const std::string &temp_path,
                               const binhex_info &info) {
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kBodyChunk + 1]);
    if (!chunk)
        return MIME_NO_MEMORY;
    Form form = Form::Open;
    std::string data_name, resource_name;
    int32_t status = MIME_OK;
    {
        File data = File::open(temp_path, OpenMode::Create);
        if (!data)
            return MIME_FILE_ERROR;
        status = take_series(ctx, chunk.get(), &data, form, data_name);
    }
    if (status != MIME_OK)
        return status;

    // Bytes need a second file for the resource fork; names do not.
    TempFile resource;
    if (form != Form::Name) {
        form = Form::Bytes;
        resource.reset(mime_make_temp(mime_directory_of(temp_path)));
        File sink = resource.empty() ? File() : File::open(resource.path(), OpenMode::Create);
        if (!sink)
            return MIME_FILE_ERROR;
        status = take_series(ctx, chunk.get(), &sink, form, resource_name);
        data_name = temp_path;
        resource_name = resource.path();
    } else {
        status = take_series(ctx, chunk.get(), nullptr, form, resource_name);
    }
    if (status != MIME_OK)
        return status;
    // After a named data fork, an empty second series means no resource fork.
    const int32_t encoded =
        binhex_encode_file(data_name, resource_name, ctx.message_path, info, ctx.no_follow);
    return encoded == MIME_OK ? MIME_OK : MIME_ENCODER_ERROR;
}

} // namespace tw
