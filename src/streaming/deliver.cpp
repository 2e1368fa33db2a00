// How a finished part reaches the application, and the name it gets.
#include <memory>

#include "streaming/streaming.h"

namespace tw {

int32_t mime_stream_file(const std::string &path, mime_session_body_cb callback,
                         intptr_t user_value) {
    File file = File::open(path, OpenMode::ReadShared);
    if (!file)
        return 0;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kFeedChunk]);
    if (!buffer)
        return 0;
    // The application may keep its own value in the word between calls.
    int32_t state = 0;
    int32_t answer = 0;
    for (;;) {
        long long got = file.read_full(buffer.get(), kFeedChunk);
        if (got < 0)
            break;
        if (got == 0) {
            answer = callback("", 0, &state, user_value);
            break;
        }
        answer = callback(buffer.get(), static_cast<int32_t>(got), &state, user_value);
        if (answer == -1)
            break;
    }
    return answer == -1 ? 0 : 1;
}

int32_t mime_deliver_part(const std::string &path, const std::string &second_path,
                          mime_extract_session &session, int32_t code) {
    const bool second = code == MIME_ENC_BINHEX && !second_path.empty();
    int32_t status = MIME_OK;
    if (session.delivery_mode != kDeliverBytes) {
        // One word for both forks: what the application writes into it after
        // the first call is what it sees in the second.
        int32_t state = static_cast<int32_t>(session.delivery_mode);
        auto tell = [&](const std::string &p) {
            if (session.body_cb(p.c_str(), static_cast<int32_t>(p.size()), &state,
                                session.user_value) == -1)
                status = MIME_STOPPED;
        };
        tell(path);
        if (second)
            tell(second_path);
        return status;
    }
    int32_t result = mime_stream_file(path, session.body_cb, session.user_value);
    if (second) {
        result = mime_stream_file(second_path, session.body_cb, session.user_value);
        remove_file(second_path);
    }
    remove_file(path);
    return result == 0 ? MIME_FEED_ERROR : MIME_OK;
}

namespace {

// The extension of the last path component, with its dot; empty for none.
std::string_view extension_of(std::string_view name) {
    const std::size_t dot = name.find_last_of('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot);
}

} // namespace

void mime_name_part_file(std::string &path, std::size_t directory_length, const char *name) {
    constexpr std::size_t kNameBuffer = 512;
    std::string decoded;
    if (name != nullptr && name[0] != '\0') {
        std::string value(name, strnlen(name, kNameBuffer - 1));
        value.resize(kNameBuffer);
        ChainHead chain;
        mime_decode_field_value(nullptr, value.data(), value.size(), nullptr, chain.slot());
        decoded = mime_join_chain_text(chain.get()).substr(0, kNameBuffer - 1);
    }
    // Only the path is made safe; the record keeps the name as given.
    const std::string safe = mime_confine_file_name(decoded);
    if (safe.empty())
        return;
    const std::string directory = path.substr(0, directory_length);
    std::string target = directory + safe;
    if (rename_no_replace(path, target) == 0) {
        path = std::move(target);
        return;
    }
    const std::string_view extension = extension_of(safe);
    if (equals_nocase(extension, ".txt"))
        return;
    // Taken: keep the number and give it the name's extension, so the
    // first part of a name gets the name and later ones their numbers.
    const std::string_view old_name = std::string_view(path).substr(directory_length);
    const std::string_view stem = old_name.substr(0, old_name.find_last_of('.'));
    target = directory + std::string(stem) + std::string(extension);
    if (rename_no_replace(path, target) == 0)
        path = std::move(target);
}

} // namespace tw
