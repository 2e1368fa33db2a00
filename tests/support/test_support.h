// Fixtures and small file helpers shared by the tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace tw_test {

// Gives each test its own scratch directory, makes it the current
// directory, and points XDG_STATE_HOME into it so work files of the
// application directory stay inside. Everything goes at the end.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The scratch directory, with a closing '/'.
    const std::string &dir() const { return dir_; }
    std::string path(const std::string &name) const { return dir_ + name; }

private:
    std::string dir_;
    std::string old_cwd_;
    std::string old_state_;
    bool had_state_ = false;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool file_exists(const std::string &path);
// Names of the entries of a directory, sorted.
std::vector<std::string> list_dir(const std::string &dir);

// Turns "\n" into "\r\n" so expected messages read like the text they are.
std::string crlf(const std::string &text);

} // namespace tw_test
