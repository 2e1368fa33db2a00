#include "streaming/session.h"

#include <cstring>

#include <sys/stat.h>

#include "support/test_support.h"

namespace {

using tw_test::file_exists;
using tw_test::read_file;

int32_t header_cb(mime_part_desc *, const char *, int32_t, intptr_t) { return 0; }
int32_t body_cb(const char *, int32_t, int32_t *, intptr_t) { return 0; }
int32_t address_cb(mime_address_lists *, intptr_t) { return 0; }

class SessionTest : public tw_test::TempDirTest {
protected:
    int32_t start(const char *directory) {
        return mime_extract_start(header_cb, body_cb, address_cb, directory, 7);
    }
    // Ends a session the way an end call does, so tests leave nothing open.
    void end(int32_t handle) { tw::mime_destroy_session(nullptr, tw::session_detach(handle)); }
    std::string spool_of(int32_t handle) { return tw::session_find(handle)->spool_path; }
};

TEST_F(SessionTest, DirectoryRules) {
    ASSERT_EQ(::mkdir("mail", 0700), 0);
    struct Case {
        const char *directory;
        bool accepted;
        const char *expected_suffix; // of the session's directory
    } cases[] = {
        {"mail", false, ""},   // a bare name fails although the directory exists
        {"./mail", true, "/mail/"},
        {"missing/x", false, ""},
        {"", false, ""},
        {".", true, "/"},
        {"..", true, "/"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.directory);
        const auto before = tw_test::list_dir(dir());
        int32_t handle = start(c.directory);
        EXPECT_EQ(handle != 0, c.accepted);
        if (handle == 0) {
            EXPECT_EQ(tw_test::list_dir(dir()), before) << "a refused start leaves no file";
            continue;
        }
        const std::string &d = tw::session_find(handle)->directory;
        EXPECT_EQ(d.back(), '/');
        EXPECT_EQ(d.substr(d.size() - std::strlen(c.expected_suffix)), c.expected_suffix);
        EXPECT_EQ(tw::session_find(handle)->delivery_mode, tw::kDeliverPath);
        end(handle);
    }
    // With and without the closing separator the session works in one place.
    int32_t a = start((dir() + "mail").c_str());
    int32_t b = start((dir() + "mail/").c_str());
    ASSERT_NE(a, 0);
    ASSERT_NE(b, 0);
    EXPECT_EQ(tw::session_find(a)->directory, tw::session_find(b)->directory);
    EXPECT_EQ(tw::session_find(a)->directory, dir() + "mail/");
    end(a);
    end(b);
}

TEST_F(SessionTest, RefusesWhatCannotBeHeld) {
    EXPECT_EQ(mime_extract_start(nullptr, body_cb, address_cb, ".", 0), 0);
    EXPECT_EQ(mime_extract_start(header_cb, body_cb, nullptr, ".", 0), 0);
    std::string long_dir = "./" + std::string(1100, 'd');
    EXPECT_EQ(start(long_dir.c_str()), 0);
}

TEST_F(SessionTest, SpoolsBytesAndClosesTwice) {
    int32_t handle = start(".");
    ASSERT_NE(handle, 0);
    const std::string spool = spool_of(handle);
    EXPECT_EQ(spool.substr(spool.rfind('/') + 1, 3), "$$$");
    const char data[] = "ab\0cd";
    EXPECT_EQ(mime_extract_data(handle, data, 5, 0), 1);
    EXPECT_EQ(mime_extract_data(handle, "ef", 2, 0), 1);
    EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
    EXPECT_EQ(mime_extract_data(handle, nullptr, -4, 0), 1) << "closing twice is accepted";
    EXPECT_EQ(read_file(spool), std::string("ab\0cdef", 7));
    end(handle);
    EXPECT_FALSE(file_exists(spool));
}

TEST_F(SessionTest, FeedingAfterTheEndOfInputDestroysTheSession) {
    struct Case {
        const char *name;
        bool path_form;
    } cases[] = {{"after close", false}, {"after path form", true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        tw_test::write_file(path("app.eml"), "message");
        int32_t handle = start(".");
        ASSERT_NE(handle, 0);
        const std::string spool = spool_of(handle);
        if (c.path_form)
            EXPECT_EQ(mime_extract_data(handle, "app.eml", 7, 1), 1);
        else
            EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
        EXPECT_EQ(mime_extract_data(handle, "x", 1, 0), MIME_FEED_ERROR);
        EXPECT_EQ(mime_extract_data(handle, "x", 1, 0), MIME_NO_SESSION);
        EXPECT_FALSE(file_exists(spool));
        EXPECT_EQ(read_file(path("app.eml")), "message") << "the application's file stays";
    }
}

TEST_F(SessionTest, PathFormReplacesWhatWasSpooled) {
    int32_t handle = start(".");
    ASSERT_NE(handle, 0);
    const std::string spool = spool_of(handle);
    EXPECT_EQ(mime_extract_data(handle, "data", 4, 0), 1);
    // Only `length` bytes name the file, whatever follows in memory.
    const char name[] = "first.emlTRAILING";
    EXPECT_EQ(mime_extract_data(handle, name, 9, 1), 1);
    EXPECT_FALSE(file_exists(spool));
    EXPECT_EQ(spool_of(handle), "first.eml");
    EXPECT_FALSE(tw::session_find(handle)->spool_owned);
    EXPECT_EQ(mime_extract_data(handle, "second.eml", 10, 1), 1);
    EXPECT_EQ(spool_of(handle), "second.eml");
    EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
    std::string too_long(1024, 'p');
    EXPECT_EQ(mime_extract_data(handle, too_long.data(), 1024, 1), MIME_FEED_ERROR);
    EXPECT_EQ(tw::session_find(handle), nullptr);
}

TEST_F(SessionTest, StaleAndForgedHandlesFindNothing) {
    EXPECT_EQ(mime_extract_data(0, "x", 1, 0), MIME_NO_SESSION);
    int32_t first = start(".");
    ASSERT_NE(first, 0);
    end(first);
    int32_t second = start("."); // may reuse the slot of the first
    ASSERT_NE(second, 0);
    EXPECT_NE(second, first);
    const std::string spool = spool_of(second);
    for (int32_t forged : {first, second + 1, second ^ 0x10000, -second, 0x7FFFFFFF}) {
        SCOPED_TRACE(forged);
        EXPECT_EQ(mime_extract_data(forged, "x", 1, 0), MIME_NO_SESSION);
    }
    EXPECT_EQ(read_file(spool), "") << "a forged handle changes nothing";
    end(second);
}

TEST_F(SessionTest, WithoutDirectoryWorksInThePrivateTemporaryDirectory) {
    int32_t handle = start(nullptr);
    ASSERT_NE(handle, 0);
    const tw::mime_extract_session &s = *tw::session_find(handle);
    EXPECT_EQ(s.delivery_mode, tw::kDeliverBytes);
    EXPECT_EQ(s.directory, tw::private_temp_directory());
    struct stat st {};
    ASSERT_EQ(::lstat(s.directory.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(s.user_value, 7);
    end(handle);
}

} // namespace
