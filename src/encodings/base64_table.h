// The Base64 alphabet of RFC 2045 and its reverse table, shared by the file
// codec and the encoded words of header fields.
#pragma once

#include <array>
#include <cstdint>

namespace tw {

inline constexpr char base64_alphabet[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline constexpr char base64_pad = '=';

// 7-bit character -> 6-bit value; anything outside the alphabet (the pad
// character and blanks too) holds -1 (0xFF). Nothing is skipped: callers
// mask the entry, so a foreign character becomes the value 63 and still
// takes its place in a group.
inline constexpr std::array<int8_t, 128> base64_decode_table = [] {
    std::array<int8_t, 128> t{};
    for (auto &v : t)
        v = -1;
    for (int i = 0; i < 64; ++i)
        t[static_cast<unsigned char>(base64_alphabet[i])] = static_cast<int8_t>(i);
    return t;
}();

// The 6-bit value of any byte. A byte with its top bit set is outside the
// table and counts as -1, which masks to 63 like every other foreign byte.
constexpr unsigned base64_value(unsigned char c) {
    int v = c < 128 ? base64_decode_table[c] : -1;
    return static_cast<unsigned>(v) & 63u;
}

// Full 256-entry form of base64_value for the hot decode loops.
inline constexpr std::array<uint8_t, 256> base64_value_table = [] {
    std::array<uint8_t, 256> t{};
    for (int c = 0; c < 256; ++c)
        t[static_cast<size_t>(c)] =
            static_cast<uint8_t>(base64_value(static_cast<unsigned char>(c)));
    return t;
}();

} // namespace tw
