// Quoted-printable, file to file and on an open message stream. A source
// with a single byte outside printable ASCII is binary, and then its line
// ends are escaped too; the encoder adds no closing line end; the decoder
// keeps blanks at line ends and drops a broken escape without a word.
#include <array>
#include <cstring>

#include "encodings/codec_io.h"
#include "encodings/encodings.h"

namespace tw {

namespace {

using codec::DecodeBlock;
using codec::LineInput;

constexpr std::size_t kEncodeInBlock = 8192;
// The binary scan only reads; its block size shows nowhere but in speed.
constexpr std::size_t kScanBlock = 64 * 1024;
// Past this column a soft break follows, so encoded lines stay within 76.
constexpr int kSoftBreakAfter = 72;

constexpr char kHex[] = "0123456789ABCDEF";

enum ByteClass : uint8_t { kLiteral, kEscape, kLineEnd };

constexpr bool is_text_byte(unsigned c) {
    return (c >= 0x20 && c <= 0x7E) || c == '\t' || c == '\r' || c == '\n';
}

// How the encoder writes each byte; in a binary source CR and LF are
// escaped like any other control byte.
constexpr std::array<ByteClass, 256> make_classes(bool binary) {
    std::array<ByteClass, 256> t{};
    for (unsigned c = 0; c < 256; ++c) {
        const bool literal = (c >= 0x20 && c <= 0x7E && c != '=') || c == '\t';
        t[c] = literal ? kLiteral : kEscape;
    }
    if (!binary)
        t['\r'] = t['\n'] = kLineEnd;
    return t;
}
constexpr auto kTextClasses = make_classes(false);
constexpr auto kBinaryClasses = make_classes(true);

constexpr std::array<int8_t, 256> kHexValue = [] {
    std::array<int8_t, 256> t{};
    for (auto &v : t)
        v = -1;
    for (int i = 0; i < 10; ++i)
        t['0' + i] = static_cast<int8_t>(i);
    for (int i = 0; i < 6; ++i)
        t['A' + i] = t['a' + i] = static_cast<int8_t>(10 + i);
    return t;
}();

inline bool is_blank(char c) { return c == ' ' || c == '\t'; }

inline char *put_escape(char *o, unsigned char c) {
    o[0] = '=';
    o[1] = kHex[c >> 4];
    o[2] = kHex[c & 15];
    return o + 3;
}

// A literal blank already in the output becomes its escape in place, so
// that no line ends in white space that a transport may strip.
inline char *escape_last_blank(char *o) {
    const auto c = static_cast<unsigned char>(o[-1]);
    return put_escape(o - 1, c);
}

// ---- Encoding -----------------------------------------------------------

int32_t encode_file(const std::string &source_path, const std::string &target_path) {
    BusyFlag busy(run_state().mime_encoder_busy);
    if (!busy.taken())
        return -1;
    const auto &classes = quoted_file_is_binary(source_path) ? kBinaryClasses : kTextClasses;
    File source = File::open(source_path, OpenMode::ReadShared);
    if (!source)
        return -1;
    File target = codec::open_append_target(target_path);
    if (!target)
        return -1;
    auto in = codec::work_buffer<unsigned char>(kEncodeInBlock);
    auto out = codec::work_buffer<char>(codec::kEncodeOutBlock);
    char *const start = out.get();
    char *o = start;
    int column = 0;
    for (;;) {
        const long long got = source.read_full(in.get(), kEncodeInBlock);
        if (got <= 0)
            break;
        for (const unsigned char *p = in.get(), *end = p + got; p < end; ++p) {
            const unsigned char c = *p;
            switch (classes[c]) {
            case kLineEnd:
                if (o > start && is_blank(o[-1]))
                    o = escape_last_blank(o);
                *o++ = static_cast<char>(c);
                column = 0;
                continue;
            case kLiteral:
                *o++ = static_cast<char>(c);
                ++column;
                break;
            case kEscape:
                o = put_escape(o, c);
                column += 3;
                break;
            }
            if (column > kSoftBreakAfter) {
                std::memcpy(o, "=\r\n", 3);
                o += 3;
                column = 0;
            }
        }
        // The last byte stays behind: if it is a blank and the next block
        // begins with a line end, it must still become an escape.
        const auto ready = static_cast<std::size_t>(o - start - 1);
        if (!target.write_all(start, ready))
            return -1;
        start[0] = o[-1];
        o = start + 1;
    }
    if (column > 0) {
        if (is_blank(o[-1])) {
            o = escape_last_blank(o);
            column += 2;
        }
        if (column > kSoftBreakAfter) {
            std::memcpy(o, "=\r\n", 3);
            o += 3;
        }
    }
    if (!target.write_all(start, static_cast<std::size_t>(o - start)))
        return -1;
    return 1;
}

// ---- Decoding -----------------------------------------------------------

// Decodes one line of at most 255 bytes, its line end included, behind
// what the block holds.
void decode_line(const char *line, std::size_t n, DecodeBlock &block) {
    auto *o = reinterpret_cast<char *>(block.end());
    std::size_t i = 0;
    while (i < n) {
        const auto *eq = static_cast<const char *>(std::memchr(line + i, '=', n - i));
        const std::size_t run = eq != nullptr ? static_cast<std::size_t>(eq - line) - i : n - i;
        std::memcpy(o, line + i, run);
        o += run;
        i += run;
        if (eq == nullptr)
            break;
        if (i + 1 < n && codec::is_line_end(line[i + 1])) {
            i += 3; // soft break: "=", the line-end byte and the one behind it
            continue;
        }
        if (i + 2 < n) {
            const int hi = kHexValue[static_cast<unsigned char>(line[i + 1])];
            const int lo = kHexValue[static_cast<unsigned char>(line[i + 2])];
            if (hi >= 0 && lo >= 0)
                *o++ = static_cast<char>(hi << 4 | lo);
        }
        // A broken escape goes with the two bytes behind it, unreported.
        i += 3;
    }
    block.set_end(reinterpret_cast<unsigned char *>(o));
}

// `boundary` null: the file form, which reads to the end and keeps every
// byte it decodes.
int32_t decode_lines(LineInput &in, File &target, const std::string_view *boundary) {
    DecodeBlock block;
    char line[codec::kLineSize];
    bool written = false;
    bool written_block_ends_in_line_end = false;
    for (;;) {
        const long long line_start = in.position();
        const std::size_t n = in.read(line, sizeof line);
        if (n == 0)
            break;
        if (boundary != nullptr && codec::starts_with(line, n, *boundary)) {
            in.rewind_to(line_start);
            // The line end in front of a boundary belongs to the boundary.
            // If the block holding it has just gone out, take it back off
            // the file.
            if (block.size() == 0 && written && written_block_ends_in_line_end) {
                const long long size = target.size();
                if (size >= 2)
                    target.truncate(size - 2);
            }
            break;
        }
        decode_line(line, n, block);
        if (block.full()) {
            written_block_ends_in_line_end = codec::is_line_end(static_cast<char>(block.end()[-2]));
            if (!block.flush(target))
                return 0;
            written = true;
        }
    }
    if (boundary != nullptr && block.size() >= 2 &&
        codec::is_line_end(static_cast<char>(block.end()[-2])))
        block.drop_last(2);
    return block.flush(target) ? 1 : 0;
}

int32_t decode_file(const std::string &source_path, const std::string &target_path) {
    return codec::decode_from_file(source_path, [&](LineInput &in) {
        File target = codec::open_append_target(target_path);
        return target ? decode_lines(in, target, nullptr) : 0;
    });
}

} // namespace

int32_t quoted_file_is_binary(const std::string &path) {
    File file = File::open(path, OpenMode::ReadShared);
    if (!file)
        return 0;
    auto block = codec::work_buffer<unsigned char>(kScanBlock);
    for (;;) {
        const long long got = file.read_full(block.get(), kScanBlock);
        if (got <= 0)
            return 0;
        for (long long i = 0; i < got; ++i)
            if (!is_text_byte(block[static_cast<std::size_t>(i)]))
                return 1;
    }
}

int32_t quoted_decode_stream(Stream &stream, const std::string &target_path,
                             std::string_view boundary) {
    BusyFlag busy(run_state().mime_decoder_busy);
    if (!busy.taken())
        return 0;
    File target = codec::open_append_target(target_path);
    if (!target)
        return 0;
    LineInput in(stream);
    return decode_lines(in, target, &boundary);
}

} // namespace tw

extern "C" TARNWICK_API int32_t quoted_encode(const char *source_path, const char *target_path) {
    return tw::guarded(-1, [&] {
        return tw::encode_file(tw::codec::path_arg(source_path), tw::codec::path_arg(target_path));
    });
}

extern "C" TARNWICK_API int32_t quoted_decode(const char *source_path, const char *target_path) {
    return tw::guarded(0, [&] {
        return tw::decode_file(tw::codec::path_arg(source_path), tw::codec::path_arg(target_path));
    });
}
