// Parameter lists: the one-parameter search, the full reader with its
// look-ahead, message/partial parameters and the boundary copy.
#include <string>
#include <vector>

#include "headers/reader_fixture.h"

namespace {

class ParamTest : public tw_test::HeaderReaderFixture {
protected:
    // Reads the list `text` with `rest` as the lines behind it.
    void read(std::string text, const std::string &rest = "") {
        text.push_back('\0');
        raw = tw::HeaderText();
        tw::mime_read_parameters(&stream(rest), text.data(), &raw, desc());
    }
    std::string find(std::string text, const char *parameter, bool want_boundary,
                     const std::string &rest = "") {
        text.push_back('\0');
        char boundary[100] = {};
        char file_name[256] = {};
        tw::mime_find_parameter(text.data(), parameter, boundary, file_name, &stream(rest),
                                want_boundary);
        return want_boundary ? boundary : file_name;
    }
    tw::HeaderText raw;
};

TEST_F(ParamTest, NameAndFilenameFillOneFieldAndTheLaterWins) {
    read("name=a.txt; filename=b.txt");
    EXPECT_STREQ(desc().filename, "b.txt");
    read("filename=\"b.txt\"; name=\"a.txt\"");
    EXPECT_STREQ(desc().filename, "a.txt");
    // Keys of the starred and numbered form count as their prefix.
    read("name*=utf-8''x.txt; charset*0=us-ascii");
    EXPECT_STREQ(desc().filename, "utf-8''x.txt");
    EXPECT_STREQ(desc().charset, "us-ascii");
}

TEST_F(ParamTest, ValuesAreCutAtTheirField) {
    read("charset=" + std::string(40, 'c') + "; mode=\"" + std::string(40, 'm') + "\"");
    EXPECT_EQ(std::string(desc().charset), std::string(19, 'c'));
    EXPECT_EQ(std::string(desc().parameters.external_body.mode), std::string(14, 'm'));
    // A quoted name running over several lines still stops at its field.
    std::string rest;
    for (int i = 0; i < 4; ++i)
        rest += " " + std::string(200, 'n') + "\r\n";
    read("name=\"start", rest + " end\"\r\n");
    EXPECT_EQ(std::string(desc().filename), "start" + std::string(506, 'n'));
    EXPECT_EQ(next_line(), "") << "the value is read to its end";
}

TEST_F(ParamTest, QuotedValueOverTwoLines) {
    read("charset=x; name=\"long", "\t name.txt\"; type=t\r\nNext: x\r\n");
    EXPECT_STREQ(desc().filename, "longname.txt");
    EXPECT_STREQ(desc().type, "t");
    EXPECT_EQ(raw.view(), "\t name.txt\"; type=t\r\n");
    EXPECT_EQ(next_line(), "Next: x\r\n");
}

TEST_F(ParamTest, SemicolonInsideQuotes) {
    // No continuation: the value is cut at the ';' and the next line stays.
    read("name=\"a;b.txt\"", "Next: x\r\n");
    EXPECT_STREQ(desc().filename, "a");
    EXPECT_EQ(next_line(), "Next: x\r\n");
    // A continuation: the rest of the line goes, the value goes on below.
    read("name=\"a;b.txt", " c.txt\"\r\n");
    EXPECT_STREQ(desc().filename, "ac.txt");
}

TEST_F(ParamTest, UnclosedQuoteEndsBeforeTheNextField) {
    // The look-ahead that finds the next field must not disturb the
    // continuation line still being read.
    read("type=\"a", " abc\r\nXXXX;type=zz\r\n");
    EXPECT_STREQ(desc().type, "aabc");
    EXPECT_EQ(next_line(), "XXXX;type=zz\r\n");
}

TEST_F(ParamTest, ListRunsOnOnlyBehindATrailingSemicolon) {
    read("charset=x;", " type=t;\r\n\tstart=s\r\nNext: x\r\n");
    EXPECT_STREQ(desc().type, "t");
    EXPECT_STREQ(desc().start, "s");
    EXPECT_EQ(next_line(), "Next: x\r\n");

    read("charset=x", " type=u\r\n");
    EXPECT_STREQ(desc().type, "t") << "no ';': the next line is not part of the list";
    read("charset=x;", "type=u\r\n");
    EXPECT_EQ(next_line(), "type=u\r\n") << "no indentation: left for the caller";
}

TEST_F(ParamTest, ContinuationArrivingInPieces) {
    // A continuation longer than a line read: its tail does not begin with
    // a blank, so the quoted value ends with the first piece.
    read("name=\"a", " " + std::string(300, 'b') + "\"\r\n");
    EXPECT_EQ(std::string(desc().filename), "a" + std::string(254, 'b'));
    EXPECT_EQ(next_line(), std::string(46, 'b') + "\"\r\n");
}

TEST_F(ParamTest, FindParameter) {
    EXPECT_EQ(find("charset=x; boundary=\"=_a b\"", "boundary", true), "--=_a b");
    EXPECT_EQ(find("charset=x;", "boundary", true, "boundary=nxt\r\n"), "--nxt")
        << "the line behind a trailing ';' is read without a test";
    EXPECT_EQ(header_file_text(), "boundary=nxt\r\n");
    EXPECT_EQ(find("charset=x", "boundary", true, "\tboundary=nxt\r\n"), "");
    EXPECT_EQ(find("", "boundary", true, "boundary=nxt\r\n"), "");
    EXPECT_EQ(next_line(), "boundary=nxt\r\n");
    EXPECT_EQ(find("attachment; FILENAME=\"r\xc3\xa9.txt\"", "filename", false), "r\xc3\xa9.txt");
    EXPECT_EQ(find("attachment; filename*=\"=?iso-8859-1?q?r=E9sum=E9.txt?=\"", "filename", false),
              "r\xe9sum\xe9.txt");
    EXPECT_EQ(state().file_name_found, 1);
    EXPECT_EQ(find("inline", "filename", false), "");
}

TEST(ParamCopy, BoundaryValue) {
    struct Case {
        const char *text;
        const char *expected;
    };
    const std::vector<Case> cases = {
        {"boundary=abc", "--abc"},          {"boundary= \t\"abc\"", "--abc"},
        {"boundary=a\"b\"c; x=y", "--abc"}, {"boundary=a b\r\n", "--a b"},
        {"boundary", "--"},
    };
    for (const Case &c : cases) {
        char boundary[100];
        tw::mime_copy_parameter_value(c.text, boundary, {}, true);
        EXPECT_STREQ(boundary, c.expected) << c.text;
    }
}

TEST_F(ParamTest, PartialParameters) {
    struct Case {
        const char *what;
        std::string text;
        std::string rest;
        int32_t number, total;
        const char *id;
        const char *name;
    };
    const std::vector<Case> cases = {
        {"all four", "; number=2; total=3; id=\"x.y\"; name=\"f.txt\"", "", 2, 3, "x.y", "f.txt"},
        {"keys as beginnings", "; n=4; t=7; i=abc; na=g", "", 4, 7, "abc", "g"},
        {"empty key is number", "; =5", "", 5, 0, "", ""},
        {"blanks in numbers go", "; number= 1 2 ;total=1 0", "", 12, 10, "", ""},
        {"widths of the values", "; number=12345; total=12345678901; id=" + std::string(150, 'i'),
         "", 123, 123456789, nullptr, ""},
        {"TAB-indented key is unknown", ";\tnumber=9; total=2", "", 0, 2, "", ""},
        {"blank before '=' matches nothing", "; number =9", "", 0, 0, "", ""},
        {"continuation read behind ';'", "; number=1;", "total=5\r\n", 1, 5, "", ""},
        {"unknown key, then more", "; foo=bar; total=6", "", 0, 6, "", ""},
    };
    for (const Case &c : cases) {
        state().current_file_name[0] = '\0';
        desc() = mime_part_desc{};
        std::strcpy(state().partial_id, "old");
        tw::mime_parse_partial_parameters(c.text.c_str(), &stream(c.rest), &desc());
        EXPECT_EQ(state().partial_number, c.number) << c.what;
        EXPECT_EQ(state().partial_total, c.total) << c.what;
        const std::string id = c.id != nullptr ? c.id : std::string(99, 'i');
        EXPECT_EQ(state().partial_id, id) << c.what;
        EXPECT_EQ(desc().parameters.partial.part_total, c.total) << c.what;
        EXPECT_STREQ(state().current_file_name, c.name) << c.what;
    }
    EXPECT_EQ(header_file_text(), "total=5\r\n");
}

} // namespace
