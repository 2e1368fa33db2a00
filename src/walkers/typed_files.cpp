// Files of the group walkers, named by number and by the type of the part.
#include "walkers/walkers.h"

namespace tw {

namespace {

// Gives up after this many numbers whose creation failed although they
// looked free: another writer, or a directory that refuses files.
constexpr int kMaxFailedCreations = 1000;

// The number whose "%8.8lu" form followed by `suffix` is exactly `name`.
bool typed_number(std::string_view name, std::string_view suffix, unsigned long &number) {
    if (!name.ends_with(suffix))
        return false;
    const std::string_view digits = name.substr(0, name.size() - suffix.size());
    if (digits.size() < 8 || digits.size() > 19)
        return false;
    unsigned long n = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return false;
        n = n * 10 + static_cast<unsigned long>(c - '0');
    }
    if (numbered_name(n) != digits)
        return false;
    number = n;
    return true;
}

} // namespace

std::string_view mime_typed_suffix(std::string_view type, std::string_view subtype) {
    if (equals_nocase(type, "image") && equals_nocase(subtype, "gif"))
        return ".gif";
    if (equals_nocase(type, "image") && equals_nocase(subtype, "jpeg"))
        return ".jpg";
    if (equals_nocase(type, "text") && equals_nocase(subtype, "html"))
        return ".htm";
    return ".txt";
}

unsigned long TypedNames::create(const std::string &directory, std::string_view suffix,
                                 std::string &path) {
    auto found = suffixes_.find(suffix);
    if (found == suffixes_.end()) {
        Suffix fresh;
        if (!scan_directory(directory, [&](std::string_view name) {
                unsigned long n = 0;
                if (typed_number(name, suffix, n))
                    fresh.taken.insert(n);
            }))
            return 0;
        found = suffixes_.emplace(std::string(suffix), std::move(fresh)).first;
    }
    Suffix &s = found->second;
    for (int failures = 0; failures < kMaxFailedCreations; ++s.next) {
        if (s.taken.erase(s.next) > 0)
            continue; // numbers below `next` are never looked at again
        std::string candidate = directory + numbered_name(s.next);
        candidate += suffix;
        File file = File::create_new(candidate);
        if (file) {
            path = std::move(candidate);
            return s.next++;
        }
        ++failures; // made meanwhile by someone else, or refused
    }
    return 0;
}

unsigned long mime_new_typed_file(std::string &path, std::string_view type,
                                  std::string_view subtype, TypedNames *names) {
    TypedNames once;
    TypedNames &search = names != nullptr ? *names : once;
    const std::string directory = path;
    return search.create(directory, mime_typed_suffix(type, subtype), path);
}

} // namespace tw
