// The walkers of a multipart body in the streaming extraction: the part
// walker that takes any multipart apart, the two walkers of the web-page
// groups (multipart/alternative and multipart/related), the files they name
// by type, and the rewriting of a page's links to the local files.
//
// Nesting is followed with one current boundary and a depth count, never
// with a stack or recursion: a message of 100 000 nested levels costs what
// one level costs. The groups call each other one level deep at most; deeper
// multiparts inside a group are skipped whole.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "directory/directory.h"
#include "streaming/streaming.h"

namespace tw {

// ---- Files named by type ----------------------------------------------------------

// The exact names "%8.8lu" + suffix of one directory, as one walk sees them:
// read with a single scan at the first search of a suffix, then followed as
// the walk creates more. Only the exact name counts as taken, so
// 00000001.gif and 00000001.htm may stand side by side.
class TypedNames {
public:
    // Creates the lowest free `directory` + number + `suffix` and leaves its
    // path in `path`; the number, or 0 after a bounded run of failed
    // creations.
    unsigned long create(const std::string &directory, std::string_view suffix, std::string &path);

private:
    struct Suffix {
        std::set<unsigned long> taken;
        unsigned long next = 1;
    };
    std::map<std::string, Suffix, std::less<>> suffixes_;
};

// ".gif", ".jpg", ".htm" or ".txt" for a part of that type.
std::string_view mime_typed_suffix(std::string_view type, std::string_view subtype);

// Appends the number and the suffix of the type to `path` (a directory with
// its closing '/') and creates the empty file there. The number, or 0 when
// no file could be made. `names` (may be null) saves the directory scan of
// each call.
unsigned long mime_new_typed_file(std::string &path, std::string_view type,
                                  std::string_view subtype, TypedNames *names = nullptr);

// ---- Link table and rewriting -------------------------------------------------------

// The files of a related group other than its page, found by Content-ID (any
// case) and by full location: `base` in front of the part's location unless
// that is an "http://" URL, compared in any case. The first entry of a key
// wins, as a search in part order would find it.
class LinkTable {
public:
    explicit LinkTable(std::string base) : base_(std::move(base)) {}

    void add(std::string file_name, std::string_view content_id, std::string_view location);
    bool empty() const { return names_.empty(); }
    std::size_t size() const { return names_.size(); }
    const std::string &base() const { return base_; }

    // The file name that a link value stands for, or null.
    const std::string *resolve(std::string_view value) const;

private:
    std::string full_location(std::string_view value) const;

    std::string base_;
    std::vector<std::string> names_;
    std::unordered_map<std::string, std::size_t> by_id_;
    std::unordered_map<std::string, std::size_t> by_location_;
};

// Rewrites the src, background and code links of the file at `path` that
// name a file of `table` to that file's bare name, and appends each name
// used to `replaced` (twice if linked twice). The rewritten copy replaces
// the file in one rename; on any failure the file stays as it was and the
// copy goes. An empty table leaves the file alone. 1, or 0 on failure.
int32_t mime_rewrite_links(const std::string &path, const LinkTable &table,
                           std::vector<std::string> &replaced);

// ---- Walks ----------------------------------------------------------------------------

// What one walk of a multipart body shares between its walkers.
struct Walk {
    EndCall &call;
    NumberedNames numbered; // the .TXT numbers of the part walker
    TypedNames typed;       // the typed names of the group walkers
    // With delivery_mode 0 every file a group makes is noted here and goes
    // when the group is over: the application receives bytes, not paths.
    std::vector<std::string> group_files;

    explicit Walk(EndCall &c) : call(c) {}
    bool bytes_mode() const { return call.session.delivery_mode == kDeliverBytes; }
    void note_group_file(const std::string &path) {
        if (bytes_mode())
            group_files.push_back(path);
    }
    void remove_group_files();
};

// A leaf of a multipart/alternative inside a related group, kept until the
// group's links are known. It holds the length of the header text when the
// part ended (the text only grows) and the record's non-zero bytes.
struct KeptPart {
    std::string path;
    std::size_t header_length = 0;
    std::string record; // runs of non-zero bytes: offset, length, bytes
};
using KeptParts = std::vector<KeptPart>;

std::string mime_pack_record(const mime_part_desc &part);
void mime_unpack_record(std::string_view packed, mime_part_desc &part);

// What a related group delivers: its page and the bare names of the files
// its links were rewritten to.
struct GroupDelivery {
    std::string page;
    std::vector<std::string> linked;
    // The page's path, '|' and the names joined with ','; the plain path
    // when no link was replaced.
    std::string text() const;
};

// Hands a group's page to body_cb: the delivery string in delivery_mode 1
// and 2; in delivery_mode 0 the page's bytes and then the bytes of each
// linked file, one series each. 1 or a negative status.
int32_t mime_deliver_group(Walk &walk, const GroupDelivery &delivery);

// The part walker. The stream stands behind the first delimiter line of the
// multipart whose delimiter text (with its "--") `boundary` holds; the walk
// changes `boundary` as it goes up and down. Closes the stream. 1 or a
// negative status.
int32_t mime_walk_message_parts(Walk &walk, Stream &stream, char (&boundary)[kBoundarySize]);

// Reads one part's header block into `part` and the header text; `code`
// gets the transfer encoding. 1 when the part opens a nested multipart: then
// `boundary` holds its delimiter text, `depth` is one more, the stream and
// `position` stand behind the first non-blank line of its body. Else 0.
int32_t mime_read_part_header(Stream &stream, HeaderText &header_text,
                              char (&boundary)[kBoundarySize], int32_t &code, int32_t &depth,
                              long long &position, mime_part_desc &part);

// Copies the body at the stream's position byte for byte, up to the line
// that begins with `boundary` (case as written), to the end of
// `target_path`; the stream is left at the start of that line. 0 when the
// boundary never comes (nothing is written) or a write fails, else 1.
int32_t mime_copy_raw_body(Stream &stream, const std::string &target_path,
                           std::string_view boundary);

// Runs the decoder of `code` (Base64, quoted-printable, uuencode, BinHex,
// else the raw copy) on the body at the stream's position into `path`, up to
// the delimiter `boundary`; `line` (512 bytes) takes the name of a begin
// line. A BinHex resource fork's file goes to `second_path` and the block's
// header to `info` when they are given; without them it is not kept. 1 or 0.
int32_t mime_decode_part_body(Stream &stream, int32_t code, const std::string &path,
                              const char *boundary, char *line,
                              std::string *second_path = nullptr, binhex_info *info = nullptr);

// Reads up to and including the first line that begins with `boundary`
// followed by "--" (any case), or to the end of the input.
void mime_skip_multipart(Stream &stream, std::string_view boundary);

// The two group walkers. The stream stands behind the first delimiter line
// of the group, and the walk's record still holds the group's header.
// Without `kept`, the alternative walker delivers each leaf in message
// order; with it, it appends them there for the related group around it.
// Without `out`, the related walker delivers the group; with it, it leaves
// the delivery there for the alternative around it.
// Neither closes the stream. 1 or a negative status.
int32_t mime_walk_alternative(Walk &walk, Stream &stream, const char *boundary, KeptParts *kept);

int32_t mime_walk_related(Walk &walk, Stream &stream, const char *boundary, GroupDelivery *out);

// A group of its own (deliver mode): delivery_mode 1 becomes 2 for the walk.
int32_t mime_walk_group(Walk &walk, Stream &stream, const char *boundary);

} // namespace tw
