/*
 * SHA-1 and SHA-256 by the processor's instructions, four steps at a time. Functions that use them carry a
 * target attribute, or the build gives this file alone the instructions; none runs before the processor was
 * asked for its features.
 */
#include "digest.h"

#if defined(QV_SHA_INSTRUCTIONS)

#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#define WITH_SHA __attribute__((target("sha,ssse3,sse4.1")))
#else
#include <arm_neon.h>
#if defined(__clang__)
#define WITH_SHA // its headers declare the instructions only to a source that is built for them as a whole
#else
#define WITH_SHA __attribute__((target("+crypto")))
#endif
#endif
#define STEP [[gnu::always_inline]] WITH_SHA inline

namespace
{

#if defined(__x86_64__)

using vector = __m128i;

STEP vector load(const void *words)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(words));
}

STEP void store(void *words, vector value)
{
    _mm_storeu_si128(static_cast<__m128i *>(words), value);
}

// SHA-1 wants its first word in the highest place.
struct sha1_state {
    vector abcd, e, previous;
};

// Steps 4 * I to 4 * I + 3. The e of a step is the a of four steps before, rotated; sha1nexte does that.
template <size_t I> STEP void sha1_four(sha1_state &s, vector (&w)[4])
{
    const vector e = I == 0 ? _mm_add_epi32(s.e, w[0]) : _mm_sha1nexte_epu32(s.previous, w[I % 4]);
    s.previous = s.abcd;
    s.abcd = _mm_sha1rnds4_epu32(s.abcd, e, I / 5);
    if constexpr (I < 16)
        w[I % 4] = _mm_sha1msg2_epu32(
            _mm_xor_si128(_mm_sha1msg1_epu32(w[I % 4], w[(I + 1) % 4]), w[(I + 2) % 4]), w[(I + 3) % 4]);
}

template <size_t... I> STEP void sha1_block(sha1_state &s, const uint8_t *block, std::index_sequence<I...>)
{
    const vector reverse = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const sha1_state before = s;
    vector w[4];
    for (size_t i = 0; i < 4; i++)
        w[i] = _mm_shuffle_epi8(load(block + 16 * i), reverse);
    (sha1_four<I>(s, w), ...);
    s.e = _mm_sha1nexte_epu32(s.previous, before.e);
    s.abcd = _mm_add_epi32(s.abcd, before.abcd);
}

// SHA-256 keeps the words a, b, e, f in one register and c, d, g, h in the other, the first word highest.
struct sha256_state {
    vector abef, cdgh;
};

template <size_t I> STEP void sha256_four(sha256_state &s, vector (&w)[4])
{
    const vector sums = _mm_add_epi32(w[I % 4], load(qv::sha256_constants + 4 * I));
    s.cdgh = _mm_sha256rnds2_epu32(s.cdgh, s.abef, sums);
    s.abef = _mm_sha256rnds2_epu32(s.abef, s.cdgh, _mm_shuffle_epi32(sums, 0x0e));
    if constexpr (I < 12)
        w[I % 4] = _mm_sha256msg2_epu32(_mm_add_epi32(_mm_sha256msg1_epu32(w[I % 4], w[(I + 1) % 4]),
                                                      _mm_alignr_epi8(w[(I + 3) % 4], w[(I + 2) % 4], 4)),
                                        w[(I + 3) % 4]);
}

template <size_t... I>
STEP void sha256_block(sha256_state &s, const uint8_t *block, std::index_sequence<I...>)
{
    const vector swap = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    const sha256_state before = s;
    vector w[4];
    for (size_t i = 0; i < 4; i++)
        w[i] = _mm_shuffle_epi8(load(block + 16 * i), swap);
    (sha256_four<I>(s, w), ...);
    s.abef = _mm_add_epi32(s.abef, before.abef);
    s.cdgh = _mm_add_epi32(s.cdgh, before.cdgh);
}

STEP sha1_state load_sha1(const uint32_t *state)
{
    const vector abcd = _mm_shuffle_epi32(load(state), 0x1b);
    return {abcd, _mm_slli_si128(_mm_cvtsi32_si128(static_cast<int>(state[4])), 12), abcd};
}

STEP void store_sha1(uint32_t *state, const sha1_state &s)
{
    store(state, _mm_shuffle_epi32(s.abcd, 0x1b));
    state[4] = static_cast<uint32_t>(_mm_extract_epi32(s.e, 3));
}

STEP sha256_state load_sha256(const uint32_t *state)
{
    const vector cdab = _mm_shuffle_epi32(load(state), 0xb1), efgh = _mm_shuffle_epi32(load(state + 4), 0x1b);
    return {_mm_alignr_epi8(cdab, efgh, 8), _mm_blend_epi16(efgh, cdab, 0xf0)};
}

STEP void store_sha256(uint32_t *state, const sha256_state &s)
{
    const vector feba = _mm_shuffle_epi32(s.abef, 0x1b), dchg = _mm_shuffle_epi32(s.cdgh, 0xb1);
    store(state, _mm_blend_epi16(feba, dchg, 0xf0));
    store(state + 4, _mm_alignr_epi8(dchg, feba, 8));
}

#else

using vector = uint32x4_t;

struct sha1_state {
    vector abcd;
    uint32_t e;
};

constexpr uint32_t sha1_constants[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc, 0xca62c1d6};

// Steps 4 * I to 4 * I + 3. The e of a step is the a of four steps before, rotated.
template <size_t I> STEP void sha1_four(sha1_state &s, vector (&w)[4])
{
    const vector sums = vaddq_u32(w[I % 4], vdupq_n_u32(sha1_constants[I / 5]));
    const uint32_t next = vsha1h_u32(vgetq_lane_u32(s.abcd, 0));
    if constexpr (I < 5)
        s.abcd = vsha1cq_u32(s.abcd, s.e, sums);
    else if constexpr (I < 10 || I >= 15)
        s.abcd = vsha1pq_u32(s.abcd, s.e, sums);
    else
        s.abcd = vsha1mq_u32(s.abcd, s.e, sums);
    s.e = next;
    if constexpr (I < 16)
        w[I % 4] = vsha1su1q_u32(vsha1su0q_u32(w[I % 4], w[(I + 1) % 4], w[(I + 2) % 4]), w[(I + 3) % 4]);
}

STEP vector load_swapped(const uint8_t *bytes)
{
    return vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(bytes)));
}

template <size_t... I> STEP void sha1_block(sha1_state &s, const uint8_t *block, std::index_sequence<I...>)
{
    const sha1_state before = s;
    vector w[4];
    for (size_t i = 0; i < 4; i++)
        w[i] = load_swapped(block + 16 * i);
    (sha1_four<I>(s, w), ...);
    s.abcd = vaddq_u32(s.abcd, before.abcd);
    s.e += before.e;
}

struct sha256_state {
    vector abcd, efgh;
};

template <size_t I> STEP void sha256_four(sha256_state &s, vector (&w)[4])
{
    const vector sums = vaddq_u32(w[I % 4], vld1q_u32(qv::sha256_constants + 4 * I));
    const vector abcd = s.abcd;
    s.abcd = vsha256hq_u32(s.abcd, s.efgh, sums);
    s.efgh = vsha256h2q_u32(s.efgh, abcd, sums);
    if constexpr (I < 12)
        w[I % 4] = vsha256su1q_u32(vsha256su0q_u32(w[I % 4], w[(I + 1) % 4]), w[(I + 2) % 4], w[(I + 3) % 4]);
}

template <size_t... I>
STEP void sha256_block(sha256_state &s, const uint8_t *block, std::index_sequence<I...>)
{
    const sha256_state before = s;
    vector w[4];
    for (size_t i = 0; i < 4; i++)
        w[i] = load_swapped(block + 16 * i);
    (sha256_four<I>(s, w), ...);
    s.abcd = vaddq_u32(s.abcd, before.abcd);
    s.efgh = vaddq_u32(s.efgh, before.efgh);
}

STEP sha1_state load_sha1(const uint32_t *state)
{
    return {vld1q_u32(state), state[4]};
}

STEP void store_sha1(uint32_t *state, const sha1_state &s)
{
    vst1q_u32(state, s.abcd);
    state[4] = s.e;
}

STEP sha256_state load_sha256(const uint32_t *state)
{
    return {vld1q_u32(state), vld1q_u32(state + 4)};
}

STEP void store_sha256(uint32_t *state, const sha256_state &s)
{
    vst1q_u32(state, s.abcd);
    vst1q_u32(state + 4, s.efgh);
}

#endif

} // namespace

WITH_SHA void qv::sha1_blocks_by_instructions(uint32_t state[5], const uint8_t *blocks, size_t count)
{
    sha1_state s = load_sha1(state);
    for (; count != 0; count--, blocks += digest_block)
        sha1_block(s, blocks, std::make_index_sequence<20>());
    store_sha1(state, s);
}

WITH_SHA void qv::sha256_blocks_by_instructions(uint32_t state[8], const uint8_t *blocks, size_t count)
{
    sha256_state s = load_sha256(state);
    for (; count != 0; count--, blocks += digest_block)
        sha256_block(s, blocks, std::make_index_sequence<16>());
    store_sha256(state, s);
}

#endif
