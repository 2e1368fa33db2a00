#include "walkers/walkers.h"

#include "support/test_support.h"

namespace {

using tw_test::read_file;
using tw_test::write_file;
using Strings = std::vector<std::string>;

struct LinksTest : tw_test::TempDirTest {};

tw::LinkTable table(const std::string &base) {
    tw::LinkTable t(base);
    t.add("00000001.gif", "a", "logo.gif");
    t.add("00000002.gif", "B", "");
    t.add("never.gif", "A", "logo.gif"); // the first entry of a key wins
    return t;
}

TEST_F(LinksTest, LinesRewritten) {
    const std::string long_line = std::string(500, 'x') + " src=\"cid:a\">\r\n";
    const struct {
        std::string base, in, out;
        Strings names;
    } cases[] = {
        {"", "x barcode=cid:a y\r\n", "x barcode=00000001.gif y\r\n", {"00000001.gif"}},
        {"", "<applet codebase=cid:a >\r\n", "<applet codebase=cid:a >\r\n", {}},
        {"", "<img src='cid:a'>\r\n", "<img src='cid:a'>\r\n", {}},
        {"", "<img SRC = \"CID:A\"><img src=\"cid:b\">\r\n",
         "<img SRC = \"00000001.gif\"><img src=\"00000002.gif\">\r\n",
         {"00000001.gif", "00000002.gif"}},
        // src first, then background in the line as rewritten.
        {"", "<td background=\"cid:b\"><img src=\"cid:a\">\r\n",
         "<td background=\"00000002.gif\"><img src=\"00000001.gif\">\r\n",
         {"00000001.gif", "00000002.gif"}},
        {"", "<img src=cid:a\r\n", "<img src=cid:a\r\n", {}}, // no end on the line
        {"", long_line, long_line, {}},                        // the end lies past byte 511
        {"", "<img src=\"\">\r\n", "<img src=\"00000002.gif\">\r\n", {"00000002.gif"}},
        {"", "<img src=logo.gif>\r\n", "<img src=00000001.gif>\r\n", {"00000001.gif"}},
        {"http://h/d/", "<img src=LOGO.GIF><img src=\"http://h/d/logo.gif\">\r\n",
         "<img src=00000001.gif><img src=\"00000001.gif\">\r\n", {"00000001.gif", "00000001.gif"}},
        {"http://h/d/", "<img src=\"http://h/e/logo.gif\">\r\n",
         "<img src=\"http://h/e/logo.gif\">\r\n", {}},
        {"", std::string("src=\0cid:a>\r\n", 13), std::string("src=\0cid:a>\r\n", 13), {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        write_file(path("page.htm"), c.in);
        Strings names;
        EXPECT_EQ(tw::mime_rewrite_links(path("page.htm"), table(c.base), names), 1);
        EXPECT_EQ(read_file(path("page.htm")), c.out);
        EXPECT_EQ(names, c.names);
    }
    EXPECT_EQ(tw_test::list_dir(dir()), Strings{"page.htm"}) << "no copy left behind";
}

TEST_F(LinksTest, ANameThatReadsAsALinkIsNotRewrittenAgain) {
    tw::LinkTable t("");
    t.add("src=cid:a ", "a", "");
    write_file(path("page.htm"), "<img src=cid:a >\r\n");
    Strings names;
    EXPECT_EQ(tw::mime_rewrite_links(path("page.htm"), t, names), 1);
    EXPECT_EQ(read_file(path("page.htm")), "<img src=src=cid:a  >\r\n");
    EXPECT_EQ(names, Strings{"src=cid:a "});
}

TEST_F(LinksTest, AMissingPageFailsUnlessTheTableIsEmpty) {
    Strings names;
    EXPECT_EQ(tw::mime_rewrite_links(path("missing.htm"), table(""), names), 0);
    EXPECT_EQ(tw::mime_rewrite_links(path("missing.htm"), tw::LinkTable(""), names), 1);
    EXPECT_TRUE(names.empty());
}

} // namespace
