#include "streaming/streaming.h"

#include <cstdlib>
#include <filesystem>

#include "directory/directory.h"
#include "support/test_support.h"

namespace {

using tw_test::crlf;
using tw_test::file_exists;
using tw_test::read_file;
using tw_test::write_file;
using Strings = std::vector<std::string>;

struct Seen {
    std::string events, bytes;
    Strings headers, delivered; // delivered: file contents, or bodies in byte mode
};

Seen &seen(intptr_t user) { return *reinterpret_cast<Seen *>(user); }

int32_t on_address(mime_address_lists *, intptr_t user) {
    seen(user).events += "address,";
    return 0;
}

int32_t on_header(mime_part_desc *part, const char *text, int32_t length, intptr_t user) {
    seen(user).headers.emplace_back(text, static_cast<std::size_t>(length));
    seen(user).events += std::string(part->content_type) + "/" + part->content_subtype + ",";
    return 0;
}

int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    Seen &s = seen(user);
    if (*state != 0) {
        s.delivered.push_back(read_file(std::string(data, static_cast<std::size_t>(length))));
        s.events += "path,";
    } else if (length > 0) {
        s.bytes.append(data, static_cast<std::size_t>(length));
    } else {
        s.delivered.push_back(std::exchange(s.bytes, {}));
        s.events += "bytes,";
    }
    return 0;
}

std::string fragment(int number, int total, const std::string &body, const std::string &id = "s") {
    return crlf("From: ann@example.org\nSubject: big\nMIME-Version: 1.0\nContent-Type: message/partial; id=\"" +
                id + "\"; number=" + std::to_string(number) + "; total=" + std::to_string(total) + "\n\n") +
           body;
}

const Strings kPieces{crlf("MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"b\"\n\n--b\n"
                           "Content-Type: text/plain\n\nhello\n--b\nContent-Type: application/octet-stream; "
                           "name=\"a.bin\"\nContent-Transfer-Encoding: base64\n\n"),
                      crlf("aGk=\n--b--\n")};

struct StreamFragmentTest : tw_test::TempDirTest {
    void SetUp() override {
        TempDirTest::SetUp();
        std::filesystem::create_directory(out());
    }
    std::string out() { return dir() + "out/"; }
    // One session per fragment; by path when `by_path`, else fed in bytes.
    int32_t stream(const std::string &message, Seen &s, const char *directory = "./out", bool by_path = false) {
        int32_t handle = mime_extract_start(on_header, on_body, on_address, directory, reinterpret_cast<intptr_t>(&s));
        EXPECT_NE(handle, 0);
        if (by_path) {
            const std::string name = path("app.eml");
            write_file(name, message);
            mime_extract_data(handle, name.data(), static_cast<int32_t>(name.size()), 1);
        } else {
            mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 0);
            mime_extract_data(handle, nullptr, 0, 0);
        }
        const int32_t result = mime_extract_end(&handle);
        EXPECT_EQ(handle, 0);
        return result;
    }
    int32_t extract(const std::string &message) {
        write_file(path("one.eml"), message);
        return extract_message(path("one.eml").c_str(), [](const char *, int32_t, int32_t) { return 0; },
                               out().c_str());
    }
};

TEST_F(StreamFragmentTest, LastFragmentDeliversTheJoinedMessageInItsOwnCall) {
    for (const bool to_directory : {true, false}) {
        SCOPED_TRACE(to_directory ? "to a directory" : "as bytes");
        ::setenv("TMPDIR", dir().c_str(), 1); // without a directory the private temporary one is used
        Seen s;
        const char *directory = to_directory ? "./out" : nullptr;
        EXPECT_EQ(stream(fragment(2, 2, kPieces[1]), s, directory), MIME_FRAGMENT_STORED);
        EXPECT_EQ(s.events, "") << "nothing is told of an open set";
        EXPECT_EQ(stream(fragment(1, 2, kPieces[0]), s, directory), MIME_OK);
        const std::string kind = to_directory ? "path," : "bytes,";
        EXPECT_EQ(s.events, "address,multipart/mixed,text/plain," + kind + "application/octet-stream," + kind);
        EXPECT_EQ(s.delivered, (Strings{crlf("hello\n"), "hi"}));
        EXPECT_EQ(s.headers.at(0), crlf("From: ann@example.org\nSubject: big\nMIME-Version: 1.0\n"
                                        "Content-Type: multipart/mixed; boundary=\"b\"\n"));
        // Set 1 still holds its number while the joined message is walked.
        EXPECT_EQ(tw_test::list_dir(to_directory ? out() : tw::private_temp_directory()),
                  to_directory ? Strings({"00000002.TXT", "a.bin"}) : Strings{})
            << "index, fragments, joined file and spools are gone";
        ::unsetenv("TMPDIR");
    }
}

TEST_F(StreamFragmentTest, PathFormAndBothExtractionsShareSets) {
    Seen s;
    EXPECT_EQ(stream(fragment(1, 2, kPieces[0]), s, "./out", true), MIME_FRAGMENT_STORED);
    EXPECT_TRUE(file_exists(path("app.eml"))) << "an application's file stays";
    EXPECT_EQ(extract(fragment(2, 2, kPieces[1])), 1);
    EXPECT_TRUE(file_exists(out() + "00000000.HDR"));
    EXPECT_FALSE(file_exists(out() + "part.idx"));
    EXPECT_EQ(extract(fragment(1, 2, kPieces[0], "t")), MIME_FRAGMENT_STORED);
    EXPECT_EQ(stream(fragment(2, 2, kPieces[1], "t"), s, "./out", true), MIME_OK);
    EXPECT_TRUE(file_exists(path("app.eml")));
    EXPECT_EQ(s.delivered.back(), "hi");
}

TEST_F(StreamFragmentTest, FailedJoinsAndIndexes) {
    Seen s;
    EXPECT_EQ(stream(fragment(1, 2, kPieces[0]), s), MIME_FRAGMENT_STORED);
    const std::string index = read_file(out() + "part.idx");
    std::filesystem::remove(out() + "00000001.1");
    EXPECT_EQ(stream(fragment(2, 2, kPieces[1]), s), MIME_JOIN_ERROR);
    EXPECT_EQ(read_file(out() + "part.idx"), index) << "the failed set's record was the last";
    EXPECT_EQ(s.events, "");

    tw::File held = tw::File::open(out() + "part.idx", tw::OpenMode::UpdateExisting);
    EXPECT_EQ(stream(fragment(1, 3, "x", "u"), s), MIME_FILE_ERROR);
    EXPECT_EQ(read_file(out() + "part.idx"), index);
}

TEST_F(StreamFragmentTest, LaterFragmentsLoseA1AByteThatEndsAChunk) {
    Seen s;
    const std::string second = std::string(2047, 'b') + "\x1a" + crlf("\ntail\n");
    EXPECT_EQ(stream(fragment(2, 2, second), s), MIME_FRAGMENT_STORED);
    EXPECT_EQ(stream(fragment(1, 2, crlf("Content-Type: text/plain\n\na\x1a\n")), s), MIME_OK);
    EXPECT_EQ(s.delivered, Strings{crlf("a\x1a\n") + std::string(2047, 'b') + crlf("\ntail\n")});
}

} // namespace
