// The path and file helpers every subsystem goes through.
#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "frame/frame.h"
#include "support/test_support.h"

namespace {

using tw_test::read_file;
using tw_test::write_file;

class FilesTest : public tw_test::TempDirTest {};

// ---- mime_full_path ---------------------------------------------------------------

enum class Base { Current, Parent, None };

struct FullPathCase {
    const char *path;
    Base base;
    const char *rest;
};

TEST_F(FilesTest, FullPathResolvesOneLevelAgainstTheCurrentDirectory) {
    const std::filesystem::path cwd = std::filesystem::current_path();
    const std::string current = cwd.string() + "/";
    const std::string parent = cwd.parent_path().string() + "/";
    const FullPathCase cases[] = {
        {"message.txt", Base::Current, "message.txt"},
        {".", Base::Current, ""},
        {"..", Base::Parent, ""},
        {"./", Base::Current, ""},
        {"./sub/x.txt", Base::Current, "sub/x.txt"},
        {"../x.txt", Base::Parent, "x.txt"},
        {"../../x", Base::Parent, "../x"},
        {".x/y", Base::Current, "y"},
        {"..x/y", Base::Parent, "y"},
        {"/y/z.txt", Base::None, "/y/z.txt"},
        {"mail/inbox", Base::None, "mail/inbox"},
    };
    for (const auto &c : cases) {
        std::string expected = c.base == Base::Current  ? current
                               : c.base == Base::Parent ? parent
                                                        : std::string();
        expected += c.rest;
        EXPECT_EQ(tw::mime_full_path(c.path), expected) << "path \"" << c.path << "\"";
    }
}

TEST_F(FilesTest, FullPathAtTheRootNeverGoesAboveIt) {
    ASSERT_EQ(::chdir("/"), 0);
    const std::pair<const char *, const char *> cases[] = {
        {".", "/"}, {"..", "/"}, {"x", "/x"}, {"../x", "/x"}, {"./x", "/x"}, {"..x/y", "/y"},
    };
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(tw::mime_full_path(path), expected) << "path \"" << path << "\"";
}

// ---- mime_append_file -------------------------------------------------------------

std::string pattern(std::size_t n) {
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>('a' + i % 26);
    return s;
}

TEST_F(FilesTest, AppendFileDropsAnEofByteThatEndsA2048ByteChunk) {
    const struct {
        const char *what;
        std::size_t size;
        std::vector<std::size_t> eof_at; // where the source holds 0x1A
        long long offset;
        std::vector<std::size_t> dropped; // source positions that must not arrive
    } cases[] = {
        {"empty source", 0, {}, 0, {}},
        {"last byte of exactly 2048", 2048, {2047}, 0, {2047}},
        {"2048th byte of 4096", 4096, {2047}, 0, {2047}},
        {"both chunk ends", 4096, {2047, 4095}, 0, {2047, 4095}},
        {"start of a chunk and the middle stay", 4096, {0, 1000, 2048}, 0, {}},
        {"end of a short last chunk", 3000, {2999}, 0, {2999}},
        {"chunks counted from the offset", 4096, {2047, 2057}, 10, {2057}},
        {"chunk ends beyond 64 KiB", 70000, {65535, 65536, 67583}, 0, {65535, 67583}},
    };
    for (const auto &c : cases) {
        std::string source = pattern(c.size);
        for (std::size_t p : c.eof_at)
            source[p] = '\x1a';
        std::string expected = "HEAD";
        for (std::size_t i = static_cast<std::size_t>(c.offset); i < source.size(); ++i)
            if (std::find(c.dropped.begin(), c.dropped.end(), i) == c.dropped.end())
                expected += source[i];
        write_file(path("src"), source);
        write_file(path("dst"), "HEAD");
        EXPECT_EQ(tw::mime_append_file(path("src"), path("dst"), c.offset), 1) << c.what;
        EXPECT_EQ(read_file(path("dst")), expected) << c.what;
    }
}

TEST_F(FilesTest, AppendFileNeedsBothFilesAndCreatesNothing) {
    write_file(path("src"), "data");
    EXPECT_EQ(tw::mime_append_file(path("src"), path("missing"), 0), 0);
    EXPECT_FALSE(tw_test::file_exists(path("missing")));

    write_file(path("dst"), "keep");
    EXPECT_EQ(tw::mime_append_file(path("nosrc"), path("dst"), 0), 0);
    EXPECT_EQ(read_file(path("dst")), "keep");
}

// ---- mime_count_lines -------------------------------------------------------------

TEST_F(FilesTest, CountLinesCountsReadsOfA1024ByteBuffer) {
    const std::string x1022(1022, 'x'), x1023(1023, 'x'), x2046(2046, 'x');
    const struct {
        const char *what;
        std::string content;
        int32_t lines;
    } cases[] = {
        {"empty", "", 0},
        {"last line without LF", "a\r\n\nb", 3},
        {"1022 bytes and LF fit one read", x1022 + "\n", 1},
        {"1023 bytes and LF take two", x1023 + "\n", 2},
        {"1023 bytes without LF", x1023, 1},
        {"1024 bytes without LF", x1023 + "x", 2},
        {"2046 bytes and LF take three", x2046 + "\n", 3},
    };
    for (const auto &c : cases) {
        write_file(path("f"), c.content);
        long long size = -5;
        EXPECT_EQ(tw::mime_count_lines(path("f"), &size, 0, false), c.lines) << c.what;
        EXPECT_EQ(size, static_cast<long long>(c.content.size())) << c.what;
    }
}

TEST_F(FilesTest, CountLinesFromAnOffsetStillReportsTheFileSize) {
    write_file(path("f"), "abc\ndef\nghi\n");
    long long size = 0;
    EXPECT_EQ(tw::mime_count_lines(path("f"), &size, 4, true), 2);
    EXPECT_EQ(size, 12);
    EXPECT_EQ(tw::mime_count_lines(path("f"), &size, 4, false), 3) << "offset unused";
    EXPECT_EQ(tw::mime_count_lines(path("f"), &size, 6, true), 2) << "mid-line start";

    size = 77;
    EXPECT_EQ(tw::mime_count_lines(path("missing"), &size, 0, false), -1);
    EXPECT_EQ(size, 77) << "size left alone on failure";
}

// The count must agree with plain fgets reads wherever lines and the
// reader's internal blocks happen to fall.
TEST_F(FilesTest, CountLinesAgreesWithFgetsOnMixedLongLines) {
    std::mt19937 rng(7);
    std::string content;
    while (content.size() < 300000) {
        std::size_t len = rng() % 4 == 0 ? rng() % 3000 : rng() % 80;
        content += std::string(len, 'y') + (rng() % 2 ? "\r\n" : "\n");
    }
    content += "tail";
    write_file(path("f"), content);

    int32_t expected = 0;
    FILE *fp = std::fopen(path("f").c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    char line[1024];
    while (std::fgets(line, sizeof line, fp) != nullptr)
        ++expected;
    std::fclose(fp);

    long long size = 0;
    EXPECT_EQ(tw::mime_count_lines(path("f"), &size, 0, false), expected);
    EXPECT_EQ(size, static_cast<long long>(content.size()));
}

// ---- mime_feed_file ---------------------------------------------------------------

struct FeedLog {
    std::vector<int32_t> lengths;
    std::string data;
    int32_t stop_at = -1; // index of the call that answers -1
    bool last_data_was_empty_string = false;

    tw::FeedSink sink() {
        return [this](const char *d, int32_t n) -> int32_t {
            lengths.push_back(n);
            data.append(d, static_cast<std::size_t>(n));
            last_data_was_empty_string = n == 0 && d != nullptr && d[0] == '\0';
            return static_cast<int32_t>(lengths.size()) - 1 == stop_at ? -1 : 1;
        };
    }
};

TEST_F(FilesTest, FeedFileChunksAt8126AndEndsWithALengthZeroCall) {
    const struct {
        std::size_t size;
        std::vector<int32_t> lengths;
    } cases[] = {
        {0, {0}},
        {1, {1, 0}},
        {8126, {8126, 0}},
        {8127, {8126, 1, 0}},
        {16252, {8126, 8126, 0}},
    };
    for (const auto &c : cases) {
        const std::string content = pattern(c.size);
        write_file(path("f"), content);
        FeedLog log;
        EXPECT_EQ(tw::mime_feed_file(path("f"), log.sink()), 1) << c.size;
        EXPECT_EQ(log.lengths, c.lengths) << c.size;
        EXPECT_EQ(log.data, content) << c.size;
        EXPECT_TRUE(log.last_data_was_empty_string) << c.size;
    }
}

TEST_F(FilesTest, FeedFileStopsOnMinusOneAndFailsWithoutAFile) {
    write_file(path("f"), pattern(20000));
    const struct {
        int32_t stop_at;
        std::vector<int32_t> lengths;
    } cases[] = {
        {0, {8126}},
        {1, {8126, 8126}},
        {3, {8126, 8126, 3748, 0}}, // -1 to the length-0 call fails too
    };
    for (const auto &c : cases) {
        FeedLog log;
        log.stop_at = c.stop_at;
        EXPECT_EQ(tw::mime_feed_file(path("f"), log.sink()), 0) << c.stop_at;
        EXPECT_EQ(log.lengths, c.lengths) << c.stop_at;
    }

    FeedLog log;
    EXPECT_EQ(tw::mime_feed_file(path("missing"), log.sink()), 0);
    EXPECT_TRUE(log.lengths.empty());
}

// ---- mime_is_uu_begin ----------------------------------------------------------------

TEST(FilesUuBegin, SecondWordMustBeThreeOctalDigits) {
    const std::pair<const char *, int32_t> cases[] = {
        {"begin 644 file.txt", 1},
        {"begin 000 x\r\n", 1},
        {"begin  755  x", 1},    // runs of blanks are one separator
        {"anything 600 x", 1},   // the first word is the caller's business
        {"begin 644", 1},
        {"begin 999 x", 0},
        {"begin 800 x", 0},
        {"begin 0644 x", 0},
        {"begin 64 x", 0},
        {"begin 644\r\n", 0},    // the line end belongs to the mode word
        {"begin ", 0},
    };
    for (const auto &[line, expected] : cases)
        EXPECT_EQ(tw::mime_is_uu_begin(line), expected) << "line \"" << line << "\"";
}

} // namespace

namespace {

TEST(ConfineFileName, KeepsNamesInsideTheirDirectory) {
    struct Case {
        std::string name;
        std::string expected;
    } cases[] = {
        {"a.gif", "a.gif"},
        {"../../x", "x"},
        {"/etc/passwd", "passwd"},
        {"a/b", "b"},
        {"C:\\x\\y.gif", "y.gif"},
        {"dir/", ""},
        {"..", ""},
        {"x/.", ""},
        {"tab\there\x7f", "tab_here_"},
        {std::string(300, 'n'), std::string(255, 'n')},
        {"", ""},
    };
    for (const Case &c : cases)
        EXPECT_EQ(tw::mime_confine_file_name(c.name), c.expected) << c.name;
}

} // namespace
