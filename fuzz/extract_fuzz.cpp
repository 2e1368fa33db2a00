// extract_message on any bytes as a message file: it returns 1, 0 or 21,
// every file it reports lies in the target directory, nothing is made
// outside it and no work file stays. extract_message_x, fed the same bytes
// in two pieces, reports the same levels, types and contents and leaves its
// work directory empty.
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tarnwick.h"

namespace {

struct Report {
    std::string name;
    int32_t level, type;
    std::string bytes;
};
std::vector<Report> g_reports;

int32_t on_file(const char *name, int32_t level, int32_t type) {
    g_reports.push_back({name, level, type, {}});
    return 0;
}

int32_t on_bytes(const char *data, int32_t length) {
    fuzz::require(!g_reports.empty() && length >= 0, "bytes before a report");
    g_reports.back().bytes.append(data, static_cast<std::size_t>(length));
    return 0;
}

void empty_directory(const std::string &dir) {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir, ec);
}

std::size_t entries(const std::string &dir) {
    std::error_code ec;
    std::size_t n = 0;
    for (auto it = std::filesystem::directory_iterator(dir, ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool state_set = [] {
        // The work directory of extract_message_x goes into the scratch.
        ::setenv("XDG_STATE_HOME", fuzz::path("state").c_str(), 1);
        return true;
    }();
    (void)state_set;
    const std::string message = fuzz::path("m.eml");
    const std::string out = fuzz::path("out/");
    fuzz::write_file(message, data, size);
    empty_directory(out);

    g_reports.clear();
    const int32_t result = extract_message(message.c_str(), on_file, out.c_str());
    fuzz::require(result == 0 || result == 1 || result == MIME_FRAGMENT_STORED, "result");
    std::vector<Report> direct = g_reports;
    for (Report &r : direct) {
        fuzz::require(r.name.compare(0, out.size(), out) == 0 &&
                          r.name.find('/', out.size()) == std::string::npos,
                      "a reported file outside the directory");
        fuzz::require(std::filesystem::exists(r.name), "a reported file is missing");
        r.bytes = fuzz::read_file(r.name);
    }
    fuzz::require(!std::filesystem::exists(out + "temp.c"), "the work file stays");
    // The scratch holds the message, the directory and the state, nothing else.
    fuzz::require(entries(fuzz::scratch()) <= 3, "a file outside the directory");

    // Nothing fed is nothing spooled: extract_message_x has no message then.
    if (size == 0)
        return 0;
    const std::size_t half = size / 2;
    g_reports.clear();
    fuzz::require(half == 0 || extract_message_x(reinterpret_cast<const char *>(data),
                                                 static_cast<int32_t>(half), nullptr,
                                                 nullptr) == 1,
                  "spooling failed");
    fuzz::require(size - half == 0 ||
                      extract_message_x(reinterpret_cast<const char *>(data) + half,
                                        static_cast<int32_t>(size - half), nullptr, nullptr) == 1,
                  "spooling failed");
    const int32_t x_result = extract_message_x(nullptr, 0, on_file, on_bytes);
    fuzz::require(x_result == result, "the two exports disagree on the result");
    fuzz::require(g_reports.size() == direct.size(), "the two exports report different files");
    for (std::size_t i = 0; i < direct.size(); ++i) {
        fuzz::require(g_reports[i].level == direct[i].level && g_reports[i].type == direct[i].type,
                      "the two exports report different levels or types");
        fuzz::require(g_reports[i].bytes == direct[i].bytes, "the two exports differ in bytes");
    }
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(fuzz::path("state"), ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
        // The text file of a plain message whose first item is no text is
        // never reported, and stays where it was written.
        fuzz::require(it->is_directory() || it->path().filename() == "MESSAGE.$$$",
                      "extract_message_x left a file behind");
    return 0;
}
