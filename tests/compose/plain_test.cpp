#include "compose/compose_fixture.h"

namespace {

using namespace tw_compose_test;
using tw_test::list_dir;
using tw_test::write_file;

const std::string kAddress = crlf(std::string("From: Bob\nDate: ") + kDate + "\nTo: Ann\nSubject: Hello\n");
// 60 zero bytes: a full data line of backquotes and one of 15 bytes.
const std::string kGifBlock =
    "\r\n\r\nbegin 644 a.gif\r\nM" + std::string(60, '`') + "\r\n/" + std::string(20, '`') + "\r\n`\r\nend\r\n";
const mime_part_desc kNoPart{};

// Every answer but 0, -1 and 20 hands over its record, 19 included.
int32_t plain_next(mime_part_info *info) {
    g.log.push_back("next");
    if (g.parts.empty())
        return 0;
    const Part p = g.parts.front();
    g.parts.pop_front();
    if (p.answer > 0 && p.answer != MIME_PART_RAW)
        fill(*info, p);
    return p.answer;
}

Part attach(std::string encoding, std::string filename = "", int32_t answer = 1) {
    return {.answer = answer, .encoding = encoding, .filename = filename};
}

int32_t g_extra_answer = 0;
int32_t extra_header(char *buffer, int32_t) {
    if (g_extra_answer == 0)
        return 0;
    const int32_t answer = std::exchange(g_extra_answer, 0);
    std::strcpy(buffer, "X-One: 1\r\nX-Two: 2\n\n");
    return answer < 0 ? answer : 20;
}

struct PlainTest : ComposeTest {
    void SetUp() override {
        ComposeTest::SetUp();
        write_file("a.gif", std::string(60, '\0'));
        g_extra_answer = 0;
    }
    static int32_t compose() {
        mime_part_info none{};
        return create_message("Ann", "Bob", "Hello", nullptr, nullptr, &none, kMessage, plain_next, body_cb,
                              done_cb, extra_header, 0, 0);
    }
    // The driver's own status, for the failures.
    static int32_t compose_status() {
        tw::ComposeCallbacks cb;
        cb.next_part = plain_next, cb.body = body_cb, cb.done = done_cb, cb.extra_header = extra_header;
        return tw::mime_compose({"Ann", "Bob", "Hello", nullptr, nullptr}, kNoPart, kMessage, {}, cb, false, false);
    }
};

TEST_F(PlainTest, WorkedExampleByteForByte) {
    script({attach("uuencode", dir() + "a.gif")}, {"Hi there\r\n"});
    ASSERT_EQ(compose(), 1);
    EXPECT_EQ(message(), kAddress + "Encoding: 1 Text, 5 UUEncode\r\n\r\nHi there\r\n" + kGifBlock);
    // done_cb comes once, before the first attachment, without the attachments and the Encoding line.
    EXPECT_EQ(g.log, (Names{"body", "body", "done", "next", "body", "next"}));
    ASSERT_EQ(g.done.size(), 1u);
    EXPECT_EQ(g.done[0].lines, 7);
    EXPECT_EQ(g.done[0].bytes, static_cast<int32_t>(kAddress.size() + 10));
    EXPECT_EQ(list_dir(dir()), (Names{"a.gif", kMessage})) << "no work file stays";
}

TEST_F(PlainTest, EncodingLineAndBodyPieces) {
    const std::string three = "one\r\ntwo\r\nthree\r\n";
    const struct {
        const char *name;
        std::vector<Part> parts;
        std::vector<std::string> bodies;
        std::string encoding, body;
    } cases[] = {
        {"nothing at all", {}, {}, "", ""},
        {"one attachment, no text", {attach("uuencode", "a.gif")}, {}, "5 UUEncode", kGifBlock},
        {"three Text items, bytes and 20", {attach("", "", MIME_PART_RAW), attach("TEXT")},
         {three, "", "x\r\n", "", "y\r\nz\r\n"}, "3 Text, 1 Text, 2 Text", three + "\r\n\r\nx\r\n\r\n\r\ny\r\nz\r\n"},
        {"a dropped record keeps its separator",
         {attach("base64", "a.gif"), attach("uuencode", "a.gif", MIME_PART_END_MULTIPART)}, {"t\r\n"},
         "1 Text, , 5 UUEncode", "t\r\n" + kGifBlock},
        // The 0x1A still counts as a line.
        {"a named file, last name in the begin line, 0x1A dropped", {attach("uuencode"), attach("", "", MIME_PART_RAW)},
         {"", "@" + path("a.gif"), "end\r\n\x1A"}, "5 UUEncode, 2 Text", kGifBlock + "\r\n\r\nend\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        script(c.parts, c.bodies);
        ASSERT_EQ(compose(), 1);
        const std::string line = c.encoding.empty() ? "" : "Encoding: " + c.encoding + "\r\n";
        EXPECT_EQ(message(), kAddress + line + "\r\n" + c.body);
        EXPECT_EQ(list_dir(dir()), (Names{"a.gif", kMessage}));
    }
}

TEST_F(PlainTest, AppendsAndCountsExtraHeaderLines) {
    script({}, {"b\r\n"});
    write_file(kMessage, "old\r\n");
    g_extra_answer = 1;
    ASSERT_EQ(compose(), 1);
    EXPECT_EQ(message(), "old\r\n" + kAddress + "X-One: 1\r\nX-Two: 2\n\nEncoding: 1 Text\r\n\r\nb\r\n");
    EXPECT_EQ(g.done.at(0).lines, 9) << "CR LF and LF LF count, a lone LF does not: 4 + 2 + 1 + 2";
}

TEST_F(PlainTest, FailuresLeaveTheMessageUntouched) {
    const struct {
        const char *name;
        std::vector<Part> parts;
        std::vector<std::string> bodies;
        int32_t extra, status;
    } cases[] = {
        {"extra_header_cb", {}, {}, -1, MIME_STOPPED},
        {"body_cb of the text", {}, {"t\r\n", "!"}, 0, MIME_STOPPED},
        {"next_part_cb", {attach("text"), attach("", "", -1)}, {"t\r\n", "", "a\r\n"}, 0, MIME_STOPPED},
        {"body_cb of an attachment", {attach("text")}, {"", "bytes", "!"}, 0, MIME_STOPPED},
        {"uuencode", {attach("uuencode", "missing.bin")}, {}, 0, MIME_ENCODER_ERROR},
        {"text attachment", {attach("text", "missing.txt")}, {}, 0, MIME_FILE_ERROR},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        script(c.parts, c.bodies);
        write_file(kMessage, "old\r\n");
        g_extra_answer = c.extra;
        EXPECT_EQ(compose_status(), c.status);
        EXPECT_EQ(message(), "old\r\n");
        EXPECT_EQ(list_dir(dir()), (Names{"a.gif", kMessage})) << "no work file, numbered ones included";
    }
}

TEST_F(PlainTest, ExShapeHandsBackUserValue) {
    static int calls = 0, bodies = 0;
    calls = bodies = 0;
    tw::ComposeCallbacks cb;
    cb.ex_mode = true;
    cb.user_value = 77;
    cb.ex_next_part = [](mime_part_desc *record, char *extra, int32_t size, intptr_t user) -> int32_t {
        EXPECT_EQ(user, 77);
        EXPECT_EQ(extra, nullptr) << "attachments are asked for without an extra buffer";
        EXPECT_EQ(size, 0);
        if (calls++ > 0)
            return 0;
        tw::copy_field(record->encoding, "uuencode");
        tw::copy_field(record->filename, "a.gif");
        return 1;
    };
    cb.ex_body = [](char *buffer, int32_t, int32_t *is_file, intptr_t user) -> int32_t {
        EXPECT_EQ(user, 77);
        if (bodies++ > 0)
            return 0;
        *is_file = 0;
        std::memcpy(buffer, "t\r\n", 3);
        return 3;
    };
    ASSERT_EQ(tw::mime_compose({"Ann", "Bob", "Hello", nullptr, nullptr}, kNoPart, kMessage, "X-Note: yes", cb,
                               false, false), MIME_OK);
    EXPECT_EQ(message(), kAddress + "X-Note: yes\r\nEncoding: 1 Text, 5 UUEncode\r\n\r\nt\r\n" + kGifBlock);
}

} // namespace
