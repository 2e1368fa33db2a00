// What the other subsystems may use of the transfer encodings: the decoders
// that work on a message stream the walkers already hold open, and the scan
// that decides how quoted-printable treats line ends. The file-to-file forms
// are the exports of tarnwick.h.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "frame/frame.h"

namespace tw {

// Decodes Base64 from the stream's position into `target_path` (appended
// to, created if missing). Ends at the end of the input, at a line that
// begins with `boundary` (null for none; the stream is left at the start of
// that line), or at a padded group followed by a blank line (the stream is
// left behind the blank line). A padded group followed by anything else lets
// a further Base64 section be decoded into the same file. 1 or 0.
int32_t base64_decode_stream(Stream &in, const std::string &target_path, const char *boundary);

// Decodes quoted-printable from the stream's position into `target_path`
// (appended to) up to a line that begins with `boundary`, where the stream
// is left; the line end in front of the boundary line is not written.
// The boundary must not be empty: an empty one matches the first line.
// 1 or 0.
int32_t quoted_decode_stream(Stream &in, const std::string &target_path, std::string_view boundary);

// Finds the next "begin" line, decodes up to the line of count 0 and leaves
// the stream directly behind it. Boundary lines are not looked at. The
// target is replaced, and removed if the decoding fails. `name_out` (at least
// 256 bytes) receives the name of the begin line. 1 or 0.
int32_t uudecode_stream(Stream &in, const std::string &target_path, char *name_out);

// True (1) when the file holds a byte outside printable ASCII, TAB, CR and
// LF; 0 otherwise, also when it cannot be opened.
int32_t quoted_file_is_binary(const std::string &path);

// ---- BinHex 4.0 --------------------------------------------------------------

// Writes one BinHex block of the data fork and the resource fork (empty: none;
// one that cannot be read counts as none) behind what `target_path` holds.
// The block's name is the data path's last component; `info` gives type,
// creator and flags. A fork of 4 GiB or more cannot be described: -3 and no
// block. 1, -2 or -3.
int32_t binhex_encode_file(const std::string &data_path, const std::string &resource_path,
                           const std::string &target_path, const binhex_info &info,
                           bool no_follow);

// Where the BinHex decoder takes its lines from: `read_line` reads as fgets
// does (up to size-1 bytes or through LF) and gives the count, 0 at the end.
struct BinhexLineSource {
    void *context;
    std::size_t (*read_line)(void *context, char *buffer, std::size_t size);
};

// Decodes one BinHex block from the source's position: the data fork is
// appended to `target_path`, the resource fork goes to a new "$$$" file in
// the target's directory whose path `second_path` (1024 bytes, may be null)
// receives; it is "" when there is no resource fork or the decoding failed,
// and then no "$$$" file stays. `info` (may be null) is cleared and filled
// from the header. Reads up to and including the line that ends in ':', or to
// the end of the input; knows no boundary. 1 or 0.
int32_t binhex_decode_lines(const BinhexLineSource &source, const std::string &target_path,
                            char *second_path, binhex_info *info);
// The same on the walkers' stream, which is left behind the last line read.
int32_t binhex_decode_stream(Stream &stream, const std::string &target_path, char *second_path,
                             binhex_info *info);
// The same on a stdio stream, which is not closed.
int32_t binhex_decode_stream(FILE *stream, const char *target_path, char *second_path,
                             binhex_info *info);

} // namespace tw
