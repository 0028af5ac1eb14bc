/*
** checksum.cpp -- CRC-32C (the Castagnoli polynomial, reflected 0x82F63B78, as iSCSI and ext4
** use it), which the files read at every open are checked with: x86-64 processors compute it
** with one instruction per 8 bytes, several times faster than zlib's CRC-32 in software, and
** three such runs at once over a long buffer (crc32c_sse42), so an open that checks 100 MB costs
** milliseconds. Other processors use a table, a byte at a time.
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
/* The instruction takes three cycles and can start one each cycle, so three independent runs over
** three consecutive lanes of a block go three times as fast as one run. A CRC is linear: the
** register after lanes A, B, C from c is Z2(crc(c, A)) ^ Z1(crc(0, B)) ^ crc(0, C), where Zk is
** what k lanes of zero bytes do to a register. */
constexpr size_t LANE = 4096;

uint64_t word_at(const uint8_t *p)
{
    uint64_t word;
    memcpy(&word, p, 8);
    return word;
}

/* A linear map of registers, a byte at a time: the image of c is t[0][byte 0] ^ ... ^ t[3][byte
** 3]. */
struct Shift {
    uint32_t t[4][256];

    uint32_t operator()(uint32_t c) const
    {
        return t[0][c & 0xFF] ^ t[1][(c >> 8) & 0xFF] ^ t[2][(c >> 16) & 0xFF] ^ t[3][c >> 24];
    }
};

struct Shifts {
    Shift one, two; /* one lane of zeros, two lanes */
};

__attribute__((target("sse4.2"))) uint32_t zeros(uint32_t crc, size_t n)
{
    uint64_t c = crc;
    for (size_t i = 0; i < n; i += 8) {
        c = _mm_crc32_u64(c, 0);
    }
    return (uint32_t)c;
}

/* Each table from the images of the 32 one-bit registers. */
Shift shift_of(size_t bytes)
{
    uint32_t image[32];
    for (int b = 0; b < 32; b++) {
        image[b] = zeros(1u << b, bytes);
    }
    Shift s;
    for (int k = 0; k < 4; k++) {
        s.t[k][0] = 0;
        for (uint32_t v = 1; v < 256; v++) {
            s.t[k][v] = s.t[k][v & (v - 1)] ^ image[8 * k + __builtin_ctz(v)];
        }
    }
    return s;
}

const Shifts &shifts()
{
    static const Shifts s = {shift_of(LANE), shift_of(2 * LANE)};
    return s;
}

__attribute__((target("sse4.2"))) uint32_t crc32c_sse42(uint32_t crc, const uint8_t *p, size_t n)
{
    uint64_t c = crc;
    if (n >= 3 * LANE) {
        const Shifts &z = shifts();
        for (; n >= 3 * LANE; n -= 3 * LANE, p += 3 * LANE) {
            uint64_t c1 = 0, c2 = 0;
            for (size_t i = 0; i < LANE; i += 8) {
                c = _mm_crc32_u64(c, word_at(p + i));
                c1 = _mm_crc32_u64(c1, word_at(p + LANE + i));
                c2 = _mm_crc32_u64(c2, word_at(p + 2 * LANE + i));
            }
            c = z.two((uint32_t)c) ^ z.one((uint32_t)c1) ^ (uint32_t)c2;
        }
    }
    for (; n >= 8; n -= 8, p += 8) {
        c = _mm_crc32_u64(c, word_at(p));
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
