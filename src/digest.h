/* What the digests share: gathering bytes into blocks of 64, padding, and the transforms of whole blocks. */
#ifndef QV_DIGEST_H
#define QV_DIGEST_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || (defined(__aarch64__) && defined(__AARCH64EL__))
#define QV_SHA_INSTRUCTIONS
#endif

namespace qv
{

constexpr size_t digest_block = 64;

// Each runs over `count` blocks and leaves the chaining state behind them. Their unrolled steps stand in
// the library once.
[[gnu::noinline]] void md5_blocks(uint32_t state[4], const uint8_t *blocks, size_t count);
[[gnu::noinline]] void sha1_blocks(uint32_t state[5], const uint8_t *blocks, size_t count);
[[gnu::noinline]] void sha256_blocks(uint32_t state[8], const uint8_t *blocks, size_t count);

#if defined(QV_SHA_INSTRUCTIONS)
// Need processor_sha1 and processor_sha256.
void sha1_blocks_by_instructions(uint32_t state[5], const uint8_t *blocks, size_t count);
void sha256_blocks_by_instructions(uint32_t state[8], const uint8_t *blocks, size_t count);
#endif

// FIPS 180-4, 4.2.2.
alignas(16) inline constexpr uint32_t sha256_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

inline uint32_t load_be32(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

inline uint32_t load_le32(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[3]) << 24 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[0]);
}

inline void store_be32(uint8_t *bytes, uint32_t word)
{
    for (unsigned int i = 0; i < 4; i++)
        bytes[i] = static_cast<uint8_t>(word >> (24 - 8 * i));
}

inline void store_le32(uint8_t *bytes, uint32_t word)
{
    for (unsigned int i = 0; i < 4; i++)
        bytes[i] = static_cast<uint8_t>(word >> (8 * i));
}

// Adds bytes to a buffer that holds `used` of them and hands every block that fills to `run(blocks, count)`;
// whole blocks of the input go there without a copy.
template <typename Run>
void digest_append(uint8_t (&buffer)[digest_block], size_t used, const uint8_t *data, size_t len, Run run)
{
    if (used != 0) {
        const size_t piece = std::min(digest_block - used, len);
        memcpy(buffer + used, data, piece);
        data += piece;
        len -= piece;
        if (used + piece < digest_block)
            return;
        run(buffer, size_t{1});
    }
    const size_t blocks = len / digest_block, rest = len % digest_block;
    if (blocks != 0)
        run(data, blocks);
    if (rest != 0)
        memcpy(buffer, data + blocks * digest_block, rest);
}

// Pads the last bytes with a one bit, zeros and the length in bits, which fill one block or two.
template <typename Run>
void digest_pad(uint8_t (&buffer)[digest_block], size_t used, const uint8_t (&length)[8], Run run)
{
    constexpr size_t length_place = digest_block - sizeof(length);
    buffer[used++] = 0x80;
    if (used > length_place) {
        memset(buffer + used, 0, digest_block - used);
        run(buffer, size_t{1});
        used = 0;
    }
    memset(buffer + used, 0, length_place - used);
    memcpy(buffer + length_place, length, sizeof(length));
    run(buffer, size_t{1});
}

} // namespace qv

#endif
