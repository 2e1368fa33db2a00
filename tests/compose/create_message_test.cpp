// create_message, create_message_x and the address block, for messages of a
// single part.
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "compose/compose.h"
#include "support/test_support.h"

namespace {

using tw_test::crlf;
using tw_test::file_exists;
using tw_test::list_dir;
using tw_test::read_file;
using tw_test::write_file;

constexpr const char *kDate = "Wed, 2 Jan 1980 02:03:55";

// ---- Scripted callbacks (plain functions, so their state is global) -----------------

struct BodyStep {
    enum Kind { Bytes, FileName, Stop } kind;
    std::string text;
};
std::vector<BodyStep> g_body;
std::size_t g_body_calls = 0;

int32_t body_cb(char *buffer, int32_t size, int32_t *is_file) {
    EXPECT_EQ(size, 8126);
    if (g_body_calls >= g_body.size()) {
        ++g_body_calls;
        return 0;
    }
    const BodyStep &step = g_body[g_body_calls++];
    if (step.kind == BodyStep::Stop)
        return -1;
    std::memcpy(buffer, step.text.data(), step.text.size());
    // A file name needs no NUL: make sure none happens to follow it.
    std::memset(buffer + step.text.size(), 'Q', 16);
    *is_file = step.kind == BodyStep::FileName ? 1 : 0;
    return static_cast<int32_t>(step.text.size());
}

struct DoneCall {
    int32_t lines, bytes;
};
std::vector<DoneCall> g_done;
int32_t done_cb(int32_t lines, int32_t bytes) {
    g_done.push_back({lines, bytes});
    return 0;
}

std::vector<std::string> g_extra;
std::size_t g_extra_calls = 0;
int32_t extra_header_cb(char *buffer, int32_t) {
    if (g_extra_calls >= g_extra.size())
        return 0;
    const std::string &answer = g_extra[g_extra_calls++];
    if (answer == "FAIL")
        return -1;
    std::memcpy(buffer, answer.data(), answer.size());
    return static_cast<int32_t>(answer.size());
}

std::string g_output;
std::vector<int32_t> g_output_lengths;
bool g_output_stops = false;
int32_t output_cb(const char *data, int32_t length) {
    g_output.append(data, static_cast<std::size_t>(length));
    g_output_lengths.push_back(length);
    return g_output_stops ? -1 : 1;
}

// Sets what the callbacks will answer and forgets what they were asked.
void script(std::vector<BodyStep> body, std::vector<std::string> extra = {},
            bool output_stops = false) {
    g_body = std::move(body);
    g_body_calls = 0;
    g_done.clear();
    g_extra = std::move(extra);
    g_extra_calls = 0;
    g_output.clear();
    g_output_lengths.clear();
    g_output_stops = output_stops;
}

// The address block and version line of the Ann/Bob message, then `content`.
std::string hello_header(const std::string &content) {
    return crlf(std::string("From: Bob\nDate: ") + kDate +
                "\nTo: Ann\nSubject: Hello\nMIME-VERSION: 1.0\n" + content);
}
const std::string kHelloHeader = hello_header("Content-type: text/plain\n\n");

// Writes to regular files beyond `bytes` fail with EFBIG while it lives.
// (Root ignores permission bits, so a size limit is what makes a write fail.)
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &old_);
        old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = old_;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, old_handler_);
    }

private:
    rlimit old_{};
    void (*old_handler_)(int) = nullptr;
};

class CreateMessageTest : public tw_test::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        ASSERT_EQ(mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(kDate), 0), 1);
        script({});
    }
    void TearDown() override {
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
        TempDirTest::TearDown();
    }

    // The Ann/Bob "Hello" message into `file`; its body comes from the script.
    int32_t hello(const std::string &file, const mime_part_info *info = nullptr,
                  mime_extra_header_cb extra = nullptr) {
        return create_message("Ann", "Bob", "Hello", nullptr, nullptr, info, file.c_str(),
                              nullptr, body_cb, done_cb, extra, 1, 0);
    }

    // Names in the scratch directory that look like temporary files.
    std::vector<std::string> temp_files() const {
        std::vector<std::string> found;
        for (const std::string &name : list_dir(dir()))
            if (name.rfind("$$$", 0) == 0)
                found.push_back(name);
        return found;
    }

    static std::string work_file() { return tw::application_directory() + "creat$$$.1"; }
};

TEST_F(CreateMessageTest, SingleTextMessageByteForByte) {
    script({{BodyStep::Bytes, "Hi there\r\n"}});
    ASSERT_EQ(hello(path("m.eml")), 1);
    const std::string expected = kHelloHeader + "Hi there\r\n";
    EXPECT_EQ(read_file(path("m.eml")), expected);
    ASSERT_EQ(g_done.size(), 1u);
    EXPECT_EQ(g_done[0].lines, 8);
    EXPECT_EQ(g_done[0].bytes, static_cast<int32_t>(expected.size()));
    EXPECT_EQ(g_body_calls, 2u) << "asked until it answered 0";
    EXPECT_EQ(list_dir(dir()), std::vector<std::string>{"m.eml"}) << "no work file stays";
}

TEST_F(CreateMessageTest, FormatDateIsEnglishUtcWithoutLeadingZeroOrZone) {
    const std::regex form(
        "(Sun|Mon|Tue|Wed|Thu|Fri|Sat), [1-9][0-9]? "
        "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}");
    auto utc_text = [](std::time_t t) {
        std::tm tm{};
        gmtime_r(&t, &tm);
        char buffer[64];
        std::strftime(buffer, sizeof buffer, "%a, %-d %b %Y %H:%M:%S", &tm);
        return std::string(buffer);
    };

    const std::time_t before = std::time(nullptr);
    const std::string date = tw::mime_format_date();
    const std::time_t after = std::time(nullptr);
    EXPECT_TRUE(std::regex_match(date, form)) << date;
    EXPECT_TRUE(date == utc_text(before) || date == utc_text(after)) << date;

}

TEST_F(CreateMessageTest, AddressBlockLinesFollowTheirFields) {
    const struct {
        const char *what;
        const char *to, *from, *subject, *cc, *bcc;
        int newsgroups;
        const char *block; // the lines before MIME-VERSION
    } cases[] = {
        {"all null", nullptr, nullptr, nullptr, nullptr, nullptr, 0, "Date: D\n"},
        {"empty From and To still give lines", "", "", "", "", "", 0,
         "From: \nDate: D\nTo: \n"},
        {"every field", "t@x", "f@x", "S", "c@x", "b@x", 0,
         "From: f@x\nDate: D\nTo: t@x\nSubject: S\nCc: c@x\nBcc: b@x\n"},
        {"newsgroups drop Cc and Bcc", "comp.mail", "f@x", "S", "c@x", "b@x", 1,
         "From: f@x\nDate: D\nNewsgroups: comp.mail\nSubject: S\n"},
        {"newsgroups without To", nullptr, nullptr, "S", "c@x", nullptr, 1,
         "Date: D\nSubject: S\n"},
        {"values as they stand", "\"A, B\" <a@x>,\r\n  c@x", "=?utf-8?Q?x?= <f@x>", " s ",
         nullptr, nullptr, 0,
         "From: =?utf-8?Q?x?= <f@x>\nDate: D\nTo: \"A, B\" <a@x>,\n  c@x\nSubject:  s \n"},
    };
    int n = 0;
    for (const auto &c : cases) {
        const std::string file = path("m" + std::to_string(++n));
        script({{BodyStep::Bytes, "b\r\n"}});
        ASSERT_EQ(create_message(c.to, c.from, c.subject, c.cc, c.bcc, nullptr, file.c_str(),
                                 nullptr, body_cb, done_cb, nullptr, 1, c.newsgroups),
                  1)
            << c.what;
        std::string block = crlf(c.block);
        block.replace(block.find("Date: D"), 7, std::string("Date: ") + kDate);
        const std::string expected =
            block + crlf("MIME-VERSION: 1.0\nContent-type: text/plain\n\nb\n");
        EXPECT_EQ(read_file(file), expected) << c.what;
        ASSERT_EQ(g_done.size(), 1u) << c.what;
        EXPECT_EQ(g_done[0].bytes, static_cast<int32_t>(expected.size())) << c.what;
    }
}

TEST_F(CreateMessageTest, LongAddressValuesAreWrittenWhole) {
    auto value = [](char c) { return std::string(5000, c); };
    const std::string to = value('t'), from = value('f'), subject = value('s'),
                      cc = value('c'), bcc = value('b');
    script({{BodyStep::Bytes, "x"}});
    ASSERT_EQ(create_message(to.c_str(), from.c_str(), subject.c_str(), cc.c_str(), bcc.c_str(),
                             nullptr, path("m").c_str(), nullptr, body_cb, done_cb, nullptr, 1,
                             0),
              1);
    const std::string expected = "From: " + from + "\r\nDate: " + kDate + "\r\nTo: " + to +
                                 "\r\nSubject: " + subject + "\r\nCc: " + cc + "\r\nBcc: " + bcc +
                                 "\r\n" + crlf("MIME-VERSION: 1.0\nContent-type: text/plain\n\n") +
                                 "x";
    EXPECT_EQ(read_file(path("m")), expected);
}

TEST_F(CreateMessageTest, PartInfoFieldsReachTheContentHeader) {
    const struct {
        const char *what;
        void (*fill)(mime_part_info &);
        const char *content_lines;
    } cases[] = {
        {"text fields, with the subtype cut to 19 characters",
         [](mime_part_info &i) {
             std::strcpy(i.content_type, "text");
             std::strcpy(i.content_subtype, "abcdefghijklmnopqrstu");
             std::strcpy(i.charset, "utf-8");
             std::strcpy(i.encoding, "8bit");
             std::strcpy(i.filename, "a.txt");
             std::strcpy(i.content_id, "<id@x>");
             i.size_on_disk = 12;
             std::memset(i.reserved, 'R', sizeof i.reserved);
         },
         "Content-type: text/abcdefghijklmnopqrs;\n  charset=utf-8;\n  SizeOnDisk=12;\n"
         "  name=a.txt\nContent-Transfer-Encoding: 8bit\n"
         "Content-Disposition: attachment; filename=\"a.txt\"\nContent-ID: <id@x>\n"},
        {"a later fragment keeps its parameters and has a body of its own",
         [](mime_part_info &i) {
             std::strcpy(i.content_type, "message");
             std::strcpy(i.content_subtype, "partial");
             i.parameters.partial.part_number = 2;
             i.parameters.partial.part_total = 3;
             std::strcpy(i.parameters.partial.part_id, "p@x");
         },
         "Content-type: message/partial;\n  number=2;\n  total=3;\n  id=\"p@x\"\n"},
    };
    int n = 0;
    for (const auto &c : cases) {
        mime_part_info info;
        std::memset(&info, 0, sizeof info);
        c.fill(info);
        script({{BodyStep::Bytes, "body\r\n"}});
        const std::string file = path("m" + std::to_string(++n));
        ASSERT_EQ(hello(file, &info), 1) << c.what;
        EXPECT_EQ(read_file(file), hello_header(std::string(c.content_lines) + "\nbody\n"))
            << c.what;
    }
}

TEST_F(CreateMessageTest, ExtraHeaderTextLandsInTheHeader) {
    script({{BodyStep::Bytes, "b"}}, {"X-Mailer: test\r\n", "X-Two: 2\r\n"});
    ASSERT_EQ(hello(path("m"), nullptr, extra_header_cb), 1);
    EXPECT_EQ(read_file(path("m")),
              hello_header("Content-type: text/plain\nX-Mailer: test\nX-Two: 2\n\nb"));
    ASSERT_EQ(g_done.size(), 1u);
    EXPECT_EQ(g_done[0].lines, 10);
}

TEST_F(CreateMessageTest, AppendsToAnExistingFileAndCountsOnlyTheNewMessage) {
    const std::string old = "one\r\ntwo\r\n" + std::string(3000, 'o') + "\r\n";
    write_file(path("box"), old);
    script({{BodyStep::Bytes, "Hi there\r\n"}});
    ASSERT_EQ(hello(path("box")), 1);
    const std::string message = kHelloHeader + "Hi there\r\n";
    EXPECT_EQ(read_file(path("box")), old + message);
    ASSERT_EQ(g_done.size(), 1u);
    EXPECT_EQ(g_done[0].lines, 8);
    EXPECT_EQ(g_done[0].bytes, static_cast<int32_t>(message.size()));
}

TEST_F(CreateMessageTest, BodyNamedAsAFileIsAppendedWithTheEofRule) {
    // A 0x1A that ends the first 2048-byte chunk of an unencoded body file
    // is dropped; one elsewhere stays.
    std::string content(2048, 'a');
    content[2047] = '\x1a';
    content[100] = '\x1a';
    content += "tail\r\n";
    write_file(path("body.txt"), content);
    script({{BodyStep::Bytes, "before\r\n"}, {BodyStep::FileName, "body.txt"},
            {BodyStep::Bytes, "never"}});
    ASSERT_EQ(hello(path("m")), 1);
    std::string kept = content;
    kept.erase(2047, 1);
    const std::string expected = kHelloHeader + "before\r\n" + kept;
    EXPECT_EQ(read_file(path("m")), expected);
    EXPECT_EQ(g_body_calls, 2u) << "a file name is the last call of a body";
    EXPECT_EQ(read_file(path("body.txt")), content) << "the named file stays as it was";
    ASSERT_EQ(g_done.size(), 1u);
    EXPECT_EQ(g_done[0].bytes, static_cast<int32_t>(expected.size()));
    EXPECT_EQ(g_done[0].lines, 11) << "the 2053-byte body line takes three reads";
}

// An encoded body is what the file encoder makes of the body's bytes, or of
// the named file alone: bytes given before a name are dropped.
TEST_F(CreateMessageTest, EncodedBodyGoesThroughItsEncoder) {
    const std::string text = "Gr\xfc\xdf" "e = caf\xe9\r\n" + std::string(100, 'w') + "\r\n";
    write_file(path("named.bin"), text + "named");
    const struct {
        const char *encoding;
        std::vector<BodyStep> body;
        std::string source; // what the encoder must have seen
        int32_t (*encoder)(const char *, const char *);
    } cases[] = {
        {"quoted-printable", {{BodyStep::Bytes, text}}, text, quoted_encode},
        {"base64", {{BodyStep::Bytes, text}, {BodyStep::Bytes, text}}, text + text,
         base64_encode},
        {"BASE64", {{BodyStep::Bytes, "dropped"}, {BodyStep::FileName, "named.bin"}},
         text + "named", base64_encode},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.encoding);
        write_file(path("oracle-src"), c.source);
        write_file(path("oracle-out"), "");
        ASSERT_GE(c.encoder(path("oracle-src").c_str(), path("oracle-out").c_str()), 0);

        mime_part_info info;
        std::memset(&info, 0, sizeof info);
        std::strcpy(info.charset, "us-ascii");
        std::strcpy(info.encoding, c.encoding);
        script(c.body);
        const std::string file = path("m" + std::to_string(++n));
        ASSERT_EQ(hello(file, &info), 1);
        const std::string expected =
            hello_header(std::string("Content-type: text/plain;\n  charset=us-ascii\n"
                                     "Content-Transfer-Encoding: ") +
                         c.encoding + "\n\n") +
            read_file(path("oracle-out"));
        EXPECT_EQ(read_file(file), expected);
        ASSERT_EQ(g_done.size(), 1u);
        EXPECT_EQ(g_done[0].bytes, static_cast<int32_t>(expected.size()));
        EXPECT_TRUE(temp_files().empty());
    }
}

TEST_F(CreateMessageTest, FailuresGiveZeroAndLeaveWhatWasWritten) {
    const std::string header_open = hello_header("Content-type: text/plain\n");
    const std::string base64_header =
        hello_header("Content-type: text/plain\nContent-Transfer-Encoding: base64\n\n");
    const struct {
        const char *what;
        const char *message; // relative to the scratch directory
        std::vector<BodyStep> body;
        std::vector<std::string> extra;
        rlim_t size_limit; // 0: none
        const char *encoding;
        bool exists;
        std::string left;
    } cases[] = {
        {"directory of the message missing", "nodir/m", {{BodyStep::Bytes, "x"}}, {}, 0, "", false,
         ""},
        {"message path names a directory", "adir", {{BodyStep::Bytes, "x"}}, {}, 0, "", false, ""},
        {"body_cb stops", "m1", {{BodyStep::Bytes, "part one\r\n"}, {BodyStep::Stop, ""}}, {}, 0,
         "", true, kHelloHeader + "part one\r\n"},
        {"body_cb stops at once", "m2", {{BodyStep::Stop, ""}}, {}, 0, "", true, kHelloHeader},
        {"extra_header_cb fails", "m3", {{BodyStep::Bytes, "x"}}, {"X-A: 1\r\n", "FAIL"}, 0,
         "", true, header_open + "X-A: 1\r\n"},
        {"named body file missing", "m4",
         {{BodyStep::Bytes, "pre\r\n"}, {BodyStep::FileName, "nosuchfile"}}, {}, 0, "", true,
         kHelloHeader + "pre\r\n"},
        {"named body file is a directory", "m8",
         {{BodyStep::Bytes, "pre\r\n"}, {BodyStep::FileName, "adir"}}, {}, 0, "", true,
         kHelloHeader + "pre\r\n"},
        {"header write fails", "m5", {{BodyStep::Bytes, "x"}}, {}, 30, "", true,
         kHelloHeader.substr(0, 30)},
        {"body write fails", "m6", {{BodyStep::Bytes, "0123456789"}}, {}, kHelloHeader.size() + 4,
         "", true, kHelloHeader + "0123"},
        {"named body file missing for an encoded body", "m7",
         {{BodyStep::Bytes, "pre\r\n"}, {BodyStep::FileName, "nosuchfile"}}, {}, 0, "base64",
         true, base64_header},
    };
    std::filesystem::create_directory(path("adir"));
    for (const auto &c : cases) {
        script(c.body, c.extra);
        mime_part_info info;
        std::memset(&info, 0, sizeof info);
        std::strcpy(info.encoding, c.encoding);
        int32_t result;
        {
            std::optional<FileSizeLimit> limit;
            if (c.size_limit != 0)
                limit.emplace(c.size_limit);
            result = hello(path(c.message), &info, c.extra.empty() ? nullptr : extra_header_cb);
        }
        EXPECT_EQ(result, 0) << c.what;
        EXPECT_TRUE(g_done.empty()) << c.what << ": done_cb after a failure";
        EXPECT_TRUE(temp_files().empty()) << c.what;
        if (c.exists) {
            EXPECT_EQ(read_file(path(c.message)), c.left) << c.what;
        } else if (std::string(c.message) != "adir") {
            EXPECT_FALSE(file_exists(path(c.message))) << c.what;
        }
        if (!c.extra.empty()) {
            EXPECT_EQ(g_body_calls, 0u) << c.what << ": no body behind a failed header";
        }
    }
    EXPECT_FALSE(file_exists(path("nodir")));
}

// The non-MIME writer is not part of the library yet: asking for such a
// message fails cleanly and leaves no work file behind.
TEST_F(CreateMessageTest, NonMimeRequestFailsCleanly) {
    script({{BodyStep::Bytes, "x"}});
    EXPECT_EQ(create_message("Ann", "Bob", "Hello", nullptr, nullptr, nullptr, path("m").c_str(),
                             nullptr, body_cb, done_cb, nullptr, 0, 0),
              0);
    EXPECT_TRUE(temp_files().empty());
    EXPECT_TRUE(g_done.empty());
}

TEST_F(CreateMessageTest, CreateMessageXDeliversTheSameBytesAndRemovesItsWorkFile) {
    const std::string chunk(8000, 'z');
    const std::vector<BodyStep> body = {{BodyStep::Bytes, chunk + "\r\n"},
                                        {BodyStep::Bytes, chunk + "\r\n"},
                                        {BodyStep::Bytes, "end\r\n"}};
    script(body);
    ASSERT_EQ(hello(path("file.eml")), 1);
    const std::vector<DoneCall> file_done = g_done;

    script(body);
    ASSERT_EQ(create_message_x("Ann", "Bob", "Hello", nullptr, nullptr, nullptr, nullptr, body_cb,
                               done_cb, nullptr, output_cb, 1, 0),
              1);
    EXPECT_EQ(g_output, read_file(path("file.eml")));
    ASSERT_GE(g_output_lengths.size(), 2u);
    EXPECT_EQ(g_output_lengths.front(), 8126);
    EXPECT_EQ(g_output_lengths.back(), 0);
    ASSERT_EQ(g_done.size(), 1u);
    ASSERT_EQ(file_done.size(), 1u);
    EXPECT_EQ(g_done[0].lines, file_done[0].lines);
    EXPECT_EQ(g_done[0].bytes, file_done[0].bytes);
    EXPECT_FALSE(file_exists(work_file()));
}

TEST_F(CreateMessageTest, CreateMessageXRemovesItsWorkFileOnEveryFailure) {
    const struct {
        const char *what;
        std::vector<BodyStep> body;
        bool output_stops;
        std::size_t output_calls;
    } cases[] = {
        {"output_cb stops", {{BodyStep::Bytes, "x"}}, true, 1},
        {"body_cb stops", {{BodyStep::Stop, ""}}, false, 0},
    };
    for (const auto &c : cases) {
        script(c.body, {}, c.output_stops);
        EXPECT_EQ(create_message_x("Ann", "Bob", "Hello", nullptr, nullptr, nullptr, nullptr,
                                   body_cb, nullptr, nullptr, output_cb, 1, 0),
                  0)
            << c.what;
        EXPECT_EQ(g_output_lengths.size(), c.output_calls) << c.what;
        EXPECT_FALSE(file_exists(work_file())) << c.what;
    }
}

} // namespace
