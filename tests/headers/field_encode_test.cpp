#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "headers/headers.h"

namespace {

const std::string F = "\r\n  "; // the fold

struct Element {
    std::string text, charset = "";
    int32_t encoding = MIME_ENC_PLAIN;
};
Element q(std::string text, std::string charset = "x") { return {text, charset, MIME_ENC_QUOTED}; }
Element b(std::string text, std::string charset = "x") { return {text, charset, MIME_ENC_BASE64}; }

// A chain whose strings live as long as it does.
struct Chain {
    std::vector<Element> elements;
    std::vector<mime_hdr_field> fields;
    Chain(std::vector<Element> e) : elements(std::move(e)) {
        for (Element &x : elements)
            fields.push_back({x.text.data(), x.charset.data(), x.encoding, nullptr});
        for (std::size_t i = 0; i + 1 < fields.size(); ++i)
            fields[i].next = &fields[i + 1];
    }
    mime_hdr_field *head() { return fields.data(); }
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

TEST(HeaderFieldEncode, Chains) {
    const std::string a41(41, 'a'), p62(62, 'p'), p100(100, 'p'), c125(125, 'c');
    const std::string w41 = "=?iso-8859-1?B?" + times("YWFh", 13) + "YWE=?="; // 73 bytes
    const struct {
        std::vector<Element> chain;
        std::string expected;
    } cases[] = {
        {{q("a b_c?=\t\x01\x7f\x80\xff~!")}, "=?x?q?a=20b_c?=3D\t=01=7F=80=FF~!?="},
        {{b("Gr\xfc\xdf" "e", "iso-8859-1")}, "=?iso-8859-1?B?R3L832U=?="},
        {{b("\xfc", "")}, "=??B?/A==?="},
        // Words too long for any line stand each on a line of their own.
        {{b(std::string(100, 'a'), "iso-8859-1")},
         F + w41 + F + w41 + F + "=?iso-8859-1?B?" + times("YWFh", 6) + "?="},
        {{{"Ann"}, {"Bob"}}, "Ann,Bob"},
        {{q("a"), q(""), q("b")}, "=?x?q?a?=,,=?x?q?b?="},
        {{q(a41)}, "=?x?q?" + a41 + "?="},
        {{q(a41 + "b")}, "=?x?q?" + a41 + "?==?x?q?b?="},
        {{q(a41, std::string(24, 'c'))}, "=?" + std::string(24, 'c') + "?q?" + a41 + "?="},
        {{q(a41, std::string(25, 'c'))}, F + "=?" + std::string(25, 'c') + "?q?" + a41 + "?="},
        {{q("a", c125)}, F + "=?" + c125 + "?q?a?="},
        {{{p62}, q("ab")}, p62 + ",=?x?q?ab?="}, // the comma takes no column
        {{{p62 + "p"}, q("ab")}, p62 + "p," + F + "=?x?q?ab?="},
        {{q("a"), {p100}}, "=?x?q?a?=," + F + p100},
        {{{"Ann\r\n  <a@b>"}, q("x\r\n y\n\tz")}, "Ann<a@b>,=?x?q?xy\tz?="},
        {{{"a\r\n b"}, {"c"}}, "a\r\n b,c"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(encode(c.chain), c.expected) << c.expected;
}

// Folds removed give the text back, and no line is longer than 993.
void expect_folded_whole(const std::string &folded, const std::string &text) {
    std::string joined;
    for (std::size_t start = 0, fold = 0; fold != std::string::npos; start = fold + F.size()) {
        fold = folded.find(F, start);
        const std::string line = folded.substr(start, fold - start);
        EXPECT_LE(line.size(), 993u);
        joined += line;
    }
    EXPECT_EQ(joined, text);
}

std::string folded_field(const std::string &text) {
    std::string out;
    tw::mime_fold_plain_field(text, out);
    return out;
}

TEST(HeaderFieldEncode, PlainTextFoldsAt993) {
    const std::string a993(993, 'a');
    EXPECT_EQ(encode({{a993}}), a993);
    EXPECT_EQ(encode({{a993 + "b"}}), F + a993 + F + "b");
    EXPECT_EQ(encode({{std::string(2000, 'a')}}), F + a993 + F + a993 + F + std::string(14, 'a'));
    // A chain fills its first line to 993 bytes whatever that cuts; later
    // stretches end at a separator.
    std::string text = std::string(2000, 'a');
    text[5] = ' ', text[1500] = ',';
    EXPECT_EQ(encode({{text}}),
              text.substr(0, 993) + F + text.substr(993, 508) + F + text.substr(1501));
    EXPECT_EQ(encode({{std::string(990, 'x')}, {"a,bcd"}}),
              std::string(990, 'x') + ",a,b" + F + "cd");

    // A single field prefers comma, then semicolon, then blank, in each stretch anew.
    text = std::string(1200, 'x');
    text[100] = ',', text[500] = ';', text[900] = ' ';
    EXPECT_EQ(folded_field(text),
              text.substr(0, 101) + F + text.substr(101, 400) + F + text.substr(501));
    const std::string list = times("user0000@example.com,", 143);
    EXPECT_EQ(folded_field(list).find(F), 987u);
    EXPECT_EQ(encode({{list}}).find(F), 993u);
    std::string sparse; // a separator only at the start of each stretch
    while (sparse.size() < 5000)
        sparse += ";" + std::string(993, 'y');
    for (const std::string &t : {list, sparse}) {
        expect_folded_whole(folded_field(t), t);
        expect_folded_whole(encode({{t}}), t);
    }
}

TEST(HeaderFieldEncode, OutputIsCutToTheBuffer) {
    Chain chain({q("Gr\xfc\xdf" "e", "iso-8859-1")});
    const std::string full = "=?iso-8859-1?q?Gr=FC=DFe?=";
    const int32_t n = static_cast<int32_t>(full.size());
    for (int32_t size : {n + 1, n, 1, 0, -5}) {
        std::string buffer(64, '#');
        const std::size_t room = size > 0 ? static_cast<std::size_t>(size) : 0;
        int32_t length = size;
        ASSERT_EQ(mime_encode_HdrField(chain.head(), buffer.data(), &length), 1) << size;
        const std::string kept = full.substr(0, room > 0 ? room - 1 : 0);
        EXPECT_EQ(length, static_cast<int32_t>(kept.size())) << size;
        EXPECT_EQ(buffer, (room > 0 ? kept + '\0' : "") + std::string(64 - room, '#')) << size;
    }
}

TEST(HeaderFieldEncode, RefusedArgumentsWriteNothing) {
    char out[16] = "canary";
    int32_t length = sizeof out;
    Chain chain({b("a")}), long_charset({{"plain"}, q("a", std::string(126, 'c'))});
    EXPECT_EQ(mime_encode_HdrField(nullptr, out, &length), -1);
    EXPECT_EQ(mime_encode_HdrField(chain.head(), nullptr, &length), -1);
    EXPECT_EQ(mime_encode_HdrField(chain.head(), out, nullptr), -1);
    EXPECT_EQ(mime_encode_HdrField(long_charset.head(), out, &length), -1);
    EXPECT_STREQ(out, "canary");
    EXPECT_EQ(length, 16);

    char p[] = "p";
    mime_hdr_field nulls{nullptr, nullptr, MIME_ENC_BASE64, nullptr};
    mime_hdr_field plain{p, nullptr, MIME_ENC_PLAIN, &nulls};
    EXPECT_EQ(mime_encode_HdrField(&plain, out, &length), 1);
    EXPECT_STREQ(out, "p,");
}

// Within the limits of the decoder: a Q word no longer than 75 characters
// unless its text opens with an escape, no '?' in a Q text, no line ends.
TEST(HeaderFieldEncode, RoundTripThroughTheDecoder) {
    std::mt19937 rng(11);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    int checked = 0;
    for (int round = 0; round < 200; ++round) {
        const int32_t kind = round % 2 ? MIME_ENC_QUOTED : MIME_ENC_BASE64;
        std::string charset(static_cast<std::size_t>(1 + pick(16)), 'a'), text;
        for (char &c : charset)
            c = "abcdefghijklmnopqrstuvwxyz0123456789-_"[pick(38)];
        for (int i = 0, length = 1 + pick(200); i < length; ++i) {
            const int c = kind == MIME_ENC_BASE64 || pick(8) == 0 ? 1 + pick(255) : 32 + pick(95);
            text += c == '\r' || c == '\n' || (kind == MIME_ENC_QUOTED && c == '?') ? 'z' : char(c);
        }
        std::string value = encode({{text, charset, kind}});
        value.erase(0, value.starts_with(F) ? F.size() : 0);
        bool fits = true;
        for (std::size_t at = 0;
             kind == MIME_ENC_QUOTED && (at = value.find("=?", at)) != std::string::npos; at += 2) {
            const std::size_t open = value.find("?q?", at) + 3;
            fits = fits && (value.find("?=", open) - at - 2 <= 75 || value[open] == '=');
        }
        if (!fits)
            continue;
        ++checked;
        mime_hdr_field *chain = mime_decode_HdrField(value.data());
        ASSERT_NE(chain, nullptr);
        EXPECT_EQ(chain->next, nullptr) << value;
        EXPECT_EQ(chain->encoding, kind) << value;
        EXPECT_EQ(std::string(chain->charset) + "|" + chain->text, charset + "|" + text) << value;
        mime_FreeList(chain);
    }
    EXPECT_GT(checked, 150);
}

} // namespace
