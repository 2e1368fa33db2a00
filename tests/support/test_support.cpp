#include "support/test_support.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace fs = std::filesystem;

namespace tw_test {

void TempDirTest::SetUp() {
    std::string templ = (fs::temp_directory_path() / "tarnwick-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(templ.data()), nullptr);
    dir_ = templ + "/";
    old_cwd_ = fs::current_path().string();
    fs::current_path(templ);
    if (const char *state = std::getenv("XDG_STATE_HOME")) {
        had_state_ = true;
        old_state_ = state;
    }
    ::setenv("XDG_STATE_HOME", (dir_ + "state").c_str(), 1);
}

void TempDirTest::TearDown() {
    fs::current_path(old_cwd_);
    if (had_state_)
        ::setenv("XDG_STATE_HOME", old_state_.c_str(), 1);
    else
        ::unsetenv("XDG_STATE_HOME");
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

bool file_exists(const std::string &path) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

std::vector<std::string> list_dir(const std::string &dir) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string crlf(const std::string &text) {
    std::string out;
    out.reserve(text.size() + text.size() / 16);
    for (char c : text) {
        if (c == '\n')
            out += '\r';
        out += c;
    }
    return out;
}

} // namespace tw_test
