#include <string>
#include <tuple>

#include "encodings/codec_fixture.h"

namespace {

using namespace tw_test;

using UuencodeTest = CodecTest;

// Appended to the target: two empty lines, the begin line, 45 bytes to a
// line behind their count, zero as a backquote (never a blank), the line of
// count 0 and "end". The result counts the lines from "begin" on, also
// when there is no target.
TEST_F(UuencodeTest, LayoutAppendedAndCounted) {
    for (std::size_t n : {0, 1, 44, 45, 46, 11926}) {
        std::string text = "old\r\n\r\nbegin 644 a b\r\n";
        for (std::size_t left = n, k; left > 0; left -= k) {
            k = std::min<std::size_t>(left, 45);
            text += static_cast<char>(32 + k) + std::string(4 * ((k + 2) / 3), '`') + "\r\n";
        }
        const auto lines = static_cast<int32_t>((n + 44) / 45 + 3);
        const Run r = run(UuEnc, std::string(n, '\0'), "old");
        EXPECT_EQ(r.result, lines) << n;
        EXPECT_EQ(r.output, text + "`\r\nend\r\n") << n;
        EXPECT_EQ(uuencode(path("in").c_str(), nullptr, "a b"), lines) << n;
    }
}

// uudecode replaces its target and removes it when it fails; the stream
// form reads over boundary lines and stops right behind the count 0 line.
TEST_F(UuencodeTest, DecodingRules) {
    const std::string cat = "#0V%T\r\n`\r\nend\r\n", c = "Cat", e = "end\r\n";
    const std::tuple<const char *, std::string, const char *, std::string, std::string> cases[] = {
        // what, input, name, output, rest of the stream
        {"leading blanks", "  begin 644 a.txt\r\n" + cat, "a.txt", c, e},
        {"text before the word", "xx begin 644 a.txt\r\n" + cat, "a.txt", c, e},
        {"only the first 'b' counts", "ab begin 644 no\r\nbegin 644 yes\r\n" + cat, "yes", c, e},
        {"blanks inside a name stay", "begin 644 my file  \r\n" + cat, "my file", c, e},
        {"no name", "begin 644\r\n" + cat, "", c, e},
        {"read over boundaries", "--b\r\n--b\r\nbegin 644 x\r\n" + cat + "--", "x", c, e + "--"},
        {"count 0 at once", "begin 644 x\r\n`\r\nend\r\n", "x", "", e},
        {"a blank as count ends the data", "begin 644 x\r\n#0V%T\r\n \r\n#0V%T", "x", c, "#0V%T"},
        {"input ends without count 0", "begin 644 x\r\n#0V%T\r\n#0V%T", "x", "CatCat", ""},
        {"an empty line counts 42", "begin 600 x\n\n#0V%T\n`\n", "x", std::string(42, 0) + c, ""},
        {"no begin line", "--b\r\nnothing\r\n--b--\r\n", "?", "<none>", ""},
    };
    for (const auto &[what, in, name, out, rest] : cases) {
        const Run file = run(UuDec, in, "a much longer old content");
        EXPECT_EQ(file.result, out == "<none>" ? 0 : 1) << what;
        EXPECT_EQ(file.name + "|" + file.output, name + ("|" + out)) << what;
        const Run s = run(UuStream, in, "old");
        EXPECT_EQ(s.name + "|" + s.output + "|" + s.rest, name + ("|" + out + "|" + rest)) << what;
    }
}

} // namespace
