/* The ways in which crc32c runs over bytes, each of which gives the same state. */
#ifndef QV_CRC32C_H
#define QV_CRC32C_H

#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#define QV_CRC32C_WORDS
#define QV_CRC32C_WIDE_FOLDING
#elif defined(__aarch64__) && defined(__AARCH64EL__)
#define QV_CRC32C_WORDS
#endif

namespace qv
{

// Each takes the state before `length` bytes and returns the one behind them. A checksum begins with the
// state of all ones and is the complement of the last one, its bytes reversed.

// For any processor: tables, eight bytes at a step.
uint32_t crc32c_by_tables(uint32_t state, const uint8_t *bytes, size_t length);

#if defined(QV_CRC32C_WORDS)
// Needs processor_crc32.
uint32_t crc32c_by_words(uint32_t state, const uint8_t *bytes, size_t length);
#endif

#if defined(QV_CRC32C_WIDE_FOLDING)
// Needs processor_wide_folding. Shorter data go by words.
inline constexpr size_t crc32c_wide_block = 256;
uint32_t crc32c_by_wide_folding(uint32_t state, const uint8_t *bytes, size_t length);
#endif

// A power of x modulo the polynomial, bit-reflected as the state is: bit 31 is the coefficient of 1.
constexpr uint32_t crc32c_power_of_x(unsigned int exponent)
{
    uint32_t power = 0x80000000;
    while (exponent-- != 0)
        power = (power >> 1) ^ (power & 1 ? 0x82f63b78 : 0);
    return power;
}

} // namespace qv

#endif
