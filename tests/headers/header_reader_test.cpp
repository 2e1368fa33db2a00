#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "headers/reader_fixture.h"

namespace {

class HeaderReaderTest : public tw_test::HeaderReaderFixture {
protected:
    // Parses the Content-type `line` with `rest` behind it; gives the result,
    // the boundary, the header text collected and what is left unread.
    std::string parse(std::string line, const std::string &rest = "", bool record = false) {
        line.resize(std::max(line.size() + 1, tw::kHeaderLine), '\0');
        char boundary[100] = "";
        raw = tw::HeaderText();
        const int32_t result = tw::mime_parse_content_type(
            stream(rest), line.data(), boundary, state().current_file_name, &raw,
            record ? desc.get() : nullptr);
        return std::to_string(result) + "|" + boundary + "|" + std::string(raw.view()) + "|" +
               unread();
    }
    std::string type() { return std::string(state().current_type) + "|" + state().current_subtype; }
};

TEST_F(HeaderReaderTest, FileIsMime) {
    const std::pair<std::string, int32_t> cases[] = {
        {"content-type: text/plain\nmime-version: 1.0 (by hand)\n\n", 1},
        {"\r\n\r\nMIME-Version: 1.0\r\nContent-Type: x\r\n", 1}, // blank lines ahead are skipped
        {"MIME-Version: 1.1\r\nContent-Type: x\r\n", 0},
        {"MIME-Version: 1.0\r\n\r\n", 0},
        {"From: a\r\n\r\nMIME-Version: 1.0\r\nContent-Type: x\r\n", 0},
        {"MIME-Version:\r\n 1.0\r\nContent-Type: x\r\n", 0},
        {"MIME-Version: 1.0\r\nX-Pad: " + std::string(248, 'x') + "Content-Type: x\r\n", 1},
    };
    for (const auto &[message, expected] : cases)
        EXPECT_EQ(tw::mime_file_is_mime(stream(message)), expected) << message;
}

// Both keep their case and the type its blanks; the subtype loses its
// blanks, comments and all; overlong values are cut at the fields. Codes and
// extensions ignore case, and each type has its catch-all.
TEST_F(HeaderReaderTest, TypeAndSubtype) {
    const std::pair<const char *, const char *> cases[] = {
        // line, type code, extension, type|subtype
        {"Content-type:  Text/Plain ; charset=x\r\n", "2txt|Text|Plain"},
        {"Content-type: IMAGE/JPEG", "11jpg|IMAGE|JPEG"},
        {"Content-type: image/png", "11bmp|image|png"},
        {"Content-type: text /plain (a comment)", "23old|text |plain(acomment)"},
        {"Content-type text/plain", "23old||"}, // no colon: an empty value
    };
    for (const auto &[line, expected] : cases) {
        parse(line);
        char extension[10] = "old";
        tw::mime_extension_for_type(extension);
        EXPECT_EQ(std::to_string(tw::mime_type_code()) + extension + "|" + type(), expected);
    }
    parse("Content-type: " + std::string(300, 't') + "/" + std::string(300, 's'), "", true);
    EXPECT_EQ(type(), std::string(99, 't') + "|" + std::string(99, 's'));
    EXPECT_EQ(std::string(desc->content_type), std::string(19, 't'));
}

// A line without ';' leaves the next line alone; one with nothing behind
// its ';' takes the next line as its list, whatever it holds.
TEST_F(HeaderReaderTest, MultipartBoundary) {
    const std::string mixed = "Content-Type: multipart/mixed", b120(120, 'b');
    const std::string pad = mixed + "; x-pad=" + std::string(474, 'p');
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"Content-Type: MULTIPART/mixed; boundary=\"a b\"\r\n", "", "1|--a b||"},
        {mixed + "; boundary=\"" + b120 + "\"", "", "1|--" + b120.substr(31) + "||"},
        {pad, "; boundary=a\r\n", "1|||; boundary=a\r\n"}, // the tail of a long line
        {mixed + "\r\n", " boundary=abc\r\n", "0||| boundary=abc\r\n"},
        {mixed + ";\r\n", "\tboundary=abc\r\nX: y\r\n", "1|--abc|\tboundary=abc\r\n|X: y\r\n"},
        {"Content-Type: text/plain;\r\n", "Content-Transfer-Encoding: 7bit\r\n\r\n",
         "0||Content-Transfer-Encoding: 7bit\r\n|\r\n"},
    };
    for (const auto &[line, rest, expected] : cases)
        EXPECT_EQ(parse(line, rest), expected) << line;
    EXPECT_EQ(header_file_text(), "\tboundary=abc\r\nContent-Transfer-Encoding: 7bit\r\n");
}

// A related group's type and start reach the record, even from the line the
// boundary search took; a name is decoded and replaces an earlier one.
TEST_F(HeaderReaderTest, RecordNameAndPartialParameters) {
    EXPECT_EQ(parse("Content-Type: multipart/related; type=\"text/html\";",
                    " boundary=\"xyz\"; start=\"<a@b>\"\r\nNext: line\r\n", true),
              "1|--xyz| boundary=\"xyz\"; start=\"<a@b>\"\r\n|Next: line\r\n");
    EXPECT_EQ(std::string(desc->type) + "|" + desc->start, "text/html|<a@b>");
    std::strcpy(state().current_file_name, "from-disposition.txt");
    parse("Content-Type: text/plain; name=\"=?utf-8?B?w6kudHh0?=\"\r\n");
    EXPECT_STREQ(state().current_file_name, "\xc3\xa9.txt");
    EXPECT_EQ(parse("Content-Type: message/partial; number=2; id=\"x\"\r\n", "", true), "0|||");
    EXPECT_EQ(desc->parameters.partial.part_number, 2);
}

// Result, encoding and the run state's encoding as three digits; blanks go,
// TABs do not. A header value keeps its blanks at the end.
TEST_F(HeaderReaderTest, TransferEncodingAndHeaderValue) {
    const std::string cte = "Content-Transfer-Encoding:";
    const std::pair<std::string, int32_t> cases[] = {
        {cte + " Quoted-Printable", 133}, {cte + " x-uuencode\r\n", 144},
        {cte + " bin ary\r\n", 60},      {cte + "\tbase64", 0},
        {cte + " uuencode\r\n", 0},      {cte + std::string(500, 'b'), 0}};
    for (const auto &[line, expected] : cases) {
        state().transfer_encoding = 9;
        int32_t encoding = 9;
        const int32_t result = tw::mime_parse_transfer_encoding(line.c_str(), encoding);
        EXPECT_EQ(result * 100 + encoding * 10 + state().transfer_encoding, expected) << line;
    }
    char value[8];
    tw::mime_header_value("X-Id: \t ab  \r\n", value);
    EXPECT_STREQ(value, "ab  ");
}

} // namespace
