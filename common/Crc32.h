// CRC-32 (the reflected polynomial of zlib and Ethernet), for the checksums
// of the files the service reads back. Pure and thread-safe.
#ifndef VYMM_COMMON_CRC32_H
#define VYMM_COMMON_CRC32_H

#include <stddef.h>
#include <stdint.h>

namespace android {

inline uint32_t Crc32(const void* data, size_t size, uint32_t crc = 0) {
    // Eight tables, so that the loop takes eight bytes a step (slicing by
    // eight): the worker checksums every journal record it writes.
    struct Tables {
        uint32_t entries[8][256];
        Tables() {
            for (uint32_t i = 0; i < 256; ++i) {
                uint32_t c = i;
                for (int bit = 0; bit < 8; ++bit) {
                    c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                }
                entries[0][i] = c;
            }
            for (int t = 1; t < 8; ++t) {
                for (uint32_t i = 0; i < 256; ++i) {
                    const uint32_t previous = entries[t - 1][i];
                    entries[t][i] = (previous >> 8) ^ entries[0][previous & 0xFF];
                }
            }
        }
    };
    static const Tables tables;
    const auto& t = tables.entries;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    const auto word = [](const uint8_t* p) {
        return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
               static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
    };
    crc = ~crc;
    for (; size >= 8; size -= 8, bytes += 8) {
        const uint32_t low = crc ^ word(bytes);
        const uint32_t high = word(bytes + 4);
        crc = t[7][low & 0xFF] ^ t[6][(low >> 8) & 0xFF] ^ t[5][(low >> 16) & 0xFF] ^
              t[4][low >> 24] ^ t[3][high & 0xFF] ^ t[2][(high >> 8) & 0xFF] ^
              t[1][(high >> 16) & 0xFF] ^ t[0][high >> 24];
    }
    for (; size > 0; --size, ++bytes) {
        crc = t[0][(crc ^ *bytes) & 0xFF] ^ (crc >> 8);
    }
    return ~crc;
}

}  // namespace android

#endif
