#include <cerrno>
#include <filesystem>
#include <optional>

#include <sys/stat.h>
#include <unistd.h>

#include "frame/platform.h"
#include "support/test_support.h"

namespace {

using tw::File;
using tw::OpenMode;
using tw_test::file_exists;
using tw_test::read_file;
using tw_test::write_file;

class PlatformTest : public tw_test::TempDirTest {};

// Sets an environment variable for one scope.
struct EnvGuard {
    EnvGuard(const char *n, const std::string &value) : name(n) {
        if (const char *v = std::getenv(n))
            old = v;
        ::setenv(n, value.c_str(), 1);
    }
    ~EnvGuard() { old ? ::setenv(name, old->c_str(), 1) : ::unsetenv(name); }
    const char *name;
    std::optional<std::string> old;
};

constexpr OpenMode kModes[] = {OpenMode::ReadShared, OpenMode::ReadExclusive,
                               OpenMode::WriteExisting, OpenMode::UpdateExisting, OpenMode::Create};

// flock locks belong to the open file description, so two opens in one
// process exclude each other as they would across processes.
TEST_F(PlatformTest, OnlyTwoReadSharedOpensCanMeetInOneProcess) {
    for (OpenMode held : kModes) {
        for (OpenMode second : kModes) {
            write_file(path("f"), "content");
            File first = File::open(path("f"), held);
            ASSERT_TRUE(first);
            const bool shared = held == OpenMode::ReadShared && second == OpenMode::ReadShared;
            EXPECT_EQ(File::open(path("f"), second).ok(), shared)
                << static_cast<int>(held) << " then " << static_cast<int>(second);
            EXPECT_EQ(read_file(path("f")), held == OpenMode::Create ? "" : "content")
                << "a refused open destroys nothing";
        }
    }
    EXPECT_TRUE(File::open(path("f"), OpenMode::ReadExclusive)) << "closing releases the lock";
}

TEST_F(PlatformTest, OpenModesOnMissingFilesDirectoriesAndSymlinks) {
    std::filesystem::create_directory(path("d"));
    for (OpenMode mode : kModes) {
        EXPECT_EQ(File::open(path("missing"), mode).ok(), mode == OpenMode::Create);
        EXPECT_EQ(file_exists(path("missing")), mode == OpenMode::Create);
        std::filesystem::remove(path("missing"));
        EXPECT_FALSE(File::open(path("d"), mode)) << "a directory is no file";
        write_file(path("f"), "abc");
        File(File::open(path("f"), mode)).write_all("X");
        const bool writes = mode != OpenMode::ReadShared && mode != OpenMode::ReadExclusive;
        EXPECT_EQ(read_file(path("f")), mode == OpenMode::Create ? "X" : writes ? "Xbc" : "abc");
    }
    EXPECT_FALSE(tw::Stream::open_read(path("d")));
    // A fixed-name work file never follows a planted link.
    std::filesystem::create_symlink(path("f"), path("work"));
    EXPECT_FALSE(File::open(path("work"), OpenMode::Create, true));
    EXPECT_FALSE(File::open(path("work"), OpenMode::UpdateExisting, true));
    EXPECT_EQ(read_file(path("f")), "X");
}

TEST_F(PlatformTest, RenameNeverReplacesAndTempFilesAreNew) {
    write_file(path("a"), "one");
    write_file(path("b"), "two");
    EXPECT_EQ(tw::rename_no_replace(path("a"), path("b")), EEXIST);
    EXPECT_EQ(read_file(path("a")) + read_file(path("b")), "onetwo");
    EXPECT_EQ(tw::rename_no_replace(path("a"), path("c")), 0);
    EXPECT_EQ(tw_test::list_dir(dir()), (std::vector<std::string>{"b", "c"}));

    const std::string first = tw::make_temp_file(dir()), second = tw::make_temp_file(dir());
    for (const std::string &t : {first, second})
        EXPECT_TRUE(t.starts_with(dir() + "$$$") && file_exists(t) && read_file(t).empty()) << t;
    EXPECT_NE(first, second);
    EXPECT_EQ(tw::make_temp_file(dir() + "nodir/"), "");
}

// Made 0700 and ours; anything else in its place is refused, never followed.
TEST_F(PlatformTest, PrivateTempDirectoryIsOursAndClosedToOthers) {
    const std::string name = "tarnwick-" + std::to_string(::geteuid());
    for (const char *base : {"tmp", "linked", "plain"})
        std::filesystem::create_directory(path(base));
    std::filesystem::create_directory_symlink(path("tmp"), path("linked/" + name));
    write_file(path("plain/" + name), "");
    for (const std::string base : {"tmp", "tmp", "linked", "plain"}) { // made, then taken again
        EnvGuard tmpdir("TMPDIR", path(base));
        EXPECT_EQ(tw::private_temp_directory(), base == "tmp" ? path("tmp/") + name + "/" : "");
    }
    struct stat st {};
    ASSERT_EQ(::lstat(path("tmp/" + name).c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode) && (st.st_mode & 0777) == 0700 && st.st_uid == ::geteuid());
}

TEST_F(PlatformTest, ApplicationDirectoryLiesInTheStateHome) {
    const std::string exe = std::filesystem::read_symlink("/proc/self/exe").filename().string();
    // The fixture points XDG_STATE_HOME at <dir>/state, which does not exist yet.
    ASSERT_EQ(tw::application_directory(), path("state/tarnwick/") + exe + "/");
    for (const std::string &d : {path("state/tarnwick"), path("state/tarnwick/") + exe}) {
        struct stat st {};
        EXPECT_TRUE(::lstat(d.c_str(), &st) == 0 && (st.st_mode & 0777) == 0700) << d;
    }
    // A relative XDG_STATE_HOME is no state home; HOME's default takes over.
    EnvGuard home("HOME", path("home")), state("XDG_STATE_HOME", "relative/state");
    EXPECT_EQ(tw::application_directory(), path("home/.local/state/tarnwick/") + exe + "/");
    EXPECT_FALSE(file_exists(path("relative")));
}

} // namespace
