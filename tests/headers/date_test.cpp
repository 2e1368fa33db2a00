#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "headers/headers.h"

namespace {

// Zones: the opposite of the offset, 0 for unknown names, a military letter
// only at the very end. Two-digit years below 70 are 20xx; fields out of
// range carry over. The machine's zone, here far from UTC, does not matter.
TEST(DateParse, FormsThatParse) {
    const std::string saved = std::getenv("TZ") != nullptr ? std::getenv("TZ") : "";
    ::setenv("TZ", "America/New_York", 1);
    constexpr int32_t noon = 820497600; // Mon, 1 Jan 1996 12:00:00 GMT
    const std::pair<const char *, int32_t> cases[] = {
        {"Fri,   1   Jan   96   12:00:00   GMT", noon}, // the weekday is not checked
        {"mon, 01 JAN 1996 12:00:00 gmt (comment)", noon},
        {"Mon, 1 Jan 1996 12:00:00 -0130", noon + 5400}, {"Sat, 1 Jan 00 00:00:00 GMT", 946684800},
        {"Mon, 1 Jan 1996 12:00:00 edt", noon + 14400}, {"Thu, 1 Jan 70 00:00:00 GMT", 0},
        {"Mon, 1 Jan 1996 12:00:00 XYZ", noon}, {"Mon, 1 Jan 1996 12:00:00 A", noon + 3600},
        {"Mon, 1 Jan 1996 12:00:00 A\r\n", noon}, {"Sun, 0 Jan 1996 12:00:00 GMT", noon - 86400},
        {"Thu, 30 Feb 1996 00:00:00 GMT", 825638400}, {"Wed, 31 Dec 1969 23:59:59 GMT", -1},
        {"Mon, 1 Jan 1996 24:00:00 GMT", noon + 43200}};
    for (const auto &[text, expected] : cases) {
        int32_t seconds = 12345;
        EXPECT_EQ(tw::mime_parse_date(text, &seconds), 0) << text;
        EXPECT_EQ(seconds, expected) << text;
    }
    saved.empty() ? ::unsetenv("TZ") : ::setenv("TZ", saved.c_str(), 1);
}

// Tokens longer than their buffers and results beyond 32 bits fail too.
TEST(DateParse, FormsThatFailLeaveZero) {
    const std::string failing[] = {
        "1 Jan 1996 12:00:00 GMT", "Monday, 1 Jan 1996 12:00:00 GMT", "Mon, 1 Jan 1996",
        "Mon, 1 Jan 1996 12:00 GMT", "Mon, 1 Foo 1996 12:00:00 GMT", "",
        "Mon,\t1\tJan\t1996\t12:00:00 GMT", "Mon, 12345678901 Jan 1996 12:00:00 GMT",
        std::string(1000, 'M') + ", 1 Jan 1996 12:00:00 GMT",
        "Mon, 1 Jan 123456789012345 12:00:00 GMT", "Mon, 1 Jan 99999999999999 12:00:00 GMT",
        "Tue, 19 Jan 2038 03:14:08 GMT"};
    for (const std::string &text : failing) {
        int32_t seconds = 777;
        EXPECT_EQ(tw::mime_parse_date(text.c_str(), &seconds), -1) << text;
        EXPECT_EQ(seconds, 0) << text;
    }
}

} // namespace
