// mime_extract_start and mime_extract_data: a session only spools; all the
// work waits for the end call.
#include "streaming/session.h"

#include <mutex>
#include <vector>

namespace tw {

namespace {

// Low 16 bits: slot index + 1; bits 16..30: generation (never 0). So a
// handle is always positive and a slot reused by a later session answers to
// a different handle.
constexpr uint32_t kMaxSlots = 0xFFFF;
constexpr uint32_t kGenerationMask = 0x7FFF;

struct Slot {
    SessionPtr session;
    uint32_t generation = 1;
};

struct SessionTable {
    std::mutex lock;
    std::vector<Slot> slots;
    std::vector<uint32_t> free_slots;
};

SessionTable &table() {
    static SessionTable t;
    return t;
}

bool split_handle(int32_t handle, uint32_t &index, uint32_t &generation) {
    if (handle <= 0)
        return false;
    const uint32_t h = static_cast<uint32_t>(handle);
    if ((h & 0xFFFF) == 0)
        return false;
    index = (h & 0xFFFF) - 1;
    generation = (h >> 16) & kGenerationMask;
    return true;
}

// The slot of a live handle, or null. The caller holds the lock.
Slot *live_slot(SessionTable &t, int32_t handle) {
    uint32_t index = 0, generation = 0;
    if (!split_handle(handle, index, generation) || index >= t.slots.size())
        return nullptr;
    Slot &slot = t.slots[index];
    if (!slot.session || slot.generation != generation)
        return nullptr;
    return &slot;
}

bool is_dotted_short(const std::string &path) { return !path.empty() && path[0] == '.' && path.size() < 3; }

} // namespace

bool mime_check_directory(std::string &path) {
    if (path.find('/') == std::string::npos && !is_dotted_short(path))
        return false;
    path = mime_full_path(path);
    return !path.empty() && path_exists(path);
}

int32_t session_register(SessionPtr session) {
    SessionTable &t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    uint32_t index;
    if (!t.free_slots.empty()) {
        index = t.free_slots.back();
        t.free_slots.pop_back();
    } else {
        if (t.slots.size() >= kMaxSlots)
            return 0;
        index = static_cast<uint32_t>(t.slots.size());
        t.slots.emplace_back();
    }
    Slot &slot = t.slots[index];
    slot.session = std::move(session);
    return static_cast<int32_t>((slot.generation << 16) | (index + 1));
}

mime_extract_session *session_find(int32_t handle) {
    SessionTable &t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    Slot *slot = live_slot(t, handle);
    return slot != nullptr ? slot->session.get() : nullptr;
}

SessionPtr session_detach(int32_t handle) {
    SessionTable &t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    Slot *slot = live_slot(t, handle);
    if (slot == nullptr)
        return nullptr;
    SessionPtr session = std::move(slot->session);
    slot->generation = (slot->generation % kGenerationMask) + 1;
    t.free_slots.push_back(static_cast<uint32_t>(slot - t.slots.data()));
    return session;
}

void mime_destroy_session(int32_t *handle_pointer, SessionPtr session) {
    if (session) {
        session->spool_file.close();
        if (session->spool_owned)
            remove_file(session->spool_path);
    }
    if (handle_pointer != nullptr)
        *handle_pointer = 0;
}

namespace {

int32_t extract_start(mime_header_cb header_cb, mime_session_body_cb body_cb,
                      mime_address_cb address_cb, const char *directory, intptr_t user_value) {
    // Every callback is called without a test later, so a missing one means
    // no session at all rather than a crash in the end call.
    if (header_cb == nullptr || body_cb == nullptr || address_cb == nullptr)
        return 0;
    auto session = std::make_unique<mime_extract_session>();
    session->header_cb = header_cb;
    session->body_cb = body_cb;
    session->address_cb = address_cb;
    if (directory == nullptr) {
        session->directory = private_temp_directory();
        if (session->directory.empty())
            return 0;
        session->delivery_mode = kDeliverBytes;
    } else {
        session->directory = directory;
        if (!path_fits(session->directory) || !mime_check_directory(session->directory))
            return 0;
        if (session->directory.back() != '/')
            session->directory += '/';
        session->delivery_mode = kDeliverPath;
    }
    session->spool_path = make_temp_file(session->directory);
    if (session->spool_path.empty())
        return 0;
    session->spool_file = File::open(session->spool_path, OpenMode::Create);
    if (!session->spool_file)
        return 0;
    session->user_value = user_value;
    session->spool_owned = true;
    TempFile spool(session->spool_path); // until the table has the session
    const int32_t handle = session_register(std::move(session));
    if (handle != 0)
        spool.keep();
    return handle;
}

int32_t extract_data(int32_t handle, const char *data, int32_t length, int32_t is_path) {
    mime_extract_session *session = session_find(handle);
    if (session == nullptr)
        return MIME_NO_SESSION;
    auto fail = [&] {
        mime_destroy_session(nullptr, session_detach(handle));
        return MIME_FEED_ERROR;
    };
    if (is_path != 0) {
        if (length < 0 || static_cast<std::size_t>(length) > kMaxPath || data == nullptr)
            return fail();
        session->spool_file.close();
        if (session->spool_owned)
            remove_file(session->spool_path);
        std::string path(data, static_cast<std::size_t>(length));
        path.resize(std::char_traits<char>::length(path.c_str()));
        session->spool_path = std::move(path);
        session->spool_owned = false;
        return MIME_OK;
    }
    if (length <= 0) {
        session->spool_file.close();
        return MIME_OK;
    }
    if (data == nullptr || !session->spool_file || session->spool_file.seek_end() < 0 ||
        !session->spool_file.write_all(data, static_cast<std::size_t>(length)))
        return fail();
    return MIME_OK;
}

} // namespace
} // namespace tw

extern "C" TARNWICK_API int32_t mime_extract_start(mime_header_cb header_cb,
                                                   mime_session_body_cb body_cb,
                                                   mime_address_cb address_cb,
                                                   const char *directory, intptr_t user_value) {
    return tw::guarded(0, [&] {
        return tw::extract_start(header_cb, body_cb, address_cb, directory, user_value);
    });
}

extern "C" TARNWICK_API int32_t mime_extract_data(int32_t handle, const char *data,
                                                  int32_t length, int32_t is_path) {
    return tw::guarded(static_cast<int32_t>(MIME_FEED_ERROR), [&] {
        return tw::extract_data(handle, data, length, is_path);
    });
}
