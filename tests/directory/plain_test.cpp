#include "directory/extract_fixture.h"
#include "frame/frame.h"

namespace {

using namespace tw_test;
using Files = std::map<std::string, std::string>;
using Reports = std::vector<Reported>;

const std::string kHeader = crlf("From: Bob\nSubject: Hi\n");
const std::string kText = crlf("Dear Ann,\nsee the file.\n");
// "hi" uuencoded, as sharutils writes it apart from the backquote.
std::string block(const std::string &name, const std::string &end = "end\r\n") {
    return "begin 644 " + name + "\r\n\":&D`\r\n`\r\n" + end;
}
const std::string kMsg = "MESSAGE.$$$";

int32_t option(int32_t selector) {
    int32_t value = 0;
    mime_options(selector, reinterpret_cast<intptr_t>(&value), 0);
    return value;
}

struct PlainExtractTest : ExtractTest {};

// The text kept is always kText; each attachment is reported as kind 2.
TEST_F(PlainExtractTest, WhatComesOut) {
    const struct {
        const char *name;
        std::string encoding, body, attachment, content;
        int32_t encoding_option;
    } cases[] = {
        {"no Encoding line, no block", "", kText, "", "", MIME_OPT_ENC_NOTHING},
        {"no Encoding line, text and a block; text behind it dropped", "",
         "\r\n" + kText + block("my file.bin") + "P.S.\r\n", "my file.bin", "hi", MIME_OPT_ENC_NOTHING},
        {"Text and UUEncode items", "Encoding: 2 Text, 4 UUEncode\r\n",
         kText + "\r\n\r\n" + block("a.gif") + "x\r\n", "a.gif", "hi", MIME_ENC_UUENCODE},
        {"Text and base64 items", "Encoding: 2 Text, 1 base64\r\n", kText + "\r\naGk=\r\n",
         "00000001.ATF", "hi", MIME_OPT_ENC_NOTHING},
        {"Text and another item, a count beyond the file", "Encoding: 2 Text, 9 Richtext\r\n",
         kText + "\r\none\r\n\r\ntwo\r\n", "00000001.TXT", "one\r\n\r\ntwo\r\n", MIME_OPT_ENC_NOTHING},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        g_reported.clear();
        std::filesystem::remove_all(path("out"));
        ASSERT_EQ(extract(kHeader + c.encoding + "\r\n" + c.body), 1);
        Files want{{kMsg, kHeader + c.encoding + "\r\n" + kText}};
        Reports reports{{kMsg, 0, 0}};
        if (!c.attachment.empty()) {
            want[c.attachment] = c.content;
            reports.emplace_back(c.attachment, 0, 2);
        }
        EXPECT_EQ(files(), want);
        EXPECT_EQ(reported(), reports);
        EXPECT_EQ(option(MIME_OPT_GET_PART_COUNT), c.attachment.empty() ? 0 : 1);
        EXPECT_EQ(option(MIME_OPT_GET_ENCODING), c.encoding_option);
    }
}

TEST_F(PlainExtractTest, BlockRules) {
    const std::string lines1023 = std::string(1023, 'x'); // with its line end: two reads
    const struct {
        const char *name;
        std::string body;
        Files attachments; // beside MESSAGE.$$$
        std::string text;  // what MESSAGE.$$$ holds behind the header, "" for the whole message
    } cases[] = {
        {"a mode of two digits or an 8 is text", "begin 64 a\r\nbegin 648 b\r\n", {}, ""},
        {"no end line: to the end of the file", "t\r\nbegin 644 a\r\n\":&D`\r\n", {{"a", "hi"}}, "t\r\n"},
        {"END in any case, two blocks",
         "t\r\n" + block("a", "ENDING\r\n") + "between\r\n" + block("b c ") + "behind\r\n",
         {{"a", "hi"}, {"b c", "hi"}},
         "t\r\n"},
        {"hostile names stay in the directory",
         "t\r\n" + block("../../up") + block("/etc/abs") + block("a\\b") + block(".."),
         {{"up", "hi"}, {"abs", "hi"}, {"b", "hi"}, {"00000001.ATF", "hi"}},
         "t\r\n"},
        {"long lines go as they are", lines1023 + "\r\n" + block("a"), {{"a", "hi"}}, lines1023 + "\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(path("out"));
        const std::string message = kHeader + "\r\n" + c.body;
        ASSERT_EQ(extract(message), 1);
        Files expected = c.attachments;
        expected[kMsg] = c.text.empty() ? message : kHeader + "\r\n" + c.text;
        EXPECT_EQ(files(), expected);
        EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"message.eml", "out"}));
    }
}

TEST_F(PlainExtractTest, EncodingItemRules) {
    const struct {
        const char *name;
        std::string message;
        Files files;
    } cases[] = {
        {"ends inside its header", "Encoding: 1 Text\r\nTo: x\r\n", {{kMsg, "Encoding: 1 Text\r\nTo: x\r\n"}}},
        {"no text item: lines in front of begin are counted, not kept",
         "Encoding: 5 UUEncode\r\n\r\njunk\r\n" + block("a") + "ignored\r\n",
         {{kMsg, "Encoding: 5 UUEncode\r\n"}, {"a", "hi"}}},
        {"first count 0: items from the start, a count of 0 loses its line",
         "Encoding: 0 Text, 1 X\r\n\r\nlost\r\nkept\r\n",
         {{kMsg, "Encoding: 0 Text, 1 X\r\n"}, {"00000001.TXT", ""}, {"00000002.TXT", "kept\r\n"}}},
        {"a bare begin inside an item, the last Encoding line counts",
         "Encoding: 7 Text\r\nEncoding: 1 Text, 3 UUEncode\r\n\r\nt\r\nbegin\r\n\":&D`\r\n`\r\n",
         {{kMsg, "Encoding: 7 Text\r\nEncoding: 1 Text, 3 UUEncode\r\n\r\nt\r\n"}, {"00000001.ATF", "hi"}}},
        {"a line of over 1023 bytes is two lines of an item",
         "Encoding: 1 Text, 1 X\r\n\r\n" + std::string(1023, 'y') + "zz\r\nnext\r\n",
         {{kMsg, "Encoding: 1 Text, 1 X\r\n\r\n" + std::string(1023, 'y')}, {"00000001.TXT", "zz\r\n"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(path("out"));
        ASSERT_EQ(extract(c.message), 1);
        EXPECT_EQ(files(), c.files);
    }
}

TEST_F(PlainExtractTest, TakenNameLeavesTheAtfFile) {
    const std::string message = kHeader + "\r\nt\r\n" + block("a.gif");
    write_file(fresh("out") + "a.gif", "mine");
    write_file(path("message.eml"), message);
    ASSERT_EQ(extract_message(path("message.eml").c_str(), record_file, path("out").c_str()), 1);
    EXPECT_EQ(files(), (Files{{"a.gif", "mine"}, {"00000001.ATF", "hi"}, {kMsg, kHeader + "\r\nt\r\n"}}));
    EXPECT_EQ(reported().back(), Reported("00000001.ATF", 0, 2));
    char name[256] = {};
    ASSERT_EQ(mime_options(MIME_OPT_GET_FILE_NAME, reinterpret_cast<intptr_t>(name), 0), MIME_OK);
    EXPECT_STREQ(name, "a.gif");
}

// extract_message_x: the begin line's name is told for a decoded block, an
// empty one otherwise, every file is fed and goes; a stopping sink makes
// the result 0.
TEST_F(PlainExtractTest, ExtractMessageX) {
    const std::string message =
        kHeader + "Encoding: 1 Text, 4 UUEncode, 1 X\r\n\r\nt\r\n" + block("../a b") + "\r\nz\r\n";
    for (std::size_t piece : {1u, 7u, 4096u}) {
        SCOPED_TRACE(piece);
        g_reported.clear();
        for (std::size_t at = 0; at < message.size(); at += piece)
            ASSERT_EQ(extract_message_x(message.data() + at,
                                        static_cast<int32_t>(std::min(piece, message.size() - at)),
                                        nullptr, nullptr), 1);
        ASSERT_EQ(extract_message_x(nullptr, 0, record_file, record_bytes), 1);
        ASSERT_EQ(g_reported.size(), 3u);
        EXPECT_EQ(g_reported[0], Reported("", 0, 0));
        EXPECT_EQ(g_reported[0].bytes, kHeader + "Encoding: 1 Text, 4 UUEncode, 1 X\r\n\r\nt\r\n");
        EXPECT_EQ(g_reported[1], Reported("../a b", 0, 2));
        EXPECT_EQ(g_reported[1].bytes, "hi");
        EXPECT_EQ(g_reported[2].bytes, "z\r\n");
        EXPECT_EQ(list_dir(tw::application_directory()), std::vector<std::string>{});
    }
    g_reported.clear();
    g_stop_at = 1;
    ASSERT_EQ(extract_message_x(message.data(), static_cast<int32_t>(message.size()), nullptr, nullptr), 1);
    EXPECT_EQ(extract_message_x(nullptr, 0, record_file, record_bytes), 0);
    EXPECT_EQ(g_reported.size(), 2u) << "the reading stops";
}

} // namespace
