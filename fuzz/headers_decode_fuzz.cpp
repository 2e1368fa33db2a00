// libFuzzer target: the encoded-word decoder through its export, and the
// header line readers on a message stream. The first line of the input is
// the header line handed over; the rest is what the stream holds behind it.
// Every chain must be well formed, every field NUL-terminated in its width.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

#include "headers/headers.h"

namespace {

void check_chain(const mime_hdr_field *e) {
    if (e == nullptr)
        std::abort();
    for (; e != nullptr; e = e->next) {
        if (e->text == nullptr || e->charset == nullptr)
            std::abort();
        if (strnlen(e->charset, tw::kCharsetWidth) >= tw::kCharsetWidth)
            std::abort();
        if (e->encoding != MIME_ENC_PLAIN && e->encoding != MIME_ENC_BASE64 &&
            e->encoding != MIME_ENC_QUOTED)
            std::abort();
    }
}

template <std::size_t N> void check_field(const char (&f)[N]) {
    if (strnlen(f, N) >= N)
        std::abort();
}

// The stream needs a file; a memory-backed directory keeps the runs fast.
const std::string &scratch_path() {
    static const std::string path =
        std::string(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
        "/tarnwick-fuzz-" + std::to_string(::getpid());
    return path;
}

void run_readers(const std::string &input) {
    {
        std::ofstream out(scratch_path(), std::ios::binary | std::ios::trunc);
        out.write(input.data(), static_cast<std::streamsize>(input.size()));
    }
    tw::Stream stream = tw::Stream::open_read(scratch_path());
    ::unlink(scratch_path().c_str()); // the open stream keeps the data
    if (!stream)
        return;
    tw::run_state().header_file = nullptr;
    char line[tw::kHeaderLine];

    // A field value with its continuation lines.
    stream.read_line(line, sizeof line);
    tw::HeaderText text;
    tw::ChainHead chain;
    tw::mime_decode_field_value(&stream, line, sizeof line, &text, chain.slot());
    check_chain(chain.get());

    // The same line as a Content-type line, with and without a record.
    for (int with_desc = 0; with_desc < 2; ++with_desc) {
        stream.seek(0);
        stream.read_line(line, sizeof line);
        auto desc = std::make_unique<mime_part_desc>();
        char boundary[100];
        boundary[0] = '\0';
        tw::mime_parse_content_type(stream, line, boundary, tw::run_state().current_file_name,
                                    &text, with_desc ? desc.get() : nullptr);
        check_field(boundary);
        check_field(desc->filename);
        check_field(desc->charset);
        check_field(tw::run_state().current_type);
        check_field(tw::run_state().current_subtype);
        check_field(tw::run_state().partial_id);
    }

    stream.seek(0);
    stream.read_line(line, sizeof line);
    int32_t encoding = 0;
    tw::mime_parse_transfer_encoding(line, encoding);
    char value[40];
    tw::mime_header_value(line, value);
    int32_t count = 0;
    char word[16];
    for (std::size_t at = 0; at < std::strlen(line);) {
        const int32_t used = tw::mime_encoding_item(line + at, count, word);
        if (used <= 0)
            break;
        at += static_cast<std::size_t>(used);
    }
    stream.seek(0);
    tw::mime_file_is_mime(stream);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    std::string value = input; // the export trims its argument in place
    mime_hdr_field *chain = mime_decode_HdrField(value.data());
    check_chain(chain);
    mime_FreeList(chain);
    run_readers(input);
    return 0;
}
