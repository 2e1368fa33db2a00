// What the other subsystems may use of the frame: status values, the run
// state, the platform layer, text helpers and the file helpers.
#pragma once

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tarnwick.h"

#include "frame/platform.h"
#include "frame/run_state.h"
#include "frame/text.h"

namespace tw {

// Exports never let an exception out: running out of memory becomes the
// export's memory status, anything else its plain failure.
template <typename Fn> using result_of_t = std::invoke_result_t<Fn &>;
template <typename Fn>
result_of_t<Fn> guarded(result_of_t<Fn> on_failure, Fn &&fn, result_of_t<Fn> on_memory) noexcept {
    try {
        return fn();
    } catch (const std::bad_alloc &) {
        return on_memory;
    } catch (...) {
        return on_failure;
    }
}
template <typename Fn> result_of_t<Fn> guarded(result_of_t<Fn> on_failure, Fn &&fn) noexcept {
    return guarded(on_failure, std::forward<Fn>(fn), on_failure);
}

// ---- File helpers -----------------------------------------------------------

// The full form of `path` against the current directory; '/' is the
// separator. Empty if the current directory is unknown or the result would
// not fit a path buffer.
std::string mime_full_path(std::string_view path);

// `path` up to and including its last '/'; empty if it has none.
std::string mime_directory_of(std::string_view path);

// A new empty "$$$" file in `directory` (which ends with '/'); its path, or
// empty when the system refused, which a later open will show.
std::string mime_make_temp(const std::string &directory);

// Appends `source_path` from `offset` to the existing `target_path`. A 0x1A
// byte that ends a 2048-byte chunk is dropped. 1 or 0.
int32_t mime_append_file(const std::string &source_path, const std::string &target_path,
                         long long offset);

// Appends bytes to `path` (opened, or created), or to `file` when the path is
// empty. Not 0 on success.
int32_t mime_append_bytes(const std::string &path, const char *data, std::size_t length,
                          File *file);

// Counts the reads of a 1024-byte line buffer from `offset` (if used) to the
// end; `size_out` gets the end position. -1 if the file cannot be opened.
int32_t mime_count_lines(const std::string &path, long long *size_out, long long offset,
                         bool use_offset);

// The sink of mime_feed_file in one shape; the export adapts its own.
using FeedSink = std::function<int32_t(const char *data, int32_t length)>;
inline constexpr std::size_t kFeedChunk = 8126;

// Feeds a file in 8126-byte chunks, then once with length 0. 1, or 0 when the
// file cannot be opened or the sink's last answer was -1.
int32_t mime_feed_file(const std::string &path, const FeedSink &sink);

// A file name taken from a message, made safe to join to a target
// directory: only what follows the last '/' or '\\' is kept, control bytes
// become '_', and it is cut to 255 bytes. Empty when nothing usable is left
// ("", "." or ".."), which callers treat as no name at all.
std::string mime_confine_file_name(std::string_view name);

// True when the second blank-separated word of `line` is three octal digits.
int32_t mime_is_uu_begin(std::string_view line);

} // namespace tw
