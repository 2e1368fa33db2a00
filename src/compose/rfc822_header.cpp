// The address block at the top of a composed message, and its date.
#include <ctime>

#include "compose/compose.h"

namespace tw {

std::string mime_format_date() {
    static const char *const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char buffer[64];
    // UTC, yet no zone is written: the form of the classic time text, split
    // at its blanks, with the day's leading zero gone.
    std::snprintf(buffer, sizeof buffer, "%s, %d %s %04d %02d:%02d:%02d", kDays[tm.tm_wday % 7],
                  tm.tm_mday, kMonths[tm.tm_mon % 12], tm.tm_year + 1900, tm.tm_hour, tm.tm_min,
                  tm.tm_sec);
    return buffer;
}

bool mime_write_rfc822_header(File &file, const char *from, const char *to, const char *cc,
                              const char *bcc, const char *subject, int32_t *line_count,
                              bool newsgroups) {
    // Values of any length are written whole: a line is built in full
    // rather than cut to a formatting buffer.
    auto line = [&](std::string_view name, std::string_view value) {
        std::string text;
        text.reserve(name.size() + value.size() + 2);
        text.append(name).append(value).append("\r\n");
        if (!file.write_all(text))
            return false;
        ++*line_count;
        return true;
    };
    auto given = [](const char *s) { return s != nullptr && s[0] != '\0'; };

    if (from != nullptr && !line("From: ", from))
        return false;
    const mime_run_state &rs = run_state();
    const std::string date =
        rs.date_override[0] != '\0' ? std::string(field(rs.date_override)) : mime_format_date();
    if (!line("Date: ", date))
        return false;
    if (to != nullptr && !line(newsgroups ? "Newsgroups: " : "To: ", to))
        return false;
    if (given(subject) && !line("Subject: ", subject))
        return false;
    if (!newsgroups) {
        if (given(cc) && !line("Cc: ", cc))
            return false;
        if (given(bcc) && !line("Bcc: ", bcc))
            return false;
    }
    return true;
}

} // namespace tw
