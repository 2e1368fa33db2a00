// extract_message and extract_message_x: what each kind of message leaves,
// what the callback hears, early ends, round trips with composition, and the
// work files of both exports.
#include "directory/directory.h"

#include <deque>

#include "directory/extract_fixture.h"

namespace {

using namespace tw_test;
using Files = std::map<std::string, std::string>;
using Calls = std::vector<Reported>;

const std::string kVersion = "MIME-Version: 1.0\n";

std::string single(const std::string &type, const std::string &cte, const std::string &more = "") {
    return kVersion + "Content-Type: " + type + "\nContent-Transfer-Encoding: " + cte + "\n" + more;
}

TEST_F(ExtractTest, WhatEachMessageLeaves) {
    const std::string text64 = single("text/plain", "base64");
    const std::string gif64 = single("image/gif", "base64");
    const std::string pdf = single("application/pdf; name=\"doc.pdf\"", "base64");
    const std::string uu = single("image/gif", "x-uuencode");
    const std::string qp = single("text/plain", "quoted-printable");
    const std::string named = text64 + "Content-Disposition: inline; filename=\"n.txt\"\n";
    const std::string mixed = kVersion + "Content-Type: multipart/mixed; boundary=\"b1\"\n";
    const std::string plain = kVersion + "Content-Type: text/plain; name=x.txt\n\nbody\n";
    const std::string no_boundary = kVersion + "Content-Type: multipart/mixed; x=1\n\n--b1\n";
    const struct {
        const char *what;
        std::string message;
        int32_t result;
        Files files;
        Calls calls;
    } rows[] = {
        {"no encoding: the whole message, leading blank line and all", "\n" + plain, 1,
         {{"00000001.HDR", crlf("\n" + plain)}}, {{"00000001.HDR", 0, 0}}},
        {"Base64 text decodes behind its header", "\n" + text64 + "\naGVsbG8g\n\nd29ybGQ=\n", 1,
         {{"00000001.txt", crlf(text64 + "\n\n") + "hello world"}}, {{"00000001.txt", 0, 2}}},
        {"richtext", single("text/richtext", "base64") + "\naGk=\n", 1,
         {{"00000001.rtx", crlf(single("text/richtext", "base64") + "\n\n") + "hi"}},
         {{"00000001.rtx", 0, 2}}},
        {"quoted-printable text loses every blank line", qp + "\nOne=\n two\n\nLine =33\n", 1,
         {{"00000001.txt", crlf(qp + "\n\nOne two\nLine 3\n")}}, {{"00000001.txt", 0, 2}}},
        {"named text", named + "\naGk=\n", 1, {{"n.txt", crlf(named + "\n\n") + "hi"}},
         {{"n.txt", 0, 2}}},
        {"named attachment", pdf + "\nJVBE\n", 1,
         {{"00000001.HDR", crlf(pdf + "\n\n")}, {"doc.pdf", "%PD"}},
         {{"00000001.HDR", 0, 0}, {"doc.pdf", 0, 22}}},
        {"unnamed image", gif64 + "\nR0lG\n", 1,
         {{"00000001.HDR", crlf(gif64 + "\n\n")}, {"00000002.gif", "GIF"}},
         {{"00000001.HDR", 0, 0}, {"00000002.gif", 0, 11}}},
        {"uuencode counts .ATF and .UUE only", uu + "\nbegin 644 x\n#86)C\n`\nend\n", 1,
         {{"00000001.HDR", crlf(uu + "\n\n")}, {"00000001.gif", "abc"}},
         {{"00000001.HDR", 0, 0}, {"00000001.gif", 0, 11}}},
        {"multipart: plain first part behind the header, preamble gone",
         mixed + "\npre\n--b1\nContent-Type: text/plain\n\n\nHello\n\n--b1\n" +
             single("application/zip; name=\"a.zip\"", "base64") + "\naGVsbG8=\n--b1--\nepi\n",
         1, {{"00000001.HDR", crlf(mixed + "\nHello\n\n")}, {"a.zip", "hello"}},
         {{"00000001.HDR", 1, 0}, {"a.zip", 1, 22}}},
        {"multipart: Base64 text first part", mixed + "\n--B1\n" + text64 + "\naGk=\n--b1--\n", 1,
         {{"00000001.HDR", crlf(mixed + "\n") + "hi"}}, {{"00000001.HDR", 1, 0}}},
        {"multipart: an attachment first goes to the walker",
         mixed + "\n--b1\n" + gif64 + "\nR0lG\n--b1\nContent-Type: text/plain\n\ntail\n--b1--\n",
         1,
         {{"00000001.HDR", crlf(mixed + "\n")}, {"00000002.gif", "GIF"},
          {"00000003.txt", crlf("tail\n")}},
         {{"00000001.HDR", 1, 0}, {"00000002.gif", 1, 11}, {"00000003.txt", 1, 2}}},
        {"multipart without a boundary is kept whole", no_boundary, 1,
         {{"00000001.HDR", crlf(no_boundary)}}, {{"00000001.HDR", 0, 0}}},
        {"end of file before any delimiter", mixed + "\nnothing\n", 1,
         {{"00000001.HDR", crlf(mixed + "\n")}}, {{"00000001.HDR", 1, 0}}},
        {"end of file inside the first part", mixed + "\n--b1\n" + text64 + "\naGk=\n", 1,
         {{"00000001.HDR", crlf(mixed + "\n") + "hi"}}, {{"00000001.HDR", 1, 0}}},
        {"end of file inside the header", mixed, 1, {{"00000001.HDR", crlf(mixed + "\n")}},
         {{"00000001.HDR", 1, 0}}},
        {"not MIME: the text file", "From: a\n\nhello\n", 1,
         {{"MESSAGE.$$$", crlf("From: a\n\nhello\n")}}, {{"MESSAGE.$$$", 0, 0}}},
    };
    int n = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        g_reported.clear();
        const std::string out = "out" + std::to_string(++n);
        EXPECT_EQ(extract(crlf(row.message), out), row.result);
        EXPECT_EQ(files(out), row.files);
        EXPECT_EQ(reported(out), row.calls);
    }
}

TEST_F(ExtractTest, OptionsReportTheLastExtraction) {
    int32_t encoding = 0, count = 0;
    char subtype[100] = {}, name[256] = {};
    auto ask = [&] {
        mime_options(MIME_OPT_GET_ENCODING, reinterpret_cast<intptr_t>(&encoding), 0);
        mime_options(MIME_OPT_GET_PART_COUNT, reinterpret_cast<intptr_t>(&count), 0);
        mime_options(MIME_OPT_GET_SUBTYPE, reinterpret_cast<intptr_t>(subtype), 0);
        mime_options(MIME_OPT_GET_FILE_NAME, reinterpret_cast<intptr_t>(name), 0);
    };
    ASSERT_EQ(extract(crlf(single("image/Jpeg; name=\"p.jpg\"", "base64") + "\nR0lG\n")), 1);
    ask();
    // The .HDR file of a single body counts as a part, the body does not.
    EXPECT_EQ(std::tie(encoding, count), std::make_tuple(MIME_ENC_BASE64, 1));
    EXPECT_STREQ(subtype, "Jpeg");
    EXPECT_STREQ(name, "p.jpg");
    ASSERT_EQ(extract(crlf(kVersion + "Content-Type: text/plain\n\nhi\n")), 1);
    ask();
    EXPECT_EQ(std::tie(encoding, count), std::make_tuple(MIME_OPT_ENC_NOTHING, 0));
}

TEST_F(ExtractTest, SecondMessageInTheSameDirectory) {
    const std::string message = crlf(single("image/gif; name=\"a.gif\"", "base64") + "\nR0lG\n");
    ASSERT_EQ(extract(message), 1);
    ASSERT_EQ(extract(message), 1);
    // The renamed body gave its number back to the second .HDR file; a.gif
    // exists, so the second body keeps its number with the name's extension.
    EXPECT_EQ(reported(), (Calls{{"00000001.HDR", 0, 0},
                                 {"a.gif", 0, 11},
                                 {"00000002.HDR", 0, 0},
                                 {"00000003.gif", 0, 11}}));
    EXPECT_EQ(files()["00000003.gif"], "GIF");
}

TEST_F(ExtractTest, DirectoryAndArgumentChecks) {
    write_file(path("m.eml"), crlf(kVersion + "Content-Type: text/plain\n\nhi\n"));
    fresh("out");
    for (const char *refused : {"out", "", "./missing"})
        EXPECT_EQ(extract_message("m.eml", record_file, refused), 0) << refused;
    EXPECT_EQ(extract_message("missing.eml", record_file, "./out"), 0);
    EXPECT_EQ(extract_message("m.eml", nullptr, "./out"), 0);
    EXPECT_EQ(list_dir(path("out")), std::vector<std::string>{});
    EXPECT_EQ(extract_message("m.eml", record_file, "./out/"), 1);
    EXPECT_EQ(extract_message("m.eml", record_file, "."), 1);
    EXPECT_EQ(reported(), (Calls{{"00000001.HDR", 0, 0}, {path("00000001.HDR"), 0, 0}}));
}

// ---- Round trip with composition --------------------------------------------------

std::deque<std::pair<mime_part_info, std::string>> g_parts; // type 0: close a level
std::string g_body;

std::pair<mime_part_info, std::string> src(const char *type, const char *subtype,
                                           const char *cte, std::string body,
                                           const char *name = "") {
    mime_part_info info{};
    tw::copy_field(info.content_type, type);
    tw::copy_field(info.content_subtype, subtype);
    tw::copy_field(info.encoding, cte);
    tw::copy_field(info.filename, name);
    return {info, std::move(body)};
}

int32_t next_part(mime_part_info *info) {
    if (g_parts.empty() || g_parts.front().first.content_type[0] == '\0') {
        if (!g_parts.empty())
            g_parts.pop_front();
        return MIME_PART_END_MULTIPART;
    }
    *info = g_parts.front().first;
    g_body = g_parts.front().second;
    g_parts.pop_front();
    return 1;
}

int32_t body(char *buffer, int32_t size, int32_t *is_file) {
    *is_file = 0;
    const auto n = static_cast<int32_t>(std::min(g_body.size(), static_cast<std::size_t>(size)));
    std::memcpy(buffer, g_body.data(), static_cast<std::size_t>(n));
    g_body.erase(0, static_cast<std::size_t>(n));
    return n;
}

std::string random_bytes(std::size_t n, unsigned seed) {
    std::string bytes(n, '\0');
    for (char &c : bytes)
        c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    return bytes;
}

TEST_F(ExtractTest, RoundTripOfComposedMessages) {
    const std::string text = crlf("First line of the text\nsecond line, no blank between\n");
    const std::string bin = random_bytes(20000, 7), other = random_bytes(3001, 9);
    const auto close = src("", "", "", "");
    const struct {
        const char *what;
        std::pair<mime_part_info, std::string> top;
        std::vector<std::pair<mime_part_info, std::string>> parts;
        Files expected; // behind the header for a text in its .HDR file
    } trips[] = {
        {"Base64 text", src("text", "plain", "base64", text), {}, {{"00000001.txt", text}}},
        {"quoted-printable text", src("text", "plain", "quoted-printable", text), {},
         {{"00000001.txt", text}}},
        {"Base64 attachment", src("application", "pdf", "base64", bin, "d.pdf"), {},
         {{"d.pdf", bin}}},
        {"quoted-printable attachment", src("image", "gif", "quoted-printable", bin, "i.gif"), {},
         {{"i.gif", bin}}},
        {"attachments", src("multipart", "mixed", "", text),
         {src("application", "zip", "base64", bin, "one.zip"),
          src("application", "octet-stream", "quoted-printable", other, "two.bin"),
          src("text", "plain", "quoted-printable", text, "three.txt")},
         {{"one.zip", bin}, {"two.bin", other}, {"three.txt", text}}},
        {"nested", src("multipart", "mixed", "", text),
         {src("multipart", "alternative", "", ""),
          src("text", "plain", "quoted-printable", text, "plain.txt"),
          src("multipart", "related", "", ""), src("text", "html", "base64", other, "p.html"),
          src("image", "gif", "base64", bin, "pic.gif"), close, close,
          src("application", "zip", "base64", other, "last.zip")},
         {{"plain.txt", text}, {"p.html", other}, {"pic.gif", bin}, {"last.zip", other}}},
    };
    int n = 0;
    for (const auto &trip : trips) {
        SCOPED_TRACE(trip.what);
        const std::string name = "trip" + std::to_string(++n), out = fresh(name);
        g_parts.assign(trip.parts.begin(), trip.parts.end());
        g_body = trip.top.second;
        ASSERT_EQ(create_message("a@x", "b@x", "s", nullptr, nullptr, &trip.top.first,
                                 path(name + ".eml").c_str(), next_part, body, nullptr, nullptr,
                                 1, 0),
                  1);
        ASSERT_EQ(extract_message(path(name + ".eml").c_str(), record_file, out.c_str()), 1);
        for (const auto &[file, bytes] : trip.expected) {
            std::string got = read_file(out + file);
            if (file.rfind("00000001.", 0) == 0)
                got.erase(0, got.find("\r\n\r\n\r\n") + 6);
            EXPECT_EQ(got, bytes) << file;
        }
    }
}

// ---- extract_message_x -------------------------------------------------------------

const std::string kMixed = crlf(kVersion +
                                "Content-Type: multipart/mixed; boundary=\"b1\"\n\n"
                                "--b1\nContent-Type: text/plain\n\nHello\n--b1\n" +
                                single("image/gif", "base64",
                                       "Content-Disposition: attachment; filename=\"../u.gif\"\n") +
                                "\nR0lG\n--b1\nContent-Type: text/plain\n\ntail\n--b1--\n");

class ExtractXTest : public ExtractTest {
protected:
    int32_t feed(const std::string &message, std::size_t piece) {
        for (std::size_t at = 0; at < message.size(); at += piece) {
            const std::string bytes = message.substr(at, piece);
            if (extract_message_x(bytes.data(), static_cast<int32_t>(bytes.size()), nullptr,
                                  nullptr) != 1)
                return -1;
        }
        return extract_message_x(nullptr, 0, record_file, record_bytes);
    }
    std::vector<std::string> work_files() const { return list_dir(tw::application_directory()); }
};

TEST_F(ExtractXTest, PiecesOfAnySizeGiveTheSameFiles) {
    for (std::size_t piece : {1, 7, 4096}) {
        SCOPED_TRACE(piece);
        g_reported.clear();
        ASSERT_EQ(feed(kMixed, piece), 1);
        // A decoded file is told by the name that the message gave it.
        ASSERT_EQ(g_reported, (Calls{{"", 1, 0}, {"../u.gif", 1, 11}, {"", 1, 2}}));
        EXPECT_EQ(g_reported[0].bytes,
                  crlf(kVersion + "Content-Type: multipart/mixed; boundary=\"b1\"\n\nHello\n"));
        EXPECT_EQ(g_reported[1].bytes, "GIF");
        EXPECT_EQ(g_reported[2].bytes, crlf("tail\n"));
        for (const Reported &r : g_reported)
            EXPECT_TRUE(r.ended);
        EXPECT_EQ(work_files(), std::vector<std::string>{});
    }
    EXPECT_EQ(list_dir(dir()), std::vector<std::string>{"state"});
}

TEST_F(ExtractXTest, SinkStopAndRefusalLeaveNoWorkFile) {
    for (std::size_t stop_at : {0, 1}) {
        g_reported.clear();
        g_stop_at = stop_at;
        EXPECT_EQ(feed(kMixed, 4096), 0);
        EXPECT_EQ(g_reported.size(), stop_at + 1) << "nothing is reported after the stop";
        EXPECT_EQ(work_files(), std::vector<std::string>{});
    }
    EXPECT_EQ(feed(crlf("From: a\n\nnot MIME\n"), 4096), 1);
    EXPECT_EQ(extract_message_x(nullptr, 0, record_file, record_bytes), 0) << "nothing spooled";
    EXPECT_EQ(work_files(), std::vector<std::string>{});
}

TEST_F(ExtractXTest, PlantedLinkAtTheSpoolIsNotFollowed) {
    write_file(path("victim"), "keep");
    std::filesystem::create_symlink(path("victim"), tw::application_directory() + tw::kSpoolFile);
    EXPECT_EQ(extract_message_x("x", 1, nullptr, nullptr), 0);
    EXPECT_EQ(read_file(path("victim")), "keep");
}

} // namespace
