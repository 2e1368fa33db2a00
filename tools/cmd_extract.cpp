// tarnwick extract: a message left in a directory as numbered files, one
// line per file as the library reports it.
#include <algorithm>
#include <cstdio>
#include <string>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

// The callback carries no context of its own.
bool g_quiet = false;

int32_t print_file(const char *name, int32_t level, int32_t type) {
    if (!g_quiet)
        std::printf("%d %d %s\n", static_cast<int>(level), static_cast<int>(type), name);
    return 0;
}

int run_extract(const std::vector<std::string> &args);

const Command kExtract{"extract", "extract MESSAGE DIR [--quiet]",
                       "extract MESSAGE into the directory DIR and print one line per file "
                       "(level, type code, path), then the result (1, 0, or 21 for a stored "
                       "fragment); --quiet prints nothing",
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
    const int32_t result = extract_message(words[0].c_str(), print_file, directory.c_str());
    if (!g_quiet)
        std::printf("result %d\n", static_cast<int>(result));
    return result == 0 ? kFailed : kOk;
}

} // namespace
} // namespace cli
