/* MD5, RFC 1321. */
#include <qvlib/digest.h>

#include "digest.h"

#include <bit>
#include <cstddef>
#include <utility>

static_assert(offsetof(md5_ctx, count) == 0 && offsetof(md5_ctx, state) == 8 &&
              offsetof(md5_ctx, buffer) == 24 && sizeof(md5_ctx) == 88);

namespace
{

// RFC 1321, 3.4: 4294967296 times abs(sin(i + 1)).
constexpr uint32_t sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The order in which the four rounds take the words of a block: (factor * i + start) modulo 16.
constexpr unsigned int word_factor[4] = {1, 5, 3, 7}, word_start[4] = {0, 1, 5, 0};

// The function of round I / 16, added to `sum`. In the second round the two halves have no bit in common, so
// they are added one by one: only the second waits for b.
template <size_t I>
[[gnu::always_inline]] inline uint32_t mix(uint32_t sum, uint32_t b, uint32_t c, uint32_t d)
{
    if constexpr (I < 16)
        return sum + (d ^ (b & (c ^ d)));
    else if constexpr (I < 32)
        return sum + (c & ~d) + (b & d);
    else if constexpr (I < 48)
        return sum + (b ^ (c ^ d));
    else
        return sum + (c ^ (b | ~d));
}

#if !defined(QVLIB_FIRMWARE)
// Step I changes one word of the state; the roles of the four words move on from step to step.
template <size_t I> [[gnu::always_inline]] inline void step(uint32_t (&s)[4], const uint32_t (&block)[16])
{
    constexpr size_t round = I / 16, word = (word_factor[round] * I + word_start[round]) % 16;
    uint32_t &a = s[(64 - I) % 4];
    const uint32_t b = s[(65 - I) % 4], c = s[(66 - I) % 4], d = s[(67 - I) % 4];
    a = b + std::rotl(mix<I>(a + block[word] + sines[I], b, c, d), rotations[round][I % 4]);
}
#endif

#if defined(QVLIB_FIRMWARE)
// For size: the steps in a loop, the words changing places.
void run_block(uint32_t (&s)[4], const uint32_t (&block)[16])
{
    for (unsigned int i = 0; i < 64; i++) {
        const unsigned int round = i / 16, word = (word_factor[round] * i + word_start[round]) % 16;
        const uint32_t b = s[1], c = s[2], d = s[3];
        const uint32_t sum = s[0] + block[word] + sines[i];
        const uint32_t mixed = round == 0   ? mix<0>(sum, b, c, d)
                               : round == 1 ? mix<16>(sum, b, c, d)
                               : round == 2 ? mix<32>(sum, b, c, d)
                                            : mix<48>(sum, b, c, d);
        s[0] = d;
        s[3] = c;
        s[2] = b;
        s[1] = b + std::rotl(mixed, rotations[round][i % 4]);
    }
}
#else
template <size_t... I>
[[gnu::always_inline]] inline void run_steps(uint32_t (&s)[4], const uint32_t (&block)[16],
                                             std::index_sequence<I...>)
{
    (step<I>(s, block), ...);
}

// Within the loop over the blocks: in a function of its own the state passes through memory, which takes 10 %
// more.
[[gnu::always_inline]] inline void run_block(uint32_t (&s)[4], const uint32_t (&block)[16])
{
    run_steps(s, block, std::make_index_sequence<64>());
}
#endif

size_t bytes_held(const md5_ctx &ctx)
{
    return ctx.count[0] / 8 % qv::digest_block;
}

void run(md5_ctx *ctx, const uint8_t *data, size_t len)
{
    qv::digest_append(ctx->buffer, bytes_held(*ctx), data, len, [&](const uint8_t *blocks, size_t count) {
        qv::md5_blocks(ctx->state, blocks, count);
    });
}

} // namespace

void qv::md5_blocks(uint32_t state[4], const uint8_t *blocks, size_t count)
{
    uint32_t s[4] = {state[0], state[1], state[2], state[3]};
    for (; count != 0; count--, blocks += digest_block) {
        uint32_t block[16];
        for (size_t i = 0; i < 16; i++)
            block[i] = load_le32(blocks + 4 * i);
        const uint32_t before[4] = {s[0], s[1], s[2], s[3]};
        run_block(s, block);
        for (size_t i = 0; i < 4; i++)
            s[i] += before[i];
    }
    std::copy(s, s + 4, state);
}

void md5_init(struct md5_ctx *ctx)
{
    if (ctx != nullptr)
        *ctx = {{0, 0}, {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, {}};
}

void md5_append(struct md5_ctx *ctx, const void *data, size_t len)
{
    if (ctx == nullptr || data == nullptr || len == 0)
        return;
    run(ctx, static_cast<const uint8_t *>(data), len);
    const uint64_t bits =
        (static_cast<uint64_t>(ctx->count[1]) << 32 | ctx->count[0]) + static_cast<uint64_t>(len) * 8;
    ctx->count[0] = static_cast<uint32_t>(bits);
    ctx->count[1] = static_cast<uint32_t>(bits >> 32);
}

void md5_finish(struct md5_ctx *ctx, uint8_t *digest)
{
    if (ctx == nullptr || digest == nullptr)
        return;
    uint8_t length[8];
    qv::store_le32(length, ctx->count[0]);
    qv::store_le32(length + 4, ctx->count[1]);
    qv::digest_pad(ctx->buffer, bytes_held(*ctx), length,
                   [&](const uint8_t *blocks, size_t count) { qv::md5_blocks(ctx->state, blocks, count); });
    for (size_t i = 0; i < 4; i++)
        qv::store_le32(digest + 4 * i, ctx->state[i]);
}

void md5_single(const void *data, size_t len, uint8_t *digest)
{
    struct md5_ctx ctx;
    md5_init(&ctx);
    md5_append(&ctx, data, len);
    md5_finish(&ctx, digest);
}
