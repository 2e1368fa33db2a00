// The encoded-word encoder: words, folding by column, plain folding at 993
// bytes, the size contract of the export, and the round trip through the
// decoder.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "headers/headers.h"

namespace {

const std::string F = "\r\n  "; // the fold

struct Element {
    std::string text;
    std::string charset = "";
    int32_t encoding = MIME_ENC_PLAIN;
};
Element q(std::string text, std::string charset = "x") { return {text, charset, MIME_ENC_QUOTED}; }
Element b(std::string text, std::string charset = "x") { return {text, charset, MIME_ENC_BASE64}; }

// A chain whose strings live as long as it does.
class Chain {
public:
    Chain(std::vector<Element> elements) : elements_(std::move(elements)) {
        for (Element &e : elements_)
            fields_.push_back({e.text.data(), e.charset.data(), e.encoding, nullptr});
        for (std::size_t i = 0; i + 1 < fields_.size(); ++i)
            fields_[i].next = &fields_[i + 1];
    }
    mime_hdr_field *head() { return &fields_.front(); }

private:
    std::vector<Element> elements_;
    std::deque<mime_hdr_field> fields_;
};

std::string encode(std::vector<Element> elements) {
    Chain chain(std::move(elements));
    std::vector<char> out(1 << 16);
    int32_t length = static_cast<int32_t>(out.size());
    EXPECT_EQ(mime_encode_HdrField(chain.head(), out.data(), &length), 1);
    EXPECT_EQ(std::string(out.data()).size(), static_cast<std::size_t>(length));
    return std::string(out.data(), static_cast<std::size_t>(length));
}

std::string times(std::string piece, int n) {
    std::string s;
    while (n-- > 0)
        s += piece;
    return s;
}

TEST(HeaderFieldEncode, WorkedExamples) {
    EXPECT_EQ(encode({q("Gr\xfc\xdf" "e", "iso-8859-1")}), "=?iso-8859-1?q?Gr=FC=DFe?=");
    EXPECT_EQ(encode({b("Gr\xfc\xdf" "e", "iso-8859-1")}), "=?iso-8859-1?B?R3L832U=?=");
    // 41 + 41 + 18 bytes: even the first word is 73 bytes long, so each
    // word stands on a line of its own.
    const std::string w41 = "=?iso-8859-1?B?" + times("YWFh", 13) + "YWE=?=";
    EXPECT_EQ(w41.size(), 73u);
    EXPECT_EQ(encode({b(std::string(100, 'a'), "iso-8859-1")}),
              F + w41 + F + w41 + F + "=?iso-8859-1?B?" + times("YWFh", 6) + "?=");
    EXPECT_EQ(encode({{"Ann"}, {"Bob"}}), "Ann,Bob");
    EXPECT_EQ(encode({{"Ann"}, q("x")}), "Ann,=?x?q?x?=");
}

TEST(HeaderFieldEncode, EncodedChains) {
    const std::string a41(41, 'a'), p62(62, 'p'), p100(100, 'p');
    const struct {
        const char *what;
        std::vector<Element> chain;
        std::string expected;
    } cases[] = {
        {"Q escapes", {q("a b_c?=\t\x01\x7f\x80\xff~!")}, "=?x?q?a=20b_c?=3D\t=01=7F=80=FF~!?="},
        {"B of 1 byte", {b("a")}, "=?x?B?YQ==?="},
        {"B of 2 bytes", {b("ab")}, "=?x?B?YWI=?="},
        {"B of 3 bytes", {b("abc")}, "=?x?B?YWJj?="},
        {"empty charset", {b("a", "")}, "=??B?YQ==?="},
        {"empty text adds only its comma", {q("a"), q(""), q("b")}, "=?x?q?a?=,,=?x?q?b?="},
        {"41 bytes, one word", {q(a41)}, "=?x?q?" + a41 + "?="},
        {"42 bytes, two words on a line", {q(a41 + "b")}, "=?x?q?" + a41 + "?==?x?q?b?="},
        {"a word ending at 72 stays", {q(a41, std::string(24, 'c'))},
         "=?" + std::string(24, 'c') + "?q?" + a41 + "?="},
        {"a word ending at 73 folds", {q(a41, std::string(25, 'c'))},
         F + "=?" + std::string(25, 'c') + "?q?" + a41 + "?="},
        {"the comma is no column", {{p62}, q("ab")}, p62 + ",=?x?q?ab?="},
        {"the column runs on", {{p62 + "p"}, q("ab")}, p62 + "p," + F + "=?x?q?ab?="},
        {"a plain element folds whole", {q("a"), {p100}}, "=?x?q?a?=," + F + p100},
        {"unfolded first", {{"Ann\r\n  <a@b>"}, q("x\r\n y\n\tz")}, "Ann<a@b>,=?x?q?xy\tz?="},
        {"a plain chain keeps line ends", {{"a\r\n b"}, {"c"}}, "a\r\n b,c"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(encode(c.chain), c.expected) << c.what;
}

// Folds removed give the text back, and no line is longer than 993.
void expect_folded_whole(const std::string &folded, const std::string &text) {
    std::string joined;
    std::size_t start = 0;
    for (;;) {
        const std::size_t fold = folded.find(F, start);
        const std::string line = folded.substr(start, fold - start);
        EXPECT_LE(line.size(), 993u);
        joined += line;
        if (fold == std::string::npos)
            break;
        start = fold + F.size();
    }
    EXPECT_EQ(joined, text);
}

std::string folded_field(const std::string &text) {
    std::string out;
    tw::mime_fold_plain_field(text, out);
    return out;
}

TEST(HeaderFieldEncode, PlainChainsFoldAt993) {
    const std::string a993(993, 'a');
    EXPECT_EQ(encode({{a993}}), a993);
    EXPECT_EQ(encode({{a993 + "b"}}), F + a993 + F + "b");
    EXPECT_EQ(encode({{std::string(2000, 'a')}}), F + a993 + F + a993 + F + std::string(14, 'a'));
    // With any separator in the first stretch, the first line is exactly
    // 993 bytes, wherever that cuts; later stretches end at a separator.
    std::string text = std::string(2000, 'a');
    text[5] = ' ';
    text[1500] = ',';
    EXPECT_EQ(encode({{text}}), text.substr(0, 993) + F + text.substr(993, 508) + F +
                                    text.substr(1501));
    // The column runs on from the element before: 990 + 4 > 993.
    EXPECT_EQ(encode({{std::string(990, 'x')}, {"a,bcd"}}),
              std::string(990, 'x') + ",a,b" + F + "cd");
}

TEST(HeaderFieldEncode, SinglePlainFieldFoldsBehindSeparators) {
    std::string text(1200, 'x');
    text[100] = ',', text[500] = ';', text[900] = ' ';
    // Comma before semicolon before blank, in each stretch anew.
    EXPECT_EQ(folded_field(text),
              text.substr(0, 101) + F + text.substr(101, 400) + F + text.substr(501));

    // 3000 bytes of addresses: behind the last comma of each stretch as a
    // single field; filled to exactly 993 bytes on its first line as a chain.
    const std::string list = times("user0000@example.com,", 143);
    const std::string single = folded_field(list), chain = encode({{list}});
    expect_folded_whole(single, list);
    expect_folded_whole(chain, list);
    EXPECT_EQ(single.find(F), 987u);
    EXPECT_EQ(chain.find(F), 993u);

    // Separators only at the start of each stretch make a fold every few
    // bytes; the text must come through whole.
    std::string sparse;
    while (sparse.size() < 5000)
        sparse += ";" + std::string(993, 'y');
    expect_folded_whole(folded_field(sparse), sparse);
    expect_folded_whole(encode({{sparse}}), sparse);
}

TEST(HeaderFieldEncode, OutputIsCutToTheBuffer) {
    Chain chain({q("Gr\xfc\xdf" "e", "iso-8859-1")});
    const std::string full = "=?iso-8859-1?q?Gr=FC=DFe?=";
    const int32_t n = static_cast<int32_t>(full.size());
    for (int32_t size : {n + 1, n, 10, 1, 0, -5}) {
        std::string buffer(64, '#');
        const std::size_t room = size > 0 ? static_cast<std::size_t>(size) : 0;
        int32_t length = size;
        ASSERT_EQ(mime_encode_HdrField(chain.head(), buffer.data(), &length), 1) << size;
        const std::string kept = full.substr(0, room > 0 ? room - 1 : 0);
        EXPECT_EQ(length, static_cast<int32_t>(kept.size())) << size;
        if (room > 0) {
            EXPECT_EQ(buffer.substr(0, room), kept + '\0') << size;
        }
        EXPECT_EQ(buffer.substr(room), std::string(64 - room, '#')) << "written past out " << size;
    }
}

// Settled: refused arguments leave out and its length alone.
TEST(HeaderFieldEncode, RefusedArgumentsWriteNothing) {
    char out[16] = "canary";
    int32_t length = sizeof out;
    Chain chain({b("a")});
    EXPECT_EQ(mime_encode_HdrField(nullptr, out, &length), -1);
    EXPECT_EQ(mime_encode_HdrField(chain.head(), nullptr, &length), -1);
    EXPECT_EQ(mime_encode_HdrField(chain.head(), out, nullptr), -1);
    Chain long_charset({{"plain"}, q("a", std::string(126, 'c'))});
    EXPECT_EQ(mime_encode_HdrField(long_charset.head(), out, &length), -1);
    EXPECT_STREQ(out, "canary");
    EXPECT_EQ(length, 16);

    const std::string c125(125, 'c');
    EXPECT_EQ(encode({q("a", c125)}), F + "=?" + c125 + "?q?a?=");
    char p[] = "p";
    mime_hdr_field nulls{nullptr, nullptr, MIME_ENC_BASE64, nullptr};
    mime_hdr_field plain{p, nullptr, MIME_ENC_PLAIN, &nulls};
    length = sizeof out;
    EXPECT_EQ(mime_encode_HdrField(&plain, out, &length), 1);
    EXPECT_STREQ(out, "p,");
}

// Within the limits of the decoder: a charset it keeps, a Q word no longer
// than 75 characters unless its text opens with an escape, no '?' in a Q
// text (it would close the word), no line ends, no NUL.
TEST(HeaderFieldEncode, RoundTripThroughTheDecoder) {
    std::mt19937 rng(11);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    int checked = 0;
    for (int round = 0; round < 400; ++round) {
        const bool use_b = round % 2 == 0;
        std::string charset(static_cast<std::size_t>(1 + pick(16)), 'a');
        for (char &c : charset)
            c = "abcdefghijklmnopqrstuvwxyz0123456789-_"[pick(38)];
        std::string text;
        const int length = 1 + pick(200);
        for (int i = 0; i < length; ++i) {
            // Q texts mostly printable, so words stay short enough.
            int c = use_b || pick(8) == 0 ? 1 + pick(255) : 32 + pick(95);
            if (c == '\r' || c == '\n' || (!use_b && c == '?'))
                c = 'z';
            text += static_cast<char>(c);
        }
        std::string value = encode({{text, charset, use_b ? MIME_ENC_BASE64 : MIME_ENC_QUOTED}});
        if (value.starts_with(F))
            value.erase(0, F.size());
        if (!use_b) {
            bool fits = true;
            for (std::size_t at = 0; (at = value.find("=?", at)) != std::string::npos; at += 2) {
                const std::size_t open = value.find("?q?", at) + 3;
                const std::size_t span = value.find("?=", open) - at - 2;
                if (span > 75 && value[open] != '=')
                    fits = false;
            }
            if (!fits)
                continue;
        }
        ++checked;
        mime_hdr_field *chain = mime_decode_HdrField(value.data());
        ASSERT_NE(chain, nullptr);
        EXPECT_EQ(chain->next, nullptr) << value;
        EXPECT_EQ(chain->encoding, use_b ? MIME_ENC_BASE64 : MIME_ENC_QUOTED) << value;
        EXPECT_EQ(std::string(chain->charset), charset);
        EXPECT_EQ(std::string(chain->text), text) << value;
        mime_FreeList(chain);
    }
    EXPECT_GT(checked, 300);
}

} // namespace
