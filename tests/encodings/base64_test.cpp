#include <csignal>
#include <tuple>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "encodings/codec_fixture.h"
#include "frame/run_state.h"

namespace {

using namespace tw_test;

using Base64Test = CodecTest;

// 54 bytes to a line of 72 characters, the last one padded, every line in
// CR LF, appended to the target; the result counts the lines, also when
// there is no target.
TEST_F(Base64Test, LinesOf72AppendedAndCounted) {
    for (std::size_t n : {0, 1, 2, 53, 54, 55, 13825}) {
        std::string text = "old\r\n";
        for (std::size_t left = n, k; left > 0; left -= k) {
            k = std::min<std::size_t>(left, 54);
            for (std::size_t g = 0; g < k / 3; ++g)
                text += "YWFh";
            text += std::string(k % 3 == 1 ? "YQ==" : k % 3 == 2 ? "YWE=" : "") + "\r\n";
        }
        const auto lines = static_cast<int32_t>((n + 53) / 54);
        const Run r = run(B64Enc, std::string(n, 'a'), "old\r\n");
        EXPECT_EQ(r.result, lines) << n;
        EXPECT_EQ(r.output, text) << n;
        EXPECT_EQ(base64_encode(path("in").c_str(), nullptr), lines) << n;
    }
}

// Both decoders on a body without a boundary: the file form stops at the
// first padded group, the message form goes on behind it unless a blank line
// follows. Both append to the target.
TEST_F(Base64Test, DecodingRules) {
    const std::tuple<const char *, std::string, std::string, std::string, std::string> cases[] = {
        // what, input, file form, message form, rest of the stream
        {"padding in the middle", "QUJD\r\nRA==\r\nRUZH\r\n", "ABCD", "ABCDEFG", ""},
        {"blank line without padding", "QUJD\r\n\r\nRUZH\r\n", "ABCEFG", "ABCEFG", ""},
        {"padding and a blank line end the part", "RA==\r\n\r\nRUZH\r\n", "D", "D", "RUZH\r\n"},
        {"text behind padding on its line", "RA==QUJD\r\nRUZH", "D", "DEFG", ""},
        {"group completed from the next line", "QUJDR\r\nEVG\r\n", "ABCDEF", "ABCDEF", ""},
        {"completion reads no more than needed", "QUJDREV\r\nGQUJD", "ABCDEFABC", "ABCDEFABC", ""},
        {"padding on the line: no completing read", "QUJDRE=\r\nQUJD\r\n", "ABCD", "ABCDABC", ""},
        {"padding brought by completion", "QUJDRA\r\n==\r\nQUJD\r\n", "ABCD", "ABCD", "QUJD\r\n"},
        {"end of input drops a lone character", "QUJDR", "ABC", "ABC", ""},
        {"end of input keeps whole bytes", "QUJDREU", "ABCDE", "ABCDE", ""},
        {"a blank is the value 63", "QU D", "AO\xC3", "AO\xC3", ""},
        {"'=' in a first place is 63", "=QUJ\r\nQQ==", "\xFD\x05\tA", "\xFD\x05\tA", ""},
        {"an 8-bit byte is 63", "\xC3QUJ", "\xFD\x05\t", "\xFD\x05\t", ""},
    };
    for (const auto &[what, in, file, message, rest] : cases) {
        EXPECT_EQ(run(B64Dec, in, "old").output, "old" + file) << what;
        const Run s = run(B64Stream, in, "old");
        EXPECT_EQ(s.output, "old" + message) << what;
        EXPECT_EQ(s.rest, rest) << what;
    }
}

// At most 77 data characters: 78 bytes always pass, 79 only when the last
// two are both line-end bytes. A refused line loses what was pending.
TEST_F(Base64Test, LineLengthLimit) {
    const std::string q(79, 'Q');
    for (const auto &[line, result] :
         {std::pair{q.substr(1), 1}, {q.substr(2) + "\r\r", 1}, {q.substr(1) + "\n", 0}, {q, 0}}) {
        EXPECT_EQ(run(B64Dec, "QUJD\r\n" + line).output.substr(0, 3), result ? "ABC" : "") << line;
        EXPECT_EQ(run(B64Stream, "QUJD\r\n" + line).result, result) << line;
    }
}

// A boundary line ends the message form, case-sensitively, even behind a
// padded group, and the stream stays at its first byte. The length test
// comes first: an overlong boundary line fails the part.
TEST_F(Base64Test, StreamStopsAtTheBoundaryLine) {
    EXPECT_EQ(run(B64Stream, "QUJD\r\nRUZH\r\n--b\r\nQUJD\r\n").rest, "--b\r\nQUJD\r\n");
    const Run padded = run(B64Stream, "RA==\r\n--b--\r\n");
    EXPECT_EQ(padded.output + "|" + padded.rest, "D|--b--\r\n");
    EXPECT_EQ(run(B64Stream, "QUJD\r\n--B\r\n").output, "ABC\xFF\xF0");
    const std::string mark = "--" + std::string(80, 'x');
    boundary = mark.c_str();
    EXPECT_EQ(run(B64Stream, "QUJD\r\n" + mark + "\r\n").result, 0);
}

// Every codec gives its failure result when another caller holds the flag of
// its direction (which stays held), not the other one; when the source is
// missing; and when the target takes no byte (a file-size limit: CI runs as
// root), after which uudecode removes its target. The limit is set in a
// child process so that it stays there.
TEST_F(Base64Test, BusyFlagsAndFailures) {
    write_file(path("in"), "begin 644 x\r\n#86)C\r\n`\r\nend\r\n"); // fits every decoder
    auto &state = tw::run_state();
    for (int i = B64Enc; i <= UuStream; ++i) {
        const auto codec = static_cast<Codec>(i);
        auto &flag = i < B64Dec ? state.mime_encoder_busy : state.mime_decoder_busy;
        auto &other = i < B64Dec ? state.mime_decoder_busy : state.mime_encoder_busy;
        other.store(1);
        EXPECT_NE(call(codec, path("in"), path("out" + std::to_string(i))), failure(i)) << i;
        other.store(0);
        flag.store(1);
        EXPECT_EQ(call(codec, path("in"), path("busy")), failure(i)) << i;
        EXPECT_EQ(flag.exchange(0), 1) << "codec " << i << " cleared a flag it did not take";
        if (i < B64Stream) {
            EXPECT_EQ(call(codec, path("none"), path("busy")), failure(i)) << i;
        }
    }
    EXPECT_FALSE(file_exists(path("busy")));

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit limit{0, 0};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
        for (int i = B64Enc; i <= UuStream; ++i) {
            const std::string target = path("full" + std::to_string(i));
            if (call(static_cast<Codec>(i), path("in"), target) != failure(i) ||
                ((i == UuDec || i == UuStream) && file_exists(target)))
                ::_exit(i + 1);
        }
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "codec " << WEXITSTATUS(status) - 1;
}

} // namespace
