// Numbered file names of a target directory. One directory scan collects
// the taken numbers, so a directory of many thousand files does not make
// the search quadratic.
#include <algorithm>
#include <vector>

#include "directory/directory.h"

namespace tw {

namespace {

// Gives up after this many numbers whose creation failed although the scan
// found them free: another writer, or a directory that refuses files.
constexpr int kMaxFailedCreations = 1000;

// The number whose `%8.8lu` form is exactly `digits`, or 0 for none.
unsigned long parse_numbered_stem(std::string_view digits) {
    if (digits.size() < 8 || digits.size() > 19)
        return 0;
    unsigned long n = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return 0;
        n = n * 10 + static_cast<unsigned long>(c - '0');
    }
    return numbered_name(n) == digits ? n : 0;
}

unsigned long taken_number(std::string_view name, bool want_uue) {
    const std::size_t dot = name.find('.');
    const std::string_view stem = name.substr(0, dot);
    const unsigned long n = parse_numbered_stem(stem);
    if (n == 0 || !want_uue)
        return n;
    const std::string_view extension =
        dot == std::string_view::npos ? std::string_view() : name.substr(dot);
    return (extension == ".ATF" || extension == ".UUE") ? n : 0;
}

} // namespace

std::string numbered_name(unsigned long number) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%8.8lu", number);
    return buffer;
}

unsigned long mime_next_numbered_file(std::string &path, bool want_uue) {
    const std::string directory = path;
    std::vector<unsigned long> taken;
    const bool readable = scan_directory(directory, [&](std::string_view name) {
        if (unsigned long n = taken_number(name, want_uue))
            taken.push_back(n);
    });
    if (!readable)
        return 0;
    std::sort(taken.begin(), taken.end());
    taken.erase(std::unique(taken.begin(), taken.end()), taken.end());

    unsigned long candidate = 1;
    auto next_taken = taken.begin();
    for (int failures = 0; failures < kMaxFailedCreations; ++candidate) {
        while (next_taken != taken.end() && *next_taken < candidate)
            ++next_taken;
        if (next_taken != taken.end() && *next_taken == candidate)
            continue;
        std::string candidate_path =
            directory + numbered_name(candidate) + (want_uue ? ".UUE" : ".TXT");
        if (File::create_new(candidate_path)) {
            path = std::move(candidate_path);
            return candidate;
        }
        ++failures;
    }
    return 0;
}

} // namespace tw
