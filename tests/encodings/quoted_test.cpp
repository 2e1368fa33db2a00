#include <string>

#include "encodings/codec_fixture.h"
#include "tarnwick.h"

namespace {

using tw_test::CodecTest;
using tw_test::random_bytes;
using tw_test::read_file;
using tw_test::write_file;

class QuotedTest : public CodecTest {
protected:
    StreamRun stream(const std::string &input, const std::string &boundary = "--b",
                     const char *existing = nullptr) {
        return run_stream(input, [&](tw::Stream &s, const std::string &target) {
            if (existing != nullptr)
                write_file(target, existing);
            return tw::quoted_decode_stream(s, target, boundary);
        });
    }

    // Every encoded line, split at LF, with its CR LF or LF taken off.
    static std::vector<std::string> lines_of(const std::string &text) {
        std::vector<std::string> lines;
        std::size_t at = 0;
        while (at <= text.size()) {
            std::size_t end = text.find('\n', at);
            if (end == std::string::npos)
                end = text.size();
            std::string line = text.substr(at, end - at);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            lines.push_back(line);
            at = end + 1;
        }
        return lines;
    }
};

std::string x(std::size_t n) { return std::string(n, 'x'); }

TEST_F(QuotedTest, EncodingRules) {
    const struct {
        const char *what;
        std::string in, out;
    } cases[] = {
        {"empty source", "", ""},
        {"blank before CR LF", "a \r\nb", "a=20\r\nb"},
        {"TAB before LF", "a\t\n", "a=09\n"},
        {"blank as the first byte", " \n", "=20\n"},
        {"blank at the end of the source", "ab ", "ab=20"},
        {"TAB at the end of the source", "ab\t", "ab=09"},
        {"no closing line end is added", "abc", "abc"},
        {"line end first", "\r\nx", "\r\nx"},
        {"'=' is escaped", "a=b", "a=3Db"},
        {"TAB inside a line stays", "a\tb", "a\tb"},
        {"bare CR and bare LF", "a\rb\nc", "a\rb\nc"},
        {"72 characters need no soft break", x(72) + "\r\n", x(72) + "\r\n"},
        {"soft break behind the 73rd character", x(73) + "\r\n", x(73) + "=\r\n\r\n"},
        {"escape that reaches column 72", x(69) + "=", x(69) + "=3D"},
        {"soft break behind an escape", x(70) + "=", x(70) + "=3D=\r\n"},
        {"blank that reaches column 73 stays before the soft break", x(72) + " ", x(72) + " =\r\n"},
        {"escaped final blank that passes column 72", x(71) + " ", x(71) + "=20=\r\n"},
        {"long line", std::string(200, 'y'),
         std::string(73, 'y') + "=\r\n" + std::string(73, 'y') + "=\r\n" + std::string(54, 'y')},
        {"one 8-bit byte makes line ends escapes", "a\r\nb\x80", "a=0D=0Ab=80"},
        {"DEL and NUL are escaped", std::string("\x7F\0", 2), "=7F=00"},
    };
    for (const auto &c : cases) {
        const auto r = run(quoted_encode, c.in);
        EXPECT_EQ(r.result, 1) << c.what;
        EXPECT_EQ(r.output, c.out) << c.what;
    }
}

TEST_F(QuotedTest, EncoderAppendsAndNeedsATarget) {
    EXPECT_EQ(run(quoted_encode, "a b", "old\r\n").output, "old\r\na b");
    write_file(path("s"), "x");
    EXPECT_EQ(quoted_encode(path("s").c_str(), nullptr), -1);
    EXPECT_EQ(quoted_encode(path("s").c_str(), ""), -1);
    EXPECT_EQ(quoted_encode(path("none").c_str(), path("t").c_str()), -1);
}

// The byte held back at the end of each 8192-byte block: a blank there
// still becomes an escape when the next block begins with a line end.
TEST_F(QuotedTest, BlankAtABlockBorder) {
    for (const char *end : {"\n", "\r\n", "z\n"}) {
        const std::string in = std::string(8191, 'a') + " " + end + "tail";
        const auto r = run(quoted_encode, in);
        ASSERT_EQ(r.result, 1);
        const bool escaped = r.output.find("=20" + std::string(end)) != std::string::npos;
        EXPECT_EQ(escaped, end[0] != 'z') << "behind the blank: " << end;
        EXPECT_EQ(run(quoted_decode, r.output).output, in);
    }
}

// Text and binary sources of all kinds come back whole, with no encoded
// line over 76 characters and none that ends in white space.
TEST_F(QuotedTest, RoundTripAndLineShape) {
    std::string text;
    const std::string words[] = {"word", " ", "\t", "\r\n", "\n", "=", "x  \r\n", "==\t\n"};
    std::mt19937 gen(3);
    while (text.size() < 50000)
        text += words[gen() % std::size(words)];
    const std::string binary = random_bytes(50000, 11);
    const std::string *inputs[] = {&text, &binary};
    for (const std::string *in : inputs) {
        const auto r = run(quoted_encode, *in);
        ASSERT_EQ(r.result, 1);
        for (const std::string &line : lines_of(r.output)) {
            ASSERT_LE(line.size(), 76u) << line;
            if (!line.empty()) {
                ASSERT_TRUE(line.back() != ' ' && line.back() != '\t') << line;
            }
        }
        const auto back = run(quoted_decode, r.output);
        EXPECT_EQ(back.result, 1);
        EXPECT_TRUE(back.output == *in);
    }
}

TEST_F(QuotedTest, DecodingRules) {
    const struct {
        const char *what;
        std::string in, out;
    } cases[] = {
        {"escapes of either case", "=3d=3D", "=="},
        {"8-bit escape", "caf=E9", "caf\xE9"},
        {"escaped line end", "=0D=0A", "\r\n"},
        {"soft break with CR LF", "ab=\r\ncd", "abcd"},
        {"soft break with LF", "ab=\ncd", "abcd"},
        {"soft break takes the byte behind the CR", "a=\rbc", "ac"},
        {"blanks at a line end are kept", "ab  \r\n", "ab  \r\n"},
        {"bad first digit", "=G1x", "x"},
        {"bad second digit", "=4Gx", "x"},
        {"'=' as the last byte", "abc=", "abc"},
        {"half an escape at the end", "abc=4", "abc"},
        {"escape cut by the 255-byte line limit", std::string(254, 'a') + "=41\r\n",
         std::string(254, 'a') + "41\r\n"},
    };
    for (const auto &c : cases) {
        const auto r = run(quoted_decode, c.in);
        EXPECT_EQ(r.result, 1) << c.what;
        EXPECT_EQ(r.output, c.out) << c.what;
    }
    EXPECT_EQ(run(quoted_decode, "text\r\n", "old").output, "oldtext\r\n")
        << "the file form appends and keeps the closing line end";
}

// The line end in front of the boundary belongs to the boundary; the stream
// stays at the start of the boundary line.
TEST_F(QuotedTest, StreamEndsAtTheBoundary) {
    const struct {
        const char *what;
        std::string in, out, rest;
    } cases[] = {
        {"CR LF in front of the boundary", "text\r\n--b\r\nmore", "text", "--b\r\nmore"},
        {"a lone LF behind a character stays", "text\n--b", "text\n", "--b"},
        {"only the last line end goes", "a\r\n\r\n--b", "a\r\n", "--b"},
        {"decoded CR LF counts as well", "x=0D=0A=\r\n--b", "x", "--b"},
        {"soft break before the boundary", "soft=\r\n--b", "soft", "--b"},
        {"boundary first: empty body", "--b\r\nx", "", "--b\r\nx"},
        {"end of input without a boundary", "text\r\n", "text", ""},
        {"a boundary line is never decoded", "a=\r\n--b=41", "a", "--b=41"},
    };
    for (const auto &c : cases) {
        const auto s = stream(c.in);
        EXPECT_EQ(s.result, 1) << c.what;
        EXPECT_EQ(s.output, c.out) << c.what;
        EXPECT_EQ(s.rest, c.rest) << c.what;
    }
    EXPECT_TRUE(tw_test::file_exists(path("part.6"))) << "an empty body still makes the file";
}

// Lines of 100 bytes: the 136th takes the pending bytes over the flush
// mark, so its CR LF has been written when the boundary comes and must be
// cut off the file; with 135 lines it is still pending.
TEST_F(QuotedTest, LineEndBeforeTheBoundaryGoesAlsoWhenJustWritten) {
    const std::string line = std::string(98, 'q') + "\r\n";
    for (int lines : {135, 136, 137}) {
        std::string body;
        for (int i = 0; i < lines; ++i)
            body += line;
        const auto s = stream(body + "--b\r\n", "--b", "old");
        EXPECT_EQ(s.result, 1) << lines;
        EXPECT_EQ(s.output, "old" + body.substr(0, body.size() - 2)) << lines;
        EXPECT_EQ(s.rest, "--b\r\n") << lines;
    }
}

TEST_F(QuotedTest, BinaryScan) {
    const struct {
        std::string content;
        int32_t binary;
    } cases[] = {
        {"", 0},        {"plain text\r\n\twith TAB\n", 0},      {std::string(1000, ' ') + "~", 0},
        {"\x7F", 1},    {std::string(100000, 'a') + "\x80", 1}, {std::string("a\0b", 3), 1},
        {"\x1B[0m", 1},
    };
    for (const auto &c : cases) {
        write_file(path("scan"), c.content);
        EXPECT_EQ(tw::quoted_file_is_binary(path("scan")), c.binary) << c.content.size();
    }
    EXPECT_EQ(tw::quoted_file_is_binary(path("missing")), 0);
}

} // namespace
