/* SPDX-License-Identifier: Apache-2.0 */
// Start-code search and the length-prefixed walk, shared by the Annex B
// enumerators, the sample writer, their tests and benchmarks.  Inline so that tests can compare the vector search with
// the portable one directly (nothing here is exported).
#ifndef SORVEL_SOURCES_SVUTILITIESINTERNAL_H
#define SORVEL_SOURCES_SVUTILITIESINTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace sorvel {

inline constexpr uint8_t kFourByteStartCode[4] = {0, 0, 0, 1};

// The big-endian value of a `size`-byte prefix; above four bytes only the
// last four count.
inline uint32_t readPrefix(const uint8_t *p, int32_t size) noexcept {
    uint32_t value = 0;
    for (int32_t i = size > 4 ? size - 4 : 0; i < size; ++i) value = (value << 8) | p[i];
    return value;
}

// Walks length-prefixed units, calling visit(unitStart, unitLengthWithPrefix)
// for each; returns the count.  A unit that would take zero bytes (possible
// only with a zero-byte prefix) ends the walk, since it cannot advance it.
template <typename Visit>
inline size_t walkLengthPrefixed(const uint8_t *data, size_t length, int32_t prefixSize, Visit &&visit) noexcept {
    if (!data || length == 0 || prefixSize < 0 || static_cast<size_t>(prefixSize) > length) return 0;
    const size_t prefix = static_cast<size_t>(prefixSize);
    size_t count = 0;
    size_t position = 0;
    while (position + prefix <= length) {
        const uint64_t unit = static_cast<uint64_t>(readPrefix(data + position, prefixSize)) + prefix;
        if (unit > INT32_MAX || unit > length - position || unit == 0) break;
        visit(data + position, static_cast<size_t>(unit));
        ++count;
        position += static_cast<size_t>(unit);
    }
    return count;
}

// True when 00 00 01 starts at p.
inline bool SVIsThreeByteStartCode(const uint8_t *p) noexcept {
    return p[0] == 0 && p[1] == 0 && p[2] == 1;
}

// The first position p in [from, last] where 00 00 01 starts, or nullptr.
// The caller guarantees that last + 2 is readable.  Word at a time: a start
// code at p needs p[0] == 0, so eight positions whose bytes hold no zero
// cannot start one.
inline const uint8_t *SVFindThreeByteStartCodePortable(const uint8_t *from, const uint8_t *last) noexcept {
    const uint8_t *p = from;
    constexpr uint64_t kLow = 0x0101010101010101ull;
    constexpr uint64_t kHigh = 0x8080808080808080ull;
    while (last - p >= 7) {
        uint64_t word;
        std::memcpy(&word, p, sizeof word);
        if (((word - kLow) & ~word & kHigh) == 0) {
            p += 8;
            continue;
        }
        for (const uint8_t *end = p + 8; p < end; ++p)
            if (SVIsThreeByteStartCode(p)) return p;
    }
    for (; p <= last; ++p)
        if (SVIsThreeByteStartCode(p)) return p;
    return nullptr;
}

// The same search, 32 positions a step with SSE2 where available: a
// candidate needs a zero at p and p + 1 and 0x01 at p + 2.  Loads stay
// within [from, last + 2].
inline const uint8_t *SVFindThreeByteStartCode(const uint8_t *from, const uint8_t *last) noexcept {
#if defined(__SSE2__)
    const uint8_t *p = from;
    const __m128i zero = _mm_setzero_si128();
    const __m128i one = _mm_set1_epi8(1);
    // A step reads p .. p + 33, so it needs p + 31 <= last.
    while (last - p >= 31) {
        __m128i a0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
        __m128i a1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16));
        // Most compressed data has no zero at all in 32 bytes: one test
        // rules all 32 positions out.
        __m128i z0 = _mm_cmpeq_epi8(a0, zero);
        __m128i z1 = _mm_cmpeq_epi8(a1, zero);
        if (_mm_movemask_epi8(_mm_or_si128(z0, z1)) == 0) {
            p += 32;
            continue;
        }
        __m128i b0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 1));
        __m128i b1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 17));
        __m128i c0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 2));
        __m128i c1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 18));
        __m128i m0 = _mm_and_si128(_mm_and_si128(z0, _mm_cmpeq_epi8(b0, zero)), _mm_cmpeq_epi8(c0, one));
        __m128i m1 = _mm_and_si128(_mm_and_si128(z1, _mm_cmpeq_epi8(b1, zero)), _mm_cmpeq_epi8(c1, one));
        uint32_t mask =
            static_cast<uint32_t>(_mm_movemask_epi8(m0)) | (static_cast<uint32_t>(_mm_movemask_epi8(m1)) << 16);
        if (mask) return p + __builtin_ctz(mask);
        p += 32;
    }
    return SVFindThreeByteStartCodePortable(p, last);
#else
    return SVFindThreeByteStartCodePortable(from, last);
#endif
}

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVUTILITIESINTERNAL_H
