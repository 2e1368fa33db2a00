// BinHex 4.0 against a small encoder written here from the published format,
// with knobs the library's encoder never turns (runs up to 255, other line
// widths, wrong CRCs, cut input).
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "encodings/encodings.h"
#include "support/test_support.h"
#include "tarnwick.h"

namespace {

using tw_test::read_file;
using tw_test::write_file;

const std::string kBanner = "(This file must be converted with BinHex 4.0)";
const char kChars[] = "!\"#$%&'()*+,-012345689@ABCDEFGHIJKLMNPQRSTUVXYZ[`abcdefhijklmpqr";

std::string be(uint32_t v, int width) {
    std::string out;
    for (int i = width - 1; i >= 0; --i)
        out += static_cast<char>(v >> (8 * i));
    return out;
}

// CRC-16/XMODEM appended, flipped in its low bit when `bad`.
std::string with_crc(const std::string &field, bool bad) {
    uint32_t crc = 0;
    for (unsigned char b : field) {
        crc ^= uint32_t{b} << 8;
        for (int i = 0; i < 8; ++i)
            crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
    }
    return field + be((crc & 0xFFFF) ^ (bad ? 1 : 0), 2);
}

struct Block {
    std::string name = "a.bin", type = "TEXT", creator = "ttxt", flags = std::string(2, '\0');
    std::string data{}, rsrc{};
    long long data_length = -1, rsrc_length = -1; // -1: the fork's own length
    int bad_crc = -1;                             // 0 header, 1 data, 2 resource
    unsigned longest_run = 250;
    std::size_t width = 62; // the first line's ':' counted
    std::string eol = "\r\n";
    bool closed = true;
    std::string raw_prefix{}; // decoded bytes put in front of the header
};

std::string raw(const Block &b) {
    const auto len = [](long long claimed, const std::string &fork) {
        return be(static_cast<uint32_t>(claimed >= 0 ? claimed : (long long)fork.size()), 4);
    };
    const std::string header = static_cast<char>(b.name.size()) + b.name + '\0' + b.type +
                               b.creator + b.flags + len(b.data_length, b.data) +
                               len(b.rsrc_length, b.rsrc);
    return with_crc(header, b.bad_crc == 0) + with_crc(b.data, b.bad_crc == 1) +
           (b.rsrc.empty() ? std::string(2, '\0') : with_crc(b.rsrc, b.bad_crc == 2));
}

std::string rle(const std::string &in, unsigned longest_run) {
    std::string out;
    for (std::size_t i = 0, n; i < in.size(); i += n) {
        for (n = 1; i + n < in.size() && in[i + n] == in[i] && n < longest_run;)
            ++n;
        const std::string one = in[i] == '\x90' ? std::string("\x90\0", 2) : in.substr(i, 1);
        out += n == 2 ? one + one : one;
        if (n > 2)
            out += "\x90" + std::string(1, static_cast<char>(n));
    }
    return out;
}

std::string six(std::string bytes) {
    bytes.resize((bytes.size() + 2) / 3 * 3, '\0');
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 |
                           static_cast<unsigned char>(bytes[i + 1]) << 8 |
                           static_cast<unsigned char>(bytes[i + 2]);
        for (int k = 18; k >= 0; k -= 6)
            out += kChars[v >> k & 63];
    }
    return out;
}

std::string text(const Block &b) {
    const std::string chars = ":" + six(b.raw_prefix + rle(raw(b), b.longest_run));
    std::string out = kBanner + b.eol;
    for (std::size_t i = 0; i < chars.size(); i += b.width)
        out += chars.substr(i, b.width) + (i + b.width <= chars.size() ? b.eol : "");
    return b.closed ? out + ":" : out;
}

std::string random_bytes(std::size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    std::ranges::generate(s, [&] { return static_cast<char>(gen()); });
    return s;
}

class BinhexTest : public tw_test::TempDirTest {
protected:
    struct Decoded {
        int32_t result;
        std::string data, rsrc, second;
        binhex_info info;
    };
    // The data fork goes behind "old:" in the target.
    Decoded decode(const std::string &input) {
        write_file(path("in.hqx"), input);
        write_file(path("out"), "old:");
        Decoded d{};
        char second[1024] = "junk";
        std::memset(&d.info, 0x55, sizeof d.info);
        d.result = binhex_dec(path("in.hqx").c_str(), path("out").c_str(), second, &d.info);
        d.second = second;
        d.data = read_file(path("out"));
        if (!d.second.empty()) {
            d.rsrc = read_file(d.second);
            std::filesystem::remove(d.second);
        }
        return d;
    }
    std::string encode(const Block &b, bool with_rsrc = true, bool fresh = true) {
        write_file(path(b.name), b.data);
        write_file(path("rsrc"), b.rsrc);
        if (fresh)
            std::filesystem::remove(path("enc"));
        binhex_info info{};
        std::memcpy(info.file_type, b.type.data(), 4);
        std::memcpy(info.creator, b.creator.data(), 4);
        std::memcpy(info.flags, b.flags.data(), 2);
        std::strcpy(info.name, "ignored");
        EXPECT_EQ(binhex_enc(path(b.name).c_str(), with_rsrc ? path("rsrc").c_str() : nullptr,
                             path("enc").c_str(), info),
                  1);
        return read_file(path("enc"));
    }
    bool no_temp_left() {
        return std::ranges::none_of(tw_test::list_dir(dir()),
                                    [](const std::string &n) { return n.starts_with("$$$"); });
    }
};

// Runs cut at 250 and going on across fields and 16384-byte read blocks; the
// name comes from the data path, never from info.name.
TEST_F(BinhexTest, EncoderWritesTheReferenceBlock) {
    std::vector<Block> cases;
    for (std::string data : {std::string(), std::string("\x90\0", 2), std::string(251, 'A'),
                             std::string(600, '\x90'),
                             random_bytes(16383, 1) + std::string(9, 'z'),
                             random_bytes(40000, 2) + std::string(70000, '\x90')})
        cases.push_back({.data = data});
    cases.push_back({.name = std::string(100, 'n'), .type = "APPL", .creator = "MACS",
                     .flags = "\x01\x20", .data = "x", .rsrc = std::string(300, '\0')});
    cases.push_back({.type = std::string(4, '\0'), .creator = std::string(4, '\0'),
                     .rsrc = "only a resource fork"});
    for (const Block &b : cases) {
        EXPECT_EQ(encode(b), text(b)) << b.data.size() << " " << b.name;
        Block without = b; // a null resource path gives the block of an empty fork
        without.rsrc.clear();
        EXPECT_EQ(encode(b, false), text(without)) << b.data.size();
    }
    const Block b{.data = "two"}; // appended behind what is there, each with its banner
    write_file(path("enc"), "old text\r\n");
    EXPECT_EQ(encode(b, true, false), "old text\r\n" + text(b));
    EXPECT_EQ(encode(b, true, false), "old text\r\n" + text(b) + text(b));
}

// Only the banner and the forks' CRCs are checked; a header CRC, an empty
// fork's CRC, a bad character in the header and a missing ':' pass.
TEST_F(BinhexTest, DecoderTakesAndRefuses) {
    const std::string data = random_bytes(700, 3) + std::string(255, 'r') + std::string(600, 's');
    const std::string rsrc = std::string(300, '\x90') + "resource";
    const Block big{.data = random_bytes(70000, 7), .rsrc = random_bytes(65000, 8)};
    const Block good{.data = data, .rsrc = rsrc};
    auto with = [&](auto change) {
        Block b = good;
        change(b);
        return text(b);
    };
    const std::string block = text(good);
    const std::size_t mid = block.size() / 2; // inside the data fork
    auto replaced = [&](std::size_t at, char c) { return std::string(block).replace(at, 1, 1, c); };
    const std::size_t name_char = kBanner.size() + 2 + 4; // low bits of the name's second byte
    const std::string n200(200, 'n');
    const struct {
        const char *what;
        std::string input;
        int32_t result;
        std::string data, rsrc, name = "a.bin";
    } rows[] = {
        {"our own layout", block, 1, data, rsrc},
        {"forks larger than the buffer", text(big), 1, big.data, big.rsrc},
        {"64-char LF lines, runs of 255",
         with([](Block &b) { b.width = 64, b.eol = "\n", b.longest_run = 255; }), 1, data, rsrc},
        {"lines of 1000", with([](Block &b) { b.width = 1000; }), 1, data, rsrc},
        {"banner in another case, blank lines before it",
         "\r\n\n(THIS FILE MUST BE CONVERTED WITH BINHEX 4.0)" + block.substr(kBanner.size()),
         1, data, rsrc},
        {"a blank behind the banner", kBanner + " " + block.substr(kBanner.size()), 0, "", ""},
        {"text before the banner", "x\r\n" + block, 0, "", ""},
        {"wrong header CRC", with([](Block &b) { b.bad_crc = 0; }), 1, data, rsrc},
        {"wrong CRC of an empty data fork", with([](Block &b) { b.data.clear(), b.bad_crc = 1; }),
         1, "", rsrc},
        {"wrong data CRC", with([](Block &b) { b.bad_crc = 1; }), 0, data, ""},
        {"wrong resource CRC", with([](Block &b) { b.bad_crc = 2; }), 0, data, ""},
        {"a changed character", replaced(mid, block[mid] == 'a' ? 'b' : 'a'), 0, "?", ""},
        {"a byte of 0x80 in a fork", replaced(mid, '\x80'), 0, "?", ""},
        {"a byte of 0xC0 in the name", replaced(name_char, '\xC0'), 1, data, rsrc, "?"},
        {"no closing ':'", with([](Block &b) { b.closed = false; }), 1, data, rsrc},
        {"cut inside the data fork", block.substr(0, mid), 0, "?", ""},
        {"cut inside the header", block.substr(0, kBanner.size() + 12), 0, "", ""},
        {"only the banner", kBanner + "\r\n", 1, "", ""},
        {"data length beyond the data", with([](Block &b) { b.data_length = 0x7FFFFFF0; }), 0,
         "?", ""},
        {"name length 200", with([&](Block &b) { b.name = n200; }), 1, data, rsrc, n200},
        {"a count with nothing before it", with([](Block &b) { b.raw_prefix = "\x90\x05"; }), 1,
         data, rsrc},
        {"both forks empty", text(Block{}) + "\r\nnot read", 1, "", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const Decoded d = decode(row.input);
        EXPECT_EQ(d.result, row.result);
        if (row.data != "?") {
            EXPECT_EQ(d.data, "old:" + row.data);
        }
        EXPECT_EQ(d.rsrc, row.rsrc);
        EXPECT_EQ(d.second.empty(), row.rsrc.empty());
        EXPECT_TRUE(no_temp_left());
        if (row.result == 1 && row.name != "?" && row.data != "") {
            EXPECT_EQ(std::string(d.info.name) + "|" + d.info.file_type + "|" + d.info.creator,
                      row.name + "|TEXT|ttxt");
        }
    }
}

// However large the claims, each call ends with 0 or 1 and nothing is written
// beyond a buffer (the sanitizer build checks that).
TEST_F(BinhexTest, HostileInputEndsInZeroOrOne) {
    std::string pairs;
    for (int i = 0; i < 60000; ++i)
        pairs += "\x90\xFF";
    const std::string small = text(Block{.data = "x"});
    std::vector<std::string> inputs = {
        text(Block{.name = std::string(144, 'x'), .data = "d"}),
        kBanner + "\r\n:" + six(pairs) + ":",
        kBanner + "\r\n:" +
            six(rle(raw(Block{.data = "x", .data_length = 0xFFFFFFFF}), 250) +
                pairs.substr(0, 4000)) + ":",
        text(Block{.data = "abc", .data_length = 0xFFFFFFFF, .rsrc_length = 0xFFFFFFFF}),
        kBanner + "\r\n" + random_bytes(5000, 4),
        kBanner + "\r\n:" + six(random_bytes(3000, 5)) + ":",
        kBanner + "\r\n:" + std::string("!!!\0!!!!", 8) + "\r\n" + six(raw(Block{})) + ":",
    };
    for (std::size_t cut = 0; cut < small.size(); cut += 3)
        inputs.push_back(small.substr(0, cut));
    for (const std::string &input : inputs) {
        const Decoded d = decode(input);
        EXPECT_TRUE(d.result == 0 || d.result == 1) << input.substr(0, 60);
        EXPECT_LT(std::strlen(d.info.name), sizeof d.info.name);
        EXPECT_TRUE(no_temp_left());
    }
}

// The stream forms stop behind the line that ends in ':'; the resource fork
// lies in a "$$$" file beside the target.
TEST_F(BinhexTest, StreamFormsStopBehindTheBlock) {
    const std::string input = "\r\n" + text(Block{.data = "data", .rsrc = "rsrc"}) +
                              "\r\n--boundary\r\n";
    write_file(path("in"), input);
    binhex_info info;
    char second[1024];
    tw::Stream stream = tw::Stream::open_read(path("in"));
    ASSERT_EQ(tw::binhex_decode_stream(stream, "out", second, &info), 1);
    EXPECT_EQ(input.substr(static_cast<std::size_t>(stream.tell())), "--boundary\r\n");
    EXPECT_EQ(std::string(second).rfind(dir() + "$$$", 0), 0u) << second;
    EXPECT_EQ(read_file(second), "rsrc");
    EXPECT_EQ(read_file(path("out")), "data");

    FILE *f = std::fopen(path("in").c_str(), "rb");
    ASSERT_EQ(tw::binhex_decode_stream(f, path("out").c_str(), nullptr, nullptr), 1);
    EXPECT_EQ(input.substr(static_cast<std::size_t>(std::ftell(f))), "--boundary\r\n");
    std::fclose(f);
    EXPECT_EQ(read_file(path("out")), "datadata");
    EXPECT_EQ(tw_test::list_dir(dir()).size(), 3u) << "no second path asked, no file kept";
}

// Forks the 32-bit length fields cannot describe give -3 and no block.
TEST_F(BinhexTest, EncoderFailures) {
    write_file(path("d"), "d");
    write_file(path("target"), "kept");
    EXPECT_EQ(binhex_enc(path("missing").c_str(), nullptr, path("target").c_str(), {}), -3);
    EXPECT_EQ(binhex_enc(path("d").c_str(), nullptr, dir().c_str(), {}), -3);
    EXPECT_EQ(binhex_enc(path("d").c_str(), path("missing").c_str(), path("t2").c_str(), {}), 1)
        << "an unreadable resource fork is left out";
    write_file(path("big"), "");
    std::filesystem::resize_file(path("big"), 0x100000000LL); // sparse
    EXPECT_EQ(binhex_enc(path("big").c_str(), nullptr, path("target").c_str(), {}), -3);
    EXPECT_EQ(binhex_enc(path("d").c_str(), path("big").c_str(), path("target").c_str(), {}), -3);
    EXPECT_EQ(read_file(path("target")), "kept");
    // A file size limit, as root ignores permissions: a cut block and -3.
    write_file(path("d"), random_bytes(100000, 6));
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit small{1000, old.rlim_max};
    auto *const handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const int32_t cut = binhex_enc(path("d").c_str(), nullptr, path("t3").c_str(), {});
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(cut, -3);
    EXPECT_EQ(read_file(path("t3")).rfind(kBanner, 0), 0u);
}

} // namespace
