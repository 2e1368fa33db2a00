#include "streaming/session.h"

#include <sys/stat.h>

#include "support/test_support.h"

namespace {

using tw_test::read_file;

int32_t header_cb(mime_part_desc *, const char *, int32_t, intptr_t) { return 0; }
int32_t body_cb(const char *, int32_t, int32_t *, intptr_t) { return 0; }
int32_t address_cb(mime_address_lists *, intptr_t) { return 0; }

int32_t start(const char *directory) {
    return mime_extract_start(header_cb, body_cb, address_cb, directory, 7);
}
int32_t feed(int32_t handle, std::string_view data, int32_t is_path = 0) {
    return mime_extract_data(handle, data.data(), static_cast<int32_t>(data.size()), is_path);
}
std::string spool_of(int32_t handle) { return tw::session_find(handle)->spool_path; }

using SessionTest = tw_test::TempDirTest;

TEST_F(SessionTest, DirectoryRules) {
    ASSERT_EQ(::mkdir("mail", 0700), 0);
    const std::string parent = dir().substr(0, dir().rfind('/', dir().size() - 2) + 1);
    const std::string absolute = dir() + "mail", too_long = "./" + std::string(1100, 'd');
    const std::pair<const char *, std::string> cases[] = { // directory, the session's; "": none
        {"mail", ""}, // a bare name is refused although the directory exists
        {"./mail", dir() + "mail/"}, {absolute.c_str(), dir() + "mail/"},
        {"missing/x", ""}, {"", ""}, {".", dir()}, {"..", parent}, {too_long.c_str(), ""},
        {nullptr, tw::private_temp_directory()},
    };
    for (const auto &[directory, expected] : cases) {
        SCOPED_TRACE(directory ? directory : "(none)");
        int32_t handle = start(directory);
        ASSERT_EQ(handle != 0, !expected.empty());
        if (handle == 0)
            continue;
        const tw::mime_extract_session &s = *tw::session_find(handle);
        EXPECT_EQ(s.directory, expected);
        EXPECT_EQ(s.delivery_mode, directory ? tw::kDeliverPath : tw::kDeliverBytes);
        EXPECT_EQ(s.user_value, 7);
        struct stat st {};
        EXPECT_TRUE(directory || (::lstat(s.directory.c_str(), &st) == 0 &&
                                  (st.st_mode & 0777) == 0700)) << "the private one is ours alone";
        tw::mime_destroy_session(nullptr, tw::session_detach(handle));
    }
    EXPECT_EQ(tw_test::list_dir(dir()), std::vector<std::string>{"mail"}) << "no file stays";
    EXPECT_EQ(mime_extract_start(nullptr, body_cb, address_cb, ".", 0), 0);
    EXPECT_EQ(mime_extract_start(header_cb, body_cb, nullptr, ".", 0), 0);
}

TEST_F(SessionTest, SpoolPathFormAndHandles) {
    tw_test::write_file("app.eml", "message");
    int32_t first = start(".");
    const std::string spool = spool_of(first);
    EXPECT_EQ(spool.substr(spool.rfind('/') + 1, 3), "$$$");
    EXPECT_EQ(feed(first, std::string_view("ab\0cd", 5)), 1);
    EXPECT_EQ(feed(first, "ef"), 1);
    EXPECT_EQ(feed(first, ""), 1);
    EXPECT_EQ(mime_extract_data(first, nullptr, -4, 0), 1) << "closing twice is accepted";
    EXPECT_EQ(read_file(spool), std::string("ab\0cdef", 7));
    // Feeding after the close ends the session, spool and all.
    EXPECT_EQ(feed(first, "x"), MIME_FEED_ERROR);
    EXPECT_EQ(feed(first, "x"), MIME_NO_SESSION);

    int32_t second = start("."); // may reuse the slot of the first
    const std::string second_spool = spool_of(second);
    for (int32_t forged : {0, first, second + 1, second ^ 0x10000, -second, 0x7FFFFFFF})
        EXPECT_EQ(feed(forged, "x"), MIME_NO_SESSION) << forged;
    EXPECT_EQ(read_file(second_spool), "") << "a forged handle changes nothing";
    // A path after data replaces the spool; only `length` bytes name the file.
    EXPECT_EQ(feed(second, "data"), 1);
    EXPECT_EQ(feed(second, std::string_view("app.emlTRAILING", 7), 1), 1);
    EXPECT_EQ(spool_of(second), "app.eml");
    EXPECT_FALSE(tw::session_find(second)->spool_owned);
    const std::string longest(1023, 'p');
    EXPECT_EQ(feed(second, longest, 1), 1);
    EXPECT_EQ(spool_of(second), longest);
    EXPECT_EQ(feed(second, "app.eml", 1), 1);
    // Feeding after the path form ends the session, but not the application's file.
    EXPECT_EQ(feed(second, "x"), MIME_FEED_ERROR);
    EXPECT_EQ(feed(second, "x"), MIME_NO_SESSION);
    const int32_t third = start(".");
    EXPECT_EQ(feed(third, longest + "p", 1), MIME_FEED_ERROR);
    EXPECT_EQ(feed(third, "x"), MIME_NO_SESSION);
    EXPECT_EQ(tw_test::list_dir(dir()), std::vector<std::string>{"app.eml"}) << "no spool stays";
    EXPECT_EQ(read_file("app.eml"), "message");
}

} // namespace
