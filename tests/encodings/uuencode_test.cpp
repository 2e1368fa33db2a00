#include <csignal>
#include <cstring>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "encodings/codec_fixture.h"
#include "tarnwick.h"

namespace {

using tw_test::CodecTest;
using tw_test::file_exists;
using tw_test::random_bytes;
using tw_test::read_file;
using tw_test::write_file;

class UuencodeTest : public CodecTest {
protected:
    struct Decoded {
        int32_t result;
        std::string name;
        std::string output;
        bool target_exists;
    };
    Decoded decode(const std::string &input, const char *existing = nullptr) {
        write_file(path("in.uue"), input);
        if (existing != nullptr)
            write_file(path("out"), existing);
        char name[256];
        std::memset(name, '?', sizeof name - 1);
        name[sizeof name - 1] = '\0';
        const int32_t result = uudecode(path("in.uue").c_str(), path("out").c_str(), name);
        return {result, name, read_file(path("out")), file_exists(path("out"))};
    }
    std::string encode(const std::string &data, const char *name = "f.bin") {
        write_file(path("data"), data);
        std::remove(path("enc").c_str());
        EXPECT_GE(uuencode(path("data").c_str(), path("enc").c_str(), name), 3);
        return read_file(path("enc"));
    }
};

std::vector<std::string> crlf_lines(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; at < text.size(); at = end + 2) {
        end = text.find("\r\n", at);
        if (end == std::string::npos)
            end = text.size();
        lines.push_back(text.substr(at, end - at));
    }
    return lines;
}

// Two empty lines, the begin line, lines of 45 bytes behind their length
// character, the closing backquote line and "end"; the result counts the
// lines from "begin" on, with or without a target.
TEST_F(UuencodeTest, LayoutAndCountBySize) {
    for (std::size_t n : {0, 1, 2, 3, 44, 45, 46, 90, 91, 11925, 11926, 30000}) {
        SCOPED_TRACE("size " + std::to_string(n));
        std::string data = random_bytes(n, static_cast<uint32_t>(n));
        for (std::size_t i = 0; i < n; i += 7)
            data[i] = '\0';
        write_file(path("data"), data);
        std::remove(path("enc").c_str());
        const int32_t lines = static_cast<int32_t>((n + 44) / 45 + 3);
        EXPECT_EQ(uuencode(path("data").c_str(), path("enc").c_str(), "f.bin"), lines);
        EXPECT_EQ(uuencode(path("data").c_str(), nullptr, "f.bin"), lines);
        EXPECT_EQ(uuencode(path("data").c_str(), "", "f.bin"), lines);

        const std::string text = read_file(path("enc"));
        EXPECT_EQ(text.find(' ', text.find("f.bin")), std::string::npos)
            << "zero is a backquote, never a blank";
        const auto all = crlf_lines(text);
        ASSERT_EQ(all.size(), static_cast<std::size_t>(lines) + 2);
        EXPECT_EQ(all[0], "");
        EXPECT_EQ(all[1], "");
        EXPECT_EQ(all[2], "begin 644 f.bin");
        for (std::size_t i = 3, left = n; left > 0; ++i) {
            const std::size_t count = std::min<std::size_t>(45, left);
            ASSERT_EQ(all[i].size(), 1 + 4 * ((count + 2) / 3)) << "line " << i;
            ASSERT_EQ(all[i][0], static_cast<char>(32 + count)) << "line " << i;
            left -= count;
        }
        EXPECT_EQ(all[all.size() - 2], "`");
        EXPECT_EQ(all.back(), "end");

        const auto back = decode(text);
        EXPECT_EQ(back.result, 1);
        EXPECT_EQ(back.name, "f.bin");
        EXPECT_TRUE(back.output == data);
    }
}

TEST_F(UuencodeTest, KnownLinesAndAppending) {
    EXPECT_EQ(crlf_lines(encode("Cat"))[3], "#0V%T");
    EXPECT_EQ(crlf_lines(encode(std::string(3, '\0')))[3], "#````");
    EXPECT_EQ(crlf_lines(encode(std::string(45, 'a')))[3][0], 'M');
    EXPECT_EQ(crlf_lines(encode(std::string(46, 'a')))[4], "!80``");
    EXPECT_EQ(encode("", "e"), "\r\n\r\nbegin 644 e\r\n`\r\nend\r\n");

    write_file(path("data"), "Cat");
    write_file(path("two"), "old");
    ASSERT_EQ(uuencode(path("data").c_str(), path("two").c_str(), "a"), 4);
    ASSERT_EQ(uuencode(path("data").c_str(), path("two").c_str(), "b"), 4);
    EXPECT_EQ(read_file(path("two")), "old\r\n\r\nbegin 644 a\r\n#0V%T\r\n`\r\nend\r\n"
                                      "\r\n\r\nbegin 644 b\r\n#0V%T\r\n`\r\nend\r\n");

    EXPECT_EQ(uuencode(nullptr, path("x").c_str(), "x"), -1);
    EXPECT_EQ(uuencode("", path("x").c_str(), "x"), -1);
    EXPECT_EQ(uuencode(path("none").c_str(), path("x").c_str(), "x"), -1);
    EXPECT_FALSE(file_exists(path("x")));
}

TEST_F(UuencodeTest, BeginLineAndDataRules) {
    const std::string cat = "#0V%T\r\n`\r\nend\r\n";
    const struct {
        const char *what;
        std::string in;
        int32_t result;
        const char *name;
        std::string data;
    } cases[] = {
        {"leading blanks", "  begin 644 a.txt\r\n" + cat, 1, "a.txt", "Cat"},
        {"text without a b before the word", "xx begin 644 a.txt\r\n" + cat, 1, "a.txt", "Cat"},
        {"a line whose first b does not begin the word is passed over",
         "abc begin 644 no\r\nbegin 644 yes\r\n" + cat, 1, "yes", "Cat"},
        {"spaces inside the name stay, those at its end go", "begin 644 my file.txt  \r\n" + cat, 1,
         "my file.txt", "Cat"},
        {"no name", "begin 644\r\n" + cat, 1, "", "Cat"},
        {"count 0 at once", "begin 644 x\r\n`\r\nend\r\n", 1, "x", ""},
        {"a blank as count ends the data", "begin 644 x\r\n#0V%T\r\n \r\n#0V%T\r\n", 1, "x", "Cat"},
        {"input ends without count 0", "begin 644 x\r\n#0V%T\r\n#0V%T", 1, "x", "CatCat"},
        {"another mode and LF line ends", "begin 600 y\n#0V%T\n`\n", 1, "y", "Cat"},
        {"no begin line", "nothing\r\nhere\r\n" + cat, 0, "????", ""},
    };
    for (const auto &c : cases) {
        const auto d = decode(c.in);
        EXPECT_EQ(d.result, c.result) << c.what;
        if (c.result == 1) {
            EXPECT_EQ(d.name, c.name) << c.what;
            EXPECT_EQ(d.output, c.data) << c.what;
        } else {
            EXPECT_FALSE(d.target_exists) << c.what;
        }
    }
}

TEST_F(UuencodeTest, ALineEndAloneIsNoCountZero) {
    // CR decodes as a count of 45 and LF as 42, so such a line is data and
    // the lines behind it still count.
    for (const char *end : {"\r\n", "\n"}) {
        const auto d = decode("begin 644 x" + std::string(end) + end + "#0V%T" + end + "`" + end);
        EXPECT_EQ(d.result, 1);
        const std::size_t count = end[0] == '\r' ? 45 : 42;
        ASSERT_EQ(d.output.size(), count + 3) << "line end " << (end[0] == '\r' ? "CR LF" : "LF");
        EXPECT_EQ(d.output.substr(count), "Cat");
    }
}

TEST_F(UuencodeTest, DecoderReplacesItsTargetAndRemovesItOnFailure) {
    EXPECT_EQ(decode("begin 644 x\r\n#0V%T\r\n`\r\n", "a much longer old content").output, "Cat");
    const auto failed = decode("no start line\r\n", "old content");
    EXPECT_EQ(failed.result, 0);
    EXPECT_FALSE(failed.target_exists);

    write_file(path("in"), "begin 644 x\r\n`\r\n");
    char name[256];
    EXPECT_EQ(uudecode(path("in").c_str(), "", name), 0);
    EXPECT_EQ(uudecode(path("in").c_str(), nullptr, name), 0);
    EXPECT_EQ(uudecode("", path("o").c_str(), name), 0);
    EXPECT_EQ(uudecode(path("none").c_str(), path("o").c_str(), name), 0);
    EXPECT_FALSE(file_exists(path("o")));
}

// In a message the decoder reads over boundary lines in its search, and
// leaves the stream directly behind the line of count 0.
TEST_F(UuencodeTest, StreamFormPositions) {
    char name[256] = {};
    auto decode_stream = [&](tw::Stream &s, const std::string &t) {
        return tw::uudecode_stream(s, t, name);
    };
    const auto found = run_stream(
        "--b\r\nContent-Type: text/plain\r\n\r\nsome text\r\n--b\r\n\r\nbegin 644 a b\r\n"
        "#0V%T\r\n`\r\nend\r\n--b--\r\n",
        decode_stream);
    EXPECT_EQ(found.result, 1);
    EXPECT_STREQ(name, "a b");
    EXPECT_EQ(found.output, "Cat");
    EXPECT_EQ(found.rest, "end\r\n--b--\r\n");

    const auto none = run_stream("--b\r\ntext\r\n--b--\r\n", decode_stream);
    EXPECT_EQ(none.result, 0);
    EXPECT_EQ(none.rest, "");
    EXPECT_FALSE(file_exists(path("part.2")));

    const auto unfinished = run_stream("begin 644 z\r\n#0V%T\r\n", decode_stream);
    EXPECT_EQ(unfinished.result, 1);
    EXPECT_EQ(unfinished.output, "Cat");
}

// A write refused by the file-size limit (root ignores permissions, so a
// limit it is) fails the decoding and takes the partial target away, while
// an encoder keeps what it wrote. Run in a child so that the limit stays
// there.
TEST_F(UuencodeTest, FailedWriteRemovesTheDecodedTarget) {
    const std::string data = random_bytes(60000, 5);
    const std::string text = encode(data);
    write_file(path("big.uue"), text);
    write_file(path("big"), data);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rlimit limit{20000, 20000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
        char name[256];
        int bad = 0;
        if (uudecode(path("big.uue").c_str(), path("dec").c_str(), name) != 0 ||
            file_exists(path("dec")))
            bad |= 1;
        if (uuencode(path("big").c_str(), path("enc2").c_str(), "n") != -1 ||
            read_file(path("enc2")).empty())
            bad |= 2;
        ::_exit(bad);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: decoded target stayed, 2: encoder result";
}

} // namespace
