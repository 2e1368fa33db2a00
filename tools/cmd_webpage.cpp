// tarnwick webpage: unpacks an .mht-style message (a multipart/related web
// page, possibly inside other multiparts) into a directory and prints the
// page's path, then each file the page now links to.
#include <iostream>
#include <strings.h>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

int run_webpage(const std::vector<std::string> &args);

const Command kWebpage{"webpage", "webpage MESSAGE DIR",
                       "unpack the web page of MESSAGE (multipart/related) into DIR with its "
                       "links rewritten to the local files; print the page, then each linked file",
                       run_webpage};
Registration registration(kWebpage);

struct Pages {
    std::vector<std::string> deliveries; // of related groups (state 2 with '|' or html)
    std::string related_page;            // the first group's delivery string
    int groups = 0;
};

int32_t on_address(mime_address_lists *, intptr_t) { return 0; }

int32_t on_header(mime_part_desc *part, const char *, int32_t, intptr_t user) {
    // A related group shows its own header before its parts are walked.
    if (strncasecmp(part->content_subtype, "related", sizeof part->content_subtype) == 0)
        ++reinterpret_cast<Pages *>(user)->groups;
    return 0;
}

int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t user) {
    auto &pages = *reinterpret_cast<Pages *>(user);
    if (*state == 2)
        pages.deliveries.emplace_back(data, static_cast<std::size_t>(length));
    return 0;
}

int run_webpage(const std::vector<std::string> &args) {
    if (args.size() != 2)
        return usage_error(kWebpage, "give a MESSAGE and a DIR");
    const std::string &message = args[0];
    std::string directory = args[1];
    if (directory.find('/') == std::string::npos)
        directory = "./" + directory; // a bare name is no directory to the library
    Pages pages;
    int32_t handle = mime_extract_start(on_header, on_body, on_address, directory.c_str(),
                                        reinterpret_cast<intptr_t>(&pages));
    if (handle == 0)
        return failure("cannot start a session in " + args[1]);
    if (mime_extract_data(handle, message.c_str(), static_cast<int32_t>(message.size()), 1) != 1) {
        mime_extract_end(&handle);
        return failure("cannot read " + message);
    }
    const int32_t result = mime_extract_end(&handle);
    if (result != 1)
        return failure("the extraction failed with status " + std::to_string(result));
    // The group's delivery: the page's path, then '|' and the linked names.
    for (const std::string &delivery : pages.deliveries) {
        const std::size_t bar = delivery.find('|');
        const std::string page = delivery.substr(0, bar);
        if (!page.ends_with(".htm") && !page.ends_with(".html") && bar == std::string::npos)
            continue;
        std::cout << page << "\n";
        if (bar == std::string::npos)
            return kOk;
        const std::string folder = page.substr(0, page.find_last_of('/') + 1);
        std::set<std::string> shown;
        std::string names = delivery.substr(bar + 1);
        for (std::size_t at = 0; at <= names.size();) {
            const std::size_t comma = std::min(names.find(',', at), names.size());
            const std::string name = names.substr(at, comma - at);
            if (shown.insert(name).second)
                std::cout << folder << name << "\n";
            at = comma + 1;
        }
        return kOk;
    }
    return failure(pages.groups == 0 ? "no multipart/related web page in " + message
                                     : "the web page of " + message + " has no HTML part");
}

} // namespace
} // namespace cli
