// mime_options and the run state it reports from. The state is one per
// process and shared with every other test, so each test sets what it reads
// first and leaves the state as it was at load.
#include <cstring>
#include <regex>
#include <string>

#include "frame/frame.h"
#include "support/test_support.h"

namespace {

using tw_test::read_file;

class OptionsTest : public tw_test::TempDirTest {
protected:
    // Back to the state at load, so no other test sees what these set.
    void TearDown() override {
        tw::mime_run_state &rs = tw::run_state();
        rs.user_option = rs.directory_extraction_ran = rs.message_is_mime = 0;
        rs.transfer_encoding = rs.part_count = 0;
        rs.date_override[0] = rs.current_subtype[0] = rs.current_file_name[0] = '\0';
        TempDirTest::TearDown();
    }

    // What an extraction would leave behind.
    static void pretend_extraction(int32_t ran, int32_t is_mime, const char *subtype,
                                   int32_t encoding, int32_t parts, const char *file_name) {
        tw::mime_run_state &rs = tw::run_state();
        rs.directory_extraction_ran = ran;
        rs.message_is_mime = is_mime;
        tw::copy_field(rs.current_subtype, subtype);
        rs.transfer_encoding = encoding;
        rs.part_count = parts;
        tw::copy_field(rs.current_file_name, file_name);
    }

    // A plain single-part message; returns its Date value.
    std::string compose_and_read_date() {
        static const auto body = [](char *, int32_t, int32_t *) -> int32_t { return 0; };
        const std::string file = path("m" + std::to_string(++messages_) + ".eml");
        EXPECT_EQ(create_message("a", "b", "s", nullptr, nullptr, nullptr, file.c_str(), nullptr,
                                 body, nullptr, nullptr, 1, 0),
                  1);
        const std::string text = read_file(file);
        const std::size_t start = text.find("Date: ");
        if (start == std::string::npos)
            return "<no Date line>";
        return text.substr(start + 6, text.find("\r\n", start) - start - 6);
    }

    static intptr_t ptr(void *p) { return reinterpret_cast<intptr_t>(p); }

private:
    int messages_ = 0;
};

struct Readings {
    int32_t user = -99, encoding = -99, parts = -99;
    int32_t subtype_result = -99, name_result = -99;
    std::string subtype, name;
};

Readings read_all() {
    Readings r;
    EXPECT_EQ(mime_options(MIME_OPT_GET_USER, reinterpret_cast<intptr_t>(&r.user), 0), 1);
    EXPECT_EQ(mime_options(MIME_OPT_GET_ENCODING, reinterpret_cast<intptr_t>(&r.encoding), 0), 1);
    EXPECT_EQ(mime_options(MIME_OPT_GET_PART_COUNT, reinterpret_cast<intptr_t>(&r.parts), 0), 1);
    char subtype[100] = "untouched";
    r.subtype_result = mime_options(MIME_OPT_GET_SUBTYPE, reinterpret_cast<intptr_t>(subtype), 0);
    r.subtype = subtype;
    char name[256] = "untouched";
    r.name_result = mime_options(MIME_OPT_GET_FILE_NAME, reinterpret_cast<intptr_t>(name), 0);
    r.name = name;
    return r;
}

TEST_F(OptionsTest, SelectorsReportTheStateAndACompositionClearsOnlyTheEncoding) {
    const struct {
        const char *what;
        int32_t ran, is_mime;
        const char *subtype;
        int32_t encoding;
        const char *name;
        int32_t encoding_before, encoding_after; // selector 4, around a composition
        int32_t subtype_result;
        const char *subtype_out;
        int32_t name_result;
        const char *name_out;
    } cases[] = {
        {"nothing ran", 0, 0, "", 0, "", 7, 7, 5, "untouched", 8, "untouched"},
        {"no extraction, stale fields", 0, 1, "mixed", 3, "a.txt", 7, 7, 5, "untouched", 1,
         "a.txt"},
        {"extraction of a base64 MIME message", 1, 1, "mixed", 2, "a.gif", 2, 6, 1, "mixed", 1,
         "a.gif"},
        {"extraction without encoding", 1, 1, "plain", 0, "", 6, 6, 1, "plain", 8, "untouched"},
        {"uuencoded plain message", 1, 0, "plain", 4, "x.bin", 4, 6, 5, "untouched", 1, "x.bin"},
        {"MIME message without a subtype", 1, 1, "", 3, "", 3, 6, 5, "untouched", 8,
         "untouched"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(mime_options(MIME_OPT_SET_USER, 4711, 0), 1);
        pretend_extraction(c.ran, c.is_mime, c.subtype, c.encoding, 9, c.name);
        for (bool composed : {false, true}) {
            SCOPED_TRACE(composed ? "after a composition" : "before a composition");
            if (composed)
                compose_and_read_date();
            const Readings r = read_all();
            EXPECT_EQ(r.user, 4711);
            EXPECT_EQ(r.encoding, composed ? c.encoding_after : c.encoding_before);
            EXPECT_EQ(r.parts, 9);
            EXPECT_EQ(r.subtype_result, c.subtype_result);
            EXPECT_EQ(r.subtype, c.subtype_out);
            EXPECT_EQ(r.name_result, c.name_result);
            EXPECT_EQ(r.name, c.name_out);
        }
    }
}

TEST_F(OptionsTest, OnlyTheLow16BitsOfTheSelectorCount) {
    ASSERT_EQ(mime_options(MIME_OPT_SET_USER, 5, 0), 1);
    EXPECT_EQ(mime_options(0x10002, 6, 0), 1) << "acts as selector 2";
    int32_t value = 0;
    EXPECT_EQ(mime_options(static_cast<int32_t>(0xABCD0001u), ptr(&value), 0), 1);
    EXPECT_EQ(value, 6);

    for (int32_t selector : {0, 9, 10, 0xFFFF, 0x10000, -1, static_cast<int32_t>(0x80000000u)}) {
        EXPECT_EQ(mime_options(selector, 123, 0), -1) << std::hex << selector;
    }
    value = 0;
    EXPECT_EQ(mime_options(MIME_OPT_GET_USER, ptr(&value), 0), 1);
    EXPECT_EQ(value, 6) << "a refused selector changes nothing";
}

TEST_F(OptionsTest, DateOverrideLastsUntilClearedAndEmptyTextClearsIt) {
    const std::regex generated(
        "(Sun|Mon|Tue|Wed|Thu|Fri|Sat), [1-9][0-9]? "
        "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}");

    ASSERT_EQ(mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>("Fixed, 1 Jan 2000"), 0),
              1);
    EXPECT_EQ(compose_and_read_date(), "Fixed, 1 Jan 2000");
    EXPECT_EQ(compose_and_read_date(), "Fixed, 1 Jan 2000") << "not only for the next message";

    ASSERT_EQ(mime_options(MIME_OPT_CLEAR_DATE, 0, 0), 1);
    EXPECT_TRUE(std::regex_match(compose_and_read_date(), generated));

    ASSERT_EQ(mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>("Other"), 0), 1);
    EXPECT_EQ(compose_and_read_date(), "Other");
    ASSERT_EQ(mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(""), 0), 1);
    const std::string date = compose_and_read_date();
    EXPECT_TRUE(std::regex_match(date, generated)) << date;
}

} // namespace
