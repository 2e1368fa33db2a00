// What the directory extraction offers to the rest of the library: the
// numbered files that both extractions share, the naming of a finished
// file, and the roads of extract_message and extract_message_x.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    // The lowest number from 1 that no entry has as its whole stem, with
    // any extension or none; nothing is created. 0 when the directory
    // cannot be read.
    unsigned long lowest_free(const std::string &directory);
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
// Its scan for uuencoded blocks behind the header, on the open message:
// 1 when the text ahead of a first block was reported, else 0.
int32_t mime_scan_uuencode(Stream &message, ExtractContext &ctx);

// True for the names the extractions work with in a target directory
// ("temp.c", "part.idx", "MESSAGE.$$$" ...), which no part may take.
bool mime_is_reserved_name(std::string_view name);

// ---- Messages without MIME headers: rules both extractions share -------------------

class BodyWriter;
inline constexpr const char *kPlainTextFile = "MESSAGE.$$$";

// One line of such a message: at most 1023 bytes a read, NUL bytes kept.
struct PlainLine {
    char text[1024] = {};
    std::size_t length = 0;
    bool read(Stream &in); // false at the end
};

struct PlainItem {
    int32_t count = 0;
    bool uuencoded = false;
    bool base64 = false;
};

// The value of an Encoding header line ("1 Text, 5 UUEncode") and where
// the next item of it starts.
class EncodingItems {
public:
    // Keeps the value of the line (a later line replaces it) and starts
    // over at its first item. True when that item is a text of some lines.
    bool take_header_line(const char *line);
    bool seen() const { return seen_; }
    bool exhausted() const;
    PlainItem next();

private:
    static constexpr std::size_t kWordSize = 256;
    char value_[1024] = {};
    std::size_t offset_ = 0;
    bool seen_ = false;
};

// Copies the `count` lines of one item, the line in hand first, until the
// count runs out or the input ends; `count` is what is left of it. Lines of
// a uuencoded item in front of its "begin" line are counted, not copied.
// False when a write failed.
bool mime_copy_item(Stream &in, PlainLine &line, int32_t &count, bool uuencoded, BodyWriter &out);

// A line that opens a uuencoded block where nothing announced one.
bool mime_starts_uu_block(const PlainLine &line);
// Copies a block from its begin line in hand through the first line that
// begins with "end" in any case, or to the end of the input. False when a
// write failed.
bool mime_copy_uu_block(Stream &in, PlainLine &line, BodyWriter &out);

// One piece into a new numbered file of `directory` (.UUE when
// `uuencoded`): the item of `*count` lines, or with a null `count` the
// block whose begin line is in hand. A file whose write failed is gone.
enum class PieceFile { Written, NotMade, WriteFailed };
PieceFile mime_write_piece(Stream &in, PlainLine &line, const std::string &directory,
                           NumberedNames &names, bool uuencoded, int32_t *count,
                           std::string &path);

// Decodes the raw block at `path` (a numbered .UUE file in the directory
// of `directory_length` bytes) into its .ATF twin and names that after the
// begin line, confined to the directory; a name that is taken leaves the
// .ATF name. `path` follows the file. `name` gets the begin line's name as
// given. False, with the .UUE file and an empty name left, when it does not
// decode.
inline constexpr std::size_t kUuNameSize = 256;
bool mime_decode_uu_file(std::string &path, std::size_t directory_length,
                         char (&name)[kUuNameSize], NumberedNames &names);

// One fragment of a message/partial set, to be kept until the set is
// complete. 1, 0, or MIME_FRAGMENT_STORED.
int32_t mime_store_fragment(const std::string &message_path, ExtractContext &ctx);

// ---- Fragment sets: "part.idx" and the fragment files ---------------------------------
//
// Both extractions keep the open message/partial sets of a directory in
// "part.idx": 92-byte records back to back, one per open set, integers
// 32-bit little-endian. Each fragment is kept whole as `%8.8lu.%d` (set,
// fragment number) until its set is joined.

class BodyWriter;

inline constexpr const char *kFragmentIndex = "part.idx";
inline constexpr const char *kFragmentIndexNext = "part.id$";
inline constexpr const char *kFragmentWorkFile = "tmp.c";
inline constexpr std::size_t kFragmentRecordSize = 92;
inline constexpr std::size_t kFragmentIdWidth = 80;
// Longest id kept; a longer one is cut alike for storing and comparing.
inline constexpr std::size_t kFragmentIdLength = kFragmentIdWidth - 1;

// One record of "part.idx" in memory.
struct mime_fragment_entry {
    char id[kFragmentIdWidth] = {}; // read within its width: a corrupt one may lack its NUL
    uint32_t received = 0;          // fragments stored, repeats included
    uint32_t total = 0;             // 0 while unknown
    uint32_t set_number = 0;        // stem of the set's fragment files
};

// A fragment as its header told it.
struct FragmentArrival {
    std::string_view id;
    int32_t number = 0;
    int32_t total = 0;
};

// What storing one fragment came to.
struct FragmentStoreResult {
    int32_t status = 0;        // 0: failed; else 1, or the join's result (see joined_last)
    bool index_failed = false; // the index could not be locked, read or written
    bool completed = false;    // the fragment completed a set and its join was tried
    bool joined_last = false;  // no record stood behind the joined set's
};

// Joins a complete set; 0 on failure. Called with the index locked, before
// the new index replaces the old.
using FragmentJoin = std::function<int32_t(const mime_fragment_entry &)>;

// Stores the fragment at `message_path` in `directory` (closing '/'),
// counts it in "part.idx" and joins its set with `join` once complete. The
// new index replaces the old in one step only when the status is not 0, so
// a failure, or a process killed at any point, leaves the old index whole.
FragmentStoreResult mime_store_fragment_entry(const std::string &directory,
                                              const std::string &message_path,
                                              const FragmentArrival &fragment,
                                              const FragmentJoin &join);

// The open sets of a directory as "part.idx" lists them (read unlocked).
std::vector<mime_fragment_entry> mime_read_fragment_index(const std::string &directory);

// The id of a record, within its width and cut as ids are compared.
std::string_view mime_fragment_id(const mime_fragment_entry &entry);

// Copies the fragment message at `source_path` to the fragment file of
// `set_number` and `fragment_number`, replacing any such file without
// following a link planted there. 1 or 0.
int32_t mime_copy_fragment_file(const std::string &directory, const std::string &source_path,
                                uint32_t set_number, int32_t fragment_number);

// The number for a new set: the lowest that no entry has as its stem. 0
// when the directory cannot be read.
uint32_t mime_next_fragment_set(const std::string &directory);

std::string mime_fragment_path(const std::string &directory, uint32_t set_number,
                               uint32_t fragment_number);

// The fragment numbers from 1 to the set's total that are on disk, in
// order, from one directory scan: a corrupt total never makes a loop.
std::vector<uint32_t> mime_fragment_numbers(const std::string &directory,
                                            const mime_fragment_entry &entry);

// Removes the fragment files of a set, numbers 1 to its total.
void mime_remove_fragments(const std::string &directory, const mime_fragment_entry &entry);

// Copies the header of a set's first fragment to `out`, leaving out its
// message/partial Content-Type (with its continuation lines),
// Content-Transfer-Encoding and Mime-Version. False when a write failed.
bool mime_copy_outer_header(Stream &fragment, BodyWriter &out);

// Copies the rest of a fragment as it stands, blank lines ahead of it
// dropped, and flushes. False when a write failed.
bool mime_copy_fragment_body(Stream &fragment, BodyWriter &out);

// Reads past the header of a later fragment, to the line behind the blank
// line that ends it.
void mime_skip_fragment_header(Stream &fragment);

// Joins a complete set into the context's directory as extract_message
// leaves a message there, and reports its files. 1 or 0.
int32_t mime_join_fragments(ExtractContext &ctx, const mime_fragment_entry &entry);

// Called right before a new "part.idx" replaces the old one; tests set it
// to end a process at the most delicate moment.
inline void (*mime_fragment_index_hook)() = nullptr;

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
