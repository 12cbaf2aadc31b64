// The hash of tags that texts from outside bring: seeded by a secret, so that a sender can't choose tags that
// collide.
#pragma once

#include <cstdint>
#include <cstring>
#include <sys/auxv.h>

namespace qv
{

// SipHash-1-3 (Aumasson and Bernstein), seeded by the random bytes that the kernel gives each process. An
// index keeps one: asking for the seed takes longer than the hash of a tag.
class tag_hash
{
  public:
    tag_hash()
    {
        if (const void *random = reinterpret_cast<const void *>(getauxval(AT_RANDOM)))
            memcpy(seed_, random, sizeof seed_);
    }

    uint32_t operator()(const char *text) const
    {
        size_t length = strlen(text);
        state s = {seed_[0] ^ 0x736f6d6570736575, seed_[1] ^ 0x646f72616e646f6d,
                   seed_[0] ^ 0x6c7967656e657261, seed_[1] ^ 0x7465646279746573};
        const uint64_t whole_length = static_cast<uint64_t>(length) << 56;
        for (; length >= 8; length -= 8, text += 8) {
            uint64_t word;
            memcpy(&word, text, 8);
            s.absorb(word);
        }
        uint64_t tail = 0;
        memcpy(&tail, text, length);
        s.absorb(tail ^ whole_length);
        s.v2 ^= 0xff;
        for (int round = 0; round < 3; round++)
            s.mix();
        const uint64_t hash = s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
        return static_cast<uint32_t>(hash ^ (hash >> 32));
    }

  private:
    struct state {
        uint64_t v0, v1, v2, v3;

        static uint64_t rotate(uint64_t x, int bits)
        {
            return (x << bits) | (x >> (64 - bits));
        }
        void mix()
        {
            v0 += v1, v1 = rotate(v1, 13), v1 ^= v0, v0 = rotate(v0, 32);
            v2 += v3, v3 = rotate(v3, 16), v3 ^= v2;
            v0 += v3, v3 = rotate(v3, 21), v3 ^= v0;
            v2 += v1, v1 = rotate(v1, 17), v1 ^= v2, v2 = rotate(v2, 32);
        }
        void absorb(uint64_t word)
        {
            v3 ^= word;
            mix();
            v0 ^= word;
        }
    };

    uint64_t seed_[2] = {0x0706050403020100, 0x0f0e0d0c0b0a0908};
};

} // namespace qv
