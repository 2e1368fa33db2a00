#include "directory/directory.h"

#include <filesystem>

#include "support/test_support.h"

namespace {

using tw_test::write_file;

class NumberedFilesTest : public tw_test::TempDirTest {};

TEST_F(NumberedFilesTest, LowestFreeNumberByKind) {
    struct Case {
        const char *name;
        std::vector<std::string> existing;
        bool want_uue;
        std::string expected;
    } cases[] = {
        {"empty", {}, false, "00000001.TXT"},
        {"header takes its number", {"00000001.HDR"}, false, "00000002.TXT"},
        {"any extension or none", {"00000001.HDR", "00000002", "00000003.x.y"}, false,
         "00000004.TXT"},
        {"gaps are reused", {"00000001.HDR", "00000003.TXT"}, false, "00000002.TXT"},
        {"not the exact form", {"0000001.TXT", "000000001.TXT", "00000001a.TXT"}, false,
         "00000001.TXT"},
        {"uue ignores other extensions", {"00000001.HDR", "00000002.TXT"}, true,
         "00000001.UUE"},
        {"uue counts ATF and UUE", {"00000001.ATF", "00000002.UUE"}, true, "00000003.UUE"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string sub = dir() + c.name + "/";
        std::filesystem::create_directory(sub);
        for (const std::string &name : c.existing)
            write_file(sub + name, "x");
        std::string path = sub;
        const unsigned long n = tw::mime_next_numbered_file(path, c.want_uue);
        EXPECT_EQ(path, sub + c.expected);
        EXPECT_EQ(tw::numbered_name(n), c.expected.substr(0, 8));
        EXPECT_EQ(tw_test::read_file(path), "") << "created empty";
    }
}

TEST_F(NumberedFilesTest, NumbersBeyondEightDigitsAndSuccessiveCalls) {
    EXPECT_EQ(tw::numbered_name(123456789), "123456789");
    std::string first = dir();
    std::string second = dir();
    EXPECT_EQ(tw::mime_next_numbered_file(first, false), 1u);
    EXPECT_EQ(tw::mime_next_numbered_file(second, false), 2u);
}

TEST_F(NumberedFilesTest, GivesUpWhenNothingCanBeCreated) {
    std::string path = dir() + "missing/";
    EXPECT_EQ(tw::mime_next_numbered_file(path, false), 0u);
    EXPECT_EQ(path, dir() + "missing/");
}

TEST_F(NumberedFilesTest, OneExtractionsViewFollowsItsOwnChanges) {
    write_file(dir() + "00000001.HDR", "");
    write_file(dir() + "00000003.TXT", "");
    tw::NumberedNames names;
    std::string path;
    tw::File file;
    auto numbered = [&](bool want_uue) {
        file.close();
        names.create_numbered(dir(), want_uue, path, file);
        return path.substr(dir().size());
    };
    ASSERT_TRUE(names.create_header(dir(), 1, path, file));
    EXPECT_EQ(path, dir() + "00000002.HDR") << "only .HDR names count";
    EXPECT_EQ(numbered(false), "00000004.TXT");
    EXPECT_EQ(numbered(true), "00000001.UUE");

    // What the extraction renames or removes gives its number back.
    ASSERT_EQ(tw::rename_no_replace(dir() + "00000004.TXT", dir() + "x.gif"), 0);
    names.renamed(dir() + "00000004.TXT", dir() + "x.gif");
    EXPECT_EQ(numbered(false), "00000004.TXT");
    ASSERT_EQ(tw::rename_no_replace(dir() + "00000001.UUE", dir() + "00000001.gif"), 0);
    names.renamed(dir() + "00000001.UUE", dir() + "00000001.gif");
    EXPECT_EQ(numbered(true), "00000001.UUE");
    tw::remove_file(dir() + "00000003.TXT");
    names.removed(dir() + "00000003.TXT");
    EXPECT_EQ(numbered(false), "00000003.TXT");

    // A file that another program made meanwhile is stepped over.
    write_file(dir() + "00000005.TXT", "theirs");
    EXPECT_EQ(numbered(false), "00000006.TXT");
    EXPECT_EQ(tw_test::read_file(dir() + "00000005.TXT"), "theirs");
}

} // namespace
