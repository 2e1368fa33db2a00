// Chains of mime_hdr_field, the five-chain address record, and the collected
// header text. The chain belongs to the application once it has it, so its
// parts are plain allocations that mime_FreeList takes apart.
#include "headers/headers.h"

namespace tw {

HeaderText::HeaderText(std::size_t initial_capacity) { text_.reserve(initial_capacity); }

void HeaderText::append(const char *line) { append(std::string_view(line)); }

void HeaderText::append(std::string_view bytes) {
    if (lost_)
        return;
    const std::size_t need = text_.size() + bytes.size();
    try {
        if (text_.capacity() <= need)
            text_.reserve(need + 2000);
        text_.append(bytes);
    } catch (const std::bad_alloc &) {
        // Collecting is a service to the callbacks, not a reason to give up
        // on the message: drop what there is and collect nothing more.
        std::string().swap(text_);
        lost_ = true;
    }
}

mime_hdr_field *mime_new_hdr_field(int32_t encoding) {
    auto element = std::make_unique<mime_hdr_field>();
    element->charset = new char[kCharsetWidth]();
    element->text = nullptr;
    element->encoding = encoding;
    element->next = nullptr;
    return element.release();
}

void mime_free_hdr_chain(mime_hdr_field *list) noexcept {
    while (list != nullptr) {
        mime_hdr_field *next = list->next;
        delete[] list->text;
        delete[] list->charset;
        delete list;
        list = next;
    }
}

std::string mime_join_chain_text(const mime_hdr_field *list) {
    std::string joined;
    for (; list != nullptr; list = list->next)
        if (list->text != nullptr)
            joined += list->text;
    return joined;
}

mime_address_lists mime_new_address_lists() noexcept { return mime_address_lists{}; }

void mime_free_address_lists(mime_hdr_field *to, mime_hdr_field *cc, mime_hdr_field *bcc,
                             mime_hdr_field *subject, mime_hdr_field *from) noexcept {
    mime_free_hdr_chain(to);
    mime_free_hdr_chain(cc);
    mime_free_hdr_chain(bcc);
    mime_free_hdr_chain(subject);
    mime_free_hdr_chain(from);
}

} // namespace tw

extern "C" TARNWICK_API int32_t mime_FreeList(mime_hdr_field *list) {
    tw::mime_free_hdr_chain(list);
    return MIME_OK;
}
