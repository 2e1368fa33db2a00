// The content header of a part: fixed order, exact bytes, the boundary chain.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "compose/compose.h"
#include "support/test_support.h"

namespace {

using tw_test::crlf;

// The fields a case sets; everything else of the record stays zero.
struct Fields {
    const char *type = "", *subtype = "", *charset = "", *encoding = "", *filename = "";
    const char *content_id = "", *base = "", *location = "", *description = "", *start = "";
    const char *root_type = "";
    uint32_t size_on_disk = 0;
    int32_t number = 0, total = 0;
    const char *part_id = "";
};

std::unique_ptr<mime_part_desc> make_desc(const Fields &f) {
    auto d = std::make_unique<mime_part_desc>();
    std::memset(d.get(), 0, sizeof *d);
    tw::copy_field(d->content_type, f.type);
    tw::copy_field(d->content_subtype, f.subtype);
    tw::copy_field(d->charset, f.charset);
    tw::copy_field(d->encoding, f.encoding);
    tw::copy_field(d->filename, f.filename);
    tw::copy_field(d->content_id, f.content_id);
    tw::copy_field(d->content_base, f.base);
    tw::copy_field(d->content_location, f.location);
    tw::copy_field(d->description, f.description);
    tw::copy_field(d->start, f.start);
    tw::copy_field(d->type, f.root_type);
    d->size_on_disk = f.size_on_disk;
    if (f.number != 0 || f.total != 0 || f.part_id[0] != '\0') {
        d->parameters.partial.part_number = f.number;
        d->parameters.partial.part_total = f.total;
        tw::copy_field(d->parameters.partial.part_id, f.part_id);
    }
    return d;
}

class ContentHeaderTest : public tw_test::TempDirTest {
protected:
    struct Written {
        int32_t result = 0, embedded = 0, seed = 0;
        std::string text;
    };

    Written write(const mime_part_desc &desc, int32_t level = 0, int32_t seed = 1,
                  std::string_view extra = {}, mime_extra_header_cb cb = nullptr) {
        tw_test::write_file(path("header"), "");
        tw::File f = tw::File::open(path("header"), tw::OpenMode::WriteExisting);
        EXPECT_TRUE(f);
        Written w;
        w.seed = seed;
        w.result = tw::mime_write_content_header(f, desc, level, &w.embedded, extra, &w.seed, cb);
        f.close();
        w.text = tw_test::read_file(path("header"));
        return w;
    }
};

TEST_F(ContentHeaderTest, WritesTheLinesOfEachKindOfPart) {
    const struct {
        const char *what;
        Fields fields;
        int32_t level;
        const char *expected; // "\n" stands for CRLF
        int32_t result, embedded;
    } cases[] = {
        {"text part with no fields", {}, 0, "Content-type: text/plain\n\n", 0, 0},
        {"base64 attachment",
         {.type = "image", .subtype = "gif", .encoding = "base64", .filename = "a.gif",
          .size_on_disk = 1000},
         0,
         "Content-type: image/gif;\n  SizeOnDisk=1000;\n  name=a.gif\n"
         "Content-Transfer-Encoding: base64\n"
         "Content-Disposition: attachment; filename=\"a.gif\"\n\n",
         0, 0},
        {"multipart/mixed at level 0", {.type = "multipart", .subtype = "mixed"}, 0,
         "Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n\n", 1, 0},
        {"first fragment",
         {.type = "message", .subtype = "partial", .number = 1, .total = 3, .part_id = "x.y"}, 0,
         "Content-type: message/partial;\n  number=1;\n  total=3;\n  id=\"x.y\"\n\n", 0, 1},
        {"second fragment embeds nothing, no total, empty id",
         {.type = "Message", .subtype = "PARTIAL", .number = 2}, 0,
         "Content-type: Message/PARTIAL;\n  number=2;\n  id=\"\"\n\n", 0, 0},
        {"upper-case multipart drops charset, level 3 gives LEVEL4",
         {.type = "MULTIPART", .subtype = "Alternative", .charset = "utf-8", .encoding = "base64"},
         3, "Content-type: MULTIPART/Alternative; boundary=\"41TarnwickLEVEL4\"\n\n", 1, 0},
        {"empty type is text/plain whatever the subtype",
         {.subtype = "html", .charset = "us-ascii"}, 0,
         "Content-type: text/plain;\n  charset=us-ascii\n\n", 0, 0},
        {"type without subtype ends in a slash", {.type = "image"}, 0,
         "Content-type: image/\n\n", 0, 0},
        {"embedded rfc822 message: name only, no transfer lines",
         {.type = "message", .subtype = "RFC822", .encoding = "7bit", .filename = "fwd.eml"}, 0,
         "Content-type: message/RFC822;\n  name=fwd.eml\n\n", 0, 1},
        {"multipart/related: type and start, and start again as Message-Id",
         {.type = "multipart", .subtype = "related", .filename = "page", .start = "<root@x>",
          .root_type = "text/html"},
         1,
         "Content-type: multipart/related;\n  name=page;\n  type=text/html;\n"
         "  start=<root@x>; boundary=\"41TarnwickLEVEL2\"\nMessage-Id: <root@x>\n\n",
         1, 0},
        {"type and start parameters belong to related only",
         {.type = "text", .subtype = "html", .start = "<s@x>", .root_type = "ignored"}, 0,
         "Content-type: text/html\nMessage-Id: <s@x>\n\n", 0, 0},
        {"identity lines in their order; binhex has no transfer line",
         {.type = "application", .subtype = "mac-binhex40", .encoding = "binhex",
          .content_id = "<id@x>", .base = "http://b/", .location = "loc.html",
          .description = "A file", .start = "<m@x>"},
         0,
         "Content-type: application/mac-binhex40\nContent-ID: <id@x>\n"
         "Content-Base: http://b/\nContent-Location: loc.html\n"
         "Content-Description: A file\nMessage-Id: <m@x>\n\n",
         0, 0},
    };
    for (const auto &c : cases) {
        const Written w = write(*make_desc(c.fields), c.level);
        EXPECT_EQ(w.text, crlf(c.expected)) << c.what;
        EXPECT_EQ(w.result, c.result) << c.what;
        EXPECT_EQ(w.embedded, c.embedded) << c.what;
    }
}

TEST_F(ContentHeaderTest, ExternalBodyParametersInTheirOrderAndAccessTypeRequired) {
    auto desc = make_desc({.type = "message", .subtype = "external-body", .charset = "us-ascii",
                           .filename = "doc", .size_on_disk = 5});
    auto &p = desc->parameters.external_body;
    tw::copy_field(p.site, "ftp.example.org");

    // Without access-type it fails, and the lines written so far stay.
    Written w = write(*desc);
    EXPECT_EQ(w.result, -1);
    EXPECT_EQ(w.text, crlf("Content-type: message/external-body;\n  charset=us-ascii;\n"
                           "  SizeOnDisk=5;\n  name=doc"));

    tw::copy_field(p.access_type, "anon-ftp");
    tw::copy_field(p.subject, "subj");
    tw::copy_field(p.directory, "pub");
    tw::copy_field(p.mode, "image");
    tw::copy_field(p.server, "srv");
    tw::copy_field(p.permission, "read");
    tw::copy_field(p.expiration, "never");
    p.size = 4096;
    w = write(*desc);
    EXPECT_EQ(w.result, 0);
    EXPECT_EQ(w.embedded, 1);
    EXPECT_EQ(w.text, crlf("Content-type: message/external-body;\n  charset=us-ascii;\n"
                           "  SizeOnDisk=5;\n  name=doc;\n  access-type=anon-ftp;\n"
                           "  site=\"ftp.example.org\";\n  subject=\"subj\";\n"
                           "  directory=\"pub\";\n  mode=\"image\";\n  expiration=\"never\";\n"
                           "  server=\"srv\";\n  size=4096;\n  permission=\"read\"\n\n"));
}

// Each multipart header seeds the generator with the number before it:
// 1 gives 41, and 41 gives 172.
TEST_F(ContentHeaderTest, BoundaryNumbersFormAChainFromTheSeed) {
    auto multipart = make_desc({.type = "multipart", .subtype = "mixed"});
    const Written first = write(*multipart, 0, 1);
    EXPECT_EQ(first.seed, 41);
    const Written nested = write(*multipart, 1, first.seed);
    EXPECT_EQ(nested.seed, 172);
    EXPECT_EQ(nested.text,
              crlf("Content-type: multipart/mixed; boundary=\"172TarnwickLEVEL2\"\n\n"));
    EXPECT_EQ(write(*multipart, 1, first.seed).seed, 172) << "siblings share their number";
    EXPECT_EQ(write(*make_desc({}), 0, 77).seed, 77) << "only a multipart moves the chain";
}

// Scripted answers of extra_header_cb, a plain function.
std::vector<std::string> g_extra_answers;
std::size_t g_extra_calls = 0;
int32_t g_extra_size = 0;

int32_t scripted_extra(char *buffer, int32_t size) {
    g_extra_size = size;
    if (g_extra_calls >= g_extra_answers.size())
        return 0;
    const std::string &a = g_extra_answers[g_extra_calls++];
    if (a == "FAIL")
        return -1;
    std::memcpy(buffer, a.data(), a.size());
    return static_cast<int32_t>(a.size());
}

TEST_F(ContentHeaderTest, ExtraHeaderTextLandsBeforeTheBlankLine) {
    const std::string full(2052, 'Z');
    g_extra_answers = {"X-One: 1\r\n", "X-Two: 2\r\n", full};
    g_extra_calls = 0;
    const Written w = write(*make_desc({.encoding = "8bit"}), 0, 1, "X-Extra: 3\r\n",
                            scripted_extra);
    EXPECT_EQ(w.result, 0);
    EXPECT_EQ(g_extra_calls, 3u);
    EXPECT_EQ(g_extra_size, 2052);
    EXPECT_EQ(w.text, crlf("Content-type: text/plain\nContent-Transfer-Encoding: 8bit\n"
                           "X-One: 1\nX-Two: 2\n") +
                          full + crlf("X-Extra: 3\n\n"));
}

TEST_F(ContentHeaderTest, ExtraHeaderFailureLeavesTheHeaderOpen) {
    g_extra_answers = {"X-One: 1\r\n", "FAIL", "X-Never: 1\r\n"};
    g_extra_calls = 0;
    const Written w = write(*make_desc({}), 0, 1, "X-Extra: 3\r\n", scripted_extra);
    EXPECT_EQ(w.result, -1);
    EXPECT_EQ(g_extra_calls, 2u);
    EXPECT_EQ(w.text, crlf("Content-type: text/plain\nX-One: 1\n"));
}

} // namespace
