// Dates of Date: and Received: lines, read as UTC plus the zone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "headers/headers.h"

namespace {

constexpr int32_t kNoonJan1996 = 820497600; // Mon, 1 Jan 1996 12:00:00 GMT

struct DateCase {
    const char *text;
    int32_t expected;
};

int32_t parse_ok(const std::string &text) {
    int32_t seconds = 12345;
    EXPECT_EQ(tw::mime_parse_date(text.c_str(), &seconds), 0) << text;
    return seconds;
}

TEST(DateParse, FormsThatParse) {
    const std::vector<DateCase> cases = {
        {"Mon, 1 Jan 1996 12:00:00 GMT", kNoonJan1996},
        {"Mon, 1 Jan 1996 12:00:00", kNoonJan1996},
        {"Mon, 1 Jan 1996 12:00:00\r\n", kNoonJan1996},
        {"Mon,   1   Jan   1996   12:00:00   GMT", kNoonJan1996},
        {"Fri, 1 Jan 1996 12:00:00 GMT", kNoonJan1996}, // the weekday is not checked
        {"Mon, 1 Jan 96 12:00:00 GMT", kNoonJan1996},
        {"mon, 01 JAN 1996 12:00:00 gmt (comment)", kNoonJan1996},
        // Zones by offset: the value is the opposite of the offset.
        {"Mon, 1 Jan 1996 12:00:00 +0100", kNoonJan1996 - 3600},
        {"Mon, 1 Jan 1996 12:00:00 -0500", kNoonJan1996 + 18000},
        // Zones by name; an unknown one, UTC among them, is 0.
        {"Mon, 1 Jan 1996 12:00:00 EST", kNoonJan1996 + 18000},
        {"Mon, 1 Jan 1996 12:00:00 edt", kNoonJan1996 + 14400},
        {"Mon, 1 Jan 1996 12:00:00 PST", kNoonJan1996 + 28800},
        {"Mon, 1 Jan 1996 12:00:00 UTC", kNoonJan1996},
        {"Mon, 1 Jan 1996 12:00:00 XYZ", kNoonJan1996},
        // Military letters count only where the text ends behind them.
        {"Mon, 1 Jan 1996 12:00:00 A", kNoonJan1996 + 3600},
        {"Mon, 1 Jan 1996 12:00:00 y", kNoonJan1996 - 43200},
        {"Mon, 1 Jan 1996 12:00:00 A\r\n", kNoonJan1996},
        // Two-digit years: below 70 are 20xx.
        {"Sat, 1 Jan 00 00:00:00 GMT", 946684800},
        {"Thu, 1 Jan 70 00:00:00 GMT", 0},
        {"Fri, 1 Jan 38 00:00:00 GMT", 2145916800},
        // Leap day and fields out of range carry over.
        {"Thu, 29 Feb 1996 00:00:00 GMT", 825552000},
        {"Thu, 30 Feb 1996 00:00:00 GMT", 825638400},
        {"Mon, 1 Jan 1996 24:00:00 GMT", kNoonJan1996 + 12 * 3600},
        {"Sun, 0 Jan 1996 12:00:00 GMT", kNoonJan1996 - 86400},
        {"Wed, 31 Dec 1969 23:59:59 GMT", -1},
    };
    for (const DateCase &c : cases)
        EXPECT_EQ(parse_ok(c.text), c.expected) << c.text;
}

TEST(DateParse, ResultDoesNotDependOnTheLocalZone) {
    const char *old = std::getenv("TZ");
    const std::string saved = old != nullptr ? old : "";
    ::setenv("TZ", "America/New_York", 1);
    ::tzset();
    const int32_t seconds = parse_ok("Mon, 1 Jan 1996 12:00:00 GMT");
    if (old != nullptr)
        ::setenv("TZ", saved.c_str(), 1);
    else
        ::unsetenv("TZ");
    ::tzset();
    EXPECT_EQ(seconds, kNoonJan1996);
}

TEST(DateParse, FormsThatFailLeaveZero) {
    const std::vector<std::string> failing = {
        "1 Jan 1996 12:00:00 GMT",             // no weekday, no comma
        "Monday, 1 Jan 1996 12:00:00 GMT",     // full weekday name
        "Mon, 1 Jan 1996 12:00 GMT",           // no seconds
        "Mon, 1 Foo 1996 12:00:00 GMT",        // unknown month
        "Mon, 1 Jan 1996",                     // ends behind the year
        "Mon,\t1\tJan\t1996\t12:00:00 GMT",    // a TAB is no separator
        "",
        // Tokens longer than their buffers.
        "Mon, 12345678901 Jan 1996 12:00:00 GMT",
        "Mon, 1 Jan 123456789012345 12:00:00 GMT",
        "Mon, 1 Jan 1996 12345678901:00:00 GMT",
        "Mon, 1 Jan 1996 12:00:00000000000 GMT",
        std::string(1000, 'M') + ", 1 Jan 1996 12:00:00 GMT",
        // Beyond what the 32-bit result holds.
        "Tue, 19 Jan 2038 03:14:08 GMT",
        "Mon, 1 Jan 99999999999999 12:00:00 GMT",
    };
    for (const std::string &text : failing) {
        int32_t seconds = 777;
        EXPECT_EQ(tw::mime_parse_date(text.c_str(), &seconds), -1) << text;
        EXPECT_EQ(seconds, 0) << text;
    }
}

} // namespace
