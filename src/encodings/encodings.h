// What the other subsystems may use of the transfer encodings: the decoders
// that work on a message stream the walkers already hold open, and the scan
// that decides how quoted-printable treats line ends. The file-to-file forms
// are the exports of tarnwick.h.
#pragma once

#include <cstdint>
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

} // namespace tw
