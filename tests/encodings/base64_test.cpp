#include <cstring>
#include <sstream>
#include <vector>

#include "encodings/base64_table.h"
#include "encodings/codec_fixture.h"
#include "frame/run_state.h"
#include "tarnwick.h"

namespace {

using tw_test::CodecTest;
using tw_test::random_bytes;
using tw_test::read_file;
using tw_test::write_file;

std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = text.find("\r\n", at);
        if (end == std::string::npos) {
            lines.push_back(text.substr(at) + "<no line end>");
            break;
        }
        lines.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    return lines;
}

class Base64Test : public CodecTest {
protected:
    StreamRun stream(const std::string &input, const char *boundary = nullptr) {
        return run_stream(input, [&](tw::Stream &s, const std::string &target) {
            return tw::base64_decode_stream(s, target, boundary);
        });
    }
};

TEST(Base64Table, ForeignCharactersDecodeAsSixtyThree) {
    for (int c = 0; c < 256; ++c) {
        const char *hit = c != 0 ? std::strchr(tw::base64_alphabet, c) : nullptr;
        const unsigned expected =
            hit != nullptr ? static_cast<unsigned>(hit - tw::base64_alphabet) : 63;
        EXPECT_EQ(tw::base64_value(static_cast<unsigned char>(c)), expected) << "byte " << c;
    }
}

TEST_F(Base64Test, EncodesTheStandardVectors) {
    const struct {
        std::string in;
        const char *out;
    } cases[] = {{"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"},
                 {std::string("\xFF\xFE\0", 3), "//4A"}};
    for (const auto &c : cases) {
        const auto r = run(base64_encode, c.in);
        EXPECT_EQ(r.result, 1) << c.out;
        EXPECT_EQ(r.output, std::string(c.out) + "\r\n");
    }
}

// Lines of 72 characters, a shorter last one, every line in CR LF, the
// count as the result, the same count without a target, and the text
// decodes back to the source.
TEST_F(Base64Test, LineLayoutAndCountBySize) {
    for (std::size_t n : {0, 1, 2, 3, 53, 54, 55, 108, 109, 13823, 13824, 13825, 27649}) {
        SCOPED_TRACE("size " + std::to_string(n));
        const std::string data = random_bytes(n, static_cast<uint32_t>(n));
        const auto r = run(base64_encode, data);
        const int32_t lines = static_cast<int32_t>((n + 53) / 54);
        EXPECT_EQ(r.result, lines);
        const auto text = split_lines(r.output);
        ASSERT_EQ(text.size(), static_cast<std::size_t>(lines));
        for (std::size_t i = 0; i + 1 < text.size(); ++i)
            ASSERT_EQ(text[i].size(), 72u) << "line " << i;
        if (n > 0) {
            EXPECT_EQ(text.back().size(), ((n - 1) % 54 / 3 + 1) * 4);
        }

        write_file(path("count.src"), data);
        EXPECT_EQ(base64_encode(path("count.src").c_str(), nullptr), lines);
        EXPECT_EQ(base64_encode(path("count.src").c_str(), ""), lines);

        const auto back = run(base64_decode, r.output);
        EXPECT_EQ(back.result, 1);
        EXPECT_TRUE(back.output == data);
    }
}

TEST_F(Base64Test, EmptySourceCreatesAnEmptyTargetAndExistingTargetsAreAppendedTo) {
    const auto empty = run(base64_encode, "");
    EXPECT_EQ(empty.result, 0);
    EXPECT_TRUE(tw_test::file_exists(path("dst.1")));
    EXPECT_EQ(empty.output, "");

    EXPECT_EQ(run(base64_encode, "foo", "old\r\n").output, "old\r\nZm9v\r\n");
    EXPECT_EQ(run(base64_decode, "Zm9v\r\n", "old").output, "oldfoo");
    EXPECT_EQ(run_stream("Zm9v\r\n",
                         [&](tw::Stream &s, const std::string &t) {
                             tw_test::write_file(t, "old");
                             return tw::base64_decode_stream(s, t, nullptr);
                         })
                  .output,
              "oldfoo");
}

// How both decoders read a body with no boundary in it. "file" is the
// export, "stream" the message form, which goes on behind a padded line
// unless a blank line follows it.
TEST_F(Base64Test, DecodingRules) {
    const struct {
        const char *what;
        std::string input, file, stream, rest;
    } cases[] = {
        {"padding in the middle", "QUJD\r\nRA==\r\nRUZH\r\n", "ABCD", "ABCDEFG", ""},
        {"blank line without padding is skipped", "QUJD\r\n\r\nRUZH\r\n", "ABCEFG", "ABCEFG", ""},
        {"padding and a blank line end the part", "RA==\r\n\r\nRUZH\r\n", "D", "D", "RUZH\r\n"},
        {"padding and end of input", "RA==", "D", "D", ""},
        {"text behind padding on its line is ignored", "RA==QUJD\r\nRUZH", "D", "DEFG", ""},
        {"LF alone ends lines too", "QUJD\nRUZH\n", "ABCEFG", "ABCEFG", ""},
        {"one character completed from the next line", "QUJDR\r\nEVG\r\n", "ABCDEF", "ABCDEF", ""},
        {"two characters completed", "QUJDRE\r\nVG\r\n", "ABCDEF", "ABCDEF", ""},
        {"three characters completed", "QUJDREV\r\nG\r\n", "ABCDEF", "ABCDEF", ""},
        {"the completing read goes no further than it needs", "QUJDREV\r\nGQUJD\r\n", "ABCDEFABC",
         "ABCDEFABC", ""},
        {"padding found on the line needs no completing read", "QUJDRE=\r\nQUJD\r\n", "ABCD",
         "ABCDABC", ""},
        {"padding brought by the completing read", "QUJDRA\r\n==\r\nQUJD\r\n", "ABCD", "ABCD",
         "QUJD\r\n"},
        {"end of input drops a lone character", "QUJDR", "ABC", "ABC", ""},
        {"end of input keeps whole bytes", "QUJDREU", "ABCDE", "ABCDE", ""},
        {"a blank is the value 63, not skipped", "QU D", "AO\xC3", "AO\xC3", ""},
        {"'=' in a first place is no padding", "=QUJ\r\nQQ==",
         "\xFD\x05\x09"
         "A",
         "\xFD\x05\x09"
         "A",
         ""},
        {"an 8-bit byte is the value 63", "\xC3QUJ", "\xFD\x05\x09", "\xFD\x05\x09", ""},
    };
    for (const auto &c : cases) {
        const auto file = run(base64_decode, c.input);
        EXPECT_EQ(file.result, 1) << c.what;
        EXPECT_EQ(file.output, c.file) << c.what;
        const auto s = stream(c.input);
        EXPECT_EQ(s.result, 1) << c.what;
        EXPECT_EQ(s.output, c.stream) << c.what;
        EXPECT_EQ(s.rest, c.rest) << c.what;
    }
}

// At most 77 data characters: 78 bytes always pass, 79 only when both of
// the last two are line-end bytes. A rejected line loses what was pending.
TEST_F(Base64Test, LineLengthLimit) {
    const std::string q(100, 'Q');
    const struct {
        std::string line;
        int32_t result;
    } cases[] = {
        {q.substr(0, 76) + "\r\n", 1}, {q.substr(0, 78), 1},        {q.substr(0, 77) + "\r\n", 1},
        {q.substr(0, 77) + "\r\r", 1}, {q.substr(0, 78) + "\n", 0}, {q.substr(0, 79), 0},
        {q.substr(0, 80) + "\r\n", 0}, {std::string(300, 'Q'), 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        const auto r = run(base64_decode, "QUJD\r\n" + c.line);
        EXPECT_EQ(r.result, c.result);
        if (c.result == 0) {
            EXPECT_EQ(r.output, "") << "pending bytes are not written";
        }
        EXPECT_EQ(stream("QUJD\r\n" + c.line).result, c.result);
    }
}

TEST_F(Base64Test, StreamStopsAtTheBoundaryLine) {
    const auto s = stream("QUJD\r\nRUZH\r\n--b1\r\nQUJD\r\n", "--b1");
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(s.output, "ABCEFG");
    EXPECT_EQ(s.rest, "--b1\r\nQUJD\r\n");

    // Padding followed by the boundary: the boundary still ends the part.
    const auto padded = stream("RA==\r\n--b1--\r\n", "--b1");
    EXPECT_EQ(padded.output, "D");
    EXPECT_EQ(padded.rest, "--b1--\r\n");

    // The comparison is case-sensitive, and without a boundary nothing stops.
    EXPECT_EQ(stream("QUJD\r\n--B1\r\n", "--b1").rest, "");
    EXPECT_EQ(stream("QUJD\r\n--b1\r\n").rest, "");

    // The length test comes first: an overlong boundary line fails.
    const std::string long_boundary = "--" + std::string(80, 'x');
    const auto too_long = stream("QUJD\r\n" + long_boundary + "\r\n", long_boundary.c_str());
    EXPECT_EQ(too_long.result, 0);
}

TEST_F(Base64Test, StreamDecodesLargeBodiesUpToTheBoundary) {
    const std::string data = random_bytes(40000, 7);
    write_file(path("data"), data);
    ASSERT_GT(base64_encode(path("data").c_str(), path("text").c_str()), 0);
    const auto s = stream(read_file(path("text")) + "--next\r\nrest", "--next");
    EXPECT_EQ(s.result, 1);
    EXPECT_TRUE(s.output == data);
    EXPECT_EQ(s.rest, "--next\r\nrest");
}

TEST_F(Base64Test, MissingSourceOrTargetFails) {
    EXPECT_EQ(base64_encode(path("none").c_str(), path("t").c_str()), -1);
    EXPECT_EQ(base64_encode(nullptr, path("t").c_str()), -1);
    EXPECT_EQ(base64_decode(path("none").c_str(), path("t").c_str()), 0);
    EXPECT_EQ(base64_decode(nullptr, nullptr), 0);
    write_file(path("s"), "x");
    EXPECT_EQ(base64_encode(path("s").c_str(), path("no/such/dir").c_str()), -1);
    EXPECT_EQ(base64_decode(path("s").c_str(), ""), 0);
    EXPECT_FALSE(tw_test::file_exists(path("t")));
}

// ---- Shared by all codecs: the busy flags and failed writes ---------------

struct CodecCall {
    const char *name;
    bool encoder;
    int32_t failure;
    int32_t (*call)(const std::string &source, const std::string &target);
};

const CodecCall kCalls[] = {
    {"base64_encode", true, -1,
     [](const std::string &s, const std::string &t) {
         return base64_encode(s.c_str(), t.c_str());
     }},
    {"quoted_encode", true, -1,
     [](const std::string &s, const std::string &t) {
         return quoted_encode(s.c_str(), t.c_str());
     }},
    {"uuencode", true, -1,
     [](const std::string &s, const std::string &t) {
         return uuencode(s.c_str(), t.c_str(), "n");
     }},
    {"base64_decode", false, 0,
     [](const std::string &s, const std::string &t) {
         return base64_decode(s.c_str(), t.c_str());
     }},
    {"quoted_decode", false, 0,
     [](const std::string &s, const std::string &t) {
         return quoted_decode(s.c_str(), t.c_str());
     }},
    {"uudecode", false, 0,
     [](const std::string &s, const std::string &t) {
         char name[256];
         return uudecode(s.c_str(), t.c_str(), name);
     }},
    {"base64_decode_stream", false, 0,
     [](const std::string &s, const std::string &t) {
         tw::Stream in = tw::Stream::open_read(s);
         return tw::base64_decode_stream(in, t, nullptr);
     }},
    {"quoted_decode_stream", false, 0,
     [](const std::string &s, const std::string &t) {
         tw::Stream in = tw::Stream::open_read(s);
         return tw::quoted_decode_stream(in, t, "--b");
     }},
    {"uudecode_stream", false, 0,
     [](const std::string &s, const std::string &t) {
         char name[256];
         tw::Stream in = tw::Stream::open_read(s);
         return tw::uudecode_stream(in, t, name);
     }},
};

// A second caller of the same direction is refused at once and leaves the
// flag to its holder; the other direction is not held up.
TEST_F(Base64Test, BusyFlagRefusesTheSameDirectionOnly) {
    // Valid input for every decoder, harmless for every encoder.
    write_file(path("in"), "begin 644 x\r\n#86)C\r\n`\r\nend\r\n");
    auto &state = tw::run_state();
    int n = 0;
    for (const bool encoder_busy : {true, false}) {
        auto &flag = encoder_busy ? state.mime_encoder_busy : state.mime_decoder_busy;
        flag.store(1);
        for (const auto &c : kCalls) {
            const std::string target = path("out" + std::to_string(++n));
            const int32_t result = c.call(path("in"), target);
            if (c.encoder == encoder_busy) {
                EXPECT_EQ(result, c.failure) << c.name;
                EXPECT_FALSE(tw_test::file_exists(target)) << c.name;
                EXPECT_EQ(flag.load(), 1) << c.name << " must not clear a flag it did not take";
            } else {
                EXPECT_NE(result, c.failure) << c.name;
            }
        }
        flag.store(0);
    }
    EXPECT_EQ(state.mime_encoder_busy.load(), 0);
    EXPECT_EQ(state.mime_decoder_busy.load(), 0);
}

TEST_F(Base64Test, FailedWriteGivesTheFailureResult) {
    if (!tw_test::file_exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    write_file(path("in"), "begin 644 x\r\n#86)C\r\n`\r\nend\r\nYWJj\r\n");
    for (const auto &c : kCalls) {
        if (std::strstr(c.name, "uudecode") != nullptr)
            continue; // replaces its target; see the uuencode tests
        EXPECT_EQ(c.call(path("in"), "/dev/full"), c.failure) << c.name;
    }
    EXPECT_EQ(tw::run_state().mime_encoder_busy.load(), 0);
    EXPECT_EQ(tw::run_state().mime_decoder_busy.load(), 0);
}

} // namespace
