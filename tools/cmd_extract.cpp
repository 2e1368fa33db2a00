// tarnwick extract: a message left in a directory as numbered files, one
// line per file as the library reports it.
#include <algorithm>
#include <cstdio>
#include <string>

#include "commands.h"
#include "fragment_sets.h"
#include "tarnwick.h"

namespace cli {
namespace {

// The callback carries no context of its own.
bool g_quiet = false;
// A fragment whose set completes is announced ahead of the set's files.
std::string g_pending_announcement;

void announce() {
    if (!g_quiet && !g_pending_announcement.empty())
        std::printf("%s\n", g_pending_announcement.c_str());
    g_pending_announcement.clear();
}

int32_t print_file(const char *name, int32_t level, int32_t type) {
    announce();
    if (!g_quiet)
        std::printf("%d %d %s\n", static_cast<int>(level), static_cast<int>(type), name);
    return 0;
}

int run_extract(const std::vector<std::string> &args);

const Command kExtract{"extract", "extract MESSAGE DIR [--quiet]",
                       "extract MESSAGE into the directory DIR and print one line per file "
                       "(level, type code, path), then the result (1, 0, or 21 for a stored "
                       "fragment). A stored fragment prints 'fragment stored: set ID, R of T' "
                       "(T is ? while unknown), a fragment that completes its set 'set ID "
                       "complete' ahead of the set's files; --quiet prints nothing",
                       run_extract};
Registration registration(kExtract);

int run_extract(const std::vector<std::string> &arguments) {
    std::vector<std::string> args = arguments;
    const auto quiet = std::remove(args.begin(), args.end(), std::string("--quiet"));
    g_quiet = quiet != args.end();
    args.erase(quiet, args.end());
    std::vector<std::string> words;
    std::string error;
    if (!parse_options(args, {}, &words, error))
        return usage_error(kExtract, error);
    if (words.size() != 2)
        return usage_error(kExtract, "expected MESSAGE and DIR");
    // A bare name is no directory to the library; here it means one below
    // the current directory.
    std::string directory = words[1];
    if (directory.find('/') == std::string::npos && directory != "." && directory != "..")
        directory = "./" + directory;
    const std::optional<std::string> fragment = fragment_id_of(words[0]);
    if (fragment)
        g_pending_announcement = "set " + printable(*fragment) + " complete";
    const int32_t result = extract_message(words[0].c_str(), print_file, directory.c_str());
    if (result == MIME_FRAGMENT_STORED && fragment && !g_quiet)
        std::printf("fragment stored: %s\n", open_set_text(directory, *fragment).c_str());
    if (result == MIME_OK)
        announce();
    if (!g_quiet)
        std::printf("result %d\n", static_cast<int>(result));
    return result == 0 ? kFailed : kOk;
}

} // namespace
} // namespace cli
