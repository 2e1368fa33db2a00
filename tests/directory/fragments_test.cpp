#include "directory/directory.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <numeric>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "directory/extract_fixture.h"

namespace {

using namespace tw_test;
using Strings = std::vector<std::string>;
using Results = std::vector<int32_t>;

struct Record {
    std::string id;
    uint32_t received, total, set;
    bool operator==(const Record &) const = default;
};

// Decoded independently of the library: 92-byte records, little-endian.
std::vector<Record> index_of(const std::string &dir) {
    const std::string bytes = read_file(dir + "part.idx");
    auto le32 = [&bytes](std::size_t at) {
        uint32_t v = 0;
        for (std::size_t i = 4; i-- > 0;)
            v = v << 8 | static_cast<unsigned char>(bytes[at + i]);
        return v;
    };
    std::vector<Record> records;
    for (std::size_t at = 0; at + 92 <= bytes.size(); at += 92)
        records.push_back(
            {std::string(&bytes[at], strnlen(&bytes[at], 80)), le32(at + 80), le32(at + 84), le32(at + 88)});
    return records;
}

std::string fragment(const std::string &id, int number, int total, const std::string &body) {
    std::string type = "Content-Type: message/partial; id=\"" + id + "\"; number=" + std::to_string(number);
    if (total > 0)
        type += ";\n total=" + std::to_string(total);
    return crlf("From: ann@example.org\nSubject: big\nMIME-Version: 1.0\n" + type + "\n\n") + body;
}

const Strings kText{crlf("MIME-Version: 1.0\nContent-Type: text/plain\n\na\n"), crlf("b\n"), crlf("c\n")};

struct FragmentTest : ExtractTest {
    std::string out = "out";
    std::string target() { return path(out) + "/"; }
    void use(const std::string &name) {
        out = name;
        fresh(out);
        g_reported.clear();
    }
    void SetUp() override {
        ExtractTest::SetUp();
        fresh(out);
    }
    int32_t store(const std::string &message) {
        write_file(path("fragment.eml"), message);
        return extract_message(path("fragment.eml").c_str(), record_file, target().c_str());
    }
    Results store_set(const std::string &id, const Strings &pieces, const std::vector<int> &order) {
        Results results;
        for (int number : order)
            results.push_back(store(fragment(id, number, static_cast<int>(pieces.size()),
                                             pieces[static_cast<std::size_t>(number - 1)])));
        return results;
    }
};

TEST_F(FragmentTest, StoredFragmentsRecordByRecord) {
    struct Arrival {
        std::string id;
        int number, total;
    };
    const std::string long_id(120, 'q');
    const struct {
        const char *name;
        std::vector<Arrival> arrivals;
        std::vector<Record> index;
        Strings fragment_files;
    } cases[] = {
        {"total on the last missing fragment only", {{"a", 1, 0}, {"a", 2, 0}, {"a", 3, 3}},
         {{"a", 3, 3, 1}}, {"00000001.1", "00000001.2", "00000001.3"}},
        {"a repeat after that never completes", {{"a", 1, 0}, {"a", 2, 0}, {"a", 3, 3}, {"a", 2, 0}},
         {{"a", 4, 3, 1}}, {"00000001.1", "00000001.2", "00000001.3"}},
        {"a set of one stays open", {{"a", 1, 1}}, {{"a", 1, 1, 1}}, {"00000001.1"}},
        {"empty ids match", {{"", 1, 4}, {"", 3, 0}}, {{"", 2, 4, 1}}, {"00000001.1", "00000001.3"}},
        {"ids match without case", {{"AbC", 1, 0}, {"aBc", 2, 5}}, {{"AbC", 2, 5, 1}}, {"00000001.1", "00000001.2"}},
        {"two sets interleaved", {{"a", 1, 3}, {"b", 2, 2}, {"a", 3, 0}}, {{"a", 2, 3, 1}, {"b", 1, 2, 2}},
         {"00000001.1", "00000001.3", "00000002.2"}},
        {"an overlong id is cut alike for storing and comparing",
         {{long_id, 1, 3}, {long_id.substr(0, 79) + "different tail", 2, 0}},
         {{long_id.substr(0, 79), 2, 3, 1}}, {"00000001.1", "00000001.2"}},
        {"numbers are not cut to another fragment's", {{"a", 1001, 2000}, {"a", 100, 0}},
         {{"a", 2, 2000, 1}}, {"00000001.100", "00000001.1001"}},
        {"a fragment without a number is kept as 0", {{"a", 0, 2}}, {{"a", 1, 2, 1}}, {"00000001.0"}},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        use("out" + std::to_string(n++));
        for (const Arrival &a : c.arrivals)
            EXPECT_EQ(store(fragment(a.id, a.number, a.total, crlf("body\n"))), 21);
        EXPECT_EQ(index_of(target()), c.index);
        EXPECT_EQ(read_file(target() + "part.idx").size(), 92 * c.index.size());
        EXPECT_EQ(list_dir(target()).size(), c.fragment_files.size() + 1);
        for (const std::string &name : c.fragment_files)
            EXPECT_EQ(read_file(target() + name).substr(0, 5), "From:") << name;
        EXPECT_TRUE(g_reported.empty()) << "nothing is told of an open set";
    }
}

// Every arrival order joins in number order. The merged header: the outer lines but the
// message/partial ones and MIME-Version, then the inner Content-* lines and MIME-Version.
TEST_F(FragmentTest, JoinedMessagesOfEachKind) {
    const std::string mv = "MIME-Version: 1.0\n", b64 = "Content-Transfer-Encoding: base64\n";
    const struct {
        const char *name;
        std::string inner;
        const char *dropped;
        Strings bodies;
        std::vector<Reported> reports;
        std::string text, second; // the .HDR or text file without CRs; the body file
    } cases[] = {
        {"plain text", mv + "Content-Type: text/plain; charset=us-ascii\n", "X-Dropped: 1\n",
         {"Hello\n", "world\n"}, {{"00000000.txt", 0, 2}}, "Hello\nworld\n", ""},
        {"later fragments lose a leading blank line", "Content-Type: text/plain\n", "",
         {"one\n", "two\n", "\nthree\n"}, {{"00000000.txt", 0, 2}}, "one\ntwo\nthree\n", ""},
        {"base64 text, each fragment decoded by itself", mv + "Content-Type: text/plain\n" + b64, "",
         {"SGVs\nbG8g\n", "d29y\nbGQ=\n"}, {{"00000000.txt", 0, 2}}, "Hello world", ""},
        {"quoted-printable text", mv + "Content-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n", "",
         {"caf=E9 au=\n", " lait\n"}, {{"00000000.txt", 0, 2}}, "caf\xE9 au lait\n", ""},
        {"a named attachment", mv + "Content-Type: application/octet-stream\n" + b64,
         "Content-Disposition: attachment; filename=\"../data.bin\"\n", {"AAEC\n", "/w==\n"},
         {{"00000000.HDR", 0, 0}, {"data.bin", 0, 22}}, "", std::string("\0\1\2\xFF", 4)},
        // Set 1's fragment files still exist during the join, so number 2 is next.
        {"an image without a name", mv + "Content-Type: image/gif\n" + b64, "", {"R0lG\n", "ODlh\n"},
         {{"00000000.HDR", 0, 0}, {"00000002.gif", 0, 11}}, "", "GIF89a"},
        {"a multipart stays one body", mv + "Content-Type: multipart/mixed; boundary=\"b\"\n", "",
         {"--b\n\nx\n", "--b--\n"}, {{"00000000.HDR", 0, 0}, {"00000002.TXT", 0, 23}}, "", crlf("--b\n\nx\n--b--\n")},
        {"uuencode over fragment boundaries",
         mv + "Content-Type: application/octet-stream\nContent-Transfer-Encoding: x-uuencode\n", "",
         {"begin 644 hi.txt\n#:&D*\n", "`\nend\n"}, {{"00000000.HDR", 0, 0}, {"00000002.txt", 0, 22}}, "", "hi\n"},
    };
    int n = 0;
    for (const auto &c : cases) {
        Strings pieces{crlf(c.inner + c.dropped + "\n" + c.bodies[0])};
        for (std::size_t i = 1; i < c.bodies.size(); ++i)
            pieces.push_back(crlf(c.bodies[i]));
        std::vector<int> order(pieces.size());
        std::iota(order.begin(), order.end(), 1);
        Results results(pieces.size(), 21);
        results.back() = 1;
        do {
            SCOPED_TRACE(c.name + std::string(", arriving as ") + testing::PrintToString(order));
            use("kind" + std::to_string(n++));
            EXPECT_EQ(store_set("k", pieces, order), results);
            EXPECT_EQ(reported(out), c.reports);
            const std::string header = crlf("From: ann@example.org\nSubject: big\n" + c.inner + "\n\n");
            std::map<std::string, std::string> expected{{c.reports[0].name, header + crlf(c.text)}};
            if (c.reports.size() > 1)
                expected[c.reports[1].name] = c.second;
            EXPECT_EQ(files(out), expected) << "index and fragments go";
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST_F(FragmentTest, ExtractMessageXKeepsFragmentsInTheApplicationDirectory) {
    auto feed = [&](int number) {
        const std::string message = fragment("x", number, 2, kText[static_cast<std::size_t>(number - 1)]);
        EXPECT_EQ(extract_message_x(message.data(), static_cast<int32_t>(message.size()), nullptr, nullptr), 1);
        return extract_message_x(nullptr, 0, record_file, record_bytes);
    };
    EXPECT_EQ(feed(2), 21);
    const std::string app = tw::application_directory();
    EXPECT_EQ(index_of(app), (std::vector<Record>{{"x", 1, 2, 1}}));
    EXPECT_EQ(feed(1), 1);
    ASSERT_EQ(g_reported.size(), 1u);
    EXPECT_EQ(g_reported[0], Reported("", 0, 2));
    EXPECT_EQ(g_reported[0].bytes, crlf("From: ann@example.org\nSubject: big\nMIME-Version: 1.0\n"
                                                 "Content-Type: text/plain\n\n\na\nb\n"));
    EXPECT_TRUE(list_dir(app).empty()) << "nothing outlives the call";
}

TEST_F(FragmentTest, FailedJoinsAndPlantedLinks) {
    // The failed set's record was the last, so the old index stays beside "part.id$".
    EXPECT_EQ(store_set("m", kText, {1, 2}), (Results{21, 21}));
    const std::string old_index = read_file(target() + "part.idx");
    std::filesystem::remove(target() + "00000001.2");
    EXPECT_EQ(store_set("m", kText, {3}), (Results{0}));
    EXPECT_EQ(read_file(target() + "part.idx"), old_index);
    EXPECT_EQ(list_dir(target()), (Strings{"part.id$", "part.idx"}));
    EXPECT_TRUE(g_reported.empty());

    use("links");
    write_file(path("victim"), "precious");
    auto plant = [&](std::initializer_list<const char *> names) {
        for (const char *name : names)
            std::filesystem::create_symlink(path("victim"), target() + name);
    };
    plant({"part.id$", "tmp.c"});
    EXPECT_EQ(store_set("n", kText, {1}), (Results{21}));
    plant({"part.id$", "00000001.2", "00000001.3"});
    EXPECT_EQ(store_set("n", kText, {3, 2}), (Results{21, 1}));
    EXPECT_EQ(read_file(path("victim")), "precious");
    EXPECT_EQ(list_dir(target()), Strings{"00000000.txt"});

    use("linked-index");
    plant({"part.idx"});
    EXPECT_EQ(store(fragment("o", 1, 2, "x")), 0);
    EXPECT_EQ(read_file(path("victim")), "precious");
}

TEST_F(FragmentTest, CorruptIndexIsReadWithinItsRecords) {
    // An id without a NUL, a total a loop would never reach, a short trailing record.
    std::string raw(80, 'z');
    for (uint32_t v : {1999999999u, 2000000000u, 7u})
        for (int i = 0; i < 4; ++i)
            raw += static_cast<char>(v >> (8 * i));
    write_file(target() + "part.idx", raw + std::string(50, '\xEE'));
    EXPECT_EQ(store(fragment(std::string(79, 'z'), 1, 2, crlf("x\n"))), 0);
    EXPECT_FALSE(file_exists(target() + "00000007.1")) << "the failed join removes the set";

    write_file(target() + "part.idx", raw + std::string(50, '\xEE'));
    EXPECT_EQ(store(fragment("../../evil/", 1, 0, crlf("x\n"))), 21);
    EXPECT_EQ(index_of(target()),
              (std::vector<Record>{{std::string(80, 'z'), 1999999999u, 2000000000u, 7}, {"../../evil/", 1, 0, 1}}));
    EXPECT_EQ(read_file(target() + "part.idx").size(), 184u) << "the partial tail is dropped";
    EXPECT_TRUE(file_exists(target() + "00000001.1"));
}

TEST_F(FragmentTest, TheIndexSurvivesKillsFailedWritesAndLocks) {
    store_set("keep", {kText[0], kText[1]}, {1});
    const std::string before = read_file(target() + "part.idx");

    const pid_t child = fork();
    if (child == 0) {
        tw::mime_fragment_index_hook = [] { std::raise(SIGKILL); };
        store(fragment("other", 1, 2, "x"));
        _exit(0);
    }
    int wstatus = 0;
    ASSERT_EQ(waitpid(child, &wstatus, 0), child);
    ASSERT_TRUE(WIFSIGNALED(wstatus));
    EXPECT_EQ(read_file(target() + "part.idx"), before);
    EXPECT_TRUE(file_exists(target() + "part.id$")) << "stale, for the next run to replace";

    rlimit old_limit{};
    getrlimit(RLIMIT_FSIZE, &old_limit);
    const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = old_limit;
    small.rlim_cur = 100;
    setrlimit(RLIMIT_FSIZE, &small);
    const int32_t limited = store(fragment("third", 1, 2, "x"));
    setrlimit(RLIMIT_FSIZE, &old_limit);
    std::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(limited, 0);
    EXPECT_EQ(read_file(target() + "part.idx"), before);

    {
        tw::File held = tw::File::open(target() + "part.idx", tw::OpenMode::UpdateExisting);
        ASSERT_TRUE(held);
        EXPECT_EQ(store_set("keep", {kText[0], kText[1]}, {2}), (Results{0}));
    }
    EXPECT_EQ(read_file(target() + "part.idx"), before);
    EXPECT_EQ(store_set("keep", {kText[0], kText[1]}, {2}), (Results{1}));
    // The killed run had copied its fragment already: a file without a record.
    EXPECT_EQ(list_dir(target()), (Strings{"00000000.txt", "00000002.1"}));
}

} // namespace
