// A streaming session over a message with every callback recorded in one
// event string: "h:type/subtype," per header, "b<state>:<what>," per delivery.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "tarnwick.h"

namespace tw_test {

struct WalkRecorder {
    std::string events, strip, bytes; // strip: taken out of delivered paths; bytes: series so far
    std::vector<std::string> texts;   // header texts
    std::vector<mime_part_desc> records;
    int32_t body_answer = 0;
    int stop_header_at = -1; // the header call that answers -1
    bool light = false;      // records nothing of headers: for huge messages
    int headers = 0;
};

inline int32_t walk_address(mime_address_lists *, intptr_t) { return 0; }

inline int32_t walk_header(mime_part_desc *part, const char *text, int32_t length, intptr_t user) {
    WalkRecorder &r = *reinterpret_cast<WalkRecorder *>(user);
    if (text[length] != '\0')
        ADD_FAILURE() << "header text not ended at its length";
    if (!r.light) {
        r.texts.emplace_back(text, static_cast<std::size_t>(length));
        r.records.push_back(*part);
        r.events += "h:" + std::string(part->content_type) + "/" + part->content_subtype + ",";
    }
    return r.headers++ == r.stop_header_at ? -1 : 0;
}

inline int32_t walk_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    WalkRecorder &r = *reinterpret_cast<WalkRecorder *>(user);
    std::string piece(data, static_cast<std::size_t>(length));
    if (*state != 0) {
        for (std::size_t at; !r.strip.empty() && (at = piece.find(r.strip)) != std::string::npos;)
            piece.erase(at, r.strip.size());
        r.events += "b" + std::to_string(*state) + ":" + piece + ",";
    } else if (length > 0) {
        r.bytes += piece;
    } else {
        r.events += "b0:" + std::exchange(r.bytes, {}) + ",";
    }
    return r.body_answer;
}

class WalkTest : public TempDirTest {
protected:
    std::string out() { return dir() + "out/"; }

    // Runs `message` through a session into out/ (or bytes mode) and returns
    // the end call's result.
    int32_t extract(const std::string &message, WalkRecorder &r, bool to_directory = true) {
        std::filesystem::create_directories(out());
        r.strip = out();
        int32_t handle = mime_extract_start(walk_header, walk_body, walk_address,
                                            to_directory ? out().c_str() : nullptr,
                                            reinterpret_cast<intptr_t>(&r));
        EXPECT_NE(handle, 0);
        EXPECT_EQ(mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 0), 1);
        EXPECT_EQ(mime_extract_data(handle, nullptr, 0, 0), 1);
        const int32_t result = mime_extract_end(&handle);
        EXPECT_EQ(handle, 0);
        return result;
    }
};

// A message of Content-Type `type` (more header lines may follow it); "\n" becomes CRLF.
inline std::string message_of(const std::string &type, const std::string &body) {
    return crlf("From: a@example.org\nMIME-Version: 1.0\nContent-Type: " + type + "\n\n" + body);
}

} // namespace tw_test
