// What the tarnwick command tells of message/partial sets: "extract"
// reports a stored fragment, "fragments" lists the open sets.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace cli {

// The id of the message/partial fragment in the file at `path`, read from
// its header as the library reads it; nothing for any other message.
std::optional<std::string> fragment_id_of(const std::string &path);

// "set ID, R of T" for the open set of `id` in `directory` as its index
// lists it after a call; empty when the index has no such set.
std::string open_set_text(const std::string &directory, std::string_view id);

// An id as it may be printed: control bytes become '?'.
std::string printable(std::string_view text);

} // namespace cli
