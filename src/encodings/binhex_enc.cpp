// BinHex 4.0 encoder: one block with the data fork and an optional resource
// fork behind whatever the target holds. Lines are 62 characters counting
// the opening ':', runs are cut at 250 bytes, and the run-length state
// carries on across header, forks and read blocks, as the format allows.
#include <cstring>
#include <memory>

#include "encodings/binhex_format.h"
#include "encodings/codec_io.h"
#include "encodings/encodings.h"

namespace tw {

namespace {

using binhex::binhex_crc_update;
using binhex::kMarker;

constexpr std::size_t kInBlock = 16384;
constexpr std::size_t kOutBlock = codec::kEncodeOutBlock;
// A group with its line end is at most 6 characters: the block is written
// early when it could not take one more.
constexpr std::size_t kOutRoom = 8;
constexpr unsigned kLongestRun = 250;
constexpr unsigned kLineWidth = 62;
// The length fields hold 32 bits: a larger fork cannot be described.
constexpr long long kLargestFork = 0xFFFFFFFFLL;
constexpr std::size_t kLongestName = 255;

class Encoder {
public:
    explicit Encoder(File &target)
        : target_(target), out_(codec::work_buffer<char>(kOutBlock)) {}

    // The run-length stage. The first byte of a run goes out at once, a run
    // of two as two plain bytes, a longer one as the byte, the marker and
    // the count; 0x90 as data always goes out as 0x90 0x00.
    void binhex_put_run_byte(unsigned char byte, bool flush) {
        if (!flush && run_length_ != 0 && byte == last_byte_) {
            if (++run_length_ == kLongestRun) {
                put_byte(kMarker);
                put_byte(static_cast<unsigned char>(kLongestRun));
                run_length_ = 0; // the next equal byte starts afresh, plain
            }
            return;
        }
        if (run_length_ == 2) {
            put_byte(last_byte_);
            if (last_byte_ == kMarker)
                put_byte(0);
        } else if (run_length_ > 2) {
            put_byte(kMarker);
            put_byte(static_cast<unsigned char>(run_length_));
        }
        if (flush) {
            binhex_put_byte(0, true);
            run_length_ = 0;
            return;
        }
        put_byte(byte);
        if (byte == kMarker)
            put_byte(0);
        run_length_ = 1;
        last_byte_ = byte;
    }

    // The group stage; a flush completes a started group with zero bytes
    // and writes it whole.
    void binhex_put_byte(unsigned char byte, bool flush) {
        if (flush) {
            while (group_size_ != 0)
                put_byte(0);
            return;
        }
        put_byte(byte);
    }

    // Passes a fork's or the header's bytes on and keeps their CRC.
    void put_field(const unsigned char *data, std::size_t n, uint32_t &crc) {
        for (std::size_t i = 0; i < n; ++i) {
            binhex_put_run_byte(data[i], false);
            binhex_crc_update(data[i], &crc);
        }
    }

    void put_crc(uint32_t crc) {
        const uint16_t value = binhex::binhex_crc_finish(crc);
        binhex_put_run_byte(static_cast<unsigned char>(value >> 8), false);
        binhex_put_run_byte(static_cast<unsigned char>(value), false);
    }

    // Writes what the output block holds. False once any write has failed.
    bool write_out() {
        if (ok_ && used_ > 0)
            ok_ = target_.write_all(out_.get(), used_);
        used_ = 0;
        return ok_;
    }

private:
    void put_byte(unsigned char byte) {
        group_[group_size_++] = byte;
        if (group_size_ < 3)
            return;
        group_size_ = 0;
        const unsigned v = unsigned{group_[0]} << 16 | unsigned{group_[1]} << 8 | group_[2];
        put_char(binhex::kAlphabet[v >> 18]);
        put_char(binhex::kAlphabet[v >> 12 & 63]);
        put_char(binhex::kAlphabet[v >> 6 & 63]);
        put_char(binhex::kAlphabet[v & 63]);
        if (used_ > kOutBlock - kOutRoom)
            write_out();
    }

    // The opening ':' is the first character of the first line.
    void put_char(char c) {
        out_[used_++] = c;
        if (++column_ == kLineWidth) {
            out_[used_++] = '\r';
            out_[used_++] = '\n';
            column_ = 0;
        }
    }

    File &target_;
    std::unique_ptr<char[]> out_;
    std::size_t used_ = 0;
    bool ok_ = true;
    unsigned char last_byte_ = 0;
    unsigned run_length_ = 0; // 0: no run in progress, last_byte_ means nothing
    unsigned char group_[3] = {};
    unsigned group_size_ = 0;
    unsigned column_ = 1;
};

void put_be32(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// The header bytes in front of their CRC. The name comes from the data path,
// never from info.name; its length byte is read unsigned by the decoder, so
// names up to 255 bytes describe themselves.
std::size_t make_header(unsigned char *h, const std::string &data_path, const binhex_info &info,
                        uint32_t data_length, uint32_t resource_length) {
    const std::size_t slash = data_path.find_last_of('/');
    std::string_view name(data_path);
    if (slash != std::string::npos)
        name.remove_prefix(slash + 1);
    name = name.substr(0, kLongestName);
    std::size_t at = 0;
    h[at++] = static_cast<unsigned char>(name.size());
    std::memcpy(h + at, name.data(), name.size());
    at += name.size();
    h[at++] = 0; // version
    std::memcpy(h + at, info.file_type, 4);
    std::memcpy(h + at + 4, info.creator, 4);
    std::memcpy(h + at + 8, info.flags, 2);
    at += 10;
    put_be32(h + at, data_length);
    put_be32(h + at + 4, resource_length);
    return at + 8;
}

// One fork in blocks of 16384 bytes, then its CRC. A failed read ends the
// fork without its CRC; false when a write failed or a read failed.
bool put_fork(Encoder &enc, File *fork, unsigned char *in) {
    uint32_t crc = 0;
    if (fork != nullptr) {
        for (;;) {
            const long long got = fork->read_full(in, kInBlock);
            if (got < 0)
                return false;
            if (got == 0)
                break;
            enc.put_field(in, static_cast<std::size_t>(got), crc);
            if (!enc.write_out())
                return false;
        }
    }
    enc.put_crc(crc);
    return enc.write_out();
}

} // namespace

int32_t binhex_encode_file(const std::string &data_path, const std::string &resource_path,
                           const std::string &target_path, const binhex_info &info,
                           bool no_follow) {
    File data = File::open(data_path, OpenMode::ReadShared);
    if (!data)
        return MIME_FILE_ERROR;
    // A resource fork that cannot be read is left out, as if none was given.
    File resource;
    if (!resource_path.empty())
        resource = File::open(resource_path, OpenMode::ReadShared);
    const long long data_length = data.size();
    const long long resource_length = resource ? resource.size() : 0;
    if (data_length < 0 || data_length > kLargestFork || resource_length < 0 ||
        resource_length > kLargestFork)
        return MIME_FILE_ERROR;

    File target = File::open(target_path, OpenMode::WriteExisting, no_follow);
    if (!target)
        target = File::open(target_path, OpenMode::Create, no_follow);
    if (!target)
        return MIME_FILE_ERROR;
    target.seek_end();
    auto in = codec::work_buffer<unsigned char>(kInBlock);
    Encoder enc(target);
    if (!target.write_all(std::string(binhex::kBanner) + "\r\n:"))
        return MIME_FILE_ERROR;

    unsigned char header[2 * kLongestName];
    const std::size_t header_size =
        make_header(header, data_path, info, static_cast<uint32_t>(data_length),
                    static_cast<uint32_t>(resource_length));
    uint32_t crc = 0;
    enc.put_field(header, header_size, crc);
    enc.put_crc(crc);
    bool ok = enc.write_out();
    // A fork that fails to read closes the block early; only a failed write
    // fails the call.
    if (ok && put_fork(enc, &data, in.get()))
        put_fork(enc, resource ? &resource : nullptr, in.get());
    enc.binhex_put_run_byte(0, true);
    ok = enc.write_out() && target.write_all(":", 1);
    return ok ? MIME_OK : MIME_FILE_ERROR;
}

} // namespace tw

extern "C" TARNWICK_API int32_t binhex_enc(const char *data_fork_path,
                                          const char *resource_fork_path,
                                          const char *target_path, binhex_info info) {
    return tw::guarded(
        MIME_FILE_ERROR,
        [&] {
            const std::string data = tw::codec::path_arg(data_fork_path);
            const std::string target = tw::codec::path_arg(target_path);
            if (data.empty() || target.empty())
                return static_cast<int32_t>(MIME_FILE_ERROR);
            return tw::binhex_encode_file(data, tw::codec::path_arg(resource_fork_path), target,
                                          info, false);
        },
        MIME_NO_MEMORY);
}
