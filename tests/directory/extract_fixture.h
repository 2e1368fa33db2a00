// A recording extract_callback and extract_sink, and a fixture that extracts
// a message into a fresh directory and reads back what is left there.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tarnwick.h"

#include "support/test_support.h"

namespace tw_test {

struct Reported {
    Reported(std::string n, int32_t l, int32_t t) : name(std::move(n)), level(l), type(t) {}
    bool operator==(const Reported &o) const {
        return name == o.name && level == o.level && type == o.type;
    }
    friend std::ostream &operator<<(std::ostream &out, const Reported &r) {
        return out << "(" << r.name << ", " << r.level << ", " << r.type << ")";
    }
    std::string name;
    int32_t level, type;
    std::string bytes;  // what the sink received for the file
    bool ended = false; // the sink heard its closing call of length 0
};

inline std::vector<Reported> g_reported;
inline std::size_t g_stop_at = static_cast<std::size_t>(-1); // report whose bytes get -1

inline int32_t record_file(const char *name, int32_t level, int32_t type) {
    g_reported.emplace_back(name, level, type);
    return 0;
}

inline int32_t record_bytes(const char *data, int32_t length) {
    if (g_reported.empty() || g_reported.size() - 1 == g_stop_at)
        return -1;
    EXPECT_FALSE(g_reported.back().ended) << "bytes after the end";
    g_reported.back().ended = length == 0;
    g_reported.back().bytes.append(data, static_cast<std::size_t>(length));
    return 0;
}

class ExtractTest : public TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        g_reported.clear();
        g_stop_at = static_cast<std::size_t>(-1);
    }

    std::string fresh(const std::string &name) {
        std::filesystem::create_directories(path(name));
        return path(name) + "/";
    }

    int32_t extract(const std::string &message, const std::string &out = "out") {
        write_file(path("message.eml"), message);
        return extract_message(path("message.eml").c_str(), record_file, fresh(out).c_str());
    }

    // The reports, named relative to the directory `out`.
    std::vector<Reported> reported(const std::string &out = "out") const {
        std::vector<Reported> calls = g_reported;
        for (Reported &r : calls)
            if (r.name.rfind(path(out) + "/", 0) == 0)
                r.name.erase(0, path(out).size() + 1);
        return calls;
    }

    std::map<std::string, std::string> files(const std::string &out = "out") const {
        std::map<std::string, std::string> all;
        for (const std::string &name : list_dir(path(out)))
            all[name] = read_file(path(out) + "/" + name);
        return all;
    }
};

} // namespace tw_test
