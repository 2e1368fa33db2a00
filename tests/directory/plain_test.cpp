#include "directory/extract_fixture.h"
#include "frame/frame.h"

namespace {

using namespace tw_test;
using Files = std::map<std::string, std::string>;

const std::string kHeader = crlf("From: Bob\nSubject: Hi\n");
const std::string kText = crlf("Dear Ann,\nsee the file.\n");
const std::string kMsg = "MESSAGE.$$$";
// "hi" uuencoded, as sharutils writes it apart from the backquote.
std::string block(const std::string &name, const std::string &end = "end\r\n") {
    return "begin 644 " + name + "\r\n\":&D`\r\n`\r\n" + end;
}

int32_t option(int32_t selector) {
    int32_t value = 0;
    mime_options(selector, reinterpret_cast<intptr_t>(&value), 0);
    return value;
}

using PlainExtractTest = ExtractTest;

// Every file but the text is reported, as kind 2, and counts as a part.
TEST_F(PlainExtractTest, WhatComesOut) {
    const std::string long_line(1023, 'x'); // with its line end: two reads
    const std::string text = kHeader + "\r\nt\r\n";
    const struct {
        const char *name;
        std::string message;
        Files files;
        int32_t encoding_option = MIME_OPT_ENC_NOTHING;
    } cases[] = {
        {"no Encoding line, no block", kHeader + "\r\n" + kText, {{kMsg, kHeader + "\r\n" + kText}}},
        {"no Encoding line, text and a block; text behind it dropped",
         kHeader + "\r\n\r\n" + kText + block("my file.bin") + "P.S.\r\n",
         {{kMsg, kHeader + "\r\n" + kText}, {"my file.bin", "hi"}}},
        {"Text and UUEncode items",
         kHeader + "Encoding: 2 Text, 4 UUEncode\r\n\r\n" + kText + "\r\n\r\n" + block("a.gif") + "x\r\n",
         {{kMsg, kHeader + "Encoding: 2 Text, 4 UUEncode\r\n\r\n" + kText}, {"a.gif", "hi"}}, MIME_ENC_UUENCODE},
        {"Text and base64 items", kHeader + "Encoding: 2 Text, 1 base64\r\n\r\n" + kText + "\r\naGk=\r\n",
         {{kMsg, kHeader + "Encoding: 2 Text, 1 base64\r\n\r\n" + kText}, {"00000001.ATF", "hi"}}},
        {"Text and another item, a count beyond the file",
         kHeader + "Encoding: 2 Text, 9 Richtext\r\n\r\n" + kText + "\r\none\r\n\r\ntwo\r\n",
         {{kMsg, kHeader + "Encoding: 2 Text, 9 Richtext\r\n\r\n" + kText}, {"00000001.TXT", "one\r\n\r\ntwo\r\n"}}},
        {"a mode of two digits or an 8 is text", kHeader + "\r\nbegin 64 a\r\nbegin 648 b\r\n",
         {{kMsg, kHeader + "\r\nbegin 64 a\r\nbegin 648 b\r\n"}}},
        {"no end line: to the end of the file", text + "begin 644 a\r\n\":&D`\r\n", {{kMsg, text}, {"a", "hi"}}},
        {"END in any case, two blocks", text + block("a", "ENDING\r\n") + "between\r\n" + block("b c ") + "behind\r\n",
         {{kMsg, text}, {"a", "hi"}, {"b c", "hi"}}},
        {"hostile names stay in the directory",
         text + block("../../up") + block("/etc/abs") + block("a\\b") + block(".."),
         {{kMsg, text}, {"up", "hi"}, {"abs", "hi"}, {"b", "hi"}, {"00000001.ATF", "hi"}}},
        {"long lines go as they are", kHeader + "\r\n" + long_line + "\r\n" + block("a"),
         {{kMsg, kHeader + "\r\n" + long_line + "\r\n"}, {"a", "hi"}}},
        {"an item ends inside its header", "Encoding: 1 Text\r\nTo: x\r\n", {{kMsg, "Encoding: 1 Text\r\nTo: x\r\n"}}},
        {"no text item: lines in front of begin are counted, not kept",
         "Encoding: 5 UUEncode\r\n\r\njunk\r\n" + block("a") + "ignored\r\n",
         {{kMsg, "Encoding: 5 UUEncode\r\n"}, {"a", "hi"}}, MIME_ENC_UUENCODE},
        {"first count 0: items from the start, a count of 0 loses its line",
         "Encoding: 0 Text, 1 X\r\n\r\nlost\r\nkept\r\n",
         {{kMsg, "Encoding: 0 Text, 1 X\r\n"}, {"00000001.TXT", ""}, {"00000002.TXT", "kept\r\n"}}},
        {"a bare begin inside an item, the last Encoding line counts",
         "Encoding: 7 Text\r\nEncoding: 1 Text, 3 UUEncode\r\n\r\nt\r\nbegin\r\n\":&D`\r\n`\r\n",
         {{kMsg, "Encoding: 7 Text\r\nEncoding: 1 Text, 3 UUEncode\r\n\r\nt\r\n"}, {"00000001.ATF", "hi"}},
         MIME_ENC_UUENCODE},
        {"a line of over 1023 bytes is two lines of an item",
         "Encoding: 1 Text, 1 X\r\n\r\n" + std::string(1023, 'y') + "zz\r\nnext\r\n",
         {{kMsg, "Encoding: 1 Text, 1 X\r\n\r\n" + std::string(1023, 'y')}, {"00000001.TXT", "zz\r\n"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        g_reported.clear();
        std::filesystem::remove_all(path("out"));
        ASSERT_EQ(extract(c.message), 1);
        EXPECT_EQ(files(), c.files);
        Files told = {{kMsg, c.files.at(kMsg)}}; // the text goes unreported when it holds no text
        for (const Reported &r : reported())
            told[r.name] = r.type == (r.name == kMsg ? 0 : 2) ? c.files.at(r.name) : "wrong kind";
        EXPECT_EQ(told, c.files);
        if (c.message.find(kText) != std::string::npos) {
            EXPECT_EQ(reported().at(0), Reported(kMsg, 0, 0));
        }
        EXPECT_EQ(option(MIME_OPT_GET_PART_COUNT), static_cast<int32_t>(c.files.size() - 1));
        EXPECT_EQ(option(MIME_OPT_GET_ENCODING), c.encoding_option);
        EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"message.eml", "out"}));
    }
}

TEST_F(PlainExtractTest, TakenNameLeavesTheAtfFile) {
    write_file(fresh("out") + "a.gif", "mine");
    write_file(path("message.eml"), kHeader + "\r\nt\r\n" + block("a.gif"));
    ASSERT_EQ(extract_message(path("message.eml").c_str(), record_file, path("out").c_str()), 1);
    EXPECT_EQ(files(), (Files{{"a.gif", "mine"}, {"00000001.ATF", "hi"}, {kMsg, kHeader + "\r\nt\r\n"}}));
    EXPECT_EQ(reported().back(), Reported("00000001.ATF", 0, 2));
    char name[256] = {};
    ASSERT_EQ(mime_options(MIME_OPT_GET_FILE_NAME, reinterpret_cast<intptr_t>(name), 0), MIME_OK);
    EXPECT_STREQ(name, "a.gif");
}

TEST_F(PlainExtractTest, ExtractMessageX) {
    const std::string text = kHeader + "Encoding: 1 Text, 4 UUEncode, 1 X\r\n\r\nt\r\n";
    const std::string message = text + block("../a b") + "\r\nz\r\n";
    for (std::size_t piece : {1u, 7u, 4096u}) {
        SCOPED_TRACE(piece);
        g_reported.clear();
        for (std::size_t at = 0; at < message.size(); at += piece)
            ASSERT_EQ(extract_message_x(message.data() + at, static_cast<int32_t>(std::min(piece, message.size() - at)),
                                        nullptr, nullptr), 1);
        ASSERT_EQ(extract_message_x(nullptr, 0, record_file, record_bytes), 1);
        // Only a decoded block tells its begin line's name; every item is kind 2.
        ASSERT_EQ(g_reported, (std::vector<Reported>{{"", 0, 0}, {"../a b", 0, 2}, {"", 0, 2}}));
        EXPECT_EQ(g_reported[0].bytes, text);
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
