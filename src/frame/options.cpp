// mime_options and the run state it reports from.
#include <cstring>

#include "frame/frame.h"

namespace tw {

mime_run_state &run_state() {
    static mime_run_state state;
    return state;
}

namespace {

int32_t options(int32_t selector, intptr_t argument) {
    mime_run_state &rs = run_state();
    const auto sel = static_cast<uint16_t>(selector);
    if (sel < MIME_OPT_GET_USER || sel > MIME_OPT_GET_FILE_NAME)
        return MIME_ERROR;
    void *pointer = reinterpret_cast<void *>(argument);
    // Every selector but 2 and 7 reads through the argument; a null one is
    // refused instead of crashing the application.
    if (pointer == nullptr && sel != MIME_OPT_SET_USER && sel != MIME_OPT_CLEAR_DATE)
        return MIME_ERROR;
    switch (sel) {
    case MIME_OPT_GET_USER:
        *static_cast<int32_t *>(pointer) = rs.user_option;
        return MIME_OK;
    case MIME_OPT_SET_USER:
        rs.user_option = static_cast<int32_t>(argument);
        return MIME_OK;
    case MIME_OPT_GET_SUBTYPE:
        if (rs.directory_extraction_ran && rs.message_is_mime && rs.current_subtype[0] != '\0') {
            copy_bounded(static_cast<char *>(pointer), sizeof rs.current_subtype,
                         field(rs.current_subtype));
            return MIME_OK;
        }
        return MIME_OPT_NO_SUBTYPE;
    case MIME_OPT_GET_ENCODING: {
        int32_t code = MIME_OPT_ENC_NO_EXTRACTION;
        if (rs.directory_extraction_ran)
            code = rs.transfer_encoding != 0 ? rs.transfer_encoding : MIME_OPT_ENC_NOTHING;
        *static_cast<int32_t *>(pointer) = code;
        return MIME_OK;
    }
    case MIME_OPT_SET_DATE:
        copy_field(rs.date_override,
                   std::string_view(static_cast<const char *>(pointer),
                                    strnlen(static_cast<const char *>(pointer),
                                            sizeof rs.date_override - 1)));
        return MIME_OK;
    case MIME_OPT_GET_PART_COUNT:
        *static_cast<int32_t *>(pointer) = rs.part_count;
        return MIME_OK;
    case MIME_OPT_CLEAR_DATE:
        rs.date_override[0] = '\0';
        return MIME_OK;
    case MIME_OPT_GET_FILE_NAME:
        if (rs.current_file_name[0] != '\0') {
            copy_bounded(static_cast<char *>(pointer), sizeof rs.current_file_name,
                         field(rs.current_file_name));
            return MIME_OK;
        }
        return MIME_OPT_NO_FILE_NAME;
    default:
        return MIME_ERROR;
    }
}

} // namespace
} // namespace tw

extern "C" TARNWICK_API int32_t mime_options(int32_t selector, intptr_t argument,
                                             intptr_t reserved) {
    (void)reserved;
    return tw::guarded(MIME_ERROR, [&] { return tw::options(selector, argument); });
}
