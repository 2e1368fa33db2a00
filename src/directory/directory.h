// What the directory extraction offers to the rest of the library: the
// numbered files that both extractions share, the naming of a finished
// file, and the roads of extract_message and extract_message_x.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "frame/frame.h"

namespace tw {

// ---- Numbered files ---------------------------------------------------------------

// Creates the lowest free numbered file in `path` (a directory with its
// closing '/') and leaves the file's full path in `path`. Without
// `want_uue` a number is free when no entry has it as its whole stem, with
// any extension or none, and the file is `%8.8lu.TXT`; with it, when
// neither `%8.8lu.ATF` nor `%8.8lu.UUE` exists, and the file is
// `%8.8lu.UUE`. Returns the number, or 0 when no file could be made.
unsigned long mime_next_numbered_file(std::string &path, bool want_uue);

// Creates the lowest `%8.8lu.HDR` of `directory` (closing '/') that does not
// exist yet, counting from `first`; only `.HDR` names count as taken. The
// file stays open in `file`, its path goes to `path`. False when none could
// be made.
bool mime_next_header_file(const std::string &directory, unsigned long first, std::string &path,
                           File &file);

// "%8.8lu": at least eight digits, zero-filled.
std::string numbered_name(unsigned long number);

// The numbered names of one target directory as one extraction sees them:
// read with a single scan at the first search, then kept up to date with
// what the extraction itself creates, renames and removes there. The
// numbers found are those of the two searches above; a message of many
// parts just does not read the directory once per part. A file that
// another program makes meanwhile is met by the exclusive creation, and
// the search moves on past it.
class NumberedNames {
public:
    // As mime_next_numbered_file on `directory` (closing '/'): the new
    // file's path goes to `path`, the file stays open in `file`; the
    // number, or 0 when none could be made.
    unsigned long create_numbered(const std::string &directory, bool want_uue, std::string &path,
                                  File &file);
    // As mime_next_header_file.
    bool create_header(const std::string &directory, unsigned long first, std::string &path,
                       File &file);
    // What became of a file of the directory.
    void renamed(std::string_view from_path, std::string_view to_path);
    void removed(std::string_view path);

private:
    enum Kind { Any, AtfOrUue, Header, kKinds };
    bool load(const std::string &directory);
    std::optional<unsigned long> create(const std::string &directory, Kind kind,
                                        std::string_view extension, unsigned long first,
                                        std::string &path, File &file);
    // How many entries of one number count for each kind of search.
    struct Entries {
        unsigned count[kKinds] = {};
    };
    static bool counts_for(std::string_view extension, Kind kind);
    void add(std::string_view name);

    bool loaded_ = false;
    std::map<unsigned long, Entries> taken_;
    // Every number from 1 to below floor_[kind] is taken for that kind.
    unsigned long floor_[kKinds] = {1, 1, 1};
};

// ---- One extraction -----------------------------------------------------------------

// The delimiter text of the multipart being walked, its leading "--"
// included. One buffer serves every level of nesting.
inline constexpr std::size_t kBoundarySize = 100;

// The fixed names of the work files in a target directory.
inline constexpr const char *kBodyWorkFile = "temp.c";
inline constexpr const char *kSpoolFile = "file$$$.1$";

// What every step of one directory extraction shares.
struct ExtractContext {
    mime_extract_callback callback = nullptr;
    mime_extract_sink sink = nullptr; // extract_message_x only
    bool x_mode = false;              // files are fed to `sink` and removed
    std::string directory;            // with its closing '/'
    NumberedNames names;              // the numbered files of `directory`
};

// Extracts the message at `message_path` into the context's directory:
// the road that extract_message and extract_message_x share, from the MIME
// test on. 1, 0, or MIME_FRAGMENT_STORED.
int32_t mime_extract_file(const std::string &message_path, ExtractContext &ctx);

// Tells the application of a finished file. extract_message names it by
// its path; extract_message_x names it by `x_name`, then feeds its bytes to
// the sink and removes it. 1, or 0 when the feed failed or the sink stopped.
int32_t mime_report_file(ExtractContext &ctx, const std::string &path,
                         std::string_view x_name, int32_t level, int32_t type);

// Gives the file at `path` its final name: the file name of the part when
// the message gave one, else the number with the extension of a name that
// exists already, else the number with the extension of the part's type.
// Nothing existing is ever replaced, and a name from the message never
// leads out of the directory (the first `directory_length` bytes of
// `path`). `path` follows the file, and `names`, when given, hears of it.
void mime_name_output_file(std::string &path, std::size_t directory_length,
                           NumberedNames *names = nullptr);

// Delivers every remaining part of a multipart as a file. The stream stands
// behind a delimiter line of the multipart whose delimiter text `boundary`
// holds; `level` is the number of open multiparts. 1 or 0.
int32_t mime_walk_parts(Stream &stream, ExtractContext &ctx, char (&boundary)[kBoundarySize],
                        int32_t level);

// A message without MIME headers. 1 or 0.
int32_t mime_extract_plain(const std::string &message_path, ExtractContext &ctx);

// One fragment of a message/partial set, to be kept until the set is
// complete. 1, 0, or MIME_FRAGMENT_STORED.
int32_t mime_store_fragment(const std::string &message_path, ExtractContext &ctx);

// ---- Helpers of the extraction roads ----------------------------------------------

// Points the header readers' copy of consumed lines at `file` for the
// life of the scope, and at nothing afterwards, whichever way it is left.
class HeaderFileScope {
public:
    explicit HeaderFileScope(File *file) { run_state().header_file = file; }
    ~HeaderFileScope() { run_state().header_file = nullptr; }
    HeaderFileScope(const HeaderFileScope &) = delete;
    HeaderFileScope &operator=(const HeaderFileScope &) = delete;
    void set(File *file) { run_state().header_file = file; }
};

// Collects body lines for one open file and writes them in large blocks:
// a body of many short lines must not cost a system call per line. A failed
// write is remembered and shows at the latest in flush().
class BodyWriter {
public:
    explicit BodyWriter(File &file);
    ~BodyWriter() = default;
    BodyWriter(const BodyWriter &) = delete;
    BodyWriter &operator=(const BodyWriter &) = delete;

    bool write(const char *data, std::size_t length);
    bool write_line(const char *line) { return write(line, std::strlen(line)); }
    bool flush();

private:
    File &file_;
    std::unique_ptr<char[]> block_;
    std::size_t used_ = 0;
    bool ok_ = true;
};

// True when `line` begins with `boundary` (its NUL-terminated text),
// ignoring case, and, with `closing`, with two more hyphens behind it.
bool mime_is_delimiter(const char *line, std::string_view boundary, bool closing = false);

// The parameter list of a header line: what stands behind its first ':'.
inline char *mime_behind_colon(char *line) {
    char *colon = std::strchr(line, ':');
    return colon != nullptr ? colon + 1 : line + std::strlen(line);
}

// True when a boundary parameter gave something to look for: a multipart
// whose boundary is missing or empty has no delimiter at all.
inline bool mime_has_boundary(const char (&boundary)[kBoundarySize]) {
    return strnlen(boundary, kBoundarySize) > 2;
}

} // namespace tw
