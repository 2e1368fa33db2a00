// Uuencode, file to file and on an open message stream. The value 0 is
// written as a backquote, never as a blank, because blanks at line ends do
// not survive every mail transport. The decoders replace their target and
// remove it again when they fail.
#include <algorithm>
#include <cstring>

#include "encodings/codec_io.h"
#include "encodings/encodings.h"

namespace tw {

namespace {

using codec::DecodeBlock;
using codec::LineInput;

constexpr std::size_t kLineBytes = 45;
constexpr std::size_t kEncodeInBlock = 265 * kLineBytes; // whole lines only
constexpr std::size_t kNameSize = 256;

constexpr char kAlphabet[65] = "`!\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_";
constexpr codec::PairTable kPairs = codec::make_pair_table(kAlphabet);

// A backquote and a blank both decode to 0.
inline unsigned value(unsigned char c) { return static_cast<unsigned>(c - 32) & 63; }

// ---- Encoding -----------------------------------------------------------

char *encode_line(const unsigned char *in, std::size_t n, char *out) {
    *out++ = kAlphabet[n];
    const std::size_t groups = n / 3;
    out = codec::encode_groups(kPairs, in, groups, out);
    if (const std::size_t rest = n - groups * 3; rest > 0) {
        unsigned char last[3] = {}; // the group is filled out with zero bytes
        std::memcpy(last, in + groups * 3, rest);
        out = codec::encode_groups(kPairs, last, 1, out);
    }
    *out++ = '\r';
    *out++ = '\n';
    return out;
}

int32_t encode_file(const std::string &source_path, const std::string &target_path,
                    const char *name) {
    BusyFlag busy(run_state().mime_encoder_busy);
    if (!busy.taken())
        return -1;
    File source = File::open(source_path, OpenMode::ReadShared);
    if (!source)
        return -1;
    const bool counting = target_path.empty();
    File target;
    if (!counting) {
        target = codec::open_append_target(target_path);
        if (!target)
            return -1;
        // Two empty lines keep the block apart from whatever stands before
        // it; their fate does not decide the result.
        (void)target.write_all("\r\n\r\n");
    }
    if (!counting) {
        const std::string begin = "begin 644 " + std::string(name != nullptr ? name : "") + "\r\n";
        if (!target.write_all(begin))
            return -1;
    }
    const int64_t lines = codec::encode_lines<kLineBytes, kEncodeInBlock>(
        source, counting ? nullptr : &target, encode_line);
    if (lines < 0 || (!counting && (!target.write_all("`\r\n") || !target.write_all("end\r\n"))))
        return -1;
    // The begin line, the empty line and the end line count too.
    return static_cast<int32_t>(lines + 3);
}

// ---- Decoding -----------------------------------------------------------

// Looks for a line whose first 'b' starts the word "begin" and takes the
// name from it: behind the word, blanks, the mode, blanks, then the rest of
// the line without the blanks and line end at its close.
bool find_begin(LineInput &in, char *name_out) {
    char line[codec::kLineSize];
    for (;;) {
        const std::size_t n = in.read(line, sizeof line);
        if (n == 0)
            return false;
        const auto *b = static_cast<const char *>(std::memchr(line, 'b', n));
        if (b == nullptr)
            continue;
        std::size_t i = static_cast<std::size_t>(b - line);
        if (n - i < 5 || std::memcmp(b, "begin", 5) != 0)
            continue;
        i += 5;
        while (i < n && line[i] == ' ')
            ++i;
        while (i < n && line[i] != ' ')
            ++i;
        while (i < n && line[i] == ' ')
            ++i;
        std::size_t end = n;
        while (end > i && (codec::is_line_end(line[end - 1]) || line[end - 1] == ' '))
            --end;
        copy_bounded(name_out, kNameSize, std::string_view(line + i, end - i));
        return true;
    }
}

// Decodes data lines up to the line of count 0 or the end of the input.
bool decode_body(LineInput &in, File &target) {
    DecodeBlock block;
    // Room behind the longest line read for the places a short line lacks.
    constexpr std::size_t kLongestData = 1 + 4 * 21;
    unsigned char line[codec::kLineSize + kLongestData];
    for (;;) {
        const std::size_t n = in.read(reinterpret_cast<char *>(line), codec::kLineSize);
        if (n == 0)
            break;
        const unsigned count = value(line[0]);
        if (count == 0)
            break;
        // Nothing compares the line with its count; places that it lacks
        // decode as 0.
        const std::size_t needed = 1 + 4 * ((count + 2) / 3);
        if (n < needed)
            std::memset(line + n, '`', needed - n);
        unsigned char *o = block.end();
        const unsigned char *p = line + 1;
        for (unsigned whole = count / 3; whole > 0; --whole, p += 4, o += 3) {
            const unsigned a = value(p[0]), b = value(p[1]), c = value(p[2]), d = value(p[3]);
            o[0] = static_cast<unsigned char>(a << 2 | b >> 4);
            o[1] = static_cast<unsigned char>(b << 4 | c >> 2);
            o[2] = static_cast<unsigned char>(c << 6 | d);
        }
        if (const unsigned rest = count % 3; rest > 0) {
            const unsigned a = value(p[0]), b = value(p[1]), c = value(p[2]);
            *o++ = static_cast<unsigned char>(a << 2 | b >> 4);
            if (rest == 2)
                *o++ = static_cast<unsigned char>(b << 4 | c >> 2);
        }
        block.set_end(o);
        if (block.full() && !block.flush(target))
            return false;
    }
    return block.flush(target);
}

int32_t decode_into(LineInput &in, const std::string &target_path, char *name_out) {
    if (target_path.empty())
        return 0;
    File target = File::open(target_path, OpenMode::Create);
    if (!target)
        return 0;
    char name[kNameSize];
    const bool ok = find_begin(in, name) && decode_body(in, target);
    target.close();
    if (!ok) {
        remove_file(target_path);
        return 0;
    }
    if (name_out != nullptr)
        std::memcpy(name_out, name, std::strlen(name) + 1);
    return 1;
}

int32_t decode_file(const std::string &source_path, const std::string &target_path,
                    char *name_out) {
    if (source_path.empty() || target_path.empty())
        return 0;
    return codec::decode_from_file(
        source_path, [&](LineInput &in) { return decode_into(in, target_path, name_out); });
}

} // namespace

int32_t uudecode_stream(Stream &stream, const std::string &target_path, char *name_out) {
    BusyFlag busy(run_state().mime_decoder_busy);
    if (!busy.taken())
        return 0;
    LineInput in(stream);
    return decode_into(in, target_path, name_out);
}

} // namespace tw

extern "C" TARNWICK_API int32_t uuencode(const char *source_path, const char *target_path,
                                         const char *name) {
    return tw::guarded(-1, [&] {
        return tw::encode_file(tw::codec::path_arg(source_path), tw::codec::path_arg(target_path),
                               name);
    });
}

extern "C" TARNWICK_API int32_t uudecode(const char *source_path, const char *target_path,
                                         char *name_out) {
    return tw::guarded(0, [&] {
        return tw::decode_file(tw::codec::path_arg(source_path), tw::codec::path_arg(target_path),
                               name_out);
    });
}
