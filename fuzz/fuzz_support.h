// What the fuzz targets share: a private scratch directory for the files
// that the codecs read and write, and small file helpers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

namespace fuzz {

// Every run writes and removes files: on a disk file system the writeback
// at each close would dominate, so a tmpfs is taken where there is one.
inline const std::string &scratch() {
    // Never destroyed, so the exit handler below can still read it.
    static const std::string *dir = [] {
        const char *base = std::getenv("TMPDIR");
        if (base == nullptr || base[0] == '\0')
            base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string templ = std::string(base) + "/tarnwick-fuzz-XXXXXX";
        if (::mkdtemp(templ.data()) == nullptr)
            std::abort();
        return new std::string(templ + "/");
    }();
    static const bool cleanup = std::atexit([] {
                                    std::error_code ec;
                                    std::filesystem::remove_all(*dir, ec);
                                }) == 0;
    (void)cleanup;
    return *dir;
}

inline std::string path(const char *name) { return scratch() + name; }

inline void write_file(const std::string &p, const uint8_t *data, std::size_t size) {
    FILE *f = std::fopen(p.c_str(), "wb");
    if (f == nullptr)
        std::abort();
    if (size > 0 && std::fwrite(data, 1, size, f) != size)
        std::abort();
    std::fclose(f);
}

inline long long file_size(const std::string &p) {
    FILE *f = std::fopen(p.c_str(), "rb");
    if (f == nullptr)
        return -1;
    std::fseek(f, 0, SEEK_END);
    const long long size = std::ftell(f);
    std::fclose(f);
    return size;
}

inline std::string read_file(const std::string &p) {
    std::string out;
    FILE *f = std::fopen(p.c_str(), "rb");
    if (f == nullptr)
        return out;
    char buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
        out.append(buffer, n);
    std::fclose(f);
    return out;
}

// A broken invariant is a finding like a crash.
inline void require(bool ok, const char *what) {
    if (!ok) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

} // namespace fuzz
