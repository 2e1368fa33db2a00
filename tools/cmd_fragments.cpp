// tarnwick fragments: the open message/partial sets of a directory, one
// line each, as its index "part.idx" lists them.
#include <cstdio>

#include "commands.h"
#include "directory/directory.h"
#include "fragment_sets.h"
#include "headers/headers.h"

namespace cli {

namespace {

std::string total_text(uint32_t total) { return total == 0 ? "?" : std::to_string(total); }

// The directory as the library works with it: full form, closing '/'.
std::string full_directory(const std::string &directory) {
    std::string full = tw::mime_full_path(directory);
    if (!full.empty() && full.back() != '/')
        full += '/';
    return full;
}

int run_fragments(const std::vector<std::string> &args);

const Command kFragments{"fragments", "fragments DIR",
                         "list the open message/partial sets kept in the directory DIR: one "
                         "line each with the set's number, fragments received, total (? while "
                         "unknown) and id",
                         run_fragments};
Registration registration(kFragments);

int run_fragments(const std::vector<std::string> &args) {
    std::vector<std::string> words;
    std::string error;
    if (!parse_options(args, {}, &words, error))
        return usage_error(kFragments, error);
    if (words.size() != 1)
        return usage_error(kFragments, "expected DIR");
    const std::string directory = full_directory(words[0]);
    if (directory.empty() || !tw::path_exists(directory))
        return failure("no directory '" + words[0] + "'");
    for (const tw::mime_fragment_entry &entry : tw::mime_read_fragment_index(directory))
        std::printf("%s %u %s %s\n", tw::numbered_name(entry.set_number).c_str(), entry.received,
                    total_text(entry.total).c_str(),
                    printable(tw::mime_fragment_id(entry)).c_str());
    return kOk;
}

} // namespace

std::string printable(std::string_view text) {
    std::string out(text);
    for (char &c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '?';
    return out;
}

std::optional<std::string> fragment_id_of(const std::string &path) {
    tw::Stream stream = tw::Stream::open_read(path);
    // The library takes a message without MIME headers for plain text,
    // whatever its Content-Type says.
    if (!stream || tw::mime_file_is_mime(stream) == 0 || !stream.seek(0))
        return std::nullopt;
    char line[tw::kHeaderLine];
    char boundary[tw::kBoundarySize] = {};
    char name[256] = {};
    bool started = false;
    while (stream.read_line(line, sizeof line) > 0) {
        if (tw::is_blank_line(line)) {
            if (started)
                break;
            continue;
        }
        started = true;
        if (!tw::starts_with_nocase(line, "Content-type"))
            continue;
        tw::mime_parse_content_type(stream, line, boundary, name, nullptr, nullptr);
        const tw::mime_run_state &state = tw::run_state();
        if (tw::equals_nocase(tw::field(state.current_type), "message") &&
            tw::equals_nocase(tw::field(state.current_subtype), "partial"))
            return std::string(tw::field(state.partial_id));
    }
    return std::nullopt;
}

std::string open_set_text(const std::string &directory, std::string_view id) {
    id = id.substr(0, tw::kFragmentIdLength);
    for (const tw::mime_fragment_entry &entry : tw::mime_read_fragment_index(full_directory(directory)))
        if (tw::equals_nocase(tw::mime_fragment_id(entry), id))
            return "set " + printable(id) + ", " + std::to_string(entry.received) + " of " +
                   total_text(entry.total);
    return {};
}

} // namespace cli
