// Multipart composition, raw parts and embedded messages, driven through
// create_message (and the driver itself where the status matters) by a
// scripted application.
#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <vector>

#include "compose/compose.h"
#include "support/test_support.h"

namespace {

using tw_test::crlf;
using tw_test::read_file;

constexpr const char *kDate = "Wed, 2 Jan 1980 02:03:55";
constexpr const char *kMessage = "msg.eml";

// One answer of next_part_cb; the fields are put into the record for any
// answer that describes a part.
struct PartAnswer {
    int32_t answer = 1;
    std::string type, subtype, encoding, filename, charset;
    int32_t number = 0, total = 0;
    std::string id;
    std::string extra; // header text of the full-record form
};

PartAnswer part(std::string type, std::string subtype, std::string encoding = "") {
    PartAnswer p;
    p.type = std::move(type);
    p.subtype = std::move(subtype);
    p.encoding = std::move(encoding);
    return p;
}
PartAnswer answer(int32_t value) {
    PartAnswer p;
    p.answer = value;
    return p;
}
PartAnswer partial(int32_t number, int32_t total, std::string id) {
    PartAnswer p = part("message", "partial");
    p.number = number;
    p.total = total;
    p.id = std::move(id);
    return p;
}
const PartAnswer kClose = answer(MIME_PART_END_MULTIPART);
const PartAnswer kRaw = answer(MIME_PART_RAW);

struct BodyAnswer {
    enum Kind { Bytes, Named, BytesThenStop } kind = Bytes;
    std::string text; // the bytes, or the name of the file
};
BodyAnswer bytes(std::string text) { return {BodyAnswer::Bytes, std::move(text)}; }
BodyAnswer named(std::string path) { return {BodyAnswer::Named, std::move(path)}; }
BodyAnswer bytes_then_stop(std::string text) {
    return {BodyAnswer::BytesThenStop, std::move(text)};
}
const BodyAnswer kStopBody = bytes_then_stop("");

// What the application answers, in order, and what it was asked.
struct Script {
    std::deque<PartAnswer> parts;
    std::deque<BodyAnswer> bodies;
    std::size_t offset = 0;
    std::vector<std::string> log;
    struct Done {
        int32_t lines, bytes;
        long long file_size;
    };
    std::vector<Done> done;
    std::function<void()> on_body; // runs at each body_cb call
};
Script g;

template <typename Record> void fill(Record &r, const PartAnswer &p) {
    tw::copy_field(r.content_type, p.type);
    tw::copy_field(r.content_subtype, p.subtype);
    tw::copy_field(r.encoding, p.encoding);
    tw::copy_field(r.filename, p.filename);
    tw::copy_field(r.charset, p.charset);
    r.parameters.partial.part_number = p.number;
    r.parameters.partial.part_total = p.total;
    tw::copy_field(r.parameters.partial.part_id, p.id);
}

bool describes_part(int32_t a) {
    return a != MIME_PART_END_MULTIPART && a != MIME_PART_RAW && a != -1;
}

PartAnswer next_answer() {
    g.log.push_back("next");
    if (g.parts.empty()) {
        ADD_FAILURE() << "next_part_cb called beyond the script";
        return answer(-1);
    }
    PartAnswer p = g.parts.front();
    g.parts.pop_front();
    return p;
}

int32_t next_part_cb(mime_part_info *info) {
    PartAnswer p = next_answer();
    if (describes_part(p.answer)) {
        std::memset(info, 0, sizeof *info);
        fill(*info, p);
    }
    return p.answer;
}

// The full-record form leaves the record as the last answer left it, as an
// application that only sets what it needs would.
int32_t ex_next_part_cb(mime_part_desc *desc, char *extra, int32_t size, intptr_t user) {
    EXPECT_EQ(user, 77);
    EXPECT_EQ(extra[0], '\0') << "the extra text is emptied before each call";
    PartAnswer p = next_answer();
    if (describes_part(p.answer)) {
        if (!p.type.empty())
            fill(*desc, p);
        tw::copy_bounded(extra, static_cast<std::size_t>(size), p.extra);
    }
    return p.answer;
}

int32_t body_cb(char *buffer, int32_t size, int32_t *is_file) {
    g.log.push_back("body");
    if (g.on_body)
        g.on_body();
    if (g.bodies.empty()) {
        ADD_FAILURE() << "body_cb called beyond the script";
        return -1;
    }
    BodyAnswer &b = g.bodies.front();
    if (b.kind == BodyAnswer::Named) {
        std::memcpy(buffer, b.text.data(), b.text.size());
        *is_file = 1;
        const auto n = static_cast<int32_t>(b.text.size());
        g.bodies.pop_front();
        return n;
    }
    const std::size_t n = std::min(b.text.size() - g.offset, static_cast<std::size_t>(size));
    if (n == 0) {
        const bool stop = b.kind == BodyAnswer::BytesThenStop;
        g.bodies.pop_front();
        g.offset = 0;
        return stop ? -1 : 0;
    }
    std::memcpy(buffer, b.text.data() + g.offset, n);
    g.offset += n;
    *is_file = 0;
    return static_cast<int32_t>(n);
}

int32_t ex_body_cb(char *buffer, int32_t size, int32_t *is_file, intptr_t) {
    return body_cb(buffer, size, is_file);
}

int32_t done_cb(int32_t lines, int32_t bytes) {
    g.log.push_back("done");
    g.done.push_back({lines, bytes, static_cast<long long>(read_file(kMessage).size())});
    return 0;
}

std::string head(const char *subject = "Photo") {
    return crlf(std::string("From: Bob\nDate: ") + kDate + "\nTo: Ann\n" +
                (subject != nullptr ? std::string("Subject: ") + subject + "\n" : "") +
                "MIME-VERSION: 1.0\n");
}

std::string boundary(int32_t number, int32_t level) {
    return std::to_string(number) + "TarnwickLEVEL" + std::to_string(level);
}

class MultipartTest : public tw_test::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        g = Script{};
        mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(kDate), 0);
    }
    void TearDown() override {
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
        EXPECT_TRUE(g.parts.empty()) << "the script was not used up";
        TempDirTest::TearDown();
    }

    void script(std::vector<PartAnswer> parts, std::vector<BodyAnswer> bodies) {
        g.parts.assign(parts.begin(), parts.end());
        g.bodies.assign(bodies.begin(), bodies.end());
    }

    // create_message with `top` as its part_info; 1 or 0.
    int32_t create(const PartAnswer &top, const char *subject = "Photo") {
        mime_part_info info{};
        fill(info, top);
        return create_message("Ann", "Bob", subject, nullptr, nullptr, &info, kMessage,
                              next_part_cb, body_cb, done_cb, nullptr, 1, 0);
    }

    // The driver itself, for its status.
    int32_t drive(const PartAnswer &top, bool ex_mode = false) {
        mime_part_desc desc{};
        fill(desc, top);
        tw::ComposeCallbacks cb;
        cb.ex_mode = ex_mode;
        cb.user_value = 77;
        cb.next_part = next_part_cb;
        cb.ex_next_part = ex_next_part_cb;
        cb.body = body_cb;
        cb.ex_body = ex_body_cb;
        cb.done = ex_mode ? nullptr : done_cb;
        return tw::mime_compose({"Ann", "Bob", "Photo", nullptr, nullptr}, desc, kMessage, {}, cb,
                                true, false);
    }

    std::string message() const { return read_file(kMessage); }
    std::vector<std::string> leftovers() const {
        std::vector<std::string> names;
        for (const std::string &name : tw_test::list_dir(dir()))
            if (name != kMessage && name != "state")
                names.push_back(name);
        return names;
    }
};

// The nested levels' boundaries follow from the first number, 41.
const std::string kInner = boundary(tw::mime_next_boundary_number(41), 2);
const std::string kThird =
    boundary(tw::mime_next_boundary_number(tw::mime_next_boundary_number(41)), 3);

// ---- Whole messages, byte for byte --------------------------------------------

TEST_F(MultipartTest, NestedAlternativeInsideMixed) {
    script({part("multipart", "alternative"), part("text", "plain"), part("text", "html"), kClose,
            kClose},
           {bytes("See below\r\n"), bytes("plain version\r\n"), bytes("html version\r\n")});
    ASSERT_EQ(create(part("multipart", "mixed")), 1);
    EXPECT_EQ(message(),
              head() + crlf("Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n"
                            "\n"
                            "--41TarnwickLEVEL1\n"
                            "Content-type: text/plain; charset=us-ascii\n"
                            "\n"
                            "See below\n"
                            "\n"
                            "--41TarnwickLEVEL1\n"
                            "Content-type: multipart/alternative; boundary=\"" +
                            kInner + "\"\n\n\n--" + kInner +
                            "\n"
                            "Content-type: text/plain\n"
                            "\n"
                            "plain version\n"
                            "\n--" +
                            kInner +
                            "\n"
                            "Content-type: text/html\n"
                            "\n"
                            "html version\n"
                            "\n--" +
                            kInner +
                            "--\n"
                            "\n"
                            "--41TarnwickLEVEL1--\n"));
}

TEST_F(MultipartTest, FirstFragmentOfAPartialSet) {
    script({PartAnswer{}}, {bytes("First half of the text\r\n")});
    ASSERT_EQ(create(partial(1, 2, "m.1"), nullptr), 1);
    EXPECT_EQ(message(), head(nullptr) + crlf("Content-type: message/partial;\n"
                                              "  number=1;\n"
                                              "  total=2;\n"
                                              "  id=\"m.1\"\n"
                                              "\n"
                                              "MIME-VERSION: 1.0\n"
                                              "Content-type: text/plain\n"
                                              "\n"
                                              "First half of the text\n"));
    EXPECT_EQ(g.log, (std::vector<std::string>{"next", "body", "body", "done"}));
}

// ---- Shapes of the loop, table-driven -----------------------------------------------

struct ShapeCase {
    const char *name;
    std::vector<PartAnswer> parts;
    std::vector<BodyAnswer> bodies;
    std::string expected_tail; // what follows the first text part "T\r\n"
};

void PrintTo(const ShapeCase &c, std::ostream *out) { *out << c.name; }

class MultipartShapes : public MultipartTest, public ::testing::WithParamInterface<ShapeCase> {};

TEST_P(MultipartShapes, WritesExactly) {
    const ShapeCase &c = GetParam();
    std::vector<BodyAnswer> bodies{bytes("T\r\n")};
    bodies.insert(bodies.end(), c.bodies.begin(), c.bodies.end());
    script(c.parts, bodies);
    ASSERT_EQ(create(part("multipart", "mixed")), 1);
    const std::string prefix =
        head() + crlf("Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n"
                      "\n"
                      "--41TarnwickLEVEL1\n"
                      "Content-type: text/plain; charset=us-ascii\n"
                      "\n"
                      "T\n");
    const std::string text = message();
    ASSERT_EQ(text.substr(0, prefix.size()), prefix);
    EXPECT_EQ(text.substr(prefix.size()), crlf(c.expected_tail));
}

INSTANTIATE_TEST_SUITE_P(
    Loop, MultipartShapes,
    ::testing::Values(
        ShapeCase{"CloseAtOnce", {kClose}, {}, "\n--41TarnwickLEVEL1--\n"},
        ShapeCase{"RawPartInMultipart",
                  {kRaw, kClose},
                  {bytes("raw bytes")},
                  "\n--41TarnwickLEVEL1\n\n\nraw bytes\n--41TarnwickLEVEL1--\n"},
        ShapeCase{"RawPartBehindRfc822",
                  {part("message", "rfc822"), kRaw, kClose},
                  {bytes("From: x\r\n\r\nhi\r\n")},
                  "\n--41TarnwickLEVEL1\nContent-type: message/rfc822\n\n\n\nFrom: x\n\nhi\n"
                  "\n--41TarnwickLEVEL1--\n"},
        // The first fragment announces an embedded message, so no delimiter
        // stands in front of its header; a later fragment is a body.
        ShapeCase{"PartialNumberOne",
                  {partial(1, 2, "p"), part("text", "plain"), kRaw, kClose},
                  {bytes("half\r\n"), bytes("x")},
                  "\n--41TarnwickLEVEL1\nContent-type: message/partial;\n  number=1;\n"
                  "  total=2;\n  id=\"p\"\n\nContent-type: text/plain\n\nhalf\n"
                  "\n--41TarnwickLEVEL1\n\n\nx\n--41TarnwickLEVEL1--\n"},
        ShapeCase{"PartialNumberTwo",
                  {partial(2, 2, "p"), part("text", "plain"), kClose},
                  {bytes("second half\r\n"), bytes("after\r\n")},
                  "\n--41TarnwickLEVEL1\nContent-type: message/partial;\n  number=2;\n"
                  "  total=2;\n  id=\"p\"\n\nsecond half\n"
                  "\n--41TarnwickLEVEL1\nContent-type: text/plain\n\nafter\n"
                  "\n--41TarnwickLEVEL1--\n"},
        // A message part is never encoded, whatever its encoding says.
        ShapeCase{"MessagePartNeverEncoded",
                  {[] {
                       PartAnswer p = partial(2, 0, "q");
                       p.encoding = "base64";
                       return p;
                   }(),
                   kClose},
                  {bytes("as is\r\n")},
                  "\n--41TarnwickLEVEL1\nContent-type: message/partial;\n  number=2;\n"
                  "  id=\"q\"\n\nas is\n\n--41TarnwickLEVEL1--\n"},
        // Siblings at one depth get the number that their parent's leads
        // to; a level below one of them gets the next number of the chain.
        ShapeCase{"SiblingMultipartsShareANumber",
                  {part("multipart", "alternative"), kRaw, kClose, part("multipart", "related"),
                   part("multipart", "mixed"), kClose, kClose, kClose},
                  {bytes("a")},
                  "\n--41TarnwickLEVEL1\nContent-type: multipart/alternative; boundary=\"" +
                      kInner + "\"\n\n\n--" + kInner + "\n\n\na\n--" + kInner +
                      "--\n\n--41TarnwickLEVEL1\nContent-type: multipart/related; boundary=\"" +
                      kInner + "\"\n\n\n--" + kInner +
                      "\nContent-type: multipart/mixed; boundary=\"" + kThird + "\"\n\n\n--" +
                      kThird + "--\n\n--" + kInner + "--\n\n--41TarnwickLEVEL1--\n"}),
    [](const ::testing::TestParamInfo<ShapeCase> &info) { return std::string(info.param.name); });

// ---- Bodies from named files ---------------------------------------------------------

TEST_F(MultipartTest, NamedFilesAreAppendedAsTheyStand) {
    tw_test::write_file(path("part.bin"), std::string("\0\x1a\x02", 3));
    tw_test::write_file(path("raw.txt"), "raw\r\n");
    script({part("application", "octet-stream"), kRaw, kClose},
           {bytes("T\r\n"), named("part.bin"), named(path("raw.txt"))});
    ASSERT_EQ(create(part("multipart", "mixed")), 1);
    const std::string text = message();
    EXPECT_NE(text.find(crlf("Content-type: application/octet-stream\n\n") +
                        std::string("\0\x1a\x02", 3) + crlf("\n--41TarnwickLEVEL1\n\n\nraw\n\n")),
              std::string::npos)
        << text;
    EXPECT_TRUE(leftovers() == std::vector<std::string>({"part.bin", "raw.txt"}));
}

// ---- done_cb: once, after the first part, and never for an embedded multipart ---------

TEST_F(MultipartTest, DoneIsToldOnceAfterTheFirstPart) {
    tw_test::write_file(kMessage, "old content\r\n");
    script({part("text", "plain"), kClose}, {bytes("first\r\nline two\r\n"), bytes("second\r\n")});
    ASSERT_EQ(create(part("multipart", "mixed")), 1);
    EXPECT_EQ(g.log,
              (std::vector<std::string>{"body", "body", "done", "next", "body", "body", "next"}));
    ASSERT_EQ(g.done.size(), 1u);
    // The counts are those of the message up to the end of the first part,
    // without what the file held before.
    const long long old = 13;
    EXPECT_EQ(g.done[0].bytes, g.done[0].file_size - old);
    const std::string first = message().substr(old, static_cast<std::size_t>(g.done[0].bytes));
    EXPECT_EQ(first.substr(first.size() - 10), "line two\r\n");
    EXPECT_EQ(g.done[0].lines, std::count(first.begin(), first.end(), '\n'));
}

TEST_F(MultipartTest, EmbeddedMultipartTellsNoDone) {
    script({part("multipart", "mixed"), part("text", "plain"), kClose}, {bytes("x\r\n")});
    ASSERT_EQ(create(part("message", "rfc822")), 1);
    EXPECT_TRUE(g.done.empty());
    EXPECT_EQ(message(),
              head() + crlf("Content-type: message/rfc822\n"
                            "\n"
                            "Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n"
                            "\n"
                            "\n--41TarnwickLEVEL1\n"
                            "Content-type: text/plain\n"
                            "\n"
                            "x\n"
                            "\n--41TarnwickLEVEL1--\n"));
}

TEST_F(MultipartTest, EmbeddedSinglePartTellsDoneAtItsEnd) {
    PartAnswer external = part("message", "external-body");
    std::string access = "anon-ftp";
    mime_part_info info{};
    fill(info, external);
    tw::copy_field(info.parameters.external_body.access_type, access);
    script({part("text", "plain")}, {bytes("body\r\n")});
    ASSERT_EQ(create_message("Ann", "Bob", "Photo", nullptr, nullptr, &info, kMessage, next_part_cb,
                             body_cb, done_cb, nullptr, 1, 0),
              1);
    EXPECT_EQ(g.log, (std::vector<std::string>{"next", "body", "body", "done"}));
    ASSERT_EQ(g.done.size(), 1u);
    EXPECT_EQ(g.done[0].bytes, g.done[0].file_size);
}

// ---- mime_write_embedded: the answers that are no part -----------------------------

TEST_F(MultipartTest, EmbeddedAnswerZeroEndsBehindTheOuterHeader) {
    script({answer(0)}, {});
    ASSERT_EQ(drive(part("message", "rfc822")), MIME_OK);
    EXPECT_EQ(message(), head() + crlf("Content-type: message/rfc822\n\n"));
    ASSERT_EQ(g.done.size(), 1u);
    EXPECT_EQ(g.done[0].bytes, g.done[0].file_size);
    EXPECT_TRUE(leftovers().empty());
}

// ---- Failures in the middle ---------------------------------------------------------

struct FailureCase {
    const char *name;
    std::vector<PartAnswer> parts;
    std::vector<BodyAnswer> bodies;
    int32_t status;
};

void PrintTo(const FailureCase &c, std::ostream *out) { *out << c.name; }

class MultipartFailures : public MultipartTest,
                          public ::testing::WithParamInterface<FailureCase> {};

TEST_P(MultipartFailures, StopWithoutClosingAndLeaveNoTemporaryFile) {
    const FailureCase &c = GetParam();
    for (const bool through_export : {false, true}) {
        SCOPED_TRACE(through_export ? "create_message" : "driver");
        tw::remove_file(path(kMessage));
        g = Script{};
        std::vector<BodyAnswer> bodies{bytes("T\r\n")};
        bodies.insert(bodies.end(), c.bodies.begin(), c.bodies.end());
        script(c.parts, bodies);
        if (through_export)
            EXPECT_EQ(create(part("multipart", "mixed")), 0);
        else
            EXPECT_EQ(drive(part("multipart", "mixed")), c.status);
        EXPECT_EQ(message().find("--\r\n"), std::string::npos) << "a closing delimiter";
        EXPECT_TRUE(leftovers().empty());
        g.parts.clear(); // a failure ends the script early
    }
}

INSTANTIATE_TEST_SUITE_P(
    Loop, MultipartFailures,
    ::testing::Values(
        FailureCase{"NextPartStopsInANestedLevel",
                    {part("multipart", "alternative"), part("text", "plain"), answer(-1)},
                    {bytes("x\r\n")},
                    MIME_STOPPED},
        FailureCase{"BodyStopsInAnEncodedPart",
                    {part("image", "gif", "base64"), kClose},
                    {bytes_then_stop("GIF8")},
                    MIME_STOPPED},
        FailureCase{"BodyStopsInARawPart", {kRaw, kClose}, {kStopBody}, MIME_STOPPED},
        FailureCase{"NamedFileIsMissing", {kRaw, kClose}, {named("no-such-file")}, MIME_FILE_ERROR},
        FailureCase{"ExternalBodyWithoutAccessType",
                    {part("message", "external-body"), kClose},
                    {},
                    MIME_FILE_ERROR}),
    [](const ::testing::TestParamInfo<FailureCase> &info) { return std::string(info.param.name); });

// ---- Depth: 99 levels fit, the 100th is refused -----------------------------------

TEST_F(MultipartTest, NinetyNineLevelsFitAndTheHundredthIsRefused) {
    for (const bool one_more : {false, true}) {
        SCOPED_TRACE(one_more ? "100 levels" : "99 levels");
        tw::remove_file(path(kMessage));
        g = Script{};
        std::vector<PartAnswer> parts(98, part("multipart", "mixed"));
        if (one_more)
            parts.push_back(part("multipart", "mixed"));
        else
            parts.insert(parts.end(), 99, kClose);
        script(parts, {bytes("T\r\n")});
        EXPECT_EQ(drive(part("multipart", "mixed")), one_more ? MIME_FILE_ERROR : MIME_OK);
        const std::string text = message();
        EXPECT_NE(text.find("TarnwickLEVEL99\"\r\n"), std::string::npos);
        EXPECT_EQ(text.find("LEVEL100"), std::string::npos);
        if (one_more)
            EXPECT_EQ(text.find("LEVEL99--"), std::string::npos);
        else
            EXPECT_EQ(text.substr(text.size() - 24), "\r\n--41TarnwickLEVEL1--\r\n");
        EXPECT_TRUE(leftovers().empty());
    }
}

// ---- Run state and the full-record form -------------------------------------------

TEST_F(MultipartTest, TransferEncodingIsClearedBeforeEachPart) {
    std::vector<int32_t> seen;
    g.on_body = [&] {
        seen.push_back(tw::run_state().transfer_encoding);
        tw::run_state().transfer_encoding = MIME_ENC_QUOTED;
    };
    script({part("text", "plain"), kRaw, kClose}, {bytes("T\r\n"), bytes("a\r\n"), bytes("b")});
    ASSERT_EQ(drive(part("multipart", "mixed")), MIME_OK);
    // First text part, then two calls for each of the two parts of the loop.
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[2], 0);
    EXPECT_EQ(seen[4], 0);
}

TEST_F(MultipartTest, FullRecordFormHasNoTextPartAndCarriesExtraText) {
    PartAnswer first = part("text", "plain");
    first.extra = "X-First: 1\r\n";
    PartAnswer second; // no fields: the record keeps what the first answer left
    second.extra = "X-Second: 2\r\n";
    script({first, second, kClose}, {bytes("one\r\n"), bytes("two\r\n")});
    ASSERT_EQ(drive(part("multipart", "mixed"), true), MIME_OK);
    EXPECT_EQ(message(),
              head() + crlf("Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n"
                            "\n"
                            "\n--41TarnwickLEVEL1\n"
                            "Content-type: text/plain\n"
                            "X-First: 1\n"
                            "\n"
                            "one\n"
                            "\n--41TarnwickLEVEL1\n"
                            "Content-type: text/plain\n"
                            "X-Second: 2\n"
                            "\n"
                            "two\n"
                            "\n--41TarnwickLEVEL1--\n"));
}

// ---- Encoded parts ------------------------------------------------------------------

TEST_F(MultipartTest, TextPlusOneBase64Attachment) {
    // A one-pixel GIF.
    const std::string gif("GIF89a\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xff\xff\xff"
                          "!\xf9\x04\x01\x00\x00\x00\x00,\x00\x00\x00\x00\x01\x00\x01\x00"
                          "\x00\x02\x01"
                          "D\x00;",
                          42);
    PartAnswer gif_part = part("image", "gif", "base64");
    gif_part.filename = "a.gif";
    script({gif_part, kClose}, {bytes("See attachment\r\n"), bytes(gif)});
    ASSERT_EQ(create(part("multipart", "mixed")), 1);
    EXPECT_EQ(message(),
              head() + crlf("Content-type: multipart/mixed; boundary=\"41TarnwickLEVEL1\"\n"
                            "\n"
                            "--41TarnwickLEVEL1\n"
                            "Content-type: text/plain; charset=us-ascii\n"
                            "\n"
                            "See attachment\n"
                            "\n"
                            "--41TarnwickLEVEL1\n"
                            "Content-type: image/gif;\n"
                            "  name=a.gif\n"
                            "Content-Transfer-Encoding: base64\n"
                            "Content-Disposition: attachment; filename=\"a.gif\"\n"
                            "\n"
                            "R0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7\n"
                            "\n"
                            "--41TarnwickLEVEL1--\n"));
    EXPECT_EQ(g.log,
              (std::vector<std::string>{"body", "body", "done", "next", "body", "body", "next"}));
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(MultipartTest, FirstTextPartQuotedPrintableHasItsOwnHeaderForm) {
    PartAnswer top = part("multipart", "mixed", "quoted-printable");
    top.charset = "iso-8859-1";
    script({kClose}, {bytes("a=b\r\n")});
    ASSERT_EQ(create(top), 1);
    const std::string text = message();
    EXPECT_NE(text.find(crlf("--41TarnwickLEVEL1\n"
                             "Content-type: text/plain; charset=iso-8859-1\n"
                             "Content-transfer-encoding: quoted-printable\n"
                             "\n"
                             "a=3Db\n"
                             "\n--41TarnwickLEVEL1--\n")),
              std::string::npos)
        << text;
}

TEST_F(MultipartTest, LaterFragmentAtTheTopIsEncoded) {
    PartAnswer top = partial(2, 2, "m.1");
    top.encoding = "base64";
    script({}, {bytes("abc")});
    ASSERT_EQ(create(top, nullptr), 1);
    EXPECT_EQ(message(), head(nullptr) + crlf("Content-type: message/partial;\n"
                                              "  number=2;\n"
                                              "  total=2;\n"
                                              "  id=\"m.1\"\n"
                                              "\n"
                                              "YWJj\n"));
}

} // namespace
