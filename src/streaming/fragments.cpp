// message/partial in the streaming extraction. Fragments are kept in the
// session's directory exactly as the directory extraction keeps them, so
// either can finish a set the other began. A complete set is not decoded
// here: it is put back together as the message that was split, and the end
// call reads that message from the start, nested inside the call that
// brought its last fragment.
#include <algorithm>

#include "directory/directory.h"
#include "streaming/streaming.h"

namespace tw {

namespace {

// Writes the joined message of a complete set to a new `%8.8lu.HDR` file:
// the first fragment's header without its message/partial lines, running
// straight into the rest of that fragment (the inner header and the start
// of the body), then the bodies of the later fragments in number order.
// What cannot be read is left out. The path, or empty when the first
// fragment could not be read at all.
std::string build_joined(const std::string &directory, const mime_fragment_entry &entry) {
    NumberedNames names;
    std::string joined_path;
    File joined;
    if (!names.create_header(directory, 0, joined_path, joined))
        return {};
    Stream first = Stream::adopt(
        File::open(mime_fragment_path(directory, entry.set_number, 1), OpenMode::ReadShared, true),
        "rb");
    if (!first)
        return {};
    bool ok;
    {
        BodyWriter writer(joined);
        // Line by line and unchanged, so this fragment keeps every byte.
        ok = mime_copy_outer_header(first, writer) && mime_copy_fragment_body(first, writer);
    }
    first.close();
    joined.close();
    if (!ok)
        return joined_path;

    // The numbers on disk come from one scan: a missing one ends the join,
    // and a huge total costs nothing.
    const std::vector<uint32_t> present = mime_fragment_numbers(directory, entry);
    auto next = std::lower_bound(present.begin(), present.end(), 2u);
    for (uint64_t number = 2; number <= entry.total; ++number, ++next) {
        if (next == present.end() || *next != number)
            break;
        const std::string path = mime_fragment_path(directory, entry.set_number, *next);
        Stream fragment = Stream::adopt(File::open(path, OpenMode::ReadShared, true), "rb");
        if (!fragment)
            break;
        mime_skip_fragment_header(fragment);
        const long long body = fragment.tell();
        fragment.close();
        mime_append_file(path, joined_path, body);
    }
    return joined_path;
}

} // namespace

int32_t mime_store_fragment_stream(int32_t *handle_pointer, const std::string &message_path,
                                   EndCall &call) {
    mime_extract_session &session = call.session;
    const mime_partial_parameters &partial = call.part->parameters.partial;
    const std::string id(field(partial.part_id));
    const FragmentArrival fragment{id, partial.part_number, partial.part_total};
    std::string joined_path;
    mime_fragment_entry joined_set;
    const FragmentStoreResult stored = mime_store_fragment_entry(
        call.directory, message_path, fragment, [&](const mime_fragment_entry &entry) {
            joined_set = entry;
            joined_path = build_joined(call.directory, entry);
            return joined_path.empty() ? 0 : 1;
        });
    if (stored.index_failed)
        return MIME_FILE_ERROR;
    if (!stored.completed)
        return MIME_FRAGMENT_STORED;
    if (joined_path.empty())
        return stored.joined_last ? MIME_JOIN_ERROR : MIME_OK;

    // The index is written and unlocked by now, so a joined message that is
    // itself a fragment can be stored in turn. The joined file becomes the
    // session's message and goes when the session ends; a spool of the
    // session's own that held this fragment goes now, while a file that the
    // application named stays.
    if (session.spool_owned)
        remove_file(message_path);
    session.spool_path = joined_path;
    session.spool_owned = true;
    const int32_t result = mime_extract_end_nested(handle_pointer, session);
    if (result != 0)
        mime_remove_fragments(call.directory, joined_set);
    // A record behind the joined one hides the join's own result.
    return stored.joined_last ? result : MIME_OK;
}

} // namespace tw
