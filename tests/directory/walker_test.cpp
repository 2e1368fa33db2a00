// The multipart walker, driven through extract_message: the parts behind
// the first one, nested levels through one boundary buffer, the decoders,
// and the ways a multipart can end.
#include <filesystem>

#include "directory/extract_fixture.h"

namespace {

using namespace tw_test;
using Files = std::map<std::string, std::string>;
using Calls = std::vector<Reported>;

const std::string kVersion = "MIME-Version: 1.0\n";

TEST_F(ExtractTest, WalksMixedWithNestedAlternativeAndClosingZip) {
    const std::string message = crlf(kVersion +
                                     "Content-Type: multipart/mixed; boundary=\"outer\"\n\n"
                                     "--outer\nContent-Type: text/plain\n\nSee the files.\n\n"
                                     "--outer\n"
                                     "Content-Type: multipart/alternative; boundary=\"inner\"\n\n"
                                     "--inner\nContent-Type: text/plain\n\nplain version\n"
                                     "--inner\nContent-Type: text/html\n\n<p>html version</p>\n"
                                     "--inner--\n\n"
                                     "--outer\nContent-Type: application/zip; name=\"files.zip\"\n"
                                     "Content-Transfer-Encoding: base64\n\nUEsDBA==\n"
                                     "--outer--\n"
                                     "--outer\nContent-Type: text/plain\n\nnever read\n");
    ASSERT_EQ(extract(message), 1);
    EXPECT_EQ(reported(), (Calls{{"00000001.HDR", 1, 0},
                                                 {"00000002.txt", 2, 2},
                                                 {"00000003.txt", 2, 2},
                                                 {"files.zip", 1, 22}}));
    Files expected{{"00000001.HDR", crlf(kVersion +
                                         "Content-Type: multipart/mixed; boundary=\"outer\"\n\n"
                                         "See the files.\n\n")},
                   {"00000002.txt", crlf("plain version\n")},
                   {"00000003.txt", crlf("<p>html version</p>\n")},
                   {"files.zip", std::string("PK\3\4", 4)}};
    EXPECT_EQ(files(), expected);
    int32_t count = 0;
    mime_options(MIME_OPT_GET_PART_COUNT, reinterpret_cast<intptr_t>(&count), 0);
    EXPECT_EQ(count, 3);
}

struct Row {
    const char *what;
    std::string rest; // the message behind its plain first part
    Files files;      // every file but the .HDR file
    Calls calls;
};

TEST_F(ExtractTest, PartsAndEndsOfAMultipart) {
    const std::string head = kVersion + "Content-Type: multipart/mixed; boundary=\"b\"\n\n"
                                        "--b\nContent-Type: text/plain\n\nfirst\n";
    const std::string text = "Content-Type: text/plain\n";
    const std::string gif = "Content-Type: image/gif\nContent-Transfer-Encoding: base64\n";
    const std::string nested = "Content-Type: multipart/alternative; boundary=\"i\"\n";
    const std::string long_line(120, 'L');
    const Row rows[] = {
        {"missing closing delimiter: the last part runs to the end",
         "--b\n" + text + "\nlast line\n", {{"00000002.txt", crlf("last line\n")}},
         {{"00000002.txt", 1, 2}}},
        {"the end straight behind a delimiter makes no part", "--b\n" + text + "\nx\n--b\n",
         {{"00000002.txt", crlf("x\n")}}, {{"00000002.txt", 1, 2}}},
        {"closing delimiters of two levels in a row end the walk",
         "--b\n" + nested + "\n--i\n" + text + "\ninner\n--i--\n--b--\n--b\n" + text + "\nno\n",
         {{"00000002.txt", crlf("inner\n")}}, {{"00000002.txt", 2, 2}}},
        {"a part without a header takes the type of the one before",
         "--b\n" + gif + "\nR0lG\n--b\n\nraw\n--b--\n",
         {{"00000002.gif", "GIF"}, {"00000003.gif", crlf("raw\n")}},
         {{"00000002.gif", 1, 11}, {"00000003.gif", 1, 11}}},
        {"a body that starts with the delimiter is an empty file", "--b\n" + text + "\n--b--\n",
         {{"00000002.txt", ""}}, {{"00000002.txt", 1, 2}}},
        {"quoted-printable loses the line end ahead of the delimiter",
         "--b\n" + text +
             "Content-Transfer-Encoding: quoted-printable\n\nsoft=\n break =3D\n\n--b--\n",
         {{"00000002.txt", crlf("soft break =\n")}}, {{"00000002.txt", 1, 2}}},
        {"uuencode: what follows its data up to the delimiter goes",
         "--b\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: x-uuencode\n\n"
         "begin 644 x.bin\n#86)C\n`\nend\njunk\n--b--\n",
         {{"00000002.txt", "abc"}}, {{"00000002.txt", 1, 22}}},
        {"an external body keeps its header lines",
         "--b\nContent-Type: message/external-body; access-type=URL; URL=\"http://x/\"\n\n" + text +
             "\n--b--\n",
         {{"00000002.TXT",
           crlf("Content-Type: message/external-body; access-type=URL; URL=\"http://x/\"\n\n" +
                text + "\n")}},
         {{"00000002.TXT", 1, 3}}},
        {"a nested multipart without a boundary is a plain part",
         "--b\nContent-Type: multipart/mixed; charset=x\n\nbody\n--b--\n",
         {{"00000002.TXT", crlf("body\n")}}, {{"00000002.TXT", 1, 23}}},
        {"a nested preamble line is passed over",
         "--b\n" + nested + "\npreamble\n--i\n" + text + "\nin\n--i--\n--b--\n",
         {{"00000002.txt", crlf("in\n")}}, {{"00000002.txt", 2, 2}}},
        {"an outer delimiter longer than the boundary buffer",
         "--b\n" + nested + "\n--i\n" + text + "\nin\n--i--\n--b" + long_line + "\n" + text +
             "\nafter\n--b" + long_line + "--\n",
         {{"00000002.txt", crlf("in\n")}, {"00000003.txt", crlf("after\n")}},
         {{"00000002.txt", 2, 2}, {"00000003.txt", 1, 2}}},
        {"names never lead out of the directory",
         "--b\n" + gif + "Content-Disposition: attachment; filename=\"../../up.gif\"\n\nR0lG\n"
         "--b\n" + gif + "Content-Disposition: attachment; filename=\"C:\\x\\y.gif\"\n\nR0lG\n"
         "--b\n" + gif + "Content-Disposition: attachment; filename=\"/etc/passwd\"\n\nR0lG\n"
         "--b\n" + gif + "Content-Disposition: attachment; filename=\"a/..\"\n\nR0lG\n--b--\n",
         {{"up.gif", "GIF"}, {"y.gif", "GIF"}, {"passwd", "GIF"}, {"00000002.gif", "GIF"}},
         {{"up.gif", 1, 11}, {"y.gif", 1, 11}, {"passwd", 1, 11}, {"00000002.gif", 1, 11}}},
    };
    int n = 0;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        g_reported.clear();
        const std::string out = "deep/er/out" + std::to_string(++n);
        EXPECT_EQ(extract(crlf(head + row.rest), out), 1);
        Files left = files(out);
        EXPECT_EQ(left.erase("00000001.HDR"), 1u);
        EXPECT_EQ(left, row.files);
        Calls calls = reported(out);
        ASSERT_FALSE(calls.empty());
        EXPECT_EQ(calls.front(), (Reported{"00000001.HDR", 1, 0}));
        calls.erase(calls.begin());
        EXPECT_EQ(calls, row.calls);
    }
    // Nothing was made above the extraction directories.
    EXPECT_EQ(list_dir(path("deep/er")).size(), static_cast<std::size_t>(n));
    EXPECT_EQ(list_dir(path("deep")), std::vector<std::string>{"er"});
}

TEST_F(ExtractTest, FailedDecoderRemovesThePartAndStops) {
    // A Base64 line longer than any encoder writes fails the decoding.
    const std::string message =
        crlf(kVersion + "Content-Type: multipart/mixed; boundary=\"b\"\n\n--b\n"
                        "Content-Type: image/gif\nContent-Transfer-Encoding: base64\n\nR0lG\n"
                        "--b\nContent-Type: image/gif\nContent-Transfer-Encoding: base64\n\n" +
             std::string(100, 'A') + "\n--b\nContent-Type: text/plain\n\nlater\n--b--\n");
    EXPECT_EQ(extract(message), 0);
    EXPECT_EQ(reported(), (Calls{{"00000001.HDR", 1, 0}, {"00000002.gif", 1, 11}}));
    EXPECT_EQ(list_dir(path("out")),
              (std::vector<std::string>{"00000001.HDR", "00000002.gif"}));
}

} // namespace
