#include <string>
#include <tuple>

#include "encodings/codec_fixture.h"

namespace {

using namespace tw_test;

using QuotedTest = CodecTest;

std::string x(std::size_t n) { return std::string(n, 'x'); }

TEST_F(QuotedTest, EncodingRules) {
    const std::tuple<const char *, std::string, std::string> cases[] = {
        {"blank before CR LF, '=', TAB inside", "a\t=b \r\nc", "a\t=3Db=20\r\nc"},
        {"a bare CR is a line end too", "a \rb", "a=20\rb"},
        {"no closing line end, final TAB", "ab\t", "ab=09"},
        {"72 characters need no soft break", x(72) + "\r\n", x(72) + "\r\n"},
        {"soft break behind the 73rd character", x(73) + "\r\n", x(73) + "=\r\n\r\n"},
        {"soft break behind an escape", x(70) + "=", x(70) + "=3D=\r\n"},
        {"blank reaching column 73 stays before the break", x(72) + " ", x(72) + " =\r\n"},
        {"escaped final blank passing column 72", x(71) + " ", x(71) + "=20=\r\n"},
        {"one 8-bit byte makes line ends escapes", "a\r\nb\x80", "a=0D=0Ab=80"},
        {"so does DEL", "\r\n\x7F", "=0D=0A=7F"},
    };
    for (const auto &[what, in, out] : cases)
        EXPECT_EQ(run(QpEnc, in, "old\r\n").output, "old\r\n" + out) << what;
    const std::string far = "\n" + x(70000) + "\x80"; // the 8-bit byte in a later read
    EXPECT_EQ(run(QpEnc, far).output.substr(0, 3), "=0A");
    EXPECT_EQ(quoted_encode(path("in").c_str(), nullptr), -1) << "nothing to count without target";
}

// The last byte of each 8192-byte block is held back: a blank there still
// becomes an escape when the next block begins with a line end.
TEST_F(QuotedTest, BlankAtABlockBorder) {
    for (const std::string end : {"\n", "\r\n", "z\n"}) {
        const std::string out = run(QpEnc, std::string(8191, 'a') + " " + end).output;
        const std::string tail = end[0] == 'z' ? "a z\n" : "=20" + end;
        EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
    }
}

TEST_F(QuotedTest, DecodingRules) {
    const std::tuple<const char *, std::string, std::string> cases[] = {
        {"lower-case escape", "=3d=3D", "=="},
        {"a soft break takes the byte behind a CR", "a=\rbc", "ac"},
        {"blanks at a line end stay", "ab  \r\n", "ab  \r\n"},
        {"broken escapes go with two bytes", "=G1x=4Gy", "xy"},
        {"half an escape at the end", "abc=4", "abc"},
        {"escape cut by the 255-byte line limit", x(254) + "=41\r\n", x(254) + "41\r\n"},
    };
    for (const auto &[what, in, out] : cases)
        EXPECT_EQ(run(QpDec, in, "old").output, "old" + out) << what;
}

// The line end in front of the boundary belongs to the boundary, also when
// it has just been written out (the 136th line of 100 bytes takes the block
// over its flush mark); the stream stays at the start of the boundary line.
TEST_F(QuotedTest, StreamEndsAtTheBoundary) {
    std::string lines;
    for (int i = 0; i < 135; ++i)
        lines += x(98) + "\r\n";
    const std::string line = x(98) + "\r\n";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"text\r\n--b\r\nmore", "text", "--b\r\nmore"},
        {"text\n--b", "text\n", "--b"}, // a lone LF behind a character stays
        {"a\r\n\r\n--b", "a\r\n", "--b"},
        {"x=0D=0A=\r\n--b", "x", "--b"},
        {"text\r\n", "text", ""},
        {"--b\r\nx", "", "--b\r\nx"}, // the target is made all the same
        {lines + "--b", lines.substr(0, lines.size() - 2), "--b"},
        {lines + line + "--b", lines + x(98), "--b"},
        {lines + line + line + "--b", lines + line + x(98), "--b"},
    };
    for (const auto &[in, out, rest] : cases) {
        const Run s = run(QpStream, in);
        EXPECT_EQ(s.result, 1) << in.substr(0, 20);
        EXPECT_EQ(s.output, out) << in.substr(0, 20);
        EXPECT_EQ(s.rest, rest) << in.substr(0, 20);
    }
}

} // namespace
