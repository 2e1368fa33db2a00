#include "walkers/walkers.h"

#include "walkers/walk_fixture.h"

namespace {

using tw_test::crlf;
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
        Strings contents; // of the files delivered, in order
    } cases[] = {
        // A nested mixed, and the walk up to the outer boundary behind it.
        {"--o\n" + text_part("one\n") + "--o\nContent-Type: multipart/mixed; boundary=i\n\n"
         "--i\n" + text_part("two\n") + "--i--\n\n--o\n" + text_part("three\n") + "--o--\n",
         "h:multipart/mixed,h:text/plain,b1:00000001.TXT,h:multipart/mixed,h:text/plain,"
         "b1:00000002.TXT,h:text/plain,b1:00000003.TXT,",
         {"one\r\n", "two\r\n", "three\r\n"}},
        // Two closing delimiters in a row end the walk; what follows is not read.
        {"--o\nContent-Type: multipart/mixed; boundary=i\n\n--i\n" + text_part("in\n") +
             "--i--\n--o--\n--o\n" + text_part("not read\n"),
         "h:multipart/mixed,h:multipart/mixed,h:text/plain,b1:00000001.TXT,", {"in\r\n"}},
        // No header: no header_cb, the body from its first non-blank line.
        {"--o\n\n\nbare\n--o--\n", "h:multipart/mixed,b1:00000001.TXT,", {"bare\r\n"}},
        // An embedded message flattens into the walk.
        {"--o\nContent-Type: message/rfc822\n\nSubject: inner\n" + text_part("inner body\n") +
             "--o--\n",
         "h:multipart/mixed,h:message/rfc822,h:text/plain,b1:00000001.TXT,", {"inner body\r\n"}},
        // A related group inside: delivered as a group, then the walk goes on.
        {"--o\nContent-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html\n\n"
         "<img src=\"cid:a\">\n--r\nContent-ID: <a>\nContent-Type: image/gif\n\nGIF\n--r--\n"
         "--o\n" + text_part("after\n") + "--o--\n",
         "h:multipart/mixed,h:multipart/related,b2:00000001.htm|00000001.gif,h:text/plain,"
         "b1:00000002.TXT,",
         {"<img src=\"00000001.gif\">\r\n", "after\r\n"}},
        // Decoders: Base64 (text behind its end passed over), binary as it
        // stands, a delimiter in another case, no closing delimiter.
        {"--o\nContent-Transfer-Encoding: base64\n\naGk=\n\nignored\n--O\n"
         "Content-Transfer-Encoding: binary\n\na\n\nb\n--o\n" + text_part("last\n"),
         "h:multipart/mixed,h:/,b1:00000001.TXT,h:/,b1:00000002.TXT,h:text/plain,"
         "b1:00000003.TXT,",
         {"hi", "a\r\n\r\nb\r\n", "last\r\n"}},
        // BinHex goes by its type, whatever the encoding line says; the walk
        // passes over what follows the block's closing ':'.
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
        for (std::size_t at = 0; (at = r.events.find("b1:", at)) != std::string::npos;) {
            const std::size_t end = r.events.find(',', at);
            contents.push_back(read_file(out() + r.events.substr(at + 3, end - at - 3)));
            at = end;
        }
        if (r.events.find("b2:00000001.htm") != std::string::npos)
            contents.insert(contents.begin(), read_file(out() + "00000001.htm"));
        EXPECT_EQ(contents, c.contents);
    }
}

TEST_F(PartWalkerTest, FailuresRemoveThePartInProgress) {
    const std::string two = message_of(kMixed, "--o\n" + text_part("x\n") + "--o\n" +
                                                   text_part("y\n") + "--o--\n");
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
    EXPECT_EQ(extract(message_of(kMixed, "--o\nContent-Transfer-Encoding: x-uuencode\n\n"
                                         "nothing to decode\n--o--\n"),
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
    EXPECT_EQ(list_dir(out()), (Strings{"00000001.TXT", "00000001.htm", "a_b", "x", "y.gif",
                                        "z.gif"}));
    EXPECT_NE(r.events.find("b2:00000001.htm|z.gif,"), std::string::npos);
}

// Deep and wide messages return with a status; nothing grows per level but
// a counter, so these run in linear time.
constexpr int kLevels = 100000;

TEST_F(PartWalkerTest, HundredThousandNestedLevels) {
    std::string deep;
    for (int level = 1; level <= kLevels; ++level)
        deep += "--b" + std::to_string(level - 1) + "x\nContent-Type: multipart/mixed; boundary=b" +
                std::to_string(level) + "x\n\n";
    deep += "--b" + std::to_string(kLevels) + "x\n" + text_part("deep\n");
    for (int level = kLevels; level >= 0; --level)
        deep += "--b" + std::to_string(level) + "x--\n";
    WalkRecorder r;
    r.light = true;
    EXPECT_EQ(extract(message_of("multipart/mixed; boundary=b0x", deep), r), 1);
    EXPECT_EQ(r.headers, kLevels + 2);
    EXPECT_EQ(r.events, "b1:00000001.TXT,");
    EXPECT_EQ(read_file(out() + "00000001.TXT"), crlf("deep\n"));
}

// Related and alternative alternating as deep: the inner ones are skipped
// whole, and the group has no page to deliver.
TEST_F(PartWalkerTest, GroupsAlternatingAsDeep) {
    std::string alternating;
    for (int level = 1; level <= kLevels; ++level)
        alternating += "--g" + std::to_string(level - 1) + "x\nContent-Type: multipart/" +
                       (level % 2 ? "alternative" : "related") + "; boundary=g" +
                       std::to_string(level) + "x\n\n";
    alternating += "--g" + std::to_string(kLevels) + "x\nContent-Type: text/html\n\nx\n";
    for (int level = kLevels; level >= 0; --level)
        alternating += "--g" + std::to_string(level) + "x--\n";
    WalkRecorder a;
    a.light = true;
    EXPECT_EQ(extract(message_of("multipart/related; boundary=g0x", alternating), a), 1);
    EXPECT_EQ(a.events, "");
}

TEST_F(PartWalkerTest, HundredThousandPartsInAGroup) {
    std::string wide;
    for (int part = 0; part < kLevels; ++part)
        wide += "--g\nContent-Type: multipart/mixed; boundary=m\n\n--m\n--m--\n";
    wide += "--g\n" + text_part("kept\n") + "--g--\n";
    WalkRecorder w;
    w.light = true;
    EXPECT_EQ(extract(message_of("multipart/alternative; boundary=g", wide), w), 1);
    EXPECT_EQ(w.events, "b2:00000001.txt,");
}

TEST_F(PartWalkerTest, CopyRawBodyStopsAtTheBoundaryAsWritten) {
    const std::string source = path("body");
    const struct {
        std::string input;
        int32_t result;
        std::string copied, rest;
    } cases[] = {
        {"a\r\n\r\nb\r\n--B\r\n", 1, "a\r\n\r\nb\r\n", "--B\r\n"},
        {"--B\r\n", 1, "", "--B\r\n"},
        {"x\r\n--b\r\n", 0, "", ""}, // the boundary is matched in its own case
        {std::string(600, 'z') + "\r\n--Bz\r\n", 1, std::string(600, 'z') + "\r\n", "--Bz\r\n"},
    };
    for (const auto &c : cases) {
        tw_test::write_file(source, c.input);
        tw_test::write_file(path("target"), "");
        tw::Stream in = tw::Stream::open_read(source);
        EXPECT_EQ(tw::mime_copy_raw_body(in, path("target"), "--B"), c.result);
        EXPECT_EQ(read_file(path("target")), c.copied);
        char rest[700] = {};
        in.read_line(rest, sizeof rest);
        EXPECT_EQ(rest, c.rest);
    }
}

} // namespace
