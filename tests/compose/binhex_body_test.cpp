// Both forks of a BinHex part come from body_cb, as bytes or as file names;
// mixed forms are refused.
#include "compose/compose_fixture.h"
#include "encodings/encodings.h"

namespace {

using namespace tw_compose_test;
using tw_test::write_file;

class BinhexBodyTest : public ComposeTest {
protected:
    static int32_t drive(const Part &top) {
        auto desc = std::make_unique<mime_part_desc>();
        fill(*desc, top);
        std::memcpy(desc->binhex_info.file_type, "TEXT", 4);
        const tw::ComposeCallbacks cb{.next_part = next_part_cb, .body = body_cb, .done = done_cb};
        return tw::mime_compose({"Ann", "Bob", "Hello"}, *desc, kMessage, {}, cb, true, false);
    }
    // "data|resource|type" of the block at the end of the message.
    static std::string forks() {
        const std::string m = message();
        write_file("block.hqx", m.substr(std::min(m.size(), m.find("(This file must be"))));
        char second[1024];
        binhex_info info;
        if (binhex_dec("block.hqx", "forks", second, &info) != 1)
            return "<bad block>";
        const std::string rsrc = second[0] != '\0' ? read_file(second) : "";
        tw::remove_file(second);
        const std::string data = read_file("forks");
        tw::remove_file("forks");
        return data + "|" + rsrc + "|" + info.file_type;
    }
};

TEST_F(BinhexBodyTest, ForksFromBodyCb) {
    write_file("d.bin", "data");
    write_file("r.bin", "rsrc");
    const Part hqx = part("application", "mac-binhex40", "binhex");
    const struct {
        const char *what;
        Part top;
        std::vector<Part> parts;
        std::vector<std::string> bodies;
        int32_t status;
        std::string forks;
    } rows[] = {
        {"bytes", hqx, {}, {"da", "ta", "", "rsrc", ""}, 1, "data|rsrc|TEXT"},
        {"names", hqx, {}, {"@d.bin", "@r.bin"}, 1, "data|rsrc|TEXT"},
        {"a name, then no resource fork", hqx, {}, {"@d.bin", ""}, 1, "data||TEXT"},
        {"two empty series", hqx, {}, {"", ""}, 1, "||TEXT"},
        {"in a multipart", part("multipart", "mixed"), {hqx, kClose},
         {"text", "", "da", "ta", "", "rsrc", ""}, 1, "data|rsrc|"},
        {"bytes, then a name", hqx, {}, {"data", "", "@r.bin"}, MIME_ENCODER_ERROR, ""},
        {"a name, then bytes", hqx, {}, {"@d.bin", "rsrc"}, MIME_ENCODER_ERROR, ""},
        {"bytes and a name in one series", hqx, {}, {"data", "@r.bin"}, MIME_ENCODER_ERROR, ""},
        {"a named file that is not there", hqx, {}, {"@none", ""}, MIME_ENCODER_ERROR, ""},
        {"stopped in the second series", hqx, {}, {"data", "", "!"}, MIME_STOPPED, ""},
    };
    for (const auto &row : rows) {
        script(row.parts, row.bodies);
        EXPECT_EQ(drive(row.top), row.status) << row.what;
        EXPECT_EQ(row.status == 1 ? forks() : "", row.forks) << row.what;
        for (const std::string &name : tw_test::list_dir(dir()))
            EXPECT_NE(name.rfind("$$$", 0), 0u) << row.what << ": " << name << " stayed";
    }
}

} // namespace
