// The header summary of mime_extract_end_ex, field by field, through real
// sessions: each case is a header block and every summary field it leaves
// set; all the others must stay empty.
#include "streaming/streaming.h"

#include <cstring>
#include <filesystem>
#include <utility>

#include "compose/compose_fixture.h"
#include "support/test_support.h"

namespace {

using tw_test::crlf;

struct Seen {
    std::vector<mime_part_desc> records; // of each header_cb
    std::vector<std::string> bodies;     // read back from a path, or joined chunks
    std::string chunks;
};

Seen &of(intptr_t user) { return *reinterpret_cast<Seen *>(user); }

int32_t on_address(mime_address_lists *, intptr_t) { return 0; }
int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    const std::string piece(data, static_cast<std::size_t>(length));
    if (*state != 0)
        of(user).bodies.push_back(tw_test::read_file(piece));
    else if (length > 0)
        of(user).chunks += piece;
    else
        of(user).bodies.push_back(std::exchange(of(user).chunks, {}));
    return 0;
}
int32_t on_header(mime_part_desc *part, const char *, int32_t, intptr_t user) {
    of(user).records.push_back(*part);
    return 0;
}

template <std::size_t N> std::string text_of(const char (&f)[N]) {
    return std::string(f, strnlen(f, N));
}

int32_t date_of(const unsigned char (&d)[4]) {
    return static_cast<int32_t>(static_cast<uint32_t>(d[0]) << 24 | d[1] << 16 | d[2] << 8 | d[3]);
}

// The summary fields that are set, as "name=value;" in record order.
std::string summary_of(const mime_part_desc &p) {
    std::string out;
    auto add = [&](const char *name, const std::string &value) {
        if (!value.empty() && value != "0")
            out += std::string(name) + "=" + value + ";";
    };
    auto flag = [](char c) { return c == 0 ? std::string() : std::string(1, c); };
    add("x_mailer", text_of(p.x_mailer));
    add("received_with", text_of(p.received_with));
    add("priority", text_of(p.priority));
    add("signed", flag(p.signed_flag));
    add("encrypted", flag(p.encrypted_flag));
    add("returned", flag(p.returned_flag));
    add("returned_subject", text_of(p.returned_subject));
    add("date", std::to_string(date_of(p.date_value)));
    add("received", std::to_string(date_of(p.received_value)));
    add("address", text_of(p.message_address));
    return out;
}

enum class End { plain, ex };

// Runs `message` through a session (without a directory unless given) and
// the end call.
int32_t run(const std::string &message, Seen &seen, End end = End::ex,
            const char *directory = nullptr) {
    int32_t handle = mime_extract_start(on_header, on_body, on_address, directory,
                                        reinterpret_cast<intptr_t>(&seen));
    EXPECT_NE(handle, 0);
    EXPECT_EQ(mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 0),
              1);
    EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
    const int32_t result =
        end == End::ex ? mime_extract_end_ex(&handle) : mime_extract_end(&handle);
    EXPECT_EQ(handle, 0);
    return result;
}

struct SummaryTest : tw_test::TempDirTest {
    // The summary of the first header_cb record of a message with `header`.
    std::string first_summary(const std::string &header, End end = End::ex) {
        Seen seen;
        EXPECT_EQ(run(header + "\r\nbody\r\n", seen, end), 1);
        return seen.records.empty() ? "<no header_cb>" : summary_of(seen.records.front());
    }
};

const std::string kMime = "MIME-Version: 1.0\r\nContent-Type: text/plain\r\n";
const std::string kDate = "Mon, 1 Jan 1996 12:00:00 GMT"; // 820497600

struct Case {
    const char *header; // LF line ends
    const char *summary;
};

void run_table(SummaryTest &t, const std::string &prefix, std::initializer_list<Case> cases) {
    for (const Case &c : cases) {
        SCOPED_TRACE(c.header);
        EXPECT_EQ(t.first_summary(prefix + crlf(c.header)), c.summary);
    }
}

// The MIME header reader and the plain reader (no MIME header) share the
// summary rows; each table runs through both.
const std::string kReaders[] = {kMime, ""};

TEST_F(SummaryTest, MailerPriorityEncryptedAndDates) {
    const std::string x80(80, 'm');
    const std::string x74(74, 'm');
    for (const std::string &prefix : kReaders)
        run_table(*this, prefix,
                  {
                      {"X-Mailer: Mutt 2.0\n", "x_mailer=Mutt 2.0;"},
                      // A prefix match: no colon needed right behind the name.
                      {"x-mailer-version: 7\n", "x_mailer=7;"},
                      {("X-Mailer: " + x80 + "\n").c_str(), ("x_mailer=" + x74 + ";").c_str()},
                      {"X-Mailer: one\nX-Mailer: two\n", "x_mailer=two;"},
                      {"X-Priority: 1 (Highest)\n", "priority=1 (;"},
                      {"X-Priority-Info: 1\nPriority: urgent\nImportance: high\n", ""},
                      {"Encrypted: PEM\n", "encrypted=1;"},
                      {"Encrypted-By: x\nX-Encrypted: y\n", ""},
                      {"Date: Mon, 1 Jan 1996 12:00:00 GMT\n", "date=820497600;"},
                      {"date: Mon, 1 Jan 1996 12:00:00 +0100\n", "date=820494000;"},
                      {"Date: Mon, 1 Jan 1996 12:00:00 EST\n", "date=820515600;"},
                      {"Date: Mon, 1 Jan 96 12:00:00 GMT\n", "date=820497600;"},
                      {"Date: Mon, 1 Jan 1996 12:00:00 GMT\nDate: Tue, 2 Jan 1996 "
                       "12:00:00 GMT\n",
                       "date=820584000;"},
                      {"Date: Mon, 1 Jan 1996 12:00:00 GMT\nDate: 1 Jan 1996\n", ""},
                      // Past the signed 32-bit range: no date rather than a wrapped one.
                      {"Date: Mon, 1 Jan 2040 12:00:00 GMT\n", ""},
                  });
}

TEST_F(SummaryTest, SignedAndReturnedMail) {
    run_table(*this, "MIME-Version: 1.0\n",
              {
                  {"Content-Type: multipart/signed; boundary=b\n", "signed=1;"},
                  {"Content-Type: application/SIGNED\n", "signed=1;"},
                  {"Content-Type: multipart/encrypted; boundary=b\n", ""},
                  {"Content-Type: application/pkcs7-mime\n", ""},
                  {"Content-Type: multipart/report; boundary=b\nSubject: failure\n", ""},
              });
    // A plain message has no Content-type to read: no mark from such a line.
    EXPECT_EQ(first_summary(crlf("Content-Type: multipart/signed; boundary=b\n")), "");
    const std::string returned74 = "Returned mail: " + std::string(59, 'r');
    for (const std::string &prefix : kReaders)
        run_table(*this, prefix,
                  {
                      {"Subject: Returned mail: see transcript\n",
                       "returned=1;returned_subject=Returned mail: see transcript;"},
                      {"Subject: undeliverable: to you\n",
                       "returned=1;returned_subject=undeliverable: to you;"},
                      {("Subject: " + returned74 + "tail\n").c_str(),
                       ("returned=1;returned_subject=" + returned74 + ";").c_str()},
                      // Tested on the decoded text of the first element only.
                      {"Subject: =?utf-8?q?UNDELIVERABLE=3A=20x?=\n",
                       "returned=1;returned_subject=UNDELIVERABLE: x;"},
                      {"Subject: Re: =?utf-8?q?Returned_mail=3A_x?=\n", ""},
                      {"Subject: Returned mail: a\nSubject: hello\n",
                       "returned=1;returned_subject=Returned mail: a;"},
                      {"Subject: hello\nSubject: Returned mail: a\n", ""},
                  });
}

TEST_F(SummaryTest, ReceivedHeaders) {
    for (const std::string &prefix : kReaders)
        run_table(
            *this, prefix,
            {
                {"Received: from x by b.c.d with ESMTP id 1;\n\tid <a@b>; Mon, 1 "
                 "Jan 1996 12:00:00 GMT\n",
                 "received_with=ESMTP id 1;received=820497600;address=a@c.d;"},
                // Host, id and date from the first header; the with-clause from the
                // last.
                {"Received: by b.c.d with SMTP\n id <a@b>; Mon, 1 Jan 1996 "
                 "12:00:00 GMT\n"
                 "Received: by e.f (Postfix) with LMTP\n\tid <z@e>; Tue, 2 Jan "
                 "1996 12:00:00 GMT\n",
                 "received_with=(Postfix);received=820497600;address=a@c.d;"},
                {"Received: by b.c with SMTP\nReceived: from x\n", ""},
                // A '-' ends the host; the rest of the name starts the with-text.
                {"Received: by b.c-d.e with SMTP\n\tid <a@b>\n", "received_with=-d.e;address=a@c;"},
                {"Received: by b.c.d; Mon, 1 Jan 1996 12:00:00 GMT\n\tid <a@b>\n",
                 "address=a@c.d;"},
                {"Received: by b.c.d  ;\n", ""},
                {"Received: by b.c.d\n\tid <a@b> ; Mon, 1 Jan 1996 12:00:00 GMT\n",
                 "address=a@c.d;"},
                {"Received: by b.c.d\n\tid <a@b>\n\tfor <x@y>; Mon, 1 Jan 1996 "
                 "12:00:00 GMT\n",
                 "address=a@c.d;"},
                {"Received: by b.c.d\n\tID <abc>;Mon, 1 Jan 1996 12:00:00 GMT\n",
                 "received=820497600;"},
                {"Received: by b\n\tid <a@b>\n", ""},
                {"Received: by b.\n\tid <a@b>\n", "address=a@;"},
                // The host on a continuation line is not kept.
                {"Received: from x\n\tby b.c.d with ESMTP\n\tid <a@b>\n", "received_with=ESMTP;"},
                {"Received: by B.C.D\n\tid <a@b>\n", "address=a@C.D;"},
                // Only the first header's id counts.
                {"Received: by b.c.d\nReceived: by e.f.g\n\tid <a@e>\n", ""},
                // Any folded line is searched, not only those of Received:.
                {"Received: by b.c.d\nX-Note: x\n\tid <a@b>\n", "address=a@c.d;"},
                {"X-Note: x\n\tid <a@b>\n\tby b.c.d with X\n", ""},
            });
}

TEST_F(SummaryTest, PlainEndCallLeavesAllButReceivedValueEmpty) {
    const std::string header =
        kMime + crlf("X-Mailer: m\nX-Priority: 1\nEncrypted: y\n"
                     "Subject: Returned mail: x\nDate: " +
                     kDate + "\nReceived: by b.c.d with X\n\tid <a@b>; " + kDate +
                     "\nContent-Type: multipart/signed; boundary=b\n");
    EXPECT_EQ(first_summary(header, End::plain), "received=820497600;");
    EXPECT_EQ(first_summary(header),
              "x_mailer=m;received_with=X;priority=1;signed=1;encrypted=1;returned=1;"
              "returned_subject=Returned mail: x;date=820497600;received=820497600;"
              "address=a@c.d;");
}

TEST_F(SummaryTest, LaterRecordsAreEmpty) {
    const std::string message =
        crlf("MIME-Version: 1.0\nX-Mailer: m\nDate: " + kDate +
             "\nContent-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: "
             "text/plain\n\n"
             "one\n--b\nContent-Type: text/plain\nX-Mailer: inner\n\ntwo\n--b--\n");
    Seen seen;
    ASSERT_EQ(run(message, seen), 1);
    ASSERT_EQ(seen.records.size(), 3u);
    EXPECT_EQ(summary_of(seen.records[0]), "x_mailer=m;date=820497600;");
    EXPECT_EQ(summary_of(seen.records[1]), "");
    EXPECT_EQ(summary_of(seen.records[2]), "");
}

// A set joined by its last fragment is read by the plain end call, even
// under the richer one: only the weekday search fills its record.
TEST_F(SummaryTest, CompletingFragmentGetsNoSummary) {
    std::filesystem::create_directory("out");
    auto fragment = [](int number, const std::string &rest) {
        return crlf("MIME-Version: 1.0\nX-Mailer: outer\nContent-Type: message/partial; "
                    "id=\"s@x\"; number=" +
                    std::to_string(number) + "; total=2\n\n" + rest);
    };
    Seen first, last;
    EXPECT_EQ(run(fragment(1, "X-Mailer: inner\nReceived: by b.c.d\n\tid <a@b>; " + kDate +
                                  "\nMIME-Version: 1.0\nContent-Type: text/plain\n\nhello\n"),
                  first, End::ex, "./out"),
              MIME_FRAGMENT_STORED);
    EXPECT_TRUE(first.records.empty());
    ASSERT_EQ(run(fragment(2, "world\n"), last, End::ex, "./out"), 1);
    ASSERT_FALSE(last.records.empty());
    EXPECT_EQ(summary_of(last.records.front()), "received=820497600;");
}

// Lines far beyond every width: each field ends inside its width, cut where
// its text would run on. The MIME reader reads 511 bytes at a time, the
// plain one 1023, more than the 511 that the host and the id can keep.
TEST_F(SummaryTest, HostileLongLines) {
    const std::string local(400, 'i');
    const std::string header = crlf(
        "X-Mailer: " + std::string(3000, 'm') + "\nX-Priority: " + std::string(3000, '1') +
        "\nSubject: Returned mail: " + std::string(3000, 's') + "\nReceived: by b." +
        std::string(3000, 'c') + " with " + std::string(3000, 'w') + "\n\tid <" + local + "@b" +
        std::string(3000, '>') + "; " + kDate + "\n\tby x with " + std::string(3000, 'v') + "\n");
    const struct {
        const std::string &prefix;
        std::size_t host_rest; // the host's c's behind "b." that are kept
    } readers[] = {{kMime, 511 - 13 - 2}, {"", 511 - 2}};
    for (const auto &reader : readers) {
        SCOPED_TRACE(reader.prefix.empty() ? "plain reader" : "MIME reader");
        Seen seen;
        ASSERT_EQ(run(reader.prefix + header + "\r\nbody\r\n", seen), 1);
        ASSERT_FALSE(seen.records.empty());
        const mime_part_desc &p = seen.records.front();
        EXPECT_EQ(text_of(p.x_mailer), std::string(74, 'm'));
        EXPECT_EQ(text_of(p.priority), "111");
        EXPECT_EQ(text_of(p.returned_subject), "Returned mail: " + std::string(59, 's'));
        EXPECT_EQ(text_of(p.received_with), std::string(74, 'v'));
        EXPECT_EQ(text_of(p.message_address), local + "@" + std::string(reader.host_rest, 'c'));
        EXPECT_EQ(date_of(p.received_value), 0) << "'>' is followed by '>', not ';'";
    }
}

// A message composed by the library, with extra header lines from the
// application, through both end calls in both delivery modes: the
// attachment comes back as it went in; the summary reads what was written.
bool g_extra_given = false;
int32_t extra_lines(char *buffer, int32_t) { // asked until it answers 0
    static const char kLines[] =
        "X-Mailer: tarnwick test\r\nX-Priority: 1 (Highest)\r\nEncrypted: PEM\r\n";
    if (std::exchange(g_extra_given, true))
        return 0;
    std::memcpy(buffer, kLines, sizeof kLines);
    return sizeof kLines - 1;
}

struct SummaryEndToEnd : tw_compose_test::ComposeTest {};

TEST_F(SummaryEndToEnd, ComposedMessageThroughBothEndCalls) {
    namespace c = tw_compose_test;
    std::string blob(3000, '\0');
    for (std::size_t i = 0; i < blob.size(); ++i)
        blob[i] = static_cast<char>(i * 7 + 1);
    c::Part attachment = c::part("application", "octet-stream", "base64");
    attachment.filename = "a.bin";
    c::g.parts = {attachment, c::kClose};
    c::g.bodies = {"Hello\r\n", "", blob};
    mime_part_info info;
    c::fill(info, c::part("multipart", "mixed"));
    ASSERT_EQ(create_message("Ann", "Bob", "Returned mail: Hello", nullptr, nullptr, &info,
                             c::kMessage, c::next_part_cb, c::body_cb, c::done_cb, extra_lines, 1,
                             0),
              1);
    const std::string message = ComposeTest::message();
    std::filesystem::create_directory("out");
    for (End end : {End::plain, End::ex})
        for (const char *directory : {static_cast<const char *>(nullptr), "./out"}) {
            SCOPED_TRACE(std::string(end == End::ex ? "ex " : "plain ") + (directory ? "dir" : ""));
            Seen seen;
            ASSERT_EQ(run(message, seen, end, directory), 1);
            ASSERT_EQ(seen.bodies.size(), 2u);
            EXPECT_TRUE(seen.bodies[0].starts_with("Hello\r\n")) << seen.bodies[0];
            EXPECT_TRUE(seen.bodies[1] == blob) << "the attachment as it went in";
            ASSERT_FALSE(seen.records.empty());
            // create_message dates its message without a zone: read as GMT.
            EXPECT_EQ(summary_of(seen.records.front()),
                      end == End::plain ? ""
                                        : "x_mailer=tarnwick test;priority=1 (;encrypted=1;"
                                          "returned=1;returned_subject=Returned mail: Hello;"
                                          "date=315626635;");
        }
}

} // namespace
