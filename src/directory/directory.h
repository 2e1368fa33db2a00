// What the directory extraction offers to the rest of the library: the
// numbered files that both extractions share.
#pragma once

#include <cstdint>
#include <string>

#include "frame/frame.h"

namespace tw {

// Creates the lowest free numbered file in `path` (a directory with its
// closing '/') and leaves the file's full path in `path`. Without
// `want_uue` a number is free when no entry has it as its whole stem, with
// any extension or none, and the file is `%8.8lu.TXT`; with it, when
// neither `%8.8lu.ATF` nor `%8.8lu.UUE` exists, and the file is
// `%8.8lu.UUE`. Returns the number, or 0 when no file could be made.
unsigned long mime_next_numbered_file(std::string &path, bool want_uue);

// "%8.8lu": at least eight digits, zero-filled.
std::string numbered_name(unsigned long number);

} // namespace tw
