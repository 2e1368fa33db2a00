// The module-wide state: the options of the application and what the last
// extraction recognised. One copy per process, all zero at load.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/platform.h"

namespace tw {

struct mime_run_state {
    int32_t user_option = 0;
    char date_override[252] = {};
    int32_t transfer_encoding = 0;
    int32_t directory_extraction_ran = 0;
    int32_t message_is_mime = 0;
    int32_t part_count = 0;
    char current_type[100] = {};
    char current_subtype[100] = {};
    char current_file_name[256] = {};
    int32_t file_name_found = 0;
    // Where the header reader copies each line it reads; null for none. A
    // pointer rather than a descriptor so that "none" can never be stdin.
    File *header_file = nullptr;
    int32_t partial_number = 0;
    int32_t partial_total = 0;
    char partial_id[128] = {};
    int32_t fragment_name_pending = 0;
    std::atomic<int32_t> mime_encoder_busy{0};
    std::atomic<int32_t> mime_decoder_busy{0};
    int32_t encoding_lines = 0;
};

mime_run_state &run_state();

// Holds a busy flag for the life of one codec call. A second caller of the
// same direction finds it taken and is refused, never made to wait.
class BusyFlag {
public:
    explicit BusyFlag(std::atomic<int32_t> &flag) : flag_(flag), taken_(flag.exchange(1) == 0) {}
    ~BusyFlag() {
        if (taken_)
            flag_.store(0);
    }
    BusyFlag(const BusyFlag &) = delete;
    BusyFlag &operator=(const BusyFlag &) = delete;
    bool taken() const { return taken_; }

private:
    std::atomic<int32_t> &flag_;
    bool taken_;
};

} // namespace tw
