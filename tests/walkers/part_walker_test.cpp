#include <functional>

#include "walkers/walkers.h"

#include "walkers/walk_fixture.h"

namespace {

using tw_test::list_dir;
using tw_test::message_of;
using tw_test::read_file;
using tw_test::WalkRecorder;
using Strings = std::vector<std::string>;

struct PartWalkerTest : tw_test::WalkTest {};

const std::string kMixed = "multipart/mixed; boundary=o";

std::string text_part(const std::string &body) { return "Content-Type: text/plain\n\n" + body; }

TEST_F(PartWalkerTest, MultipartsEndToEnd) {
    const struct {
        std::string body;
        const char *events;
        Strings contents; // of the files delivered, the page of a group first
    } cases[] = {
        // A nested mixed, and the walk up to the outer boundary behind it.
        {"--o\n" + text_part("one\n") + "--o\nContent-Type: multipart/mixed; boundary=i\n\n"
         "--i\n" + text_part("two\n") + "--i--\n\n--o\n" + text_part("three\n") + "--o--\n",
         "h:multipart/mixed,h:text/plain,b1:00000001.TXT,h:multipart/mixed,h:text/plain,"
         "b1:00000002.TXT,h:text/plain,b1:00000003.TXT,",
         {"one\r\n", "two\r\n", "three\r\n"}},
        // Two closing delimiters in a row end the walk.
        {"--o\nContent-Type: multipart/mixed; boundary=i\n\n--i\n" + text_part("in\n") +
             "--i--\n--o--\n--o\n" + text_part("not read\n"),
         "h:multipart/mixed,h:multipart/mixed,h:text/plain,b1:00000001.TXT,", {"in\r\n"}},
        // No header: no header_cb, the body from its first non-blank line.
        {"--o\n\n\nbare\n--o--\n", "h:multipart/mixed,b1:00000001.TXT,", {"bare\r\n"}},
        {"--o\nContent-Type: message/rfc822\n\nSubject: inner\n" + text_part("inner body\n") +
             "--o--\n",
         "h:multipart/mixed,h:message/rfc822,h:text/plain,b1:00000001.TXT,", {"inner body\r\n"}},
        {"--o\nContent-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html\n\n"
         "<img src=\"cid:a\">\n--r\nContent-ID: <a>\nContent-Type: image/gif\n\nGIF\n--r--\n"
         "--o\n" + text_part("after\n") + "--o--\n",
         "h:multipart/mixed,h:multipart/related,b2:00000001.htm|00000001.gif,h:text/plain,"
         "b1:00000002.TXT,",
         {"<img src=\"00000001.gif\">\r\n", "after\r\n"}},
        // Base64 (text behind its end passed over), binary as it stands, a
        // delimiter in another case, no closing delimiter.
        {"--o\nContent-Transfer-Encoding: base64\n\naGk=\n\nignored\n--O\n"
         "Content-Transfer-Encoding: binary\n\na\n\nb\n--o\n" + text_part("last\n"),
         "h:multipart/mixed,h:/,b1:00000001.TXT,h:/,b1:00000002.TXT,h:text/plain,"
         "b1:00000003.TXT,",
         {"hi", "a\r\n\r\nb\r\n", "last\r\n"}},
        // BinHex goes by its type whatever the encoding line says; what
        // follows the block's closing ':' is passed over.
        {"--o\nContent-Type: application/mac-binhex40\nContent-Transfer-Encoding: base64\n\n"
         "(This file must be converted with BinHex 4.0)\n:!@3!)*!)!*!&!J#3\"%V5D'Pr$!!!:\n"
         "trailing\n--o\n" + text_part("after\n") + "--o--\n",
         "h:multipart/mixed,h:application/mac-binhex40,b1:00000001.TXT,h:text/plain,"
         "b1:00000002.TXT,",
         {"hi", "after\r\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body);
        std::filesystem::remove_all(out());
        WalkRecorder r;
        EXPECT_EQ(extract(message_of(kMixed, c.body), r), 1);
        EXPECT_EQ(r.events, c.events);
        Strings contents;
        if (r.events.find("b2:00000001.htm") != std::string::npos)
            contents.push_back(read_file(out() + "00000001.htm"));
        for (std::size_t at = 0; (at = r.events.find("b1:", at)) != std::string::npos;) {
            const std::size_t end = r.events.find(',', at);
            contents.push_back(read_file(out() + r.events.substr(at + 3, end - at - 3)));
            at = end;
        }
        EXPECT_EQ(contents, c.contents);
    }
}

TEST_F(PartWalkerTest, FailuresRemoveThePartInProgress) {
    const std::string two =
        message_of(kMixed, "--o\n" + text_part("x\n") + "--o\n" + text_part("y\n") + "--o--\n");
    WalkRecorder stop_body;
    stop_body.body_answer = -1;
    EXPECT_EQ(extract(two, stop_body), MIME_STOPPED);
    EXPECT_EQ(stop_body.events, "h:multipart/mixed,h:text/plain,b1:00000001.TXT,");
    EXPECT_EQ(list_dir(out()), Strings{});

    WalkRecorder stop_header;
    stop_header.stop_header_at = 2;
    EXPECT_EQ(extract(two, stop_header), MIME_STOPPED);
    EXPECT_EQ(list_dir(out()), Strings{"00000001.TXT"});

    std::filesystem::remove_all(out());
    WalkRecorder bad;
    EXPECT_EQ(extract(message_of(kMixed, "--o\nContent-Transfer-Encoding: x-uuencode\n\nnone\n--o--\n"),
                      bad),
              MIME_DECODE_ERROR);
    EXPECT_EQ(list_dir(out()), Strings{});
}

TEST_F(PartWalkerTest, NamesFromTheMessageStayInTheDirectory) {
    std::string body;
    for (const char *name : {"../../x", "C:\\\\x\\\\y.gif", "a\x01" "b", ".."})
        body += "--o\nContent-Type: application/octet-stream; name=\"" + std::string(name) +
                "\"\n\ndata\n";
    body += "--o\nContent-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html\n\n"
            "<img src=\"cid:i\">\n--r\nContent-Type: image/gif; name=\"/etc/z.gif\"\n"
            "Content-ID: <i>\n\nGIF\n--r--\n--o--\n";
    WalkRecorder r;
    ASSERT_EQ(extract(message_of(kMixed, body), r), 1);
    EXPECT_EQ(list_dir(dir()), Strings{"out"});
    EXPECT_EQ(list_dir(out()), (Strings{"00000001.TXT", "00000001.htm", "a_b", "x", "y.gif", "z.gif"}));
    EXPECT_NE(r.events.find("b2:00000001.htm|z.gif,"), std::string::npos);
}

// Far deeper and wider than any fixed-size stack or table could hold.
constexpr int kLevels = 100000;

// kLevels multiparts each inside the one before, of types by level, then
// `leaf` and every closing delimiter.
std::string nested(const std::function<std::string(int)> &type, const std::string &leaf) {
    std::string s;
    for (int level = 1; level <= kLevels; ++level)
        s += "--b" + std::to_string(level - 1) + "x\nContent-Type: multipart/" + type(level) +
             "; boundary=b" + std::to_string(level) + "x\n\n";
    s += "--b" + std::to_string(kLevels) + "x\n" + leaf;
    for (int level = kLevels; level >= 0; --level)
        s += "--b" + std::to_string(level) + "x--\n";
    return s;
}

TEST_F(PartWalkerTest, DeepAndWideMessages) {
    std::string wide;
    for (int part = 0; part < kLevels; ++part)
        wide += "--b0x\nContent-Type: multipart/mixed; boundary=m\n\n--m\n--m--\n";
    wide += "--b0x\n" + text_part("kept\n") + "--b0x--\n";
    const struct {
        std::string top, body;
        int headers; // 0: not counted
        const char *events;
    } cases[] = {
        {"mixed", nested([](int) { return "mixed"; }, text_part("deep\n")), kLevels + 2,
         "b1:00000001.TXT,"},
        // Inner groups are skipped whole, so the group has no page to deliver.
        {"related", nested([](int l) { return l % 2 ? "alternative" : "related"; },
                           "Content-Type: text/html\n\nx\n"), 0, ""},
        {"alternative", wide, 0, "b2:00000001.txt,"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.top);
        std::filesystem::remove_all(out());
        WalkRecorder r;
        r.light = true;
        EXPECT_EQ(extract(message_of("multipart/" + c.top + "; boundary=b0x", c.body), r), 1);
        EXPECT_EQ(r.events, c.events);
        if (c.headers != 0) {
            EXPECT_EQ(r.headers, c.headers);
        }
    }
    EXPECT_EQ(read_file(out() + "00000001.txt"), "kept\r\n");
}

TEST_F(PartWalkerTest, CopyRawBodyStopsAtTheBoundaryAsWritten) {
    const std::string z600(600, 'z');
    const struct {
        std::string input;
        int32_t result;
        std::string copied, rest;
    } cases[] = {
        {"a\r\n\r\nb\r\n--B\r\n", 1, "a\r\n\r\nb\r\n", "--B\r\n"},
        {"--B\r\n", 1, "", "--B\r\n"},
        {"x\r\n--b\r\n", 0, "", ""}, // the boundary is matched in its own case
        {z600 + "\r\n--Bz\r\n", 1, z600 + "\r\n", "--Bz\r\n"},
    };
    for (const auto &c : cases) {
        tw_test::write_file(path("body"), c.input);
        tw_test::write_file(path("target"), "");
        tw::Stream in = tw::Stream::open_read(path("body"));
        EXPECT_EQ(tw::mime_copy_raw_body(in, path("target"), "--B"), c.result);
        EXPECT_EQ(read_file(path("target")), c.copied);
        char rest[700] = {};
        in.read_line(rest, sizeof rest);
        EXPECT_EQ(rest, c.rest);
    }
}

} // namespace
