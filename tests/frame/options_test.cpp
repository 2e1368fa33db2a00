// The run state is one per process: what a test sets goes back to its value at load.
#include <ctime>

#include "frame/frame.h"
#include "support/test_support.h"

namespace {

template <typename T> intptr_t ptr(T *p) { return reinterpret_cast<intptr_t>(p); }

class OptionsTest : public tw_test::TempDirTest {
protected:
    void TearDown() override {
        tw::mime_run_state &rs = tw::run_state();
        rs.user_option = rs.directory_extraction_ran = rs.message_is_mime = 0;
        rs.date_override[0] = rs.current_subtype[0] = rs.current_file_name[0] = '\0';
        TempDirTest::TearDown();
    }
    // The Date value of a message composed now: with no address fields it
    // is the first line.
    std::string composed_date() {
        EXPECT_EQ(create_message(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, path("m").c_str(),
                                 nullptr, nullptr, nullptr, nullptr, 1, 0), 1);
        const std::string text = tw_test::read_file(path("m"));
        tw::remove_file(path("m"));
        return text.substr(6, text.find('\r') - 6);
    }
};

// Encoding, subtype and file name as selectors 4, 3 and 8 give them back.
std::string report() {
    int32_t encoding = 0;
    char subtype[100] = "-", name[256] = "-";
    EXPECT_EQ(mime_options(MIME_OPT_GET_ENCODING, ptr(&encoding), 0), 1);
    const int32_t s = mime_options(MIME_OPT_GET_SUBTYPE, ptr(subtype), 0);
    const int32_t n = mime_options(MIME_OPT_GET_FILE_NAME, ptr(name), 0);
    return std::to_string(encoding) + " " + std::to_string(s) + ":" + subtype + " " +
           std::to_string(n) + ":" + name;
}

// The subtype comes back only from a MIME extraction, a file name whenever
// there is one; the encoding tells whether an extraction ran, and a
// composition clears it.
TEST_F(OptionsTest, SelectorsReportTheLastExtraction) {
    const struct {
        int32_t ran, is_mime, encoding;
        const char *subtype, *name, *before, *after;
    } cases[] = {
        {0, 1, 3, "mixed", "a.txt", "7 5:- 1:a.txt", "7 5:- 1:a.txt"},
        {1, 1, 2, "mixed", "", "2 1:mixed 8:-", "6 1:mixed 8:-"},
        {1, 0, 4, "plain", "x.bin", "4 5:- 1:x.bin", "6 5:- 1:x.bin"},
        {1, 1, 0, "", "", "6 5:- 8:-", "6 5:- 8:-"},
    };
    for (const auto &c : cases) {
        tw::mime_run_state &rs = tw::run_state();
        rs.directory_extraction_ran = c.ran, rs.message_is_mime = c.is_mime;
        rs.transfer_encoding = c.encoding;
        tw::copy_field(rs.current_subtype, c.subtype);
        tw::copy_field(rs.current_file_name, c.name);
        EXPECT_EQ(report(), c.before);
        composed_date();
        EXPECT_EQ(report(), c.after);
    }
}

TEST_F(OptionsTest, OnlyTheLow16BitsOfTheSelectorCount) {
    ASSERT_EQ(mime_options(0x10002, 6, 0), 1) << "acts as selector 2";
    for (int32_t selector : {0, 9, 0xFFFF, 0x10000, -1, static_cast<int32_t>(0x80000000u)})
        EXPECT_EQ(mime_options(selector, 123, 0), -1) << std::hex << selector;
    int32_t value = 0;
    EXPECT_EQ(mime_options(static_cast<int32_t>(0xABCD0001u), ptr(&value), 0), 1);
    EXPECT_EQ(value, 6) << "a refused selector changes nothing";
}

// The override lasts until cleared, by selector 7 or an empty text; then the
// date is now, in UTC, English, without a leading zero or a zone.
TEST_F(OptionsTest, DateOverrideLastsUntilCleared) {
    auto utc_now = [] {
        const std::time_t t = std::time(nullptr);
        char buffer[64];
        std::strftime(buffer, sizeof buffer, "%a, %-d %b %Y %H:%M:%S", std::gmtime(&t));
        return std::string(buffer);
    };
    for (const int32_t clear : {MIME_OPT_CLEAR_DATE, MIME_OPT_SET_DATE}) {
        ASSERT_EQ(mime_options(MIME_OPT_SET_DATE, ptr("Fixed, 1 Jan 2000"), 0), 1);
        EXPECT_EQ(composed_date() + composed_date(), "Fixed, 1 Jan 2000Fixed, 1 Jan 2000");
        EXPECT_EQ(mime_options(clear, ptr(""), 0), 1);
        const std::string before = utc_now(), date = composed_date();
        EXPECT_TRUE(date == before || date == utc_now()) << date;
    }
}

} // namespace
