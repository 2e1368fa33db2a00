// Base64, file to file and on an open message stream. Lines are 72
// characters; the decoders take foreign characters as the value 63 rather
// than skipping them, and stop at a padded group.
#include <algorithm>
#include <array>
#include <cstring>

#include "encodings/base64_table.h"
#include "encodings/codec_io.h"
#include "encodings/encodings.h"

namespace tw {

namespace {

using codec::DecodeBlock;
using codec::LineInput;

constexpr std::size_t kLineBytes = 54;                   // 72 characters
constexpr std::size_t kEncodeInBlock = 256 * kLineBytes; // whole lines only
constexpr std::size_t kLineLimit = 78;

constexpr codec::PairTable kPairs = codec::make_pair_table(base64_alphabet);

// ---- Encoding -----------------------------------------------------------

char *encode_line(const unsigned char *in, std::size_t n, char *out) {
    const std::size_t groups = n / 3;
    out = codec::encode_groups(kPairs, in, groups, out);
    in += groups * 3;
    const std::size_t rest = n - groups * 3;
    if (rest > 0) {
        const unsigned b0 = in[0];
        const unsigned b1 = rest == 2 ? in[1] : 0;
        out[0] = base64_alphabet[b0 >> 2];
        out[1] = base64_alphabet[(b0 & 3) << 4 | b1 >> 4];
        out[2] = rest == 2 ? base64_alphabet[(b1 & 15) << 2] : base64_pad;
        out[3] = base64_pad;
        out += 4;
    }
    *out++ = '\r';
    *out++ = '\n';
    return out;
}

int32_t encode_file(const std::string &source_path, const std::string &target_path) {
    BusyFlag busy(run_state().mime_encoder_busy);
    if (!busy.taken())
        return -1;
    File source = File::open(source_path, OpenMode::ReadShared);
    if (!source)
        return -1;
    // No target: only count the lines the text would have.
    const bool counting = target_path.empty();
    File target;
    if (!counting) {
        target = codec::open_append_target(target_path);
        if (!target)
            return -1;
    }
    const int64_t lines = codec::encode_lines<kLineBytes, kEncodeInBlock>(
        source, counting ? nullptr : &target, encode_line);
    return static_cast<int32_t>(lines);
}

// ---- Decoding -----------------------------------------------------------

// At most 77 data characters pass: a 79-byte line only when its last two
// bytes are both line-end bytes.
bool length_ok(const char *line, std::size_t n) {
    if (n <= kLineLimit)
        return true;
    return n == kLineLimit + 1 && codec::is_line_end(line[77]) && codec::is_line_end(line[78]);
}

inline unsigned value(unsigned char c) { return base64_value_table[c]; }

// Each character's value already moved to its place in the 24 bits of a
// group, so that a whole group is four lookups and three or-s.
constexpr auto kPlaced = [] {
    std::array<std::array<uint32_t, 256>, 4> t{};
    for (unsigned place = 0; place < 4; ++place)
        for (unsigned c = 0; c < 256; ++c)
            t[place][c] = base64_value(static_cast<unsigned char>(c)) << (18 - 6 * place);
    return t;
}();

// Writes the bytes of one group whose first `have` places are filled. A
// place that stayed empty ends the group, as the end of the input does.
// True when the group was padded.
bool decode_group(const unsigned char g[4], std::size_t have, unsigned char *&o) {
    if (have < 2)
        return false;
    const unsigned a = value(g[0]), b = value(g[1]);
    *o++ = static_cast<unsigned char>(a << 2 | b >> 4);
    if (have < 3)
        return false;
    if (g[2] == base64_pad)
        return true;
    const unsigned c = value(g[2]);
    *o++ = static_cast<unsigned char>((b & 15) << 4 | c >> 2);
    if (have < 4)
        return false;
    if (g[3] == base64_pad)
        return true;
    *o++ = static_cast<unsigned char>((c & 3) << 6 | value(g[3]));
    return false;
}

// Decodes one line, already cut at its line end. A group that the line end
// cuts short is completed from the input behind the line. True when the line
// brought a padding stop.
bool decode_line(const unsigned char *p, std::size_t len, LineInput &in, DecodeBlock &block) {
    unsigned char *o = block.end();
    const unsigned char *whole_end = p + (len & ~std::size_t{3});
    bool padded = false;
    if (std::memchr(p, base64_pad, len) == nullptr) {
        for (; p < whole_end; p += 4, o += 3) {
            const uint32_t v =
                kPlaced[0][p[0]] | kPlaced[1][p[1]] | kPlaced[2][p[2]] | kPlaced[3][p[3]];
            o[0] = static_cast<unsigned char>(v >> 16);
            o[1] = static_cast<unsigned char>(v >> 8);
            o[2] = static_cast<unsigned char>(v);
        }
    } else {
        for (; p < whole_end && !padded; p += 4)
            padded = decode_group(p, 4, o);
    }
    const std::size_t k = padded ? 0 : len & 3;
    if (k > 0) {
        unsigned char g[4] = {};
        std::memcpy(g, p, k);
        if (k == 3 && g[2] == base64_pad) {
            // Padding already on the line: nothing is read to complete it.
            padded = decode_group(g, 3, o);
        } else {
            char more[4];
            const std::size_t got = in.read(more, 4 - k + 1);
            std::memcpy(g + k, more, got);
            padded = decode_group(g, k + got, o);
        }
    }
    block.set_end(o);
    return padded;
}

int32_t decode_lines(LineInput &in, File &target, const char *boundary, bool stream_form) {
    DecodeBlock block;
    char line[codec::kLineSize];
    const std::string_view mark = boundary != nullptr ? boundary : "";
    for (;;) {
        const long long line_start = in.position();
        const std::size_t n = in.read(line, sizeof line);
        if (n == 0)
            break;
        if (!length_ok(line, n))
            return 0;
        if (boundary != nullptr && codec::starts_with(line, n, mark)) {
            in.rewind_to(line_start);
            break;
        }
        // A line read ends behind its first LF, so only a CR can come earlier.
        std::size_t len = line[n - 1] == '\n' ? n - 1 : n;
        if (const void *cr = std::memchr(line, '\r', len); cr != nullptr)
            len = static_cast<std::size_t>(static_cast<const char *>(cr) - line);
        const bool padded =
            decode_line(reinterpret_cast<const unsigned char *>(line), len, in, block);
        if (block.full() && !block.flush(target))
            return 0;
        if (!padded)
            continue;
        if (!stream_form)
            break;
        // In a message a padded group ends the part only when a blank line
        // follows; otherwise another Base64 section goes into the same file.
        const long long after = in.position();
        const std::size_t m = in.read(line, sizeof line);
        if (m == 0 || is_blank_line(line))
            break;
        in.rewind_to(after);
    }
    return block.flush(target) ? 1 : 0;
}

int32_t decode_file(const std::string &source_path, const std::string &target_path) {
    return codec::decode_from_file(source_path, [&](LineInput &in) {
        File target = codec::open_append_target(target_path);
        return target ? decode_lines(in, target, nullptr, false) : 0;
    });
}

} // namespace

int32_t base64_decode_stream(Stream &stream, const std::string &target_path, const char *boundary) {
    BusyFlag busy(run_state().mime_decoder_busy);
    if (!busy.taken())
        return 0;
    File target = codec::open_append_target(target_path);
    if (!target)
        return 0;
    LineInput in(stream);
    return decode_lines(in, target, boundary, true);
}

} // namespace tw

extern "C" TARNWICK_API int32_t base64_encode(const char *source_path, const char *target_path) {
    return tw::guarded(-1, [&] {
        return tw::encode_file(tw::codec::path_arg(source_path), tw::codec::path_arg(target_path));
    });
}

extern "C" TARNWICK_API int32_t base64_decode(const char *source_path, const char *target_path) {
    return tw::guarded(0, [&] {
        return tw::decode_file(tw::codec::path_arg(source_path), tw::codec::path_arg(target_path));
    });
}
