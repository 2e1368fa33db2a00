// What the codecs of this folder share: how a target is opened for
// appending, the block of decoded bytes that waits to be written, the line
// input with its counted position, and the table-driven 3-to-4 group writer.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "frame/frame.h"

namespace tw::codec {

// Every decoder reads bounded lines: at most 255 bytes and the NUL.
inline constexpr std::size_t kLineSize = 256;
// Decoded bytes are collected up to this block and written once more than
// kFlushAbove wait, so that one line more always fits behind them.
inline constexpr std::size_t kDecodeBlock = 13824;
inline constexpr std::size_t kFlushAbove = 13568;
// The encoders assemble each input block's text here before one write.
inline constexpr std::size_t kEncodeOutBlock = 40000;

inline bool is_line_end(char c) { return c == '\r' || c == '\n'; }

// A path argument of an export: null and "" both mean "not given".
inline std::string path_arg(const char *path) { return path == nullptr ? std::string() : path; }

// The encoders and the appending decoders never truncate: an existing target
// keeps what it holds and gets the new text behind it.
inline File open_append_target(const std::string &path) {
    File file = File::open(path, OpenMode::WriteExisting);
    if (!file)
        file = File::open(path, OpenMode::Create);
    // A target that cannot seek (a pipe) is written as it stands.
    if (file)
        file.seek_end();
    return file;
}

// Buffers live for one call; they are filled before they are read, so
// there is no point in zeroing them.
template <typename T> std::unique_ptr<T[]> work_buffer(std::size_t size) {
    return std::make_unique_for_overwrite<T[]>(size);
}

// Decoded bytes waiting to be written to the target.
class DecodeBlock {
public:
    DecodeBlock() : data_(work_buffer<unsigned char>(kDecodeBlock)) {}

    unsigned char *begin() { return data_.get(); }
    unsigned char *end() { return data_.get() + size_; }
    std::size_t size() const { return size_; }
    // The decoders write through end() and then say where they stopped.
    void set_end(unsigned char *end) { size_ = static_cast<std::size_t>(end - data_.get()); }
    void drop_last(std::size_t n) { size_ -= n; }

    bool full() const { return size_ > kFlushAbove; }
    // Writes all that waits; the block is empty afterwards either way.
    bool flush(File &target) {
        const bool ok = size_ == 0 || target.write_all(data_.get(), size_);
        size_ = 0;
        return ok;
    }

private:
    std::unique_ptr<unsigned char[]> data_;
    std::size_t size_ = 0;
};

// A stream read in bounded lines. The position is counted, not asked for:
// during a decoding only this reader moves the stream, and each read reports
// its exact length, so the count stays exact without a tell per line.
class LineInput {
public:
    explicit LineInput(Stream &stream) : stream_(stream), position_(stream.tell()) {}

    // As fgets: up to size-1 bytes or through the first LF; 0 at the end.
    std::size_t read(char *buffer, std::size_t size) {
        const std::size_t n = stream_.read_line(buffer, size);
        position_ += static_cast<long long>(n);
        return n;
    }
    long long position() const { return position_; }
    void rewind_to(long long position) {
        stream_.seek(position);
        position_ = position;
    }

private:
    Stream &stream_;
    long long position_;
};

// The loop of the line encoders: reads whole blocks of `InBlock` source
// bytes, turns each `LineBytes` of them into a line through
// `encode_line(in, n, out)` (which gives the end of what it wrote) and writes
// a block's text at once. Without a target only the lines are counted. The
// lines, or -1 when a write failed; a failed read ends the source like its
// end does.
template <std::size_t LineBytes, std::size_t InBlock, typename EncodeLine>
int64_t encode_lines(File &source, File *target, EncodeLine encode_line) {
    static_assert(InBlock % LineBytes == 0, "blocks hold whole lines only");
    auto in = work_buffer<unsigned char>(InBlock);
    auto out = work_buffer<char>(kEncodeOutBlock);
    int64_t lines = 0;
    for (;;) {
        const long long got = source.read_full(in.get(), InBlock);
        if (got <= 0)
            return lines;
        const auto n = static_cast<std::size_t>(got);
        if (target == nullptr) {
            lines += static_cast<int64_t>((n + LineBytes - 1) / LineBytes);
            continue;
        }
        char *o = out.get();
        for (std::size_t at = 0; at < n; at += LineBytes, ++lines)
            o = encode_line(in.get() + at, std::min(LineBytes, n - at), o);
        if (!target->write_all(out.get(), static_cast<std::size_t>(o - out.get())))
            return -1;
    }
}

// A file-to-file decoding under the decoders' busy flag: `decode(in)` reads
// the source through `in`. 0 when the decoder is busy or the source cannot
// be read, else what `decode` gives.
template <typename Decode>
int32_t decode_from_file(const std::string &source_path, Decode decode) {
    BusyFlag busy(run_state().mime_decoder_busy);
    if (!busy.taken())
        return 0;
    Stream source = Stream::open_read(source_path);
    if (!source)
        return 0;
    LineInput in(source);
    return decode(in);
}

inline bool starts_with(const char *line, std::size_t length, std::string_view prefix) {
    return length >= prefix.size() && std::memcmp(line, prefix.data(), prefix.size()) == 0;
}

// The two characters of every 12-bit value, so that a 3-byte group costs two
// lookups instead of four shifts and lookups.
using PairTable = std::array<std::array<char, 2>, 4096>;

constexpr PairTable make_pair_table(const char *alphabet) {
    PairTable table{};
    for (std::size_t v = 0; v < 4096; ++v)
        table[v] = {alphabet[v >> 6], alphabet[v & 63]};
    return table;
}

// Writes `groups` whole 3-byte groups as 4 characters each; gives the end.
inline char *encode_groups(const PairTable &table, const unsigned char *in, std::size_t groups,
                           char *out) {
    for (std::size_t g = 0; g < groups; ++g, in += 3, out += 4) {
        const uint32_t v = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
        std::memcpy(out, table[v >> 12].data(), 2);
        std::memcpy(out + 2, table[v & 0xFFF].data(), 2);
    }
    return out;
}

} // namespace tw::codec
