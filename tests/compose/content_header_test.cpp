// The content header of a part: fixed order, exact bytes.
#include "compose/compose_fixture.h"

namespace {

using namespace tw_compose_test;

std::deque<std::string> g_extra; // extra_header_cb answers; "!" is -1
int32_t extra_header_cb(char *buffer, int32_t size) {
    EXPECT_EQ(size, 2052);
    const std::string a = g_extra.empty() ? "" : g_extra.front();
    if (!g_extra.empty())
        g_extra.pop_front();
    std::memcpy(buffer, a.data(), a.size());
    return a == "!" ? -1 : static_cast<int32_t>(a.size());
}

// The header of `p` at `level`, what mime_write_content_header answered and
// the embedded flag it set.
std::tuple<std::string, int32_t, int32_t> header(const Part &p, int32_t level,
                                                 std::string_view extra = {},
                                                 void (*edit)(mime_part_desc &) = nullptr) {
    auto desc = std::make_unique<mime_part_desc>();
    fill(*desc, p);
    if (edit)
        edit(*desc);
    tw_test::write_file(kMessage, "");
    tw::File f = tw::File::open(kMessage, tw::OpenMode::WriteExisting);
    int32_t embedded = 0, seed = 1;
    const int32_t r = tw::mime_write_content_header(f, *desc, level, &embedded, extra, &seed,
                                                    extra.empty() ? nullptr : extra_header_cb);
    f.close();
    return {read_file(kMessage), r, embedded};
}

TEST_F(ComposeTest, ContentHeaderLinesOfEachKindOfPart) {
    const struct {
        Part part;
        int32_t level;
        const char *expected; // "\n" stands for CRLF
        int32_t result;
    } cases[] = {
        // No type is text/plain whatever the subtype; binhex has no transfer line.
        {{.subtype = "html", .encoding = "binhex", .charset = "us-ascii"}, 0,
         "Content-type: text/plain;\n  charset=us-ascii\n\n", 0},
        {{.type = "image", .subtype = "gif", .encoding = "base64", .filename = "a.gif",
          .content_id = "<id@x>", .size = 1000, .base = "http://b/", .location = "l.html",
          .description = "D", .start = "<m@x>", .root_type = "ignored"}, 0,
         "Content-type: image/gif;\n  SizeOnDisk=1000;\n  name=a.gif\nContent-Transfer-Encoding: "
         "base64\nContent-Disposition: attachment; filename=\"a.gif\"\nContent-ID: <id@x>\n"
         "Content-Base: http://b/\nContent-Location: l.html\nContent-Description: D\n"
         "Message-Id: <m@x>\n\n", 0},
        // A multipart drops charset and encoding; type= and start= are related's.
        {{.type = "MULTIPART", .subtype = "Related", .encoding = "base64", .filename = "page",
          .charset = "utf-8", .start = "<r@x>", .root_type = "text/html"}, 3,
         "Content-type: MULTIPART/Related;\n  name=page;\n  type=text/html;\n  start=<r@x>; "
         "boundary=\"41TarnwickLEVEL4\"\nMessage-Id: <r@x>\n\n", 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(header(c.part, c.level), std::tuple(crlf(c.expected), c.result, 0));
}

// Without access-type the header fails as it stands; with it, the
// parameters follow in their fixed order.
TEST_F(ComposeTest, ContentHeaderOfAnExternalBody) {
    const Part doc{.type = "message", .subtype = "external-body", .filename = "doc"};
    const std::string start = "Content-type: message/external-body;\n  name=doc";
    EXPECT_EQ(header(doc, 0), std::tuple(crlf(start), -1, 1));
    EXPECT_EQ(header(doc, 0, {}, [](mime_part_desc &d) {
                  auto &p = d.parameters.external_body;
                  for (char *f : {p.access_type, p.site, p.subject, p.directory, p.mode,
                                  p.expiration, p.server, p.permission})
                      std::strcpy(f, "v");
                  p.size = 4096;
              }),
              std::tuple(crlf(start + ";\n  access-type=v;\n  site=\"v\";\n  subject=\"v\";\n"
                                      "  directory=\"v\";\n  mode=\"v\";\n  expiration=\"v\";\n"
                                      "  server=\"v\";\n  size=4096;\n  permission=\"v\"\n\n"),
                         0, 1));
}

// Answers of extra_header_cb follow the fixed lines, the caller's extra text
// follows them; a failing answer leaves the header open.
TEST_F(ComposeTest, ContentHeaderExtraTextLandsBeforeTheBlankLine) {
    const std::string full(2052, 'Z'); // a full buffer is a valid answer
    g_extra = {"X-One: 1\r\n", full};
    EXPECT_EQ(header({.encoding = "8bit"}, 0, "X-Extra: 3\r\n"),
              std::tuple(crlf("Content-type: text/plain\nContent-Transfer-Encoding: 8bit\n"
                              "X-One: 1\n") + full + crlf("X-Extra: 3\n\n"), 0, 0));
    g_extra = {"X-One: 1\r\n", "!", "X-Never: 1\r\n"};
    EXPECT_EQ(header({}, 0, "X-Extra: 3\r\n"),
              std::tuple(crlf("Content-type: text/plain\nX-One: 1\n"), -1, 0));
}

} // namespace
