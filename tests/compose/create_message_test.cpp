// create_message and create_message_x with a single part: the address block,
// bodies as bytes, from a named file or encoded, and the failures.
#include <csignal>
#include <optional>

#include <sys/resource.h>
#include <sys/stat.h>

#include "compose/compose_fixture.h"

namespace {

using namespace tw_compose_test;
using tw_test::list_dir;
using tw_test::write_file;

const std::string kHello = kHead + crlf("Content-type: text/plain\n\n");

// Writes beyond `bytes` fail with EFBIG while it lives: root ignores
// permission bits, a size limit it cannot.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t bytes) : handler(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &old);
        const rlimit limit{bytes, old.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &old), std::signal(SIGXFSZ, handler); }
    void (*handler)(int);
    rlimit old{};
};

// Appended behind what the file held; done_cb counts the new message only
// (the 3000-byte old line alone would add three reads).
TEST_F(ComposeTest, SingleTextMessageByteForByte) {
    const std::string old = "one\r\n" + std::string(3000, 'o') + "\r\n";
    write_file(kMessage, old);
    g.bodies = {"Hi there\r\n"};
    ASSERT_EQ(create({}), 1);
    EXPECT_EQ(message(), old + kHello + "Hi there\r\n");
    EXPECT_EQ(g.log, (Names{"body", "body", "done"}));
    EXPECT_EQ(g.done.at(0).lines, 8);
    EXPECT_EQ(g.done.at(0).bytes, static_cast<int32_t>(kHello.size() + 10));
    EXPECT_EQ(list_dir(dir()), Names{kMessage}) << "no work file stays";
}

TEST_F(ComposeTest, AddressBlockLinesFollowTheirFields) {
    const std::string s(5000, 's'), d = std::string("Date: ") + kDate; // long values stay whole
    const struct {
        const char *to, *from, *subject, *cc, *bcc;
        std::string block;
    } cases[] = {
        {nullptr, nullptr, nullptr, nullptr, nullptr, d},
        {"", "", "", "", "", "From: \n" + d + "\nTo: "},
        {"t", "f", s.c_str(), "c", "b", "From: f\n" + d + "\nTo: t\nSubject: " + s + "\nCc: c\nBcc: b"},
        {"comp.mail", "f", "S", "c", "b", "From: f\n" + d + "\nNewsgroups: comp.mail\nSubject: S"},
    };
    for (const auto &c : cases) {
        script({}, {"b"});
        ASSERT_EQ(create_message(c.to, c.from, c.subject, c.cc, c.bcc, nullptr, kMessage, nullptr,
                                 body_cb, nullptr, nullptr, 1, c.block.ends_with(": S")), 1);
        EXPECT_EQ(message(), crlf(c.block + "\nMIME-VERSION: 1.0\nContent-type: text/plain\n\nb"));
    }
}

// An unencoded named file is appended under the 0x1A rule and ends the body;
// an encoded body is what the encoder makes of all the body's bytes, or of
// the named file alone: bytes given before a name are dropped.
TEST_F(ComposeTest, BodiesAsBytesNamedFilesOrEncoded) {
    write_file("named.bin", "foobar\x1a");
    const struct {
        Part top;
        std::vector<std::string> bodies;
        const char *expected; // behind the address block
    } cases[] = {
        {{}, {"pre\r\n", "@named.bin", "never"}, "Content-type: text/plain\n\npre\nfoobar"},
        {{.encoding = "base64"}, {"foo", "bar"},
         "Content-type: text/plain\nContent-Transfer-Encoding: base64\n\nZm9vYmFy\n"},
        // 19 characters of the subtype carry over into the full record.
        {{.type = "text", .subtype = "abcdefghijklmnopqrstu", .encoding = "BASE64", .filename = "a",
          .charset = "utf-8", .content_id = "<i@x>", .size = 12}, {"dropped", "@named.bin"},
         "Content-type: text/abcdefghijklmnopqrs;\n  charset=utf-8;\n  SizeOnDisk=12;\n  name=a\n"
         "Content-Transfer-Encoding: BASE64\nContent-Disposition: attachment; filename=\"a\"\n"
         "Content-ID: <i@x>\n\nZm9vYmFyGg==\n"},
    };
    for (const auto &c : cases) {
        script({}, c.bodies);
        ASSERT_EQ(create(c.top), 1) << c.expected;
        EXPECT_EQ(message(), kHead + crlf(c.expected));
        EXPECT_EQ(g.done.at(0).bytes, static_cast<int32_t>(message().size())) << c.expected;
        EXPECT_EQ(list_dir(dir()), (Names{kMessage, "named.bin"})) << c.expected;
    }
}

TEST_F(ComposeTest, FailuresGiveZeroAndLeaveWhatWasWritten) {
    const struct {
        const char *file, *encoding;
        std::vector<std::string> bodies;
        rlim_t size_limit; // 0: none
        std::optional<std::string> left; // none: no message file
    } cases[] = {
        {"nodir/m", "", {"x"}, 0, {}},
        {"adir", "", {"x"}, 0, {}},
        {kMessage, "", {"part one\r\n", "!"}, 0, kHello + "part one\r\n"},
        {kMessage, "", {"pre\r\n", "@nosuchfile"}, 0, kHello + "pre\r\n"},
        {kMessage, "", {"x"}, 30, kHello.substr(0, 30)},
        {kMessage, "", {"0123456789"}, kHello.size() + 4, kHello + "0123"},
        {kMessage, "base64", {"pre\r\n", "@nosuchfile"}, 0,
         kHead + crlf("Content-type: text/plain\nContent-Transfer-Encoding: base64\n\n")},
    };
    ASSERT_EQ(::mkdir("adir", 0700), 0);
    for (const auto &c : cases) {
        script({}, c.bodies);
        std::optional<FileSizeLimit> limit;
        if (c.size_limit != 0)
            limit.emplace(c.size_limit);
        EXPECT_EQ(create({.encoding = c.encoding}, c.file), 0) << c.left.value_or(c.file);
        limit.reset();
        EXPECT_TRUE(g.done.empty()) << "done_cb after a failure";
        EXPECT_EQ(list_dir(dir()), (c.left ? Names{"adir", kMessage} : Names{"adir"}));
        EXPECT_EQ(message(), c.left.value_or(""));
    }
}

Names g_out; // what output_cb was given, call by call
bool g_stop = false;
int32_t output_cb(const char *data, int32_t length) {
    g_out.emplace_back(data, static_cast<std::size_t>(length));
    return g_stop ? -1 : 1;
}

TEST_F(ComposeTest, CreateMessageXFeedsTheSameBytesAndRemovesItsWorkFile) {
    const std::string work = tw::application_directory() + "creat$$$.1", z(8100, 'z');
    auto x = [](Names bodies, bool stop) {
        script({}, bodies);
        g_out.clear(), g_stop = stop;
        return create_message_x("Ann", "Bob", "Hello", nullptr, nullptr, nullptr, nullptr, body_cb,
                                done_cb, nullptr, output_cb, 1, 0);
    };
    ASSERT_EQ(x({z, "end"}, false), 1);
    // What the file form holds, in 8126-byte pieces, then once with length 0.
    const std::string whole = kHello + z + "end";
    EXPECT_EQ(g_out, (Names{whole.substr(0, 8126), whole.substr(8126), ""}));
    EXPECT_EQ(g.done.at(0).bytes, static_cast<int32_t>(whole.size()));
    EXPECT_FALSE(tw_test::file_exists(work));
    EXPECT_EQ(x({z, "!"}, false), 0) << "body_cb stops";
    EXPECT_FALSE(tw_test::file_exists(work));
    EXPECT_EQ(x({"x"}, true), 0) << "output_cb stops";
    EXPECT_EQ(g_out.size(), 1u);
    EXPECT_FALSE(tw_test::file_exists(work));
}

} // namespace
