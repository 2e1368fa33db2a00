#include <algorithm>
#include <filesystem>
#include <random>

#include <unistd.h>

#include "frame/frame.h"
#include "support/test_support.h"

namespace {

using tw_test::read_file;
using tw_test::write_file;

class FilesTest : public tw_test::TempDirTest {};

// Only the first name is resolved, and only one level; at the root ".." stays there.
TEST_F(FilesTest, FullPathResolvesDotFormsOneLevelDeep) {
    const std::pair<const char *, const char *> cases[] = {
        // C and P stand for the current directory and its parent, with a '/'.
        {"x.txt", "Cx.txt"}, {".", "C"}, {"..", "P"}, {"./", "C"}, {"./s/x", "Cs/x"},
        {"../x", "Px"}, {"../../x", "P../x"}, {".x/y", "Cy"}, {"..x/y", "Py"},
        {"/y/z", "/y/z"}, {"mail/inbox", "mail/inbox"},
    };
    const std::filesystem::path cwd = std::filesystem::current_path();
    for (const std::string &c : {cwd.string() + "/", std::string("/")}) {
        ASSERT_EQ(::chdir(c.c_str()), 0);
        const std::string p = c == "/" ? c : cwd.parent_path().string() + "/";
        for (const auto &[path, form] : cases) {
            std::string expected = form;
            if (form[0] == 'C' || form[0] == 'P')
                expected.replace(0, 1, form[0] == 'C' ? c : p);
            EXPECT_EQ(tw::mime_full_path(path), expected) << "\"" << path << "\" in " << c;
        }
    }
}

std::string pattern(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i)
        s += static_cast<char>('a' + i % 26);
    return s;
}

// 0x1A is judged per 2048-byte chunk counted from the offset, whatever the
// size of the reads behind it.
TEST_F(FilesTest, AppendFileDropsAnEofByteThatEndsA2048ByteChunk) {
    const struct {
        std::size_t size;
        std::vector<std::size_t> eof_at, dropped; // source positions
        long long offset;
    } cases[] = {
        {0, {}, {}, 0},
        {4096, {2047, 4095}, {2047, 4095}, 0},
        {4096, {0, 1000, 2048}, {}, 0},
        {3000, {2999}, {2999}, 0},
        {4096, {2047, 2057}, {2057}, 10},
        {70000, {65535, 65536, 67583}, {65535, 67583}, 0},
    };
    for (const auto &c : cases) {
        std::string source = pattern(c.size), expected = "HEAD";
        for (std::size_t p : c.eof_at)
            source[p] = '\x1a';
        for (std::size_t i = static_cast<std::size_t>(c.offset); i < source.size(); ++i)
            if (std::find(c.dropped.begin(), c.dropped.end(), i) == c.dropped.end())
                expected += source[i];
        write_file(path("src"), source);
        write_file(path("dst"), "HEAD");
        EXPECT_EQ(tw::mime_append_file(path("src"), path("dst"), c.offset), 1) << c.size;
        EXPECT_EQ(read_file(path("dst")), expected) << c.size << " from " << c.offset;
    }
    EXPECT_EQ(tw::mime_append_file(path("src"), path("missing"), 0), 0);
    EXPECT_FALSE(tw_test::file_exists(path("missing"))) << "the target is never created";
    EXPECT_EQ(tw::mime_append_file(path("nosrc"), path("dst"), 0), 0);
}

// A line is one read of a 1024-byte buffer: up to 1023 bytes or through LF.
TEST_F(FilesTest, CountLinesCountsReadsOfA1024ByteBuffer) {
    const struct {
        std::string content;
        long long offset; // -1: none
        int32_t lines;
    } cases[] = {
        {"", -1, 0}, {"a\r\n\nb", -1, 3}, {"abc\ndef\nghi\n", 4, 2}, {"abc\ndef\nghi\n", 6, 2},
        {std::string(1022, 'x') + "\n", -1, 1}, {std::string(1023, 'x') + "\n", -1, 2},
        {std::string(1023, 'x'), -1, 1},
    };
    for (const auto &c : cases) {
        write_file(path("f"), c.content);
        long long size = -5;
        EXPECT_EQ(tw::mime_count_lines(path("f"), &size, c.offset, c.offset >= 0), c.lines)
            << c.content.size() << " bytes from " << c.offset;
        EXPECT_EQ(size, static_cast<long long>(c.content.size())) << "the end, whatever the offset";
    }
    long long size = 77;
    EXPECT_EQ(tw::mime_count_lines(path("missing"), &size, 0, false), -1);
    EXPECT_EQ(size, 77);

    // Against plain fgets wherever lines and the counter's own blocks fall.
    std::mt19937 rng(7);
    std::string content;
    while (content.size() < 300000)
        content += std::string(rng() % 4 == 0 ? rng() % 3000 : rng() % 80, 'y') + "\n";
    write_file(path("f"), content + "tail");
    int32_t expected = 0;
    char line[1024];
    FILE *fp = std::fopen(path("f").c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    while (std::fgets(line, sizeof line, fp) != nullptr)
        ++expected;
    std::fclose(fp);
    EXPECT_EQ(tw::mime_count_lines(path("f"), &size, 0, false), expected);
}

// The file in 8126-byte pieces, then once with length 0; -1 from the sink,
// even to the closing call, fails the feed.
TEST_F(FilesTest, FeedFileChunksAt8126AndEndsWithALengthZeroCall) {
    const struct {
        std::size_t size;
        int32_t stop_at; // index of the call that answers -1
        std::vector<int32_t> lengths;
    } cases[] = {
        {0, -1, {0}}, {8126, -1, {8126, 0}}, {8127, -1, {8126, 1, 0}},
        {20000, 1, {8126, 8126}}, {20000, 3, {8126, 8126, 3748, 0}},
    };
    for (const auto &c : cases) {
        write_file(path("f"), pattern(c.size));
        std::vector<int32_t> lengths;
        std::string data;
        const int32_t result = tw::mime_feed_file(path("f"), [&](const char *d, int32_t n) {
            lengths.push_back(n);
            data.append(d, static_cast<std::size_t>(n));
            EXPECT_TRUE(n > 0 || (d != nullptr && d[0] == '\0')) << "the closing text is empty";
            return static_cast<int32_t>(lengths.size()) - 1 == c.stop_at ? -1 : 1;
        });
        EXPECT_EQ(result, c.stop_at < 0 ? 1 : 0) << c.size;
        EXPECT_EQ(lengths, c.lengths) << c.size;
        EXPECT_EQ(data, pattern(c.size).substr(0, data.size()));
    }
    EXPECT_EQ(tw::mime_feed_file(path("missing"), [](const char *, int32_t) { return 1; }), 0);
}

TEST(FilesText, UuBeginWantsThreeOctalDigitsAsTheSecondWord) {
    const std::pair<const char *, int32_t> cases[] = {
        {"begin 644 file.txt", 1}, {"begin  755  x", 1}, {"anything 600 x", 1}, {"begin 644", 1},
        {"begin 800 x", 0},        {"begin 0644 x", 0},  {"begin 64 x", 0},
        {"begin 644\r\n", 0}, // the line end belongs to the mode word
    };
    for (const auto &[line, expected] : cases)
        EXPECT_EQ(tw::mime_is_uu_begin(line), expected) << line;
}

TEST(FilesText, ConfinedFileNamesStayInsideTheirDirectory) {
    const std::pair<std::string, std::string> cases[] = {
        {"a.gif", "a.gif"}, {"../../x", "x"}, {"/etc/passwd", "passwd"}, {"C:\\x\\y.gif", "y.gif"},
        {"dir/", ""},       {"..", ""},       {"x/.", ""},               {"tab\there\x7f", "tab_here_"},
        {std::string(300, 'n'), std::string(255, 'n')},
    };
    for (const auto &[name, expected] : cases)
        EXPECT_EQ(tw::mime_confine_file_name(name), expected) << name;
}

} // namespace
