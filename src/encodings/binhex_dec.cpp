// BinHex 4.0 decoder. The data fork is appended to the target, the resource
// fork goes to a "$$$" file beside it whose path the caller gets. The first
// non-blank line must be the banner; beyond that only the forks' CRCs are
// checked. The core reads bounded lines from any source, so that the file
// export, a FILE * and the walkers' Stream share it.
#include <algorithm>
#include <cstring>
#include <memory>

#include "encodings/binhex_format.h"
#include "encodings/codec_io.h"
#include "encodings/encodings.h"

namespace tw {

namespace {

using binhex::binhex_crc_update;
using binhex::kMarker;

// Decoded fork bytes wait here; they are written once more than kDrainAbove
// have collected, so memory stays flat whatever length a header claims.
constexpr std::size_t kDecodedBlock = 40000;
constexpr std::size_t kDrainAbove = 30000;
constexpr unsigned char kNoValue = 0xFF;

constexpr std::array<unsigned char, 256> kValues = [] {
    std::array<unsigned char, 256> t{};
    t.fill(kNoValue);
    for (unsigned v = 0; v < 64; ++v)
        t[static_cast<unsigned char>(binhex::kAlphabet[v])] = static_cast<unsigned char>(v);
    return t;
}();

// A character outside the alphabet is not refused: it counts as 63, and
// the CRC of a fork finds it.
inline unsigned value_of(unsigned char c) { return kValues[c] & 63; }

uint32_t get_be32(const unsigned char *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

enum class Stage { Header, Data, DataCrc, Resource, ResourceCrc, Done };

class Decoder {
public:
    Decoder(File &target, const std::string &directory, binhex_info &info)
        : target_(target), directory_(directory), info_(info),
          block_(codec::work_buffer<unsigned char>(kDecodedBlock)) {}

    // Takes the characters of one line (its ':'s already out of the way).
    // False when the decoding must stop: a CRC differs, a write failed, or
    // a header announcing no fork at all has been read.
    bool take(const unsigned char *chars, std::size_t n) {
        for (std::size_t i = 0; i < n;) {
            if (group_size_ == 0 && !marker_pending_ &&
                (stage_ == Stage::Data || stage_ == Stage::Resource)) {
                i = take_plain_groups(chars, n, i);
                if (i == n)
                    break;
            }
            group_[group_size_++] = value_of(chars[i++]);
            if (group_size_ == 4 && !binhex_decode_group())
                return false;
        }
        return true;
    }

    // At the end of the input: a started group is completed with zeros, and
    // the result is given. Only the banner, or nothing at all, is no error;
    // a header or fork still short of its length is, whatever bytes would
    // stand where its CRC belongs.
    int32_t finish() {
        if (!failed_ && stage_ != Stage::Done && group_size_ != 0) {
            while (group_size_ < 4)
                group_[group_size_++] = 0;
            binhex_decode_group();
        }
        if (failed_)
            return 0;
        if (stage_ == Stage::Header)
            return used_ == 0 ? 1 : 0;
        return stage_ == Stage::Done ? 1 : 0;
    }

    bool has_resource() const { return resource_length_ > 0; }
    // The resource fork's file, handed out only after a success.
    TempFile &resource_file() { return resource_path_; }

private:
    // Four 6-bit values make three bytes; each goes through the run stage.
    bool binhex_decode_group() {
        group_size_ = 0;
        const unsigned a = group_[0], b = group_[1], c = group_[2], d = group_[3];
        return binhex_expand_run(static_cast<unsigned char>(a << 2 | b >> 4)) &&
               binhex_expand_run(static_cast<unsigned char>((b & 15) << 4 | c >> 2)) &&
               binhex_expand_run(static_cast<unsigned char>((c & 3) << 6 | d));
    }

    // The common case inside a fork, whole groups without a marker, goes
    // straight to the block; anything else (a marker, the fork's end, a
    // drain due) is left to the byte-wise road. The index behind the groups
    // taken.
    std::size_t take_plain_groups(const unsigned char *chars, std::size_t n, std::size_t i) {
        uint32_t &left = stage_ == Stage::Data ? data_left_ : resource_left_;
        unsigned char *block = block_.get();
        for (; i + 4 <= n && left > 3 && used_ + 3 <= kDrainAbove; i += 4) {
            const unsigned v = value_of(chars[i]) << 18 | value_of(chars[i + 1]) << 12 |
                               value_of(chars[i + 2]) << 6 | value_of(chars[i + 3]);
            const auto b0 = static_cast<unsigned char>(v >> 16);
            const auto b1 = static_cast<unsigned char>(v >> 8);
            const auto b2 = static_cast<unsigned char>(v);
            if (b0 == kMarker || b1 == kMarker || b2 == kMarker)
                break;
            block[used_] = b0;
            block[used_ + 1] = b1;
            block[used_ + 2] = b2;
            used_ += 3;
            left -= 3;
            previous_ = b2;
            has_previous_ = true;
        }
        return i;
    }

    // A 0x90 is a marker; the byte behind it is 0 for a plain 0x90, else the
    // length of a run of the byte before the marker. A count with no byte
    // before it adds nothing. The previous byte is kept here rather than
    // looked up in the buffer, so a run that began in the header's CRC goes
    // on into the data fork though the header has left the buffer.
    bool binhex_expand_run(unsigned char byte) {
        if (!marker_pending_) {
            if (byte == kMarker) {
                marker_pending_ = true;
                return true;
            }
            previous_ = byte;
            has_previous_ = true;
            return put(byte);
        }
        marker_pending_ = false;
        if (byte == 0) {
            previous_ = kMarker;
            has_previous_ = true;
            return put(kMarker);
        }
        if (!has_previous_)
            return true;
        for (unsigned k = 1; k < byte; ++k)
            if (!put(previous_))
                return false;
        return true;
    }

    // One decoded byte to the stage it belongs to.
    bool put(unsigned char byte) {
        switch (stage_) {
        case Stage::Header:
            return binhex_take_header(byte);
        case Stage::Data:
            return put_fork_byte(byte, data_left_, target_, Stage::DataCrc);
        case Stage::DataCrc:
            if (!take_crc(byte, data_length_ > 0))
                return false;
            if (crc_used_ == 0)
                stage_ = resource_left_ > 0 ? Stage::Resource : Stage::Done;
            return true;
        case Stage::Resource:
            return put_fork_byte(byte, resource_left_, resource_, Stage::ResourceCrc);
        case Stage::ResourceCrc:
            if (!take_crc(byte, true))
                return false;
            if (crc_used_ == 0)
                stage_ = Stage::Done;
            return true;
        case Stage::Done:
            break; // the encoder's zero filling and anything else behind the forks
        }
        return true;
    }

    // The header is complete when one byte behind it is there; the length
    // byte of the name is unsigned.
    bool binhex_take_header(unsigned char byte) {
        if (used_ == 0 || used_ < block_[0] + binhex::kHeaderFixed) {
            block_[used_++] = byte;
            return true;
        }
        if (!binhex_parse_header())
            return false;
        if (data_left_ == 0 && resource_left_ == 0) {
            stage_ = Stage::Done;
            return false;
        }
        stage_ = data_left_ > 0 ? Stage::Data : Stage::DataCrc;
        return put(byte);
    }

    bool binhex_parse_header() {
        const unsigned char *h = block_.get();
        const std::size_t n = h[0];
        std::memset(&info_, 0, sizeof info_);
        std::memcpy(info_.name, h + 1, n);
        std::memcpy(info_.file_type, h + n + 2, 4);
        std::memcpy(info_.creator, h + n + 6, 4);
        data_length_ = data_left_ = get_be32(h + n + 12);
        resource_length_ = resource_left_ = get_be32(h + n + 16);
        used_ = 0;
        if (resource_length_ == 0)
            return true;
        // The resource fork's file is made only when there is a fork for it.
        resource_path_.reset(mime_make_temp(directory_));
        resource_ = resource_path_.empty() ? File()
                                           : File::open(resource_path_.path(), OpenMode::Create);
        failed_ = !resource_;
        return !failed_;
    }

    bool put_fork_byte(unsigned char byte, uint32_t &left, File &file, Stage next) {
        block_[used_++] = byte;
        if (--left == 0) {
            if (!binhex_drain_fork(file))
                return false;
            stage_ = next;
            return true;
        }
        return used_ <= kDrainAbove || binhex_drain_fork(file);
    }

    // Writes the waiting fork bytes and adds them to the fork's CRC.
    bool binhex_drain_fork(File &file) {
        for (std::size_t i = 0; i < used_; ++i)
            binhex_crc_update(block_[i], &fork_crc_);
        const bool ok = file.write_all(block_.get(), used_);
        used_ = 0;
        failed_ = !ok;
        return ok;
    }

    // Collects the two CRC bytes behind a fork; compares them if `check`.
    bool take_crc(unsigned char byte, bool check) {
        crc_[crc_used_++] = byte;
        if (crc_used_ < 2)
            return true;
        crc_used_ = 0;
        const bool ok = !check || binhex_check_crc();
        fork_crc_ = 0;
        failed_ = !ok;
        return ok;
    }

    bool binhex_check_crc() const {
        const uint16_t crc = binhex::binhex_crc_finish(fork_crc_);
        return crc_[0] == (crc >> 8) && crc_[1] == (crc & 0xFF);
    }

    File &target_;
    const std::string &directory_;
    binhex_info &info_;
    TempFile resource_path_;
    File resource_;
    std::unique_ptr<unsigned char[]> block_;
    std::size_t used_ = 0;
    Stage stage_ = Stage::Header;
    uint32_t data_length_ = 0, resource_length_ = 0;
    uint32_t data_left_ = 0, resource_left_ = 0;
    uint32_t fork_crc_ = 0;
    unsigned char crc_[2] = {};
    unsigned crc_used_ = 0;
    unsigned char group_[4] = {};
    unsigned group_size_ = 0;
    bool marker_pending_ = false;
    unsigned char previous_ = 0;
    bool has_previous_ = false;
    bool failed_ = false;
};

// The line as text: it ends at its first CR, LF or NUL.
std::size_t text_length(const char *line, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (line[i] == '\r' || line[i] == '\n' || line[i] == '\0')
            return i;
    return n;
}

bool is_banner(const char *line, std::size_t n) {
    return equals_nocase(std::string_view(line, n), binhex::kBanner);
}

// Feeds the characters of a line to the decoder, leaving out every ':'.
bool take_line(Decoder &decoder, const char *line, std::size_t n) {
    const auto *p = reinterpret_cast<const unsigned char *>(line);
    const auto *end = p + n;
    while (p < end) {
        const auto *colon = static_cast<const unsigned char *>(std::memchr(p, ':', end - p));
        const auto *stop = colon != nullptr ? colon : end;
        if (!decoder.take(p, static_cast<std::size_t>(stop - p)))
            return false;
        p = colon != nullptr ? colon + 1 : end;
    }
    return true;
}

} // namespace

int32_t binhex_decode_lines(const BinhexLineSource &source, const std::string &target_path,
                            char *second_path, binhex_info *info) {
    if (second_path != nullptr)
        second_path[0] = '\0';
    binhex_info scratch;
    binhex_info &out = info != nullptr ? *info : scratch;
    std::memset(&out, 0, sizeof out);
    const std::string full = mime_full_path(target_path);
    if (full.empty())
        return 0;
    File target = codec::open_append_target(full);
    if (!target)
        return 0;
    const std::string directory = mime_directory_of(full);
    Decoder decoder(target, directory, out);

    char line[codec::kLineSize];
    bool banner_pending = true, at_end = false;
    while (!at_end) {
        const std::size_t got = source.read_line(source.context, line, sizeof line);
        if (got == 0)
            break;
        if (banner_pending && is_blank_line(line))
            continue;
        const std::size_t n = text_length(line, got);
        if (banner_pending) {
            if (!is_banner(line, n))
                return 0; // the "$$$" file was never made
            banner_pending = false;
            continue;
        }
        at_end = n > 0 && line[n - 1] == ':';
        // A header that announces no fork stops the decoding in good order;
        // finish() tells the two stops apart.
        if (!take_line(decoder, line, n))
            break;
    }
    const int32_t result = decoder.finish();
    if (result != 1 || !decoder.has_resource())
        return result;
    const std::string &resource = decoder.resource_file().path();
    if (second_path != nullptr) {
        std::memcpy(second_path, resource.c_str(), resource.size() + 1);
        decoder.resource_file().keep();
    }
    return 1;
}

namespace {

std::size_t read_stream_line(void *context, char *buffer, std::size_t size) {
    return static_cast<Stream *>(context)->read_line(buffer, size);
}

// fgets cannot tell where a line with a NUL in it ends, but the decoder
// reads a line only up to its first NUL anyway; a line that begins with one
// must still not look like the end of the input.
std::size_t read_file_line(void *context, char *buffer, std::size_t size) {
    if (std::fgets(buffer, static_cast<int>(size), static_cast<FILE *>(context)) == nullptr)
        return 0;
    return std::max<std::size_t>(std::strlen(buffer), 1);
}

} // namespace

int32_t binhex_decode_stream(Stream &stream, const std::string &target_path, char *second_path,
                             binhex_info *info) {
    return binhex_decode_lines({&stream, read_stream_line}, target_path, second_path, info);
}

int32_t binhex_decode_stream(FILE *stream, const char *target_path, char *second_path,
                             binhex_info *info) {
    if (stream == nullptr)
        return 0;
    return binhex_decode_lines({stream, read_file_line}, codec::path_arg(target_path),
                               second_path, info);
}

} // namespace tw

extern "C" TARNWICK_API int32_t binhex_dec(const char *source_path, const char *target_path,
                                          char *second_path, binhex_info *info) {
    return tw::guarded(0, [&] {
        if (second_path != nullptr)
            second_path[0] = '\0';
        const std::string source = tw::codec::path_arg(source_path);
        tw::Stream in = source.empty() ? tw::Stream() : tw::Stream::open_read(source);
        if (!in)
            return 0;
        return tw::binhex_decode_stream(in, tw::codec::path_arg(target_path), second_path, info);
    });
}
