// The header line readers: the MIME test, Content-type and
// Content-Transfer-Encoding lines, the type tables and the small readers.
#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "headers/reader_fixture.h"

namespace {

using tw_test::HeaderReaderFixture;

struct MimeCase {
    const char *what;
    std::string message;
    int32_t expected;
};

class HeaderReaderTest : public HeaderReaderFixture {
protected:
    // Parses `line` with `rest` behind it; the boundary and file name land in
    // the members below.
    int32_t parse(std::string line, const std::string &rest = "", mime_part_desc *desc = nullptr,
                  tw::HeaderText *raw = nullptr) {
        line.resize(std::max(line.size() + 1, tw::kHeaderLine), '\0');
        boundary[0] = '\0';
        return tw::mime_parse_content_type(stream(rest), line.data(), boundary,
                                           state().current_file_name, raw, desc);
    }
    char boundary[100] = {};
};

TEST_F(HeaderReaderTest, FileIsMime) {
    const std::string pad(260, 'x');
    const std::vector<MimeCase> cases = {
        {"both lines", "MIME-Version: 1.0\r\nContent-Type: text/plain\r\n\r\nbody\r\n", 1},
        {"LF line ends, any case", "content-type: text/plain\nmime-version: 1.0\n\n", 1},
        {"blank lines ahead are skipped", "\r\n\r\nMIME-Version: 1.0\r\nContent-Type: x\r\n", 1},
        {"version with a comment", "MIME-Version: 1.0 (made by hand)\r\nContent-Type: x\r\n", 1},
        {"version 1.1", "MIME-Version: 1.1\r\nContent-Type: text/plain\r\n", 0},
        {"type only", "Content-Type: text/plain\r\n\r\n", 0},
        {"version only", "MIME-Version: 1.0\r\n\r\n", 0},
        {"both below the first blank line",
         "From: a\r\n\r\nMIME-Version: 1.0\r\nContent-Type: text/plain\r\n", 0},
        {"folded version", "MIME-Version:\r\n 1.0\r\nContent-Type: text/plain\r\n", 0},
        {"piece of a long line counts as a line",
         "MIME-Version: 1.0\r\nX-Pad: " + pad.substr(0, 248) + "Content-Type: x\r\n", 1},
    };
    for (const MimeCase &c : cases)
        EXPECT_EQ(tw::mime_file_is_mime(stream(c.message)), c.expected) << c.what;
}

TEST_F(HeaderReaderTest, TypeAndSubtypeAsWritten) {
    EXPECT_EQ(parse("Content-type:  Text/Plain ; charset=x\r\n"), 0);
    EXPECT_STREQ(state().current_type, "Text");
    EXPECT_STREQ(state().current_subtype, "Plain");

    parse("Content-type: text /plain (a comment)\r\n");
    EXPECT_STREQ(state().current_type, "text ");
    EXPECT_STREQ(state().current_subtype, "plain(acomment)");
    EXPECT_EQ(tw::mime_type_code(), 23);

    parse("Content-type " + std::string(300, 't') + "/" + std::string(300, 's'));
    EXPECT_STREQ(state().current_type, "") << "no colon: an empty value";
    parse("Content-type: " + std::string(300, 't') + "/" + std::string(300, 's'), "", &desc());
    EXPECT_EQ(std::string(state().current_type), std::string(99, 't'));
    EXPECT_EQ(std::string(state().current_subtype), std::string(99, 's'));
    EXPECT_EQ(std::string(desc().content_type), std::string(19, 't'));
}

TEST_F(HeaderReaderTest, MultipartBoundary) {
    EXPECT_EQ(parse("Content-Type: multipart/mixed; boundary=abc\r\n"), 1);
    EXPECT_STREQ(boundary, "--abc");
    EXPECT_EQ(parse("Content-Type: MULTIPART/mixed; boundary=\"a b\"\r\n"), 1);
    EXPECT_STREQ(boundary, "--a b");
    const std::string long_boundary(120, 'b');
    EXPECT_EQ(parse("Content-Type: multipart/mixed; boundary=\"" + long_boundary + "\""), 1);
    EXPECT_EQ(std::string(boundary), "--" + std::string(89, 'b'));

    // The head of a line longer than a line read does not see the
    // parameters of its tail, which the caller reads as a line of its own.
    const std::string head = "Content-Type: multipart/mixed; x-pad=";
    EXPECT_EQ(parse(head + std::string(511 - head.size(), 'p'), "; boundary=abc\r\n"), 1);
    EXPECT_STREQ(boundary, "");
    EXPECT_EQ(next_line(), "; boundary=abc\r\n");

    // Without a ';' on the line itself the next line is not looked at.
    EXPECT_EQ(parse("Content-Type: multipart/mixed\r\n", " boundary=abc\r\n"), 0);
    EXPECT_STREQ(boundary, "");
    EXPECT_EQ(next_line(), " boundary=abc\r\n");
}

TEST_F(HeaderReaderTest, ListStartingOnTheNextLineIsConsumedWhateverItIs) {
    tw::HeaderText raw;
    EXPECT_EQ(
        parse("Content-Type: multipart/mixed;\r\n", "\tboundary=abc\r\nX: y\r\n", nullptr, &raw),
        1);
    EXPECT_STREQ(boundary, "--abc");
    EXPECT_EQ(raw.view(), "\tboundary=abc\r\n");
    EXPECT_EQ(next_line(), "X: y\r\n");

    // A line that is no continuation is taken all the same.
    parse("Content-Type: text/plain;\r\n", "Content-Transfer-Encoding: base64\r\n\r\nbody\r\n");
    EXPECT_EQ(next_line(), "\r\n");
    EXPECT_EQ(header_file_text(), "\tboundary=abc\r\nContent-Transfer-Encoding: base64\r\n");
}

TEST_F(HeaderReaderTest, RelatedParametersReachTheRecord) {
    // The boundary search takes the continuation line; start, on that line
    // too, is still read into the record.
    EXPECT_EQ(parse("Content-Type: multipart/related; type=\"text/html\";",
                    " boundary=\"xyz\"; start=\"<a@b>\"\r\nNext: line\r\n", &desc()),
              1);
    EXPECT_STREQ(boundary, "--xyz");
    EXPECT_STREQ(desc().type, "text/html");
    EXPECT_STREQ(desc().start, "<a@b>");
    EXPECT_STREQ(desc().content_type, "multipart");
    EXPECT_EQ(next_line(), "Next: line\r\n");
}

TEST_F(HeaderReaderTest, ContentTypeNameIsDecodedAndOverridesAnEarlierName) {
    std::strcpy(state().current_file_name, "from-disposition.txt");
    parse("Content-Type: text/plain; name=\"=?utf-8?B?w6kudHh0?=\"\r\n");
    EXPECT_STREQ(state().current_file_name, "\xc3\xa9.txt");
    EXPECT_EQ(state().file_name_found, 1);
}

TEST_F(HeaderReaderTest, PartialLineGoesToThePartialReader) {
    EXPECT_EQ(parse("Content-Type: message/partial; number=2; id=\"x\"\r\n", "", &desc()), 0);
    EXPECT_EQ(state().partial_number, 2);
    EXPECT_EQ(desc().parameters.partial.part_number, 2);
}

TEST(HeaderReader, TransferEncoding) {
    struct Case {
        const char *line;
        int32_t result, encoding, state;
    };
    const std::vector<Case> cases = {
        {"Content-Transfer-Encoding: base64\r\n", 1, 2, 2},
        {"Content-Transfer-Encoding: Quoted-Printable\r\n", 1, 3, 3},
        {"Content-Transfer-Encoding: x-uuencode", 1, 4, 4},
        {"Content-Transfer-Encoding: bin ary\r\n", 0, 6, 0},
        {"Content-Transfer-Encoding: base 64\r\n", 1, 2, 2},
        {"Content-Transfer-Encoding:\tbase64\r\n", 0, 0, 0},
        {"Content-Transfer-Encoding: uuencode\r\n", 0, 0, 0},
        {"Content-Transfer-Encoding: 7bit\r\n", 0, 0, 0},
        {"Content-Transfer-Encoding base64\r\n", 0, 0, 0},
    };
    for (const Case &c : cases) {
        tw::run_state().transfer_encoding = 9;
        int32_t encoding = 9;
        EXPECT_EQ(tw::mime_parse_transfer_encoding(c.line, encoding), c.result) << c.line;
        EXPECT_EQ(encoding, c.encoding) << c.line;
        EXPECT_EQ(tw::run_state().transfer_encoding, c.state) << c.line;
    }
    const std::string long_value = "Content-Transfer-Encoding: " + std::string(500, 'b');
    int32_t encoding = 9;
    EXPECT_EQ(tw::mime_parse_transfer_encoding(long_value.c_str(), encoding), 0);
}

TEST(HeaderReader, TypeCodesAndExtensions) {
    struct Case {
        const char *type, *subtype;
        int32_t code;
        const char *extension;
    };
    // Case does not count; each type has its catch-all; others keep theirs.
    const std::vector<Case> cases = {
        {"IMAGE", "JPEG", 11, "jpg"},           {"image", "png", 11, "bmp"},
        {"audio", "basic", 16, "wav"},          {"video", "mpeg", 14, "mpg"},
        {"text", "richtext", 2, "rtx"},         {"text", "html", 2, "txt"},
        {"application", "msword", 22, "doc"},   {"application", "pdf", 22, "txt"},
        {"message", "rfc822", 3, "old"},        {"model", "vrml", 23, "old"},
    };
    for (const Case &c : cases) {
        std::strcpy(tw::run_state().current_type, c.type);
        std::strcpy(tw::run_state().current_subtype, c.subtype);
        char extension[10] = "old";
        EXPECT_EQ(tw::mime_type_code(), c.code) << c.type;
        tw::mime_extension_for_type(extension);
        EXPECT_STREQ(extension, c.extension) << c.type << "/" << c.subtype;
    }
}

TEST(HeaderReader, SmallReaders) {
    char value[8];
    tw::mime_header_value("X-Mailer: \t ab  \r\n", value);
    EXPECT_STREQ(value, "ab  ");
    tw::mime_header_value("X-Mailer: a much longer value\r\n", value);
    EXPECT_STREQ(value, "a much ");
    tw::mime_header_value("no colon here\r\n", value);
    EXPECT_STREQ(value, "");

    const char *items = "12 text, 45 uuencode";
    char word[6];
    int32_t count = 0;
    const int32_t used = tw::mime_encoding_item(items, count, word);
    EXPECT_EQ(count, 12);
    EXPECT_STREQ(word, "text");
    EXPECT_EQ(used, 7);
    tw::mime_encoding_item(items + used, count, word);
    EXPECT_EQ(count, 45);
    EXPECT_STREQ(word, "uuenc") << "cut at the buffer";

    EXPECT_EQ(tw::mime_decimal_value(" \t\r\n42abc"), 42);
    EXPECT_EQ(tw::mime_decimal_value("-5"), 0);
    EXPECT_EQ(tw::mime_decimal_value(""), 0);
    EXPECT_EQ(tw::mime_decimal_value("99999999999999"), INT32_MAX);
}

} // namespace
