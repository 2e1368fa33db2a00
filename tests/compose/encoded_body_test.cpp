// Single-part messages whose body goes through an encoder on its way into
// the message file.
#include <cstring>
#include <string>

#include "frame/run_state.h"
#include "support/test_support.h"
#include "tarnwick.h"

namespace {

using tw_test::crlf;
using tw_test::list_dir;
using tw_test::read_file;

std::string g_body;
bool g_body_given = false;

int32_t body_cb(char *buffer, int32_t size, int32_t *is_file) {
    *is_file = 0;
    if (g_body_given)
        return 0;
    g_body_given = true;
    EXPECT_LE(g_body.size(), static_cast<std::size_t>(size));
    std::memcpy(buffer, g_body.data(), g_body.size());
    return static_cast<int32_t>(g_body.size());
}

class EncodedBodyTest : public tw_test::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>("Wed, 2 Jan 1980 02:03:55"), 0);
    }
    void TearDown() override {
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
        TempDirTest::TearDown();
    }

    int32_t compose(const std::string &body, const char *charset, const char *encoding) {
        g_body = body;
        g_body_given = false;
        mime_part_info info;
        std::memset(&info, 0, sizeof info);
        std::strcpy(info.charset, charset);
        std::strcpy(info.encoding, encoding);
        return create_message("Ann", "Bob", "Hello", nullptr, nullptr, &info, path("m.eml").c_str(),
                              nullptr, body_cb, nullptr, nullptr, 1, 0);
    }
};

TEST_F(EncodedBodyTest, QuotedPrintableTextMessageByteForByte) {
    ASSERT_EQ(compose("Hi there\r\n", "us-ascii", "quoted-printable"), 1);
    EXPECT_EQ(read_file(path("m.eml")), crlf("From: Bob\n"
                                             "Date: Wed, 2 Jan 1980 02:03:55\n"
                                             "To: Ann\n"
                                             "Subject: Hello\n"
                                             "MIME-VERSION: 1.0\n"
                                             "Content-type: text/plain;\n"
                                             "  charset=us-ascii\n"
                                             "Content-Transfer-Encoding: quoted-printable\n"
                                             "\n"
                                             "Hi there\n"));
    EXPECT_EQ(list_dir(dir()), std::vector<std::string>{"m.eml"}) << "the temporary file goes";
}

TEST_F(EncodedBodyTest, BodiesAreEncodedBehindTheHeader) {
    const struct {
        const char *encoding;
        std::string body, text;
    } cases[] = {
        {"quoted-printable", "caf\xE9 = ok \r\n", "caf=E9 =3D ok =0D=0A"},
        {"base64", "foobar", "Zm9vYmFy\r\n"},
        {"base64", std::string(55, '\0'), std::string(72, 'A') + "\r\nAA==\r\n"},
    };
    for (const auto &c : cases) {
        std::remove(path("m.eml").c_str());
        ASSERT_EQ(compose(c.body, "", c.encoding), 1) << c.encoding;
        const std::string message = read_file(path("m.eml"));
        const std::string header_end =
            "Content-Transfer-Encoding: " + std::string(c.encoding) + "\r\n\r\n";
        const std::size_t at = message.find(header_end);
        ASSERT_NE(at, std::string::npos) << message;
        EXPECT_EQ(message.substr(at + header_end.size()), c.text) << c.encoding;
    }
}

TEST_F(EncodedBodyTest, AnEncoderThatRefusesFailsTheMessageAndLeavesNoTemporaryFile) {
    tw::run_state().mime_encoder_busy.store(1);
    const int32_t result = compose("Hi there\r\n", "us-ascii", "base64");
    tw::run_state().mime_encoder_busy.store(0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(list_dir(dir()), std::vector<std::string>{"m.eml"});
}

} // namespace
