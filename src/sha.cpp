/*
 * SHA-1 and SHA-256, FIPS 180-4. The roles of the state's words move on from step to step; a loop takes as
 * many steps at once as there are words, so that each word stays in its register.
 */
#include <qvlib/digest.h>

#include "digest.h"
#include "processor.h"

#include <bit>
#include <cstddef>
#include <utility>

static_assert(offsetof(sha1_ctx, state) == 0 && offsetof(sha1_ctx, buffer) == offsetof(sha1_ctx, length) + 8);
// Some 32-bit processors align 64-bit words to four bytes.
static_assert(offsetof(sha1_ctx, length) == 24 || (sizeof(void *) == 4 && offsetof(sha1_ctx, length) == 20));
static_assert(offsetof(sha256_ctx, state) == 0 && offsetof(sha256_ctx, length) == 32 &&
              offsetof(sha256_ctx, buffer) == 40 && sizeof(sha256_ctx) == 104);

namespace
{

using std::rotl;
using std::rotr;

// ---- SHA-1

constexpr uint32_t sha1_constants[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc, 0xca62c1d6};

template <size_t Round> [[gnu::always_inline]] inline uint32_t sha1_mix(uint32_t b, uint32_t c, uint32_t d)
{
    if constexpr (Round == 0)
        return d ^ (b & (c ^ d));
    else if constexpr (Round == 2)
        return (b & c) + (d & (b ^ c)); // no bit in common
    else
        return b ^ c ^ d;
}

#if defined(QVLIB_FIRMWARE)
// For size: the steps in a loop, the words changing places.
void sha1_block(uint32_t (&s)[5], uint32_t (&ring)[16])
{
    for (unsigned int i = 0; i < 80; i++) {
        uint32_t &word = ring[i % 16];
        if (i >= 16)
            word = rotl(ring[(i + 13) % 16] ^ ring[(i + 8) % 16] ^ ring[(i + 2) % 16] ^ word, 1);
        const uint32_t a = s[0], b = s[1], c = s[2], d = s[3];
        const uint32_t mixed = i < 20   ? sha1_mix<0>(b, c, d)
                               : i < 40 ? sha1_mix<1>(b, c, d)
                               : i < 60 ? sha1_mix<2>(b, c, d)
                                        : sha1_mix<3>(b, c, d);
        s[0] = rotl(a, 5) + mixed + s[4] + sha1_constants[i / 20] + word;
        s[1] = a;
        s[2] = rotl(b, 30);
        s[3] = c;
        s[4] = d;
    }
}
#else
// The word that step I uses, from a ring of the last sixteen; it takes the place of the word 16 steps before.
template <size_t I> [[gnu::always_inline]] inline uint32_t sha1_word(uint32_t (&ring)[16])
{
    if constexpr (I >= 16)
        ring[I % 16] = rotl(ring[(I + 13) % 16] ^ ring[(I + 8) % 16] ^ ring[(I + 2) % 16] ^ ring[I % 16], 1);
    return ring[I % 16];
}

template <size_t I> [[gnu::always_inline]] inline void sha1_step(uint32_t (&s)[5], uint32_t (&ring)[16])
{
    const uint32_t a = s[(80 - I) % 5], c = s[(82 - I) % 5], d = s[(83 - I) % 5];
    uint32_t &b = s[(81 - I) % 5], &e = s[(84 - I) % 5];
    e += sha1_constants[I / 20] + sha1_word<I>(ring) + sha1_mix<I / 20>(b, c, d);
    e += rotl(a, 5);
    b = rotl(b, 30);
}

template <size_t... I>
[[gnu::always_inline]] inline void sha1_block(uint32_t (&s)[5], uint32_t (&ring)[16],
                                              std::index_sequence<I...>)
{
    (sha1_step<I>(s, ring), ...);
}

void sha1_block(uint32_t (&s)[5], uint32_t (&ring)[16])
{
    sha1_block(s, ring, std::make_index_sequence<80>());
}
#endif

void run_sha1(uint32_t state[5], const uint8_t *blocks, size_t count)
{
#if defined(QV_SHA_INSTRUCTIONS)
    if (qv::processor_features() & qv::processor_sha1)
        return qv::sha1_blocks_by_instructions(state, blocks, count);
#endif
    qv::sha1_blocks(state, blocks, count);
}

// ---- SHA-256

#if defined(QVLIB_FIRMWARE)
void sha256_block(uint32_t (&s)[8], uint32_t (&w)[16])
{
    for (unsigned int i = 0; i < 64; i++) {
        uint32_t &word = w[i % 16];
        if (i >= 16) {
            const uint32_t early = w[(i + 1) % 16], late = w[(i + 14) % 16];
            word += (rotr(early, 7) ^ rotr(early, 18) ^ early >> 3) + w[(i + 9) % 16] +
                    (rotr(late, 17) ^ rotr(late, 19) ^ late >> 10);
        }
        const uint32_t a = s[0], b = s[1], c = s[2], e = s[4], f = s[5], g = s[6];
        const uint32_t h = s[7] + qv::sha256_constants[i] + word + (g ^ (e & (f ^ g))) +
                           (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25));
        for (size_t k = 7; k > 0; k--)
            s[k] = s[k - 1];
        s[4] += h;
        s[0] = h + ((a & b) | (c & (a | b))) + (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22));
    }
}
#else
// Step I of the sixteen that use a block's words in place; in later sixteens each word was replaced by the
// one that follows 16 places later.
template <size_t I>
[[gnu::always_inline]] inline void sha256_step(uint32_t (&s)[8], const uint32_t (&w)[16],
                                               const uint32_t *constants)
{
    const uint32_t a = s[(16 - I) % 8], b = s[(17 - I) % 8], c = s[(18 - I) % 8];
    const uint32_t e = s[(20 - I) % 8], f = s[(21 - I) % 8], g = s[(22 - I) % 8];
    uint32_t &d = s[(19 - I) % 8], &h = s[(23 - I) % 8];
    h += constants[I] + w[I];
    h += (g ^ (e & (f ^ g))) + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25));
    d += h;
    h += ((a & b) | (c & (a | b))) + (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22));
}

template <size_t I> [[gnu::always_inline]] inline void sha256_next_word(uint32_t (&w)[16])
{
    const uint32_t early = w[(I + 1) % 16], late = w[(I + 14) % 16];
    w[I] += (rotr(early, 7) ^ rotr(early, 18) ^ early >> 3) + w[(I + 9) % 16] +
            (rotr(late, 17) ^ rotr(late, 19) ^ late >> 10);
}

template <size_t... I>
[[gnu::always_inline]] inline void sha256_block(uint32_t (&s)[8], uint32_t (&w)[16],
                                                std::index_sequence<I...>)
{
    (sha256_step<I>(s, w, qv::sha256_constants), ...);
    for (size_t step = 16; step < 64; step += 16)
        ((sha256_next_word<I>(w), sha256_step<I>(s, w, qv::sha256_constants + step)), ...);
}

void sha256_block(uint32_t (&s)[8], uint32_t (&w)[16])
{
    sha256_block(s, w, std::make_index_sequence<16>());
}
#endif

void run_sha256(uint32_t state[8], const uint8_t *blocks, size_t count)
{
#if defined(QV_SHA_INSTRUCTIONS)
    if (qv::processor_features() & qv::processor_sha256)
        return qv::sha256_blocks_by_instructions(state, blocks, count);
#endif
    qv::sha256_blocks(state, blocks, count);
}

// ---- Both

template <typename Context, typename Run> void append(Context *ctx, const void *data, size_t len, Run run)
{
    if (ctx == nullptr || data == nullptr || len == 0)
        return;
    qv::digest_append(ctx->buffer, ctx->length % qv::digest_block, static_cast<const uint8_t *>(data), len,
                      [&](const uint8_t *blocks, size_t count) { run(ctx->state, blocks, count); });
    ctx->length += len;
}

template <typename Context, typename Run> void finish(Context *ctx, uint8_t *digest, Run run)
{
    if (ctx == nullptr || digest == nullptr)
        return;
    const uint64_t bits = ctx->length * 8;
    uint8_t length[8];
    qv::store_be32(length, static_cast<uint32_t>(bits >> 32));
    qv::store_be32(length + 4, static_cast<uint32_t>(bits));
    qv::digest_pad(ctx->buffer, ctx->length % qv::digest_block, length,
                   [&](const uint8_t *blocks, size_t count) { run(ctx->state, blocks, count); });
    for (const uint32_t word : ctx->state) {
        qv::store_be32(digest, word);
        digest += 4;
    }
}

} // namespace

void qv::sha1_blocks(uint32_t state[5], const uint8_t *blocks, size_t count)
{
    uint32_t s[5];
    std::copy(state, state + 5, s);
    for (; count != 0; count--, blocks += digest_block) {
        uint32_t ring[16];
        for (size_t i = 0; i < 16; i++)
            ring[i] = load_be32(blocks + 4 * i);
        sha1_block(s, ring);
        for (size_t i = 0; i < 5; i++)
            s[i] = state[i] += s[i];
    }
}

void qv::sha256_blocks(uint32_t state[8], const uint8_t *blocks, size_t count)
{
    uint32_t s[8];
    std::copy(state, state + 8, s);
    for (; count != 0; count--, blocks += digest_block) {
        uint32_t words[16];
        for (size_t i = 0; i < 16; i++)
            words[i] = load_be32(blocks + 4 * i);
        sha256_block(s, words);
        for (size_t i = 0; i < 8; i++)
            s[i] = state[i] += s[i];
    }
}

void sha1_init(struct sha1_ctx *ctx)
{
    if (ctx != nullptr)
        *ctx = {{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0}, 0, {}};
}

void sha1_append(struct sha1_ctx *ctx, const void *data, size_t len)
{
    append(ctx, data, len, run_sha1);
}

void sha1_finish(struct sha1_ctx *ctx, uint8_t *digest)
{
    finish(ctx, digest, run_sha1);
}

void sha1_single(const void *data, size_t len, uint8_t *digest)
{
    struct sha1_ctx ctx;
    sha1_init(&ctx);
    sha1_append(&ctx, data, len);
    sha1_finish(&ctx, digest);
}

void sha256_init(struct sha256_ctx *ctx)
{
    if (ctx != nullptr)
        *ctx = {
            {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19},
            0,
            {}};
}

void sha256_append(struct sha256_ctx *ctx, const void *data, size_t len)
{
    append(ctx, data, len, run_sha256);
}

void sha256_finish(struct sha256_ctx *ctx, uint8_t *digest)
{
    finish(ctx, digest, run_sha256);
}

void sha256_single(const void *data, size_t len, uint8_t *digest)
{
    struct sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_append(&ctx, data, len);
    sha256_finish(&ctx, digest);
}
