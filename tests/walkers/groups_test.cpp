#include "walkers/walkers.h"

#include "walkers/walk_fixture.h"

namespace {

using tw_test::crlf;
using tw_test::list_dir;
using tw_test::message_of;
using tw_test::read_file;
using tw_test::WalkRecorder;
using Strings = std::vector<std::string>;

struct GroupTest : tw_test::WalkTest {};

std::string image(const std::string &id, const std::string &more = "") {
    return "Content-Type: image/gif\nContent-ID: <" + id + ">\n" + more +
           "Content-Transfer-Encoding: base64\n\nR0lGODlh\n"; // "GIF89a"
}

using Files = std::vector<std::pair<std::string, std::string>>; // the whole of out/, sorted

TEST_F(GroupTest, GroupsEndToEnd) {
    const std::string html2 = "--g\nContent-Type: text/html\nContent-ID: <page>\n\n"
                              "<img src=cid:a >\n<img src=\"cid:B\">\n";
    const std::string two_images = "--g\n" + image("a") + "--g\n" + image("b");
    const std::string alt_text = "--i\nContent-Type: text/plain\n\nsee cid:a\n"
                                 "--i\nContent-Type: text/html\n\n<img src=\"cid:a\">\n--i--\n";
    const std::string other = "<body background=\"http://example.com/other/logo.gif\">\n"
                              "<a href=\"logo.gif\">\n";
    const struct {
        std::string type, body;
        int32_t result;
        const char *events;
        Files files = {}; // unchecked if empty
    } cases[] = {
        // By cid: and by location against the group's base, in any case.
        {"multipart/related; boundary=\"g\"\nContent-Location: <http://example.com/dir/>",
         "--g\nContent-Type: text/html\n\n<img src=\"cid:logo@x\">\n<IMG SRC=logo.gif>\n" + other +
             "--g\n" + image("logo@x", "Content-Location: logo.gif\n") + "--g--\n",
         1, "h:multipart/related,b2:00000001.htm|00000001.gif,00000001.gif,",
         {{"00000001.gif", "GIF89a"},
          {"00000001.htm", crlf("<img src=\"00000001.gif\">\n<IMG SRC=00000001.gif>\n" + other)}}},
        {"multipart/alternative; boundary=g",
         "--g\nContent-Type: text/plain\n\nplain\n--g\nContent-Type: text/html\n\n<p>\n--g--\n",
         1, "h:multipart/alternative,h:text/plain,b2:00000001.txt,h:text/html,b2:00000001.htm,"},
        // Two images by cid:, the page first; then without any link.
        {"multipart/related; boundary=g", html2 + two_images + "--g--\n", 1,
         "h:multipart/related,b2:00000001.htm|00000001.gif,00000002.gif,"},
        {"multipart/related; boundary=g", "--g\nContent-Type: text/html\n\nnone\n" + two_images +
         "--g--\n", 1, "h:multipart/related,b2:00000001.htm,"},
        // start names the second part, in another case; or no part at all.
        {"multipart/related; boundary=g; start=\"<PAGE>\"", two_images + html2 + "--g--\n",
         1, "h:multipart/related,b2:00000001.htm|00000001.gif,00000002.gif,"},
        {"multipart/related; boundary=g; start=\"<nobody>\"", html2 + two_images + "--g--\n",
         MIME_FILE_ERROR, "h:multipart/related,"},
        // An alternative inside: each kept leaf with its own header and links.
        {"multipart/related; boundary=g",
         "--g\nContent-Type: multipart/alternative; boundary=i\n\n" + alt_text + "--g\n" +
             image("a") + "--g--\n",
         1, "h:multipart/related,h:text/plain,b2:00000001.txt,h:text/html,"
            "b2:00000001.htm|00000001.gif,"},
        // A related group inside an alternative: one header, one delivery.
        {"multipart/alternative; boundary=g",
         "--g\nContent-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html\n\n"
         "<img src=\"cid:a\">\n--r\n" + image("a") + "--r--\n--g--\n",
         1, "h:multipart/alternative,h:image/gif,b2:00000001.htm|00000001.gif,"},
        // Mixed inside related and alternative inside alternative: skipped whole.
        {"multipart/related; boundary=g",
         "--g\nContent-Type: text/html\n\nx\n--g\nContent-Type: multipart/mixed; boundary=m\n\n"
         "--m\nContent-Type: text/plain\n\nnot here\n--m--\n--g--\n",
         1, "h:multipart/related,b2:00000001.htm,"},
        {"multipart/alternative; boundary=g",
         "--g\nContent-Type: multipart/alternative; boundary=m\n\n--m\n\nnot here\n--m--\n"
         "--g\nContent-Type: text/plain\n\nhere\n--g--\n",
         1, "h:multipart/alternative,h:text/plain,b2:00000001.txt,"},
        // A uuencoded leaf (its end line passed over) and a leaf with a file
        // name: the link is rewritten to the final name.
        {"multipart/related; boundary=g",
         "--g\nContent-Type: text/html\n\n<img src=\"cid:u\"><img src=\"cid:n\">\n"
         "--g\nContent-Type: image/gif\nContent-ID: <u>\nContent-Transfer-Encoding: x-uuencode\n\n"
         "begin 644 u.gif\n\"8VD`\n`\nend\n"
         "--g\nContent-Type: image/jpeg; name=\"../../pic.jpg\"\nContent-ID: <n>\n\nraw\n--g--\n",
         1, "h:multipart/related,b2:00000001.htm|00000001.gif,pic.jpg,",
         {{"00000001.gif", "ci"},
          {"00000001.htm", crlf("<img src=\"00000001.gif\"><img src=\"pic.jpg\">\n")},
          {"pic.jpg", crlf("raw\n")}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type + "\n" + c.body);
        std::filesystem::remove_all(out());
        WalkRecorder r;
        EXPECT_EQ(extract(message_of(c.type, c.body), r), c.result);
        EXPECT_EQ(r.events, c.events);
        if (!c.files.empty()) {
            Files files;
            for (const std::string &name : list_dir(out()))
                files.emplace_back(name, read_file(out() + name));
            EXPECT_EQ(files, c.files);
        }
    }
}

TEST_F(GroupTest, KeptPartsKeepTheirOwnRecordAndHeaderText) {
    const std::string message = message_of(
        "multipart/related; boundary=g",
        "--g\nContent-Type: multipart/alternative; boundary=i\n\n"
        "--i\nContent-Type: text/plain; charset=\"us-ascii\"\n\nt\n"
        "--i\nContent-ID: <h>\nContent-Type: text/html\n\n<img src=\"cid:a\">\n--i--\n"
        "--g\n" + image("a") + "--g--\n");
    WalkRecorder r;
    ASSERT_EQ(extract(message, r), 1);
    ASSERT_EQ(r.records.size(), 3u);
    EXPECT_STREQ(r.records[1].charset, "us-ascii");
    EXPECT_STREQ(r.records[2].content_id, "<h>");
    EXPECT_TRUE(r.texts[1].ends_with(crlf("Content-Type: text/plain; charset=\"us-ascii\"\n")));
    EXPECT_TRUE(r.texts[2].ends_with(crlf("Content-ID: <h>\nContent-Type: text/html\n")));
    // A header_cb that stops: nothing more is delivered.
    std::filesystem::remove_all(out());
    WalkRecorder stop;
    stop.stop_header_at = 1;
    EXPECT_EQ(extract(message, stop), MIME_STOPPED);
    EXPECT_EQ(stop.events, "h:multipart/related,h:text/plain,");
}

TEST_F(GroupTest, BytesModeSendsPageThenLinkedFilesAndLeavesNothing) {
    const std::string message =
        message_of("multipart/related; boundary=g",
                   "--g\nContent-Type: text/html\n\n<img src=\"cid:a\"><img src=\"cid:a\">\n--g\n" +
                       image("a") + "--g\n" + image("unused") + "--g--\n");
    // Our own temporary directory for the session, to see it left empty.
    const char *old = std::getenv("TMPDIR");
    const std::string saved = old != nullptr ? old : "";
    ::setenv("TMPDIR", dir().c_str(), 1);
    WalkRecorder r;
    const int32_t result = extract(message, r, false);
    const std::string temp = tw::private_temp_directory();
    old != nullptr ? ::setenv("TMPDIR", saved.c_str(), 1) : ::unsetenv("TMPDIR");
    ASSERT_EQ(result, 1);
    EXPECT_EQ(r.events, crlf("h:multipart/related,b0:<img src=\"00000001.gif\"><img src=\"00000001.gif\">\n")
                            + ",b0:GIF89a,");
    ASSERT_TRUE(temp.starts_with(dir()));
    EXPECT_EQ(list_dir(temp), Strings{});
}

TEST_F(GroupTest, TypedNamesCountOnlyTheExactName) {
    std::filesystem::create_directories(out());
    tw_test::write_file(out() + "00000001.gif", "");
    tw_test::write_file(out() + "00000003.gif", "");
    tw::TypedNames names;
    const struct {
        const char *type, *subtype, *name;
    } cases[] = {{"IMAGE", "GIF", "00000002.gif"}, {"image", "jpeg", "00000001.jpg"},
                 {"text", "HTML", "00000001.htm"}, {"image", "png", "00000001.txt"},
                 {"image", "gif", "00000004.gif"}};
    for (const auto &c : cases) {
        std::string path = out();
        ASSERT_NE(tw::mime_new_typed_file(path, c.type, c.subtype, &names), 0u);
        EXPECT_EQ(path, out() + c.name);
    }
    std::string nowhere = dir() + "missing/";
    EXPECT_EQ(tw::mime_new_typed_file(nowhere, "text", "html"), 0u);
}

} // namespace
