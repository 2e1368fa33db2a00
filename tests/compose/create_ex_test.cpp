#include <functional>
#include <optional>

#include "compose/compose_fixture.h"

namespace {

using namespace tw_compose_test;
using tw_test::list_dir;

// One answer of next_part_cb: what it does to the record and extra buffer.
using Step = std::function<int32_t(mime_part_desc *, char *)>;
Step describe(Part p, std::string extra = "") {
    return [p, extra](mime_part_desc *r, char *buffer) {
        fill(*r, p);
        std::strcpy(buffer, extra.c_str());
        return 1;
    };
}
Step answer(int32_t value) {
    return [value](mime_part_desc *, char *) { return value; };
}

struct ExScript {
    std::deque<Step> steps{};
    bool stop_output = false;
    std::vector<int32_t> extra_sizes{};
    std::vector<intptr_t> values{}; // user_value as each callback saw it
    std::string out{};
    int32_t out_calls = 0, last_length = -1;
};
ExScript x;

int32_t ex_next(mime_part_desc *record, char *extra, int32_t size, intptr_t value) {
    x.extra_sizes.push_back(size), x.values.push_back(value);
    if (extra != nullptr) {
        EXPECT_EQ(extra[0], '\0') << "extra text emptied before each call";
    }
    if (x.steps.empty())
        return -1;
    const Step step = x.steps.front();
    x.steps.pop_front();
    return step(record, extra);
}
int32_t ex_body(char *buffer, int32_t size, int32_t *is_file, intptr_t value) {
    x.values.push_back(value);
    return body_cb(buffer, size, is_file);
}
int32_t ex_output(const char *data, int32_t length, intptr_t value) {
    x.values.push_back(value);
    x.out.append(data, static_cast<std::size_t>(length));
    ++x.out_calls, x.last_length = length;
    return x.stop_output ? -1 : 1;
}

// A chain element whose strings outlive the call.
struct Field {
    std::string text, charset;
    mime_hdr_field element;
    Field(std::string t, int32_t encoding = MIME_ENC_PLAIN, std::string cs = "")
        : text(std::move(t)), charset(std::move(cs)),
          element{text.data(), charset.data(), encoding, nullptr} {}
    Field(const Field &) = delete;
};

constexpr intptr_t kValue = static_cast<intptr_t>(0x123456789LL); // above 4 GiB
const std::string kDateLine = std::string("Date: ") + kDate + "\r\n";
const std::string kPlain = kDateLine + crlf("MIME-VERSION: 1.0\nContent-type: text/plain\n\nb");

class CreateExTest : public ComposeTest {
protected:
    int32_t run(std::vector<Step> steps, std::vector<std::string> bodies,
                const char *path = kMessage, bool output = false, int32_t mime = 1,
                bool stop_output = false) {
        script({}, bodies);
        x = ExScript{.steps = {steps.begin(), steps.end()}, .stop_output = stop_output};
        return create_ex_message(&lists, path, output ? ex_output : nullptr, ex_next, ex_body,
                                 mime, 0, kValue);
    }
    mime_address_lists lists{};
};

TEST_F(CreateExTest, WorkedExample) {
    Field to("Ann"), subject("Gr\xfc\xdf" "e", MIME_ENC_QUOTED, "iso-8859-1");
    lists.to = &to.element, lists.subject = &subject.element;
    ASSERT_EQ(run({describe(part("text", "html", "base64"), "X-Note: yes\r\n")}, {"<b>hi</b>"}), 1);
    EXPECT_EQ(message(), kDateLine + crlf("To: Ann\nSubject: =?iso-8859-1?q?Gr=FC=DFe?=\n"
                                          "MIME-VERSION: 1.0\nContent-type: text/html\n"
                                          "Content-Transfer-Encoding: base64\nX-Note: yes\n\n"
                                          "PGI+aGk8L2I+\n"));
    EXPECT_EQ(x.extra_sizes, std::vector<int32_t>{2051});
}

// Every field only the full record reaches, the same bytes to the file and
// to output_cb, and user_value in every callback.
TEST_F(CreateExTest, RelatedPartsToFileAndCallback) {
    Part top = part("multipart", "related"), page = part("text", "html"),
         image = part("image", "gif", "base64");
    top.root_type = "text/html", top.start = "<root@x>";
    page.content_id = "<c@x>", page.base = "http://b/", page.location = "page.html";
    page.description = "the page", image.filename = "a.gif";
    const std::vector<Step> steps{describe(top, "X-Top: 1\r\n"), describe(page, "X-A: 1\r\n"),
                                  describe(image), answer(MIME_PART_END_MULTIPART)};
    const std::string expected =
        kDateLine + crlf("MIME-VERSION: 1.0\nContent-type: multipart/related;\n  type=text/html;\n"
                         "  start=<root@x>; boundary=\"41TarnwickLEVEL1\"\nMessage-Id: <root@x>\n"
                         "X-Top: 1\n\n\n--41TarnwickLEVEL1\nContent-type: text/html\n"
                         "Content-ID: <c@x>\nContent-Base: http://b/\nContent-Location: page.html\n"
                         "Content-Description: the page\nX-A: 1\n\n<p>\n--41TarnwickLEVEL1\n"
                         "Content-type: image/gif;\n  name=a.gif\nContent-Transfer-Encoding: base64\n"
                         "Content-Disposition: attachment; filename=\"a.gif\"\n\nR0lG\n\n"
                         "--41TarnwickLEVEL1--\n");
    ASSERT_EQ(run(steps, {"<p>", "", "GIF"}, kMessage, true), 1);
    EXPECT_EQ(message(), expected);
    EXPECT_EQ(x.out, expected);
    EXPECT_EQ(x.last_length, 0);
    EXPECT_EQ(x.extra_sizes, (std::vector<int32_t>{2051, 2052, 2052, 2052}));
    EXPECT_EQ(x.values, std::vector<intptr_t>(4 + 4 + 2, kValue)) << "next_part, body, output";

    // Without a path: the same message through a work file that goes.
    tw::remove_file(kMessage);
    ASSERT_EQ(run(steps, {"<p>", "", "GIF"}, nullptr, true), 1);
    EXPECT_EQ(x.out, expected);
    EXPECT_EQ(list_dir(dir()), Names{});
}

// The loop record is zero-filled once and then kept; the extra text is not.
TEST_F(CreateExTest, LoopRecordIsKeptExtraTextIsNot) {
    Part text = part("text", "plain");
    text.description = "kept";
    const Step first = [&](mime_part_desc *r, char *e) {
        EXPECT_EQ(r->description[0], '\0') << "the loop record starts zero-filled";
        return describe(text, "X-1: a\r\n")(r, e);
    };
    const Step keep = [](mime_part_desc *r, char *) {
        EXPECT_STREQ(r->description, "kept");
        return 1;
    };
    ASSERT_EQ(run({describe(part("multipart", "mixed")), first, keep, answer(MIME_PART_END_MULTIPART)},
                  {"one", "", "two"}),
              1);
    const std::string header = "Content-type: text/plain\nContent-Description: kept\n";
    const std::string delimiter = "\n--41TarnwickLEVEL1\n";
    EXPECT_EQ(message(), kDateLine + crlf("MIME-VERSION: 1.0\nContent-type: multipart/mixed; "
                                          "boundary=\"41TarnwickLEVEL1\"\n\n" + delimiter + header +
                                          "X-1: a\n\none" + delimiter + header +
                                          "\ntwo\n--41TarnwickLEVEL1--\n"));
}

TEST_F(CreateExTest, EmbeddedMessageOnTop) {
    ASSERT_EQ(run({describe(part("message", "rfc822")), describe(part("text", "plain"), "X-E: 1\r\n")},
                  {"inner"}),
              1);
    EXPECT_EQ(message(), kDateLine + crlf("MIME-VERSION: 1.0\nContent-type: message/rfc822\n\n"
                                          "Content-type: text/plain\nX-E: 1\n\ninner"));
    EXPECT_EQ(x.extra_sizes, (std::vector<int32_t>{2051, 2052}));
}

TEST_F(CreateExTest, AddressFieldsAreEncodedAndFolded) {
    std::string addresses;
    while (addresses.size() < 3000)
        addresses += "user0000@example.com,";
    Field to(addresses), cc("a"), cc2("b"), bcc(addresses, MIME_ENC_NONE),
        from("J\xfcrgen", MIME_ENC_BASE64, "iso-8859-1"), subject("Hi");
    cc.element.next = &cc2.element;
    lists = {&to.element, &from.element, &cc.element, &bcc.element, &subject.element};
    ASSERT_EQ(run({describe({})}, {"b"}), 1);
    const std::string m = message();
    EXPECT_TRUE(m.starts_with("From: =?iso-8859-1?B?SvxyZ2Vu?=\r\n" + kDateLine)) << m;
    EXPECT_NE(m.find("\r\nSubject: Hi\r\nCc: a,b\r\nBcc: "), std::string::npos);
    // A lone plain element folds as a single field, anything else as a chain.
    EXPECT_EQ(m.substr(m.find("To: ") + 4 + 987, 4), "\r\n  ");
    EXPECT_EQ(m.substr(m.find("Bcc: ") + 5 + 993, 4), "\r\n  ");
}

TEST_F(CreateExTest, FailuresLeaveNoWorkFile) {
    Field long_charset("a", MIME_ENC_QUOTED, std::string(126, 'c'));
    const Step plain = describe({});
    const struct {
        std::vector<Step> steps;
        std::vector<std::string> bodies;
        const char *path;
        bool output, stop_output, bad_subject;
        int32_t status;
        std::optional<std::string> left; // the message file, if any
    } cases[] = {
        {{plain}, {"b"}, nullptr, false, false, false, -12, {}},
        {{answer(0)}, {}, kMessage, true, false, false, -7, {}},
        {{answer(MIME_PART_END_MULTIPART)}, {}, nullptr, true, false, false, -7, {}},
        {{answer(MIME_PART_RAW)}, {}, kMessage, false, false, false, -7, {}},
        {{answer(-1)}, {}, nullptr, true, false, false, -7, {}},
        {{plain}, {"b"}, kMessage, true, false, true, -1, {}},
        {{plain}, {"b", "!"}, kMessage, true, false, false, -5, kPlain},
        {{plain}, {"b", "!"}, nullptr, true, false, false, -5, {}},
        {{plain}, {"b"}, kMessage, true, true, false, -7, kPlain},
    };
    int row = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(row++);
        tw::remove_file(kMessage);
        lists = {};
        if (c.bad_subject)
            lists.subject = &long_charset.element;
        EXPECT_EQ(run(c.steps, c.bodies, c.path, c.output, 1, c.stop_output), c.status);
        EXPECT_EQ(list_dir(dir()), c.left ? Names{kMessage} : Names{});
        EXPECT_EQ(message(), c.left.value_or(""));
        EXPECT_EQ(x.out_calls, c.stop_output ? 1 : 0) << "output only of a whole message";
        if (c.status == -12) {
            EXPECT_TRUE(x.values.empty()) << "no callback before -12";
        }
    }
    EXPECT_EQ(run({plain}, {"b"}, std::string(1100, 'p').c_str()), -3);
}

// Without MIME the first call has no record; its extra text still goes
// into the header.
TEST_F(CreateExTest, PlainMessageTakesTheExtraText) {
    const Step first = [](mime_part_desc *r, char *e) {
        EXPECT_EQ(r, nullptr);
        std::strcpy(e, "X-Note: yes");
        return 1;
    };
    ASSERT_EQ(run({first, answer(0)}, {"hi\r\n"}, kMessage, false, 0), 1);
    EXPECT_NE(message().find(kDateLine + "X-Note: yes\r\n"), std::string::npos) << message();
    EXPECT_EQ(message().find("MIME-VERSION"), std::string::npos);
    EXPECT_EQ(x.values, std::vector<intptr_t>(x.values.size(), kValue));
}

} // namespace
