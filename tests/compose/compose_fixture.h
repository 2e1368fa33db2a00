// A scripted application for the composition tests. The callbacks are plain
// functions, so what they answer and what they were asked lives in `g`.
#pragma once

#include <deque>
#include <type_traits>

#include "compose/compose.h"
#include "support/test_support.h"

namespace tw_compose_test {

using tw_test::crlf;
using tw_test::read_file;
using Names = std::vector<std::string>;

inline constexpr const char *kDate = "Wed, 2 Jan 1980 02:03:55";
inline constexpr const char *kMessage = "msg.eml"; // in the scratch directory, the cwd
// The address block of the Ann/Bob message and its version line.
inline const std::string kHead = crlf(std::string("From: Bob\nDate: ") + kDate +
                                      "\nTo: Ann\nSubject: Hello\nMIME-VERSION: 1.0\n");

// One answer of next_part_cb: `answer`, and the record's fields when it is a part.
struct Part {
    int32_t answer = 1;
    std::string type{}, subtype{}, encoding{}, filename{}, charset{}, content_id{}, id{};
    int32_t number = 0, total = 0;
    uint32_t size = 0;
    std::string base{}, location{}, description{}, start{}, root_type{}; // full record only
};
inline Part part(std::string type, std::string subtype, std::string encoding = "") {
    return {.type = type, .subtype = subtype, .encoding = encoding};
}
inline Part partial(int32_t number, int32_t total, std::string id, std::string encoding = "") {
    return {.type = "message", .subtype = "partial", .encoding = encoding, .id = id,
            .number = number, .total = total};
}
inline const Part kClose{.answer = MIME_PART_END_MULTIPART}, kRaw{.answer = MIME_PART_RAW};

template <typename Record> void fill(Record &r, const Part &p) {
    std::memset(&r, 0, sizeof r);
    tw::copy_field(r.content_type, p.type);
    tw::copy_field(r.content_subtype, p.subtype);
    tw::copy_field(r.encoding, p.encoding);
    tw::copy_field(r.filename, p.filename);
    tw::copy_field(r.charset, p.charset);
    tw::copy_field(r.content_id, p.content_id);
    tw::copy_field(r.parameters.partial.part_id, p.id);
    r.parameters.partial.part_number = p.number;
    r.parameters.partial.part_total = p.total;
    r.size_on_disk = p.size;
    if constexpr (std::is_same_v<Record, mime_part_desc>) {
        tw::copy_field(r.content_base, p.base);
        tw::copy_field(r.content_location, p.location);
        tw::copy_field(r.description, p.description);
        tw::copy_field(r.start, p.start);
        tw::copy_field(r.type, p.root_type);
    }
}

struct Script {
    std::deque<Part> parts{};
    // One body_cb answer per call: bytes, "" for 0, "!" for -1, "@name" for a
    // named file. An empty queue answers 0.
    std::deque<std::string> bodies{};
    Names log{}; // "next", "body", "done" in call order
    struct Done { int32_t lines, bytes; long long file_size; };
    std::vector<Done> done{};
};
inline Script g;

inline int32_t next_part_cb(mime_part_info *info) {
    g.log.push_back("next");
    if (g.parts.empty())
        return -1; // beyond the script: stop
    const Part p = g.parts.front();
    g.parts.pop_front();
    if (p.answer == 1)
        fill(*info, p);
    return p.answer;
}
inline int32_t body_cb(char *buffer, int32_t size, int32_t *is_file) {
    EXPECT_EQ(size, 8126);
    g.log.push_back("body");
    if (g.bodies.empty())
        return 0;
    std::string a = g.bodies.front();
    g.bodies.pop_front();
    if ((*is_file = a[0] == '@'))
        a.erase(0, 1), std::memset(buffer + a.size(), 'Q', 16); // a name needs no NUL
    std::memcpy(buffer, a.data(), a.size());
    return a == "!" ? -1 : static_cast<int32_t>(a.size());
}
inline int32_t done_cb(int32_t lines, int32_t bytes) {
    g.log.push_back("done");
    g.done.push_back({lines, bytes, static_cast<long long>(read_file(kMessage).size())});
    return 0;
}

class ComposeTest : public tw_test::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(kDate), 0);
        script({}, {});
    }
    void TearDown() override {
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
        TempDirTest::TearDown();
    }
    // A fresh script; the message of an earlier run goes.
    static void script(std::vector<Part> parts, std::vector<std::string> bodies) {
        tw::remove_file(kMessage);
        g = Script{.parts = {parts.begin(), parts.end()}, .bodies = {bodies.begin(), bodies.end()}};
    }
    // create_message of the Ann/Bob message, `top` as its part_info.
    static int32_t create(const Part &top, const char *file = kMessage) {
        mime_part_info info;
        fill(info, top);
        return create_message("Ann", "Bob", "Hello", nullptr, nullptr, &info, file, next_part_cb,
                              body_cb, done_cb, nullptr, 1, 0);
    }
    static std::string message() { return read_file(kMessage); }
};

} // namespace tw_compose_test
