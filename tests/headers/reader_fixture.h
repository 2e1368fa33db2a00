// A message stream and a header file for the header line readers, with the
// run state's reader fields cleared before each test.
#pragma once

#include <cstring>
#include <memory>
#include <string>

#include "headers/headers.h"
#include "support/test_support.h"

namespace tw_test {

class HeaderReaderFixture : public TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        tw::mime_run_state &state = tw::run_state();
        state.current_type[0] = state.current_subtype[0] = state.current_file_name[0] = '\0';
        state.file_name_found = 0;
        state.transfer_encoding = 0;
        write_file(path("hdr"), "");
        header_file_ = tw::File::open(path("hdr"), tw::OpenMode::WriteExisting);
        ASSERT_TRUE(header_file_);
        state.header_file = &header_file_;
        desc_ = std::make_unique<mime_part_desc>();
    }
    void TearDown() override {
        tw::run_state().header_file = nullptr;
        header_file_.close();
        stream_.close();
        TempDirTest::TearDown();
    }

    // Opens `rest` as the stream that stands behind the line being read.
    tw::Stream &stream(const std::string &rest) {
        write_file(path("msg"), rest);
        stream_ = tw::Stream::open_read(path("msg"));
        EXPECT_TRUE(stream_);
        return stream_;
    }
    std::string next_line() {
        char line[tw::kHeaderLine];
        return stream_.read_line(line, sizeof line) > 0 ? std::string(line) : std::string();
    }
    std::string header_file_text() { return read_file(path("hdr")); }

    tw::mime_run_state &state() { return tw::run_state(); }
    mime_part_desc &desc() { return *desc_; }

private:
    tw::File header_file_;
    tw::Stream stream_;
    std::unique_ptr<mime_part_desc> desc_;
};

} // namespace tw_test
