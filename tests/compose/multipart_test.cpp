// Multipart composition, raw parts and embedded messages, driven by a
// scripted application through the driver, for its status, and create_message.
#include <algorithm>

#include "compose/compose_fixture.h"

namespace {

using namespace tw_compose_test;

const std::string kMixed = "Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n\n";
// A mixed top, up to the end of the text part "T" the library opens it with.
const std::string kT = kMixed + "--41TarnwickLEVEL1\nContent-type: text/plain; charset=us-ascii\n\nT\n";

class MultipartTest : public ComposeTest {
protected:
    static int32_t drive(const Part &top) {
        auto desc = std::make_unique<mime_part_desc>();
        fill(*desc, top);
        tw::ComposeCallbacks cb;
        cb.next_part = next_part_cb, cb.body = body_cb, cb.done = done_cb;
        return tw::mime_compose({"Ann", "Bob", "Hello"}, *desc, kMessage, {}, cb, true, false);
    }
};

TEST_F(MultipartTest, WholeMessages) {
    tw_test::write_file("raw.txt", "raw\r\n");
    const Part mixed = part("multipart", "mixed");
    const struct {
        Part top;
        std::vector<Part> parts;
        std::vector<std::string> bodies;
        int done; // told: -1 never, 0 once (behind the first part), 1 once at the end
        std::string expected; // behind the address block; "\n" stands for CRLF
    } cases[] = {
        // The nested level's number is the next of the chain after 41.
        {mixed, {part("multipart", "alternative"), part("text", "plain"), part("text", "html"),
                 kClose, kClose}, {"T\r\n", "", "plain\r\n", "", "html\r\n"}, 0,
         kT + "\n--41TarnwickLEVEL1\nContent-type: multipart/alternative; boundary=\"172Tarnwick"
         "LEVEL2\"\n\n\n--172TarnwickLEVEL2\nContent-type: text/plain\n\nplain\n\n--172Tarnwick"
         "LEVEL2\nContent-type: text/html\n\nhtml\n\n--172TarnwickLEVEL2--\n\n--41TarnwickLEVEL1--\n"},
        {partial(1, 2, "m.1"), {part("text", "plain")}, {"First half\r\n"}, 1,
         "Content-type: message/partial;\n  number=1;\n  total=2;\n  id=\"m.1\"\n\n"
         "MIME-VERSION: 1.0\nContent-type: text/plain\n\nFirst half\n"},
        // At the top a later fragment is a body like any other, and encoded.
        {partial(2, 2, "m.1", "base64"), {}, {"abc"}, 1,
         "Content-type: message/partial;\n  number=2;\n  total=2;\n  id=\"m.1\"\n\nYWJj\n"},
        {part("message", "rfc822"), {Part{.answer = 0}}, {}, 1, "Content-type: message/rfc822\n\n"},
        {part("message", "rfc822"), {mixed, part("text", "plain"), kClose}, {"x\r\n"}, -1,
         "Content-type: message/rfc822\n\n" + kMixed + "\n--41TarnwickLEVEL1\n"
         "Content-type: text/plain\n\nx\n\n--41TarnwickLEVEL1--\n"},
        // The library's own header of the first text part, in lower case.
        {{.type = "multipart", .subtype = "mixed", .encoding = "quoted-printable",
          .charset = "iso-8859-1"}, {kClose}, {"a=b\r\n"}, 0,
         kMixed + "--41TarnwickLEVEL1\nContent-type: text/plain; charset=iso-8859-1\n"
         "Content-transfer-encoding: quoted-printable\n\na=3Db\n\n--41TarnwickLEVEL1--\n"},
        {mixed, {kRaw, kClose}, {"T\r\n", "", "@raw.txt"}, 0,
         kT + "\n--41TarnwickLEVEL1\n\n\nraw\n\n--41TarnwickLEVEL1--\n"},
        // An announced message takes the next part without a delimiter.
        {mixed, {{.type = "message", .subtype = "RFC822", .encoding = "base64", .filename = "f"},
                 kRaw, kClose}, {"T\r\n", "", "From: x\r\n"}, 0,
         kT + "\n--41TarnwickLEVEL1\nContent-type: message/RFC822;\n  name=f\n\n\n\nFrom: x\n"
         "\n--41TarnwickLEVEL1--\n"},
        // A message part is never encoded, whatever its encoding says.
        {mixed, {{.type = "Message", .subtype = "Partial", .encoding = "base64", .number = 2}, kClose},
         {"T\r\n", "", "as is\r\n"}, 0,
         kT + "\n--41TarnwickLEVEL1\nContent-type: Message/Partial;\n  number=2;\n  id=\"\"\n\n"
         "as is\n\n--41TarnwickLEVEL1--\n"},
        // Siblings share the number their parent leads to; a level below one
        // of them takes the next of the chain (172, then 600).
        {mixed, {part("multipart", "alternative"), kClose, part("multipart", "related"), mixed,
                 kClose, kClose, kClose}, {"T\r\n"}, 0,
         kT + "\n--41TarnwickLEVEL1\nContent-type: multipart/alternative; boundary=\"172Tarnwick"
         "LEVEL2\"\n\n\n--172TarnwickLEVEL2--\n\n--41TarnwickLEVEL1\nContent-type: multipart/related;"
         " boundary=\"172TarnwickLEVEL2\"\n\n\n--172TarnwickLEVEL2\nContent-type: multipart/mixed; "
         "boundary=\"600TarnwickLEVEL3\"\n\n\n--600TarnwickLEVEL3--\n\n--172TarnwickLEVEL2--\n"
         "\n--41TarnwickLEVEL1--\n"},
    };
    for (const auto &c : cases) {
        script(c.parts, c.bodies);
        ASSERT_EQ(drive(c.top), MIME_OK) << c.expected;
        EXPECT_EQ(message(), kHead + crlf(c.expected));
        EXPECT_EQ(tw_test::list_dir(dir()), (Names{kMessage, "raw.txt"})) << c.expected;
        EXPECT_TRUE(g.parts.empty()) << c.expected;
        EXPECT_EQ(g.done.size(), c.done < 0 ? 0u : 1u) << c.expected;
        for (const Script::Done &d : g.done)
            EXPECT_EQ(d.bytes == static_cast<int32_t>(message().size()), c.done == 1) << c.expected;
    }
}

// done_cb comes once, right behind the first part, and counts the message
// so far without what the file held before it.
TEST_F(MultipartTest, TextPlusOneBase64AttachmentAppendedToAFile) {
    const std::string old = "old content\r\n";
    tw_test::write_file(kMessage, old);
    const std::string gif("GIF89a\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xff\xff\xff!\xf9\x04\x01"
                          "\x00\x00\x00\x00,\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x01"
                          "D\x00;", 42);
    Part gif_part = part("image", "gif", "base64");
    gif_part.filename = "a.gif";
    g.parts = {gif_part, kClose};
    g.bodies = {"See attachment\r\nline two\r\n", "", gif};
    ASSERT_EQ(create(part("multipart", "mixed")), 1);
    const std::string first = kHead + crlf(kMixed + "--41TarnwickLEVEL1\nContent-type: text/plain; "
                                            "charset=us-ascii\n\nSee attachment\nline two\n");
    EXPECT_EQ(message(), old + first + crlf("\n--41TarnwickLEVEL1\nContent-type: image/gif;\n"
                                            "  name=a.gif\nContent-Transfer-Encoding: base64\n"
                                            "Content-Disposition: attachment; filename=\"a.gif\"\n"
                                            "\nR0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7\n"
                                            "\n--41TarnwickLEVEL1--\n"));
    EXPECT_EQ(g.log, (Names{"body", "body", "done", "next", "body", "body", "next"}));
    EXPECT_EQ(g.done.at(0).bytes, static_cast<int32_t>(first.size()));
    EXPECT_EQ(g.done.at(0).file_size, static_cast<long long>(old.size() + first.size()));
    EXPECT_EQ(g.done.at(0).lines, std::count(first.begin(), first.end(), '\n'));
}

TEST_F(MultipartTest, FailuresStopWithoutClosingAndLeaveNoTemporaryFile) {
    const struct {
        std::vector<Part> parts;
        std::vector<std::string> bodies; // behind the text part
        int32_t status;
    } cases[] = {
        {{part("multipart", "alternative"), part("text", "plain"), Part{.answer = -1}}, {"x"},
         MIME_STOPPED},
        {{part("image", "gif", "base64"), kClose}, {"GIF8", "!"}, MIME_STOPPED},
        {{kRaw, kClose}, {"!"}, MIME_STOPPED},
        {{kRaw, kClose}, {"@no-such-file"}, MIME_FILE_ERROR},
        {{part("message", "external-body"), kClose}, {}, MIME_FILE_ERROR}, // needs access-type
    };
    for (const auto &c : cases) {
        for (const bool through_export : {false, true}) {
            std::vector<std::string> bodies{"T\r\n", ""};
            bodies.insert(bodies.end(), c.bodies.begin(), c.bodies.end());
            script(c.parts, bodies);
            const Part top = part("multipart", "mixed");
            EXPECT_EQ(through_export ? create(top) : drive(top), through_export ? 0 : c.status);
            EXPECT_EQ(message().find("--\r\n"), std::string::npos) << "closed: " << c.status;
            EXPECT_EQ(tw_test::list_dir(dir()), Names{kMessage}) << c.status;
        }
    }
}

TEST_F(MultipartTest, NinetyNineLevelsFitAndTheHundredthIsRefused) {
    for (const bool one_more : {false, true}) {
        std::vector<Part> parts(98 + one_more, part("multipart", "mixed"));
        parts.insert(parts.end(), one_more ? 0 : 99, kClose);
        script(parts, {"T\r\n"});
        EXPECT_EQ(drive(part("multipart", "mixed")), one_more ? MIME_FILE_ERROR : MIME_OK);
        const std::string text = message();
        EXPECT_NE(text.find("TarnwickLEVEL99\"\r\n"), std::string::npos);
        EXPECT_EQ(text.find("LEVEL100"), std::string::npos);
        EXPECT_EQ(text.ends_with("\r\n--41TarnwickLEVEL1--\r\n"), !one_more);
        EXPECT_EQ(tw_test::list_dir(dir()), Names{kMessage});
    }
}

} // namespace
