// Dates of Date: and Received: headers, in the one form that is accepted:
// "Mon, 1 Jan 1996 12:00:00 +0100". The fields are read as UTC and the zone
// is added, so the result never depends on the machine's own time zone.
#include <array>
#include <cstring>
#include <limits>
#include <optional>

#include "headers/headers.h"

namespace tw {
namespace {

constexpr std::array<std::string_view, 7> kWeekdays{"Sun", "Mon", "Tue", "Wed",
                                                    "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct Zone {
    std::string_view name;
    int32_t seconds; // added to the time: the opposite of the zone's offset
};
// Of the military letters only these four are known; everything else,
// UTC among it, counts as 0.
constexpr std::array<Zone, 16> kZones{{{"GMT", 0},
                                       {"UT", 0},
                                       {"Z", 0},
                                       {"", 0},
                                       {"EST", 18000},
                                       {"CDT", 18000},
                                       {"EDT", 14400},
                                       {"CST", 21600},
                                       {"MDT", 21600},
                                       {"MST", 25200},
                                       {"PDT", 25200},
                                       {"PST", 28800},
                                       {"A", 3600},
                                       {"M", 43200},
                                       {"N", -3600},
                                       {"Y", -43200}}};

// Token buffers of the fields: 11 bytes each, 15 for the year, a NUL
// included. A longer token is no date this parser reads.
constexpr std::size_t kTokenMax = 10;
constexpr std::size_t kYearTokenMax = 14;

// Reads the fields one after another; each token runs up to a stop byte.
class Scanner {
public:
    explicit Scanner(const char *text) : rest_(text) {}

    // The token up to `stop` (left in place). Null when the text ends first,
    // unless `end_allowed`, or when the token is longer than `max`.
    std::optional<std::string_view> token(char stop, std::size_t max, bool end_allowed = false) {
        const std::size_t at = rest_.find(stop);
        if (at == std::string_view::npos && !end_allowed)
            return std::nullopt;
        const std::string_view token = rest_.substr(0, at);
        if (token.size() > max)
            return std::nullopt;
        rest_.remove_prefix(token.size());
        return token;
    }
    void skip(char c) {
        if (!rest_.empty() && rest_.front() == c)
            rest_.remove_prefix(1);
    }
    void skip_blanks() {
        while (!rest_.empty() && rest_.front() == ' ')
            rest_.remove_prefix(1);
    }
    std::string_view rest() const { return rest_; }

private:
    std::string_view rest_;
};

template <std::size_t N>
int index_of(const std::array<std::string_view, N> &names, std::string_view token) {
    for (std::size_t i = 0; i < N; ++i)
        if (equals_nocase(names[i], token))
            return static_cast<int>(i);
    return -1;
}

// A token read as a decimal number, as the header readers read numbers.
int64_t number(std::string_view token) {
    char buffer[kYearTokenMax + 1];
    copy_bounded(buffer, sizeof buffer, token);
    return mime_decimal_value(buffer);
}

int32_t zone_value(std::string_view rest) {
    if (!rest.empty() && (rest.front() == '+' || rest.front() == '-')) {
        const bool east = rest.front() == '+';
        rest.remove_prefix(1);
        const int64_t hours = number(rest.substr(0, 2));
        const int64_t minutes = number(rest.substr(rest.size() < 2 ? rest.size() : 2, 2));
        const auto value = static_cast<int32_t>((hours * 60 + minutes) * 60);
        return east ? -value : value;
    }
    // The whole three-byte text is compared, so "UT\r" or "A (" is no zone.
    const std::string_view name = rest.substr(0, 3);
    for (const Zone &zone : kZones)
        if (equals_nocase(zone.name, name))
            return zone.seconds;
    return 0;
}

// Days from 1970-01-01 to the first of `month` (0-11) of `year` in the
// proleptic Gregorian calendar.
int64_t days_from_civil(int64_t year, int month) {
    int64_t y = year;
    const int m = month + 1;
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

} // namespace

int32_t mime_parse_date(const char *text, int32_t *result) {
    *result = 0;
    if (text == nullptr)
        return -1;
    Scanner scan(text);

    const auto weekday = scan.token(',', kTokenMax);
    if (!weekday || index_of(kWeekdays, *weekday) < 0)
        return -1;
    scan.skip(',');
    scan.skip_blanks();

    const auto day = scan.token(' ', kTokenMax);
    if (!day)
        return -1;
    scan.skip_blanks();
    const auto month_name = scan.token(' ', kTokenMax);
    if (!month_name)
        return -1;
    const int month = index_of(kMonths, *month_name);
    if (month < 0)
        return -1;
    scan.skip_blanks();
    const auto year_token = scan.token(' ', kYearTokenMax);
    if (!year_token)
        return -1;
    scan.skip_blanks();
    const auto hour = scan.token(':', kTokenMax);
    if (!hour)
        return -1;
    scan.skip(':');
    const auto minute = scan.token(':', kTokenMax);
    if (!minute)
        return -1;
    scan.skip(':');
    const auto second = scan.token(' ', kTokenMax, true);
    if (!second)
        return -1;
    scan.skip_blanks();

    // Two-digit years: 70 to 99 are 19xx, below 70 are 20xx.
    int64_t year = number(*year_token);
    if (year_token->size() >= 4)
        year -= 1900;
    else if (year < 70)
        year += 100;
    year += 1900;

    // Out-of-range fields carry over as a calendar conversion does: day 0
    // is the last of the month before, hour 24 the next day.
    const int64_t days = days_from_civil(year, month) + number(*day) - 1;
    const int64_t seconds = days * 86400 + number(*hour) * 3600 + number(*minute) * 60 +
                            number(*second) + zone_value(scan.rest());
    if (seconds < std::numeric_limits<int32_t>::min() ||
        seconds > std::numeric_limits<int32_t>::max())
        return -1;
    *result = static_cast<int32_t>(seconds);
    return 0;
}

} // namespace tw
