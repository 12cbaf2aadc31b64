/*
 * The processor's features, found at the first call and kept in an atomic. Threads that come at the same time
 * find the same answer, so no order is needed.
 */
#include "processor.h"

#if defined(__x86_64__)
#include <cpuid.h>
#elif defined(__aarch64__)
#include <sys/auxv.h>
#endif

namespace
{

// Tells a processor without any feature from one that was not asked yet.
constexpr uint32_t asked = 1u << 31;

#if defined(__x86_64__)

// Which registers of a thread the kernel keeps; the processor has xgetbv.
constexpr unsigned int registers_512 = 0xe6; // and the mask registers
#if !defined(QVLIB_FIRMWARE)
constexpr unsigned int registers_256 = 0x06;
#endif

unsigned int kept_registers()
{
    unsigned int low, high;
    __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low;
}

uint32_t ask()
{
    unsigned int a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d))
        return 0;
    uint32_t features = 0;
    if ((c & bit_SSE4_2) && (c & bit_PCLMUL))
        features |= qv::processor_crc32;
    if (c & bit_SSSE3)
        features |= qv::processor_shuffle;
    const bool sse4_1 = c & bit_SSE4_1;
    const unsigned int kept = c & bit_OSXSAVE ? kept_registers() : 0;
    const bool wide = (kept & registers_512) == registers_512;

    constexpr unsigned int wide_sets = bit_AVX512F | bit_AVX512VL | bit_AVX512BW | bit_AVX512DQ;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d))
        return features;
    if ((features & qv::processor_crc32) && wide && (b & wide_sets) == wide_sets && (c & bit_VPCLMULQDQ))
        features |= qv::processor_wide_folding;
    if ((features & qv::processor_shuffle) && sse4_1 && (b & bit_SHA))
        features |= qv::processor_sha1 | qv::processor_sha256;
#if !defined(QVLIB_FIRMWARE)
    if ((kept & registers_256) == registers_256 && (b & bit_AVX2))
        features |= qv::processor_shuffle_32;
    if (wide && (b & wide_sets) == wide_sets && (c & bit_AVX512VBMI))
        features |= qv::processor_shuffle_64;
#endif
    return features;
}

#elif defined(__aarch64__)

uint32_t ask()
{
    constexpr unsigned long crc32 = HWCAP_CRC32 | HWCAP_PMULL;
    const unsigned long has = getauxval(AT_HWCAP);
    uint32_t features = 0;
    if ((has & crc32) == crc32)
        features |= qv::processor_crc32;
    if (has & HWCAP_SHA1)
        features |= qv::processor_sha1;
    if (has & HWCAP_SHA2)
        features |= qv::processor_sha256;
    return features;
}

#else

uint32_t ask()
{
    return 0;
}

#endif

} // namespace

std::atomic<uint32_t> qv::processor_answer;

uint32_t qv::ask_processor()
{
    const uint32_t features = ask() | asked;
    processor_answer.store(features, std::memory_order_relaxed);
    return features;
}
