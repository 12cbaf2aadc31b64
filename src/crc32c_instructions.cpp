/*
 * CRC-32C by the processor's instructions: a word at a step in three streams, which hide the latency of the
 * instruction, and on processors that multiply polynomials in 512-bit registers, folding of 256 bytes at a
 * step. V. Gopal et al., "Fast CRC Computation for iSCSI Polynomial Using CRC32 Instruction", 2011, and "Fast
 * CRC Computation for Generic Polynomials Using PCLMULQDQ Instruction", 2009.
 *
 * Functions that use the instructions carry a target attribute, or the build gives this file alone the
 * instructions; none of them runs before the processor was asked.
 */
#include "crc32c.h"

#include <cstring>

#if defined(QV_CRC32C_WORDS)

#if defined(__x86_64__)
#include <immintrin.h>
#define WITH_WORDS __attribute__((target("sse4.2,pclmul")))
#define WITH_WIDE_FOLDING                                                                                    \
    __attribute__((target("sse4.2,pclmul,avx512f,avx512vl,avx512bw,avx512dq,vpclmulqdq")))
#else
#include <arm_acle.h>
#include <arm_neon.h>
#if defined(__clang__)
#define WITH_WORDS // its headers declare the instructions only to a source that is built for them as a whole
#else
#define WITH_WORDS __attribute__((target("+crc+crypto")))
#endif
#endif

namespace
{

using qv::crc32c_power_of_x;

#if defined(__x86_64__)

WITH_WORDS inline uint64_t step(uint64_t state, uint64_t word)
{
    return _mm_crc32_u64(state, word);
}

WITH_WORDS inline uint64_t step_byte(uint64_t state, uint8_t byte)
{
    return _mm_crc32_u8(static_cast<uint32_t>(state), byte);
}

WITH_WORDS inline uint64_t multiply(uint64_t a, uint64_t b)
{
    const __m128i product = _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(a)),
                                                 _mm_cvtsi64_si128(static_cast<long long>(b)), 0);
    return static_cast<uint64_t>(_mm_cvtsi128_si64(product));
}

#else

WITH_WORDS inline uint64_t step(uint64_t state, uint64_t word)
{
    return __crc32cd(static_cast<uint32_t>(state), word);
}

WITH_WORDS inline uint64_t step_byte(uint64_t state, uint8_t byte)
{
    return __crc32cb(static_cast<uint32_t>(state), byte);
}

WITH_WORDS inline uint64_t multiply(uint64_t a, uint64_t b)
{
    return vgetq_lane_u64(vreinterpretq_u64_p128(vmull_p64(a, b)), 0);
}

#endif

inline uint64_t load_word(const uint8_t *bytes)
{
    uint64_t word;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

// Steps over `length` bytes one after the other.
WITH_WORDS inline uint64_t run_single(uint64_t state, const uint8_t *bytes, size_t length)
{
    for (; length >= 8; bytes += 8, length -= 8)
        state = step(state, load_word(bytes));
    for (; length != 0; bytes++, length--)
        state = step_byte(state, *bytes);
    return state;
}

// Takes a state across `Bytes` zero bytes. A step over the product multiplies by x^32, and the product of two
// reflected words by another x; the exponent leaves both out.
template <unsigned int Bytes> WITH_WORDS inline uint64_t skip(uint64_t state)
{
    constexpr uint32_t power = crc32c_power_of_x(8 * Bytes - 33);
    return step(0, multiply(state, power));
}

// Runs over as many whole blocks of three streams of `Stream` bytes as there are.
template <unsigned int Stream>
WITH_WORDS inline uint64_t run_streams(uint64_t state, const uint8_t *&bytes, size_t &length)
{
    for (; length >= 3 * Stream; bytes += 3 * Stream, length -= 3 * Stream) {
        uint64_t second = 0, third = 0;
        for (unsigned int i = 0; i < Stream; i += 8) {
            state = step(state, load_word(bytes + i));
            second = step(second, load_word(bytes + Stream + i));
            third = step(third, load_word(bytes + 2 * Stream + i));
        }
        state = skip<2 * Stream>(state) ^ skip<Stream>(second) ^ third;
    }
    return state;
}

#if defined(QV_CRC32C_WIDE_FOLDING)

// Constants that carry 128 bits across a distance: x^(distance + 64) for the first half, which is the higher
// in a reflected number, and x^distance for the second. Reflected products lack one x, and the 32-bit power
// stands in the upper half of its word.
constexpr uint64_t carry_first(unsigned int distance_bits)
{
    return static_cast<uint64_t>(crc32c_power_of_x(distance_bits + 63)) << 32;
}

constexpr uint64_t carry_second(unsigned int distance_bits)
{
    return static_cast<uint64_t>(crc32c_power_of_x(distance_bits - 1)) << 32;
}

template <unsigned int DistanceBytes> WITH_WIDE_FOLDING inline __m512i carry_constants()
{
    constexpr auto first = static_cast<long long>(carry_first(8 * DistanceBytes));
    constexpr auto second = static_cast<long long>(carry_second(8 * DistanceBytes));
    return _mm512_set4_epi64(second, first, second, first);
}

// Adds what `value` amounts to a distance further on to the bytes that stand there.
WITH_WIDE_FOLDING inline __m512i fold(__m512i value, __m512i constants, __m512i there)
{
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(value, constants, 0x00),
                                     _mm512_clmulepi64_epi128(value, constants, 0x11), there, 0x96);
}

// Leaves the state behind the 64 bytes that `value` amounts to.
WITH_WIDE_FOLDING inline uint64_t reduce(__m512i value)
{
    // Three lanes are carried into the fourth, which stays as it is.
    alignas(64) static constexpr uint64_t constants[8] = {carry_first(384), carry_second(384),
                                                          carry_first(256), carry_second(256),
                                                          carry_first(128), carry_second(128)};
    const __m512i distances = _mm512_load_si512(constants);
    const __m512i lanes = fold(value, distances, _mm512_maskz_mov_epi64(0xc0, value));
    const __m256i half = _mm256_xor_si256(_mm512_maskz_extracti64x4_epi64(0xff, lanes, 0),
                                          _mm512_maskz_extracti64x4_epi64(0xff, lanes, 1));
    const __m128i last = _mm_xor_si128(_mm256_castsi256_si128(half), _mm256_extracti128_si256(half, 1));
    return step(step(0, static_cast<uint64_t>(_mm_cvtsi128_si64(last))),
                static_cast<uint64_t>(_mm_extract_epi64(last, 1)));
}

#endif

} // namespace

WITH_WORDS uint32_t qv::crc32c_by_words(uint32_t state, const uint8_t *bytes, size_t length)
{
    if (length < 3 * 64) // the shortest streams
        return static_cast<uint32_t>(run_single(state, bytes, length));
    uint64_t wide = state;
    wide = run_streams<1344>(wide, bytes, length);
    wide = run_streams<336>(wide, bytes, length);
    wide = run_streams<64>(wide, bytes, length);
    return static_cast<uint32_t>(run_single(wide, bytes, length));
}

#if defined(QV_CRC32C_WIDE_FOLDING)
WITH_WIDE_FOLDING uint32_t qv::crc32c_by_wide_folding(uint32_t state, const uint8_t *bytes, size_t length)
{
    constexpr size_t block = crc32c_wide_block;
    if (length < block)
        return crc32c_by_words(state, bytes, length);

    __m512i a = _mm512_xor_si512(_mm512_loadu_si512(bytes),
                                 _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(state))));
    __m512i b = _mm512_loadu_si512(bytes + 64);
    __m512i c = _mm512_loadu_si512(bytes + 128);
    __m512i d = _mm512_loadu_si512(bytes + 192);
    const __m512i over_block = carry_constants<256>();
    for (bytes += block, length -= block; length >= block; bytes += block, length -= block) {
        a = fold(a, over_block, _mm512_loadu_si512(bytes));
        b = fold(b, over_block, _mm512_loadu_si512(bytes + 64));
        c = fold(c, over_block, _mm512_loadu_si512(bytes + 128));
        d = fold(d, over_block, _mm512_loadu_si512(bytes + 192));
    }
    const __m512i over_two = carry_constants<128>(), over_one = carry_constants<64>();
    c = fold(a, over_two, c);
    d = fold(b, over_two, d);
    d = fold(c, over_one, d);
    for (; length >= 64; bytes += 64, length -= 64)
        d = fold(d, over_one, _mm512_loadu_si512(bytes));
    return static_cast<uint32_t>(run_single(reduce(d), bytes, length));
}
#endif

#endif
