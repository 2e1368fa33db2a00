// The header summary of mime_extract_end_ex through real sessions: each case
// is a header block and every summary field it leaves set.
#include "streaming/streaming.h"

#include <cstring>
#include <filesystem>
#include <utility>

#include "support/test_support.h"

namespace {

using tw_test::crlf;

struct Seen {
    std::vector<mime_part_desc> records;
    std::vector<std::string> bodies; // read back from a path, or joined chunks
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
    const std::pair<const char *, std::string> fields[] = {
        {"x_mailer", text_of(p.x_mailer)},
        {"received_with", text_of(p.received_with)},
        {"priority", text_of(p.priority)},
        {"signed", std::string(p.signed_flag != 0, p.signed_flag)},
        {"encrypted", std::string(p.encrypted_flag != 0, p.encrypted_flag)},
        {"returned", std::string(p.returned_flag != 0, p.returned_flag)},
        {"returned_subject", text_of(p.returned_subject)},
        {"date", std::to_string(date_of(p.date_value))},
        {"received", std::to_string(date_of(p.received_value))},
        {"address", text_of(p.message_address)},
    };
    std::string out;
    for (const auto &[name, value] : fields)
        if (!value.empty() && value != "0")
            out += std::string(name) + "=" + value + ";";
    return out;
}

enum class End { plain, ex };

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
    std::string first_summary(const std::string &header) {
        Seen seen;
        EXPECT_EQ(run(header + "\r\nbody\r\n", seen), 1);
        return seen.records.empty() ? "<no header_cb>" : summary_of(seen.records.front());
    }
    // Rows of {header with LF ends, summary}.
    void table(const std::string &prefix,
               std::initializer_list<std::pair<std::string, std::string>> rows) {
        for (const auto &[header, summary] : rows)
            EXPECT_EQ(first_summary(prefix + crlf(header)), summary) << header;
    }
};

const std::string kMime = "MIME-Version: 1.0\r\nContent-Type: text/plain\r\n";
const std::string kDate = "Mon, 1 Jan 1996 12:00:00 GMT"; // 820497600
// The MIME header reader and the plain one (no MIME header) share the rows.
const std::string kReaders[] = {kMime, ""};

TEST_F(SummaryTest, MailerPriorityEncryptedAndDates) {
    const std::string m80(80, 'm');
    for (const std::string &prefix : kReaders)
        table(prefix,
              {
                  {"x-mailer-version: 7\n", "x_mailer=7;"}, // a prefix match
                  {"X-Mailer: " + m80 + "\n", "x_mailer=" + m80.substr(0, 74) + ";"},
                  {"X-Mailer: one\nX-Mailer: two\n", "x_mailer=two;"},
                  {"X-Priority: 1 (Highest)\n", "priority=1 (;"},
                  {"X-Priority-Info: 1\nPriority: urgent\nEncrypted-By: x\nX-Encrypted: y\n", ""},
                  {"Encrypted: PEM\n", "encrypted=1;"},
                  {"date: Mon, 1 Jan 1996 12:00:00 +0100\n", "date=820494000;"},
                  {"Date: " + kDate + "\nDate: Tue, 2 Jan 1996 12:00:00 GMT\n", "date=820584000;"},
                  {"Date: " + kDate + "\nDate: 1 Jan 1996\n", ""},
                  {"Date: Wed, 2 Jan 1980 02:03:55\n", "date=315626635;"}, // no zone: GMT
                  {"Date: Mon, 1 Jan 2040 12:00:00 GMT\n", ""}, // no wrapped date
              });
}

TEST_F(SummaryTest, SignedAndReturnedMail) {
    table("MIME-Version: 1.0\n",
          {
              {"Content-Type: multipart/signed; boundary=b\n", "signed=1;"},
              {"Content-Type: application/SIGNED\n", "signed=1;"},
              {"Content-Type: multipart/report; boundary=b\nSubject: failure\n", ""},
          });
    // A plain message has no Content-type to read.
    EXPECT_EQ(first_summary(crlf("Content-Type: multipart/signed; boundary=b\n")), "");
    const std::string returned74 = "Returned mail: " + std::string(59, 'r');
    for (const std::string &prefix : kReaders)
        table(prefix,
              {
                  {"Subject: Returned mail: see it\n",
                   "returned=1;returned_subject=Returned mail: see it;"},
                  {"Subject: " + returned74 + "tail\n",
                   "returned=1;returned_subject=" + returned74 + ";"},
                  // The decoded text of the first element only.
                  {"Subject: =?utf-8?q?UNDELIVERABLE=3A=20x?=\n",
                   "returned=1;returned_subject=UNDELIVERABLE: x;"},
                  {"Subject: Re: =?utf-8?q?Returned_mail=3A_x?=\n", ""},
                  {"Subject: Returned mail: a\nSubject: hello\n",
                   "returned=1;returned_subject=Returned mail: a;"},
                  {"Subject: hello\nSubject: Returned mail: a\n", ""},
              });
}

TEST_F(SummaryTest, ReceivedHeaders) {
    const std::string on = "; " + kDate + "\n";
    for (const std::string &prefix : kReaders)
        table(prefix,
              {
                  {"Received: from x by b.c.d with ESMTP id 1;\n\tid <a@b>" + on,
                   "received_with=ESMTP id 1;received=820497600;address=a@c.d;"},
                  // Host, id and date from the first header; the with-clause from the last.
                  {"Received: by b.c.d with SMTP\n id <a@b>" + on +
                       "Received: by e.f (Postfix) with LMTP\n\tid <z@e>; Tue, 2 Jan 1996 "
                       "12:00:00 GMT\n",
                   "received_with=(Postfix);received=820497600;address=a@c.d;"},
                  {"Received: by b.c with SMTP\nReceived: from x\n", ""},
                  {"Received: by b.c-d.e with SMTP\n\tid <a@b>\n",
                   "received_with=-d.e;address=a@c;"},
                  {"Received: by b.c.d" + on + "\tid <a@b>\n", "address=a@c.d;"},
                  {"Received: by b.c.d  ;\n", ""},
                  {"Received: by b.c.d\n\tid <a@b> " + on, "address=a@c.d;"},
                  {"Received: by b.c.d\n\tID <abc>;" + kDate + "\n", "received=820497600;"},
                  {"Received: by b\n\tid <a@b>\n", ""},
                  {"Received: by b.\n\tid <a@b>\n", "address=a@;"},
                  // The host on a continuation line is not kept.
                  {"Received: from x\n\tby b.c.d with E\n\tid <a@b>\n", "received_with=E;"},
                  {"Received: by B.C.D\n\tid <a@b>\n", "address=a@C.D;"},
                  {"Received: by b.c.d\nReceived: by e.f.g\n\tid <a@e>\n", ""},
                  // Any folded line is searched, not only those of Received:.
                  {"Received: by b.c.d\nX-Note: x\n\tid <a@b>\n", "address=a@c.d;"},
                  {"X-Note: x\n\tid <a@b>\n\tby b.c.d with X\n", ""},
              });
}

// Only the first record has a summary, and the plain end call fills only the
// received date; the parts come out alike under both, in both delivery modes.
TEST_F(SummaryTest, PlainEndCallAndLaterRecords) {
    std::filesystem::create_directory("out");
    const std::string message = crlf(
        "MIME-Version: 1.0\nX-Mailer: m\nDate: " + kDate + "\nReceived: by b.c.d with X\n"
        "\tid <a@b>; " + kDate + "\nContent-Type: multipart/mixed; boundary=b\n\n--b\n"
        "Content-Type: text/plain\n\none\n--b\nContent-Type: application/octet-stream\n"
        "X-Mailer: inner\nContent-Transfer-Encoding: base64\n\nAAH/\n--b--\n");
    for (End end : {End::plain, End::ex})
        for (const char *directory : {static_cast<const char *>(nullptr), "./out"}) {
            Seen seen;
            ASSERT_EQ(run(message, seen, end, directory), 1);
            ASSERT_EQ(seen.records.size(), 3u);
            EXPECT_EQ(summary_of(seen.records[0]),
                      end == End::plain ? "received=820497600;"
                                        : "x_mailer=m;received_with=X;date=820497600;"
                                          "received=820497600;address=a@c.d;");
            EXPECT_EQ(summary_of(seen.records[1]) + summary_of(seen.records[2]), "");
            EXPECT_EQ(seen.bodies, (std::vector<std::string>{"one\r\n", {"\0\1\xFF", 3}}));
        }
}

// A set joined by its last fragment is read by the plain end call even under
// the richer one: only the weekday search fills its record.
TEST_F(SummaryTest, CompletingFragmentGetsNoSummary) {
    std::filesystem::create_directory("out");
    auto fragment = [](int number, const std::string &rest) {
        return crlf("MIME-Version: 1.0\nX-Mailer: outer\nContent-Type: message/partial; "
                    "id=\"s@x\"; number=" + std::to_string(number) + "; total=2\n\n" + rest);
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

// Each field ends inside its width, cut where its text would run on. The MIME
// reader reads 511 bytes at a time, the plain one 1023, more than the 511 that
// the host and the id can keep.
TEST_F(SummaryTest, HostileLongLines) {
    const std::string local(400, 'i');
    const auto run_of = [](char c) { return std::string(3000, c); };
    const std::string header = crlf(
        "X-Mailer: " + run_of('m') + "\nX-Priority: " + run_of('1') + "\nSubject: Returned mail: " +
        run_of('s') + "\nReceived: by b." + run_of('c') + " with " + run_of('w') + "\n\tid <" +
        local + "@b" + run_of('>') + "; " + kDate + "\n\tby x with " + run_of('v') + "\n");
    const std::pair<std::string, std::size_t> readers[] = {{kMime, 511 - 13 - 2}, {"", 511 - 2}};
    for (const auto &[prefix, host_rest] : readers) {
        Seen seen;
        ASSERT_EQ(run(prefix + header + "\r\nbody\r\n", seen), 1);
        ASSERT_FALSE(seen.records.empty());
        const mime_part_desc &p = seen.records.front();
        EXPECT_EQ(text_of(p.x_mailer), std::string(74, 'm'));
        EXPECT_EQ(text_of(p.priority), "111");
        EXPECT_EQ(text_of(p.returned_subject), "Returned mail: " + std::string(59, 's'));
        EXPECT_EQ(text_of(p.received_with), std::string(74, 'v'));
        EXPECT_EQ(text_of(p.message_address), local + "@" + std::string(host_rest, 'c'));
        EXPECT_EQ(date_of(p.received_value), 0) << "'>' is followed by '>', not ';'";
    }
}

} // namespace
