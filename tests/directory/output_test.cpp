// The final name of an extracted file: the message's own name, the fallback
// to the number with the name's extension, and the type's extension. That
// names stay in their directory is tested end to end with the walker.
#include "directory/directory.h"

#include "directory/extract_fixture.h"

namespace {

using tw_test::write_file;

class NameOutputTest : public tw_test::ExtractTest {};

TEST_F(NameOutputTest, FinalNames) {
    struct Case {
        const char *what;
        bool name_found;
        std::string name, type, subtype;
        std::vector<std::string> existing;
        std::string expected;
        bool found_after;
        std::string name_after; // current_file_name afterwards
    } cases[] = {
        {"no name: the type's extension", false, "stale", "text", "plain", {}, "00000002.txt",
         false, ""},
        {"image/jpeg", false, "", "Image", "JPEG", {}, "00000002.jpg", false, ""},
        {"a message keeps its number", false, "", "message", "rfc822", {}, "00000002.TXT", false,
         ""},
        {"application/msword", false, "", "application", "msword", {}, "00000002.doc", false, ""},
        {"a free name", true, "a.pdf", "application", "pdf", {}, "a.pdf", true, "a.pdf"},
        {"a taken name: its extension on the number", true, "a.pdf", "application", "pdf",
         {"a.pdf"}, "00000002.pdf", true, "a.pdf"},
        {"that taken too: the type decides", true, "a.pdf", "application", "pdf",
         {"a.pdf", "00000002.pdf"}, "00000002.txt", false, "a.pdf"},
        {"a taken name without a dot", true, "readme", "text", "plain", {"readme"},
         "00000002.txt", false, "readme"},
        {"a work file's name is never taken", true, "temp.c", "text", "x-c", {}, "00000002.c",
         true, "temp.c"},
        {"control bytes become '_'", true, "a\tb.txt", "text", "plain", {}, "a_b.txt", true,
         "a\tb.txt"},
    };
    int n = 0;
    tw::mime_run_state &state = tw::run_state();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const std::string sub = fresh("n" + std::to_string(++n));
        for (const std::string &name : c.existing)
            write_file(sub + name, "old");
        std::string path = sub + "00000002.TXT";
        write_file(path, "new");
        state.file_name_found = c.name_found;
        tw::copy_field(state.current_file_name, c.name);
        tw::copy_field(state.current_type, c.type);
        tw::copy_field(state.current_subtype, c.subtype);

        tw::mime_name_output_file(path, sub.size());
        EXPECT_EQ(path, sub + c.expected);
        EXPECT_EQ(tw_test::read_file(path), "new");
        EXPECT_EQ(state.file_name_found != 0, c.found_after);
        EXPECT_EQ(tw::field(state.current_file_name), c.name_after);
        for (const std::string &name : c.existing)
            EXPECT_EQ(tw_test::read_file(sub + name), "old") << "never replaced";
    }
}

} // namespace
