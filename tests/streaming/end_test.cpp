#include "streaming/streaming.h"

#include <filesystem>
#include <mutex>
#include <thread>

#include "support/test_support.h"

namespace {

using tw_test::crlf;
using tw_test::read_file;
using Strings = std::vector<std::string>;

// Everything the callbacks saw, in order, and what they answer.
struct Recorder {
    std::string events, lists, bytes; // lists: the texts of to;from;cc;bcc;subject;
    Strings headers, delivered;       // delivered: paths, or whole bodies in byte mode
    std::vector<mime_part_desc> records;
    int32_t answer[3] = {}, body_calls = 0; // answers of address_cb, header_cb, body_cb
    int32_t handle = 0, fed = 1; // body_cb feeds its own session and keeps the answer
};

Recorder &of(intptr_t user) { return *reinterpret_cast<Recorder *>(user); }

int32_t on_address(mime_address_lists *l, intptr_t user) {
    for (const mime_hdr_field *f : {l->to, l->from, l->cc, l->bcc, l->subject}) {
        for (; f != nullptr; f = f->next)
            of(user).lists += std::string(f->text) + "|";
        of(user).lists += ';';
    }
    of(user).events += "address,";
    return of(user).answer[0];
}

int32_t on_header(mime_part_desc *part, const char *text, int32_t length, intptr_t user) {
    of(user).headers.emplace_back(text, static_cast<std::size_t>(length));
    of(user).records.push_back(*part);
    of(user).events += std::string(part->content_type) + "/" + part->content_subtype + ",";
    return of(user).answer[1];
}

int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    Recorder &r = of(user);
    ++r.body_calls;
    if (r.handle != 0)
        r.fed = mime_extract_data(r.handle, "x", 1, 0);
    const std::string piece(data, static_cast<std::size_t>(length));
    if (*state == 0 && length > 0)
        r.bytes += piece;
    else
        r.delivered.push_back(*state != 0 ? piece : std::exchange(r.bytes, {}));
    r.events += *state != 0 ? "path," : length == 0 ? "bytes," : "";
    return r.answer[2];
}

int32_t start(Recorder &r, const char *directory) {
    return mime_extract_start(on_header, on_body, on_address, directory,
                              reinterpret_cast<intptr_t>(&r));
}

int32_t feed(int32_t handle, std::string_view data) {
    return mime_extract_data(handle, data.data(), static_cast<int32_t>(data.size()), 0);
}

struct EndTest : tw_test::TempDirTest {
    std::string out() { return dir() + "out/"; }
    // Feeds `message` in pieces to a session in ./out (or without a
    // directory), closes the input and ends the session.
    int32_t extract(const std::string &message, Recorder &r, bool to_directory = true,
                    std::size_t piece = 1 << 20) {
        std::filesystem::create_directory(out());
        int32_t handle = start(r, to_directory ? "./out" : nullptr);
        const std::string spool = tw::session_find(handle)->spool_path;
        for (std::size_t at = 0; at < message.size(); at += piece)
            EXPECT_EQ(feed(handle, message.substr(at, piece)), 1);
        EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
        r.handle = handle;
        int32_t result = mime_extract_end(&handle);
        EXPECT_EQ(handle, 0);
        EXPECT_FALSE(tw_test::file_exists(spool)) << "the spool goes on every way out";
        return result;
    }
};

const std::string kTextHeader = crlf("From: Bob <bob@example.org>\nTo: Ann\n"
                                     "Subject: =?iso-8859-1?q?Gr=FC=DFe?=\nMIME-Version: 1.0\n"
                                     "Content-Type: text/plain; charset=us-ascii\n");

TEST_F(EndTest, SingleTextPartInBothDeliveryModes) {
    std::string big; // a full chunk of 8126 bytes and more
    for (int line = 0; line < 82; ++line)
        big += std::string(99, 'a') + "\n";
    const std::string file = out() + "00000001.TXT";
    for (const std::string &body : {crlf("Hello\n\nthere\n"), big, std::string()}) {
        for (bool to_directory : {true, false}) {
            SCOPED_TRACE(std::to_string(body.size()) + (to_directory ? " to a file" : " as bytes"));
            Recorder r;
            // Blank lines in front of the body go, those inside it stay.
            ASSERT_EQ(extract(kTextHeader + crlf("\n\n") + body, r, to_directory, 7), 1);
            EXPECT_EQ(r.events,
                      to_directory ? "address,text/plain,path," : "address,text/plain,bytes,");
            EXPECT_EQ(r.headers.at(0), kTextHeader);
            EXPECT_EQ(r.lists, "Ann|;Bob <bob@example.org>|;;;Gr\xFC\xDF" "e|;");
            EXPECT_EQ(r.fed, MIME_NO_SESSION) << "a callback cannot feed the session it ends";
            // A path once, or chunks of 8126 bytes and a closing call.
            EXPECT_EQ(r.body_calls,
                      to_directory ? 1 : static_cast<int>(body.size() + 8125) / 8126 + 1);
            EXPECT_EQ(r.delivered, (Strings{to_directory ? file : body}));
            EXPECT_EQ(to_directory ? read_file(file) : body, body);
            std::filesystem::remove(file);
        }
    }
}

// One message each: what the end call answers, the callbacks it makes, and
// the one file it leaves in out/ (if any) with its content.
TEST_F(EndTest, MessagesEndToEnd) {
    const std::string text = kTextHeader + crlf("\nbody\n");
    const std::string mime = crlf("MIME-Version: 1.0\nContent-Type: ");
    const std::string parts = crlf("preamble\n--b\nContent-Type: text/plain\n\nx\n--b--\n");
    const std::string binhex = crlf("(This file must be converted with BinHex 4.0)\n");
    auto named = [&](const std::string &name) { // "hi" in base64
        return mime + crlf("application/octet-stream; name=\"" + name +
                           "\"\nContent-Transfer-Encoding: base64\n\naGk=\n");
    };
    const char *app = "address,application/octet-stream,path,";
    const struct {
        std::string message;
        int32_t result;
        const char *events, *file = "", *content = ""; // file: in out/
        int32_t answer[3] = {};
        void (*also)(const Recorder &) = nullptr;
    } cases[] = {
        {text, MIME_STOPPED, "address,", "", "", {-1, 0, 0}},
        {text, MIME_STOPPED, "address,text/plain,", "", "", {0, -1, 0}},
        // A file already delivered belongs to the application.
        {text, MIME_STOPPED, "address,text/plain,path,", "00000001.TXT", "body\r\n", {0, 0, -1}},
        {mime + crlf("text/plain\nContent-Transfer-Encoding: x-uuencode\n\nnothing to decode\n"),
         MIME_DECODE_ERROR, "address,text/plain,"},
        {crlf("\nTo: first@x\nResent-To: not-a-recipient@x\nTO: second@x,\n third@x\ncc: c@x\n"
              "Received: from a by b; Tue, 2 Jan 1996 12:34:56 GMT\n"
              "\tid 1; Wed, 3 Jan 1996 00:00:10 GMT\n"
              "Received: from e by f\n\tid 2; Thu, 4 Jan 1996 00:00:00 GMT\n"
              "MIME-Version: 1.0\n"
              "Content-Disposition: attachment; filename=\"from-disposition.bin\"\n"
              "Content-Type: application/octet-stream; name=\"from-type.bin\"\n"
              "Content-ID: <" + std::string(600, 'i') + ">\n"
              "Content-Transfer-Encoding: base64\n\naGVsbG8=\n"),
         1, app, "from-type.bin", "hello", {},
         [](const Recorder &r) {
             EXPECT_EQ(r.lists, "first@x|second@x,third@x|;;c@x|;;;");
             const mime_part_desc &d = r.records.at(0);
             // Only the first Received: header counts, and only its continuation.
             const unsigned char date[4] = {0x30, 0xE9, 0xC7, 0x0A}; // 820627210
             EXPECT_EQ(std::memcmp(d.received_value, date, 4), 0);
             EXPECT_EQ(strnlen(d.content_id, sizeof d.content_id), sizeof d.content_id - 1);
         }},
        {named("taken.bin"), 1, app, "00000001.bin", "hi"},
        {named("taken.txt"), 1, app, "00000001.TXT", "hi"},
        {named("../../escape.bin"), 1, app, "escape.bin", "hi"},
        {named("=?utf-8?q?caf=C3=A9.dat?="), 1, app, "caf\xC3\xA9.dat", "hi"},
        {mime + crlf("application/octet-stream\nContent-Transfer-Encoding: x-uuencode\n\n"
                     "begin 644 x\n\"8VD`\n`\nend\n"), 1, app, "00000001.UUE", "ci"},
        {mime + crlf("message/external-body; access-type=local-file;\n name=\"/x\"\n\n"
                     "Content-Type: text/plain\nContent-ID: <inner>\n\nnot read\n"),
         1, "address,message/external-body,text/plain,", "", "", {},
         [](const Recorder &r) {
             EXPECT_STREQ(r.records.at(0).parameters.external_body.access_type, "local-file");
             EXPECT_STREQ(r.records.at(1).content_id, "<inner>");
         }},
        // The inner transfer encoding is not read: the outer one decodes.
        {mime + crlf("message/rfc822\nContent-Transfer-Encoding: base64\n\nSubject: inner\n"
                     "Content-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n\n"
                     "aGk=\n"),
         1, "address,message/rfc822,text/plain,path,", "00000001.TXT", "hi", {},
         [](const Recorder &r) {
             EXPECT_NE(r.headers.at(1).find("Subject: inner"), std::string::npos);
         }},
        // A multipart is walked part by part and a BinHex body is decoded,
        // here a banner without a block to an empty file, its header told
        // after the decoding (the walkers' and codec's own tests go further).
        {mime + crlf("multipart/mixed; boundary=\"b\"\n\n") + parts, 1,
         "address,multipart/mixed,text/plain,path,", "00000001.TXT", "x\r\n"},
        {mime + crlf("application/mac-binhex40\n\n") + binhex, 1,
         "address,application/mac-binhex40,path,", "00000001.TXT", "", {},
         [](const Recorder &r) { EXPECT_STREQ(r.records.at(0).encoding, "binhex"); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.events + std::string(" ") + c.file);
        std::filesystem::remove_all(out());
        std::filesystem::create_directory(out());
        tw_test::write_file(out() + "taken.bin", "old");
        tw_test::write_file(out() + "taken.txt", "old");
        Recorder r;
        std::copy(c.answer, c.answer + 3, r.answer);
        EXPECT_EQ(extract(c.message, r), c.result);
        EXPECT_EQ(r.events, c.events);
        EXPECT_EQ(r.delivered, *c.file ? Strings{out() + c.file} : Strings{});
        EXPECT_EQ(read_file(out() + c.file), c.content);
        EXPECT_EQ(tw_test::list_dir(out()).size(), *c.file ? 3u : 2u) << "nothing else stays";
        if (c.also != nullptr)
            c.also(r);
    }
    Recorder bytes; // stopping a stream of bytes is a feeding error
    bytes.answer[2] = -1;
    EXPECT_EQ(extract(text, bytes, false), MIME_FEED_ERROR);
    EXPECT_EQ(bytes.events, "address,text/plain,");
    // Ending a session whose input is still open fails, and ends it all the same.
    Recorder open;
    int32_t handle = start(open, ".");
    ASSERT_EQ(feed(handle, text.substr(0, 20)), 1);
    EXPECT_EQ(mime_extract_end(&handle), MIME_FILE_ERROR);
    EXPECT_EQ(handle, 0);
    EXPECT_TRUE(tw_test::list_dir(dir()) == Strings{"out"} && open.events.empty());
    EXPECT_EQ(mime_extract_end(&handle), MIME_NO_SESSION);
}

TEST_F(EndTest, SessionsFedSideBySideFromTwoThreads) {
    std::mutex end_lock; // end calls run one at a time
    auto worker = [&](int thread) {
        Recorder r[10];
        int32_t handles[10];
        std::string messages[10]; // all of one length
        for (int i = 0; i < 10; ++i) {
            messages[i] = kTextHeader + crlf("\nthread " + std::to_string(thread) + " message " +
                                             std::to_string(i) + "\n");
            handles[i] = start(r[i], nullptr);
        }
        for (std::size_t at = 0; at < messages[0].size(); at += 3) // 3 bytes to each in turn
            for (int i = 0; i < 10; ++i)
                ASSERT_EQ(feed(handles[i], messages[i].substr(at, 3)), 1);
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(mime_extract_data(handles[i], nullptr, 0, 0), 1);
            std::lock_guard<std::mutex> guard(end_lock);
            ASSERT_EQ(mime_extract_end(&handles[i]), 1);
            EXPECT_EQ(r[i].delivered, Strings{messages[i].substr(kTextHeader.size() + 2)});
        }
    };
    std::thread a(worker, 1), b(worker, 2);
    a.join();
    b.join();
}

} // namespace
