// CRC-32 (the reflected polynomial of zlib and Ethernet), for the checksums
// of the files the service reads back. Pure and thread-safe.
#ifndef VYMM_COMMON_CRC32_H
#define VYMM_COMMON_CRC32_H

#include <stddef.h>
#include <stdint.h>

namespace android {

inline uint32_t Crc32(const void* data, size_t size, uint32_t crc = 0) {
    struct Table {
        uint32_t entries[256];
        Table() {
            for (uint32_t i = 0; i < 256; ++i) {
                uint32_t c = i;
                for (int bit = 0; bit < 8; ++bit) {
                    c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                }
                entries[i] = c;
            }
        }
    };
    static const Table table;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) {
        crc = table.entries[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    }
    return ~crc;
}

}  // namespace android

#endif
