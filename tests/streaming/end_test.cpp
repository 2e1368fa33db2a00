#include "streaming/streaming.h"

#include <filesystem>
#include <mutex>
#include <thread>

#include "support/test_support.h"

namespace {

using tw_test::crlf;
using tw_test::file_exists;
using tw_test::read_file;
using tw_test::write_file;

// Everything the three callbacks saw, in order.
struct Recorder {
    std::vector<std::string> events;
    std::vector<std::string> header_texts;
    std::vector<mime_part_desc> records;
    std::vector<std::string> chain_texts[5]; // to, from, cc, bcc, subject
    bool had_chain[5] = {};
    std::vector<std::string> delivered;      // paths (modes 1, 2) or whole bodies (mode 0)
    std::vector<int32_t> states;
    std::string bytes; // the file being streamed in mode 0
    int32_t answer_address = 0, answer_header = 0, answer_body = 0;
    int32_t own_handle = 0, feed_from_callback = 1;
};

std::string join(const mime_hdr_field *f) {
    std::string out;
    for (; f != nullptr; f = f->next)
        out += std::string(f->text) + "|";
    return out;
}

int32_t on_address(mime_address_lists *lists, intptr_t user) {
    auto &r = *reinterpret_cast<Recorder *>(user);
    const mime_hdr_field *heads[] = {lists->to, lists->from, lists->cc, lists->bcc, lists->subject};
    for (int i = 0; i < 5; ++i) {
        r.had_chain[i] = heads[i] != nullptr;
        r.chain_texts[i].push_back(join(heads[i]));
    }
    r.events.push_back("address");
    return r.answer_address;
}

int32_t on_header(mime_part_desc *part, const char *text, int32_t length, intptr_t user) {
    auto &r = *reinterpret_cast<Recorder *>(user);
    EXPECT_EQ(std::strlen(text), static_cast<std::size_t>(length));
    r.header_texts.emplace_back(text, static_cast<std::size_t>(length));
    r.records.push_back(*part);
    r.events.push_back("header " + std::string(part->content_type) + "/" + part->content_subtype);
    return r.answer_header;
}

int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    auto &r = *reinterpret_cast<Recorder *>(user);
    r.states.push_back(*state);
    if (r.own_handle != 0)
        r.feed_from_callback = mime_extract_data(r.own_handle, "x", 1, 0);
    if (*state == 0) { // bytes: collect until the closing call
        r.bytes.append(data, static_cast<std::size_t>(length));
        if (length == 0) {
            r.delivered.push_back(r.bytes);
            r.bytes.clear();
            r.events.push_back("body bytes");
        }
    } else {
        EXPECT_EQ(std::strlen(data), static_cast<std::size_t>(length));
        r.delivered.emplace_back(data, static_cast<std::size_t>(length));
        r.events.push_back("body path");
    }
    return r.answer_body;
}

class EndTest : public tw_test::TempDirTest {
protected:
    // Feeds `message` through a session (in `directory`, or none) and ends it.
    int32_t extract(const std::string &message, const char *directory, Recorder &r,
                    std::size_t piece = 1 << 20) {
        int32_t handle = mime_extract_start(on_header, on_body,
                                            on_address, directory, reinterpret_cast<intptr_t>(&r));
        EXPECT_NE(handle, 0);
        spool_ = tw::session_find(handle)->spool_path;
        for (std::size_t at = 0; at < message.size(); at += piece)
            EXPECT_EQ(mime_extract_data(handle, message.data() + at,
                                        static_cast<int32_t>(std::min(piece, message.size() - at)),
                                        0),
                      1);
        EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
        int32_t result = mime_extract_end(&handle);
        EXPECT_EQ(handle, 0);
        EXPECT_FALSE(file_exists(spool_)) << "the spool goes on every way out";
        return result;
    }
    std::string out() { return dir() + "out/"; }
    void SetUp() override {
        TempDirTest::SetUp();
        std::filesystem::create_directory(out());
    }
    std::string spool_;
};

const std::string kTextHeader = crlf("From: Bob <bob@example.org>\n"
                                     "To: Ann\n"
                                     "Subject: =?iso-8859-1?q?Gr=FC=DFe?=\n"
                                     "MIME-Version: 1.0\n"
                                     "Content-Type: text/plain; charset=us-ascii\n");

TEST_F(EndTest, SingleTextPartInBothDeliveryModes) {
    const std::string message = kTextHeader + crlf("\n\nHello\n\nthere\n");
    for (bool with_directory : {true, false}) {
        SCOPED_TRACE(with_directory);
        Recorder r;
        ASSERT_EQ(extract(message, with_directory ? "./out" : nullptr, r, 7), 1);
        EXPECT_EQ(r.events, (std::vector<std::string>{"address", "header text/plain",
                                                      with_directory ? "body path"
                                                                     : "body bytes"}));
        EXPECT_EQ(r.header_texts[0], kTextHeader);
        EXPECT_EQ(r.chain_texts[0][0], "Ann|");
        EXPECT_EQ(r.chain_texts[1][0], "Bob <bob@example.org>|");
        EXPECT_EQ(r.chain_texts[4][0], "Gr\xFC\xDF" "e|");
        EXPECT_FALSE(r.had_chain[2]);
        EXPECT_FALSE(r.had_chain[3]);
        EXPECT_STREQ(r.records[0].charset, "us-ascii");
        // Blank lines in front of the body go, those inside it stay.
        const std::string body = crlf("Hello\n\nthere\n");
        if (with_directory) {
            EXPECT_EQ(r.delivered[0], out() + "00000001.TXT");
            EXPECT_EQ(read_file(r.delivered[0]), body);
            EXPECT_EQ(r.states, (std::vector<int32_t>{1}));
        } else {
            EXPECT_EQ(r.delivered[0], body);
            EXPECT_EQ(r.states, (std::vector<int32_t>{0, 0}));
        }
    }
}

TEST_F(EndTest, HeaderLoopFillsListsAndRecord) {
    const std::string message = crlf(
        "\n"
        "To: first@x\n"
        "Resent-To: not-a-recipient@x\n"
        "TO: second@x,\n"
        " third@x\n"
        "cc: c@x\n"
        "Received: from a by b; Tue, 2 Jan 1996 12:34:56 GMT\n"
        "\tid 1; Wed, 3 Jan 1996 00:00:10 GMT\n"
        "Received: from e by f\n"
        "\tid 2; Thu, 4 Jan 1996 00:00:00 GMT\n"
        "MIME-Version: 1.0\n"
        "Content-Disposition: attachment; filename=\"from-disposition.bin\"\n"
        "Content-Type: application/octet-stream; name=\"from-type.bin\"\n"
        "Content-ID: <" + std::string(600, 'i') + ">\n"
        "Content-Description: a description\n"
        "Content-Transfer-Encoding: base64\n"
        "\n"
        "aGVsbG8=\n");
    Recorder r;
    ASSERT_EQ(extract(message, "./out", r), 1);
    EXPECT_EQ(r.chain_texts[0][0], "first@x|second@x,third@x|");
    EXPECT_EQ(r.chain_texts[2][0], "c@x|");
    const mime_part_desc &d = r.records.at(0);
    // Only the first Received: header counts, and only its continuation.
    const unsigned char expected_date[4] = {0x30, 0xE9, 0xC7, 0x0A}; // 820627210
    EXPECT_EQ(std::memcmp(d.received_value, expected_date, 4), 0);
    EXPECT_STREQ(d.filename, "from-type.bin") << "the name parameter overwrites";
    EXPECT_STREQ(d.encoding, "base64");
    EXPECT_STREQ(d.description, "a description");
    EXPECT_EQ(strnlen(d.content_id, sizeof d.content_id), sizeof d.content_id - 1);
    EXPECT_EQ(d.x_mailer[0], '\0');
    EXPECT_EQ(r.delivered.at(0), out() + "from-type.bin");
    EXPECT_EQ(read_file(r.delivered[0]), "hello");
}

TEST_F(EndTest, LeafNamesStayInTheDirectory) {
    write_file(out() + "taken.bin", "old");
    write_file(out() + "taken.txt", "old");
    struct Case {
        std::string filename;
        std::string encoding;
        std::string expected; // relative to out/
    } cases[] = {
        {"taken.bin", "base64", "00000001.bin"},
        {"taken.txt", "base64", "00000001.TXT"},
        {"../../escape.bin", "base64", "escape.bin"},
        {"=?utf-8?q?caf=C3=A9.dat?=", "base64", "caf\xC3\xA9.dat"},
        {"", "x-uuencode", "00000001.UUE"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.filename);
        std::string body = c.encoding == "base64" ? "aGk=\n" : "begin 644 x\n\"8VD`\n`\nend\n";
        std::string message = crlf("MIME-Version: 1.0\nContent-Type: application/octet-stream" +
                                   (c.filename.empty() ? "" : "; name=\"" + c.filename + "\"") +
                                   "\nContent-Transfer-Encoding: " + c.encoding + "\n\n" + body);
        Recorder r;
        ASSERT_EQ(extract(message, "./out", r), 1);
        EXPECT_EQ(r.delivered.at(0), out() + c.expected);
        EXPECT_EQ(read_file(r.delivered[0]), c.encoding == "base64" ? "hi" : "ci");
        std::filesystem::remove(r.delivered[0]);
    }
    EXPECT_FALSE(file_exists(dir() + "escape.bin"));
}

TEST_F(EndTest, ChunksOfABodyInByteMode) {
    std::string body(8126, 'a');
    for (std::size_t i = 0; i < body.size(); i += 100)
        body[i] = '\n';
    Recorder r;
    ASSERT_EQ(extract(crlf("MIME-Version: 1.0\nContent-Type: text/plain\n\n") + "x" + body,
                      nullptr, r),
              1);
    EXPECT_EQ(r.delivered.at(0).size(), 8127u);
    EXPECT_EQ(r.states.size(), 3u) << "8126 bytes, 1 byte, then the closing call";
    Recorder empty;
    ASSERT_EQ(extract(crlf("MIME-Version: 1.0\nContent-Type: text/plain\n\n"), nullptr, empty), 1);
    EXPECT_EQ(empty.delivered, (std::vector<std::string>{""}));
    EXPECT_EQ(empty.states.size(), 1u);
}

TEST_F(EndTest, StopsAndFailuresGiveTheirStatus) {
    const std::string message = kTextHeader + crlf("\nbody\n");
    struct Case {
        const char *name;
        int32_t address, header, body;
        bool with_directory;
        int32_t result;
        std::vector<std::string> events;
        bool file_stays;
    } cases[] = {
        {"address stops", -1, 0, 0, true, MIME_STOPPED, {"address"}, false},
        {"header stops", 0, -1, 0, true, MIME_STOPPED, {"address", "header text/plain"}, false},
        {"body stops with a path", 0, 0, -1, true, MIME_STOPPED,
         {"address", "header text/plain", "body path"}, true},
        {"body stops with bytes", 0, 0, -1, false, MIME_FEED_ERROR,
         {"address", "header text/plain"}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(out());
        std::filesystem::create_directory(out());
        Recorder r;
        r.answer_address = c.address;
        r.answer_header = c.header;
        r.answer_body = c.body;
        EXPECT_EQ(extract(message, c.with_directory ? "./out" : nullptr, r), c.result);
        EXPECT_EQ(r.events, c.events);
        EXPECT_EQ(file_exists(out() + "00000001.TXT"), c.file_stays);
    }
}

TEST_F(EndTest, DecoderFailureAndEndWithoutClose) {
    Recorder r;
    const std::string broken = crlf("MIME-Version: 1.0\nContent-Type: text/plain\n"
                                    "Content-Transfer-Encoding: x-uuencode\n\nnothing to decode here\n");
    EXPECT_EQ(extract(broken, "./out", r), MIME_DECODE_ERROR);
    EXPECT_EQ(r.delivered.size(), 0u);

    Recorder open;
    int32_t handle = mime_extract_start(on_header, on_body, on_address, "./out",
                                        reinterpret_cast<intptr_t>(&open));
    ASSERT_NE(handle, 0);
    const std::string spool = tw::session_find(handle)->spool_path;
    ASSERT_EQ(mime_extract_data(handle, kTextHeader.data(), 20, 0), 1);
    EXPECT_EQ(mime_extract_end(&handle), MIME_FILE_ERROR) << "the spool is still held";
    EXPECT_EQ(handle, 0);
    EXPECT_FALSE(file_exists(spool));
    EXPECT_TRUE(open.events.empty());
    EXPECT_EQ(mime_extract_end(&handle), MIME_NO_SESSION);
}

TEST_F(EndTest, EmbeddedMessages) {
    Recorder ext;
    ASSERT_EQ(extract(crlf("MIME-Version: 1.0\n"
                           "Content-Type: message/external-body; access-type=local-file;\n"
                           " name=\"/x\"\n\n"
                           "Content-Type: text/plain\nContent-ID: <inner>\n\nnot read\n"),
                      "./out", ext),
              1);
    EXPECT_EQ(ext.events, (std::vector<std::string>{"address", "header message/external-body",
                                                    "header text/plain"}));
    EXPECT_STREQ(ext.records[1].content_id, "<inner>");
    EXPECT_STREQ(ext.records[0].parameters.external_body.access_type, "local-file");

    // The inner transfer encoding is not read: the outer one decodes.
    Recorder rfc;
    ASSERT_EQ(extract(crlf("MIME-Version: 1.0\nContent-Type: message/rfc822\n"
                           "Content-Transfer-Encoding: base64\n\n"
                           "Subject: inner\nContent-Type: text/plain\n"
                           "Content-Transfer-Encoding: quoted-printable\n\naGk=\n"),
                      "./out", rfc),
              1);
    EXPECT_EQ(rfc.events.size(), 4u);
    EXPECT_EQ(read_file(rfc.delivered.at(0)), "hi");
    EXPECT_NE(rfc.header_texts[1].find("Subject: inner"), std::string::npos);
}

TEST_F(EndTest, CallbackFeedingItsOwnSessionFindsNone) {
    Recorder r;
    int32_t handle = mime_extract_start(on_header, on_body, on_address, "./out",
                                        reinterpret_cast<intptr_t>(&r));
    ASSERT_NE(handle, 0);
    const std::string message = kTextHeader + crlf("\nbody\n");
    ASSERT_EQ(mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 0),
              1);
    ASSERT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
    r.own_handle = handle;
    EXPECT_EQ(mime_extract_end(&handle), 1);
    EXPECT_EQ(r.feed_from_callback, MIME_NO_SESSION);
}

TEST_F(EndTest, SessionsFedSideBySideFromTwoThreads) {
    constexpr int kSessions = 10;
    std::mutex end_lock; // end calls run one at a time
    auto worker = [&](int thread) {
        Recorder recorders[kSessions];
        int32_t handles[kSessions];
        std::string messages[kSessions];
        for (int i = 0; i < kSessions; ++i) {
            messages[i] = kTextHeader + crlf("\nthread " + std::to_string(thread) + " message " +
                                             std::to_string(i) + "\n");
            handles[i] = mime_extract_start(on_header, on_body, on_address, nullptr,
                                            reinterpret_cast<intptr_t>(&recorders[i]));
            ASSERT_NE(handles[i], 0);
        }
        for (std::size_t at = 0; at < messages[0].size() + 40; at += 3) {
            for (int i = 0; i < kSessions; ++i) {
                if (at >= messages[i].size())
                    continue;
                ASSERT_EQ(mime_extract_data(handles[i], messages[i].data() + at,
                                                static_cast<int32_t>(std::min<std::size_t>(
                                                    3, messages[i].size() - at)),
                                                0),
                              1);
            }
        }
        for (int i = 0; i < kSessions; ++i) {
            ASSERT_EQ(mime_extract_data(handles[i], nullptr, 0, 0), 1);
            std::lock_guard<std::mutex> guard(end_lock);
            ASSERT_EQ(mime_extract_end(&handles[i]), 1);
            EXPECT_EQ(recorders[i].delivered.at(0),
                      crlf("thread " + std::to_string(thread) + " message " + std::to_string(i) +
                           "\n"));
        }
    };
    std::thread a(worker, 1), b(worker, 2);
    a.join();
    b.join();
}

} // namespace

namespace {

// Multipart bodies, BinHex bodies and messages without MIME headers are
// taken as far as this library reads them so far.
TEST_F(EndTest, BodiesNotYetTakenApart) {
    const std::string multipart_body = crlf("preamble\n--b\nContent-Type: text/plain\n\nx\n--b--\n");
    Recorder mixed;
    ASSERT_EQ(extract(crlf("MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"b\"\n\n") +
                          multipart_body,
                      "./out", mixed),
              1);
    EXPECT_EQ(mixed.events, (std::vector<std::string>{"address", "header multipart/mixed",
                                                      "body path"}));
    EXPECT_EQ(read_file(mixed.delivered.at(0)), multipart_body);

    Recorder binhex;
    ASSERT_EQ(extract(crlf("MIME-Version: 1.0\nContent-Type: application/mac-binhex40\n\n"
                           "(This file must be converted with BinHex 4.0)\n"),
                      "./out", binhex),
              1);
    EXPECT_EQ(binhex.events, (std::vector<std::string>{"address",
                                                       "header application/mac-binhex40",
                                                       "body path"}));
    EXPECT_STREQ(binhex.records.at(0).encoding, "binhex");

    Recorder plain;
    EXPECT_EQ(extract(crlf("From: a\nSubject: no MIME here\n\nbody\n"), "./out", plain), -1);
    EXPECT_TRUE(plain.events.empty());
}

} // namespace
