// A streaming extraction session: what a handle stands for, and the table
// that turns handles into sessions.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "frame/frame.h"

namespace tw {

// How finished parts reach the application.
enum DeliveryMode : uint32_t {
    kDeliverBytes = 0, // read back into body_cb in chunks, then removed
    kDeliverPath = 1,  // left in the directory; body_cb gets the path
    kDeliverGroup = 2, // as 1, inside a multipart/related or alternative walk
};

struct mime_extract_session {
    mime_header_cb header_cb = nullptr;
    mime_session_body_cb body_cb = nullptr;
    mime_address_cb address_cb = nullptr;
    std::string directory;  // with its closing '/'
    std::string spool_path; // the spool file, or the application's file
    uint32_t delivery_mode = kDeliverBytes;
    intptr_t user_value = 0;
    File spool_file; // open for writing until the closing call
    bool spool_owned = false;
};

using SessionPtr = std::unique_ptr<mime_extract_session>;

// Brings `path` to full form and tests it. A directory must hold a '/'
// somewhere, or be "." or ".." (or another dotted name of under three
// bytes); a bare name fails even if such a directory exists. Only existence
// is tested, as a file or a directory.
bool mime_check_directory(std::string &path);

// The handle table. Handles are an index plus a generation, never 0, so a
// stale or forged handle resolves to nothing. The table's lock is held only
// while the table itself changes, never during work or callbacks.
int32_t session_register(SessionPtr session);
// The session behind `handle` while it stays in the table; null for none.
mime_extract_session *session_find(int32_t handle);
// Takes the session out of the table: its handle is dead from now on, so an
// export called on it from a callback gets "no session".
SessionPtr session_detach(int32_t handle);

// Closes the spool, removes it if it is ours, frees the session and writes 0
// through `handle_pointer` (if given). Touches no other file.
void mime_destroy_session(int32_t *handle_pointer, SessionPtr session);

} // namespace tw
