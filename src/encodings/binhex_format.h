// What the BinHex 4.0 encoder and decoder share: the alphabet, the run
// marker, the banner and the CRC.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace tw::binhex {

inline constexpr char kAlphabet[65] =
    "!\"#$%&'()*+,-012345689@ABCDEFGHIJKLMNPQRSTUVXYZ[`abcdefhijklmpqr";
inline constexpr unsigned char kMarker = 0x90;
inline constexpr std::string_view kBanner = "(This file must be converted with BinHex 4.0)";

// Name length, name, version, type, creator, flags, two lengths, CRC: the
// header is the name and 22 bytes.
inline constexpr std::size_t kHeaderFixed = 22;

// The register is shifted one byte at a time: the byte that leaves the top
// decides, through this table, what is folded back in.
inline constexpr std::array<uint16_t, 256> kCrcTable = [] {
    std::array<uint16_t, 256> t{};
    for (unsigned top = 0; top < 256; ++top) {
        uint32_t r = top << 8;
        for (int bit = 0; bit < 8; ++bit) {
            r <<= 1;
            if (r & 0x10000)
                r = (r & 0xFFFF) ^ 0x1021;
        }
        t[top] = static_cast<uint16_t>(r);
    }
    return t;
}();

// Shifts a byte into the CRC register, highest bit first. The register
// holds the bytes not yet divided, so a CRC is finished by shifting two
// zero bytes through it; the result is the CRC-16 of polynomial 0x1021 and
// start value 0 that the format defines.
inline void binhex_crc_update(unsigned char byte, uint32_t *crc) {
    *crc = ((*crc << 8 | byte) & 0xFFFF) ^ kCrcTable[*crc >> 8 & 0xFF];
}

inline uint16_t binhex_crc_finish(uint32_t crc) {
    binhex_crc_update(0, &crc);
    binhex_crc_update(0, &crc);
    return static_cast<uint16_t>(crc);
}

} // namespace tw::binhex
