#include <string>
#include <tuple>

#include "headers/reader_fixture.h"

namespace {

// A chain rendered as "encoding|charset|text" elements joined by " / ".
std::string render(const mime_hdr_field *e) {
    std::string out;
    for (; e != nullptr; e = e->next)
        out += (out.empty() ? "" : " / ") + std::to_string(e->encoding) + "|" + e->charset + "|" +
               (e->text != nullptr ? e->text : "(null)");
    return out;
}

TEST(HeaderFieldDecode, ChainsFromValues) {
    const std::string a70(70, 'a'), a71(71, 'a'), b300(300, 'b'), cs50(50, 'c');
    const std::tuple<const char *, std::string, std::string> cases[] = {
        {"one kind and charset join", "=?ISO?q?a?= =?iso?q?b?=", "3|iso|ab"},
        {"a new kind starts an element", "=?cs?q?a?= =?cs?B?Yg==?=", "3|cs|a / 2|cs|b"},
        {"so does a new charset", "=?a?q?x?= =?b?q?x?=", "3|a|x / 3|b|x"},
        {"blank behind a word goes", "Hi =?cs?q?there?= you", "7||Hi  / 3|cs|there / 7||you"},
        {"a TAB stays", "=?cs?q?a?=\tb", "3|cs|a / 7||\tb"},
        {"unknown kind", "=?cs?X?abc?=", "7||=?cs?X?abc?="},
        {"unclosed word", "=?cs?q?abc =?cs?q?d?=", "7||=?cs?q?abc  / 3|cs|d"},
        {"75 characters", "=?cs?q?" + a70 + "?=", "3|cs|" + a70},
        {"76 characters", "=?cs?q?" + a71 + "?=", "7||=?cs?q?" + a71 + "?="},
        {"charset of 50", "=?" + cs50 + "?q?a?=", "7||=?" + cs50 + "?q?a?="},
        {"Q text opening with '='", "=?cs?q?=41" + a70 + "?=", "3|cs|A" + a70},
        {"text of 256", "=?cs?q?=41" + b300 + "?=", "7||=?cs?q?=41" + b300 + "?="},
        {"'_' stays, broken escapes", "=?cs?q?a_b=ZZc=4?=", "3|cs|a_bc"},
        {"a NUL ends the word", "=?cs?q?a=00b?= =?cs?q?c?=", "3|cs|ac"},
        {"padding ends a B text", "=?cs?B?YQ==YWJj?=", "2|cs|a"},
        {"foreign B character is 63", "=?cs?B?.A==?=", "2|cs|\xfc"},
        {"bad B length adds nothing", "x =?cs?B?YWJ?= y", "7||x  / 2|cs| / 7||y"},
        {"colon, blanks and TABs go first", ": \t hello", "7||hello"},
        {"blanks but no TAB go last", "abc\t \r\n", "7||abc\t"},
    };
    for (auto [what, input, expected] : cases) {
        mime_hdr_field *chain = mime_decode_HdrField(input.data());
        EXPECT_EQ(render(chain), expected) << what;
        EXPECT_EQ(mime_FreeList(chain), 1);
    }
}

// The export trims its argument and reads null as an empty value.
TEST(HeaderFieldDecode, ExportTrimsItsArgumentAndTakesNull) {
    char text[] = "abc \r\n";
    mime_FreeList(mime_decode_HdrField(text));
    EXPECT_STREQ(text, "abc");
    mime_hdr_field *chain = mime_decode_HdrField(nullptr);
    EXPECT_EQ(render(chain), "7||");
    mime_FreeList(chain);
}

// Continuation lines join the value and the collected text up to the next
// field; one longer than a line read ends with its first piece.
using HeaderFieldStream = tw_test::HeaderReaderFixture;
TEST_F(HeaderFieldStream, ContinuationLines) {
    const std::string z(300, 'z'), piece = z.substr(0, 254);
    const std::tuple<std::string, std::size_t, std::string, std::string, std::string> cases[] = {
        // message, length of the field name, chain, collected text, what is left unread
        {"S: =?cs?q?a?=\r\n =?cs?q?b?=\r\nT: x\r\n", 1, "3|cs|ab",
         "S: =?cs?q?a?=\r\n =?cs?q?b?=\r\n", "T: x\r\n"},
        {"Subject: one\r\n\ttwo\r\n", 7, "7||onetwo", "Subject: one\r\n\ttwo\r\n", ""},
        {"To: a\r\n " + z + "\r\nFrom: b\r\n", 2, "7||a" + piece, "To: a\r\n " + piece,
         z.substr(254) + "\r\nFrom: b\r\n"},
    };
    for (const auto &[message, name, chain, collected, left] : cases) {
        char line[tw::kHeaderLine];
        tw::Stream &in = stream(message);
        raw = tw::HeaderText();
        raw.append(in.read_line(line, sizeof line) > 0 ? line : "");
        tw::ChainHead head;
        tw::mime_decode_field_value(&in, line + name, sizeof line - name, &raw, head.slot());
        EXPECT_EQ(render(head.get()) + "|" + std::string(raw.view()) + "|" + unread(),
                  chain + "|" + collected + "|" + left);
    }
}

} // namespace
