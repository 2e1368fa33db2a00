// A message stream and a header file for the header line readers.
#pragma once

#include <memory>
#include <string>

#include "headers/headers.h"
#include "support/test_support.h"

namespace tw_test {

class HeaderReaderFixture : public TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        write_file(path("hdr"), "");
        header_file_ = tw::File::open(path("hdr"), tw::OpenMode::WriteExisting);
        state().header_file = &header_file_;
    }
    void TearDown() override {
        state().header_file = nullptr;
        TempDirTest::TearDown();
    }
    // `rest` as the stream behind the line being read; unread(): what is left of it.
    tw::Stream &stream(const std::string &rest) {
        write_file(path("msg"), rest);
        return stream_ = tw::Stream::open_read(path("msg"));
    }
    std::string unread() {
        std::string rest;
        for (char line[tw::kHeaderLine]; stream_.read_line(line, sizeof line) > 0;)
            rest += line;
        return rest;
    }
    std::string header_file_text() { return read_file(path("hdr")); }
    static tw::mime_run_state &state() { return tw::run_state(); }

    tw::HeaderText raw; // header text collected by a reader
    std::unique_ptr<mime_part_desc> desc = std::make_unique<mime_part_desc>();

private:
    tw::File header_file_;
    tw::Stream stream_;
};

} // namespace tw_test
