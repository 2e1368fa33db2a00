#include <cstring>
#include <string>
#include <tuple>

#include "headers/reader_fixture.h"

namespace {

class ParamTest : public tw_test::HeaderReaderFixture {
protected:
    // Reads the list `text` into a fresh record, `rest` standing behind it.
    std::string read(std::string text, const std::string &rest = "") {
        raw = tw::HeaderText();
        *desc = mime_part_desc{};
        tw::mime_read_parameters(&stream(rest), text.data(), &raw, *desc);
        return std::string(desc->filename) + "|" + desc->type + "|" + desc->start;
    }
};

// name and filename fill one field and the later wins; starred and numbered
// keys count as their prefix; values are cut at their field, also a quoted
// one over several lines, which is still read to its end.
TEST_F(ParamTest, KeysAndWidths) {
    EXPECT_EQ(read("name=a.txt; filename=b.txt"), "b.txt||");
    EXPECT_EQ(read("filename=\"b.txt\"; name=\"a.txt\""), "a.txt||");
    read("name*=utf-8''x.txt; charset*0=us-ascii; mode=\"" + std::string(40, 'm') + "\"");
    EXPECT_EQ(desc->filename + std::string("|") + desc->charset, "utf-8''x.txt|us-ascii");
    EXPECT_EQ(std::string(desc->parameters.external_body.mode), std::string(14, 'm'));
    const std::string n = " " + std::string(200, 'n') + "\r\n";
    EXPECT_EQ(read("name=\"a", n + n + n + " end\"\r\n"), "a" + std::string(510, 'n') + "||");
    EXPECT_EQ(unread(), "");
}

// A list runs on only behind a trailing ';' or inside an open quote, and only
// onto a line that begins with a blank or TAB; what it takes goes to the
// collected header text, the rest is left unread.
TEST_F(ParamTest, ContinuationLines) {
    const std::string b300(300, 'b');
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // list, lines behind it, filename|type|start|collected text|unread
        {"charset=x; name=\"long", "\t name.txt\"; type=t\r\nNext: x\r\n",
         "longname.txt|t||\t name.txt\"; type=t\r\n|Next: x\r\n"},
        {"name=\"a;b.txt\"", "Next: x\r\n", "a||||Next: x\r\n"}, // the ';' cuts the value
        {"name=\"a;b.txt", " c.txt\"\r\n", "ac.txt||| c.txt\"\r\n|"}, // and the rest of its line
        {"charset=x;", " type=t;\r\n\tstart=s\r\nN\r\n", "|t|s| type=t;\r\n\tstart=s\r\n|N\r\n"},
        {"charset=x", " type=u\r\n", "|||| type=u\r\n"},
        {"charset=x;", "type=u\r\n", "||||type=u\r\n"},
        // The tail of a line longer than a read does not begin with a blank.
        {"name=\"a", " " + b300 + "\"\r\n",
         "a" + b300.substr(46) + "||| " + b300.substr(46) + "|" + b300.substr(254) + "\"\r\n"},
    };
    for (const auto &[list, rest, expected] : cases) {
        const std::string fields = read(list, rest);
        EXPECT_EQ(fields + "|" + std::string(raw.view()) + "|" + unread(), expected) << list;
    }
}

// Found by fuzzing: the look-ahead for the next field must leave the
// continuation line still being read alone.
TEST_F(ParamTest, UnclosedQuoteEndsBeforeTheNextField) {
    EXPECT_EQ(read("type=\"a", " abc\r\nXXXX;type=zz\r\n"), "|aabc|");
    EXPECT_EQ(unread(), "XXXX;type=zz\r\n");
}

// A list ending in ';' takes the next line whatever it is, and copies it to
// the header file. Boundaries lose their quotes wherever they stand; file
// names go through the encoded-word decoder.
TEST_F(ParamTest, FindParameter) {
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        // list, parameter, lines behind it, value
        {"charset=x; boundary= \t\"=_a b\"", "boundary", "", "--=_a b"},
        {"boundary=a\"b\"c; x=y", "boundary", "", "--abc"},
        {"charset=x;", "boundary", "boundary=nxt\r\n", "--nxt"},
        {"charset=x", "boundary", "\tboundary=nxt\r\n", ""},
        {"attachment; FILENAME=\"r\xc3\xa9.txt\"", "filename", "", "r\xc3\xa9.txt"},
        {"a; filename*=\"=?iso-8859-1?q?r=E9sum=E9.txt?=\"", "filename", "", "r\xe9sum\xe9.txt"},
        {"inline", "filename", "", ""},
    };
    for (auto [list, parameter, rest, value] : cases) {
        char boundary[100] = {}, file_name[256] = {};
        state().file_name_found = 0;
        const bool want_boundary = parameter == "boundary";
        tw::mime_find_parameter(list.data(), parameter, boundary, file_name, &stream(rest),
                                want_boundary);
        EXPECT_EQ(want_boundary ? boundary : file_name, value) << list;
        EXPECT_EQ(state().file_name_found, !want_boundary && !value.empty()) << list;
    }
    EXPECT_EQ(header_file_text(), "boundary=nxt\r\n");
}

// Any beginning of a keyword is that keyword, the empty one included; blanks
// in numbers go; values are cut at 3 digits, 9 digits and 99 bytes.
TEST_F(ParamTest, PartialParameters) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // list, lines behind it, number|total|id|name
        {"; number=2; total=3; id=\"x.y\"; name=\"f.txt\"", "", "2|3|x.y|f.txt"},
        {"; =4; foo=bar; t=7; i=abc; na=g", "", "4|7|abc|g"},
        {"; number= 1 2 345; total=12345678901; id=" + std::string(150, 'i'), "",
         "12345|123456789|" + std::string(99, 'i') + "|"},
        {";\tnumber=9; number =8", "", "0|0||"}, // a TAB or a blank in the key
        {"; number=1;", "total=5\r\n", "1|5||"},
    };
    for (const auto &[list, rest, expected] : cases) {
        state().current_file_name[0] = '\0';
        std::strcpy(state().partial_id, "old");
        tw::mime_parse_partial_parameters(list.c_str(), &stream(rest), desc.get());
        const auto &st = state();
        EXPECT_EQ(std::to_string(st.partial_number) + "|" + std::to_string(st.partial_total) + "|" +
                      st.partial_id + "|" + st.current_file_name, expected) << list;
    }
    EXPECT_EQ(header_file_text(), "total=5\r\n");
}

} // namespace
