/*
 * Base64 by shuffles of a 128-bit register, 16 characters at a step.
 * W. Muła and D. Lemire, "Faster Base64 Encoding and Decoding Using AVX2 Instructions", ACM Transactions on
 * the Web 12 (3), 2018.
 */
#include "base64.h"

#if defined(QV_BASE64_SHUFFLES)

#include <cstring>
#include <immintrin.h>

#define WITH_SHUFFLES __attribute__((target("ssse3")))

namespace
{

WITH_SHUFFLES inline __m128i load(const void *bytes)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(bytes));
}

WITH_SHUFFLES inline void store(void *bytes, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i *>(bytes), value);
}

// Spreads twelve bytes over sixteen values of six bits.
WITH_SHUFFLES inline __m128i spread(__m128i bytes)
{
    // Three bytes a b c go into a lane of 32 bits as b a c b; the multiplications shift each value into its
    // byte.
    const __m128i lanes =
        _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    const __m128i odd =
        _mm_mulhi_epu16(_mm_and_si128(lanes, _mm_set1_epi32(0x0fc0fc00)), _mm_set1_epi32(0x04000040));
    const __m128i even =
        _mm_mullo_epi16(_mm_and_si128(lanes, _mm_set1_epi32(0x003f03f0)), _mm_set1_epi32(0x01000010));
    return _mm_or_si128(odd, even);
}

// Turns values into characters: the distance between the two depends on the range alone.
WITH_SHUFFLES inline __m128i to_symbols(__m128i values)
{
    // Range 0 for the lower-case letters, 1 to 10 for the digits, 11 and 12 for "+" and "/", 13 for the
    // capitals.
    const __m128i distances =
        _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                      '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m128i capitals = _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), values), _mm_set1_epi8(13));
    const __m128i ranges = _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(51)), capitals);
    return _mm_add_epi8(values, _mm_shuffle_epi8(distances, ranges));
}

// Turns characters into values; false when one of them has none.
WITH_SHUFFLES inline bool to_values(__m128i symbols, __m128i *values)
{
    // One bit for each set of low halves that is foreign under a high half; a character is foreign when the
    // bits of its halves meet.
    const __m128i foreign_low = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                              0x13, 0x1a, 0x1b, 0x1b, 0x1b, 0x1a);
    const __m128i foreign_high = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10,
                                               0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
    // The distance by high half; "/" shares its high half with "+" and takes the place before.
    const __m128i distances = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
    const __m128i slash = _mm_set1_epi8('/');

    // Bit 5 stays set beside the four bits; shuffles take only the lower four.
    const __m128i high = _mm_and_si128(_mm_srli_epi32(symbols, 4), slash);
    const __m128i low = _mm_and_si128(symbols, slash);
    const __m128i foreign =
        _mm_and_si128(_mm_shuffle_epi8(foreign_low, low), _mm_shuffle_epi8(foreign_high, high));
    const __m128i place = _mm_add_epi8(_mm_cmpeq_epi8(symbols, slash), high);
    *values = _mm_add_epi8(symbols, _mm_shuffle_epi8(distances, place));
    return _mm_movemask_epi8(_mm_cmpgt_epi8(foreign, _mm_setzero_si128())) == 0;
}

// Packs sixteen values into the first twelve bytes.
WITH_SHUFFLES inline __m128i pack(__m128i values)
{
    const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    return _mm_shuffle_epi8(groups, _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
}

} // namespace

WITH_SHUFFLES void qv::base64_encode_shuffled(const uint8_t *in, size_t readable, size_t blocks, char *out)
{
    for (; blocks != 0 && readable >= 16; blocks--, in += 12, readable -= 12, out += 16)
        store(out, to_symbols(spread(load(in))));
    if (blocks != 0) {
        // The input may end with this block, and a register is longer.
        int32_t upper;
        memcpy(&upper, in + 8, sizeof(upper));
        const __m128i lower = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(in));
        store(out, to_symbols(spread(_mm_unpacklo_epi64(lower, _mm_cvtsi32_si128(upper)))));
    }
}

WITH_SHUFFLES size_t qv::base64_decode_shuffled(const char *in, size_t length, uint8_t *out)
{
    size_t blocks = 0;
    __m128i values;
    for (; length >= 16 && to_values(load(in), &values); blocks++, in += 16, length -= 16, out += 12) {
        // Only twelve bytes are stored: what follows may be another's.
        const __m128i bytes = pack(values);
        memcpy(out, &bytes, 12);
    }
    return blocks;
}

#endif
