/* What the processor can do beyond its baseline, for the sources that have a path of their own for it. */
#ifndef QV_PROCESSOR_H
#define QV_PROCESSOR_H

#include <atomic>
#include <cstdint>

namespace qv
{

enum : uint32_t {
    processor_crc32 = 1u << 0,        // CRC-32C of a word, and 64-bit polynomial multiplication
    processor_wide_folding = 1u << 1, // polynomial multiplication in 512-bit registers
    processor_shuffle = 1u << 2,      // bytes of a 128-bit register by index (SSSE3)
    processor_sha1 = 1u << 3,
    processor_sha256 = 1u << 4,
    processor_shuffle_32 = 1u << 5, // the same within the halves of a 256-bit register (AVX2)
    processor_shuffle_64 = 1u << 6, // bytes of a 512-bit register by index (AVX-512 VBMI)
};

// What ask_processor found; 0 before.
extern std::atomic<uint32_t> processor_answer;

// Asks the processor: it takes thousands of times as long as looking at the answer.
uint32_t ask_processor();

// Returns processor_ bits. The processor is asked at the first call only.
inline uint32_t processor_features()
{
    const uint32_t features = processor_answer.load(std::memory_order_relaxed);
    return features != 0 ? features : ask_processor();
}

} // namespace qv

#endif
