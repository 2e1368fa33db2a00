#include <filesystem>

#include "streaming/streaming.h"
#include "support/test_support.h"

namespace {

using tw_test::crlf;
using tw_test::read_file;
using Strings = std::vector<std::string>;

struct Seen {
    std::string events, header, bytes; // header: the text of the first header_cb
    Strings paths;
    mime_part_desc first{};
    int32_t header_answer = 0, body_answer = 0;
    int header_calls = 0;
};
Seen &of(intptr_t user) { return *reinterpret_cast<Seen *>(user); }

int32_t on_address(mime_address_lists *lists, intptr_t user) {
    of(user).events += "address(" + std::string(lists->from ? lists->from->text : "") + "),";
    return -1; // cannot stop a plain message
}

int32_t on_header(mime_part_desc *part, const char *text, int32_t length, intptr_t user) {
    Seen &s = of(user);
    if (s.header_calls++ == 0)
        s.first = *part;
    if (text != nullptr) {
        s.header.assign(text, static_cast<std::size_t>(length));
        s.events += "header,";
    } else {
        EXPECT_EQ(length, 0);
        EXPECT_EQ(part->content_type[0], '\0');
        s.events += std::string(part->encoding) + ":" + part->filename + ",";
    }
    return s.header_calls > 1 ? s.header_answer : s.header_answer == -2 ? -1 : 0;
}

int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    Seen &s = of(user);
    const std::string piece(data, static_cast<std::size_t>(length));
    if (*state != 0) {
        s.paths.push_back(piece);
        s.events += "body(" + read_file(piece) + "),";
    } else if (length > 0) {
        s.bytes += piece;
    } else {
        s.events += "body(" + std::exchange(s.bytes, {}) + "),";
    }
    return s.body_answer;
}

// TMPDIR puts byte mode's private temporary directory into the scratch, where what stays can be seen.
struct StreamPlainTest : tw_test::TempDirTest {
    void SetUp() override {
        TempDirTest::SetUp();
        ::setenv("TMPDIR", dir().c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("TMPDIR");
        TempDirTest::TearDown();
    }
    std::string out() { return dir() + "out/"; }
    int32_t run(const std::string &message, Seen &seen, bool to_directory) {
        std::filesystem::remove_all(out());
        std::filesystem::create_directory(out());
        int32_t handle = mime_extract_start(on_header, on_body, on_address, to_directory ? "./out" : nullptr,
                                            reinterpret_cast<intptr_t>(&seen));
        EXPECT_EQ(mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 0), 1);
        EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
        return mime_extract_end(&handle);
    }
};

const std::string kHead = crlf("From: Bob\nTo: Ann\n");
const std::string kBlock = crlf("begin 644 a b\n\":&D`\n`\nend\n");
const std::string kStart = "address(Bob),header,";

// Both delivery modes; bytes leave nothing behind, paths exactly the files delivered.
TEST_F(StreamPlainTest, ShapesStopsAndFailures) {
    const std::string items = kHead + "Encoding: 1 Text, 4 UUEncode\r\n\r\nt\r\n" + kBlock;
    const struct {
        const char *name;
        std::string message, events;
        int32_t header_answer = 0, body_answer = 0, result = MIME_OK;
    } cases[] = {
        {"header lines only", kHead, "body(),"},
        {"an empty spool", "", "body(),"},
        {"an Encoding line into the end", kHead + "Encoding: 1 Text\r\n", ""},
        {"a blank line and no body", kHead + "\r\n", kStart + "body(),"},
        {"the body from the line behind the blank one", kHead + "\r\n\r\nhi\r\nbegin 64 x\r\n",
         kStart + "body(\r\nhi\r\nbegin 64 x\r\n),"},
        {"text, block, text", kHead + "\r\n\r\nt\r\n" + kBlock + "gone\r\n",
         kStart + "body(t\r\n),uuencode:a b,body(hi),"},
        {"a block with no end and one more", kHead + "\r\n" + kBlock + crlf("begin 600 c\n\":&D`\n"),
         kStart + "body(),uuencode:a b,body(hi),uuencode:c,body(hi),"},
        {"Text and UUEncode items",
         kHead + "Encoding: 3 Text, 4 UUEncode\r\n\r\n" + crlf("one\n\nthree\n\n\n") + kBlock,
         kStart + "body(one\r\n\r\nthree\r\n),uuencode:a b,body(hi),"},
        {"only a UUEncode item: no text", kHead + "Encoding: 5 UUEncode\r\n\r\njunk\r\n" + kBlock + "after\r\n",
         kStart + "uuencode:a b,body(hi),"},
        {"a text count beyond the body", kHead + "Encoding: 9 Text\r\n\r\nshort\r\n", kStart + "body(short\r\n),"},
        {"a Base64 item stays as it is", kHead + "Encoding: 1 Text, 1 Base64, 1 X\r\n\r\nt\r\n\r\naGk=\r\n\r\nx\r\n",
         kStart + "body(t\r\n),text:,body(aGk=\r\n),text:,body(x\r\n),"},
        {"header_cb at the header", items, kStart, -2, 0, MIME_STOPPED},
        {"header_cb before an attachment", items, kStart + "body(t\r\n),uuencode:a b,", -1, 0, MIME_STOPPED},
        {"header_cb in the scan ends the scan only", kHead + "\r\nt\r\n" + kBlock + kBlock,
         kStart + "body(t\r\n),uuencode:a b,", -1},
        {"body_cb stops the feed", items, kStart, 0, -1, MIME_FEED_ERROR},
    };
    for (const auto &c : cases) {
        for (bool to_directory : {false, true}) {
            if (to_directory && c.body_answer != 0)
                continue; // a refused body in path mode is another road
            SCOPED_TRACE(std::string(c.name) + (to_directory ? ", paths" : ", bytes"));
            Seen seen;
            seen.header_answer = c.header_answer;
            seen.body_answer = c.body_answer;
            EXPECT_EQ(run(c.message, seen, to_directory), c.result);
            EXPECT_EQ(seen.events, c.events);
            Strings left;
            for (const std::string &p : seen.paths)
                left.push_back(p.substr(p.find_last_of('/') + 1));
            std::sort(left.begin(), left.end());
            EXPECT_EQ(tw_test::list_dir(to_directory ? out() : tw::private_temp_directory()), left);
        }
    }
}

TEST_F(StreamPlainTest, HeaderTextRecordAndNames) {
    const std::string header = kHead + crlf("Subject: =?iso-8859-1?q?Gr=FC=DFe?=\nReceived: from x\n\tby y; "
                                            "Mon, 1 Jan 1996 12:00:00 GMT\nContent-Type: text/html\n");
    const std::string up = crlf("begin 644 ../t\n\":&D`\n`\nend\n");
    Seen seen;
    ASSERT_EQ(run(header + "\r\nt\r\n" + up + up, seen, true), 1);
    EXPECT_EQ(seen.header, header);
    EXPECT_EQ(seen.first.content_type[0], '\0') << "a plain message has no type";
    const unsigned char expected[4] = {0x30, 0xE7, 0xCC, 0xC0}; // 820497600
    EXPECT_EQ(std::memcmp(seen.first.received_value, expected, 4), 0);
    // The name is confined to the directory; once taken, the number stays.
    ASSERT_EQ(seen.paths.size(), 3u);
    EXPECT_EQ(Strings(seen.paths.begin() + 1, seen.paths.end()), (Strings{out() + "t", out() + "00000001.ATF"}));
    EXPECT_EQ(seen.events.substr(seen.events.find("uuencode")), "uuencode:../t,body(hi),uuencode:../t,body(hi),");
}

} // namespace
