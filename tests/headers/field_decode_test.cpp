// The encoded-word decoder: chains from finished values and from a stream
// with continuation lines, and the two word decoders.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "headers/headers.h"
#include "support/test_support.h"

namespace {

// A chain rendered as "encoding|charset|text" elements joined by " / ".
std::string render(const mime_hdr_field *e) {
    std::string out;
    for (; e != nullptr; e = e->next) {
        if (!out.empty())
            out += " / ";
        out += std::to_string(e->encoding) + "|" + e->charset + "|";
        out += e->text != nullptr ? e->text : "(null)";
    }
    return out;
}

std::string decode(std::string text) {
    mime_hdr_field *chain = mime_decode_HdrField(text.data());
    std::string out = render(chain);
    EXPECT_EQ(mime_FreeList(chain), 1);
    return out;
}

struct DecodeCase {
    const char *what;
    std::string input;
    std::string expected;
};

TEST(HeaderFieldDecode, ChainsFromValues) {
    const std::string a70(70, 'a'), a71(71, 'a'), b100(100, 'b'), b300(300, 'b');
    const std::string cs49(49, 'c'), cs50(50, 'c');
    const std::vector<DecodeCase> cases = {
        {"adjacent Q words of one charset join", "=?iso-8859-1?q?a?= =?iso-8859-1?q?b?=",
         "3|iso-8859-1|ab"},
        {"a fold between words vanishes too", "=?cs?q?a?=\r\n =?cs?q?b?=", "3|cs|ab"},
        {"charsets differing in case join, last spelling kept", "=?ISO?q?a?= =?iso?q?b?=",
         "3|iso|ab"},
        {"Q then B starts an element", "=?cs?q?a?= =?cs?B?Yg==?=", "3|cs|a / 2|cs|b"},
        {"another charset starts an element", "=?a?q?x?= =?b?q?x?=", "3|a|x / 3|b|x"},
        {"blank before a word stays, blank behind goes", "Hi =?cs?q?there?= you",
         "7||Hi  / 3|cs|there / 7||you"},
        {"TAB behind a word starts the plain text", "=?cs?q?a?=\tb", "3|cs|a / 7||\tb"},
        {"unknown encoding letter is plain", "=?cs?X?abc?=", "7||=?cs?X?abc?="},
        {"unclosed opening, then a word", "=?cs?q?abc =?cs?q?d?=",
         "7||=?cs?q?abc  / 3|cs|d"},
        {"75 characters between the marks", "=?cs?q?" + a70 + "?=", "3|cs|" + a70},
        {"76 characters are plain", "=?cs?q?" + a71 + "?=", "7||=?cs?q?" + a71 + "?="},
        {"Q text starting with '=' is not held to 75", "=?cs?q?=41" + b100 + "?=",
         "3|cs|A" + b100},
        {"a word text of 256 bytes cannot be stored", "=?cs?q?=41" + b300 + "?=",
         "7||=?cs?q?=41" + b300 + "?="},
        {"charset of 49 bytes", "=?" + cs49 + "?q?a?=", "3|" + cs49 + "|a"},
        {"charset of 50 bytes is plain", "=?" + cs50 + "?q?a?=", "7||=?" + cs50 + "?q?a?="},
        {"underscore stays", "=?cs?q?a_b?=", "3|cs|a_b"},
        {"hex escapes in both cases", "=?cs?Q?=41=6a?=", "3|cs|Aj"},
        {"broken escapes lose three characters", "=?cs?q?a=ZZb=4?=", "3|cs|ab"},
        {"soft break inside a word", "=?cs?q?a=\r\nb?=", "3|cs|ab"},
        {"NUL among decoded bytes ends that word", "=?cs?q?a=00b?= =?cs?q?c?=", "3|cs|ac"},
        {"padded B word", "=?cs?b?YWI=?=", "2|cs|ab"},
        {"B word of two pads", "=?cs?B?YQ==?=", "2|cs|a"},
        {"padding ends the B text", "=?cs?B?YQ==YWJj?=", "2|cs|a"},
        {"foreign B character counts as 63", "=?cs?B?.A==?=", "2|cs|\xfc"},
        {"bad B length keeps its element", "x =?cs?B?YWJ?= y", "7||x  / 2|cs| / 7||y"},
        {"leading colon goes", ": hello", "7||hello"},
        {"empty value", "", "7||"},
        {"blank value", "  \r\n", "7||"},
        {"trailing blanks go, a TAB stays", "abc\t \r\n", "7||abc\t"},
        {"leading blanks and TABs go", " \t abc", "7||abc"},
    };
    for (const DecodeCase &c : cases)
        EXPECT_EQ(decode(c.input), c.expected) << c.what;
}

TEST(HeaderFieldDecode, ExportTrimsItsArgumentAndAcceptsNull) {
    char text[] = "abc \r\n";
    mime_hdr_field *chain = mime_decode_HdrField(text);
    EXPECT_STREQ(text, "abc");
    mime_FreeList(chain);

    chain = mime_decode_HdrField(nullptr);
    EXPECT_EQ(render(chain), "7||");
    mime_FreeList(chain);
    EXPECT_EQ(mime_FreeList(nullptr), 1);
}

TEST(HeaderFieldDecode, RepeatedFieldExtendsChainWithFreshElement) {
    // The record frees its chains when it goes; a sanitizer build's leak
    // check sees any element, text or charset left behind.
    tw::OwnedAddressLists owned;
    char first[] = "=?cs?q?a?=";
    char second[] = "b";
    tw::mime_decode_field_value(nullptr, first, sizeof first, nullptr, &owned.lists.to);
    tw::mime_decode_field_value(nullptr, second, sizeof second, nullptr, &owned.lists.to);
    EXPECT_EQ(render(owned.lists.to), "3|cs|a / 7||b");
    EXPECT_EQ(tw::mime_join_chain_text(owned.lists.to), "ab");
    EXPECT_EQ(owned.lists.subject, nullptr);
}

TEST(HeaderFieldDecode, WordDecodersStayInsideTheirBuffer) {
    char out[8];
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(tw::mime_word_base64_decode("YWJ", out, sizeof out), 0);
    EXPECT_EQ(out[0], 'X') << "a refused B text writes nothing";

    EXPECT_EQ(tw::mime_word_base64_decode("YWJjZGVmZ2hp", out, 5), 1);
    EXPECT_STREQ(out, "abcd");
    EXPECT_EQ(out[5], 'X');
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(tw::mime_word_quoted_decode("abcdefgh", out, 4), 1);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(out[4], 'X');
}

class HeaderFieldStream : public tw_test::TempDirTest {};

TEST_F(HeaderFieldStream, ContinuationLines) {
    struct Case {
        const char *what;
        std::string message;    // the value's field first
        std::size_t name;       // length of the field name
        std::string chain;
        std::string collected;  // the header text after the value
        std::string next;       // what the caller's loop reads next
    };
    const std::string z(300, 'z'), piece = z.substr(0, 254);
    const std::vector<Case> cases = {
        {"joins element and header text", "Subject: =?cs?q?a?=\r\n =?cs?q?b?=\r\nTo: x\r\n", 7,
         "3|cs|ab", "Subject: =?cs?q?a?=\r\n =?cs?q?b?=\r\n", "To: x\r\n"},
        {"plain words run together, up to the end", "Subject: one\r\n\ttwo\r\n", 7,
         "7||onetwo", "Subject: one\r\n\ttwo\r\n", ""},
        {"a long continuation ends after its first piece", "To: a\r\n " + z + "\r\nFrom: b\r\n",
         2, "7||a" + piece, "To: a\r\n " + piece, z.substr(254) + "\r\n"},
    };
    for (const Case &c : cases) {
        tw_test::write_file(path("msg"), c.message);
        tw::Stream stream = tw::Stream::open_read(path("msg"));
        char line[tw::kHeaderLine];
        stream.read_line(line, sizeof line);
        tw::HeaderText text;
        text.append(line);
        tw::ChainHead chain;
        tw::mime_decode_field_value(&stream, line + c.name, sizeof line - c.name, &text,
                                    chain.slot());
        EXPECT_EQ(render(chain.get()), c.chain) << c.what;
        EXPECT_EQ(text.view(), c.collected) << c.what;
        line[0] = '\0';
        stream.read_line(line, sizeof line);
        EXPECT_EQ(line, c.next) << c.what;
    }
}

} // namespace
