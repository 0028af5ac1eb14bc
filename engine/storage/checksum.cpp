/*
** checksum.cpp -- CRC-32C (the Castagnoli polynomial, reflected 0x82F63B78, as iSCSI and ext4
** use it), which the files read at every open are checked with: x86-64 processors compute it
** with one instruction per 8 bytes, several times faster than zlib's CRC-32 in software, so an
** open that checks 100 MB costs milliseconds. Other processors use a table, a byte at a time.
*/
#include "internal.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace
{

constexpr std::array<uint32_t, 256> make_table()
{
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t c = i;
        for (int k = 0; k < 8; k++) {
            c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        }
        t[i] = c;
    }
    return t;
}

constexpr std::array<uint32_t, 256> TABLE = make_table();

uint32_t crc32c_table(uint32_t crc, const uint8_t *p, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        crc = TABLE[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    }
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t crc32c_sse42(uint32_t crc, const uint8_t *p, size_t n)
{
    uint64_t c = crc;
    for (; n >= 8; n -= 8, p += 8) {
        uint64_t word;
        memcpy(&word, p, 8);
        c = _mm_crc32_u64(c, word);
    }
    crc = (uint32_t)c;
    for (; n > 0; n--, p++) {
        crc = _mm_crc32_u8(crc, *p);
    }
    return crc;
}
#endif

} // namespace

uint32_t crc32c_update(uint32_t crc, const void *p, size_t n)
{
    const uint8_t *b = static_cast<const uint8_t *>(p);
#if defined(__x86_64__)
    static const bool sse42 = __builtin_cpu_supports("sse4.2");
    if (sse42) {
        return ~crc32c_sse42(~crc, b, n);
    }
#endif
    return ~crc32c_table(~crc, b, n);
}
