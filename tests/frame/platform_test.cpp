// The platform layer: opens and their locks, streams, temporary files, the
// rename that never replaces, and the directories the library works in.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

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

// Sets an environment variable for one scope and puts the old value back.
class EnvGuard {
public:
    EnvGuard(const char *name, const std::string &value) : name_(name) {
        if (const char *old = std::getenv(name))
            old_ = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~EnvGuard() {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }

private:
    const char *name_;
    std::optional<std::string> old_;
};

constexpr OpenMode kModes[] = {OpenMode::ReadShared, OpenMode::ReadExclusive,
                               OpenMode::WriteExisting, OpenMode::UpdateExisting,
                               OpenMode::Create};
const char *name_of(OpenMode mode) {
    static const char *const names[] = {"read shared", "read exclusive", "write existing",
                                        "update existing", "create"};
    return names[static_cast<int>(mode)];
}

TEST_F(PlatformTest, OnlyTwoReadSharedOpensCanMeetInOneProcess) {
    for (OpenMode held : kModes) {
        for (OpenMode second : kModes) {
            write_file(path("f"), "content");
            File first = File::open(path("f"), held);
            ASSERT_TRUE(first) << name_of(held);
            const bool expected = held == OpenMode::ReadShared && second == OpenMode::ReadShared;
            File other = File::open(path("f"), second);
            EXPECT_EQ(other.ok(), expected) << name_of(held) << " then " << name_of(second);
            other.close();
            if (held != OpenMode::Create) {
                EXPECT_EQ(read_file(path("f")), "content")
                    << "a refused open destroys nothing: " << name_of(held) << " then "
                    << name_of(second);
            }
        }
    }
    File again = File::open(path("f"), OpenMode::ReadExclusive);
    EXPECT_TRUE(again) << "closing releases the lock";
}

TEST_F(PlatformTest, OpenModesOnMissingAndExistingFiles) {
    for (OpenMode mode : kModes) {
        File f = File::open(path("missing"), mode);
        EXPECT_EQ(f.ok(), mode == OpenMode::Create) << name_of(mode);
        f.close();
        if (mode != OpenMode::Create) {
            EXPECT_FALSE(file_exists(path("missing"))) << name_of(mode);
        } else {
            EXPECT_EQ(read_file(path("missing")), "");
        }
        std::filesystem::remove(path("missing"));
    }

    // Existing content stays and writing starts at position 0.
    for (OpenMode mode : {OpenMode::WriteExisting, OpenMode::UpdateExisting}) {
        write_file(path("f"), "abc");
        File f = File::open(path("f"), mode);
        ASSERT_TRUE(f) << name_of(mode);
        EXPECT_TRUE(f.write_all("X"));
        f.close();
        EXPECT_EQ(read_file(path("f")), "Xbc") << name_of(mode);
    }

    // A directory is no file to read or write: every mode refuses it, as the
    // write modes do by themselves.
    std::filesystem::create_directory(path("d"));
    for (OpenMode mode : kModes)
        EXPECT_FALSE(File::open(path("d"), mode)) << name_of(mode) << " on a directory";
    EXPECT_FALSE(tw::Stream::open_read(path("d")));

    write_file(path("f"), "abc");
    File created = File::open(path("f"), OpenMode::Create);
    ASSERT_TRUE(created);
    EXPECT_EQ(created.size(), 0) << "create empties an existing file";
}

TEST_F(PlatformTest, NoFollowRefusesAPlantedSymlink) {
    write_file(path("victim"), "safe");
    std::filesystem::create_symlink(path("victim"), path("work"));
    EXPECT_FALSE(File::open(path("work"), OpenMode::Create, true));
    EXPECT_FALSE(File::open(path("work"), OpenMode::UpdateExisting, true));
    EXPECT_EQ(read_file(path("victim")), "safe");
}

TEST_F(PlatformTest, RenameNeverReplacesAnExistingTarget) {
    write_file(path("a"), "one");
    write_file(path("b"), "two");
    EXPECT_EQ(tw::rename_no_replace(path("a"), path("b")), EEXIST);
    EXPECT_EQ(read_file(path("a")), "one");
    EXPECT_EQ(read_file(path("b")), "two");

    EXPECT_EQ(tw::rename_no_replace(path("a"), path("c")), 0);
    EXPECT_FALSE(file_exists(path("a")));
    EXPECT_EQ(read_file(path("c")), "one");
}

TEST_F(PlatformTest, TempFilesAreNewEmptyAndCarryThePrefix) {
    const std::string first = tw::make_temp_file(dir());
    const std::string second = tw::make_temp_file(dir());
    for (const std::string &t : {first, second}) {
        ASSERT_EQ(t.rfind(dir() + "$$$", 0), 0u) << t;
        EXPECT_GT(t.size(), (dir() + "$$$").size()) << t;
        EXPECT_TRUE(file_exists(t));
        EXPECT_EQ(read_file(t), "");
    }
    EXPECT_NE(first, second);
    EXPECT_EQ(tw::make_temp_file(dir() + "nodir/"), "");
}

TEST_F(PlatformTest, PrivateTempDirectoryIsOursAndClosedToOthers) {
    const std::string name = "tarnwick-" + std::to_string(::geteuid());
    for (const char *base : {"tmp", "linked", "plain"})
        std::filesystem::create_directory(path(base));
    {
        EnvGuard tmpdir("TMPDIR", path("tmp"));
        const std::string expected = path("tmp/") + name + "/";
        ASSERT_EQ(tw::private_temp_directory(), expected);
        struct stat st {};
        ASSERT_EQ(::lstat(expected.c_str(), &st), 0);
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0700u);
        EXPECT_EQ(st.st_uid, ::geteuid());
        EXPECT_EQ(tw::private_temp_directory(), expected) << "an existing one is taken again";
    }
    // Something else in its place is refused, never followed or replaced.
    std::filesystem::create_directory_symlink(path("tmp"), path("linked/" + name));
    write_file(path("plain/" + name), "");
    for (const char *base : {"linked", "plain"}) {
        EnvGuard tmpdir("TMPDIR", path(base));
        EXPECT_EQ(tw::private_temp_directory(), "") << base;
    }
}

TEST_F(PlatformTest, ApplicationDirectoryLiesInTheStateHome) {
    const std::string exe = std::filesystem::read_symlink("/proc/self/exe").filename().string();
    // The fixture points XDG_STATE_HOME at <dir>/state, which does not exist yet.
    const std::string expected = path("state/tarnwick/") + exe + "/";
    ASSERT_EQ(tw::application_directory(), expected);
    for (const std::string &d : {path("state/tarnwick"), expected}) {
        struct stat st {};
        ASSERT_EQ(::lstat(d.c_str(), &st), 0) << d;
        EXPECT_EQ(st.st_mode & 0777, 0700u) << d;
    }

    // A relative XDG_STATE_HOME is no state home; HOME's default takes over.
    EnvGuard home("HOME", path("home"));
    EnvGuard state("XDG_STATE_HOME", "relative/state");
    EXPECT_EQ(tw::application_directory(), path("home/.local/state/tarnwick/") + exe + "/");
    EXPECT_FALSE(file_exists(path("relative")));
}

} // namespace
