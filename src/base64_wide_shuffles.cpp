/*
 * Base64 by shuffles of wide registers, 32 or 64 characters at a step.
 * W. Muła and D. Lemire, "Faster Base64 Encoding and Decoding Using AVX2 Instructions", ACM Transactions on
 * the Web 12 (3), 2018, and "Base64 encoding and decoding at almost the speed of a memory copy", Software:
 * Practice and Experience 50 (2), 2020.
 */
#include "base64.h"

#if defined(QV_BASE64_WIDE_SHUFFLES)

#include <array>
#include <immintrin.h>

#define WITH_32 __attribute__((target("avx2")))
#define WITH_64 __attribute__((target("avx512f,avx512bw,avx512vbmi")))

namespace
{

// ---- 32 characters: as with 16, in two lanes. The remarks of base64_shuffles.cpp hold here, too.

WITH_32 inline __m256i twice(__m128i lane)
{
    return _mm256_broadcastsi128_si256(lane);
}

WITH_32 inline __m128i load_lane(const void *bytes)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(bytes));
}

// Loads 12 bytes into each lane, and four that are not used.
WITH_32 inline __m256i load_lanes(const uint8_t *in)
{
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load_lane(in)), load_lane(in + 12), 1);
}

WITH_32 inline __m256i spread_32(__m256i bytes)
{
    const __m256i order = twice(_mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    const __m256i lanes = _mm256_shuffle_epi8(bytes, order);
    const __m256i odd = _mm256_mulhi_epu16(_mm256_and_si256(lanes, _mm256_set1_epi32(0x0fc0fc00)),
                                           _mm256_set1_epi32(0x04000040));
    const __m256i even = _mm256_mullo_epi16(_mm256_and_si256(lanes, _mm256_set1_epi32(0x003f03f0)),
                                            _mm256_set1_epi32(0x01000010));
    return _mm256_or_si256(odd, even);
}

WITH_32 inline __m256i to_symbols_32(__m256i values)
{
    const __m256i distances =
        twice(_mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                            '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0));
    const __m256i capitals =
        _mm256_and_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(26), values), _mm256_set1_epi8(13));
    const __m256i ranges = _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(51)), capitals);
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(distances, ranges));
}

WITH_32 inline bool to_values_32(__m256i symbols, __m256i *values)
{
    const __m256i foreign_low = twice(_mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                                    0x11, 0x13, 0x1a, 0x1b, 0x1b, 0x1b, 0x1a));
    const __m256i foreign_high = twice(_mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10,
                                                     0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10));
    const __m256i distances = twice(_mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0));
    const __m256i slash = _mm256_set1_epi8('/');

    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(symbols, 4), slash);
    const __m256i low = _mm256_and_si256(symbols, slash);
    const __m256i place = _mm256_add_epi8(_mm256_cmpeq_epi8(symbols, slash), high);
    *values = _mm256_add_epi8(symbols, _mm256_shuffle_epi8(distances, place));
    return _mm256_testz_si256(_mm256_shuffle_epi8(foreign_low, low),
                              _mm256_shuffle_epi8(foreign_high, high)) != 0;
}

// Packs the values of each lane and puts the 24 bytes side by side.
WITH_32 inline __m256i pack_32(__m256i values)
{
    const __m256i order = twice(_mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    return _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(groups, order),
                                       _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
}

// ---- 64 characters: each table fits into a register or two, so that a shuffle is a look-up.

constexpr uint8_t foreign = 0x80;
constexpr __mmask64 first_48 = 0xffffffffffff, all_64 = ~__mmask64{0};

struct register_tables {
    alignas(64) std::array<char, 64> symbols = {};
    alignas(64) std::array<uint8_t, 128> values = {}; // of the characters below 128; foreign for others
    alignas(64) std::array<uint8_t, 64> spread = {};  // three bytes a b c as b a c b, as with 16 characters
    alignas(64) std::array<uint8_t, 64> pack = {};
};

constexpr register_tables make_register_tables()
{
    register_tables tables;
    tables.values.fill(foreign);
    for (uint8_t value = 0; value < 64; value++) {
        const char symbol = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[value];
        tables.symbols[value] = symbol;
        tables.values[static_cast<uint8_t>(symbol)] = value;
    }
    for (uint8_t group = 0; group < 16; group++) {
        const uint8_t in_three[] = {1, 0, 2, 1}, in_four[] = {2, 1, 0};
        for (uint8_t i = 0; i < 4; i++)
            tables.spread[size_t{4} * group + i] = static_cast<uint8_t>(3 * group + in_three[i]);
        for (uint8_t i = 0; i < 3; i++)
            tables.pack[size_t{3} * group + i] = static_cast<uint8_t>(4 * group + in_four[i]);
    }
    return tables;
}

constexpr register_tables tables = make_register_tables();

template <typename Byte> WITH_64 inline __m512i load_table(const std::array<Byte, 64> &table)
{
    return _mm512_load_si512(table.data());
}

// g++ 12 takes fright at the unused operand of forms without a mask (GCC bug 105593).
WITH_64 inline __m512i look_up(__m512i table, __m512i places)
{
    return _mm512_maskz_permutexvar_epi8(all_64, places, table);
}

} // namespace

WITH_32 size_t qv::base64_encode_by_32(const uint8_t *in, size_t length, char *out)
{
    size_t blocks = 0;
    for (; length >= 28; blocks++, in += 24, length -= 24, out += 32)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), to_symbols_32(spread_32(load_lanes(in))));
    return blocks;
}

WITH_32 size_t qv::base64_decode_by_32(const char *in, size_t length, uint8_t *out)
{
    size_t blocks = 0;
    __m256i values;
    for (; length >= 32; blocks++, in += 32, length -= 32, out += 24) {
        if (!to_values_32(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in)), &values))
            break;
        const __m256i bytes = pack_32(values);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm256_castsi256_si128(bytes));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(out + 16), _mm256_extracti128_si256(bytes, 1));
    }
    return blocks;
}

WITH_64 size_t qv::base64_encode_by_64(const uint8_t *in, size_t length, char *out)
{
    // For each of eight values the lowest bit of its eight within a lane of 64.
    const __m512i shifts = _mm512_set1_epi64(0x3036242a1016040a);
    const __m512i spread = load_table(tables.spread), symbols = load_table(tables.symbols);
    size_t blocks = 0;
    for (; length >= 48; blocks++, in += 48, length -= 48, out += 64) {
        const __m512i bytes = _mm512_maskz_loadu_epi8(first_48, in);
        const __m512i lanes = look_up(bytes, spread);
        // Two bits too many for a value, which the look-up passes over.
        const __m512i values = _mm512_maskz_multishift_epi64_epi8(all_64, shifts, lanes);
        _mm512_storeu_si512(out, look_up(symbols, values));
    }
    return blocks;
}

WITH_64 size_t qv::base64_decode_by_64(const char *in, size_t length, uint8_t *out)
{
    const __m512i low_values = _mm512_load_si512(tables.values.data());
    const __m512i high_values = _mm512_load_si512(tables.values.data() + 64);
    const __m512i pack = load_table(tables.pack);
    size_t blocks = 0;
    for (; length >= 64; blocks++, in += 64, length -= 64, out += 48) {
        const __m512i symbols = _mm512_loadu_si512(in);
        const __m512i values = _mm512_permutex2var_epi8(low_values, symbols, high_values);
        // The highest bit is set in characters from 128 on and in the value of foreign ones.
        if (_mm512_movepi8_mask(_mm512_or_si512(symbols, values)) != 0)
            break;
        const __m512i pairs = _mm512_maddubs_epi16(values, _mm512_set1_epi32(0x01400140));
        const __m512i groups = _mm512_madd_epi16(pairs, _mm512_set1_epi32(0x00011000));
        _mm512_mask_storeu_epi8(out, first_48, look_up(groups, pack));
    }
    return blocks;
}

#endif
