// Numbered file names of a target directory. One directory scan collects
// the taken numbers, so a directory of many thousand files does not make
// the search quadratic; one extraction keeps what it scanned and follows
// its own changes, so a message of many parts does not either.
#include <algorithm>
#include <optional>
#include <utility>

#include "directory/directory.h"

namespace tw {

namespace {

// Gives up after this many numbers whose creation failed although they
// looked free: another writer, or a directory that refuses files.
constexpr int kMaxFailedCreations = 1000;

// The number whose `%8.8lu` form is exactly `digits`.
std::optional<unsigned long> parse_numbered_stem(std::string_view digits) {
    if (digits.size() < 8 || digits.size() > 19)
        return std::nullopt;
    unsigned long n = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
        n = n * 10 + static_cast<unsigned long>(c - '0');
    }
    if (numbered_name(n) != digits)
        return std::nullopt;
    return n;
}

// The number of a numbered name (or of the last component of a path) and
// what stands behind its stem: the extension with its dot, or nothing.
std::optional<std::pair<unsigned long, std::string_view>> split_numbered(std::string_view name) {
    name = name.substr(name.find_last_of('/') + 1);
    const std::size_t dot = name.find('.');
    const std::optional<unsigned long> n = parse_numbered_stem(name.substr(0, dot));
    if (!n)
        return std::nullopt;
    return std::make_pair(*n, dot == std::string_view::npos ? std::string_view() : name.substr(dot));
}

} // namespace

// Whether an entry with `extension` (its dot included, or empty) takes its
// number for a search of `kind`.
bool NumberedNames::counts_for(std::string_view extension, Kind kind) {
    switch (kind) {
    case AtfOrUue:
        return extension == ".ATF" || extension == ".UUE";
    case Header:
        return extension == ".HDR";
    default:
        return true;
    }
}

std::string numbered_name(unsigned long number) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%8.8lu", number);
    return buffer;
}

void NumberedNames::add(std::string_view name) {
    if (const auto numbered = split_numbered(name)) {
        Entries &entries = taken_[numbered->first];
        for (int kind = Any; kind < kKinds; ++kind)
            entries.count[kind] += counts_for(numbered->second, static_cast<Kind>(kind)) ? 1 : 0;
    }
}

bool NumberedNames::load(const std::string &directory) {
    if (!loaded_)
        loaded_ = scan_directory(directory, [&](std::string_view name) { add(name); });
    return loaded_;
}

void NumberedNames::removed(std::string_view path) {
    const auto numbered = split_numbered(path);
    if (!numbered)
        return;
    const auto entry = taken_.find(numbered->first);
    if (entry == taken_.end())
        return;
    Entries &entries = entry->second;
    for (int kind = Any; kind < kKinds; ++kind) {
        unsigned &count = entries.count[kind];
        if (count == 0 || !counts_for(numbered->second, static_cast<Kind>(kind)))
            continue;
        // A number given back lets the searches of its kind start at it again.
        if (--count == 0)
            floor_[kind] = std::min(floor_[kind], numbered->first);
    }
    if (entries.count[Any] == 0)
        taken_.erase(entry);
}

void NumberedNames::renamed(std::string_view from_path, std::string_view to_path) {
    removed(from_path);
    add(to_path);
}

std::optional<unsigned long> NumberedNames::create(const std::string &directory, Kind kind,
                                                   std::string_view extension,
                                                   unsigned long first, std::string &path,
                                                   File &file) {
    if (!load(directory))
        return std::nullopt;
    // Below the floor every number is taken; only searches from 1 keep it.
    const bool from_one = first == 1;
    unsigned long candidate = from_one ? floor_[kind] : first;
    auto next_taken = taken_.lower_bound(candidate);
    for (int failures = 0; failures < kMaxFailedCreations; ++candidate) {
        while (next_taken != taken_.end() && next_taken->first < candidate)
            ++next_taken;
        if (next_taken != taken_.end() && next_taken->first == candidate &&
            next_taken->second.count[kind] > 0)
            continue;
        std::string candidate_path = directory + numbered_name(candidate);
        candidate_path += extension;
        file = File::create_new(candidate_path);
        // A file made meanwhile by someone else is as taken as one of ours.
        add(candidate_path);
        next_taken = taken_.find(candidate);
        if (file) {
            path = std::move(candidate_path);
            if (from_one)
                floor_[kind] = candidate + 1;
            return candidate;
        }
        ++failures;
    }
    return std::nullopt;
}

unsigned long NumberedNames::lowest_free(const std::string &directory) {
    if (!load(directory))
        return 0;
    unsigned long candidate = floor_[Any];
    for (auto it = taken_.lower_bound(candidate);
         it != taken_.end() && it->first == candidate && it->second.count[Any] > 0; ++it)
        ++candidate;
    return candidate;
}

unsigned long NumberedNames::create_numbered(const std::string &directory, bool want_uue,
                                             std::string &path, File &file) {
    return create(directory, want_uue ? AtfOrUue : Any, want_uue ? ".UUE" : ".TXT", 1, path, file)
        .value_or(0);
}

bool NumberedNames::create_header(const std::string &directory, unsigned long first,
                                  std::string &path, File &file) {
    return create(directory, Header, ".HDR", first, path, file).has_value();
}

unsigned long mime_next_numbered_file(std::string &path, bool want_uue) {
    NumberedNames names;
    File file;
    return names.create_numbered(std::string(path), want_uue, path, file);
}

bool mime_next_header_file(const std::string &directory, unsigned long first, std::string &path,
                           File &file) {
    NumberedNames names;
    return names.create_header(directory, first, path, file);
}

} // namespace tw
